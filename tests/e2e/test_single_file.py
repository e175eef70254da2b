"""The single-file commands through the reference host: create, write, read,
file information, copy, move, backup, delete, folder creation and rename,
with the file-system failures (errno) their result codes stand for. (Read
spans, the errno table and translation limits have unit tables; hostile
names are in test_hardening.py.)"""
import os
import struct
import subprocess

import pytest

from conftest import Host

MiB = 1024 * 1024


def tmpfs(path, options):
    path.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "vtr-test", str(path)], check=True)


def read_only_bind(path):
    subprocess.run(["mount", "--bind", str(path), str(path)], check=True)
    subprocess.run(["mount", "-o", "remount,bind,ro", str(path)], check=True)


def content_of(answer):
    assert answer.result == 0 and answer.tree.tags == ["content"]
    return answer.tree.children[0].text


def test_create_write_read(host, drives):
    (drives / "HDD").mkdir()
    path = drives / "HDD" / "new" / "notes.txt"  # "new" is made on demand, one level
    assert host.run("create_user_storage_file", str(path)).result == 0
    assert path.stat().st_size == 0 and path.stat().st_mode & 0o777 == path.parent.stat().st_mode & 0o777 == 0o700
    markup = b'<a href="x">&amp; \xc3\xa9 \xff\x01</a>]]>'
    assert host.run("write_user_storage_file", "HDD/new/notes.txt", "false", markup, "0").result == 0
    assert content_of(host.run("read_user_storage_file", "HDD/new/notes.txt", "0", "0")) == markup
    blob = bytes(range(256)) * 3 + b"\0\0<x>\0"
    path.write_bytes(blob)
    assert content_of(host.run("read_user_storage_file", "HDD/new/notes.txt", "250", "10")) == blob[250:260]
    (drives / "w.txt").write_bytes(b"0123456789")
    for mode, text, count, expected in [("false", "abcdef", "3", b"abc"), ("FaLsE", "xy", "-1", b"xy"),
                                        ("true", "abc", "99", b"xyabc"), ("no", "abcdef", "2", b"xyabcab"),
                                        ("false", "", "0", b"")]:
        assert host.run("write_user_storage_file", "w.txt", mode, text, count).result == 0
        assert (drives / "w.txt").read_bytes() == expected, (mode, text, count)
    (drives / "folder").mkdir()
    for words, code in [(("create_user_storage_file", str(path)), 52),
                        (("create_user_storage_file", "HDD/rel.txt"), 4),  # made relative to "/", where HDD is missing
                        (("create_user_storage_file", str(drives / "HDD/a/b/c.txt")), 402),
                        (("create_user_storage_file", "smb://unknown/share/x"), 11),
                        (("write_user_storage_file", "missing.txt", "false", "x", "0"), 401),
                        (("read_user_storage_file", "missing.txt", "0", "0"), 401),
                        (("write_user_storage_file", "folder", "true", "x", "0"), 1),
                        (("read_user_storage_file", "folder", "0", "0"), 1)]:
        a = host.run(*words)
        assert (a.result, a.tree.tags) == (code, []), words
    assert not (drives / "missing.txt").exists() and not (drives / "HDD/a/b").exists()


def jpeg(width, height, orientation):
    """SOI, an APP1 Exif segment with the orientation entry, SOF0 with the size, EOI."""
    tiff = b"II" + struct.pack("<HIHHHIHHI", 42, 8, 1, 0x0112, 3, 1, orientation, 0, 0)
    app1 = b"Exif\0\0" + tiff
    sof = struct.pack(">BHHB", 8, height, width, 1) + b"\x01\x11\x00"
    return (b"\xff\xd8\xff\xe1" + struct.pack(">H", len(app1) + 2) + app1 + b"\xff\xc0"
            + struct.pack(">H", len(sof) + 2) + sof + b"\xff\xd9")


def test_info(host, drives, config):
    # Header parsing is the simulator's; here the orientation swap (image/jpeg
    # only) and the MIME type from the name.
    for name, data, mime, size in [("turned.JPG", jpeg(640, 480, 6), "image/jpeg", "480x640"),
                                   ("upside.jpe", jpeg(640, 480, 3), "image/jpeg", "640x480"),
                                   ("jpeg-named.png", jpeg(640, 480, 6), "image/png", "640x480"),
                                   ("broken.gif", b"not a picture", "image/gif", "0x0")]:
        (drives / name).write_bytes(data)
        a = host.run("get_user_storage_file_info", name)
        assert a.tree.tags == ["fileSize", "mimeType", "name", "width", "height", "permission"]
        v = {c.tag: c.text.decode() for c in a.tree.children}
        assert (v["fileSize"], v["mimeType"], v["name"]) == (str(len(data)), mime, name)
        assert f'{v["width"]}x{v["height"]}' == size, name
    (drives / "song.MP3").write_bytes(b"x" * 1234)
    (drives / "song.MP3").chmod(0o640)
    a = host.run("get_user_storage_file_info", "song.MP3")
    assert [(c.tag, c.text) for c in a.tree.children] == [
        ("fileSize", b"1234"), ("mimeType", b"audio/mpeg"), ("name", b"song.MP3"), ("permission", b" read write")]
    (config.share(0, "Public", "smb://nas/public") / "a.mp3").write_bytes(b"abc")
    assert host.run("get_user_storage_file_info", "smb://nas/public/a.mp3").tree.text_of("name") == b"a.mp3"
    assert host.run("get_user_storage_file_info", "smb://nas/other/a.mp3").result == 11
    assert host.run("get_user_storage_file_info", "missing.txt").result == 401


def test_copy_move_backup_delete(host, drives):
    src = drives / "USB" / "Album"
    (src / "sub").mkdir(parents=True)
    (src / "t1.mp3").write_bytes(b"one")
    (src / "sub" / "t2.mp3").write_bytes(b"two")
    (drives / "HDD").mkdir()
    assert host.run("copy_user_storage_file", "USB/Album", "HDD").result == 0
    assert (drives / "HDD/Album/sub/t2.mp3").read_bytes() == b"two"
    assert host.run("move_user_storage_file", "USB/Album/t1.mp3", "HDD/Album/sub").result == 0
    assert not (src / "t1.mp3").exists() and (drives / "HDD/Album/sub/t1.mp3").read_bytes() == b"one"
    # Backups make parent folders and drop trailing slashes; only "true" overwrites.
    assert host.run("backup_user_storage_file", "HDD/Album/sub/t1.mp3", "HDD/bk/2024/s.mp3//").result == 0
    (drives / "HDD/Album/sub/t1.mp3").write_bytes(b"v2")
    for extra, code in [((), 52), (("TRUE",), 52), (("true", "x"), 52), (("true",), 0)]:
        assert host.run("backup_user_storage_file", "HDD/Album/sub/t1.mp3", "HDD/bk/2024/s.mp3", *extra).result == code
    assert (drives / "HDD/bk/2024/s.mp3").read_bytes() == b"v2"
    assert host.run("delete_user_storage_file", "HDD/bk").result == 0 and not (drives / "HDD/bk").exists()
    for words, code in [(("copy_user_storage_file", "USB/none", "HDD"), 401),
                        (("move_user_storage_file", "USB/Album", "HDD/none"), 401),
                        (("copy_user_storage_file", "smb://x/y/z", "HDD"), 1),
                        (("copy_user_storage_file", "USB/Album", "HDD/Album/sub/t1.mp3"), 1),  # cp refuses
                        (("backup_user_storage_file", "HDD/none.xml", "HDD/x.xml"), 401),
                        (("backup_user_storage_file", "smb://a/b/c", "HDD/x.xml"), 11),
                        (("backup_user_storage_file", "HDD/Album/sub/t1.mp3", "smb://a/b/c"), 11),
                        (("backup_user_storage_file", "HDD/Album/sub/t1.mp3", "HDD/Album/sub/t1.mp3/x/y"), 4),
                        (("delete_user_storage_file", "HDD/bk"), 401), (("delete_user_storage_file", "nfs://x/y"), 1)]:
        assert host.run(*words).result == code, words


def test_folders_rename_and_errno_results(host, drives):
    (drives / "HDD").mkdir()
    (drives / "HDD/a.txt").write_bytes(b"a")
    (drives / "HDD/b.txt").write_bytes(b"b")
    (drives / "HDD/dangling").symlink_to(drives / "nowhere")
    tmpfs(drives / "FULL", "size=64k,nr_inodes=2")
    tmpfs(drives / "USB", "size=1m")
    tmpfs(drives / "HDD" / "mnt", "size=64k")
    (drives / "RO").mkdir()
    (drives / "RO/old").symlink_to(drives / "HDD/b.txt")  # passes the checks...
    (drives / "RO/new").symlink_to(drives / "HDD/probe")
    read_only_bind(drives / "RO")  # ...then rename() meets EROFS
    for words, code in [(("create_user_storage_directory", "HDD/New"), 0), (("create_user_storage_directory", "HDD/New"), 52),
                        (("create_user_storage_directory", "HDD/none/New"), 402),
                        (("create_user_storage_directory", "HDD/dangling"), 52),  # EEXIST from mkdir
                        (("create_user_storage_directory", "smb://a/b/c"), 1),
                        (("create_user_storage_directory", "FULL/a"), 0),
                        (("create_user_storage_directory", "FULL/b"), 22),  # ENOSPC
                        (("rename_user_storage_file", "HDD/a.txt", "HDD/b.txt"), 52),
                        (("rename_user_storage_file", "HDD/a.txt", "HDD/c.txt"), 0),
                        (("rename_user_storage_file", "HDD/a.txt", "HDD/d.txt"), 401),
                        (("rename_user_storage_file", "HDD/c.txt", "HDD/none/d.txt"), 402),
                        (("rename_user_storage_file", "HDD/c.txt", "smb://a/b/c"), 1),
                        (("rename_user_storage_file", "HDD/c.txt", "USB/c.txt"), 4),  # EXDEV
                        (("rename_user_storage_file", "HDD/mnt", "HDD/mnt2"), 2),  # EBUSY
                        (("rename_user_storage_file", "RO/old", "RO/new"), 60)]:
        assert host.run(*words).result == code, words
    assert (drives / "HDD/c.txt").read_bytes() == b"a" and (drives / "HDD/New").is_dir()


def test_read_only_and_full_file_systems(host, drives):
    ro = drives / "RO"
    (ro / "dir").mkdir(parents=True)
    (ro / "f.txt").write_bytes(b"keep")
    (drives / "HDD").mkdir()
    (drives / "HDD/g.txt").write_bytes(b"g")
    (drives / "HDD/big").write_bytes(b"\0" * (2 * MiB))
    read_only_bind(ro)
    tmpfs(drives / "TINY", "size=1m")
    for words, code in [(("create_user_storage_file", str(ro / "n.txt")), 402),
                        (("write_user_storage_file", "RO/f.txt", "false", "x", "0"), 402),
                        (("create_user_storage_directory", "RO/new"), 402),
                        (("rename_user_storage_file", "RO/f.txt", "RO/g.txt"), 402),
                        (("rename_user_storage_file", "HDD/g.txt", "RO/g.txt"), 402),
                        (("copy_user_storage_file", "HDD/g.txt", "RO/dir"), 402),
                        (("move_user_storage_file", "RO/f.txt", "HDD"), 1),  # mv copies, then cannot unlink
                        (("delete_user_storage_file", "RO/f.txt"), 402),
                        (("backup_user_storage_file", "HDD/g.txt", "RO/dir/g.txt"), 4),  # cp fails
                        (("copy_user_storage_file", "HDD/big", "TINY"), 403),
                        (("move_user_storage_file", "HDD/big", "TINY"), 403),
                        (("backup_user_storage_file", "HDD/big", "TINY/x/big"), 403),
                        (("copy_user_storage_file", "HDD/g.txt", "TINY"), 0)]:
        assert host.run(*words).result == code, words
    assert (ro / "f.txt").read_bytes() == b"keep" and (drives / "HDD/big").exists()
    assert not (drives / "TINY/big").exists() and (drives / "TINY/x").is_dir()  # made before the check


def test_over_long_paths_get_the_translation_failure_code(host, drives):
    (drives / "HDD").mkdir()
    (drives / "HDD/f").write_bytes(b"f")
    for length in (4096, 4080):  # too long as sent; too long once translated
        p = "HDD/" + "x" * (length - 4)
        for words, code in [(("create_user_storage_file", p), 11), (("write_user_storage_file", p, "false", "x", "0"), 1),
                            (("read_user_storage_file", p, "0", "0"), 1), (("get_user_storage_file_info", p), 11),
                            (("copy_user_storage_file", p, "HDD"), 1), (("move_user_storage_file", "HDD", p), 1),
                            (("backup_user_storage_file", "HDD/f", p), 11), (("delete_user_storage_file", p), 1),
                            (("create_user_storage_directory", p), 1), (("rename_user_storage_file", "HDD/f", p), 1)]:
            a = host.run(*words)
            assert (a.result, a.tree.tags) == (code, []), (words[0], length)
    assert (drives / "HDD/f").exists()


class OtherUserHost(Host):
    """A host process of its own running as user 1001 without groups."""

    def start(self):
        switch = ["setpriv", "--reuid=1001", "--regid=1001", "--clear-groups"]
        if self.cmd[:len(switch)] != switch:
            self.cmd = switch + self.cmd
        super().start()


def test_permission_denied_as_another_user(drives, config):
    if os.geteuid() != 0:
        pytest.skip("needs root to switch to user 1001")
    user = drives / "U"
    locked = user / "locked"
    locked.mkdir(parents=True)
    user.chmod(0o777)
    (locked / "open.txt").write_bytes(b"o")
    (locked / "open.txt").chmod(0o666)
    (user / "secret.txt").write_bytes(b"s")
    (user / "secret.txt").chmod(0o602)  # others may write, not read
    (user / "mine.txt").write_bytes(b"m")
    os.chown(user / "mine.txt", 1001, 1001)
    locked.chmod(0o555)
    h = OtherUserHost()
    try:
        if h.run("no_such_command").result != 1:
            pytest.skip("the host cannot run as user 1001")
        cases = [
            (("create_user_storage_file", str(locked / "n.txt")), 402),
            (("create_user_storage_directory", "U/locked/new"), 402),
            (("read_user_storage_file", "U/secret.txt", "0", "0"), 402),
            (("write_user_storage_file", "U/secret.txt", "true", "x", "0"), 0),
            (("rename_user_storage_file", "U/locked/open.txt", "U/locked/o2.txt"), 402),  # probe
            (("copy_user_storage_file", "U/mine.txt", "U/locked"), 402),
            (("backup_user_storage_file", "U/secret.txt", "U/s.bak"), 402),
            (("move_user_storage_file", "U/secret.txt", "U/locked"), 402),
            # rm cannot unlink in a folder without write permission: still 0.
            (("delete_user_storage_file", "U/locked/open.txt"), 0),
            (("rename_user_storage_file", "U/mine.txt", "U/mine2.txt"), 0),
        ]
        got = [h.run(*words).result for words, _ in cases]
        assert got == [code for _, code in cases]
        assert (locked / "open.txt").exists()
        assert (user / "mine2.txt").read_bytes() == b"m"
        assert (user / "secret.txt").read_bytes() == b"sx"
    finally:
        h.close()
