"""A vtr-cmdserver process for the tests and the one HTTP request builder."""
import base64
import contextlib
import http.client
import os
import re
import socket
import subprocess
import time
import urllib.parse
import xml.etree.ElementTree as ET

from conftest import BUILD_DIR, host_env

CMDSERVER = BUILD_DIR / "vtr-cmdserver"
LISTEN_RE = re.compile(rb"listening on http://(127\.0\.0\.1|\[::1\]):(\d+)/")
MARK = {"X-Vtr-Request": "1"}  # what the console sends with every request


def target(command, *args, group="file_operation"):  # args: str or bytes, each one percent-encoded parameter
    q = "&".join(f"a{i + 1}=" + urllib.parse.quote(a.encode() if isinstance(a, str) else a, safe="")
                 for i, a in enumerate(args))
    return f"/{group}/{urllib.parse.quote(command)}" + (f"?{q}" if args else "")


class Reply:   # an answer: status, headers, body and, for XML, root
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body
        self.root = ET.fromstring(body) if body.startswith(b"<?xml") else None
        self.result = int(self.root.findtext("result", "-1")) if self.root is not None else None

    @property
    def args(self):   # the echoed parameters as bytes, base64 undone
        return [base64.b64decode(e.text or "") if e.get("encoding") == "base64" else (e.text or "").encode()
                for e in self.root.find("request").findall("arg")]


class Server:
    def __init__(self, log_path, args=()):
        self.log_path, self.log = log_path, open(log_path, "wb")   # log_path: a Path
        self.proc = subprocess.Popen([str(CMDSERVER), "--port", "0", *args], stdout=subprocess.DEVNULL,
                                     stderr=self.log, env=host_env(), cwd="/")
        for _ in range(400):
            time.sleep(0.05)
            if (m := LISTEN_RE.search(self.log_path.read_bytes())) or self.proc.poll() is not None:
                break
        if not m:
            self.stop()
            raise RuntimeError("vtr-cmdserver did not start:\n" + self.log_path.read_text(errors="replace"))
        self.address, self.port = m.group(1).decode().strip("[]"), int(m.group(2))

    def connection(self, timeout=60):
        return http.client.HTTPConnection(self.address, self.port, timeout=timeout)

    def request(self, method, path, body=None, headers=MARK, timeout=60):
        with contextlib.closing(self.connection(timeout)) as conn:
            conn.request(method, path, body=body, headers=headers)
            r = conn.getresponse()
            return Reply(r.status, dict(r.getheaders()), r.read())

    def get(self, path, **kw):
        return self.request("GET", path, **kw)

    def call(self, command, *args, **kw):
        return self.get(target(command, *args), **kw)

    def raw(self, data):  # sends bytes as they are; the answer's status line, b"" when the connection was closed
        with socket.create_connection((self.address, self.port), timeout=30) as s, contextlib.suppress(OSError):
            s.sendall(data)
            return s.makefile("rb").readline().rstrip()
        return b""

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)
        self.log.close()


class EventStream:   # a client of /events reading one event at a time
    def __init__(self, server, headers=None, timeout=15):
        self.conn = server.connection(timeout)
        self.conn.request("GET", "/events", headers=headers or {})
        self.resp = self.conn.getresponse()

    def next_event(self):  # (id, data) of the next event, skipping the retry field and up to 3 keep-alive comments
        fields, comments = {}, 0
        while comments < 4:
            line = self.resp.readline()
            comments += not line or line.startswith(b": keepalive")
            if line in (b"", b"\n") and "data" in fields:
                return int(fields["id"]), fields["data"]
            name, _, value = line.rstrip(b"\n").decode().partition(": ")
            fields[name] = value
        raise TimeoutError("no event")

    def close(self):
        self.resp.close()
        self.conn.close()


def write_fifo(lines, path="/tmp/vtr_framework_pipe"):   # as the batch threads do: no waiting at open
    fd = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
    os.set_blocking(fd, True)
    for line in lines:
        os.write(fd, line.encode() + b"\n")
    os.close(fd)

