"""list_user_storage_file: local folders, the top level with drives, disc and shares, network folders through the
network client double, and the listing cache read back byte by byte. (Paging, sort and filter tables: unit.)"""
import stat
import struct
from pathlib import Path

import pytest

HEADER = struct.Struct("<IIBBB32s257siii256s")
ENTRY = struct.Struct("<iIQ16sB127s512s")
CACHE = Path("/tmp/usr_file_list")


def ls(host, path, offset="0", rng="0", folders="true", files="true", details="false", filt="", *more):
    return host.run("list_user_storage_file", path, offset, rng, folders, files, details, filt, *more)


names = lambda answer: [f.text_of("name").decode() for f in getattr(answer.tree.find("fileList"), "children", [])]  # noqa
counts = lambda answer: [answer.tree.text_of(t) for t in ("totalFile", "availableFolder", "availableFile")]  # noqa
c_str = lambda raw: raw.split(b"\0", 1)[0]  # noqa: E731


def records():
    data, out, at = CACHE.read_bytes(), [], 0
    while at < len(data):
        h = HEADER.unpack_from(data, at)
        out.append((h, [ENTRY.unpack_from(data, at + HEADER.size + i * ENTRY.size) for i in range(h[9])]))
        at += HEADER.size + h[9] * ENTRY.size
    return out


client_log = lambda: Path("/tmp/netfs_client.log").read_text().splitlines()  # noqa: E731


@pytest.fixture
def usb(drives):
    root = drives / "USB_DRIVE_A"
    [(root / "Movies" / folder).mkdir(parents=True) for folder in ["Sub", "lost+found", "$RECYCLE.BIN", "Rip/VIDEO_TS"]]
    for name, size in [("clip10.avi", 10), ("Clip9.avi", 30), ("song.MP3", 20), ("notes", 1), (".secret.avi", 1),
                       ("Rip/VIDEO_TS/VIDEO_TS.IFO", 0)]:
        (root / "Movies" / name).write_bytes(b"x" * size)
    return root


def test_local_folder(host, usb):
    a = ls(host, "USB_DRIVE_A/Movies/")
    assert names(a) == ["Rip", "Sub", "Clip9.avi", "clip10.avi", "song.MP3"]
    assert a.tree.tags == ["fileList", "totalFile", "availableFolder", "availableFile", "convertPath"]
    assert counts(a) == [b"5", b"1", b"4"] and a.tree.text_of("convertPath") == str(usb / "Movies").encode()
    rip = a.tree.find("fileList").children[0]
    assert (rip.tags, rip.text_of("type"), rip.text_of("isFolder")) == (["name", "path", "type", "isFolder"], b"dvd_rip", b"no")
    assert names(ls(host, "USB_DRIVE_A/Movies", "0", "0", "true", "true", "false", "", "NAME_DSC")) == names(a)  # needs 10
    assert ls(host, "USB_DRIVE_A/nothing").result == ls(host, "USB_DRIVE_A/" + "x" * 5000).result == 11


def test_cache_records_are_byte_exact_and_answer_repeats(host, usb):
    args = ("USB_DRIVE_A/Movies/", "0", "3", "true", "true", "true", "", "name_asc", "TRUE")
    first = ls(host, *args)
    assert names(first) == ["Rip", "Sub", "Clip9.avi"] and stat.S_IMODE(CACHE.stat().st_mode) == 0o600
    (h, (rip, sub, clip9)), = records()
    assert h[:10] == (0, 3, 1, 1, 0, bytes(32), b"USB_DRIVE_A/Movies".ljust(257, b"\0"), 4, 1, 3)
    assert c_str(h[10]) == str(usb / "Movies").encode()
    assert (c_str(rip[3]), rip[4], c_str(rip[5]), c_str(rip[6])) == (b"dvd_rip", 0, b"Rip", str(usb / "Movies/Rip").encode())
    assert (c_str(sub[3]), sub[4], c_str(sub[5])) == (b"", 1, b"Sub")
    assert clip9[:3] == (int((usb / "Movies/Clip9.avi").stat().st_mtime), 0, 30) and c_str(clip9[3]) == b"video"
    (usb / "Movies" / "Clip8.avi").write_bytes(b"")  # the second request is answered from the file
    f = ls(host, *args).tree.find("fileList").children[2]
    assert f.text_of("name") == b"Clip9.avi" and f.text_of("modifyDate").endswith(b"\n")
    assert f.tags == ["name", "path", "type", "modifyDate", "lastAccessDate", "size", "isFolder"]
    # A subfolder of a cached folder is not cached; without the flag nothing is read or written.
    assert names(ls(host, "USB_DRIVE_A/Movies/Sub", "0", "0", "true", "true", "true", "", "name_asc", "true")) == []
    assert names(ls(host, *args[:8], "false")) == ["Rip", "Sub", "Clip8.avi"] and len(records()) == 1


@pytest.mark.parametrize("code,name,path,is_folder", [
    ("0", "NO DISC", None, "yes"), ("4", "AUDIO-CD", "file:///dev/cdrom", "no"),
    ("8", "BD DISC NOT SUPPORTED", "file:///cdrom", "no"), (None, "UNSUPPORTED DISC", None, "yes")])
def test_disc_in_the_drive(host, drives, code, name, path, is_folder):
    (drives / "CDROM").mkdir()
    (drives / "USB_DRIVE_B").mkdir()
    if code is not None:
        Path("/dev/cdrom").write_text(code)
    cd, usb = ls(host, "", "0", "0", "true", "true", "true", "").tree.find("fileList").children
    assert [cd.text_of(t) for t in ("name", "path", "isFolder", "device_type")] == [
        name.encode(), (path or str(drives / "CDROM")).encode(), is_folder.encode(), b"rom"]
    want = None if code is None else b"cd"  # the drive after "CDROM" carries its type too
    assert (cd.text_of("type"), usb.text_of("type")) == (want, want)


def test_top_level_drives_and_shares(host, drives, config):
    for d in ["USB_DRIVE_B", "USB_DRIVE_A", "SATA_DISK1/pvx_database", "NETWORK_SHARE/Public/pvx_database", ".hidden",
              "USB_DRIVE_C"]:
        (drives / d).mkdir(parents=True)
        (drives / d / "media.db").write_bytes(b"") if d.endswith("pvx_database") else None
    Path("/tmp/usb_name.txt").write_text("USB_DRIVE_A|Zeta\nUSB_DRIVE_B|alpha\n")  # no closing bars: labels run on
    assert names(ls(host, "")) == ["SATA_DISK1", "Zeta\nUSB_DRIVE_B", "alpha\n", "USB_DRIVE_C"]
    Path("/tmp/usb_name.txt").write_text("USB_DRIVE_A|Zeta|\nUSB_DRIVE_B|alpha|\nSATA_DISK1|Internal|\n")
    config.update(netfs_name0="Public", netfs_url0="smb://nas/public", netfs_name3="Backup", netfs_url3="nfs://srv/backup",
                  netfs_name5="Odd", netfs_url5="ftp://x/y")
    local = ls(host, "", "0", "0", "true", "true", "true", "local", "name_asc", "false", "true")
    assert names(local) == ["alpha", "Internal", "USB_DRIVE_C", "Zeta"] and "convertPath" not in local.tree.tags
    sata = local.tree.find("fileList").children[1]
    assert sata.tags == ["name", "path", "isFolder", "fileSystem", "usedDiskSpace", "freeDiskSpace", "size",
                         "modifyDate", "lastAccessDate", "device_type", "pvx"]
    assert [sata.text_of(t) for t in ("device_type", "pvx", "fileSystem")] == [b"harddisk", b"true", b"tmpfs"]
    assert names(ls(host, "", "0", "0", "true", "true", "false", "local", "name_dsc", "false")) == [
        "Zeta", "USB_DRIVE_C", "Internal", "alpha"]
    shares = ls(host, "/", "0", "0", "true", "true", "true", "network", "name_asc", "false", "true")
    assert counts(shares) == [b"3", b"3", b"0"]
    assert [(s.text_of("name"), s.text_of("device_type"), s.text_of("pvx")) for s in shares.tree.find("fileList")
            .children] == [(b"Public", b"samba", b"true"), (b"Backup", b"nfs", b"false"), (b"Odd", b"nfs", b"false")]
    assert names(ls(host, "")) == ["Internal", "Zeta", "alpha", "USB_DRIVE_C", "Public", "Backup", "Odd"]
    assert ls(host, "NETWORK_SHARE/Public").tree.text_of("convertPath") == b"smb://nas/public"


def test_network_folder_through_the_client(host, drives, config):
    share = config.share(0, "Public", "smb://nas/public")
    for name, size in [("b.mkv", 5), ("a.mp3", 1), ("c.JPG", 2), (".hidden.mp4", 7)]:
        (share / name).write_bytes(b"x" * size)
    (share / "Films" / "VIDEO_TS").mkdir(parents=True)
    (share / "Films/VIDEO_TS/VIDEO_TS.IFO").write_bytes(b"i")
    a = ls(host, "smb://nas/public/", "0", "0", "true", "true", "true", "", "size_dsc", "false")
    assert a.tree.tags == ["availableFolder", "availableFile", "fileList", "totalFile", "convertPath"]
    assert names(a) == ["b.mkv", "c.JPG", "a.mp3", "Films"] and a.tree.text_of("convertPath") == str(share).encode()
    b = a.tree.find("fileList").children[0]
    assert b.tags == ["size", "modifyDate", "isFolder", "type", "name", "path"]
    assert [b.text_of(t) for t in ("size", "type", "path")] == [b"5", b"video", b"smb://nas/public/b.mkv"]
    assert client_log()[-1] == ("netfs_client cmd=4&outfile=/tmp/smb.out&offset=0&range=99999&listtype=1"
                                "&filter=0&sort=3 smb://nas/public")
    assert names(ls(host, "smb://nas/public", "1", "5", "false", "true", "false", "photo")) == []
    assert client_log()[-1].endswith("offset=1&range=5&listtype=2&filter=3&sort=0 smb://nas/public")
    assert names(ls(host, "smb://nas/public", "0", "0", "true", "true", "false", "photo")) == ["c.JPG"]
    args = ("smb://nas/public", "0", "0", "true", "true", "true", "video", "name_asc", "true")
    assert names(ls(host, *args)) == ["b.mkv", "Films"]
    (h, (mkv, films)), = records()
    assert (c_str(h[6]), c_str(h[5]), h[7:10]) == (b"smb://nas/public", b"video", (2, 0, 2))
    assert (mkv[2], c_str(mkv[3]), mkv[4], c_str(mkv[5])) == (5, b"video", 0, b"b.mkv")
    assert (c_str(films[3]), films[4]) == (b"dvd_rip", 0)
    calls = len(client_log())
    assert names(ls(host, *args)) == ["b.mkv", "Films"] and len(client_log()) == calls  # from the cache
    config["netfs_client_exit"] = "7"
    assert ls(host, "smb://nas/public").result == 1007
    assert ls(host, "smb://nas/unknown").result == 1002
