"""Nothing is lost when the power goes: strace shows every copy of a batch move durable (an fsync of the file and of
its folder, or a sync()) before its source is removed, and a new identity file durable before it replaces the old."""
import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from conftest import CROSS, mount
from test_appstore import DRIVE, create, storage_dir
from test_transfer import select_paths

pytestmark = pytest.mark.skipif(CROSS, reason="strace follows the emulator, not the player's calls")

CALLS = "openat,mkdir,mkdirat,write,pwrite64,fsync,fdatasync,sync,syncfs,unlink,unlinkat,rmdir,execve,rename,renameat,renameat2"
LINE = re.compile(r"^(\d+)\s+(.*)$")


class Trace:  # strace -f on a running host; calls(): (start line, line of the result, name, text)

    def __init__(self, pid):
        self.out = Path(f"/tmp/strace.{pid}")
        self.proc = subprocess.Popen(["strace", "-f", "-y", "-qq", "-s", "512", "-e", "signal=none", "-e", f"trace={CALLS}",
                                      "-o", str(self.out), "-p", str(pid)], stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while "TracerPid:\t0" in Path(f"/proc/{pid}/status").read_text():
            assert time.monotonic() < deadline, "strace did not attach"
            time.sleep(0.05)

    def calls(self):
        self.proc.send_signal(signal.SIGINT)
        self.proc.wait()
        pending, calls = {}, []
        for i, raw in enumerate(self.out.read_text().splitlines()):
            pid, text = LINE.match(raw).groups()  # (no signal lines; exit lines hold no call)
            if text.endswith("<unfinished ...>"):
                pending[pid] = (i, text[:-len("<unfinished ...>")])
            elif text.startswith("<..."):
                start, head = pending.pop(pid)
                calls.append((start, i, head.split("(")[0], head + text.split(">", 1)[1]))
            elif "(" in text:
                calls.append((i, i, text.split("(")[0], text))
        return calls


def fd_paths(text):
    return re.findall(r"<(/[^>]*)>", text)


def named(text):  # the paths a call names: each quoted word, also below the folder of the descriptor before it
    words = re.findall(r'"([^"]*)"', text)
    return words + [p + "/" + w for p, w in zip(fd_paths(text), words)]


def completed(calls, name, path, after, before):  # `name` on `path` (None: any) succeeded strictly between the lines
    return any(n == name and after < end < before and text.rstrip().endswith("= 0")
               and (path is None or path in fd_paths(text)) for _, end, n, text in calls)


def durable(calls, path, before, name=True):  # data (and name) of path durable before line `before`
    made = [end for _, end, n, t in calls if path in named(t) and (n in ("mkdir", "mkdirat") or "O_CREAT" in t)]
    assert made, f"{path} never made"
    data = max(made + [end for _, end, n, t in calls if n in ("write", "pwrite64") and fd_paths(t)[:1] == [path]])
    return completed(calls, "sync", None, data, before) or (
        completed(calls, "fsync", path, data, before) and
        (not name or completed(calls, "fsync", os.path.dirname(path), made[-1], before)))


def removals(calls, root):  # lines at which something under root starts being removed
    return [start for start, _, name, text in calls
            if (name in ("unlink", "unlinkat", "rmdir") or name == "execve" and os.path.basename(named(text)[0]) == "rm")
            and any(p == str(root) or p.startswith(f"{root}/") for p in named(text))]


def test_batch_move_removes_no_source_before_its_copy_is_durable(fresh_host, drives, events):
    src, other = drives / "USB1", drives / "USB2"
    src.mkdir()
    mount(other, "-t", "tmpfs", "-o", "size=64m", "x")
    (src / "film.mkv").write_bytes(os.urandom(3 * 1048576 + 777))
    for sub in ("tree/a", "tree/a/b", "tree/c"):
        (src / sub).mkdir(parents=True)
        (src / sub / "f.txt").write_bytes(os.urandom(3000))
    copies = {s: [other / s.name] + [other / p.relative_to(src) for p in s.rglob("*")]
              for s in (src / "film.mkv", src / "tree")}
    select_paths(fresh_host, *copies)
    trace = Trace(fresh_host.proc.pid)
    assert fresh_host.run("move_user_storage_file_from_list", str(other)).result == 0
    assert events.wait_end()[-1].endswith("<status>0</status>\n")
    calls = trace.calls()
    assert not (src / "film.mkv").exists() and not (src / "tree").exists()
    for source, made in copies.items():
        gone = removals(calls, source)
        assert gone, f"no removal of {source} traced"
        for copy in made:
            assert durable(calls, str(copy), min(gone)), f"{source} removed before {copy} was durable"


def test_password_change_makes_the_new_identity_durable_before_the_rename(fresh_host, drives):
    (drives / DRIVE).mkdir()
    n = create(fresh_host, "old")
    trace = Trace(fresh_host.proc.pid)
    assert fresh_host.run("change_app_storage_password", DRIVE, str(n), "old", "new", "new").result == 0
    calls, folder = trace.calls(), str(storage_dir(n))
    renames = [(s, e, t) for s, e, name, t in calls if name.startswith("rename") and f"{folder}/.id_{n}" in t]
    assert len(renames) == 1
    start, end, text = renames[0]
    temporary = re.findall(r'"([^"]*)"', text)[0]
    assert durable(calls, temporary, start, name=False), "renamed before the new identity was written to disk"
    after = float("inf")
    assert completed(calls, "fsync", folder, end, after) or completed(calls, "sync", None, end, after), "folder not synced"
