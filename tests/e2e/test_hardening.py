"""Hostile input, damaged state files and a long run: the plug-in answers with a result code, runs no command it was
not asked to, changes nothing but the request's own target and keeps its memory and descriptors bounded."""
import fcntl
import json
import os
import re
import stat
import time
from pathlib import Path

import pytest

from conftest import CROSS, DRIVES, HOST_WRAPPER, make_fake

DRIVE = "USB_DRIVE_A-1"
CANARY = Path("/tmp/canary")

KNOWN_CODES = {0, 1, 2, 4, 8, 11, 12, 19, 22, 27, 29, 30, 52, 60, 61, 401, 402, 403}  # and 1000 + a network status
known_code = lambda result: result in KNOWN_CODES or 1000 <= result < 1256  # noqa: E731


def tree_digest(root, exclude=()):  # {relative path: (mode, content)} below root but the excluded paths and their trees
    out, base, excluded = {}, os.fsencode(root), [os.fsencode(e) for e in exclude]
    for dirpath, dirnames, filenames in os.walk(base):
        for full in (os.path.join(dirpath, n) for n in dirnames + filenames):
            rel, st = os.path.relpath(full, base), os.lstat(full)
            if not any(rel == e or rel.startswith(e + b"/") for e in excluded):
                out[rel] = (st.st_mode, open(full, "rb").read() if stat.S_ISREG(st.st_mode) else b"")
    return out


def long_path(total):  # a client path of exactly total bytes below the drive (components of 200 bytes)
    path = DRIVE + "/"
    while len(path) < total:
        path += "d" * min(200, total - len(path)) + "/"
    return path[:total].rstrip("/").ljust(total, "e")


# Names a shell, a printf or an option parser would read as something else; each a file in Box/ (when legal).
HOSTILE_NAMES = [
    b'quote"d', b"apos'trophe", b"$(touch /tmp/canary)", b"`touch /tmp/canary`", b"a;touch /tmp/canary",
    b"a|touch /tmp/canary", b"a&touch /tmp/canary&", b'x"; rm -rf "/opt/vtrhttpd/localhost.drives/' + DRIVE.encode()
    + b'/Keep', b"line\nfeed", b"%s%n%x%s%n%s", b"-rf", b"--help", b"n" * 255, b"bad\xff\xfeutf8\xc3(",
]
LONG_PATHS = [long_path(4095).encode(), long_path(4096).encode()]


def _prepare(drives):
    drive = drives / DRIVE
    (drive / "Out").mkdir(parents=True, exist_ok=True)
    # A "/" in a hostile name makes folders: the whole text stays one argument.
    for rel, content in [("Keep/a.txt", b"keep me"), ("Keep/inner/b.mp3", b"ID3 keep"), ("Box/keep.txt", b"sibling"),
                         ("Box/w.txt", b"")] + [("Box/" + os.fsdecode(n), b"payload " + n) for n in HOSTILE_NAMES]:
        (drive / rel).parent.mkdir(parents=True, exist_ok=True)
        (drive / rel).write_bytes(content)
    return drive


_app_storage = lambda host: host.run("create_app_storage", DRIVE, "pw").tree.text_of("id").decode()  # noqa: E731


def own(*folders):  # the request's own targets: in each folder the name's first component (a "/" made it) and last
    return lambda n: [f + n.split(b"/")[k] for f in folders for k in (0, -1)]


BOX, OUT, NONE, APPS = DRIVE + "/Box/", DRIVE + "/Out/", own(), lambda n: [b".vtr_apps"]
# (sub-command, build(client path, hostile name, app id) -> arguments, own targets(hostile name))
ROWS = [
    ("list_user_storage_file", lambda p, n, i: [p, "0", "5", "true", "true", "true", "", "name_asc", "true"], NONE),
    ("search_user_storage_file", lambda p, n, i: [p, "0", "0", "true", "true", "true", "", n, "true"], NONE),
    ("search_user_storage_file", lambda p, n, i: [DRIVE, "0", "0", "true", "true", "true", "", n, "true"], NONE),
    ("create_user_storage_file", lambda p, n, i: [p], own(b"Box/")),
    ("write_user_storage_file", lambda p, n, i: [p, "false", n, "0"], own(b"Box/")),
    ("read_user_storage_file", lambda p, n, i: [p, "0", "0"], NONE),
    ("get_user_storage_file_info", lambda p, n, i: [p], NONE),
    ("copy_user_storage_file", lambda p, n, i: [p, OUT], own(b"Out/")),
    ("move_user_storage_file", lambda p, n, i: [p, OUT], own(b"Box/", b"Out/")),
    ("backup_user_storage_file", lambda p, n, i: [p, OUT.encode() + n, "true"], own(b"Out/")),
    ("delete_user_storage_file", lambda p, n, i: [p], own(b"Box/")),
    ("create_user_storage_directory", lambda p, n, i: [p], own(b"Box/")),
    ("rename_user_storage_file", lambda p, n, i: [p, OUT.encode() + n], own(b"Box/", b"Out/")),
    ("select_user_storage_file_to_list", lambda p, n, i: [p, "select"], NONE),
    # Batches with a hostile destination, over an empty selection.
    ("copy_user_storage_file_from_list", lambda p, n, i: [p], own(b"Box/")),
    ("move_user_storage_file_from_list", lambda p, n, i: [p], own(b"Box/")),
    ("search_user_storage_subtitle", lambda p, n, i: [p], NONE),
    ("calculate_user_storage_file_hash", lambda p, n, i: [p], NONE),
    ("verify_user_storage_download_status", lambda p, n, i: [p], NONE),
    ("download_user_storage_file", lambda p, n, i: [BOX, "http://127.0.0.1:9/x", n], own(b"Box/")),
    ("get_user_storage_file_index", lambda p, n, i: [os.fsencode(DRIVES) + b"/" + p, "", "name_asc", "true", "true"], NONE),
    ("create_app_storage", lambda p, n, i: [p, "pw"], own(b"Box/")),
    ("create_app_storage_file", lambda p, n, i: [n, DRIVE, i, "pw"], APPS),
    ("write_app_storage_file", lambda p, n, i: [n, DRIVE, i, "pw", "false", n, "0"], APPS),
    ("read_app_storage_file", lambda p, n, i: [n, DRIVE, i, "pw", "0", "0"], NONE),
    ("get_app_storage_file_info", lambda p, n, i: [n, DRIVE, i, "pw"], NONE),
    ("copy_app_storage_file", lambda p, n, i: [n, DRIVE, i, "pw", p], own(b"Box/")),
    ("delete_app_storage_file", lambda p, n, i: [n, DRIVE, i, "pw"], APPS),
    ("delete_all_app_storage", lambda p, n, i: [p], own(b"Box/")),
]


@pytest.mark.parametrize("row", ROWS, ids=[f"{r[0]}-{k}" for k, r in enumerate(ROWS)])
def test_hostile_paths_and_names(host, drives, fake_bin, row):
    name, build, targets = row
    make_fake(fake_bin, "wget", 'echo "wget $*" >> /tmp/wget.log\nexit 0\n')
    drive = _prepare(drives)
    app_id = _app_storage(host)
    cases = [(BOX.encode() + n, n) for n in HOSTILE_NAMES] + [(p, b"x") for p in LONG_PATHS]
    for path, hostile in cases:
        CANARY.unlink(missing_ok=True)
        Path("/tmp/fslist").unlink(missing_ok=True)
        state = lambda: (tree_digest(drive, exclude=targets(hostile)), tree_digest(DRIVES, exclude=[DRIVE.encode()]))  # noqa
        before, args = state(), build(path, hostile, app_id)
        answer, where = host.run(name, *args), f"{name} {path[:60]!r}"
        assert known_code(answer.result), f"{where}: result {answer.result}"
        assert not CANARY.exists(), f"{where}: an injected command ran"
        assert state() == before, f"{where}: something beside the target changed"
        if len(path) >= 4095 and any(isinstance(a, bytes) and path in a for a in args) and "to_list" not in name:
            assert answer.result != 0, f"{where}: an over-long path was accepted"
    assert host.stats()["orphan_nodes"] == 0


def test_damaged_state_files(host, drives):
    # Any content: a damaged cache never stands in for a real listing. (Selection and network answers: fuzz targets.)
    drive = _prepare(drives)
    before = tree_digest(drive)
    listing = [f"{DRIVE}/Keep", "0", "0", "true", "true", "true", "", "name_asc"]
    fresh = host.run("list_user_storage_file", *listing, "false")
    key = b"\0" * 300
    for content in [b"\x01" * 10, key, key + b"\xff" * 268, key + b"\0" * 8 + b"\xff\xff\xff\x7f" + b"\0" * 256,
                    os.urandom(5000), b"\0" * 100000]:
        Path("/tmp/usr_file_list").write_bytes(content)
        a = host.run("list_user_storage_file", *listing, "true")
        assert a.result == 0 and a.tree == fresh.tree, content[:40]
    assert tree_digest(drive) == before
    app_id = _app_storage(host)
    assert host.run("create_app_storage_file", "f.txt", DRIVE, app_id, "pw").result == 0
    folder = drive / ".vtr_apps" / f".vtr_app_{app_id}"
    identity = folder / f".id_{app_id}"
    for content in [b"", b"a", b"\0" * 300, os.urandom(300), b"f" * 5000, identity.read_bytes()[:3]]:
        identity.write_bytes(content)
        runs = [host.run(*args).result for args in (("read_app_storage_file", "f.txt", DRIVE, app_id, "pw", "0", "0"),
                ("delete_app_storage", DRIVE, app_id, "pw"), ("change_app_storage_password", DRIVE, app_id, "pw", "new", "new"))]
        assert runs == [1, 1, 1] and (folder / "f.txt").exists(), content[:20]  # verifies no password: the storage stays
    assert host.stats()["orphan_nodes"] == 0


def test_long_run_memory_and_descriptors(fresh_host, drives):
    # VTR_LONG_RUN_REQUESTS (20000) requests after a warm-up: less than 1 MiB more resident memory, as many descriptors.
    if HOST_WRAPPER or CROSS:
        pytest.skip("the process is a wrapper or an emulator: its memory is not the host's")
    host, pid, m = fresh_host, fresh_host.proc.pid, f"{DRIVE}/Keep"
    _prepare(drives)
    app_id = _app_storage(host)
    requests = [json.dumps(r) for r in [
        ["list_user_storage_file", m, "0", "1", "true", "true", "true", "", "size_dsc", "true"],
        ["search_user_storage_file", DRIVE, "0", "0", "true", "true", "true", "", "a", "true"],
        ["get_user_storage_file_index", f"{DRIVES}/{m}/a.txt", "", "name_asc", "true", "true"],
        ["get_user_storage_file_info", f"{m}/a.txt"], ["read_user_storage_file", f"{m}/a.txt", "0", "0"],
        ["calculate_user_storage_file_hash", f"{DRIVES}/{m}/inner/b.mp3"],
        ["create_user_storage_directory", f"{DRIVE}/Box/d"], ["delete_user_storage_file", f"{DRIVE}/Box/d"],
        ["select_user_storage_file_to_list", f"{DRIVES}/{m}/a.txt", "select"],
        ["copy_user_storage_file_from_list", f"{DRIVES}/{DRIVE}/Out"],  # a batch thread per cycle
        ["create_app_storage_file", "g", DRIVE, app_id, "pw"], ["read_app_storage_file", "g", DRIVE, app_id, "pw", "0", "0"],
        ["delete_app_storage_file", "g", DRIVE, app_id, "pw"]]]
    fd_count = lambda: len(os.listdir(f"/proc/{pid}/fd"))  # noqa: E731
    rss = lambda: int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{pid}/status").read_text())[1])  # noqa: E731
    for k in range(len(requests) * 50):  # warm-up: allocator pools, lazily loaded tables
        r = requests[k % len(requests)]
        assert host.request_line(r)["result"] in ((0, 2) if "from_list" in r else (0,))  # 2: a batch still runs
    with open("/tmp/fslist.lock", "a") as lock:  # the last batch ends: it holds this lock and its files
        fcntl.flock(lock, fcntl.LOCK_EX)
    fds, before = fd_count(), rss()
    for k in range(int(os.environ.get("VTR_LONG_RUN_REQUESTS", "20000"))):
        assert "result" in host.request_line(requests[k % len(requests)])
    for _ in range(100):  # the last batch thread may still be copying its one small file
        time.sleep(0.05 * (fd_count() != fds))
    assert fd_count() == fds and host.stats()["orphan_nodes"] == 0
    if not re.search(r"lib[at]san", Path(f"/proc/{pid}/maps").read_text()):  # a sanitizer's quarantine holds memory
        assert rss() - before < 1024
