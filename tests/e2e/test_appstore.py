"""Application storages through the reference host: the folder layout, the
identity file (read and written here by an independent scrambler), the
password check and the ten sub-commands."""
import os
import random
import stat
import subprocess

import pytest

from conftest import DRIVES

DRIVE = "USB_A"


# ---- the identity file's layout, written from scratch -------------------

def id_digit(n, i):
    """Digit i of the id as the player's 32-bit arithmetic gives it."""
    if i <= 8:
        return (n // 10 ** i) % 10
    if i == 9:
        return (n % 1410065408) // 1000000000
    return 0


def unscramble(text, n):
    at = ord(text[-2]) % 6
    out = ""
    for i in range(10):
        at += id_digit(n, i)
        assert at + 2 < len(text), f"overrun in {text!r}"
        r, low, high = text[at], text[at + 1], text[at + 2]
        if high == "9":
            return out
        out += chr(int(high + low, 16) + ord(r) % 10)
        at += 3
    return out


def scramble(password, n, rng):
    hexc = lambda: rng.choice("0123456789abcdef")
    lead = hexc()
    out = [hexc() for _ in range(ord(lead) % 6)]
    for i, c in enumerate(password):
        out += [hexc() for _ in range(id_digit(n, i))]
        r = hexc()
        digits = "%02x" % (ord(c) - ord(r) % 10)
        out += [r, digits[1], digits[0]]
    out += [hexc() for _ in range(id_digit(n, len(password)) + 2)]
    out.append("9")
    out += [hexc() for _ in range(rng.randrange(30))]
    out += [lead, hexc()]
    return "".join(out)


def storage_dir(n, drive=DRIVE):
    return DRIVES / drive / ".vtr_apps" / f".vtr_app_{n}"


def identity(n, drive=DRIVE):
    return storage_dir(n, drive) / f".id_{n}"


def create(host, password, drive=DRIVE):
    a = host.run("create_app_storage", drive, password)
    assert a.result == 0, a
    assert a.tree.tags == ["id"]
    return int(a.tree.text_of("id"))


def plant(n, password, drive=DRIVE, seed=0):
    """A storage as an earlier release left it on a drive."""
    storage_dir(n, drive).mkdir(parents=True, mode=0o700)
    identity(n, drive).write_text(scramble(password, n, random.Random(seed)))


@pytest.fixture
def drive(drives):
    (drives / DRIVE).mkdir()
    return drives / DRIVE


PASSWORDS = ["", "a", "Zz", "p@ss", "12345", "hello!", "Pass wd", "~!#$%^&*", "abcdefghi", "0123456789"]


@pytest.mark.parametrize("password", PASSWORDS)
def test_creation_writes_the_layout_and_a_readable_identity(host, drive, password):
    n = create(host, password)
    assert 0 <= n < 2 ** 31
    area = drive / ".vtr_apps"
    for path in (area, storage_dir(n), identity(n)):
        assert stat.S_IMODE(path.stat().st_mode) & 0o077 == 0, path
    assert sorted(os.listdir(storage_dir(n))) == [f".id_{n}"]
    text = identity(n).read_text()
    assert set(text) <= set("0123456789abcdef") and "\n" not in text
    assert unscramble(text, n) == password


# The scrambler's arithmetic over every id length has its own round trips
# (unit tests); here ids around the 32-bit wrap of the tenth digit.
IDS = [7, 987654321, 1000000000, 1410065407, 1410065408, 2147483647]


@pytest.mark.parametrize("n", IDS)
def test_identity_files_of_earlier_releases_keep_verifying(host, drive, n):
    rng = random.Random(n)
    for password in PASSWORDS:
        storage_dir(n).mkdir(parents=True, exist_ok=True)
        identity(n).write_text(scramble(password, n, rng))
        # Changing to the same password answers 0 only when the check passes.
        assert host.run("change_app_storage_password", DRIVE, str(n), password, password, password).result == 0
        wrong = password + "x" if len(password) < 10 else password[:-1]
        assert host.run("change_app_storage_password", DRIVE, str(n), wrong, wrong, wrong).result == 1
        # What the plug-in writes for this id reads back here.
        assert host.run("change_app_storage_password", DRIVE, str(n), password, "New1", "New1").result == 0
        assert unscramble(identity(n).read_text(), n) == "New1"


def test_password_lengths_and_create_refusals(host, drive):
    assert host.run("create_app_storage", DRIVE, "0123456789a").result == 1
    assert not (drive / ".vtr_apps").exists() or os.listdir(drive / ".vtr_apps") == []
    n = create(host, "0123456789")
    assert host.run("change_app_storage_password", DRIVE, str(n), "0123456789", "x" * 11, "x" * 11).result == 1
    assert unscramble(identity(n).read_text(), n) == "0123456789"
    assert host.run("create_app_storage", "NO_SUCH_DRIVE", "pw").result == 401
    assert host.run("create_app_storage", "smb://nowhere/share", "pw").result == 1


def test_change_password_rules(host, drive):
    n = create(host, "old")
    before = identity(n).read_bytes()
    assert host.run("change_app_storage_password", DRIVE, str(n), "old", "new", "neW").result == 1
    assert host.run("change_app_storage_password", DRIVE, str(n), "old", "old", "old").result == 0
    assert identity(n).read_bytes() == before
    assert host.run("change_app_storage_password", DRIVE, str(n), "bad", "new", "new").result == 1
    assert host.run("change_app_storage_password", DRIVE, str(n + 1), "old", "new", "new").result == 401
    assert host.run("change_app_storage_password", DRIVE, str(n), "old", "new", "new").result == 0
    assert stat.S_IMODE(identity(n).stat().st_mode) & 0o077 == 0
    assert sorted(os.listdir(storage_dir(n))) == [f".id_{n}"]  # no temporary left behind
    assert host.run("change_app_storage_password", DRIVE, str(n), "old", "x", "x").result == 1
    assert host.run("change_app_storage_password", DRIVE, str(n), "new", "x", "x").result == 0


# Every command that checks the password, with arguments after the common
# ones, and whether it names a file first.
GUARDED = [
    ("change_app_storage_password", None, ["a", "a"]),
    ("delete_app_storage", None, []),
    ("create_app_storage_file", "f.txt", []),
    ("write_app_storage_file", "f.txt", ["false", "x", "0"]),
    ("read_app_storage_file", "f.txt", ["0", "0"]),
    ("get_app_storage_file_info", "f.txt", []),
    ("copy_app_storage_file", "f.txt", [DRIVE]),
    ("delete_app_storage_file", "f.txt", []),
]


def guarded(name, file, rest, drive, n, password):
    head = [file] if file else []
    return [name, *head, drive, str(n), password, *rest]


@pytest.mark.parametrize("name,file,rest", GUARDED, ids=[g[0] for g in GUARDED])
def test_wrong_password_is_1_and_unknown_storage_is_401(host, drive, name, file, rest):
    # Every command reaches the check; its cases are the unit tests' table.
    n = create(host, "right")
    (storage_dir(n) / "f.txt").write_bytes(b"keep")
    assert host.run(*guarded(name, file, rest, DRIVE, n, "wrong")).result == 1
    assert host.run(*guarded(name, file, rest, DRIVE, n + 1, "right")).result == 401
    assert host.run(*guarded(name, file, rest, "smb://nowhere/x", n, "right")).result == 1
    assert (storage_dir(n) / "f.txt").read_bytes() == b"keep"
    assert unscramble(identity(n).read_text(), n) == "right"


def test_file_commands_round_trip(host, drive):
    n = create(host, "pw")
    f = storage_dir(n) / "notes.txt"

    def run(name, *rest, file="notes.txt"):
        return host.run(name, file, DRIVE, str(n), "pw", *rest)

    assert run("write_app_storage_file", "false", "x", "0").result == 401
    assert run("read_app_storage_file", "0", "0").result == 401
    assert run("get_app_storage_file_info").result == 401
    assert run("copy_app_storage_file", DRIVE).result == 401
    assert run("delete_app_storage_file").result == 401

    assert run("create_app_storage_file").result == 0
    assert f.exists() and f.stat().st_size == 0
    assert run("create_app_storage_file").result == 1  # not 52

    a = run("read_app_storage_file", "0", "0")
    assert a.result == 0 and a.tree.tags == ["content"] and a.tree.text_of("content") == b""

    assert run("write_app_storage_file", "false", "Hello, world", "0").result == 0
    assert run("write_app_storage_file", "true", "<&>", "0").result == 0
    assert run("write_app_storage_file", "anything", "abcdef", "2").result == 0
    # A count beyond the content sent writes the content only.
    assert run("write_app_storage_file", "yes", "XY", "50").result == 0
    assert f.read_bytes() == b"Hello, world<&>abXY"
    assert run("write_app_storage_file", "FALSE", "new", "0").result == 0
    assert f.read_bytes() == b"new"

    a = run("get_app_storage_file_info")
    assert a.result == 0
    assert a.tree.tags == ["fileSize", "mimeType", "name"]
    assert [c.text for c in a.tree.children] == [b"3", b"none", b"notes.txt"]

    target = DRIVES / "OTHER"
    target.mkdir()
    assert run("copy_app_storage_file", "OTHER").result == 0
    assert (target / "notes.txt").read_bytes() == b"new"
    assert run("copy_app_storage_file", "smb://nowhere/x").result == 1

    assert run("delete_app_storage_file").result == 0
    assert not f.exists()
    assert run("delete_app_storage_file").result == 401


def test_mime_type_comes_from_the_name(host, drive):
    n = create(host, "")
    for name, mime in [("a.jpg", b"image/jpeg"), ("Song.MP3", b"audio/mpeg"), ("noext", b"none"),
                       ("clip.mkv", b"video/mkv")]:
        (storage_dir(n) / name).write_bytes(b"\xff\xd8not really")
        a = host.run("get_app_storage_file_info", name, DRIVE, str(n), "")
        assert a.result == 0
        assert a.tree.text_of("mimeType") == mime, name
        assert a.tree.text_of("fileSize") == b"12"
        assert a.tree.text_of("name") == name.encode()


def test_binary_content_round_trip(host, drive):
    n = create(host, "bin")
    assert host.run("create_app_storage_file", "b.bin", DRIVE, str(n), "bin").result == 0
    content = bytes(range(1, 256))  # every byte an argument can carry
    assert host.run("write_app_storage_file", "b.bin", DRIVE, str(n), "bin", "false", content, "0").result == 0
    assert (storage_dir(n) / "b.bin").read_bytes() == content
    a = host.run("read_app_storage_file", "b.bin", DRIVE, str(n), "bin", "0", "0")
    assert a.result == 0 and a.tree.text_of("content") == content
    # A file with NUL bytes comes back whole.
    blob = bytes(random.Random(5).randrange(256) for _ in range(70000)) + b"\0\0end"
    (storage_dir(n) / "blob").write_bytes(blob)
    a = host.run("read_app_storage_file", "blob", DRIVE, str(n), "bin", "0", "0")
    assert a.tree.text_of("content") == blob


@pytest.mark.parametrize("offset,count,expected", [
    (0, 0, b"0123456789"),
    (3, 4, b"3456"),
    (6, 4, b"6789"),      # ends at the end
    (7, 4, b"789"),       # runs past the end
    (3, 0, b"3456789"),
    (10, 0, b""),         # at the end
    (25, 3, b""),         # past the end
    (0, 100000, b"0123456789"),
])
def test_read_ranges(host, drive, offset, count, expected):
    n = create(host, "r")
    (storage_dir(n) / "digits").write_bytes(b"0123456789")
    a = host.run("read_app_storage_file", "digits", DRIVE, str(n), "r", str(offset), str(count))
    assert a.result == 0
    assert a.tree.tags == ["content"] and a.tree.text_of("content") == expected


def test_read_prints_its_trace_line(run_cli, drives):
    (drives / DRIVE).mkdir()
    p = run_cli("create_app_storage", DRIVE, "t")
    n = int(p.stdout.decode().split("<id>")[1].split("<")[0])
    (storage_dir(n) / "x").write_bytes(b"1")
    p = run_cli("read_app_storage_file", "x", DRIVE, str(n), "t", "0", "0")
    # The host sends the plug-in's standard output to its standard error.
    assert f"file exists? string_buf:[{storage_dir(n)}/x]\n".encode() in p.stderr


def test_names_reach_below_but_not_above_the_storage(host, drive):
    a, b = create(host, "a"), create(host, "b")
    (storage_dir(a) / "sub").mkdir()
    assert host.run("create_app_storage_file", "sub/inner", DRIVE, str(a), "a").result == 0
    assert (storage_dir(a) / "sub" / "inner").exists()
    for name in [f"../.vtr_app_{b}/.id_{b}", "../../x", "sub/../../y", ".."]:
        assert host.run("read_app_storage_file", name, DRIVE, str(a), "a", "0", "0").result == 1, name
        assert host.run("delete_app_storage_file", name, DRIVE, str(a), "a").result == 1, name
    assert identity(b).exists()
    assert host.run("create_app_storage_file", "x" * 4090, DRIVE, str(a), "a").result == 1


def test_delete_one_storage_and_all(host, drive):
    a, b = create(host, "a"), create(host, "b")
    (storage_dir(a) / "data").write_bytes(b"1")
    assert host.run("delete_app_storage", DRIVE, str(a), "b").result == 1
    assert storage_dir(a).exists()
    assert host.run("delete_app_storage", DRIVE, str(a), "a").result == 0
    assert not storage_dir(a).exists() and identity(b).exists()
    assert host.run("delete_app_storage", DRIVE, str(a), "a").result == 401
    assert host.run("delete_all_app_storage", DRIVE).result == 0  # no password asked
    assert not (drive / ".vtr_apps").exists()
    assert os.listdir(drive) == []
    assert host.run("delete_all_app_storage", DRIVE).result == 401
    assert host.run("delete_all_app_storage", "smb://nowhere/x").result == 1


def test_drive_names_with_blanks_remove_exactly_the_storage(host, drives):
    spaced = drives / "My Drive"
    spaced.mkdir()
    beside = drives / "My"
    beside.mkdir()
    (beside / "keep").write_bytes(b"k")
    (spaced / "keep too").write_bytes(b"k")
    a, b = create(host, "p", "My Drive"), create(host, "q", "My Drive")
    assert host.run("create_app_storage_file", "f g", "My Drive", str(a), "p").result == 0
    assert host.run("copy_app_storage_file", "f g", "My Drive", str(a), "p", "My Drive").result == 0
    assert (spaced / "f g").exists()
    assert host.run("delete_app_storage_file", "f g", "My Drive", str(a), "p").result == 0
    assert host.run("delete_app_storage", "My Drive", str(a), "p").result == 0
    assert not storage_dir(a, "My Drive").exists() and storage_dir(b, "My Drive").exists()
    assert host.run("delete_all_app_storage", "My Drive").result == 0
    assert sorted(os.listdir(spaced)) == ["f g", "keep too"]
    assert (beside / "keep").read_bytes() == b"k"


def test_no_room_is_403(host, drives):
    reserved = drives / ".reserved"
    reserved.mkdir()
    n = create(host, "", ".reserved")  # needs no room
    assert host.run("create_app_storage_file", "f", ".reserved", str(n), "").result == 0
    (storage_dir(n, ".reserved") / "f").write_bytes(b"abc")
    (reserved / "filler").write_bytes(b"\1" * 20971520)
    assert host.run("create_app_storage", ".reserved", "pw").result == 403
    assert create(host, "", ".reserved") != n
    assert host.run("write_app_storage_file", "f", ".reserved", str(n), "", "true", "x", "0").result == 403
    (drives / DRIVE).mkdir()
    m = create(host, "m")
    (storage_dir(m) / "g").write_bytes(b"abc")
    assert host.run("copy_app_storage_file", "g", DRIVE, str(m), "m", ".reserved").result == 403
    assert not (reserved / "g").exists()
    (reserved / "filler").unlink()
    assert host.run("write_app_storage_file", "f", ".reserved", str(n), "", "true", "x", "0").result == 0
    assert (storage_dir(n, ".reserved") / "f").read_bytes() == b"abcx"


def test_read_only_drive_is_402(host, drives):
    ro = drives / "RO"
    ro.mkdir()
    made = subprocess.run(["mount", "--bind", str(ro), str(ro)], capture_output=True)
    if made.returncode != 0:
        pytest.skip("cannot bind-mount here")
    try:
        if subprocess.run(["mount", "-o", "remount,bind,ro", str(ro)], capture_output=True).returncode != 0:
            pytest.skip("cannot remount read-only here")
        assert host.run("create_app_storage", "RO", "pw").result == 402
    finally:
        subprocess.run(["umount", "-l", str(ro)], check=False)
