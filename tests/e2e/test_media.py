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

MASK = (1 << 64) - 1
BLOCK = 65536


# --- hash -------------------------------------------------------------------

def published_hash(path):
    """The movie hash as its publishers describe it: size plus the 8192 words
    at the start and the 8192 words at the end of the file."""
    size = os.path.getsize(path)
    h = size
    with open(path, "rb") as f:
        for offset in (0, max(0, size - BLOCK)):
            f.seek(offset)
            for _ in range(BLOCK // 8):
                (word,) = struct.unpack("<Q", f.read(8))
                h = (h + word) & MASK
    return h


def words_from(path, offset):
    """Sum of the whole little-endian words of at most 64 KiB from offset."""
    with open(path, "rb") as f:
        f.seek(offset)
        data = f.read(BLOCK)
    data = data[: len(data) // 8 * 8]
    return sum(struct.unpack(f"<{len(data) // 8}Q", data)) if data else 0


def tail_rule(size):
    """Where the player's tail block starts: a 32-bit signed seek to the low
    32 bits of the size less 65536; a failed seek leaves the stream where the
    head ended."""
    offset = ((size & 0xFFFFFFFF) - BLOCK) & 0xFFFFFFFF
    if offset < 0x80000000:
        return offset
    return min(size, BLOCK)


def hash_of(host, path):
    a = host.run("calculate_user_storage_file_hash", str(path))
    assert a.result == 0 and a.tree.tags == ["hash"], a
    return a.tree.text_of("hash").decode()


@pytest.mark.parametrize("size", [65536, 65537, 100000, 131072, 131075, 1 << 20, (1 << 20) + 5])
def test_hash_matches_the_published_algorithm(host, size):
    path = DRIVES / "film.bin"
    path.write_bytes(random.Random(size).randbytes(size))
    assert hash_of(host, path) == format(published_hash(path), "x")


@pytest.mark.parametrize("content, expected", [
    (b"", "0"),
    (b"1234567", "7"),
    (bytes([1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0]), "13"),
    (b"\xff" * 8 + b"\x01\x00\x00\x00\x00\x00\x00\x00" * 3, "22"),  # modulo 2^64: 32 - 1 + 3 = 34
])
def test_hash_of_short_files_counts_whole_words_once(host, content, expected):
    path = DRIVES / "short.bin"
    path.write_bytes(content)
    assert hash_of(host, path) == expected


def test_hash_of_a_file_under_64_kib(host):
    path = DRIVES / "clip.bin"
    path.write_bytes(random.Random(7).randbytes(50001))
    assert hash_of(host, path) == format((50001 + words_from(path, 0)) & MASK, "x")


def sparse_file(path, size):
    """A sparse file with distinct data at the head, the second block, the
    true tail and every 64 KiB-aligned spot a wrapped seek could land on."""
    rnd = random.Random(size)
    with open(path, "wb") as f:
        f.truncate(size)
        spots = [0, BLOCK, size - BLOCK, tail_rule(size)]
        for spot in spots:
            f.seek(spot)
            f.write(rnd.randbytes(BLOCK))


@pytest.mark.parametrize("size, tail_from", [
    (3 << 30, BLOCK),                          # 2 GiB to 4 GiB: the second block
    ((2 << 30) + BLOCK, BLOCK),                # first size whose seek fails
    ((2 << 30) + 100, (2 << 30) + 100 - BLOCK),  # still a true tail
    ((4 << 30) + 12345, BLOCK),                # low 32 bits under 64 KiB: fails
    (5 << 30, (1 << 30) - BLOCK),              # wraps: 64 KiB before 1 GiB
])
def test_hash_of_big_sparse_files_follows_the_32_bit_seek(host, size, tail_from):
    path = DRIVES / "big.bin"
    sparse_file(path, size)
    assert tail_rule(size) == tail_from
    expected = (size + words_from(path, 0) + words_from(path, tail_from)) & MASK
    got = hash_of(host, path)
    assert got == format(expected, "x")
    if tail_from != size - BLOCK:
        assert got != format(published_hash(path), "x")
    path.unlink()


def test_hash_answers_for_folders_urls_and_missing_paths(host, config):
    share = config.share(0, "Public", "smb://nas/public")
    (share / "v.bin").write_bytes(b"\x05" + b"\x00" * 7)
    assert hash_of(host, "smb://nas/public/v.bin") == "d"
    assert hash_of(host, DRIVES) == "0"
    assert hash_of(host, "smb://nas/public") == "0"
    cases = [("smb://elsewhere/x/v.bin", 8), (str(DRIVES / "none.bin"), 11)]
    for path, code in cases:
        a = host.run("calculate_user_storage_file_hash", path)
        assert (a.result, a.tree.children) == (code, []), path
    assert host.run("calculate_user_storage_file_hash").result == 1
    assert host.run("calculate_user_storage_file_hash", "a", "b").result == 1


# --- subtitles --------------------------------------------------------------

def subtitles(host, video):
    a = host.run("search_user_storage_subtitle", str(video))
    assert a.result == 0 and a.tree.tags == ["subtitles"], a
    found = a.tree.find("subtitles")
    assert set(found.tags) == {"subtitle"}
    return [c.text.decode() for c in found.children]


def test_subtitles_in_extension_order(host):
    folder = DRIVES / "USB" / "a"
    folder.mkdir(parents=True)
    for ext in ["sub", "srt", "smi", "ssa", "idx", "ass", "SRT", "txt"]:
        (folder / f"film.{ext}").write_text("x")
    (folder / "film.2.srt").write_text("x")
    order = ["ass", "idx", "ssa", "smi", "srt", "sub"]
    assert subtitles(host, folder / "film.mkv") == [f"{folder}/film.{e}" for e in order]
    # The video need not exist; the stem ends at the name's last ".".
    assert subtitles(host, folder / "film.2.avi") == [f"{folder}/film.2.srt"]


def test_subtitle_stems_and_case(host):
    usb = DRIVES / "USB"
    (usb / "DVD1").mkdir(parents=True)
    (usb / "DVD1.sub").write_text("x")
    (usb / "film.SRT").write_text("x")
    (usb / "plain.srt").write_text("x")
    (usb / "dir.x").mkdir()
    (usb / "dir.x" / "noext.idx").write_text("x")
    assert subtitles(host, usb / "DVD1") == [f"{usb}/DVD1.sub"]
    assert subtitles(host, usb / "film.MKV") == [""]        # upper-case extension not looked for
    assert subtitles(host, usb / "plain") == [f"{usb}/plain.srt"]
    assert subtitles(host, usb / "dir.x" / "noext") == [f"{usb}/dir.x/noext.idx"]
    assert subtitles(host, usb / "none.mkv") == [""]


def test_subtitles_of_a_share_are_local_paths(host, config):
    share = config.share(0, "Movies", "smb://nas/movies")
    (share / "film.srt").write_text("x")
    assert subtitles(host, "smb://nas/movies/film.avi") == [f"{share}/film.srt"]
    a = host.run("search_user_storage_subtitle", "nfs://unknown/share/film.avi")
    assert (a.result, a.tree.children) == (8, [])


def test_subtitle_paths_of_512_characters_or_more_are_refused(host):
    folder = DRIVES / ("d" * 200) / ("e" * 200)
    folder.mkdir(parents=True)
    base = str(folder) + "/"
    name = "f" * (511 - len(base) - 4)
    video = base + name + ".mkv"
    assert len(video) == 511
    Path(base + name + ".srt").write_text("x")
    assert subtitles(host, video) == [base + name + ".srt"]
    a = host.run("search_user_storage_subtitle", video + "x")
    assert (a.result, a.tree.children) == (8, [])


# --- metadata server ----------------------------------------------------------

class Server:
    """A threaded HTTP server on loopback serving fixed bodies by full path
    (query included), recording every request line."""

    def __init__(self):
        self.files = {"/vtrdb/main.php": b"ok"}
        self.requests = []
        files, requests = self.files, self.requests

        class Handler(http.server.BaseHTTPRequestHandler):
            def send(self, with_body):
                requests.append((self.command, self.path))
                body = files.get(self.path)
                if body is None:
                    self.send_error(404)
                    return
                self.send_response(200)
                self.send_header("Content-Type", "application/octet-stream")
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                if with_body:
                    self.wfile.write(body)

            def do_GET(self):
                self.send(True)

            def do_HEAD(self):
                self.send(False)

            def log_message(self, *args):
                pass

        self.httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.port = self.httpd.server_address[1]
        self.base = f"http://127.0.0.1:{self.port}"
        self.thread = threading.Thread(target=self.httpd.serve_forever, daemon=True)
        self.thread.start()

    def close(self):
        self.httpd.shutdown()
        self.httpd.server_close()


@pytest.fixture
def server(config):
    s = Server()
    config["vtrdb_host"] = f"127.0.0.1:{s.port}"
    yield s
    s.close()


def closed_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@pytest.fixture
def mounts():
    made = []

    def mount(*args):
        subprocess.run(["mount", *args], check=True)
        made.append(args[-1])

    yield mount
    for point in reversed(made):
        subprocess.run(["umount", "-l", point], check=False)


def test_download_status(host, server, config, mounts):
    ok = DRIVES / "HDD"
    ok.mkdir()
    assert host.run("verify_user_storage_download_status", str(ok)).result == 0
    assert ("HEAD", "/vtrdb/main.php") in server.requests
    assert list(ok.iterdir()) == []          # the permission probe is removed

    small, roomy, ro = DRIVES / "small", DRIVES / "roomy", DRIVES / "ro"
    for d in (small, roomy, ro):
        d.mkdir()
    mounts("-t", "tmpfs", "-o", "size=1024k", "small", str(small))
    mounts("-t", "tmpfs", "-o", "size=1032k", "roomy", str(roomy))
    mounts("--bind", str(ro), str(ro))
    mounts("-o", "remount,bind,ro", str(ro))
    config.share(0, "Public", "smb://nas/public")
    cases = [
        (str(small), 22), (str(roomy), 0), (str(ro), 60), (str(DRIVES / "none"), 60),
        ("smb://nas/public", 0), ("smb://nas/other", 11),
    ]
    for folder, code in cases:
        a = host.run("verify_user_storage_download_status", folder)
        assert (a.result, a.tree.children) == (code, []), folder

    config["vtrdb_host"] = f"127.0.0.1:{closed_port()}"
    assert host.run("verify_user_storage_download_status", str(ok)).result == 61
    assert host.run("verify_user_storage_download_status", str(small)).result == 22


def download(host, *args):
    return host.run("download_user_storage_file", *[str(a) for a in args])


def stored(answer, path):
    assert answer.result == 0 and answer.tree.tags == ["path"], answer
    assert answer.tree.text_of("path").decode() == str(path)
    assert stat.S_IMODE(path.stat().st_mode) == 0o777
    return path.read_bytes()


def leftovers(folder):
    return sorted(p.name for p in folder.iterdir() if "_tmp" in p.name)


def test_downloads_store_and_unpack(host, server):
    folder = DRIVES / "HDD" / "Movies"
    (folder / "Movie").mkdir(parents=True)
    art, text = b"\x89PNG" + bytes(range(256)) * 40, b"1\n00:00:01,000 --> 00:00:02,000\nhi\n"
    packed = gzip.compress(text)
    server.files.update({"/art/1.jpg": art, "/sub/a.srt.gz": packed, "/sub/b.SRT.GZ": packed,
                         "/vtrdb/main.php?arg0=get_subtitle&id=9&f=x.gz": packed})

    assert stored(download(host, folder, f"{server.base}/art/1.jpg", "poster.jpg"), folder / "poster.jpg") == art
    # A plain name never replaces an existing file.
    a = download(host, folder, f"{server.base}/art/1.jpg", "poster.jpg")
    assert (a.result, a.tree.children) == (11, [])
    # With an extension: replaced, or appended to a folder's name.
    assert stored(download(host, folder, f"{server.base}/art/1.jpg", "poster.jpg", "png"), folder / "poster.png") == art
    assert stored(download(host, folder, f"{server.base}/art/1.jpg", "poster.jpg", "png"), folder / "poster.png") == art
    assert stored(download(host, folder, f"{server.base}/art/1.jpg", "Movie", "jpg"), folder / "Movie.jpg") == art
    assert stored(download(host, folder, f"{server.base}/art/1.jpg", "cover", "jpg", "extra"), folder / "cover.jpg") == art
    # ".gz" in any case is unpacked; the server's subtitle queries are not.
    assert stored(download(host, folder, f"{server.base}/sub/a.srt.gz", "film.srt"), folder / "film.srt") == text
    assert stored(download(host, folder, f"{server.base}/sub/b.SRT.GZ", "film.avi", "srt"), folder / "film.srt") == text
    query = f"{server.base}/vtrdb/main.php?arg0=get_subtitle&id=9&f=x.gz"
    assert stored(download(host, folder, query, "remote.srt.gz"), folder / "remote.srt.gz") == packed
    assert ("GET", "/vtrdb/main.php?arg0=get_subtitle&id=9&f=x.gz") in server.requests
    assert leftovers(folder) == []


def test_media_database_video_folders_take_the_name_whole(host, server):
    video = DRIVES / "HDD" / "pvx_database" / "media" / "video"
    video.mkdir(parents=True)
    server.files["/art/2.jpg"] = b"jpeg"
    a = download(host, video, f"{server.base}/art/2.jpg", "Film.2020", "jpg")
    assert stored(a, video / "Film.2020.jpg") == b"jpeg"


def test_download_failures(host, server, config):
    folder = DRIVES / "HDD"
    (folder / "x.d").mkdir(parents=True)
    (folder / "x.d" / "keep").write_text("x")
    server.files["/empty.jpg"] = b""
    server.files["/bad.gz"] = b"not gzip data"
    server.files["/ok.jpg"] = b"data"
    cases = [
        ((folder, f"{server.base}/missing.jpg", "m.jpg"), 12),
        ((folder, f"{server.base}/empty.jpg", "e.jpg"), 12),
        ((folder, f"{server.base}/missing.gz", "g.txt"), 12),
        ((folder, "undefined", "u.jpg"), 11),
        (("smb://nas/none", f"{server.base}/ok.jpg", "s.jpg"), 11),
        ((folder, f"{server.base}/ok.jpg", "x.jpg", "d"), 402),     # final name is a folder
        ((folder, f"{server.base}/bad.gz", "b.txt"), 402),          # unpacking failed
        ((folder / ("n" * 4080), f"{server.base}/ok.jpg", "long.jpg"), 11),
    ]
    for args, code in cases:
        a = download(host, *args)
        assert (a.result, a.tree.children) == (code, []), args
    assert sorted(p.name for p in folder.iterdir()) == ["x.d"]
    assert host.run("download_user_storage_file", str(folder), f"{server.base}/ok.jpg").result == 1
    config["vtrdb_host"] = f"127.0.0.1:{closed_port()}"
    assert download(host, folder, f"http://{config['vtrdb_host']}/x.jpg", "x.jpg").result == 12


def test_download_runs_wget_and_gunzip_without_a_shell(host, config, fake_bin):
    log = fake_bin / "log"
    make_fake(fake_bin, "wget", f"""for a in "$@"; do printf '%s\\n' "$a"; done > {log}
out=$6; printf 'payload' > "$out"
""")
    make_fake(fake_bin, "gunzip", f"""printf '%s\\n' "$@" >> {log}.gz
mv "$2" "${{2%???}}"
""")
    folder = DRIVES / "odd $(touch pwned) `x` 100%%"
    folder.mkdir()
    address = "http://example.invalid/a b;$(touch pwned2).GZ"
    a = download(host, folder, address, "name.srt")
    assert stored(a, folder / "name.srt") == b"payload"
    work = f"{folder}/name.srt_tmp.GZ"
    assert log.read_text().splitlines() == [
        "-c", "-T", "20", "--no-check-certificate", "-xqO", work, address]
    assert Path(f"{log}.gz").read_text().splitlines() == ["-d", work]
    assert not Path("/pwned").exists() and not Path("/pwned2").exists()

    config["vtrdb_host"] = "meta.example:8080"
    make_fake(fake_bin, "wget", f"""printf '%s\\n' "$@" > {log}; echo noise >&2; exit 4
""")
    assert host.run("verify_user_storage_download_status", str(folder)).result == 61
    assert log.read_text().splitlines() == [
        "http://meta.example:8080/vtrdb/main.php", "-t1", "-T20", "--spider"]
    del config["vtrdb_host"]
    host.run("verify_user_storage_download_status", str(folder))
    assert log.read_text().splitlines()[0] == "http://vtrdb.local/vtrdb/main.php"
