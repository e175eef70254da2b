#!/usr/bin/python3
"""vtr-cmdserver under load on loopback: CLIENTS clients send a mix of
listings, searches and file info requests for SECONDS seconds. Every answer
must equal the answer to the same request sent alone, with no HTTP error.
The figures are printed as JSON (and written to --report) for
docs/performance.md. Run inside the test sandbox, after a PC build:

    tests/sandbox.sh /usr/bin/python3 bench/http_load.py --seconds 30 [--clients 8] [--report FILE]

VTR_BUILD_DIR names the build tree (default build/)."""
import argparse
import collections
import http.client
import json
import re
import statistics
import struct
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))
from conftest import DRIVES  # noqa: E402
from cmdserver_client import Server, target  # noqa: E402



def png(width, height):
    return (b"\x89PNG\r\n\x1a\n" + struct.pack(">I", 13) + b"IHDR" + struct.pack(">II", width, height)
            + b"\x08\x02\x00\x00\x00" + b"\x00" * 4)


def make_tree():
    usb = DRIVES / "USB_A"
    for k in range(3):
        folder = usb / f"Folder {k}"
        (folder / "deeper" / "deepest").mkdir(parents=True)
        for i in range(60):
            ext = ["mkv", "mp3", "jpg", "txt", "avi", "torrent"][i % 6]
            (folder / f"clip {i}.{ext}").write_bytes(b"x" * (i * 37))
        for i in range(10):
            (folder / "deeper" / f"clip deep {i}.mp4").write_bytes(b"y" * i)
            (folder / "deeper" / "deepest" / f"Clip {i}.srt").write_bytes(b"z")
    pics = DRIVES / "HDD" / "Pictures"
    pics.mkdir(parents=True)
    for i in range(20):
        (pics / f"photo {i}.png").write_bytes(png(640 + i, 480 - i))


def request_mix():
    mix = [target("list_user_storage_file", "", "0", "0", "true", "true", "true", "", "name_asc", "false")]
    sorts = ["name_asc", "name_dsc", "size_asc", "size_dsc", "date_asc", "date_dsc"]
    for k in range(3):
        for n, s in enumerate(sorts):
            mix.append(target("list_user_storage_file", f"USB_A/Folder {k}", str(n * 5), "20", "true", "true",
                              "true", ["", "video", "music", "photo"][n % 4], s, "false"))
        mix.append(target("search_user_storage_file", f"USB_A/Folder {k}", "0", "50", "true", "true", "true",
                          "", "clip 1", "false"))
        mix.append(target("search_user_storage_file", f"USB_A/Folder {k}", "0", "100", "true", "true", "false",
                          "", "clip", "true"))
    for i in range(0, 20, 3):
        mix.append(target("get_user_storage_file_info", str(DRIVES / "HDD" / "Pictures" / f"photo {i}.png")))
    mix.append(target("get_user_storage_file_info", str(DRIVES / "USB_A" / "Folder 1" / "clip 7.mp3")))
    return mix


def fetch(conn, path):
    conn.request("GET", path)
    r = conn.getresponse()
    return r.status, r.read()


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--seconds", type=float, default=30)
    ap.add_argument("--clients", type=int, default=8)
    ap.add_argument("--report", help="JSON file for the figures")
    opt = ap.parse_args()
    CLIENTS, SECONDS = opt.clients, opt.seconds
    make_tree()
    srv = Server(Path(tempfile.mkdtemp()) / "load.log", args=("--threads", str(CLIENTS)))
    try:
        mix = request_mix()
        conn = srv.connection()
        fetch_all = lambda: [fetch(conn, p) for p in mix]  # noqa: E731
        fetch_all()                 # first reads settle access times
        alone = fetch_all()
        conn.close()
        assert all(status == 200 for status, _ in alone)
        expected = [body for _, body in alone]

        latencies = [[] for _ in range(CLIENTS)]
        errors = []
        stop_at = time.monotonic() + SECONDS

        def client(n):
            c = srv.connection()
            i = n * 7
            try:
                while time.monotonic() < stop_at:
                    k = i % len(mix)
                    t0 = time.perf_counter()
                    try:
                        status, body = fetch(c, mix[k])
                    except (OSError, http.client.HTTPException) as e:
                        errors.append(f"{mix[k]}: {e!r}")
                        c.close()
                        c = srv.connection()
                        continue
                    latencies[n].append(time.perf_counter() - t0)
                    if status != 200 or body != expected[k]:
                        errors.append(f"{mix[k]}: HTTP {status}, answer differs: {body[:300]!r}")
                    i += 1
            finally:
                c.close()

        threads = [threading.Thread(target=client, args=(n,)) for n in range(CLIENTS)]
        t0 = time.monotonic()
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=SECONDS + 120)
        wall = time.monotonic() - t0
        assert not any(t.is_alive() for t in threads), "a client hung"
        assert errors == [], f"{len(errors)} errors, first: {errors[:3]}"
        every = sorted(x for per in latencies for x in per)
        assert every, "no request completed"
        p99 = every[min(len(every) - 1, int(len(every) * 0.99))]
        report = {
            "clients": CLIENTS, "seconds": round(wall, 1), "requests": len(every),
            "requests_per_second": round(len(every) / wall, 1),
            "median_ms": round(statistics.median(every) * 1000, 2), "p99_ms": round(p99 * 1000, 2),
            "max_ms": round(every[-1] * 1000, 2), "mix": len(mix),
            "results": dict(collections.Counter(re.search(rb"<result>(-?\d+)</result>", b).group(1).decode()
                                                for b in expected)),
        }
        print(json.dumps(report))
        if opt.report:
            with open(opt.report, "w") as f:
                json.dump(report, f)
    finally:
        srv.stop()


if __name__ == "__main__":
    main()
