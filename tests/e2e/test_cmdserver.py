"""vtr-cmdserver over HTTP: the answer document, parameter decoding, error
answers, parallel requests, the progress event stream and the request log."""
import base64
import os
import re
import socket
import threading
import time
from pathlib import Path

import pytest

from conftest import DRIVES, FAKE_BIN, make_fake
from cmdserver_client import CMDSERVER, EventStream, Server, progress_line, write_fifo

pytestmark = [
    pytest.mark.native_only,
    pytest.mark.skipif(not CMDSERVER.exists(), reason="vtr-cmdserver not built (libmicrohttpd missing?)"),
]


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    FAKE_BIN.mkdir(parents=True, exist_ok=True)
    # A pipe of its own: the tests' clean-up removes the usual one, and two
    # servers reading one pipe would share its lines.
    folder = tmp_path_factory.mktemp("cmdserver")
    s = Server(folder / "server.log", args=("--pipe", str(folder / "pipe")))
    yield s
    s.stop()


@pytest.fixture
def srv(server, drives, config):
    """The module's server, with the drives emptied for this test."""
    assert server.proc.poll() is None, server.log_text()
    return server


@pytest.fixture
def fresh_server(drives, config, tmp_path):
    """A server of its own, started after the /tmp state was cleared (it
    creates the progress pipe at start)."""
    servers = []

    def start(*args, env=None):
        s = Server(tmp_path / f"server{len(servers)}.log", args=args, env=env)
        servers.append(s)
        return s

    yield start
    for s in servers:
        s.stop()


# --- the answer document ---------------------------------------------------

def test_answer_document_echoes_the_request_and_holds_the_result(srv):
    r = srv.call("no_such_user_command", "one", "two")
    assert r.status == 200
    assert r.headers["Content-Type"].startswith("application/xml")
    assert r.root.tag == "answer"
    assert [c.tag for c in r.root] == ["request", "response", "result"]
    req = r.root.find("request")
    assert [c.tag for c in req] == ["group", "command", "arg", "arg"]
    assert req.find("group").text == "file_operation"
    assert req.find("command").text == "no_such_user_command"
    assert r.args == [b"one", b"two"]
    assert r.result == 1          # unknown sub-commands answer 1
    assert len(r.response) == 0   # and append nothing
    # The sub-command name is decoded before it is dispatched.
    r = srv.get("/file_operation/no%5Fsuch%5Fuser%5Fcommand")
    assert (r.root.find("request").find("command").text, r.result) == ("no_such_user_command", 1)


# Every byte a path can hold except NUL travels percent-encoded and comes
# back in the echo (as text, or base64 when XML cannot carry it).
DECODING = [
    "with space", "a+b", "100%", "x&y=z", "Übergröße 日本語.mp3", "", "<tag attr=\"v\">&amp;'</tag>",
    "tab\tline\nfeed\r", b"\x01\x7f", b"\xff\xfe latin-1 \xe9", b"\xed\xa0\x80 surrogate", b"\xef\xbf\xbf",
    "?#;,:@$!*()[]/", "%41 not decoded twice",
]


@pytest.mark.parametrize("value", DECODING, ids=repr)
def test_parameters_arrive_byte_for_byte(srv, value):
    raw = value.encode("utf-8") if isinstance(value, str) else value
    r = srv.call("echo_user_test", value, "after")
    assert r.status == 200
    assert r.args == [raw, b"after"]
    arg = r.root.find("request").findall("arg")[0]
    assert (arg.get("encoding") == "base64") == (not xml_text(raw))


def xml_text(raw):
    """What XML 1.0 can carry as it is: UTF-8 without control characters
    (tab, line feed and carriage return excepted), U+FFFE and U+FFFF."""
    try:
        text = raw.decode("utf-8")
    except UnicodeDecodeError:
        return False
    return all(ord(c) >= 0x20 or c in "\t\n\r" for c in text) and not set(text) & {"\ufffe", "\uffff"}


@pytest.mark.parametrize("query, expected", [
    ("", []),
    ("a=", [b""]),
    ("x+y", [b"x y"]),                       # "+" is a blank, "%2B" a plus
    ("p=x%2By", [b"x+y"]),
    ("path=a=b", [b"a=b"]),                  # the label ends at the first "="
    ("bare&two=2", [b"bare", b"2"]),         # an item without "=" is its own value
    ("z=3&a=1&m=2", [b"3", b"1", b"2"]),     # order of the query, not of the labels
    ("a=%e6%97%a5", ["日".encode()]),
    ("a=1&", [b"1", b""]),
])
def test_query_forms(srv, query, expected):
    r = srv.get("/file_operation/echo_user_test" + ("?" + query if query else ""))
    assert r.status == 200
    assert r.args == expected


def test_post_form_body_adds_parameters_after_the_query(srv):
    r = srv.request("POST", "/file_operation/echo_user_test?a=first",
                    body="b=second+part&c=%26&d=", headers={"Content-Type": "application/x-www-form-urlencoded"})
    assert r.status == 200
    assert r.args == [b"first", b"second part", b"&", b""]


@pytest.mark.parametrize("method, path, status", [
    ("GET", "/file_operation", 400),
    ("GET", "/file_operation/x?a=%00", 400),
    ("GET", "/file_operation/x?a=%zz", 400),
    ("GET", "/file_operation/x?a=ok&b=%", 400),
    ("GET", "/file_operation/a%00b", 400),
    ("GET", "/other_group/list", 404),
    ("GET", "/favicon.ico", 404),
    ("GET", "/file_operation.x/list_user_storage_file", 404),
    ("PUT", "/file_operation/x", 405),
    ("POST", "/events", 405),
])
def test_error_answers(srv, method, path, status):
    r = srv.request(method, path)
    assert r.status == status
    assert r.root is not None and r.root.tag == "error"
    assert int(r.root.find("status").text) == status
    assert r.root.find("message").text


def test_too_many_parameters_is_refused(srv):
    r = srv.get("/file_operation/x?" + "&".join(["a=1"] * 300))
    assert r.status == 400


def test_garbage_on_the_socket_does_not_hurt(srv):
    for junk in [b"\x00\x01\x02\r\n\r\n", b"GET\r\n\r\n", b"GET /file_operation/x HTTP/1.1\r\nHost",
                 b"GET /" + b"a" * 300000 + b" HTTP/1.1\r\nHost: x\r\n\r\n"]:
        with socket.create_connection(("127.0.0.1", srv.port), timeout=10) as s:
            try:
                s.sendall(junk)
                s.shutdown(socket.SHUT_WR)
                s.recv(65536)
            except OSError:
                pass
    r = srv.call("no_such_user_command")
    assert r.status == 200 and r.result == 1


def test_each_request_is_logged_with_command_result_and_duration(srv):
    srv.call("no_such_user_command", "x")
    srv.get("/nowhere/x")
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        log = srv.log_text()
        if "/nowhere" in log:
            break
        time.sleep(0.05)
    line = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 127\.0\.0\.1 GET (\S+) result=(\S+) "
                      r"http=(\d+) [\d.]+ms$", re.M)
    seen = {(m.group(1), m.group(2), m.group(3)) for m in line.finditer(log)}
    assert ("no_such_user_command", "1", "200") in seen
    assert ("/nowhere/x", "-", "404") in seen


def test_console_page_is_served(srv):
    r = srv.get("/")
    assert r.status == 200
    assert r.headers["Content-Type"].startswith("text/html")
    assert b"<title>" in r.body and b"/events" in r.body and b"list_user_storage_file" in r.body
    assert srv.get("/index.html").body == r.body


# --- plug-in answers through the server -------------------------------------

@pytest.mark.parametrize("data, encoding", [
    (bytes(range(256)) + b"<&>]]>", "base64"),   # what XML cannot carry
    (b"a < b & c\n", None),                       # text stays readable
])
def test_file_content_encoding(srv, data, encoding):
    (DRIVES / "USB_A").mkdir()
    (DRIVES / "USB_A" / "f").write_bytes(data)
    content = srv.call("read_user_storage_file", str(DRIVES / "USB_A" / "f"), "0", "0").response.find("content")
    assert content.get("encoding") == encoding
    assert (base64.b64decode(content.text) if encoding else content.text.encode()) == data


# --- parallel requests -----------------------------------------------------

def test_stop_ripping_arrives_while_start_ripping_holds_its_thread(fresh_server, fake_bin):
    (DRIVES / "USB_A").mkdir()
    # The ripper double runs until it is told to stop (or 30 s pass).
    make_fake(fake_bin, "cdparanoia", "i=0\nwhile [ ! -e /tmp/kill_paranoia ] && [ $i -lt 300 ]; do\n"
              "  sleep 0.1; i=$((i+1))\ndone\nexit 0\n")
    srv = fresh_server("--threads", "4")
    started = {}

    def rip():
        started["reply"] = srv.call("ripping", "start_ripping", "/USB_A/", "ALL", "true", "false", "WAV",
                                    "Album", timeout=60)

    t = threading.Thread(target=rip)
    t.start()
    time.sleep(1.5)
    assert t.is_alive(), "start_ripping should hold its request until the ripper ends"
    t0 = time.monotonic()
    stop = srv.call("ripping", "StopRipping", timeout=10)
    assert stop.result == 0 and time.monotonic() - t0 < 3
    # Other requests keep flowing too.
    assert srv.call("no_such_user_command").result == 1
    t.join(timeout=20)
    assert not t.is_alive()
    assert started["reply"].result == 0


def test_an_open_event_stream_does_not_hold_up_requests(fresh_server):
    srv = fresh_server("--threads", "1")
    streams = [EventStream(srv) for _ in range(4)]
    try:
        t0 = time.monotonic()
        for _ in range(20):
            assert srv.call("no_such_user_command").status == 200
        assert time.monotonic() - t0 < 5
    finally:
        for s in streams:
            s.close()


# --- progress events -------------------------------------------------------

def test_events_are_relayed_in_order_to_every_client(fresh_server):
    srv = fresh_server()
    assert os.path.exists("/tmp/vtr_framework_pipe")
    a, b = EventStream(srv), EventStream(srv)
    try:
        lines = [progress_line(1, 2, p, p // 2) for p in (0, 50, 100)] + [progress_line(2, 2, 100, 101, "")]
        write_fifo(lines[:2])
        write_fifo(lines[2:])  # the writer reopens the pipe for every event
        for stream in (a, b):
            got = [stream.next_event() for _ in lines]
            assert [d for _, d in got] == lines
            ids = [i for i, _ in got]
            assert ids == sorted(ids) and len(set(ids)) == len(ids)
    finally:
        a.close()
        b.close()


def test_reconnecting_client_resumes_after_last_event_id(fresh_server):
    srv = fresh_server()
    first = EventStream(srv)
    write_fifo([progress_line(1, 3, 10, 5), progress_line(2, 3, 10, 40), progress_line(3, 3, 10, 80)])
    seen = [first.next_event() for _ in range(3)]
    first.close()
    again = EventStream(srv, headers={"Last-Event-ID": str(seen[0][0])})
    try:
        assert [again.next_event() for _ in range(2)] == seen[1:]
    finally:
        again.close()


def test_a_removed_pipe_is_made_again(fresh_server):
    srv = fresh_server()
    stream = EventStream(srv)
    try:
        os.unlink("/tmp/vtr_framework_pipe")
        deadline = time.monotonic() + 5
        while not os.path.exists("/tmp/vtr_framework_pipe") and time.monotonic() < deadline:
            time.sleep(0.1)
        time.sleep(0.1)
        line = progress_line(1, 1, 100, 101, "")
        write_fifo([line])
        assert stream.next_event()[1] == line
    finally:
        stream.close()


def test_a_stalled_client_blocks_neither_the_pipe_nor_other_clients(fresh_server):
    srv = fresh_server()
    stalled = EventStream(srv)   # connected, never reads
    reader = EventStream(srv, timeout=30)
    count = 3000
    lines = [progress_line(i, count, 50, i * 100 // count, "f" * 150) for i in range(1, count + 1)]
    writer = threading.Thread(target=write_fifo, args=(lines,))
    try:
        writer.start()
        writer.join(timeout=20)
        assert not writer.is_alive(), "the pipe reader fell behind a stalled client"
        last = None
        while last != lines[-1]:
            _, last = reader.next_event()
    finally:
        stalled.close()
        reader.close()


def test_progress_of_a_copied_selection_reaches_100(fresh_server):
    src = DRIVES / "USB_A"
    dst = DRIVES / "HDD"
    src.mkdir()
    dst.mkdir()
    (src / "movie.mkv").write_bytes(os.urandom(300000))
    srv = fresh_server()
    stream = EventStream(srv, timeout=60)
    try:
        sel = srv.call("select_user_storage_file_to_list", str(src / "movie.mkv"), "select")
        assert sel.result == 0
        copy = srv.call("copy_user_storage_file_from_list", str(dst))
        assert copy.result == 0
        while True:
            _, data = stream.next_event()
            fields = dict(re.findall(r"<(\w+)>([^<]*)</\1>", data))
            if fields.get("whole") == "101":
                break
        assert fields["event"] == "copy_from_list"
        assert fields["percent"] == "100" and fields["status"] == "0"
        assert (dst / "movie.mkv").read_bytes() == (src / "movie.mkv").read_bytes()
    finally:
        stream.close()


def test_events_unavailable_when_the_pipe_path_is_taken(drives, config, tmp_path):
    os.unlink("/tmp/vtr_framework_pipe") if os.path.exists("/tmp/vtr_framework_pipe") else None
    with open("/tmp/vtr_framework_pipe", "w") as f:
        f.write("not a fifo")
    srv = Server(tmp_path / "s.log")
    try:
        r = srv.get("/events")
        assert r.status == 503 and r.root.tag == "error"
        assert srv.call("no_such_user_command").result == 1
    finally:
        srv.stop()
        os.unlink("/tmp/vtr_framework_pipe")


def wait_until_reading(pid, fifo, seconds=20):
    """Waits until process pid holds fifo open (a writer would otherwise find no reader)."""
    deadline = time.time() + seconds
    while time.time() < deadline:
        try:
            for fd in os.listdir(f"/proc/{pid}/fd"):
                if os.readlink(f"/proc/{pid}/fd/{fd}") == fifo:
                    return
        except OSError:
            pass
        time.sleep(0.05)
    raise AssertionError(f"process {pid} never opened {fifo}")


def test_watch_draws_progress_until_the_end_of_the_batch(drives):
    import subprocess
    from conftest import EMULATOR, VTR_HOST, host_env
    os.mkfifo("/tmp/vtr_framework_pipe")
    watch = subprocess.Popen([*EMULATOR, str(VTR_HOST), "watch", "--until-end"], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, env=host_env(), cwd="/")
    try:
        wait_until_reading(watch.pid, "/tmp/vtr_framework_pipe")
        write_fifo([progress_line(1, 2, 0, 0, "movie.mkv"), progress_line(1, 2, 50, 25, "movie.mkv"),
                    progress_line(2, 2, 100, 101, ""), progress_line(1, 1, 0, 0)])
        out, err = watch.communicate(timeout=10)
    finally:
        if watch.poll() is None:
            watch.kill()
    text = out.decode()
    lines = text.splitlines()
    assert watch.returncode == 0, err
    assert len(lines) == 3, text            # stops at the end event
    assert "1/2 movie.mkv (USB -> HDD)" in lines[1] and "[##########----------]  50%" in lines[1]
    assert "finished 2 item(s), status 0" in lines[2]


# --- the console in a browser ----------------------------------------------

BROWSER_DIR = Path(__file__).resolve().parents[1] / "browser"
CHROMIUM = Path(os.environ.get("CHROMIUM", "/usr/bin/chromium"))


def test_console_in_headless_chromium(fresh_server):
    import shutil
    import subprocess
    node = shutil.which("node")
    if node is None or not CHROMIUM.exists():
        pytest.skip("node or chromium is not installed")
    if not (BROWSER_DIR / "node_modules" / "playwright-core").is_dir():
        pytest.skip("playwright-core is not installed (npm ci in tests/browser)")
    (DRIVES / "USB_A").mkdir()
    (DRIVES / "HDD").mkdir()
    (DRIVES / "USB_A" / "movie.mkv").write_bytes(os.urandom(2_000_000))
    srv = fresh_server()
    assert srv.call("select_user_storage_file_to_list", "", "deselect_all").result == 0
    # With nothing selected the batch only sends its start and end events.
    assert srv.call("copy_user_storage_file_from_list", str(DRIVES / "HDD")).result == 0
    info = srv.call("get_user_storage_file_info", str(DRIVES / "USB_A" / "movie.mkv")).result
    time.sleep(0.5)
    env = dict(os.environ, CHROMIUM=str(CHROMIUM), CHECK_INFO="1" if info == 0 else "0", HOME="/tmp")
    run = subprocess.run([node, str(BROWSER_DIR / "console_test.mjs"), f"http://127.0.0.1:{srv.port}/",
                          "USB_A", "movie.mkv", "HDD"], capture_output=True, text=True, timeout=180,
                         cwd=BROWSER_DIR, env=env)
    print(run.stdout)
    assert run.returncode == 0, run.stdout + run.stderr
    assert (DRIVES / "HDD" / "movie.mkv").read_bytes() == (DRIVES / "USB_A" / "movie.mkv").read_bytes()


@pytest.mark.parametrize("args, code, message", [
    (["--port", "70000"], 2, "bad port"),
    (["--threads", "0"], 2, "bad thread count"),
    (["--bind", "localhost"], 2, "numeric IPv4 or IPv6"),
    (["--frobnicate"], 2, "unknown or incomplete option"),
    (["--port"], 2, "unknown or incomplete option"),
    (["--plugin", "/nonexistent/lib.so", "--port", "0"], 1, "cannot load"),
])
def test_bad_options_are_refused(drives, args, code, message):
    import subprocess
    run = subprocess.run([str(CMDSERVER), *args], capture_output=True, timeout=30, cwd="/")
    assert run.returncode == code
    assert message in run.stderr.decode()


def test_ipv6_loopback(fresh_server):
    try:
        with socket.socket(socket.AF_INET6) as probe:
            probe.bind(("::1", 0))
    except (OSError, AttributeError):
        pytest.skip("no IPv6 loopback")
    srv = fresh_server("--bind", "::1")
    assert srv.address == "::1" and srv.call("no_such_user_command").status == 200
