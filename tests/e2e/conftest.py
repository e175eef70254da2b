"""Fixtures of the end-to-end suite (run inside tests/sandbox.sh). Environment:
VTR_BUILD_DIR (vtr-host, plug-in, libvtrsim.so), VTR_EMULATOR (prefix for a
cross-built vtr-host), VTR_TOOLS_DIR (the native netfs_client), VTR_HOST_WRAPPER
(prefix for every vtr-host, e.g. valgrind; exit 99 fails the test)."""
import collections
import json
import os
import select
import shlex
import shutil
import subprocess
import threading
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD_DIR = Path(os.environ.get("VTR_BUILD_DIR") or REPO / "build").resolve()
EMULATOR = shlex.split(os.environ.get("VTR_EMULATOR", ""))
TOOLS_DIR = Path(os.environ.get("VTR_TOOLS_DIR") or BUILD_DIR).resolve()
CROSS = bool(EMULATOR)
HOST_WRAPPER = shlex.split(os.environ.get("VTR_HOST_WRAPPER", ""))
WRAPPER_FAILURE = 99
OPT = Path("/opt/vtrhttpd")
DRIVES = OPT / "localhost.drives"
DEFAULT = OPT / "default"
CONFIG_FILE = DEFAULT / "vtr.conf"
NETFS_CLIENT = DEFAULT / "netfs_client"
FAKE_BIN = OPT / "testbin"  # doubles of machine programs, first on every host's PATH
TMP_STATE = ["/tmp/fslist", "/tmp/fslist.batch", "/tmp/fslist.merge", "/tmp/usr_file_list", "/tmp/smb.out", "/tmp/usb_name.txt", "/tmp/netfs_client.log",
             "/tmp/vtr_framework_pipe", "/tmp/RippingStatus.txt", "/tmp/AlbumeName.txt", "/tmp/TrackNumber.txt",
             "/tmp/list.txt", "/tmp/kill_paranoia"]
VTR_HOST = BUILD_DIR / "vtr-host"
REQUEST_TIMEOUT = float(os.environ.get("VTR_REQUEST_TIMEOUT", "600"))  # qemu is slow
PLUGIN = BUILD_DIR / "libvantor_command_server_command_file_operation.so"


def pytest_configure(config):
    config.addinivalue_line("markers", "cross_only: runs only for the cross build")
    config.addinivalue_line("markers", "native_only: runs only for the native build")


def pytest_collection_modifyitems(config, items):
    for item in items:
        if ("cross_only" in item.keywords and not CROSS) or ("native_only" in item.keywords and CROSS):
            item.add_marker(pytest.mark.skip(reason="not for this build"))


@pytest.fixture(scope="session", autouse=True)
def _inside_sandbox():
    if os.environ.get("VTR_SANDBOX") != "1":
        pytest.exit("run the end-to-end tests inside tests/sandbox.sh", returncode=2)
    if not VTR_HOST.exists():
        pytest.exit(f"{VTR_HOST} not built (set VTR_BUILD_DIR)", returncode=2)


def to_wire(arg):
    """An argument as serve-stdio takes it: a JSON string whose code points are the argument's bytes."""
    return bytes(arg.encode() if isinstance(arg, str) else arg).decode("latin-1")


class Node:
    """One element of an answer: tag (str), text (bytes), children."""
    __slots__ = ("tag", "text", "children")

    def __init__(self, tag, text, children):
        self.tag, self.text, self.children = tag, text, children

    @classmethod
    def from_json(cls, obj):
        return cls(obj["tag"].encode("latin-1").decode("utf-8", "replace"), obj["text"].encode("latin-1"),
                   [cls.from_json(c) for c in obj["children"]])

    def find(self, tag):
        return next((c for c in self.children if c.tag == tag), None)

    def findall(self, tag):
        return [c for c in self.children if c.tag == tag]

    def text_of(self, tag):
        return getattr(self.find(tag), "text", None)

    @property
    def tags(self):
        return [c.tag for c in self.children]

    def to_dict(self):
        return {"tag": self.tag, "text": self.text, "children": [c.to_dict() for c in self.children]}

    __repr__ = lambda self: repr(self.to_dict())


Answer = collections.namedtuple("Answer", "result tree")


class HostError(RuntimeError):
    pass


def host_env(extra=None):
    env = dict(os.environ, PATH=f"{FAKE_BIN}:{os.environ.get('PATH', '/usr/bin:/bin')}")
    env.pop("VTR_CONFIG", None)  # the default config file, written by `config`
    env.update(extra or {})
    return env


class Host:
    """A `vtr-host serve-stdio` process: one request per line, answers in order."""

    def __init__(self, env=None, plugin=None, cwd="/"):
        self.cmd = [*HOST_WRAPPER, *EMULATOR, str(VTR_HOST), *(["--plugin", str(plugin)] if plugin else []),
                    "serve-stdio"]
        self.env, self.cwd, self.lock, self.proc = env, str(cwd), threading.Lock(), None
        self.start()

    def start(self):
        self.proc = subprocess.Popen(self.cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     env=host_env(self.env), cwd=self.cwd)

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def request_line(self, line, timeout=REQUEST_TIMEOUT):
        """Sends one raw protocol line, returns the parsed answer line; kills a host that does not answer."""
        with self.lock:
            if not self.alive():
                raise HostError(f"vtr-host is not running (exit {self.proc.returncode})")
            self.proc.stdin.write(line.encode("utf-8") + b"\n")
            self.proc.stdin.flush()
            if not select.select([self.proc.stdout], [], [], timeout)[0]:
                self.proc.kill()
                self.proc.wait()
                raise HostError(f"vtr-host did not answer within {timeout} s: {line}")
            out = self.proc.stdout.readline()
            if not out:
                raise HostError(f"vtr-host died (exit status {self.proc.wait()}) on {line}")
            return json.loads(out)

    def run(self, *args, timeout=REQUEST_TIMEOUT):
        """run("list_user_storage_file", "USB", ...); arguments may be str or bytes."""
        obj = self.request_line(json.dumps([to_wire(a) for a in args]), timeout)
        if "error" in obj:
            raise HostError(obj["error"])
        return Answer(obj["result"], Node.from_json(obj["answer"]))

    def stats(self):
        """{"live_nodes": N, "orphan_nodes": M}: XML nodes alive; those never appended."""
        return self.request_line('["vtr-host:stats"]')["stats"]

    def close(self):
        if self.proc is None:
            return
        self.proc.stdin.close()
        try:
            self.proc.wait(timeout=300 if HOST_WRAPPER else 30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.proc.stdout.close()
        if HOST_WRAPPER and self.proc.returncode == WRAPPER_FAILURE:
            raise HostError(f"{HOST_WRAPPER[0]} reported errors in vtr-host (exit {WRAPPER_FAILURE})")


def _empty_folder(path):
    path.mkdir(parents=True, exist_ok=True)
    for child in path.iterdir():
        if child.is_mount():
            subprocess.run(["umount", "-l", str(child)], check=False)
        if child.is_dir() and not child.is_symlink():
            shutil.rmtree(child, ignore_errors=True)
        else:
            child.unlink(missing_ok=True)


@pytest.fixture
def drives():
    """The drives root, emptied (mounts below it undone), the /tmp state files
    removed and netfs_client installed."""
    with open("/proc/self/mounts") as f:
        points = [line.split()[1].encode().decode("unicode_escape") for line in f]
    for mp in sorted((p for p in points if p.startswith(f"{DRIVES}/")), key=len, reverse=True):
        subprocess.run(["umount", "-l", mp], check=False)
    _empty_folder(DRIVES)
    for p in map(Path, TMP_STATE + ["/dev/cdrom"]):
        shutil.rmtree(p, ignore_errors=True) if p.is_dir() and not p.is_symlink() else p.unlink(missing_ok=True)
    DEFAULT.mkdir(parents=True, exist_ok=True)
    if (TOOLS_DIR / "netfs_client").exists():
        NETFS_CLIENT.unlink(missing_ok=True)
        shutil.copy2(TOOLS_DIR / "netfs_client", NETFS_CLIENT)
    yield DRIVES


class Config(dict):
    """The host's configuration file, rewritten in one step on every change
    (the host re-reads it on each lookup). share(n, name, url) also makes the
    share's folder under NETWORK_SHARE and returns it."""
    path = CONFIG_FILE
    values = property(lambda self: self)

    def write(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        tmp = self.path.with_name("vtr.conf.new")
        tmp.write_text("".join(f"{k}={v}\n" for k, v in self.items()))
        os.replace(tmp, self.path)

    def __setitem__(self, key, value):
        self.update({key: value})

    def __delitem__(self, key):
        super().__delitem__(key)
        self.write()

    def update(self, *args, **kwargs):
        super().update({k: str(v) for k, v in dict(*args, **kwargs).items()})
        self.write()

    def clear(self):
        super().clear()
        self.write()

    def share(self, n, name, url, create=True):
        self.update({f"netfs_name{n}": name, f"netfs_url{n}": url})
        if create:
            (DRIVES / "NETWORK_SHARE" / name).mkdir(parents=True, exist_ok=True)
        return DRIVES / "NETWORK_SHARE" / name


@pytest.fixture
def config():
    cfg = Config()
    cfg.clear()
    yield cfg
    cfg.clear()


@pytest.fixture
def fake_bin():
    """A folder at the front of every host process's PATH, emptied per test."""
    _empty_folder(FAKE_BIN)
    yield FAKE_BIN
    _empty_folder(FAKE_BIN)


def make_fake(folder, name, script):
    """Writes an executable shell script double into folder."""
    p = Path(folder) / name
    p.write_text("#!/bin/sh\n" + script)
    p.chmod(0o755)
    return p


@pytest.fixture(scope="session")
def _host_process():
    FAKE_BIN.mkdir(parents=True, exist_ok=True)
    h = Host()
    yield h
    h.close()


@pytest.fixture
def host(_host_process, drives, config):
    """The session's host (its start-up is paid once), restarted after a crash."""
    if not _host_process.alive():
        _host_process.close()
        _host_process.start()
    return _host_process


@pytest.fixture
def make_host(drives, config):
    """Factory for extra host processes: make_host(env={...}, plugin=path, cwd=dir)."""
    made = []
    yield lambda env=None, plugin=None, cwd="/": made.append(Host(env, plugin, cwd)) or made[-1]
    for h in made:
        h.close()


@pytest.fixture
def fresh_host(make_host):
    return make_host()


@pytest.fixture
def run_cli(drives, config):
    """run_cli(*args, options=(), env=None): `vtr-host [options] run ARGS` as a CompletedProcess."""
    def run(*args, options=(), env=None, timeout=120):
        cmd = [*HOST_WRAPPER, *EMULATOR, str(VTR_HOST), *options, "run", *(a if isinstance(a, bytes) else str(a)
                                                                              for a in args)]
        return subprocess.run(cmd, capture_output=True, env=host_env(env), cwd="/", timeout=timeout)
    return run


@pytest.fixture
def usb_names(drives):
    """usb_names({"USB_DRIVE_A-1": "My Stick"}) writes /tmp/usb_name.txt ("folder|name" lines)."""
    return lambda names: Path("/tmp/usb_name.txt").write_text("".join(f"{k}|{v}\n" for k, v in names.items()))


class FrameworkPipe:
    """Reader of /tmp/vtr_framework_pipe as the player's user interface: opened
    read-write (never an end of file), lines collected by a thread."""
    PATH = Path("/tmp/vtr_framework_pipe")

    def __init__(self):
        self.PATH.unlink(missing_ok=True)
        os.mkfifo(self.PATH, 0o666)
        self.fd = os.open(self.PATH, os.O_RDWR | os.O_NONBLOCK)
        self.lines, self._partial, self._stop, self._cond = [], b"", False, threading.Condition()
        self._thread = threading.Thread(target=self._reader, daemon=True)
        self._thread.start()

    def _reader(self):
        while not self._stop:
            if not select.select([self.fd], [], [], 0.05)[0]:
                continue
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                continue
            with self._cond:
                *done, self._partial = (self._partial + data).split(b"\n")
                self.lines.extend(d.decode("latin-1") for d in done)
                self._cond.notify_all()

    def wait_for(self, predicate, timeout=60):
        """Waits until predicate(lines) is true; returns the lines."""
        with self._cond:
            if not self._cond.wait_for(lambda: predicate(self.lines), timeout):
                raise AssertionError(f"framework pipe: condition not met; lines: {self.lines}")
            return list(self.lines)

@pytest.fixture
def framework_pipe(drives):
    p = FrameworkPipe()
    yield p
    p._stop = True
    p._thread.join()
    os.close(p.fd)
    p.PATH.unlink(missing_ok=True)
