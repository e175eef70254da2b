"""Video hash, subtitles, download status and downloads, with an HTTP server on loopback as the metadata server and
doubles of wget and gunzip that record their argument vectors."""
import gzip
import http.server
import os
import random
import socket
import stat
import struct
import threading
import types
from pathlib import Path

import pytest

from conftest import DRIVES, make_fake, mount

BLOCK = 65536
GIB = 1 << 30


def words_from(path, offset):  # sum of the whole little-endian words of at most 64 KiB from offset
    with open(path, "rb") as f:
        f.seek(offset)
        data = f.read(BLOCK)
    return sum(struct.unpack(f"<{len(data) // 8}Q", data[: len(data) // 8 * 8]))


def test_hash(host, config):
    # The tail: a signed 32-bit seek to (size - 65536) mod 2^32; a failed one reads on after the head (table: unit).
    path = DRIVES / "film.bin"
    for size in [7, 100000, 2 * GIB + 100, 4 * GIB + 12345]:  # partial words are ignored
        rnd = random.Random(size)
        with open(path, "wb") as f:  # sparse beyond the blocks a hash could read
            f.truncate(size)
            for spot in sorted({0, BLOCK, size - BLOCK, (size - BLOCK) % (1 << 32)}):
                if 0 <= spot < size:
                    f.seek(spot)
                    f.write(rnd.randbytes(min(BLOCK, size - spot)))
        offset = ((size & 0xFFFFFFFF) - BLOCK) & 0xFFFFFFFF
        tail = offset if offset < 0x80000000 else min(size, BLOCK)
        expected = (size + words_from(path, 0) + words_from(path, tail)) % (1 << 64)
        a = host.run("calculate_user_storage_file_hash", str(path))
        assert (a.result, a.tree.tags, a.tree.text_of("hash")) == (0, ["hash"], format(expected, "x").encode()), size
    share = config.share(0, "Public", "smb://nas/public")
    os.mkfifo(share / "fifo")  # never waited on
    for path, code, text in [("smb://nas/public/fifo", 0, b"0"), (str(DRIVES), 0, b"0"),
                             ("smb://elsewhere/x/v.bin", 8, None), (str(DRIVES / "none.bin"), 11, None)]:
        assert ((a := host.run("calculate_user_storage_file_hash", path)).result, a.tree.text_of("hash")) == (code, text)


def subtitles(host, video, code=0):
    a = host.run("search_user_storage_subtitle", str(video))
    assert a.result == code
    return [c.text.decode() for c in a.tree.find("subtitles").children] if not code else a.tree.children


def test_subtitles(host, config):
    usb = DRIVES / "USB"
    (usb / "DVD1").mkdir(parents=True)
    (usb / "dir.x").mkdir()
    for name in "film.sub film.srt film.smi film.ssa film.idx film.ass film.txt film.2.srt DVD1.sub caps.SRT dir.x/noext.idx".split():
        (usb / name).write_text("x")
    (config.share(0, "Movies", "smb://nas/movies") / "film.srt").write_text("x")
    for video, want in [("film.mkv", [f"{usb}/film.{e}" for e in ["ass", "idx", "ssa", "smi", "srt", "sub"]]),
                        ("film.2.avi", [f"{usb}/film.2.srt"]), ("DVD1", [f"{usb}/DVD1.sub"]), ("caps.MKV", [""]),  # lower case only
                        ("dir.x/noext", [f"{usb}/dir.x/noext.idx"])]:
        assert subtitles(host, usb / video) == want, video
    assert subtitles(host, "smb://nas/movies/film.avi") == [f"{DRIVES}/NETWORK_SHARE/Movies/film.srt"]
    assert subtitles(host, "nfs://unknown/share/film.avi", 8) == []
    folder = DRIVES / ("d" * 200) / ("e" * 200)
    folder.mkdir(parents=True)
    stem = f"{folder}/" + "f" * (507 - len(str(folder)) - 1)
    Path(stem + ".srt").write_text("x")
    assert subtitles(host, stem + ".mkv") == [stem + ".srt"]  # 511 characters
    assert subtitles(host, stem + ".mkvx", 8) == []


@pytest.fixture
def server(config):
    """The metadata server: fixed bodies by full path (query included), every request recorded."""
    files, requests = {"/vtrdb/main.php": b"ok"}, []

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self, body=True):
            requests.append((self.command, self.path))
            if self.path not in files:
                return self.send_error(404)
            self.send_response(200)
            self.send_header("Content-Length", str(len(files[self.path])))
            self.end_headers()
            self.wfile.write(files[self.path] if body else b"")
        do_HEAD, log_message = lambda self: self.do_GET(body=False), lambda *args: None

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as httpd:
        threading.Thread(target=httpd.serve_forever, daemon=True).start()
        config["vtrdb_host"] = f"127.0.0.1:{httpd.server_address[1]}"
        yield types.SimpleNamespace(files=files, requests=requests, base="http://" + config["vtrdb_host"])
        httpd.shutdown()


def closed_port_host():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return f"127.0.0.1:{s.getsockname()[1]}"


def test_download_status(host, server, config):
    ok, small, ro = (DRIVES / n for n in ("HDD", "small", "ro"))
    ok.mkdir() or mount(small, "-t", "tmpfs", "-o", "size=1024k", "x") or mount(ro, "ro")
    config.share(0, "Public", "smb://nas/public")
    for folder, code in [(ok, 0), (small, 22), (ro, 60), (DRIVES / "none", 60), ("smb://nas/public", 0),
                         ("smb://nas/other", 11)]:
        assert ((a := host.run("verify_user_storage_download_status", str(folder))).result, a.tree.children) == (code, [])
    assert ("HEAD", "/vtrdb/main.php") in server.requests and list(ok.iterdir()) == []  # the probe is removed
    config["vtrdb_host"] = closed_port_host()
    assert host.run("verify_user_storage_download_status", str(ok)).result == 61


def test_downloads_and_failures(host, server):
    folder = DRIVES / "HDD" / "Movies"
    [(folder / d).mkdir(parents=True) for d in ("Movie", "x.d")]
    (folder / "old.jpg").write_text("x")
    art, text = b"\x89PNG" + bytes(range(256)) * 40, b"1\n00:00:01,000 --> 00:00:02,000\nhi\n"
    query = "/vtrdb/main.php?arg0=get_subtitle&id=9&f=x.gz"
    server.files.update({"/1.jpg": art, "/a.srt.gz": gzip.compress(text), "/b.SRT.GZ": gzip.compress(text),
                         query: gzip.compress(text), "/empty.jpg": b"", "/bad.gz": b"not gzip"})
    for (address, *rest), name, content in [  # (address, name[, extension]), stored name, content
            (("/1.jpg", "poster.jpg"), "poster.jpg", art), (("/1.jpg", "poster.jpg", "png"), "poster.png", art),
            (("/1.jpg", "poster.jpg", "png"), "poster.png", art),  # replaced
            (("/1.jpg", "Movie", "jpg"), "Movie.jpg", art),  # a folder keeps its name
            (("/1.jpg", "cover", "jpg", "extra"), "cover.jpg", art), (("/a.srt.gz", "film.srt"), "film.srt", text),
            (("/b.SRT.GZ", "film.avi", "srt"), "film.srt", text),
            ((query, "remote.srt.gz"), "remote.srt.gz", server.files[query])]:  # kept packed
        a = host.run("download_user_storage_file", str(folder), server.base + address, *rest)
        assert a.result == 0 and a.tree.text_of("path") == f"{folder}/{name}".encode(), a
        assert stat.S_IMODE((folder / name).stat().st_mode) == 0o777 and (folder / name).read_bytes() == content
    before = sorted(folder.iterdir())
    for (where, address, *rest), code in [
            ((folder, "/missing.jpg", "m.jpg"), 12), ((folder, "/empty.jpg", "e.jpg"), 12),
            ((folder, "/missing.gz", "g.txt"), 12), ((folder, "/1.jpg", "old.jpg"), 11),
            ((folder, "undefined", "u.jpg"), 11), (("smb://nas/none", "/1.jpg", "s.jpg"), 11),
            ((folder, "/1.jpg", "x.jpg", "d"), 402),  # the final name is a folder
            ((folder, "/bad.gz", "b.txt"), 402),  # unpacking failed
            ((folder / ("n" * 4080), "/1.jpg", "long.jpg"), 11), ((folder, "--post-file=/etc/passwd", "p.jpg"), 11),
            (("-rf", "/1.jpg", "p.jpg"), 11), ((folder, f"//{closed_port_host()}/x.jpg", "x.jpg"), 12)]:
        url = address if address in ("undefined", "--post-file=/etc/passwd") else server.base + address
        url = "http:" + address if address.startswith("//") else url
        assert ((a := host.run("download_user_storage_file", str(where), url, *rest)).result, a.tree.children) == (code, [])
    assert sorted(folder.iterdir()) == before
    assert host.run("download_user_storage_file", str(folder), server.base + "/1.jpg").result == 1


def test_wget_and_gunzip_get_their_arguments_without_a_shell(host, fake_bin):
    log = fake_bin / "log"
    make_fake(fake_bin, "wget", f'printf "%s\\n" "$@" >> {log}; [ -n "$7" ] && printf payload > "$6"; exit 4\n')
    make_fake(fake_bin, "gunzip", f'printf "%s\\n" "$@" >> {log}; mv "$2" "${{2%???}}"\n')
    folder = DRIVES / "odd $(touch pwned) `x` 100%%"
    folder.mkdir()
    address = "http://example.invalid/a b;$(touch pwned2).GZ"
    a = host.run("download_user_storage_file", str(folder), address, "name.srt")
    assert (a.result, (folder / "name.srt").read_bytes()) == (0, b"payload")
    work = f"{folder}/name.srt_tmp.GZ"
    assert log.read_text().splitlines() == ["-c", "-T", "20", "--no-check-certificate", "-xqO", work, address,
                                            "-d", work]
    assert not Path("/pwned").exists() and not Path("/pwned2").exists()
    log.unlink()  # the default server (a configured one: test_download_status)
    assert host.run("verify_user_storage_download_status", str(folder)).result == 61
    assert log.read_text().splitlines() == ["http://vtrdb.local/vtrdb/main.php", "-t1", "-T20", "--spider"]
