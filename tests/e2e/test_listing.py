"""list_user_storage_file through the reference host: local folders, the
top level with drives, the disc and network shares, network folders through
the network client (the host's and hand-written answers), and the listing
cache file read back byte by byte."""
import os
import stat
import struct
from pathlib import Path

import pytest

from conftest import DRIVES, NETFS_CLIENT, make_fake

KEY = struct.Struct("<IIBBB32s257s")
HEADER = struct.Struct("<IIBBB32s257siii256s")
ENTRY = struct.Struct("<iIQ16sB127s512s")
assert (KEY.size, HEADER.size, ENTRY.size) == (300, 568, 672)
CACHE = Path("/tmp/usr_file_list")
SMB_OUT = Path("/tmp/smb.out")


def ls(host, path, offset="0", rng="0", folders="true", files="true", details="false", filt="", *more):
    return host.run("list_user_storage_file", path, offset, rng, folders, files, details, filt, *more)


def names(answer):
    fl = answer.tree.find("fileList")
    return [] if fl is None else [f.text_of("name").decode() for f in fl.findall("file")]


def counts(answer):
    return {t: answer.tree.text_of(t) for t in ("totalFile", "availableFolder", "availableFile")}


def c_str(raw):
    return raw.split(b"\0", 1)[0]


def records():
    data = CACHE.read_bytes()
    out, at = [], 0
    while at < len(data):
        h = HEADER.unpack_from(data, at)
        at += HEADER.size
        entries = [ENTRY.unpack_from(data, at + i * ENTRY.size) for i in range(h[9])]
        at += h[9] * ENTRY.size
        out.append((h, entries))
    return out


@pytest.fixture
def usb(drives):
    root = drives / "USB_DRIVE_A"
    (root / "Movies").mkdir(parents=True)
    for name, size in [("clip10.avi", 10), ("Clip9.avi", 30), ("song.MP3", 20), ("notes", 1), (".secret.avi", 1)]:
        (root / "Movies" / name).write_bytes(b"x" * size)
    for folder in ["Sub", "lost+found", "$RECYCLE.BIN", "Rip/VIDEO_TS"]:
        (root / "Movies" / folder).mkdir(parents=True)
    (root / "Movies" / "Rip/VIDEO_TS/VIDEO_TS.IFO").write_bytes(b"")
    return root


def test_local_folder_order_filters_and_counts(host, usb):
    a = ls(host, "USB_DRIVE_A/Movies/")
    assert a.result == 0
    assert names(a) == ["Rip", "Sub", "Clip9.avi", "clip10.avi", "song.MP3"]
    assert a.tree.tags == ["fileList", "totalFile", "availableFolder", "availableFile", "convertPath"]
    assert counts(a) == {"totalFile": b"5", "availableFolder": b"1", "availableFile": b"4"}
    assert a.tree.text_of("convertPath") == str(usb / "Movies").encode()
    rip = a.tree.find("fileList").findall("file")[0]
    assert rip.tags == ["name", "path", "type", "isFolder"]
    assert (rip.text_of("type"), rip.text_of("isFolder")) == (b"dvd_rip", b"no")

    # The same folder by its absolute path; sort keys only with 10 arguments.
    assert names(ls(host, str(usb / "Movies"), "0", "0", "true", "true", "false", "", "size_dsc", "false")) == [
        "Sub", "Rip", "Clip9.avi", "song.MP3", "clip10.avi"]
    assert names(ls(host, "USB_DRIVE_A/Movies", "0", "0", "true", "true", "false", "", "NAME_DSC")) == names(a)
    assert names(ls(host, "USB_DRIVE_A/Movies", "0", "0", "true", "true", "false", "", "NAME_DSC", "x")) == [
        "Sub", "Rip", "song.MP3", "clip10.avi", "Clip9.avi"]
    music = ls(host, "USB_DRIVE_A/Movies", "0", "0", "true", "true", "false", "music")
    assert names(music) == ["Sub", "song.MP3"]
    assert counts(music) == {"totalFile": b"2", "availableFolder": b"2", "availableFile": b"1"}


def test_paging_with_folders_off_and_a_missing_folder(host, usb):
    # Folders hidden: the element is left out; the counting rules have their
    # own table in the unit tests.
    a = ls(host, "USB_DRIVE_A/Movies", "1", "2", "FALSE", "true")
    assert names(a) == ["Clip9.avi", "clip10.avi"]
    assert a.tree.tags == ["fileList", "totalFile", "availableFile", "convertPath"]
    assert ls(host, "USB_DRIVE_A/nothing").result == 11


def test_details_of_files_and_a_cut_element(host, usb):
    os.symlink("/nonexistent", usb / "Movies" / "gone.mkv")
    a = ls(host, "USB_DRIVE_A/Movies", "0", "0", "false", "true", "true")
    files = {f.text_of("name"): f for f in a.tree.find("fileList").findall("file")}
    assert files[b"gone.mkv"].tags == ["name", "path", "type"]
    clip = files[b"Clip9.avi"]
    assert clip.tags == ["name", "path", "type", "size", "modifyDate", "lastAccessDate", "isFolder"]
    assert clip.text_of("size") == b"30" and not clip.text_of("modifyDate").endswith(b"\n")


def test_cache_records_are_byte_exact_and_answer_repeats(host, usb):
    args = ("USB_DRIVE_A/Movies/", "0", "3", "true", "true", "true", "", "name_asc", "TRUE")
    first = ls(host, *args)
    assert names(first) == ["Rip", "Sub", "Clip9.avi"]
    assert stat.S_IMODE(CACHE.stat().st_mode) == 0o600
    (h, entries), = records()
    assert h[:7] == (0, 3, 1, 1, 0, b"".ljust(32, b"\0"), b"USB_DRIVE_A/Movies".ljust(257, b"\0"))
    assert h[7:10] == (4, 1, 3)
    assert c_str(h[10]) == str(usb / "Movies").encode()
    rip, sub, clip9 = entries
    assert (c_str(rip[3]), rip[4], c_str(rip[5])) == (b"dvd_rip", 0, b"Rip")
    assert (c_str(sub[3]), sub[4], c_str(sub[5])) == (b"", 1, b"Sub")
    assert c_str(rip[6]) == str(usb / "Movies" / "Rip").encode()
    assert (clip9[2], c_str(clip9[3]), clip9[4]) == (30, b"video", 0)
    assert clip9[0] == int((usb / "Movies" / "Clip9.avi").stat().st_mtime)

    # The second request is answered from the file, even after a change.
    (usb / "Movies" / "Clip8.avi").write_bytes(b"")
    again = ls(host, *args)
    assert names(again) == names(first)
    f = again.tree.find("fileList").findall("file")[2]
    assert f.tags == ["name", "path", "type", "modifyDate", "lastAccessDate", "size", "isFolder"]
    assert f.text_of("modifyDate").endswith(b"\n") and f.text_of("lastAccessDate") == b""
    assert again.tree.tags == first.tree.tags
    assert len(records()) == 1

    # A subfolder of a cached folder is listed but not cached; without the
    # cache flag nothing is read or written.
    (usb / "Movies" / "Sub" / "a.avi").write_bytes(b"")
    sub = ls(host, "USB_DRIVE_A/Movies/Sub", "0", "0", "true", "true", "true", "", "name_asc", "true")
    assert names(sub) == ["a.avi"] and len(records()) == 1
    assert names(ls(host, *args[:8], "false")) == ["Rip", "Sub", "Clip8.avi"]
    assert len(records()) == 1


@pytest.mark.parametrize("code,name,path,is_folder", [
    ("0", "NO DISC", None, "yes"),
    ("1", "DATA-DISC", None, "yes"),
    ("4", "AUDIO-CD", "file:///dev/cdrom", "no"),
    ("7", "BD-RE", "file:///dev/cdrom", "no"),
    ("8", "BD DISC NOT SUPPORTED", "file:///cdrom", "no"),
    ("3", "UNSUPPORTED DISC", "file:///dev/cdrom", "no"),
    (None, "UNSUPPORTED DISC", None, "yes"),
])
def test_disc_in_the_drive(host, drives, code, name, path, is_folder):
    (drives / "CDROM").mkdir()
    (drives / "USB_DRIVE_B").mkdir()
    if code is not None:
        Path("/dev/cdrom").write_text(code)
    a = ls(host, "", "0", "0", "true", "true", "true", "")
    cd, usb = a.tree.find("fileList").findall("file")
    assert cd.text_of("name") == name.encode()
    assert cd.text_of("path") == (path or str(drives / "CDROM")).encode()
    assert cd.text_of("isFolder") == is_folder.encode()
    assert cd.text_of("device_type") == b"rom"
    # The drive listed after "CDROM" carries the disc drive's type too.
    want_type = None if code is None else b"cd"
    assert (cd.text_of("type"), usb.text_of("type")) == (want_type, want_type)


def test_folder_named_cdrom_below_the_top(host, usb):
    (usb / "CDROM").mkdir()
    Path("/dev/cdrom").write_text("4")
    a = ls(host, "USB_DRIVE_A")
    assert names(a)[0] == "UNSUPPORTED DISC"


def test_top_level_with_and_without_local_and_network(host, drives, config):
    for d in ["USB_DRIVE_B", "USB_DRIVE_A", "SATA_DISK1", "NETWORK_SHARE", ".hidden"]:
        (drives / d).mkdir()
    (drives / "SATA_DISK1/pvx_database").mkdir()
    (drives / "SATA_DISK1/pvx_database/media.db").write_bytes(b"")
    Path("/tmp/usb_name.txt").write_text("USB_DRIVE_A|Zeta|\nUSB_DRIVE_B|alpha|\nSATA_DISK1|Internal|\n")
    config.share(0, "Public", "smb://nas/public")
    config.share(3, "Backup", "nfs://srv/backup")
    config.update(netfs_name5="Odd", netfs_url5="ftp://x/y")
    (drives / "NETWORK_SHARE/Public/pvx_database").mkdir(parents=True)
    (drives / "NETWORK_SHARE/Public/pvx_database/media.db").write_bytes(b"")

    local = ls(host, "", "0", "0", "true", "true", "true", "local", "name_asc", "false", "true")
    assert names(local) == ["alpha", "Internal", "Zeta"]
    sata = local.tree.find("fileList").findall("file")[1]
    assert sata.tags == ["name", "path", "isFolder", "fileSystem", "usedDiskSpace", "freeDiskSpace", "size",
                         "modifyDate", "lastAccessDate", "device_type", "pvx"]
    assert (sata.text_of("device_type"), sata.text_of("pvx"), sata.text_of("fileSystem")) == (
        b"harddisk", b"true", b"tmpfs")
    assert "convertPath" not in local.tree.tags
    assert counts(local) == {"totalFile": b"3", "availableFolder": b"3", "availableFile": b"0"}
    assert names(ls(host, "", "0", "0", "true", "true", "false", "local", "name_dsc", "false")) == [
        "Zeta", "Internal", "alpha"]

    network = ls(host, "/", "0", "0", "true", "true", "true", "network", "name_asc", "false", "true")
    shares = network.tree.find("fileList").findall("file")
    assert [s.text_of("name") for s in shares] == [b"Public", b"Backup", b"Odd"]
    assert shares[0].tags == ["name", "path", "modifyDate", "lastAccessDate", "size", "device_type", "pvx",
                              "isFolder"]
    assert [(s.text_of("device_type"), s.text_of("pvx")) for s in shares] == [
        (b"samba", b"true"), (b"nfs", b"false"), (b"nfs", b"false")]
    assert counts(network) == {"totalFile": b"3", "availableFolder": b"3", "availableFile": b"0"}

    both = ls(host, "", "0", "0", "true", "true", "false", "")
    # Without "local" the drives come in folder-name order, under their labels.
    assert names(both) == ["Internal", "Zeta", "alpha", "Public", "Backup", "Odd"]
    assert both.tree.text_of("totalFile") == b"6"
    assert names(ls(host, "", "0", "0", "false", "true", "false", "")) == []


def test_top_level_labels_are_cut_at_the_next_bar_only(host, drives, usb_names):
    # The top level reads the first 1023 bytes of the drive name list and
    # takes what follows "<folder>|" up to the next "|" or the end of what
    # was read: a list without closing bars gives labels with line feeds.
    for d in ["USB_DRIVE_A", "USB_DRIVE_B", "USB_DRIVE_C"]:
        (drives / d).mkdir()
    usb_names({"USB_DRIVE_A": "Stick", "USB_DRIVE_B": "Other"})
    assert names(ls(host, "", "0", "0", "true", "true", "false", "")) == [
        "Stick\nUSB_DRIVE_B", "Other\n", "USB_DRIVE_C"]
    Path("/tmp/usb_name.txt").write_text("USB_DRIVE_A|Stick|\nUSB_DRIVE_B|Other|\n")
    assert names(ls(host, "", "0", "0", "true", "true", "false", "")) == ["Stick", "Other", "USB_DRIVE_C"]


def test_convert_path_of_local_folders(host, drives, config):
    share = config.share(0, "Public", "smb://nas/public")
    (share / "Films").mkdir()
    (drives / "USB_DRIVE_A").mkdir()
    assert ls(host, "NETWORK_SHARE/Public/Films").tree.text_of("convertPath") == b"smb://nas/public/Films"
    assert ls(host, "NETWORK_SHARE/Public").tree.text_of("convertPath") == b"smb://nas/public"
    assert ls(host, "USB_DRIVE_A").tree.text_of("convertPath") == str(drives / "USB_DRIVE_A").encode()


def test_over_long_paths(host, usb):
    assert ls(host, "USB_DRIVE_A/" + "x" * 5000).result == 11
    deep = usb / ("d" * 200) / ("e" * 100)
    deep.mkdir(parents=True)
    (deep / ("n" * 200 + ".avi")).write_bytes(b"")
    rel = str(deep.relative_to(DRIVES))
    a = ls(host, rel, "0", "0", "true", "true", "false", "", "name_asc", "true")
    assert names(a) == ["n" * 200 + ".avi"]
    assert not CACHE.exists()  # a path longer than the key's 256 characters is not cached
    short = usb / ("d" * 200)
    b = ls(host, str(short.relative_to(DRIVES)), "0", "0", "true", "true", "false", "", "name_asc", "true")
    assert names(b) == ["e" * 100]
    (h, entries), = records()
    assert len(c_str(entries[0][6])) == len(str(short / ("e" * 100)))


def test_network_folder_through_the_client(host, drives, config):
    share = config.share(0, "Public", "smb://nas/public")
    (share / "Films").mkdir()
    (share / "b.mkv").write_bytes(b"12345")
    (share / "a.mp3").write_bytes(b"1")
    a = ls(host, "smb://nas/public/", "0", "0", "true", "true", "true", "", "size_dsc", "false")
    assert a.result == 0
    assert a.tree.tags == ["availableFolder", "availableFile", "fileList", "totalFile", "convertPath"]
    assert names(a) == ["Films", "b.mkv", "a.mp3"]
    b = a.tree.find("fileList").findall("file")[1]
    assert b.tags == ["size", "modifyDate", "isFolder", "type", "name", "path"]
    assert (b.text_of("size"), b.text_of("type"), b.text_of("path")) == (b"5", b"video", b"smb://nas/public/b.mkv")
    assert a.tree.text_of("convertPath") == str(share).encode()
    log = Path("/tmp/netfs_client.log").read_text().splitlines()
    assert log[-1] == ("netfs_client cmd=4&outfile=/tmp/smb.out&offset=0&range=99999&listtype=1&filter=0"
                       "&sort=3 smb://nas/public")
    ls(host, "smb://nas/public", "2", "5", "true", "false", "false", "music")
    assert Path("/tmp/netfs_client.log").read_text().splitlines()[-1] == (
        "netfs_client cmd=4&outfile=/tmp/smb.out&offset=2&range=5&listtype=3&filter=2&sort=0 smb://nas/public")

    config["netfs_client_exit"] = "7"
    failed = ls(host, "smb://nas/public")
    assert failed.result == 1007 and failed.tree.children == []
    del config["netfs_client_exit"]
    assert ls(host, "smb://nas/unknown").result == 1002


def test_network_pages_are_cached(host, drives, config):
    share = config.share(0, "Public", "smb://nas/public")
    (share / "x.avi").write_bytes(b"abc")
    args = ("smb://nas/public", "0", "0", "true", "true", "true", "video", "name_asc", "true")
    first = ls(host, *args)
    (h, entries), = records()
    assert (c_str(h[6]), c_str(h[5]), h[7:10]) == (b"smb://nas/public", b"video", (1, 0, 1))
    e = entries[0]
    assert (e[2], c_str(e[3]), e[4], c_str(e[5]), c_str(e[6])) == (3, b"video", 0, b"x.avi", b"smb://nas/public/x.avi")
    assert e[0] == int((share / "x.avi").stat().st_mtime)
    log_lines = len(Path("/tmp/netfs_client.log").read_text().splitlines())
    again = ls(host, *args)
    assert names(again) == names(first) == ["x.avi"]
    assert len(Path("/tmp/netfs_client.log").read_text().splitlines()) == log_lines


@pytest.fixture
def hand_written(drives):
    """A network client double that leaves a hand-written /tmp/smb.out alone."""
    make_fake(NETFS_CLIENT.parent, NETFS_CLIENT.name, "exit 0\n")

    def write(text):
        SMB_OUT.write_bytes(text.encode())
    return write


def test_hand_written_answers(host, hand_written):
    hand_written(
        "x|1|Mon Jan  1 00:00:00 2024|6\nurl=smb://h/s/x\n"           # code 6: no isFolder, no type
        "broken|1|d|4\n"                                                # a pair of lines: this one and
        "\n"                                                            # an empty address line: skipped
        "many|9|Mon Jan  1 00:00:00 2024|12|e|f|g\nsmb://h/s/many\n"    # surplus fields, no url=
        "9|4|d|10\nurl=smb://h/s\n"
        "tune|2|d|2\nurl=smb://h/s/tune.mp3\n")
    a = ls(host, "smb://h/s", "0", "0", "true", "true", "false", "")
    assert a.result == 0
    assert a.tree.tags == ["availableFolder", "availableFile", "fileList", "totalFile", "convertPath"]
    assert names(a) == ["x", "many", "tune"]
    assert counts(a) == {"totalFile": b"3", "availableFolder": b"4", "availableFile": b"9"}
    # With "video" only the rip passes; no entry follows the summary, so
    # "fileList" stays before it.
    v = ls(host, "smb://h/s", "0", "0", "true", "true", "false", "video")
    assert names(v) == ["many"]
    assert v.tree.tags == ["fileList", "availableFolder", "availableFile", "totalFile", "convertPath"]

    SMB_OUT.unlink()
    assert ls(host, "smb://h/s").result == 4


def test_hand_written_answers_are_cached_with_their_codes(host, hand_written):
    hand_written("".join(f"n{c}|{c}|Tue Feb  2 03:04:05 2021|{c}\nurl=smb://h/s/n{c}\n"
                         for c in ["0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "11", "12", "13"]))
    a = ls(host, "smb://h/s", "0", "0", "true", "true", "true", "", "name_asc", "true")
    assert a.tree.text_of("totalFile") == b"13"
    (h, entries), = records()
    assert h[7:9] == (0, 0)
    assert [(c_str(e[3]), e[4]) for e in entries] == [
        (b"unknown", 0), (b"", 1), (b"music", 0), (b"photo", 0), (b"video", 0), (b"others", 0), (b"", 0),
        (b"torrent", 0), (b"phf", 0), (b"music", 0), (b"bd_rip", 0), (b"dvd_rip", 0), (b"video_iso", 0)]
    assert [e[2] for e in entries] == [0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13]
