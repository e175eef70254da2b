#!/usr/bin/python3
"""Batch copy against cp + sync and the device's direct-I/O ceiling,
interleaved, on a real disk folder.

Run inside the test sandbox as root (the plug-in writes its selection file
and events under /tmp and reads drives under /opt/vtrhttpd):

    tests/sandbox.sh /usr/bin/python3 bench/batch_copy.py --dir build/bench-disk

The folder is bind-mounted as the drive BENCH. Data: one file of --size-mib
MiB and a tree of --files files of 1 to 64 KiB in folders of 500. Per round
and data set every contender runs once, the order rotating from round to
round: the batch (select + copy_user_storage_file_from_list through the
reference host, timed to its end event; the batch syncs after each entry),
`cp` (`cp -r` for the tree) + `sync`, and for the file `dd` with direct
input and output (1 MiB blocks) + `sync`, fio's direct sequential read of
the same file at queue depth 1 and 4, fio's direct sequential write of a
file of the same size at depth 1 and 4, and both at once at depth 4 (the
device's ceiling for a copy; 1 MiB blocks, libaio). Before
every run all dirty data is written and the whole page cache dropped
(`sync; echo 3 > /proc/sys/vm/drop_caches`; where that is refused the
source's and the old targets' pages are evicted with posix_fadvise
DONTNEED instead, and the output says so), and the previous target is
removed. Reported: medians, ratios against the targets, page-cache residency
of source and target right after each batch (fincore; the share of the
data's bytes), the host's peak resident memory during the batch (VmHWM,
reset before each batch through clear_refs; a fresh host per data set) and
the load average before and after. Exit status 1 when a target is missed."""
import argparse
import json
import os
import select
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
DRIVES = Path("/opt/vtrhttpd/localhost.drives")
PIPE = "/tmp/vtr_framework_pipe"
KiB, MiB = 1 << 10, 1 << 20


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
        self.proc = subprocess.Popen([*os.environ.get("VTR_BENCH_WRAP", "").split(), str(build / "vtr-host"),
                                      "serve-stdio"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL, cwd="/")

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
    if not path.exists():
        return []
    if path.is_file():
        return [path]
    return [p for p in path.rglob("*") if p.is_file()]


def drop_caches(paths):
    """Everything written back and the page cache dropped; True when the
    whole cache could be dropped, False when only the given files' pages."""
    subprocess.run(["sync"], check=True)
    try:
        Path("/proc/sys/vm/drop_caches").write_text("3")
        return True
    except OSError:
        for f in (f for p in paths for f in files_below(p)):
            fd = os.open(f, os.O_RDONLY)
            try:
                os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
            finally:
                os.close(fd)
        return False


def resident(path):
    """Resident bytes of the files below path, from fincore."""
    files = [str(f) for f in files_below(path)]
    res = 0
    for i in range(0, len(files), 500):
        out = subprocess.run(["fincore", "--bytes", "--noheadings", "--raw", "--output", "RES", *files[i:i + 500]],
                             capture_output=True, text=True, check=True).stdout
        res += sum(int(line) for line in out.split())
    return res


def make_data(root, size_mib, count):
    src = root / "src"
    marker = src / f".complete-v2-{size_mib}-{count}"
    if marker.exists():
        return src
    shutil.rmtree(src, ignore_errors=True)
    (src / "tree").mkdir(parents=True)
    block = os.urandom(MiB)
    with open(src / "big.bin", "wb") as f:
        for i in range(size_mib):
            f.write(block[i % 256:] + block[:i % 256])
    span = 64 * KiB - KiB + 1
    for i in range(count):
        sub = src / "tree" / f"d{i // 500:02d}"
        sub.mkdir(exist_ok=True)
        (sub / f"f{i:05d}.bin").write_bytes(os.urandom(KiB + (i * 7919) % span))
    marker.write_text("")
    subprocess.run(["sync"], check=True)
    return src


def timed(*commands):
    t0 = time.monotonic()
    for c in commands:
        subprocess.run(c, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - t0


def fio(size, depth, read=None, write=None):
    """Seconds of fio's direct sequential read of `read` and/or write of
    `write` (both at once when both are given: the longer job counts)."""
    jobs = [[f"--name={rw}", f"--filename={path}", f"--rw={rw}"] for rw, path in (("read", read), ("write", write))
            if path is not None]
    out = subprocess.run(["fio", "--direct=1", "--bs=1M", "--ioengine=libaio", f"--iodepth={depth}", f"--size={size}",
                          "--output-format=json", *(w for j in jobs for w in j)],
                         capture_output=True, text=True, check=True).stdout
    return max(max(j["read"]["runtime"], j["write"]["runtime"]) for j in json.loads(out[out.index("{"):])["jobs"]) / 1000


def run_batch(host, events, source, dst):
    assert host.run("select_user_storage_file_to_list", str(source), "select") == 0
    host.reset_peak()
    t0 = time.monotonic()
    assert host.run("copy_user_storage_file_from_list", str(dst)) == 0
    end = events.wait_end()
    elapsed = time.monotonic() - t0
    assert "<status>0</status>" in end, end
    return elapsed, host.peak_kib()


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
    fs = subprocess.run(["findmnt", "-n", "-o", "FSTYPE,SOURCE", "-T", str(drive)], capture_output=True,
                        text=True).stdout.strip()
    load_before = os.getloadavg()
    src = make_data(drive, a.size_mib, a.files)
    big, tree = src / "big.bin", src / "tree"
    events = Events()
    whole_cache = True
    out = {}
    host = None
    try:
        for name, source in ((f"{a.size_mib} MiB file", big), (f"{a.files} small files", tree)):
            if host is not None:
                host.close()
            host = Host(Path(a.build).resolve())  # a fresh process per data set: its own peak
            nbytes = sum(f.stat().st_size for f in files_below(source))
            dst = {w: drive / f"dst_{w}" for w in ("batch", "cp", "dd", "fio")}
            runs = {"batch": lambda: run_batch(host, events, source, dst["batch"]),
                    "cp": lambda: timed(["cp", "-r", str(source), str(dst["cp"])], ["sync"])}
            if source == big:
                size = f"{nbytes}"
                fio_file = dst["fio"] / "ceiling.bin"
                runs["dd"] = lambda: timed(["dd", f"if={big}", f"of={dst['dd'] / 'big.bin'}", "bs=1M",
                                            "iflag=direct", "oflag=direct"], ["sync"])
                for depth in (1, 4):
                    runs[f"fio read qd{depth}"] = lambda d=depth: fio(size, d, read=big)
                    runs[f"fio write qd{depth}"] = lambda d=depth: fio(size, d, write=fio_file)
                runs["fio read+write qd4"] = lambda: fio(size, 4, read=big, write=fio_file)
            times = {w: [] for w in runs}
            peaks, res_src, res_dst = [], [], []
            names = list(runs)
            for r in range(a.runs):
                for which in names[r % len(names):] + names[:r % len(names)]:
                    for d in dst.values():
                        shutil.rmtree(d, ignore_errors=True)
                        d.mkdir()
                    whole_cache &= drop_caches([source, *dst.values()])
                    result = runs[which]()
                    if which == "batch":
                        times[which].append(result[0])
                        peaks.append(result[1])
                        res_src.append(resident(source))
                        res_dst.append(resident(dst["batch"]))
                    else:
                        times[which].append(result)
            for d in dst.values():
                shutil.rmtree(d, ignore_errors=True)
            med = {w: statistics.median(t) for w, t in times.items()}
            out[name] = dict(bytes=nbytes, median_s=med, runs_s=times, peak_rss_mib=max(peaks) / 1024,
                             resident_source=max(res_src) / nbytes, resident_target=max(res_dst) / nbytes)
    finally:
        if host is not None:
            host.close()
        subprocess.run(["umount", "-l", str(drive)], check=False)
    load_after = os.getloadavg()

    print(f"file system: {fs}; rounds: {a.runs}; caches dropped: "
          f"{'whole page cache (drop_caches)' if whole_cache else 'fadvise DONTNEED of the files only'}")
    print(f"load average before {load_before[0]:.2f} {load_before[1]:.2f} {load_before[2]:.2f}, "
          f"after {load_after[0]:.2f} {load_after[1]:.2f} {load_after[2]:.2f}")
    missed = []

    def check(label, value, limit, above=False):
        ok = value >= limit if above else value <= limit
        if not ok:
            missed.append(label)
        print(f"  {label:<44} {value:8.3f}   target {'>=' if above else '<='} {limit}   {'met' if ok else 'MISSED'}")

    for name, r in out.items():
        med = r["median_s"]
        print(f"\n{name} ({r['bytes'] / 1e6:.0f} MB), medians:")
        for w, t in med.items():
            print(f"  {w:<16} {t:7.3f} s  {r['bytes'] / t / 1e6:8.1f} MB/s   runs: "
                  + " ".join(f"{x:.2f}" for x in r["runs_s"][w]))
        big_file = "fio read qd4" in med
        check(f"{name}: batch / cp{' -r' if not big_file else ''} + sync time", med["batch"] / med["cp"],
              0.8 if big_file else 1.0)
        if big_file:
            check(f"{name}: batch / direct read at depth 4", med["batch"] / med["fio read qd4"], 1.3)
            print(f"  {name + ': batch / direct read+write at depth 4':<44} {med['batch'] / med['fio read+write qd4']:8.3f}")
        check(f"{name}: page cache after, source (share)", r["resident_source"], 0.01)
        check(f"{name}: page cache after, target (share)", r["resident_target"], 0.01)
        check(f"{name}: host peak memory (MiB)", r["peak_rss_mib"], 8)
    print(json.dumps(out, indent=1))
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
