"""A vtr-cmdserver process for the tests and a small HTTP client for it."""
import base64
import http.client
import os
import re
import signal
import subprocess
import time
import urllib.parse
import xml.etree.ElementTree as ET
from pathlib import Path

from conftest import BUILD_DIR, host_env

CMDSERVER = BUILD_DIR / "vtr-cmdserver"
LISTEN_RE = re.compile(rb"listening on http://(127\.0\.0\.1|\[::1\]):(\d+)/")


def quote(value):
    """One parameter percent-encoded; value is str or bytes."""
    if isinstance(value, str):
        value = value.encode("utf-8")
    return urllib.parse.quote(value, safe="")


def target(command, *args, group="file_operation"):
    query = "&".join(f"a{i + 1}={quote(a)}" for i, a in enumerate(args))
    return f"/{group}/{quote(command)}" + (f"?{query}" if args else "")


def text_bytes(elem):
    """The bytes an element carries, base64 undone."""
    if elem.get("encoding") == "base64":
        return base64.b64decode(elem.text or "")
    return (elem.text or "").encode("utf-8")


class Reply:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body
        self.root = ET.fromstring(body) if body.startswith(b"<?xml") else None

    @property
    def result(self):
        return int(self.root.find("result").text)

    @property
    def response(self):
        return self.root.find("response")

    @property
    def args(self):
        return [text_bytes(e) for e in self.root.find("request").findall("arg")]


class Server:
    def __init__(self, log_path, args=(), env=None):
        self.log_path = Path(log_path)
        self.log = open(self.log_path, "wb")
        self.proc = subprocess.Popen([str(CMDSERVER), "--port", "0", *args], stdout=subprocess.DEVNULL,
                                     stderr=self.log, env=host_env(env), cwd="/")
        deadline = time.monotonic() + 20
        self.port = None
        while time.monotonic() < deadline:
            m = LISTEN_RE.search(self.log_path.read_bytes())
            if m:
                self.address, self.port = m.group(1).decode().strip("[]"), int(m.group(2))
                break
            if self.proc.poll() is not None:
                break
            time.sleep(0.05)
        if self.port is None:
            self.stop()
            raise RuntimeError("vtr-cmdserver did not start:\n" + self.log_path.read_text(errors="replace"))

    def connection(self, timeout=60):
        return http.client.HTTPConnection(self.address, self.port, timeout=timeout)

    def request(self, method, path, body=None, headers=None, timeout=60):
        conn = self.connection(timeout)
        try:
            conn.request(method, path, body=body, headers=headers or {})
            r = conn.getresponse()
            return Reply(r.status, dict(r.getheaders()), r.read())
        finally:
            conn.close()

    def get(self, path, **kw):
        return self.request("GET", path, **kw)

    def call(self, command, *args, **kw):
        return self.get(target(command, *args), **kw)

    def log_text(self):
        return self.log_path.read_text(errors="replace")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()


class EventStream:
    """A client of /events reading one event at a time."""

    def __init__(self, server, headers=None, timeout=15):
        self.conn = server.connection(timeout)
        self.conn.request("GET", "/events", headers=headers or {})
        self.resp = self.conn.getresponse()

    def next_event(self, within=30):
        """(id, data) of the next event; comments and the retry field are
        skipped. Keep-alive comments do not extend the time allowed."""
        ident, data = None, None
        deadline = time.monotonic() + within
        while True:
            if time.monotonic() > deadline:
                raise TimeoutError(f"no event within {within} s")
            line = self.resp.readline()
            if not line:
                raise EOFError("event stream ended")
            line = line.rstrip(b"\n")
            if line == b"":
                if data is not None:
                    return ident, data
                continue
            if line.startswith(b"id: "):
                ident = int(line[4:])
            elif line.startswith(b"data: "):
                data = line[6:].decode("utf-8", "replace")

    def close(self):
        self.conn.close()


def write_fifo(lines, path="/tmp/vtr_framework_pipe"):
    """Writes lines to the progress pipe the way the batch threads do: opened
    without waiting, then one blocking write per line."""
    fd = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
    try:
        os.set_blocking(fd, True)
        for line in lines:
            os.write(fd, line.encode("utf-8") + b"\n")
    finally:
        os.close(fd)


def progress_line(item, total, percent, whole, filename="a.bin", status=0, event="copy"):
    return (f"swf=<event>{event}_from_list</event><filename>{filename}</filename><from>USB</from>"
            f"<to>HDD</to><item>{item}</item><total>{total}</total><percent>{percent}</percent>"
            f"<whole>{whole}</whole><time_left>0</time_left><status>{status}</status>")
