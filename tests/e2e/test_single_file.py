"""The single-file commands through the reference host: create, write, read,
file information, copy, move, backup, delete, folder creation and rename,
with the file-system failures that the result codes stand for."""
import os
import shutil
import struct
import subprocess
import zlib
from pathlib import Path

import pytest

from conftest import BUILD_DIR, OPT, PLUGIN, VTR_HOST, Host

MiB = 1024 * 1024


def mount(*args):
    subprocess.run(["mount", *args], check=True)


def tmpfs(path, options):
    path.mkdir(parents=True, exist_ok=True)
    mount("-t", "tmpfs", "-o", options, "vtr-test", str(path))
    return path


def read_only_bind(path):
    mount("--bind", str(path), str(path))
    mount("-o", "remount,bind,ro", str(path))
    return path


def content_of(answer):
    assert answer.result == 0
    assert answer.tree.tags == ["content"]
    return answer.tree.children[0].text


# ---------------------------------------------------------------- create, write, read

def test_create_write_read_round_trip(host, drives):
    (drives / "HDD").mkdir()
    path = drives / "HDD" / "new" / "notes.txt"  # "new" is made on demand, one level
    assert host.run("create_user_storage_file", str(path)).result == 0
    assert path.is_file() and path.stat().st_size == 0
    assert path.stat().st_mode & 0o777 == 0o700
    assert (path.parent.stat().st_mode & 0o777) == 0o700
    assert host.run("create_user_storage_file", str(path)).result == 52

    markup = b'<a href="x">&amp; \xc3\xa9 \xff\x01</a>]]>'
    assert host.run("write_user_storage_file", "HDD/new/notes.txt", "false", markup, "0").result == 0
    assert content_of(host.run("read_user_storage_file", "HDD/new/notes.txt", "0", "0")) == markup

    # Bytes that no argument can carry come back byte for byte as well.
    blob = bytes(range(256)) * 3 + b"\0\0<x>\0"
    path.write_bytes(blob)
    assert content_of(host.run("read_user_storage_file", str(path), "0", "0")) == blob
    assert content_of(host.run("read_user_storage_file", "HDD/new/notes.txt", "250", "10")) == blob[250:260]


def test_create_failures(host, drives):
    (drives / "HDD").mkdir()
    # The checks look at the translated path, the file is made at the path as
    # sent: relative to the host's working folder "/", where HDD is missing.
    assert host.run("create_user_storage_file", "HDD/rel.txt").result == 4
    assert not (drives / "HDD" / "rel.txt").exists()
    # Two missing levels: only one is made, then the parent is not writable.
    assert host.run("create_user_storage_file", str(drives / "HDD/a/b/c.txt")).result == 402
    assert not (drives / "HDD/a/b").exists()
    assert host.run("create_user_storage_file", "smb://unknown/share/x").result == 11


@pytest.mark.parametrize("mode, text, count, expected", [
    ("false", "abcdef", "0", b"abcdef"),       # overwrite, whole text
    ("FaLsE", "xy", "0", b"xy"),               # any case
    ("false", "abcdef", "3", b"abc"),          # at most count bytes
    ("false", "abc", "99", b"abc"),            # count beyond the text
    ("false", "abc", "-1", b"abc"),            # 4294967295
    ("true", "abc", "0", b"0123456789abc"),    # append
    ("no", "abcdef", "2", b"0123456789ab"),    # anything but "false" appends
    ("false", "", "0", b""),                   # truncate to nothing
])
def test_write_modes(host, drives, mode, text, count, expected):
    f = drives / "w.txt"
    f.write_bytes(b"0123456789")
    assert host.run("write_user_storage_file", "w.txt", mode, text, count).result == 0
    assert f.read_bytes() == expected


def test_missing_files_folders_and_empty_files(host, drives):
    assert host.run("write_user_storage_file", "missing.txt", "false", "x", "0").result == 401
    assert not (drives / "missing.txt").exists()
    assert host.run("read_user_storage_file", "missing.txt", "0", "0").result == 401
    (drives / "folder").mkdir()
    assert host.run("write_user_storage_file", "folder", "true", "x", "0").result == 1
    a = host.run("read_user_storage_file", "folder", "0", "0")
    assert a.result == 1 and a.tree.tags == []
    (drives / "empty").write_bytes(b"")
    assert content_of(host.run("read_user_storage_file", "empty", "0", "0")) == b""


# The span arithmetic has its own table (unit tests); these check the wiring.
@pytest.mark.parametrize("offset, count, expected", [
    ("2", "3", b"234"),
    ("7", "100", b"789"),        # runs past the end
    ("11", "4", b""),            # past the end
    ("-1", "5", b""),            # 4294967295
    ("1", "-1", b"123456789"),   # a count that wraps a 32-bit sum
    ("x", "y", b"0123456789"),   # atoi: 0 and 0
])
def test_read_ranges(host, drives, offset, count, expected):
    (drives / "r.bin").write_bytes(b"0123456789")
    assert content_of(host.run("read_user_storage_file", "r.bin", offset, count)) == expected


# ---------------------------------------------------------------- file information

def jpeg(width, height, orientation=None, big_endian=False):
    """SOI, an APP1 Exif segment with one IFD entry 0x0112 (SHORT), SOF0
    with the size, EOI."""
    out = b"\xff\xd8"
    if orientation is not None:
        e = ">" if big_endian else "<"
        tiff = (b"MM" if big_endian else b"II") + struct.pack(e + "HI", 42, 8)
        tiff += struct.pack(e + "H", 1) + struct.pack(e + "HHIHH", 0x0112, 3, 1, orientation, 0)
        tiff += struct.pack(e + "I", 0)
        app1 = b"Exif\0\0" + tiff
        out += b"\xff\xe1" + struct.pack(">H", len(app1) + 2) + app1
    sof = struct.pack(">BHHB", 8, height, width, 1) + b"\x01\x11\x00"
    out += b"\xff\xc0" + struct.pack(">H", len(sof) + 2) + sof
    return out + b"\xff\xd9"


def png(width, height):
    ihdr = struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)
    chunk = b"IHDR" + ihdr
    return (b"\x89PNG\r\n\x1a\n" + struct.pack(">I", len(ihdr)) + chunk
            + struct.pack(">I", zlib.crc32(chunk)))


def info(host, path):
    a = host.run("get_user_storage_file_info", path)
    assert a.result == 0
    return a.tree.tags, {c.tag: c.text.decode() for c in a.tree.children}


# Header parsing has its own tests (simulator); these check the orientation
# swap and that the MIME type comes from the name.
@pytest.mark.parametrize("name, data, mime, size", [
    ("plain.jpg", jpeg(640, 480), "image/jpeg", (640, 480)),
    ("turned.JPG", jpeg(640, 480, 6), "image/jpeg", (480, 640)),          # rotated: swapped
    ("turned8.jpeg", jpeg(30, 20, 8, big_endian=True), "image/jpeg", (20, 30)),
    ("upside.jpe", jpeg(640, 480, 3), "image/jpeg", (640, 480)),          # not rotated
    ("pic.png", png(17, 9), "image/png", (17, 9)),
    ("jpeg-named.png", jpeg(640, 480, 6), "image/png", (640, 480)),       # orientation only for image/jpeg
    ("broken.gif", b"not a picture", "image/gif", (0, 0)),
])
def test_info_pictures(host, drives, name, data, mime, size):
    (drives / "Pics").mkdir()
    (drives / "Pics" / name).write_bytes(data)
    tags, values = info(host, f"Pics/{name}")
    assert tags == ["fileSize", "mimeType", "name", "width", "height", "permission"]
    assert values["fileSize"] == str(len(data))
    assert values["mimeType"] == mime
    assert values["name"] == name
    assert (int(values["width"]), int(values["height"])) == size


def test_info_folders_names_and_failures(host, drives, config):
    (drives / "Photos.jpg").mkdir()  # a folder is looked up like a file
    tags, values = info(host, str(drives / "Photos.jpg"))
    assert values["mimeType"] == "image/jpeg" and values["width"] == "0" and values["height"] == "0"
    # The name is the client's text after its last "/"; a bare name is itself.
    (drives / "song.MP3").write_bytes(b"x" * 1234)
    (drives / "song.MP3").chmod(0o640)
    assert info(host, "song.MP3") == (["fileSize", "mimeType", "name", "permission"], {
        "fileSize": "1234", "mimeType": "audio/mpeg", "name": "song.MP3", "permission": " read write"})
    folder = config.share(0, "Public", "smb://nas/public")
    (folder / "a.mp3").write_bytes(b"abc")
    tags, values = info(host, "smb://nas/public/a.mp3")
    assert values["fileSize"] == "3" and values["mimeType"] == "audio/mpeg" and values["name"] == "a.mp3"
    assert host.run("get_user_storage_file_info", "smb://nas/other/a.mp3").result == 11
    a = host.run("get_user_storage_file_info", "missing.txt")
    assert a.result == 401 and a.tree.tags == []


# ---------------------------------------------------------------- copy, move, backup, delete

def test_copy_and_move_land_inside_the_folder(host, drives):
    src = drives / "USB" / "Album"
    src.mkdir(parents=True)
    (src / "t1.mp3").write_bytes(b"one")
    (src / "sub").mkdir()
    (src / "sub" / "t2.mp3").write_bytes(b"two")
    (drives / "HDD").mkdir()
    assert host.run("copy_user_storage_file", "USB/Album", "HDD").result == 0
    assert (drives / "HDD/Album/sub/t2.mp3").read_bytes() == b"two"
    assert host.run("move_user_storage_file", "USB/Album/t1.mp3", "HDD/Album/sub").result == 0
    assert not (src / "t1.mp3").exists() and (drives / "HDD/Album/sub/t1.mp3").read_bytes() == b"one"
    assert host.run("copy_user_storage_file", "USB/none", "HDD").result == 401
    assert host.run("move_user_storage_file", "USB/Album", "HDD/none").result == 401
    assert host.run("copy_user_storage_file", "smb://x/y/z", "HDD").result == 1
    # A file as target: cp refuses to put a folder there.
    assert host.run("copy_user_storage_file", "USB/Album", "HDD/Album/sub/t1.mp3").result == 1


def test_backup(host, drives):
    (drives / "HDD").mkdir()
    src = drives / "HDD" / "settings.xml"
    src.write_bytes(b"v1")
    # Parent folders are made; trailing slashes are dropped from the target.
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/bk/2024/s.xml//").result == 0
    target = drives / "HDD/bk/2024/s.xml"
    assert target.read_bytes() == b"v1"
    src.write_bytes(b"v2")
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/bk/2024/s.xml").result == 52
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/bk/2024/s.xml", "TRUE").result == 52
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/bk/2024/s.xml",
                    "true", "x").result == 52
    assert target.read_bytes() == b"v1"
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/bk/2024/s.xml", "true").result == 0
    assert target.read_bytes() == b"v2"
    assert host.run("backup_user_storage_file", "HDD/none.xml", "HDD/x.xml").result == 401
    assert host.run("backup_user_storage_file", "smb://a/b/c", "HDD/x.xml").result == 11
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "smb://a/b/c").result == 11
    # The parent cannot be made: a file stands where a folder is needed.
    assert host.run("backup_user_storage_file", "HDD/settings.xml", "HDD/settings.xml/x/y").result == 4


def test_delete(host, drives):
    tree = drives / "USB" / "old"
    (tree / "a" / "b").mkdir(parents=True)
    (tree / "a" / "b" / "f").write_bytes(b"x")
    assert host.run("delete_user_storage_file", "USB/old").result == 0
    assert not tree.exists() and (drives / "USB").is_dir()
    assert host.run("delete_user_storage_file", "USB/old").result == 401
    assert host.run("delete_user_storage_file", "nfs://x/y").result == 1


HOSTILE = [
    'say "hi"',
    "$(touch /tmp/canary)",
    "`touch /tmp/canary`",
    "a; touch /tmp/canary",
    "two  spaces ",
    "line\nfeed",
    "-rf",
    "--help",
    "it's 100%% %s",
]


@pytest.mark.parametrize("name", HOSTILE)
def test_hostile_names_are_plain_arguments(host, drives, name):
    # A "/" in the text makes folders: the whole argument still carries it.
    canary = Path("/tmp/canary")
    canary.unlink(missing_ok=True)
    leaf = name.rsplit("/", 1)[-1]
    top = name.split("/", 1)[0]
    for d in ("src", "dst", "bak", "mv"):
        (drives / d).mkdir()
    source = drives / "src" / name
    source.parent.mkdir(parents=True, exist_ok=True)
    source.write_bytes(b"payload")
    (drives / "src" / (name + ".d")).mkdir()
    (drives / "src" / (name + ".d") / leaf).write_bytes(b"inner")

    assert host.run("copy_user_storage_file", f"src/{name}", "dst").result == 0
    assert host.run("copy_user_storage_file", f"src/{name}.d", "dst").result == 0
    assert (drives / "dst" / leaf).read_bytes() == b"payload"
    assert (drives / "dst" / (leaf + ".d") / leaf).read_bytes() == b"inner"

    assert host.run("backup_user_storage_file", f"src/{name}", f"bak/{name}/{name}").result == 0
    assert (drives / "bak" / name / name).read_bytes() == b"payload"

    assert host.run("move_user_storage_file", f"dst/{leaf}", "mv").result == 0
    assert (drives / "mv" / leaf).read_bytes() == b"payload" and not (drives / "dst" / leaf).exists()

    assert host.run("rename_user_storage_file", f"mv/{leaf}", f"mv/{leaf}.2").result == 0
    assert (drives / "mv" / (leaf + ".2")).read_bytes() == b"payload"

    assert host.run("create_user_storage_directory", f"mv/{leaf}.new").result == 0
    assert (drives / "mv" / (leaf + ".new")).is_dir()

    for victim in (f"mv/{leaf}.2", f"dst/{leaf}.d", f"bak/{top}"):
        assert host.run("delete_user_storage_file", victim).result == 0
        assert not (drives / victim).exists()
    assert source.read_bytes() == b"payload"
    assert sorted(os.listdir(drives / "mv")) == [leaf + ".new"]
    assert os.listdir(drives / "bak") == []
    assert not canary.exists()


# ---------------------------------------------------------------- folders and rename

def test_create_directory(host, drives):
    (drives / "HDD").mkdir()
    assert host.run("create_user_storage_directory", "HDD/New").result == 0
    assert (drives / "HDD/New").is_dir()
    assert host.run("create_user_storage_directory", "HDD/New").result == 52
    assert host.run("create_user_storage_directory", "HDD/none/New").result == 402
    # A dangling link of that name: not "existing" to stat, mkdir says EEXIST.
    (drives / "HDD/dangling").symlink_to(drives / "nowhere")
    assert host.run("create_user_storage_directory", "HDD/dangling").result == 52
    assert host.run("create_user_storage_directory", "smb://a/b/c").result == 1
    tmpfs(drives / "FULL", "size=64k,nr_inodes=2")  # no free inodes: ENOSPC
    assert host.run("create_user_storage_directory", "FULL/a").result == 0
    assert host.run("create_user_storage_directory", "FULL/b").result == 22


def test_rename(host, drives):
    (drives / "HDD").mkdir()
    (drives / "HDD/a.txt").write_bytes(b"a")
    (drives / "HDD/b.txt").write_bytes(b"b")
    assert host.run("rename_user_storage_file", "HDD/a.txt", "HDD/b.txt").result == 52
    assert host.run("rename_user_storage_file", "HDD/a.txt", "HDD/c.txt").result == 0
    assert (drives / "HDD/c.txt").read_bytes() == b"a" and not (drives / "HDD/a.txt").exists()
    assert host.run("rename_user_storage_file", "HDD/a.txt", "HDD/d.txt").result == 401
    assert host.run("rename_user_storage_file", "HDD/c.txt", "HDD/none/d.txt").result == 402  # probe
    assert host.run("rename_user_storage_file", "HDD/c.txt", "smb://a/b/c").result == 1
    assert (drives / "HDD/c.txt").exists()


def test_rename_errno_results(host, drives):
    (drives / "HDD").mkdir()
    (drives / "HDD/f").write_bytes(b"f")
    # Another file system: EXDEV, reported as 4.
    tmpfs(drives / "USB", "size=1m")
    assert host.run("rename_user_storage_file", "HDD/f", "USB/f").result == 4
    assert (drives / "HDD/f").exists() and not (drives / "USB/f").exists()
    # A mount point cannot be renamed: EBUSY, 2.
    tmpfs(drives / "HDD" / "mnt", "size=64k")
    assert host.run("rename_user_storage_file", "HDD/mnt", "HDD/mnt2").result == 2
    # A read-only file system that passes the checks: the old name is a link
    # to a writable file and the new name a dangling link whose target the
    # probe can create. rename() itself then meets EROFS: 60.
    ro = drives / "RO"
    ro.mkdir()
    (ro / "old").symlink_to(drives / "HDD/f")
    (ro / "new").symlink_to(drives / "HDD/probe")
    read_only_bind(ro)
    assert host.run("rename_user_storage_file", "RO/old", "RO/new").result == 60


def test_read_only_mount_refusals(host, drives):
    ro = drives / "RO"
    (ro / "dir").mkdir(parents=True)
    (ro / "f.txt").write_bytes(b"keep")
    (drives / "HDD").mkdir()
    (drives / "HDD/g.txt").write_bytes(b"g")
    read_only_bind(ro)
    cases = [
        (("create_user_storage_file", str(ro / "n.txt")), 402),
        (("write_user_storage_file", "RO/f.txt", "false", "x", "0"), 402),
        (("create_user_storage_directory", "RO/new"), 402),
        (("rename_user_storage_file", "RO/f.txt", "RO/g.txt"), 402),
        (("rename_user_storage_file", "HDD/g.txt", "RO/g.txt"), 402),
        (("copy_user_storage_file", "HDD/g.txt", "RO/dir"), 402),
        (("move_user_storage_file", "RO/f.txt", "HDD"), 1),  # mv copies, then cannot unlink
        (("delete_user_storage_file", "RO/f.txt"), 402),
        (("backup_user_storage_file", "HDD/g.txt", "RO/dir/g.txt"), 4),  # cp fails
    ]
    got = [host.run(*words).result for words, _ in cases]
    assert got == [code for _, code in cases]
    assert (ro / "f.txt").read_bytes() == b"keep"
    assert content_of(host.run("read_user_storage_file", "RO/f.txt", "0", "0")) == b"keep"


# ---------------------------------------------------------------- free space

def test_free_space_refusals_on_a_small_file_system(host, drives):
    tmpfs(drives / "TINY", "size=1m")
    (drives / "HDD").mkdir()
    (drives / "HDD/big").write_bytes(b"\0" * (2 * MiB))
    (drives / "HDD/small").write_bytes(b"s" * 1000)
    assert host.run("copy_user_storage_file", "HDD/big", "TINY").result == 403
    assert host.run("move_user_storage_file", "HDD/big", "TINY").result == 403
    assert host.run("backup_user_storage_file", "HDD/big", "TINY/x/big").result == 403
    assert (drives / "TINY/x").is_dir()  # the parent was made before the check
    assert not (drives / "TINY/big").exists() and (drives / "HDD/big").exists()
    assert host.run("copy_user_storage_file", "HDD/small", "TINY").result == 0
    assert host.run("backup_user_storage_file", "HDD/small", "TINY/x/small").result == 0


def test_free_space_in_the_reserved_area(host, drives):
    reserved = drives / ".reserved"
    reserved.mkdir()
    (drives / "HDD").mkdir()
    # A sparse 1 GiB file: moving it needs no room at all, but the quota
    # check still refuses it.
    with open(drives / "HDD/huge", "wb") as f:
        f.truncate(1024 * MiB)
    assert host.run("move_user_storage_file", "HDD/huge", ".reserved").result == 403
    assert (drives / "HDD/huge").exists()
    (drives / "HDD/mib").write_bytes(b"m" * MiB)
    (reserved / "used").write_bytes(b"u" * (37 * MiB // 2))  # du counts it: 18.5 MiB
    assert host.run("copy_user_storage_file", "HDD/mib", ".reserved").result == 0
    assert host.run("backup_user_storage_file", "HDD/mib", ".reserved/b/mib2").result == 403
    (drives / "HDD/empty").write_bytes(b"")
    assert host.run("backup_user_storage_file", "HDD/empty", ".reserved/b/empty").result == 0


# ---------------------------------------------------------------- limits and other users

@pytest.mark.parametrize("words, code", [
    (("create_user_storage_file", "{p}"), 11),
    (("write_user_storage_file", "{p}", "false", "x", "0"), 1),
    (("read_user_storage_file", "{p}", "0", "0"), 1),
    (("get_user_storage_file_info", "{p}"), 11),
    (("copy_user_storage_file", "{p}", "HDD"), 1),
    (("move_user_storage_file", "HDD", "{p}"), 1),
    (("backup_user_storage_file", "HDD/f", "{p}"), 11),
    (("delete_user_storage_file", "{p}"), 1),
    (("create_user_storage_directory", "{p}"), 1),
    (("rename_user_storage_file", "HDD/f", "{p}"), 1),
])
@pytest.mark.parametrize("length", [4096, 4080])  # too long as sent; too long once translated
def test_over_long_paths_get_the_translation_failure_code(host, drives, words, code, length):
    (drives / "HDD").mkdir()
    (drives / "HDD/f").write_bytes(b"f")
    long_path = "HDD/" + "x" * (length - 4)
    a = host.run(*(w.replace("{p}", long_path) for w in words))
    assert (a.result, a.tree.tags) == (code, [])
    assert (drives / "HDD/f").exists()


class OtherUserHost(Host):
    """A host process of its own running as user 1001 without groups, from
    copies of the programs in a folder that user reaches wherever the build is."""

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
