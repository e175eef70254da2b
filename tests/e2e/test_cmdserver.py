"""vtr-cmdserver over HTTP: wire format, who may ask what, limits, parallel requests, progress events."""
import base64
import contextlib
import os
import re
import shutil
import socket
import subprocess
import threading
import time
from pathlib import Path

import pytest

from conftest import DRIVES, make_fake
from cmdserver_client import CMDSERVER, MARK, EventStream, Server, target, write_fifo

pytestmark = [pytest.mark.native_only, pytest.mark.skipif(not CMDSERVER.exists(), reason="no libmicrohttpd"),
              pytest.mark.usefixtures("drives", "config")]


@pytest.fixture(scope="module")
def srv(tmp_path_factory):   # a pipe of its own: the tests' clean-up removes the usual one
    folder = tmp_path_factory.mktemp("cmdserver")
    yield (s := Server(folder / "server.log", args=("--pipe", str(folder / "pipe"), "--allow-host", "player.lan")))
    s.stop()


@pytest.fixture
def fresh_server(tmp_path):   # started after /tmp was cleared: each makes the progress pipe
    servers = []
    yield lambda *args: servers.append(Server(tmp_path / f"server{len(servers)}.log", args=args)) or servers[-1]
    for s in servers:
        s.stop()



def test_answer_document_echoes_the_request_and_holds_the_result(srv):
    r = srv.get("/file_operation/no%5Fsuch%5Fuser%5Fcommand?a=one&b=two")  # the name is decoded first
    assert r.status == 200 and r.headers["Content-Type"].startswith("application/xml")
    assert [(c.tag, c.text) for c in r.root.find("request")][:2] == [("group", "file_operation"),
                                                                      ("command", "no_such_user_command")]
    assert [c.tag for c in r.root] == ["request", "response", "result"] and len(r.root.find("response")) == 0
    assert r.args == [b"one", b"two"] and r.result == 1


# Every byte but NUL travels percent-encoded and comes back as text or, where XML cannot carry it, base64.
@pytest.mark.parametrize("value, encoded", [
    ("with space", 0), ("a+b", 0), ("100%", 0), ("x&y=z", 0), ("Übergröße 日本語.mp3", 0), ("", 0),
    ("<tag attr=\"v\">&amp;'</tag>", 0), ("tab\tline\nfeed\r", 0), (b"\x01\x7f", 1), (b"\xff\xfe \xe9", 1),
    (b"\xed\xa0\x80 surrogate", 1), (b"\xef\xbf\xbf", 1), ("?#;,:@$!*()[]/", 0), ("%41 not decoded twice", 0),
], ids=repr)
def test_parameters_arrive_byte_for_byte(srv, value, encoded):
    r = srv.call("echo_user_test", value, "after")
    assert r.args == [value.encode() if isinstance(value, str) else value, b"after"]
    assert (r.root.find("request/arg").get("encoding") == "base64") == bool(encoded)


@pytest.mark.parametrize("query, expected", [
    ("", []), ("a=", [b""]), ("x+y", [b"x y"]), ("p=x%2By", [b"x+y"]), ("path=a=b", [b"a=b"]), ("a=1&", [b"1", b""]),
    ("bare&two=2", [b"bare", b"2"]), ("z=3&a=1&m=2", [b"3", b"1", b"2"]), ("a=%e6%97%a5", ["日".encode()])])
def test_query_forms(srv, query, expected):
    assert srv.get("/file_operation/echo_user_test" + ("?" + query if query else "")).args == expected


def test_post_form_body_adds_parameters_after_the_query(srv):
    r = srv.request("POST", "/file_operation/echo_user_test?a=first", body="b=second+part&c=%26&d=",
                    headers={**MARK, "Content-Type": "application/x-www-form-urlencoded"})
    assert r.args == [b"first", b"second part", b"&", b""]


@pytest.mark.parametrize("method, path, status", [
    ("GET", "/file_operation", 400), ("GET", "/file_operation/x?a=%00", 400), ("GET", "/file_operation/x?a=%zz", 400),
    ("GET", "/file_operation/x?a=ok&b=%", 400), ("GET", "/file_operation/a%00b", 400),
    ("GET", "/file_operation/x?" + "a&" * 300, 400), ("GET", "/other_group/list", 404), ("GET", "/favicon.ico", 404),
    ("PUT", "/file_operation/x", 405), ("OPTIONS", "/file_operation/x", 405), ("POST", "/events", 405),
])
def test_error_answers(srv, method, path, status):
    r = srv.request(method, path)
    assert (r.status, r.root.tag, int(r.root.find("status").text)) == (status, "error", status)


@pytest.mark.parametrize("line, answer", [
    (b"GET /file_operation/echo_user_test?p=a\x00b&q HTTP/1.1", b"HTTP/1.1 400"),  # as %00 is
    (b"GET /file_operation/echo\x00_user_test HTTP/1.1", b"HTTP/1.1 400"),
    (b"\x00\x01\x02", b""), (b"GET", b""), (b"GET /" + b"a" * 300000 + b" HTTP/1.1", b""),
], ids=["nul-in-query", "nul-in-path", "junk", "no-target", "too-long"])
def test_raw_request_lines(srv, line, answer):
    assert srv.raw(line + b"\r\nHost: localhost\r\nX-Vtr-Request: 1\r\nConnection: close\r\n\r\n").startswith(answer)
    assert srv.call("no_such_user_command").result == 1



@pytest.mark.parametrize("method, command, headers, status", [
    ("GET", "read", {}, 200),                                   # reads stay plain GET
    ("GET", "delete", {}, 403),                                 # an <img> or a link of any page
    ("POST", "delete", {"Content-Type": "application/x-www-form-urlencoded"}, 403),  # a form of any page
    ("GET", "delete", MARK, 200),                               # the console, curl -H
    ("HEAD", "delete", MARK, 405),
    ("GET", "read", {"Host": "evil.example:8080"}, 403),        # a page whose name now points here
    ("GET", "read", {"Host": "player.lan:8080"}, 200),          # --allow-host
    ("GET", "read", {"Host": "LOCALHOST"}, 200),
    ("GET", "read", {"Host": "[::1]:8080"}, 403),                # not the address bound
    ("GET", "read", {"Origin": "http://evil.example"}, 403),
    ("GET", "delete", {**MARK, "Origin": "null"}, 403),
    ("GET", "read", {"Sec-Fetch-Site": "cross-site"}, 403),
    ("GET", "delete", {**MARK, "Sec-Fetch-Site": "same-site"}, 403),
    ("GET", "delete", {**MARK, "Sec-Fetch-Site": "same-origin"}, 200),
])
def test_only_local_clients_and_the_console_change_files(srv, method, command, headers, status):
    victim = DRIVES / "keep.txt"
    victim.write_text("data")
    words = [str(victim), "0", "0"] if command == "read" else [str(victim)]
    r = srv.request(method, target(f"{command}_user_storage_file", *words), headers=headers)
    assert (r.status, victim.exists()) == (status, command == "read" or status != 200)


def test_answers_are_never_framed_and_the_page_runs_only_its_own_script(srv):
    page = srv.get("/", headers={})
    nonce = re.search(rb'<script nonce="([^"]+)">', page.body).group(1).decode()
    assert f"script-src 'nonce-{nonce}'" in page.headers["Content-Security-Policy"]
    assert b"/events" in page.body and srv.get("/index.html").body != page.body  # a new nonce every time
    for r in page, srv.call("no_such_user_command"), srv.get("/nowhere"):
        assert r.headers["X-Frame-Options"] == "DENY"
        assert "frame-ancestors 'none'" in r.headers["Content-Security-Policy"]



def test_reads_are_capped_and_streamed(fresh_server):
    cap, big = 16 << 20, DRIVES / "big.bin"
    big.write_bytes(os.urandom(1024) * (cap // 1024))   # binary: sent as base64, a third larger
    srv = fresh_server()
    peak = lambda: int(re.search(r"VmHWM:\s+(\d+)", Path(f"/proc/{srv.proc.pid}/status").read_text())[1]) << 10
    before = peak()
    content = srv.call("read_user_storage_file", str(big), "0", "0").root.find("response/content")
    assert content.get("encoding") == "base64" and base64.b64decode(content.text) == big.read_bytes()
    assert peak() - before < cap * 11 // 4   # the plug-in's buffer and answer, never an encoded copy
    big.write_bytes(big.read_bytes() + b"x")
    for count in "0", str(cap + 1):
        r = srv.call("read_user_storage_file", str(big), "0", count)
        assert r.status == 413 and "offset and count" in r.root.find("message").text
    assert srv.call("read_user_storage_file", str(big), str(cap), "0").root.find("response/content").text == "x"


def test_long_commands_leave_a_slot_for_stop_ripping(fresh_server, fake_bin):
    (DRIVES / "USB_A").mkdir()
    for name in "cdparanoia", "wget":   # both run until StopRipping leaves its marker (30 s at most)
        make_fake(fake_bin, name, f"touch /tmp/{name}.started; i=0\n"
                  "while [ ! -e /tmp/kill_paranoia ] && [ $i -lt 300 ]; do sleep 0.1; i=$((i+1)); done\n")
    srv = fresh_server("--threads", "2")
    calls = [("ripping", "start_ripping", "/USB_A/", "ALL", "true", "false", "WAV", "Album"),
             ("download_user_storage_file", str(DRIVES / "USB_A"), "http://127.0.0.1:9/x", "x")]
    replies, threads = {}, [threading.Thread(target=lambda c=c: replies.update({c[0]: srv.call(*c)})) for c in calls]
    threads[0].start()
    while not os.path.exists("/tmp/cdparanoia.started") and threads[0].is_alive():
        time.sleep(0.1)
    threads[1].start()
    time.sleep(0.5)   # the download asks for the second slot meanwhile
    assert srv.call("ripping", "StopRipping", timeout=10).result == 0
    for t in threads:
        t.join(timeout=60)
    assert replies["ripping"].result == 0 and replies["download_user_storage_file"].status == 200


def test_half_sent_surplus_and_event_connections_are_limited(fresh_server):
    srv = fresh_server("--threads", "1")
    socks = [socket.create_connection(("127.0.0.1", srv.port), timeout=30) for _ in range(40)]
    for s in socks:
        s.sendall(b"GET /file_operation/list_user_storage_file HTTP/1.1\r\nHo")

    def closed(s):
        with contextlib.suppress(ConnectionResetError):
            return s.recv(100) == b""
        return True
    assert all(closed(s) for s in socks[32:])   # past the per-address limit: at once
    socks[0].setblocking(False)
    with pytest.raises(BlockingIOError):        # the others stay open...
        socks[0].recv(1, socket.MSG_PEEK)
    assert all(closed(s) for s in socks[1:32])  # ...until idle for 10 s
    streams = [EventStream(srv) for _ in range(17)]   # they take no plug-in slot
    assert [s.resp.status for s in streams] == [200] * 16 + [503]
    assert srv.call("no_such_user_command", timeout=10).status == 200
    for s in streams:
        s.close()
    for _ in range(30):   # a closed client is noticed at its next keep-alive
        time.sleep(1)
        with contextlib.closing(EventStream(srv)) as again:
            if again.resp.status == 200:
                break
    assert again.resp.status == 200


@pytest.mark.parametrize("last, resumes", [("0", True), ("18446744073709551615", False), ("-1", False),
                                           ("+0", False), ("99999999999999999999", False), ("4", False)])
def test_events_reach_every_client_in_order_and_resume_after_an_id_they_name(fresh_server, last, resumes):
    srv = fresh_server()
    a, b = EventStream(srv), EventStream(srv)
    lines = ["swf=<event>copy_from_list</event>", "two", "three \u00e9", "four", "end"]
    write_fifo(lines[:2])
    write_fifo(lines[2:4])  # the writer reopens the pipe for every event
    for stream in a, b:
        assert [stream.next_event() for _ in lines[:4]] == list(enumerate(lines[:4]))
    again = EventStream(srv, headers={"Last-Event-ID": last})
    write_fifo(lines[4:])
    assert again.next_event() == ((1, lines[1]) if resumes else (4, "end"))


def test_a_stalled_client_blocks_neither_the_pipe_nor_other_clients(fresh_server):
    srv = fresh_server()
    stalled, reader = EventStream(srv), EventStream(srv, timeout=30)   # the first never reads
    lines = [f"{i} " + "f" * 200 for i in range(3000)]
    writer = threading.Thread(target=write_fifo, args=(lines,))
    writer.start()
    writer.join(timeout=20)
    assert stalled.resp.status == 200 and not writer.is_alive(), "the pipe reader fell behind a stalled client"
    while reader.next_event()[1] != lines[-1]:
        pass



def test_console_in_headless_chromium(fresh_server):
    browser, chromium = Path(__file__).resolve().parents[1] / "browser", os.environ.get("CHROMIUM", "/usr/bin/chromium")
    modules = browser / "node_modules" / "playwright-core"
    if not shutil.which("node") or not os.path.exists(chromium) or not modules.is_dir():
        pytest.skip("node, chromium or playwright-core (npm ci in tests/browser) is missing")
    for drive in "USB_A", "HDD":
        (DRIVES / drive).mkdir()
    (DRIVES / "USB_A" / "movie.mkv").write_bytes(os.urandom(2_000_000))
    srv = fresh_server()
    run = subprocess.run(["node", "console_test.mjs", f"http://127.0.0.1:{srv.port}/", "USB_A", "movie.mkv", "HDD"],
                         capture_output=True, text=True, timeout=180, cwd=browser,
                         env=dict(os.environ, CHROMIUM=chromium, HOME="/tmp"))
    assert run.returncode == 0, run.stdout + run.stderr
    assert (DRIVES / "HDD" / "movie.mkv").read_bytes() == (DRIVES / "USB_A" / "movie.mkv").read_bytes()
