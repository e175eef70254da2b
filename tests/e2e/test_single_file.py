"""The single-file commands' result codes and the errno behind each. (Read spans, errno table: unit; hostile names:
test_hardening.py.)"""
import os
import shutil
import socket
import struct

import pytest

from conftest import BUILD_DIR, OPT, PLUGIN, VTR_HOST, Host, mount

def results(host, table):  # runs each (words, code) row in order; (words, result) of those that differ
    return [(w, r) for w, code in table for r in [host.run(*w).result] if r != code]


def test_create_write_read_info(host, drives):
    (drives / "HDD").mkdir()
    path = drives / "HDD" / "new" / "notes.txt"  # "new" is made on demand, one level
    assert host.run("create_user_storage_file", str(path)).result == 0
    assert path.stat().st_mode & 0o777 == path.parent.stat().st_mode & 0o777 == 0o700
    markup = b'<a href="x">&amp; \xc3\xa9 \xff\x01</a>]]>'
    assert host.run("write_user_storage_file", "HDD/new/notes.txt", "false", markup, "0").result == 0
    assert host.run("read_user_storage_file", "HDD/new/notes.txt", "0", "0").tree.text_of("content") == markup
    path.write_bytes(blob := bytes(range(256)) * 3 + b"\0\0<x>\0")
    a = host.run("read_user_storage_file", "HDD/new/notes.txt", "250", "10")
    assert (a.result, a.tree.tags, a.tree.text_of("content")) == (0, ["content"], blob[250:260])
    (drives / "w.txt").write_bytes(b"0123456789")
    for mode, text, count, expected in [("false", "abcdef", "3", b"abc"), ("FaLsE", "xy", "-1", b"xy"),
                                        ("true", "abc", "99", b"xyabc"), ("no", "abcdef", "2", b"xyabcab"),
                                        ("false", "", "0", b"")]:
        assert host.run("write_user_storage_file", "w.txt", mode, text, count).result == 0
        assert (drives / "w.txt").read_bytes() == expected, (mode, text, count)
    # A JPEG turned by its Exif orientation reports swapped sizes; the MIME type comes from the name.
    tiff, sof = b"II" + struct.pack("<HIHHHIHHI", 42, 8, 1, 0x0112, 3, 1, 6, 0, 0), struct.pack(">BHHBBBB", 8, 480, 640, 1, 1, 17, 0)
    jpeg = (b"\xff\xd8\xff\xe1" + struct.pack(">H", len(tiff) + 8) + b"Exif\0\0" + tiff + b"\xff\xc0"
            + struct.pack(">H", len(sof) + 2) + sof + b"\xff\xd9")
    for name, mime, size in [("turned.JPG", b"image/jpeg", [b"480", b"640"]), ("a.png", b"image/png", [b"640", b"480"])]:
        (drives / name).write_bytes(jpeg)
        a = host.run("get_user_storage_file_info", name)
        assert a.tree.tags == ["fileSize", "mimeType", "name", "width", "height", "permission"]
        assert [a.tree.text_of(t) for t in ("mimeType", "name", "width", "height")] == [mime, name.encode(), *size]
    (drives / "song.MP3").write_bytes(b"x" * 1234)
    (drives / "song.MP3").chmod(0o640)
    assert [(c.tag, c.text) for c in host.run("get_user_storage_file_info", "song.MP3").tree.children] == [
        ("fileSize", b"1234"), ("mimeType", b"audio/mpeg"), ("name", b"song.MP3"), ("permission", b" read write")]
    (drives / "folder").mkdir()
    socket.socket(socket.AF_UNIX).bind(str(drives / "sock"))  # exists and readable, but cannot be opened
    assert results(host, [
        (("create_user_storage_file", str(path)), 52), (("create_user_storage_file", "HDD/rel.txt"), 4),  # made at "/"
        (("create_user_storage_file", str(drives / "HDD/a/b/c.txt")), 402),
        (("create_user_storage_file", "smb://unknown/share/x"), 11),
        (("write_user_storage_file", "missing.txt", "false", "x", "0"), 401),
        (("read_user_storage_file", "missing.txt", "0", "0"), 401), (("write_user_storage_file", "folder", "true", "x", "0"), 1),
        (("read_user_storage_file", "folder", "0", "0"), 1), (("read_user_storage_file", "sock", "0", "0"), 1),
        (("get_user_storage_file_info", "smb://nas/other/a"), 11),
        (("get_user_storage_file_info", "missing.txt"), 401)]) == []
    assert not (drives / "missing.txt").exists() and not (drives / "HDD/a/b").exists()


def test_copy_move_backup_delete(host, drives):
    src = drives / "USB" / "Album"
    (src / "sub").mkdir(parents=True)
    (src / "t1.mp3").write_bytes(b"one")
    (src / "sub" / "t2.mp3").write_bytes(b"two")
    (drives / "HDD").mkdir()
    t1 = "HDD/Album/sub/t1.mp3"
    assert results(host, [
        (("copy_user_storage_file", "USB/Album", "HDD"), 0), (("move_user_storage_file", "USB/Album/t1.mp3", "HDD/Album/sub"), 0),
        (("backup_user_storage_file", t1, "HDD/bk/2024/s.mp3//"), 0),  # parents made, trailing "/" dropped
        (("backup_user_storage_file", t1, "HDD/bk/2024/s.mp3"), 52), (("backup_user_storage_file", t1, "HDD/bk/2024/s.mp3", "TRUE"), 52),
        (("backup_user_storage_file", t1, "HDD/bk/2024/s.mp3", "true", "x"), 52),
        (("backup_user_storage_file", t1, "HDD/bk/2024/s.mp3", "true"), 0), (("copy_user_storage_file", "USB/none", "HDD"), 401),
        (("move_user_storage_file", "USB/Album", "HDD/none"), 401), (("copy_user_storage_file", "smb://x/y/z", "HDD"), 1),
        (("copy_user_storage_file", "USB/Album", t1), 1),  # cp refuses a folder onto a file
        (("backup_user_storage_file", "HDD/none.xml", "HDD/x.xml"), 401), (("backup_user_storage_file", "smb://a/b/c", "HDD/x"), 11),
        (("backup_user_storage_file", t1, "smb://a/b/c"), 11), (("backup_user_storage_file", t1, t1 + "/x/y"), 4),
        (("delete_user_storage_file", "HDD/bk"), 0), (("delete_user_storage_file", "HDD/bk"), 401),
        (("delete_user_storage_file", "nfs://x/y"), 1)]) == []
    assert (drives / "HDD/Album/sub/t2.mp3").read_bytes() == b"two" and (drives / t1).read_bytes() == b"one"
    assert not (src / "t1.mp3").exists() and not (drives / "HDD/bk").exists()


def test_errno_results_of_folders_rename_and_full_or_read_only_file_systems(host, drives):
    for f in ["HDD/a.txt", "HDD/b.txt", "RO/dir/f.txt"]:
        (drives / f).parent.mkdir(parents=True, exist_ok=True) or (drives / f).write_bytes(b"keep")
    (drives / "HDD/big").write_bytes(b"\0" * (2 << 20))
    (drives / "HDD/dangling").symlink_to(drives / "nowhere")
    mount(drives / "FULL", "-t", "tmpfs", "-o", "size=64k,nr_inodes=2", "x")
    mount(drives / "USB", "-t", "tmpfs", "-o", "size=1m", "x")
    mount(drives / "HDD/mnt", "-t", "tmpfs", "-o", "size=64k", "x")
    (drives / "HDD/mnt/f").write_bytes(b"")
    (drives / "RO/old").symlink_to(drives / "HDD/b.txt")  # passes the checks...
    (drives / "RO/new").symlink_to(drives / "HDD/probe")
    mount(drives / "RO", "ro")  # ...then rename() meets EROFS
    assert results(host, [
        (("create_user_storage_directory", "HDD/New"), 0), (("create_user_storage_directory", "HDD/New"), 52),
        (("create_user_storage_directory", "HDD/none/New"), 402), (("create_user_storage_directory", "HDD/dangling"), 52),
        (("create_user_storage_directory", "smb://a/b/c"), 1), (("create_user_storage_directory", "FULL/a"), 0),
        (("create_user_storage_directory", "FULL/b"), 22),  # ENOSPC
        (("write_user_storage_file", "HDD/mnt/f", "false", "x" * 200000, "0"), 1),  # the write fails, not the close
        (("rename_user_storage_file", "HDD/a.txt", "HDD/b.txt"), 52), (("rename_user_storage_file", "HDD/a.txt", "HDD/c.txt"), 0),
        (("rename_user_storage_file", "HDD/a.txt", "HDD/d.txt"), 401),
        (("rename_user_storage_file", "HDD/c.txt", "HDD/none/d.txt"), 402), (("rename_user_storage_file", "HDD/c.txt", "smb://a/b"), 1),
        (("rename_user_storage_file", "RO/old", "RO/new"), 60),  # EROFS: errno through the unit-tested table
        (("create_user_storage_file", str(drives / "RO/n.txt")), 402), (("write_user_storage_file", "RO/dir/f.txt", "false", "x", "0"), 402),
        (("create_user_storage_directory", "RO/new2"), 402), (("rename_user_storage_file", "HDD/c.txt", "RO/g.txt"), 402),
        (("copy_user_storage_file", "HDD/c.txt", "RO/dir"), 402), (("move_user_storage_file", "RO/dir/f.txt", "HDD"), 1),
        (("delete_user_storage_file", "RO/dir/f.txt"), 402), (("backup_user_storage_file", "HDD/c.txt", "RO/dir/g.txt"), 4),
        (("copy_user_storage_file", "HDD/big", "USB"), 403), (("backup_user_storage_file", "HDD/big", "USB/x/big"), 403),
        (("copy_user_storage_file", "HDD/c.txt", "USB"), 0)]) == []
    assert (drives / "RO/dir/f.txt").read_bytes() == b"keep" and (drives / "USB/x").is_dir()  # made before the check


class OtherUserHost(Host):  # as user 1001 without groups, from copies of the programs that user reaches
    def start(self):
        own = OPT / "user1001"
        own.mkdir(exist_ok=True)
        own.chmod(0o755)
        for program in (VTR_HOST, PLUGIN, BUILD_DIR / "libvtrsim.so"):
            shutil.copy2(program, own)
        switch = ["setpriv", "--reuid=1001", "--regid=1001", "--clear-groups"]
        if self.cmd[:len(switch)] != switch:
            self.cmd = switch + [str(own / VTR_HOST.name) if c == str(VTR_HOST) else c for c in self.cmd]
        self.env = {**(self.env or {}), "LD_LIBRARY_PATH": str(own)}
        super().start()


def test_permission_denied_as_another_user(drives, config):
    if os.geteuid() != 0:
        pytest.skip("needs root to switch to user 1001")
    user = drives / "U"
    locked = user / "locked"
    locked.mkdir(parents=True)
    user.chmod(0o777)
    for f, content, mode in [(locked / "open.txt", b"o", 0o666), (user / "secret.txt", b"s", 0o602), (user / "mine.txt", b"m", 0o644)]:
        f.write_bytes(content)
        f.chmod(mode)  # secret: others may write, not read
    os.chown(user / "mine.txt", 1001, 1001)
    locked.chmod(0o555)
    h = OtherUserHost()
    try:
        if h.run("no_such_command").result != 1:
            pytest.skip("the host cannot run as user 1001")
        assert results(h, [  # (a folder one may not write: the read-only rows above)
            (("read_user_storage_file", "U/secret.txt", "0", "0"), 402), (("write_user_storage_file", "U/secret.txt", "true", "x", "0"), 0),
            (("backup_user_storage_file", "U/secret.txt", "U/s.bak"), 402), (("move_user_storage_file", "U/secret.txt", "U/locked"), 402),
            (("delete_user_storage_file", "U/locked/open.txt"), 0),  # rm cannot unlink there: still 0
            (("rename_user_storage_file", "U/mine.txt", "U/mine2.txt"), 0)]) == []
        assert (locked / "open.txt").exists() and (user / "mine2.txt").read_bytes() == b"m"
        assert (user / "secret.txt").read_bytes() == b"sx"
    finally:
        h.close()
