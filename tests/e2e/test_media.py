"""Video hash, subtitle search, download status and downloads through the
reference host, with a real HTTP server on loopback as the metadata server."""
import gzip
import http.server
import os
import random
import socket
import stat
import struct
import subprocess
import threading
from pathlib import Path

import pytest

from conftest import DRIVES, make_fake

BLOCK = 65536


def published_hash(path):
    """The movie hash as its publishers describe it: size plus the 8192
    words at the start and the 8192 words at the end of the file."""
    size, h = os.path.getsize(path), os.path.getsize(path)
    with open(path, "rb") as f:
        for offset in (0, size - BLOCK):
            f.seek(offset)
            h += sum(struct.unpack("<8192Q", f.read(BLOCK)))
    return h % (1 << 64)


def words_from(path, offset):
    """Sum of the whole little-endian words of at most 64 KiB from offset."""
    with open(path, "rb") as f:
        f.seek(offset)
        data = f.read(BLOCK)
    return sum(struct.unpack(f"<{len(data) // 8}Q", data[: len(data) // 8 * 8]))


def player_hash(path, size):
    """The player's rule: the tail is found by a signed 32-bit seek to the low
    32 bits of the size less 65536; a failed seek leaves the stream where
    the head ended."""
    offset = ((size & 0xFFFFFFFF) - BLOCK) & 0xFFFFFFFF
    tail = offset if offset < 0x80000000 else min(size, BLOCK)
    return (size + words_from(path, 0) + words_from(path, tail)) % (1 << 64)


GIB = 1 << 30


@pytest.mark.parametrize("size", [0, 7, 8, 50001, 65535, 65536, 100000, 131075, (1 << 20) + 5,
                                  2 * GIB + 100, 2 * GIB + BLOCK, 3 * GIB, 4 * GIB + 12345, 5 * GIB])
def test_hash(host, size):
    path = DRIVES / "film.bin"
    rnd = random.Random(size)
    with open(path, "wb") as f:  # sparse beyond the blocks a hash could read
        f.truncate(size)
        for spot in sorted({0, BLOCK, size - BLOCK, (size - BLOCK) % (1 << 32)}):
            if 0 <= spot < size:
                f.seek(spot)
                f.write(rnd.randbytes(min(BLOCK, size - spot)))
    a = host.run("calculate_user_storage_file_hash", str(path))
    assert a.result == 0 and a.tree.tags == ["hash"]
    expected = player_hash(path, size)
    if BLOCK <= size < 2 * GIB + BLOCK:
        assert expected == published_hash(path)
    elif size > 2 * GIB:
        assert expected != published_hash(path)
    assert a.tree.text_of("hash") == format(expected, "x").encode()
    path.unlink()


def test_hash_small_cases_folders_urls_and_missing_paths(host, config):
    share = config.share(0, "Public", "smb://nas/public")
    (share / "v.bin").write_bytes(bytes([1] + [0] * 7 + [2] + [0] * 7))
    (share / "w.bin").write_bytes(b"\xff" * 8 + b"\x01" + b"\x00" * 8)  # 17 - 1 + 1, partial word ignored
    os.mkfifo(share / "fifo")  # never waited on
    cases = [("smb://nas/public/v.bin", 0, b"13"), ("smb://nas/public/w.bin", 0, b"11"),
             ("smb://nas/public/fifo", 0, b"0"),
             (str(DRIVES), 0, b"0"), ("smb://nas/public", 0, b"0"),
             ("smb://elsewhere/x/v.bin", 8, None), (str(DRIVES / "none.bin"), 11, None)]
    for path, code, text in cases:
        a = host.run("calculate_user_storage_file_hash", path)
        assert (a.result, a.tree.text_of("hash")) == (code, text), path


def subtitles(host, video, code=0):
    a = host.run("search_user_storage_subtitle", str(video))
    assert a.result == code
    if code:
        return a.tree.children
    assert a.tree.tags == ["subtitles"] and set(a.tree.find("subtitles").tags) == {"subtitle"}
    return [c.text.decode() for c in a.tree.find("subtitles").children]


def test_subtitles(host, config):
    usb = DRIVES / "USB"
    for name in ["film.sub", "film.srt", "film.smi", "film.ssa", "film.idx", "film.ass", "film.txt",
                 "film.2.srt", "DVD1.sub", "caps.SRT", "plain.srt", "dir.x/noext.idx", "DVD1/"]:
        (usb / name).parent.mkdir(parents=True, exist_ok=True)
        (usb / name).mkdir() if name.endswith("/") else (usb / name).write_text("x")
    share = config.share(0, "Movies", "smb://nas/movies")
    (share / "film.srt").write_text("x")
    cases = [("film.mkv", ["ass", "idx", "ssa", "smi", "srt", "sub"]), ("film.2.avi", ["2.srt"])]
    for video, found in cases:  # the video itself need not exist
        assert subtitles(host, usb / video) == [f"{usb}/{video.rsplit('.', 1)[0]}.{e.split('.')[-1]}"
                                                for e in found]
    assert subtitles(host, usb / "DVD1") == [f"{usb}/DVD1.sub"]
    assert subtitles(host, usb / "caps.MKV") == [""]   # lower-case extensions only
    assert subtitles(host, usb / "plain") == [f"{usb}/plain.srt"]
    assert subtitles(host, usb / "dir.x" / "noext") == [f"{usb}/dir.x/noext.idx"]
    assert subtitles(host, "smb://nas/movies/film.avi") == [f"{share}/film.srt"]
    assert subtitles(host, "nfs://unknown/share/film.avi", 8) == []
    folder = DRIVES / ("d" * 200) / ("e" * 200)
    folder.mkdir(parents=True)
    stem = f"{folder}/" + "f" * (507 - len(str(folder)) - 1)
    Path(stem + ".srt").write_text("x")
    assert subtitles(host, stem + ".mkv") == [stem + ".srt"]   # 511 characters
    assert subtitles(host, stem + ".mkvx", 8) == []


class Server:
    """A threaded HTTP server on loopback serving fixed bodies by full path
    (query included), recording every request."""

    def __init__(self):
        self.files, self.requests = {"/vtrdb/main.php": b"ok"}, []
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self, body=True):
                server.requests.append((self.command, self.path))
                data = server.files.get(self.path)
                if data is None:
                    return self.send_error(404)
                self.send_response(200)
                self.send_header("Content-Length", str(len(data)))
                self.end_headers()
                if body:
                    self.wfile.write(data)

            def do_HEAD(self):
                self.do_GET(body=False)

            def log_message(self, *args):
                pass

        self.httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.base = f"http://127.0.0.1:{self.httpd.server_address[1]}"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()


@pytest.fixture
def server(config):
    s = Server()
    config["vtrdb_host"] = s.base[len("http://"):]
    yield s
    s.httpd.shutdown()
    s.httpd.server_close()


def closed_port_host():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return f"127.0.0.1:{s.getsockname()[1]}"


def test_download_status(host, server, config):
    ok, small, roomy, ro = (DRIVES / n for n in ("HDD", "small", "roomy", "ro"))
    for d in (ok, small, roomy, ro):
        d.mkdir()
    for args in (["-t", "tmpfs", "-o", "size=1024k", "x", small], ["-t", "tmpfs", "-o", "size=1032k", "x", roomy],
                 ["--bind", ro, ro], ["-o", "remount,bind,ro", ro]):  # unmounted by the drives fixture
        subprocess.run(["mount", *map(str, args)], check=True)
    config.share(0, "Public", "smb://nas/public")
    cases = [(ok, 0), (small, 22), (roomy, 0), (ro, 60), (DRIVES / "none", 60),
             ("smb://nas/public", 0), ("smb://nas/other", 11)]
    for folder, code in cases:
        a = host.run("verify_user_storage_download_status", str(folder))
        assert (a.result, a.tree.children) == (code, []), folder
    assert ("HEAD", "/vtrdb/main.php") in server.requests
    assert list(ok.iterdir()) == []  # the permission probe is removed
    config["vtrdb_host"] = closed_port_host()
    assert host.run("verify_user_storage_download_status", str(ok)).result == 61


def download(host, *args):
    return host.run("download_user_storage_file", *map(str, args))


def test_downloads(host, server):
    folder = DRIVES / "HDD" / "Movies"
    (folder / "Movie").mkdir(parents=True)
    video = DRIVES / "HDD" / "pvx_database" / "media" / "video"
    video.mkdir(parents=True)
    art, text = b"\x89PNG" + bytes(range(256)) * 40, b"1\n00:00:01,000 --> 00:00:02,000\nhi\n"
    query = "/vtrdb/main.php?arg0=get_subtitle&id=9&f=x.gz"
    server.files.update({"/1.jpg": art, "/a.srt.gz": gzip.compress(text), "/b.SRT.GZ": gzip.compress(text),
                         query: gzip.compress(text)})
    cases = [  # (folder, address, name[, extension]), stored name, content
        ((folder, "/1.jpg", "poster.jpg"), "poster.jpg", art),
        ((folder, "/1.jpg", "poster.jpg", "png"), "poster.png", art),
        ((folder, "/1.jpg", "poster.jpg", "png"), "poster.png", art),  # replaced
        ((folder, "/1.jpg", "Movie", "jpg"), "Movie.jpg", art),         # a folder keeps its name
        ((folder, "/1.jpg", "cover", "jpg", "extra"), "cover.jpg", art),
        ((video, "/1.jpg", "Film.2020", "jpg"), "Film.2020.jpg", art),
        ((folder, "/a.srt.gz", "film.srt"), "film.srt", text),
        ((folder, "/b.SRT.GZ", "film.avi", "srt"), "film.srt", text),
        ((folder, query, "remote.srt.gz"), "remote.srt.gz", server.files[query]),  # kept packed
    ]
    for (where, address, *rest), name, content in cases:
        a = download(host, where, server.base + address, *rest)
        assert a.result == 0 and a.tree.text_of("path") == f"{where}/{name}".encode(), a
        assert stat.S_IMODE((where / name).stat().st_mode) == 0o777
        assert (where / name).read_bytes() == content
    assert ("GET", query) in server.requests
    assert [p for p in folder.iterdir() if "_tmp" in p.name] == []


def test_download_failures(host, server, config):
    folder = DRIVES / "HDD"
    (folder / "x.d").mkdir(parents=True)
    (folder / "x.d" / "keep").write_text("x")
    (folder / "old.jpg").write_text("x")
    server.files.update({"/empty.jpg": b"", "/bad.gz": b"not gzip", "/ok.jpg": b"data"})
    cases = [
        ((folder, "/missing.jpg", "m.jpg"), 12), ((folder, "/empty.jpg", "e.jpg"), 12),
        ((folder, "/missing.gz", "g.txt"), 12), ((folder, "/ok.jpg", "old.jpg"), 11),
        ((folder, "undefined", "u.jpg"), 11), (("smb://nas/none", "/ok.jpg", "s.jpg"), 11),
        ((folder, "/ok.jpg", "x.jpg", "d"), 402),  # the final name is a folder
        ((folder, "/bad.gz", "b.txt"), 402),       # unpacking failed
        ((folder / ("n" * 4080), "/ok.jpg", "long.jpg"), 11),
    ]
    for (where, address, *rest), code in cases:
        a = download(host, where, address if address == "undefined" else server.base + address, *rest)
        assert (a.result, a.tree.children) == (code, []), address
    assert sorted(p.name for p in folder.iterdir()) == ["old.jpg", "x.d"]
    assert download(host, folder, f"http://{closed_port_host()}/x.jpg", "x.jpg").result == 12
    assert download(host, folder, "--post-file=/etc/passwd", "p.jpg").result == 11
    assert download(host, "-rf", server.base + "/ok.jpg", "p.jpg").result == 11
    assert host.run("download_user_storage_file", str(folder), server.base + "/ok.jpg").result == 1


def test_wget_and_gunzip_get_their_arguments_without_a_shell(host, config, fake_bin):
    log = fake_bin / "log"
    make_fake(fake_bin, "wget", f'printf "%s\\n" "$@" >> {log}; [ -n "$7" ] && printf payload > "$6"; exit 4\n')
    make_fake(fake_bin, "gunzip", f'printf "%s\\n" "$@" >> {log}; mv "$2" "${{2%???}}"\n')
    folder = DRIVES / "odd $(touch pwned) `x` 100%%"
    folder.mkdir()
    address = "http://example.invalid/a b;$(touch pwned2).GZ"
    a = download(host, folder, address, "name.srt")
    assert (a.result, (folder / "name.srt").read_bytes()) == (0, b"payload")
    work = f"{folder}/name.srt_tmp.GZ"
    assert log.read_text().splitlines() == ["-c", "-T", "20", "--no-check-certificate", "-xqO", work, address,
                                            "-d", work]
    assert not Path("/pwned").exists() and not Path("/pwned2").exists()
    for host_setting, url in (("meta.example:8080", "http://meta.example:8080"), (None, "http://vtrdb.local")):
        log.unlink()
        config.values.pop("vtrdb_host", None)
        config.update({"vtrdb_host": host_setting} if host_setting else {})
        assert host.run("verify_user_storage_download_status", str(folder)).result == 61
        assert log.read_text().splitlines() == [url + "/vtrdb/main.php", "-t1", "-T20", "--spider"]
