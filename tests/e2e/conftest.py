"""End-to-end fixtures (inside tests/sandbox.sh). VTR_BUILD_DIR, VTR_TOOLS_DIR (native netfs_client), VTR_EMULATOR
(cross prefix), VTR_HOST_WRAPPER (prefix for every vtr-host, e.g. valgrind; exit 99 fails the test)."""
import json
import os
import select
import shlex
import shutil
import subprocess
import threading
import types
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD_DIR = Path(os.environ.get("VTR_BUILD_DIR") or REPO / "build").resolve()
TOOLS_DIR = Path(os.environ.get("VTR_TOOLS_DIR") or BUILD_DIR).resolve()
EMULATOR = shlex.split(os.environ.get("VTR_EMULATOR", ""))
CROSS = bool(EMULATOR)
HOST_WRAPPER = shlex.split(os.environ.get("VTR_HOST_WRAPPER", ""))
OPT = Path("/opt/vtrhttpd")
DRIVES = OPT / "localhost.drives"
NETFS_CLIENT = OPT / "default" / "netfs_client"
FAKE_BIN = OPT / "testbin"  # doubles of machine programs, first on every host's PATH
TMP_STATE = ["fslist", "fslist.batch", "fslist.merge", "usr_file_list", "smb.out", "usb_name.txt", "netfs_client.log",
             "vtr_framework_pipe", "RippingStatus.txt", "AlbumeName.txt", "TrackNumber.txt", "list.txt", "kill_paranoia"]
VTR_HOST = BUILD_DIR / "vtr-host"
PLUGIN = BUILD_DIR / "libvantor_command_server_command_file_operation.so"
TIMEOUT = float(os.environ.get("VTR_REQUEST_TIMEOUT", "600"))  # qemu is slow


def pytest_collection_modifyitems(config, items):
    for item in items:  # markers cross_only and native_only
        if item.get_closest_marker("cross_only" if not CROSS else "native_only"):
            item.add_marker(pytest.mark.skip(reason="not for this build"))


@pytest.fixture(scope="session", autouse=True)
def _inside_sandbox():
    if os.environ.get("VTR_SANDBOX") != "1" or not VTR_HOST.exists():
        pytest.exit(f"run inside tests/sandbox.sh with {VTR_HOST} built (VTR_BUILD_DIR)", returncode=2)


class Node:  # one element of an answer: tag (str), text (bytes), children
    def __init__(self, obj):
        self.tag, self.text = obj["tag"].encode("latin-1").decode("utf-8", "replace"), obj["text"].encode("latin-1")
        self.children = [Node(c) for c in obj["children"]]

    find = lambda self, tag: next((c for c in self.children if c.tag == tag), None)  # noqa: E731
    text_of = lambda self, tag: getattr(self.find(tag), "text", None)  # noqa: E731
    tags = property(lambda self: [c.tag for c in self.children])
    __eq__ = lambda self, o: (self.tag, self.text, self.children) == (o.tag, o.text, o.children)  # noqa: E731
    __repr__ = lambda self: f"<{self.tag}>{self.text!r}{self.children}"  # noqa: E731


HostError = type("HostError", (RuntimeError,), {})


def host_env(extra=None):
    env = dict(os.environ, PATH=f"{FAKE_BIN}:{os.environ.get('PATH', '/usr/bin:/bin')}")
    env.pop("VTR_CONFIG", None)  # the default config file, written by `config`
    return {**env, **(extra or {})}


class Host:  # a `vtr-host serve-stdio` process: one request per line, answers in order
    def __init__(self, env=None, plugin=None, cwd="/"):
        self.cmd = [*HOST_WRAPPER, *EMULATOR, str(VTR_HOST), *(["--plugin", str(plugin)] if plugin else []), "serve-stdio"]
        self.env, self.cwd, self.lock = env, str(cwd), threading.Lock()
        self.start()

    def start(self):
        self.proc = subprocess.Popen(self.cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=host_env(self.env),
                                     cwd=self.cwd)

    alive = lambda self: self.proc.poll() is None  # noqa: E731

    def request_line(self, line, timeout=TIMEOUT):  # one raw protocol line -> the parsed answer line
        with self.lock:
            if not self.alive():
                raise HostError(f"vtr-host is not running (exit {self.proc.returncode})")
            self.proc.stdin.write(line.encode("utf-8") + b"\n")
            self.proc.stdin.flush()
            if not select.select([self.proc.stdout], [], [], timeout)[0]:
                self.proc.kill()
                raise HostError(f"vtr-host did not answer within {timeout} s: {line}")
            out = self.proc.stdout.readline()
            if not out:
                raise HostError(f"vtr-host died (exit {self.proc.wait()}) on {line}")
            return json.loads(out)

    def run(self, *args, timeout=TIMEOUT):  # -> (result, tree); arguments str or bytes (each byte a code point)
        obj = self.request_line(json.dumps([(a.encode() if isinstance(a, str) else a).decode("latin-1") for a in args]),
                                timeout)
        if "error" in obj:
            raise HostError(obj["error"])
        return types.SimpleNamespace(result=obj["result"], tree=Node(obj["answer"]))

    def stats(self):  # {"live_nodes": N, "orphan_nodes": M}: XML nodes alive; those never appended
        return self.request_line('["vtr-host:stats"]')["stats"]

    def close(self):
        self.proc.stdin.close()
        try:
            self.proc.wait(timeout=300 if HOST_WRAPPER else 30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.proc.stdout.close()
        if HOST_WRAPPER and self.proc.returncode == 99:
            raise HostError(f"{HOST_WRAPPER[0]} reported errors in vtr-host (exit 99)")


def _empty_folder(path):  # (the drives fixture undoes the mounts below the drives root first)
    path.mkdir(parents=True, exist_ok=True)
    for child in path.iterdir():
        shutil.rmtree(child, True) if child.is_dir() and not child.is_symlink() else child.unlink(missing_ok=True)


@pytest.fixture
def drives():  # the drives root emptied (mounts undone), the /tmp state files removed, netfs_client installed
    with open("/proc/self/mounts") as f:
        points = [line.split()[1].encode().decode("unicode_escape") for line in f]
    for mp in sorted((p for p in points if p.startswith(f"{DRIVES}/")), key=len, reverse=True):
        subprocess.run(["umount", "-l", mp], check=False)
    _empty_folder(DRIVES)
    for p in [Path("/tmp", n) for n in TMP_STATE] + [Path("/dev/cdrom")]:
        shutil.rmtree(p, True) if p.is_dir() and not p.is_symlink() else p.unlink(missing_ok=True)
    NETFS_CLIENT.parent.mkdir(parents=True, exist_ok=True)
    if (TOOLS_DIR / "netfs_client").exists():
        NETFS_CLIENT.unlink(missing_ok=True)
        shutil.copy2(TOOLS_DIR / "netfs_client", NETFS_CLIENT)
    yield DRIVES


class Config(dict):  # the host's configuration file, replaced whole on every change (re-read on each lookup)
    path = OPT / "default" / "vtr.conf"

    def update(self, *args, **kwargs):
        super().update({k: str(v) for k, v in dict(*args, **kwargs).items()})
        self.path.with_name("vtr.conf.new").write_text("".join(f"{k}={v}\n" for k, v in self.items()))
        os.replace(self.path.with_name("vtr.conf.new"), self.path)

    __setitem__ = lambda self, key, value: self.update({key: value})  # noqa: E731

    def share(self, n, name, url):  # also makes and returns the share's folder
        self.update({f"netfs_name{n}": name, f"netfs_url{n}": url})
        (DRIVES / "NETWORK_SHARE" / name).mkdir(parents=True, exist_ok=True)
        return DRIVES / "NETWORK_SHARE" / name


@pytest.fixture
def config():
    Config().update()  # an empty file
    yield Config()
    Config().update()


@pytest.fixture
def fake_bin():  # at the front of every host's PATH, emptied per test
    _empty_folder(FAKE_BIN)
    yield FAKE_BIN
    _empty_folder(FAKE_BIN)


def make_fake(folder, name, script):  # an executable shell script double in folder
    (Path(folder) / name).write_text("#!/bin/sh\n" + script)
    (Path(folder) / name).chmod(0o755)


def mount(path, *options):  # mount(path, "-t", "tmpfs", "-o", "size=1m", "x"); "ro": a read-only bind of path itself
    path.mkdir(parents=True, exist_ok=True)
    for args in ([["--bind", path], ["-o", "remount,bind,ro"]] if options == ("ro",) else [options]):
        subprocess.run(["mount", *map(str, args), str(path)], check=True)


@pytest.fixture(scope="session")
def _host_process():
    FAKE_BIN.mkdir(parents=True, exist_ok=True)
    h = Host()
    yield h
    h.close()


@pytest.fixture
def host(_host_process, drives, config):  # the session's host, restarted after a crash
    if not _host_process.alive():
        _host_process.close()
        _host_process.start()
    return _host_process


@pytest.fixture
def make_host(drives, config):  # make_host(env={...}, plugin=path, cwd=dir): an extra host process
    made = []
    yield lambda env=None, plugin=None, cwd="/": made.append(Host(env, plugin, cwd)) or made[-1]
    for h in made:
        h.close()


fresh_host = pytest.fixture(lambda make_host: make_host())


@pytest.fixture
def run_cli(drives, config):  # run_cli(*args, options=()): `vtr-host [OPTIONS] run ARGS`, completed
    return lambda *args, options=(): subprocess.run([*HOST_WRAPPER, *EMULATOR, str(VTR_HOST), *options, "run", *args],
                                                    capture_output=True, env=host_env(), cwd="/", timeout=120)


@pytest.fixture
def events(drives):
    """/tmp/vtr_framework_pipe read as the player's interface does (read-write: no end of file): wait_text(text) gives
    the lines (with line feeds) from the last clear() to the first holding text; wait_end() to the end event."""
    path = "/tmp/vtr_framework_pipe"
    os.mkfifo(path, 0o666)
    fd = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    p = types.SimpleNamespace(lines=[], skip=0, stop=False, cond=threading.Condition())

    def reader(partial=b""):
        while not p.stop:
            if select.select([fd], [], [], 0.05)[0]:
                with p.cond:
                    *done, partial = (partial + os.read(fd, 65536)).split(b"\n")
                    p.lines.extend(d.decode("latin-1") for d in done)
                    p.cond.notify_all()

    def wait_text(text):
        with p.cond:
            assert p.cond.wait_for(lambda: any(text in l for l in p.lines[p.skip:]), 120), f"no {text} in {p.lines}"
            lines = [l + "\n" for l in p.lines[p.skip:]]
        return lines[:next(i for i, l in enumerate(lines) if text in l) + 1]

    p.wait_text, p.wait_end, p.clear = wait_text, lambda: wait_text("<whole>101<"), lambda: setattr(p, "skip", len(p.lines))
    thread = threading.Thread(target=reader, daemon=True)
    thread.start()
    yield p
    p.stop = True
    thread.join()
    os.close(fd)
    os.unlink(path)
