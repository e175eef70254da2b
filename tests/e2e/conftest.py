"""Fixtures of the end-to-end suite.

The suite runs inside tests/sandbox.sh (a private mount namespace with tmpfs
on /opt/vtrhttpd and /tmp and a private /dev). Environment:

  VTR_BUILD_DIR   folder holding vtr-host, the plug-in and libvtrsim.so
                  (default: <repository>/build)
  VTR_EMULATOR    command prefix for running a cross-built vtr-host, e.g.
                  "qemu-mipsel -L /usr/mipsel-linux-gnu"; empty on the PC
  VTR_TOOLS_DIR   folder holding the NATIVE netfs_client and other programs
                  that the plug-in executes through the real kernel
                  (default: VTR_BUILD_DIR)
  VTR_HOST_WRAPPER  command prefix for every vtr-host process, e.g.
                  "valgrind --error-exitcode=99 --leak-check=full"
                  (scripts/valgrind-e2e.sh); a host that exits with 99
                  fails the test that closes it

Fixtures: drives, config, host, fresh_host, make_host, run_cli, fake_bin.
"""
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
# Doubles of machine programs (cp, wget, cdparanoia...) put here are found
# first: every host process gets this folder at the front of PATH.
FAKE_BIN = OPT / "testbin"

# State files of the plug-in and of the simulated client under /tmp.
TMP_STATE = [
    "/tmp/fslist", "/tmp/fslist.batch", "/tmp/fslist.merge", "/tmp/usr_file_list", "/tmp/smb.out",
    "/tmp/usb_name.txt",
    "/tmp/netfs_client.log", "/tmp/vtr_framework_pipe",
    # the ripper's status and control files
    "/tmp/RippingStatus.txt", "/tmp/AlbumeName.txt", "/tmp/TrackNumber.txt", "/tmp/list.txt",
    "/tmp/kill_paranoia",
]

VTR_HOST = BUILD_DIR / "vtr-host"
# Seconds a single request may take (qemu is slow).
REQUEST_TIMEOUT = float(os.environ.get("VTR_REQUEST_TIMEOUT", "600"))
PLUGIN = BUILD_DIR / "libvantor_command_server_command_file_operation.so"


def pytest_configure(config):
    config.addinivalue_line("markers", "cross_only: runs only for the cross build")
    config.addinivalue_line("markers", "native_only: runs only for the native build")


def pytest_collection_modifyitems(config, items):
    for item in items:
        if "cross_only" in item.keywords and not CROSS:
            item.add_marker(pytest.mark.skip(reason="cross build only"))
        if "native_only" in item.keywords and CROSS:
            item.add_marker(pytest.mark.skip(reason="native build only"))


@pytest.fixture(scope="session", autouse=True)
def _inside_sandbox():
    if os.environ.get("VTR_SANDBOX") != "1":
        pytest.exit("run the end-to-end tests inside tests/sandbox.sh", returncode=2)
    if not VTR_HOST.exists():
        pytest.exit(f"{VTR_HOST} not built (set VTR_BUILD_DIR)", returncode=2)


def to_wire(arg):
    """One argument as the serve-stdio protocol sends it: a JSON string whose
    code points are the argument's bytes."""
    if isinstance(arg, str):
        arg = arg.encode("utf-8")
    return bytes(arg).decode("latin-1")


class Node:
    """One element of an answer: tag (str), text (bytes), children."""

    __slots__ = ("tag", "text", "children")

    def __init__(self, tag, text, children):
        self.tag = tag
        self.text = text
        self.children = children

    @classmethod
    def from_json(cls, obj):
        return cls(obj["tag"].encode("latin-1").decode("utf-8", "replace"),
                   obj["text"].encode("latin-1"),
                   [cls.from_json(c) for c in obj["children"]])

    def find(self, tag):
        """First child with this tag, or None."""
        for c in self.children:
            if c.tag == tag:
                return c
        return None

    def findall(self, tag):
        return [c for c in self.children if c.tag == tag]

    def text_of(self, tag):
        """Text (bytes) of the first child with this tag; None when absent."""
        c = self.find(tag)
        return None if c is None else c.text

    @property
    def tags(self):
        return [c.tag for c in self.children]

    def to_dict(self):
        return {"tag": self.tag, "text": self.text, "children": [c.to_dict() for c in self.children]}

    def __repr__(self):
        return f"Node({self.tag!r}, {self.text!r}, {self.children!r})"


class Answer:
    __slots__ = ("result", "tree")

    def __init__(self, result, tree):
        self.result = result
        self.tree = tree

    def __repr__(self):
        return f"Answer(result={self.result}, tree={self.tree!r})"


class HostError(RuntimeError):
    pass


def host_env(extra=None):
    env = dict(os.environ)
    env["PATH"] = f"{FAKE_BIN}:{env.get('PATH', '/usr/bin:/bin')}"
    env.pop("VTR_CONFIG", None)  # the default config file, written by `config`
    if extra:
        env.update(extra)
    return env


class Host:
    """A `vtr-host serve-stdio` process: one request per line, answers in order."""

    def __init__(self, env=None, plugin=None, cwd="/"):
        cmd = [*HOST_WRAPPER, *EMULATOR, str(VTR_HOST)]
        if plugin:
            cmd += ["--plugin", str(plugin)]
        cmd.append("serve-stdio")
        self.cmd = cmd
        self.env = env
        self.cwd = str(cwd)
        self.lock = threading.Lock()
        self.proc = None
        self.start()

    def start(self):
        self.proc = subprocess.Popen(self.cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     env=host_env(self.env), cwd=self.cwd)

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def request_line(self, line, timeout=REQUEST_TIMEOUT):
        """Sends one raw protocol line, returns the parsed JSON answer line.
        A host that does not answer within timeout seconds is killed."""
        with self.lock:
            if not self.alive():
                raise HostError(f"vtr-host is not running (exit {self.proc.returncode})")
            self.proc.stdin.write(line.encode("utf-8") + b"\n")
            self.proc.stdin.flush()
            ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
            if not ready:
                self.proc.kill()
                self.proc.wait()
                raise HostError(f"vtr-host did not answer within {timeout} s: {line}")
            out = self.proc.stdout.readline()
            if not out:
                code = self.proc.wait()
                raise HostError(f"vtr-host died (exit status {code}) on {line}")
            return json.loads(out)

    def run(self, *args, timeout=REQUEST_TIMEOUT):
        """Runs one request: run("list_user_storage_file", "USB", ...).
        Arguments may be str or bytes."""
        line = json.dumps([to_wire(a) for a in args])
        obj = self.request_line(line, timeout)
        if "error" in obj:
            raise HostError(obj["error"])
        return Answer(obj["result"], Node.from_json(obj["answer"]))

    def stats(self):
        """The host's own counters: {"live_nodes": N, "orphan_nodes": M}
        (XML nodes alive; those never appended to any tree)."""
        return self.request_line('["vtr-host:stats"]')["stats"]

    def close(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self.proc.stdin.close()
            try:
                self.proc.wait(timeout=300 if HOST_WRAPPER else 30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        else:
            self.proc.stdin.close()
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


def _unmount_below(path):
    """Lazily unmounts file systems a test mounted under path."""
    prefix = str(path) + "/"
    with open("/proc/self/mounts") as f:
        points = [line.split()[1].encode().decode("unicode_escape") for line in f]
    for mp in sorted((p for p in points if p.startswith(prefix)), key=len, reverse=True):
        subprocess.run(["umount", "-l", mp], check=False)


@pytest.fixture
def drives():
    """The drives root /opt/vtrhttpd/localhost.drives, emptied, with the /tmp
    state files removed and netfs_client installed."""
    _unmount_below(DRIVES)
    _empty_folder(DRIVES)
    for name in TMP_STATE:
        p = Path(name)
        if p.is_dir() and not p.is_symlink():
            shutil.rmtree(p, ignore_errors=True)
        else:
            p.unlink(missing_ok=True)
    Path("/dev/cdrom").unlink(missing_ok=True)
    DEFAULT.mkdir(parents=True, exist_ok=True)
    client = TOOLS_DIR / "netfs_client"
    if client.exists():
        NETFS_CLIENT.unlink(missing_ok=True)
        shutil.copy2(client, NETFS_CLIENT)
    yield DRIVES


class Config:
    """The host's configuration file /opt/vtrhttpd/default/vtr.conf.

    config["netfs_url0"] = "smb://nas/public"; config.update(...); del config[k];
    config.share(0, "Public", "smb://nas/public") also creates the share's
    folder under NETWORK_SHARE. Every change is written at once; the host
    re-reads the file on each lookup."""

    def __init__(self, path=CONFIG_FILE):
        self.path = Path(path)
        self.values = {}
        self.write()

    def write(self):
        # Replaced in one step: a host thread reading it never sees half a file.
        self.path.parent.mkdir(parents=True, exist_ok=True)
        tmp = self.path.with_name(self.path.name + ".new")
        tmp.write_text("".join(f"{k}={v}\n" for k, v in self.values.items()))
        os.replace(tmp, self.path)

    def __setitem__(self, key, value):
        self.values[key] = str(value)
        self.write()

    def __getitem__(self, key):
        return self.values[key]

    def __delitem__(self, key):
        del self.values[key]
        self.write()

    def __contains__(self, key):
        return key in self.values

    def get(self, key, default=None):
        return self.values.get(key, default)

    def update(self, *args, **kwargs):
        self.values.update({k: str(v) for k, v in dict(*args, **kwargs).items()})
        self.write()

    def clear(self):
        self.values.clear()
        self.write()

    def __call__(self, **kwargs):
        self.update(**kwargs)
        return self

    def share(self, n, name, url, create=True):
        self.update({f"netfs_name{n}": name, f"netfs_url{n}": url})
        folder = DRIVES / "NETWORK_SHARE" / name
        if create:
            folder.mkdir(parents=True, exist_ok=True)
        return folder


@pytest.fixture
def config():
    cfg = Config()
    yield cfg
    cfg.values.clear()
    cfg.write()


@pytest.fixture
def fake_bin():
    """A folder at the front of every host process's PATH, emptied per test.
    fake_bin.joinpath("cp") etc.; use make_fake(fake_bin, name, script)."""
    _empty_folder(FAKE_BIN)
    yield FAKE_BIN
    _empty_folder(FAKE_BIN)


def make_fake(folder, name, script):
    """Writes an executable shell script double into folder."""
    p = Path(folder) / name
    p.write_text("#!/bin/sh\n" + script)
    p.chmod(0o755)
    return p


_session_host = None


@pytest.fixture(scope="session")
def _host_process():
    global _session_host
    FAKE_BIN.mkdir(parents=True, exist_ok=True)
    _session_host = Host()
    yield _session_host
    _session_host.close()


@pytest.fixture
def host(_host_process, drives, config):
    """The session's serve-stdio host (the factory's one-second sleep is paid
    once). Restarted when an earlier test crashed it."""
    if not _host_process.alive():
        _host_process.close()
        _host_process.start()
    return _host_process


@pytest.fixture
def make_host(drives, config):
    """Factory for extra host processes: make_host(env={...}, plugin=path, cwd=dir)."""
    made = []

    def make(env=None, plugin=None, cwd="/"):
        h = Host(env=env, plugin=plugin, cwd=cwd)
        made.append(h)
        return h

    yield make
    for h in made:
        h.close()


@pytest.fixture
def fresh_host(make_host):
    """A host process of its own for this test."""
    return make_host()


@pytest.fixture
def run_cli(drives, config):
    """run_cli(*args, options=(), env=None) runs `vtr-host [options] run ARGS`
    and returns the CompletedProcess (stdout and stderr as bytes)."""

    def run(*args, options=(), env=None, timeout=120):
        cmd = [*HOST_WRAPPER, *EMULATOR, str(VTR_HOST), *options, "run"]
        cmd += [a if isinstance(a, bytes) else str(a) for a in args]
        return subprocess.run(cmd, capture_output=True, env=host_env(env), cwd="/", timeout=timeout)

    return run


@pytest.fixture
def usb_names(drives):
    """usb_names({"USB_DRIVE_A-1": "My Stick"}) writes /tmp/usb_name.txt
    (folder name, "|", display name, one line each)."""

    def write(names):
        Path("/tmp/usb_name.txt").write_text("".join(f"{k}|{v}\n" for k, v in names.items()))

    return write


class FrameworkPipe:
    """Reader of /tmp/vtr_framework_pipe, as the player's user interface.
    The FIFO is opened read-write so it always has a reader and never
    reports end of file; lines are collected by a thread."""

    PATH = Path("/tmp/vtr_framework_pipe")

    def __init__(self):
        self.PATH.unlink(missing_ok=True)
        os.mkfifo(self.PATH, 0o666)
        self.fd = os.open(self.PATH, os.O_RDWR | os.O_NONBLOCK)
        self.lines = []
        self._partial = b""
        self._cond = threading.Condition()
        self._stop = False
        self._thread = threading.Thread(target=self._reader, daemon=True)
        self._thread.start()

    def _reader(self):
        while not self._stop:
            ready, _, _ = select.select([self.fd], [], [], 0.05)
            if not ready:
                continue
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                continue
            with self._cond:
                self._partial += data
                *done, self._partial = self._partial.split(b"\n")
                self.lines.extend(d.decode("latin-1") for d in done)
                self._cond.notify_all()

    def wait_for(self, predicate, timeout=60):
        """Waits until predicate(lines) is true; returns the lines."""
        with self._cond:
            if not self._cond.wait_for(lambda: predicate(self.lines), timeout):
                raise AssertionError(f"framework pipe: condition not met; lines: {self.lines}")
            return list(self.lines)

    def close(self):
        self._stop = True
        self._thread.join()
        os.close(self.fd)
        self.PATH.unlink(missing_ok=True)


@pytest.fixture
def framework_pipe(drives):
    """The progress-event FIFO with a reader: .lines, .wait_for(pred, timeout)."""
    p = FrameworkPipe()
    yield p
    p.close()
