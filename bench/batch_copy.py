#!/usr/bin/python3
"""Batch copy against cp + sync, interleaved, on a real disk folder.

Run inside the test sandbox (the plug-in writes its selection file and
events under /tmp and reads drives under /opt/vtrhttpd):

    tests/sandbox.sh /usr/bin/python3 bench/batch_copy.py --dir build/bench-disk

The folder is bind-mounted as the drive BENCH. Per run and data set the
batch (select + copy_user_storage_file_from_list, until its end event; the
batch syncs after each entry) and `cp` (`cp -r` for the tree) + `sync` take
turns, in alternating order. Before each copy the source's pages are
dropped from the page cache (posix_fadvise DONTNEED) and the previous
target is removed. Reported: median seconds, MB/s, the ratio batch / cp,
page-cache pages left resident for source and target (fincore) and the
host's peak resident memory during the batch (VmHWM, reset before each
batch through clear_refs)."""
import argparse
import json
import os
import select
import shutil
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
DRIVES = Path("/opt/vtrhttpd/localhost.drives")
PIPE = "/tmp/vtr_framework_pipe"
MiB = 1 << 20


class Events:
    def __init__(self):
        if os.path.exists(PIPE):
            os.unlink(PIPE)
        os.mkfifo(PIPE, 0o600)
        self.fd = os.open(PIPE, os.O_RDONLY | os.O_NONBLOCK)
        self.keep = os.open(PIPE, os.O_WRONLY | os.O_NONBLOCK)
        self.buf = b""

    def wait_end(self, timeout=3600):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            r, _, _ = select.select([self.fd], [], [], 0.5)
            if r:
                self.buf += os.read(self.fd, 1 << 16)
                while b"\n" in self.buf:
                    line, self.buf = self.buf.split(b"\n", 1)
                    if b"<whole>101</whole>" in line:
                        return line.decode()
        raise RuntimeError("no end event")


class Host:
    def __init__(self, build):
        self.proc = subprocess.Popen([*os.environ.get("VTR_BENCH_WRAP", "").split(), str(build / "vtr-host"), "serve-stdio"], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, cwd="/")

    def run(self, *args):
        self.proc.stdin.write((json.dumps(list(args)) + "\n").encode())
        self.proc.stdin.flush()
        return json.loads(self.proc.stdout.readline())["result"]

    def reset_peak(self):
        Path(f"/proc/{self.proc.pid}/clear_refs").write_text("5")

    def peak_kib(self):
        for line in Path(f"/proc/{self.proc.pid}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
        return 0

    def close(self):
        self.proc.stdin.close()
        self.proc.wait()


def files_below(path):
    if path.is_file():
        return [path]
    return [p for p in path.rglob("*") if p.is_file()]


def evict(path):
    for f in files_below(path):
        fd = os.open(f, os.O_RDONLY)
        try:
            os.fdatasync(fd)
            os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        finally:
            os.close(fd)


def resident(path):
    """(resident bytes, file bytes) of the files below path, from fincore."""
    files = [str(f) for f in files_below(path)]
    res = size = 0
    for i in range(0, len(files), 500):
        out = subprocess.run(["fincore", "--bytes", "--noheadings", "--raw", "--output", "RES,SIZE",
                              *files[i:i + 500]], capture_output=True, text=True, check=True).stdout
        for line in out.splitlines():
            r, s = line.split()
            res += int(r)
            size += int(s)
    return res, size


def make_data(root, size_mib, count):
    src = root / "src"
    marker = src / f".complete-{size_mib}-{count}"
    if marker.exists():
        return src
    shutil.rmtree(src, ignore_errors=True)
    (src / "tree").mkdir(parents=True)
    block = os.urandom(MiB)
    with open(src / "big.bin", "wb") as f:
        for i in range(size_mib):
            f.write(block[i % 256:] + block[:i % 256])
    for i in range(count):
        sub = src / "tree" / f"d{i // 500:02d}"
        sub.mkdir(exist_ok=True)
        (sub / f"f{i:05d}.txt").write_bytes(os.urandom(512 + (i * 37) % 7680))
    marker.write_text("")
    subprocess.run(["sync"], check=True)
    return src


def run_batch(host, events, source, dst):
    assert host.run("select_user_storage_file_to_list", str(source), "select") == 0
    host.reset_peak()
    t0 = time.monotonic()
    assert host.run("copy_user_storage_file_from_list", str(dst)) == 0
    end = events.wait_end()
    t1 = time.monotonic()
    assert "<status>0</status>" in end, end
    return t1 - t0, host.peak_kib()


def run_cp(source, dst):
    t0 = time.monotonic()
    subprocess.run(["cp", "-r", str(source), str(dst)], check=True)
    subprocess.run(["sync"], check=True)
    return time.monotonic() - t0


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--dir", required=True, help="folder on a real disk (not tmpfs)")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--size-mib", type=int, default=1024)
    ap.add_argument("--files", type=int, default=10000)
    ap.add_argument("--build", default=str(REPO / "build"))
    a = ap.parse_args()
    if os.environ.get("VTR_SANDBOX") != "1":
        sys.exit("run inside tests/sandbox.sh")
    disk = Path(a.dir).resolve()
    disk.mkdir(parents=True, exist_ok=True)
    drive = DRIVES / "BENCH"
    drive.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "--bind", str(disk), str(drive)], check=True)
    fs = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "-T", str(drive)], capture_output=True, text=True).stdout.strip()
    src = make_data(drive, a.size_mib, a.files)
    events = Events()
    results = {}
    host = None
    try:
        for name, source in ((f"{a.size_mib} MiB file", src / "big.bin"), (f"{a.files} small files", src / "tree")):
            if host is not None:
                host.close()
            host = Host(Path(a.build))  # a fresh process per data set: its own peak

            nbytes = sum(f.stat().st_size for f in files_below(source))
            batch_t, cp_t, peaks, res_src, res_dst = [], [], [], [], []
            for run in range(a.runs):
                order = ("batch", "cp") if run % 2 == 0 else ("cp", "batch")
                for which in order:
                    dst = drive / f"dst_{which}"
                    shutil.rmtree(dst, ignore_errors=True)
                    dst.mkdir()
                    subprocess.run(["sync"], check=True)
                    evict(source)
                    if which == "batch":
                        t, peak = run_batch(host, events, source, dst)
                        batch_t.append(t)
                        peaks.append(peak)
                        res_src.append(resident(source)[0])
                        res_dst.append(resident(dst)[0])
                    else:
                        cp_t.append(run_cp(source, dst))
                    shutil.rmtree(dst, ignore_errors=True)
            b, c = statistics.median(batch_t), statistics.median(cp_t)
            results[name] = dict(bytes=nbytes, batch_s=b, cp_s=c, batch_mbs=nbytes / b / 1e6, cp_mbs=nbytes / c / 1e6,
                                 ratio=c / b, resident_source=statistics.median(res_src) / nbytes,
                                 resident_target=statistics.median(res_dst) / nbytes,
                                 peak_rss_mib=max(peaks) / 1024, batch_runs=batch_t, cp_runs=cp_t)
    finally:
        if host is not None:
            host.close()
        subprocess.run(["umount", "-l", str(drive)], check=False)
    print(f"file system: {fs}, runs: {a.runs}")
    print(f"{'data':<20} {'batch s':>8} {'cp s':>8} {'batch MB/s':>11} {'cp MB/s':>8} {'ratio':>6} "
          f"{'res src':>8} {'res dst':>8} {'peak RSS':>9}")
    for name, r in results.items():
        print(f"{name:<20} {r['batch_s']:8.2f} {r['cp_s']:8.2f} {r['batch_mbs']:11.1f} {r['cp_mbs']:8.1f} "
              f"{r['ratio']:6.2f} {r['resident_source']:8.1%} {r['resident_target']:8.1%} {r['peak_rss_mib']:7.1f} MiB")
    print(json.dumps(results, indent=1))


if __name__ == "__main__":
    main()
