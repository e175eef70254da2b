"""Application storages: layout and modes, the password check of every guarded command, the sub-commands' result
codes, names confined to their storage, blanks in drive names, quota and read-only refusals."""
import os
import random
import stat

from conftest import DRIVES, mount

DRIVE = "USB_A"


storage_dir = lambda n, drive=DRIVE: DRIVES / drive / ".vtr_apps" / f".vtr_app_{n}"  # noqa: E731


def create(host, password, drive=DRIVE):
    a = host.run("create_app_storage", drive, password)
    assert (a.result, a.tree.tags) == (0, ["id"]), a
    return int(a.tree.text_of("id"))


def change(host, n, old, new, again, drive=DRIVE):
    return host.run("change_app_storage_password", drive, str(n), old, new, again).result


def test_creation_layout_and_passwords(host, drives):
    (drives / DRIVE).mkdir()
    for password in ["", "Zz", "p@ss wd", "~!#$%^&*", "0123456789"]:
        n = create(host, password)
        identity = storage_dir(n) / f".id_{n}"
        assert 0 <= n < 2 ** 31 and sorted(os.listdir(storage_dir(n))) == [identity.name]
        for path in (drives / DRIVE / ".vtr_apps", storage_dir(n), identity):
            assert stat.S_IMODE(path.stat().st_mode) & 0o077 == 0, path
        assert set(identity.read_text()) <= set("0123456789abcdef")
        wrong = password + "x" if len(password) < 10 else password[:-1]
        assert (change(host, n, password, password, password), change(host, n, wrong, "a", "a")) == (0, 1), password
    assert change(host, n, "0123456789", "x" * 11, "x" * 11) == 1
    assert [host.run("create_app_storage", d, p).result for d, p in [(DRIVE, "0123456789a"), ("NO_SUCH_DRIVE", "pw"),
                                                                    ("smb://nowhere/share", "pw")]] == [1, 401, 1]
    n = create(host, "old")
    before = (storage_dir(n) / f".id_{n}").read_bytes()
    assert [change(host, n, "old", "new", "neW"), change(host, n, "old", "old", "old")] == [1, 0]
    assert (storage_dir(n) / f".id_{n}").read_bytes() == before
    assert [change(host, n, "bad", "new", "new"), change(host, n + 1, "old", "new", "new"),
            change(host, n, "old", "new", "new"), change(host, n, "old", "x", "x"), change(host, n, "new", "x", "x")] \
        == [1, 401, 0, 1, 0]
    assert sorted(os.listdir(storage_dir(n))) == [f".id_{n}"]  # no temporary left behind


def test_guarded_commands_file_commands_and_confinement(host, drives):
    [(drives / d).mkdir() for d in (DRIVE, "OTHER")]
    n, b = create(host, "pw"), create(host, "b")
    f = storage_dir(n) / "notes.txt"

    def run(name, *rest, file="notes.txt", password="pw", storage=n, drive=DRIVE):
        return host.run(name, *([file] if file else []), drive, str(storage), password, *rest).result

    guarded = [("change_app_storage_password", None, ["a", "a"]), ("delete_app_storage", None, []),
               ("create_app_storage_file", "f.txt", []), ("write_app_storage_file", "f.txt", ["false", "x", "0"]),
               ("read_app_storage_file", "f.txt", ["0", "0"]), ("get_app_storage_file_info", "f.txt", []),
               ("copy_app_storage_file", "f.txt", [DRIVE]), ("delete_app_storage_file", "f.txt", [])]
    for name, file, rest in guarded:  # and a file command with all right but its file: 401
        mine = [run(name, *rest, file=file)] if file and not name.startswith("create") else []
        assert [run(name, *rest, file=file, password="wrong"), run(name, *rest, file=file, storage=n + 1),
                run(name, *rest, file=file, drive="smb://nowhere/x"), *mine] == [1, 401, 1] + [401] * len(mine), name
    assert [run("create_app_storage_file"), run("create_app_storage_file")] == [0, 1]  # not 52
    for mode, text, count in [("false", "Hello, world", "0"), ("true", "<&>", "0"), ("anything", "abcdef", "2"),
                              ("yes", "XY", "50")]:
        assert run("write_app_storage_file", mode, text, count) == 0
    assert f.read_bytes() == b"Hello, world<&>abXY"
    for offset, count, expected in [(0, 0, b"Hello, world<&>abXY"), (3, 4, b"lo, "), (17, 4, b"XY"), (19, 0, b""),
                                    (25, 3, b"")]:
        a = host.run("read_app_storage_file", "notes.txt", DRIVE, str(n), "pw", str(offset), str(count))
        assert (a.result, a.tree.tags, a.tree.text_of("content")) == (0, ["content"], expected), offset
    content = bytes(range(1, 256))  # every byte an argument can carry
    assert run("write_app_storage_file", "FALSE", content, "0") == 0 and f.read_bytes() == content
    blob = bytes(random.Random(5).randrange(256) for _ in range(70000)) + b"\0\0end"
    f.write_bytes(blob)
    assert host.run("read_app_storage_file", "notes.txt", DRIVE, str(n), "pw", "0", "0").tree.text_of("content") == blob
    assert [(c.tag, c.text) for c in host.run("get_app_storage_file_info", "notes.txt", DRIVE, str(n), "pw").tree.children] == [
        ("fileSize", str(len(blob)).encode()), ("mimeType", b"none"), ("name", b"notes.txt")]
    (storage_dir(n) / "Song.MP3").write_bytes(b"x")
    assert host.run("get_app_storage_file_info", "Song.MP3", DRIVE, str(n), "pw").tree.text_of("mimeType") == b"audio/mpeg"
    assert run("copy_app_storage_file", "OTHER") == 0 and (drives / "OTHER/notes.txt").read_bytes() == blob
    assert run("copy_app_storage_file", "smb://nowhere/x") == 1
    assert [run("delete_app_storage_file"), run("delete_app_storage_file")] == [0, 401] and not f.exists()
    (storage_dir(n) / "sub").mkdir()
    assert run("create_app_storage_file", file="sub/inner") == 0 and (storage_dir(n) / "sub/inner").exists()
    for name in [f"../.vtr_app_{b}/.id_{b}", "../../x", "sub/../../y", ".."]:  # never above the storage
        assert (run("read_app_storage_file", "0", "0", file=name), run("delete_app_storage_file", file=name)) == (1, 1)
    assert (storage_dir(b) / f".id_{b}").exists() and run("create_app_storage_file", file="x" * 4090) == 1


def test_delete_storages_and_blanks_in_drive_names(host, drives):
    [(drives / d).mkdir() for d in ("My Drive", "My")]
    (drives / "My/keep").write_bytes(b"k")
    (drives / "My Drive/keep too").write_bytes(b"k")
    a, b = create(host, "p", "My Drive"), create(host, "q", "My Drive")
    for name, *rest in [("create_app_storage_file",), ("copy_app_storage_file", "My Drive"), ("delete_app_storage_file",)]:
        assert host.run(name, "f g", "My Drive", str(a), "p", *rest).result == 0, name
    assert [host.run("delete_app_storage", "My Drive", str(a), pw).result for pw in ("q", "p", "p")] == [1, 0, 401]
    assert not storage_dir(a, "My Drive").exists() and storage_dir(b, "My Drive").exists()
    assert [host.run("delete_all_app_storage", d).result for d in ("My Drive", "My Drive", "smb://x/y")] == [0, 401, 1]
    assert sorted(os.listdir(drives / "My Drive")) == ["f g", "keep too"] and (drives / "My/keep").exists()


def test_no_room_is_403_and_read_only_is_402(host, drives):
    [(drives / d).mkdir() for d in (".reserved", DRIVE)]
    reserved, n, m = drives / ".reserved", create(host, "", ".reserved"), create(host, "m")  # the first needs no room
    for file in storage_dir(n, ".reserved") / "f", storage_dir(m) / "g":
        file.write_bytes(b"abc")
    (reserved / "filler").write_bytes(b"\1" * 20971520)
    write = ("write_app_storage_file", "f", ".reserved", str(n), "", "true", "x", "0")
    assert [host.run(*w).result for w in [("create_app_storage", ".reserved", "pw"), write,
                                          ("copy_app_storage_file", "g", DRIVE, str(m), "m", ".reserved")]] == [403] * 3
    (reserved / "filler").unlink()
    assert host.run(*write).result == 0
    assert (storage_dir(n, ".reserved") / "f").read_bytes() == b"abcx" and not (reserved / "g").exists()
    mount(drives / "RO", "ro")
    assert host.run("create_app_storage", "RO", "pw").result == 402
