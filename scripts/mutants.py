#!/usr/bin/python3
"""Mutation check of the test suite.

Enumerates mutation sites in the plug-in's modules with a fixed set of
operators, samples a fixed number of them (fixed seed, a quota per module),
applies each mutant in turn to a scratch copy of the repository, rebuilds
incrementally and runs the PC unit tests plus the end-to-end files of the
mutated module inside tests/sandbox.sh. A mutant is killed when a test fails
(or the tests exceed the time limit), survived when every test passes,
invalid when it does not build (left out of the rate) and gone when a
replayed sample no longer finds its line (left out of the rate).

A mutant is named by (file, the stripped text of its line, operator,
occurrence of the operator's pattern in that line), never by line number, so
a sample written with --sample can be replayed with --replay on a later
version of the code. Only the first line of a file with a given stripped
text is a site.

  /usr/bin/python3 scripts/mutants.py --sample scripts/mutants-sample.json --list
  nice -n 10 /usr/bin/python3 scripts/mutants.py --replay scripts/mutants-sample.json \\
      --out docs/mutants-before.txt [--resume] [--only m03,m17]

Runs as root (the sandbox's mount namespace). Standard library only.
"""
import argparse
import concurrent.futures
import datetime
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

# Module -> end-to-end test files that exercise it (tests/e2e/...). Files that
# do not exist are skipped; EVERY_MODULE files run for each module.
E2E_FILES = {
    "base": ["test_foundation.py", "test_hardening.py"],
    "plugin": ["test_foundation.py", "test_hardening.py"],
    "storage": ["test_single_file.py"],
    "listing": ["test_listing.py", "test_search.py", "test_netfs_client.py"],
    "transfer": ["test_transfer.py"],
    "media": ["test_media.py", "test_ripping.py"],
    "appstore": ["test_appstore.py"],
}
EVERY_MODULE = ["test_security.py", "test_durability.py"]
MODULES = list(E2E_FILES)
BUILD_TARGETS = ["unit_tests", "fileop_plugin", "vtr-host", "netfs_client"]
# The scratch build keeps -Werror except for warnings a mutant raises by
# design (`a || b && c`, `n >= 0` on an unsigned, an unused result...).
RELAXED = ["parentheses", "type-limits", "unused-variable", "unused-but-set-variable",
           "unused-function", "unused-parameter", "unused-result", "bool-compare",
           "tautological-compare", "sign-compare", "array-bounds", "stringop-overflow",
           "stringop-truncation", "format-truncation", "restrict", "int-in-bool-context",
           "address", "logical-not-parentheses", "nonnull-compare", "use-after-free", "nonnull",
           "maybe-uninitialized", "uninitialized", "stringop-overread", "format-overflow",
           "dangling-pointer", "free-nonheap-object", "aggressive-loop-optimizations", "overflow",
           "div-by-zero", "unused-value", "empty-body", "misleading-indentation"]
SCRATCH_FLAGS = " ".join("-Wno-error=" + w for w in RELAXED)

# Calls whose deletion is a mutant (a whole statement `name(...);` or `::name(...);`).
DELETABLE_CALLS = {"fsync", "fdatasync", "sync", "syncfs", "close", "closedir", "pclose",
                   "unlink", "unlinkat", "rmdir", "chown", "fchown", "lchown", "chmod",
                   "fchmod", "fchmodat", "rename", "renameat", "renameat2"}
DELETABLE_PREFIXES = ("mark_", "post_transfer_event")
# Returned result codes: each is replaced by the next one of this rule.
RC_NEXT = {"ok": "failure", "failure": "io"}  # any other code -> failure
INT_NEXT = {"0": "1", "1": "0", "-1": "0"}    # any other small integer -> 0

OPERATORS = ["eq_ne", "ne_eq", "lt_le", "le_lt", "gt_ge", "ge_gt", "and_or", "or_and",
             "drop_not", "return_code", "bound_add", "bound_drop", "delete_call"]

FLIPS = {  # operator -> (regex on the masked line, replacement)
    "eq_ne": (re.compile(r"(?<=[\w)\]\s])==(?==?[\s\w(+\-!*&'\"])"), "!="),
    "ne_eq": (re.compile(r"(?<=[\w)\]\s])!=(?=[\s\w(+\-!*&'\"])"), "=="),
    "lt_le": (re.compile(r"(?<= )<(?= )"), "<="),
    "le_lt": (re.compile(r"(?<= )<=(?= )"), "<"),
    "gt_ge": (re.compile(r"(?<= )>(?= )"), ">="),
    "ge_gt": (re.compile(r"(?<= )>=(?= )"), ">"),
    "and_or": (re.compile(r"(?<= )&&(?= )"), "||"),
    "or_and": (re.compile(r"(?<= )\|\|(?= )"), "&&"),
}
NOT_RE = re.compile(r"(?<![!=<>])!(?!=)")
RETURN_RE = re.compile(r"\breturn (\+?(?:plugin::)?rc::(\w+)|-?\d{1,3});")
BOUND_DROP_RE = re.compile(r" [+-] 1(?![\w.])")
COMPARE_RE = re.compile(r"(?<= )(<=|>=|<|>)(?= )")
CALL_RE = re.compile(r"^(\s*)(?:::)?([A-Za-z_]\w*)\(.*")


def mask_source(lines):
    """Per line, the text with comments, string and character literals blanked
    (same length), and whether the line is code at all (not preprocessor, not
    part of a static_assert)."""
    out = []
    in_block = False
    in_assert = False
    for line in lines:
        chars = list(line)
        i = 0
        n = len(chars)
        while i < n:
            if in_block:
                if line.startswith("*/", i):
                    chars[i] = chars[i + 1] = " "
                    in_block = False
                    i += 2
                    continue
                chars[i] = " "
                i += 1
                continue
            c = line[i]
            if line.startswith("//", i):
                for j in range(i, n):
                    chars[j] = " "
                break
            if line.startswith("/*", i):
                chars[i] = chars[i + 1] = " "
                in_block = True
                i += 2
                continue
            if c in "\"'":
                j = i + 1
                while j < n and line[j] != c:
                    j += 2 if line[j] == "\\" else 1
                for k in range(i + 1, min(j, n)):
                    chars[k] = " "
                i = j + 1
                continue
            i += 1
        masked = "".join(chars)
        stripped = masked.strip()
        code = bool(stripped) and not stripped.startswith("#")
        if "static_assert" in masked:
            in_assert = True
        if in_assert:
            code = False
            if ";" in masked:
                in_assert = False
        out.append((masked, code))
    return out


def statement_end(masked, start):
    """Index of the line ending the statement that starts at line `start`
    (parentheses balanced and a `;`), or None."""
    depth = 0
    for k in range(start, min(start + 12, len(masked))):
        text = masked[k][0]
        for ch in text:
            if ch == "(":
                depth += 1
            elif ch == ")":
                depth -= 1
        if depth == 0 and text.rstrip().endswith(";"):
            return k
        if depth < 0:
            return None
    return None


def right_operand_end(text, pos):
    """End of the right operand of a comparison whose operator ends at pos."""
    depth = 0
    i = pos
    while i < len(text):
        ch = text[i]
        if ch in "([{":
            depth += 1
        elif ch in ")]}":
            if depth == 0:
                break
            depth -= 1
        elif depth == 0 and (ch in ";,?:" or text.startswith(" &&", i) or text.startswith(" ||", i)):
            break
        i += 1
    while i > pos and text[i - 1] == " ":
        i -= 1
    return i


def line_sites(lines, masked, k):
    """Mutation sites of line k: list of (op, occurrence, new_line_text)."""
    line = lines[k]
    text, code = masked[k]
    if not code:
        return []
    if "->" in text or "<<" in text or ">>" in text or "<=>" in text:
        skip_angles = True
    else:
        skip_angles = False
    sites = []
    for op, (rx, repl) in FLIPS.items():
        if skip_angles and op in ("lt_le", "le_lt", "gt_ge", "ge_gt"):
            continue
        if "operator" in text and op in ("eq_ne", "ne_eq"):
            continue
        for occ, m in enumerate(rx.finditer(text)):
            sites.append((op, occ, line[:m.start()] + repl + line[m.end():]))
    for occ, m in enumerate(NOT_RE.finditer(text)):
        if "operator" in text:
            break
        sites.append(("drop_not", occ, line[:m.start()] + line[m.end():]))
    m = RETURN_RE.search(text)
    if m:
        whole, code_name = m.group(1), m.group(2)
        if code_name:
            new = whole.replace("rc::" + code_name, "rc::" + RC_NEXT.get(code_name, "failure"))
        else:
            new = INT_NEXT.get(whole, "0")
        sites.append(("return_code", 0, line[:m.start(1)] + new + line[m.end(1):]))
    if not skip_angles:
        for occ, m in enumerate(COMPARE_RE.finditer(text)):
            end = right_operand_end(text, m.end() + 1)
            if end > m.end() + 1 and text[m.end() + 1:end] not in ("0", "nullptr"):
                sites.append(("bound_add", occ, line[:end] + " + 1" + line[end:]))
    for occ, m in enumerate(BOUND_DROP_RE.finditer(text)):
        sites.append(("bound_drop", occ, line[:m.start()] + line[m.end():]))
    cm = CALL_RE.match(text)
    if cm and (cm.group(2) in DELETABLE_CALLS or cm.group(2).startswith(DELETABLE_PREFIXES)):
        end = statement_end(masked, k)
        following = next((masked[j][0].strip() for j in range((end or k) + 1, len(lines))
                          if masked[j][0].strip()), "")
        if end is not None and not following.startswith("else"):
            # `if (false) name(...);` keeps the arguments used (no new
            # warnings) and the statement whole when it spans lines.
            indent = cm.group(1)
            sites.append(("delete_call", 0, indent + "if (false) " + line[len(indent):]))
    return sites


def module_of(path):
    return path.split("/", 1)[0]


def source_files(root):
    files = []
    for module in MODULES:
        for p in sorted((root / module).glob("*")):
            if p.suffix in (".cpp", ".h") and p.is_file():
                files.append(f"{module}/{p.name}")
    return files


def enumerate_sites(root):
    """Every site: dicts keyed by (file, text, op, occurrence)."""
    sites = []
    for rel in source_files(root):
        lines = (root / rel).read_text().split("\n")
        masked = mask_source(lines)
        seen = set()
        for k, line in enumerate(lines):
            key = line.strip()
            if key in seen:
                continue
            seen.add(key)
            for op, occ, new in line_sites(lines, masked, k):
                sites.append({"module": module_of(rel), "file": rel, "line_text": key, "op": op,
                              "occurrence": occ, "line": k + 1,
                              "before": line.strip(), "after": new.strip()})
    return sites


def site_key(s):
    return (s["file"], s["line_text"], s["op"], s["occurrence"])


def stratified_sample(sites, size, seed):
    by_module = {m: sorted((s for s in sites if s["module"] == m), key=site_key) for m in MODULES}
    total = sum(len(v) for v in by_module.values())
    quota = {}
    for m, v in by_module.items():
        quota[m] = min(len(v), max(4, size * len(v) // total)) if v else 0
    # Hand out what is left by the largest remainders, in module order on ties.
    rem = sorted(MODULES, key=lambda m: -((size * len(by_module[m])) % total))
    while sum(quota.values()) < size and any(quota[m] < len(by_module[m]) for m in MODULES):
        for m in rem:
            if sum(quota.values()) >= size:
                break
            if quota[m] < len(by_module[m]):
                quota[m] += 1
    picked = []
    for m in MODULES:
        rng = random.Random(f"{seed}:{m}")
        order = list(by_module[m])
        rng.shuffle(order)
        picked.extend(sorted(order[:quota[m]], key=lambda s: (s["file"], s["line"], s["op"], s["occurrence"])))
    for i, s in enumerate(picked, 1):
        s["id"] = f"m{i:02d}"
    return picked


# Spellings that changed without changing the logic: a replayed line is
# also looked for in its newer spelling.
RESPELLINGS = [(re.compile(r"\+(plugin::|base::)?rc::"), r"\1rc::"), (re.compile(r"\bplugin::"), "base::")]


def respelled(text):
    for pattern, replacement in RESPELLINGS:
        text = pattern.sub(replacement, text)
    return text.replace("base::base::", "base::")


# Handlers that returned the integer 0 now return rc::ok.
SAME_FILE_RESPELLINGS = {"return 0;": "return rc::ok;"}
# A line is looked for in other files only where its file's code went.
SPLIT_FILES = {
    "listing/file_index.cpp": ["listing/folder_scan.cpp", "listing/network.cpp"],
    "listing/share_list.cpp": ["listing/folder_scan.cpp"],
    "plugin/util.cpp": ["base/text.cpp", "base/spawn.cpp", "base/io.cpp"],
    "listing/order.cpp": ["base/natural_order.cpp", "listing/sort_orders.cpp", "listing/filters.cpp",
                          "listing/type_words.cpp", "listing/search_classification.cpp"],
    "listing/names.cpp": ["storage/display_names.cpp"],
    "listing/format.cpp": ["listing/cache_records.cpp", "listing/dates.cpp", "base/answer.cpp"],
}


def locate(root, entries):
    """Re-locates replayed mutants in the code under root; missing -> gone.
    A line is also found in its newer spelling, and in the files its file
    was split into (SPLIT_FILES); the first file holding it wins."""
    cache = {}

    def load(rel):
        if rel not in cache:
            path = root / rel
            if not path.is_file():
                cache[rel] = None
            else:
                lines = path.read_text().split("\n")
                first = {}
                for k, line in enumerate(lines):
                    first.setdefault(line.strip(), k)
                cache[rel] = (lines, mask_source(lines), first)
        return cache[rel]

    out = []
    for e in entries:
        found = dict(e)
        found["gone"] = True
        texts = [e["line_text"], respelled(e["line_text"])]
        for rel in [e["file"]] + SPLIT_FILES.get(e["file"], []):
            data = load(rel)
            if not data:
                continue
            lines, masked, first = data
            here = texts + [SAME_FILE_RESPELLINGS.get(e["line_text"], "")] if rel == e["file"] else texts
            k = next((first[t] for t in here if t in first), None)
            if k is None:
                continue
            for op, occ, new in line_sites(lines, masked, k):
                if op == e["op"] and occ == e["occurrence"]:
                    found.update(gone=False, file=rel, module=module_of(rel), line=k + 1,
                                 before=lines[k].strip(), after=new.strip())
                    break
            if not found["gone"]:
                break
        out.append(found)
    return out


# ---------------------------------------------------------------- running

def tracked_files(repo):
    res = subprocess.run(["git", "-C", str(repo), "ls-files", "-z"], check=True,
                         stdout=subprocess.PIPE)
    return [f for f in res.stdout.decode().split("\0") if f]


def sync_scratch(repo, scratch):
    """Makes scratch hold the repository's tracked files (working-tree
    contents); unchanged files keep their times so builds stay incremental."""
    if str(scratch.resolve()).startswith("/tmp/"):
        sys.exit("the scratch copy must not be under /tmp (the sandbox hides /tmp)")
    scratch.mkdir(parents=True, exist_ok=True)
    tracked = tracked_files(repo)
    wanted = set(tracked)
    for rel in tracked:
        src = repo / rel
        dst = scratch / rel
        if src.is_symlink() or not src.is_file():
            continue
        data = src.read_bytes()
        if dst.is_file() and dst.read_bytes() == data:
            continue
        dst.parent.mkdir(parents=True, exist_ok=True)
        dst.write_bytes(data)
        shutil.copymode(src, dst)
    for dirpath, dirnames, filenames in os.walk(scratch):
        rel_dir = os.path.relpath(dirpath, scratch)
        if rel_dir == ".":
            dirnames[:] = [d for d in dirnames if d not in ("build", ".git")]
        dirnames[:] = [d for d in dirnames if d != "__pycache__" and d != ".pytest_cache"]
        for f in filenames:
            rel = os.path.normpath(os.path.join(rel_dir, f))
            if rel not in wanted:
                os.unlink(os.path.join(dirpath, f))


def run_limited(cmd, cwd, limit, log):
    """Runs cmd in its own process group; returns (exit code or None on
    timeout, seconds)."""
    start = time.monotonic()
    with open(log, "ab") as out:
        out.write(("\n$ " + " ".join(cmd) + "\n").encode())
        out.flush()
        proc = subprocess.Popen(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT,
                                start_new_session=True,
                                env=dict(os.environ, PYTHONDONTWRITEBYTECODE="1"))
        try:
            rc = proc.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            rc = None
    return rc, time.monotonic() - start


class Runner:
    def __init__(self, scratch, args):
        self.scratch = scratch
        self.build = scratch / "build" / "pc"
        self.args = args
        self.log = scratch / "mutants.log"
        gtest_flags = ["--gtest_brief=1", "--gtest_fail_fast"]
        self.unit_cmd = ["tests/sandbox.sh", str(self.build / "tests" / "unit_tests"),
                         "--gtest_color=no"] + gtest_flags

    def configure(self):
        cache = self.build / "CMakeCache.txt"
        if not cache.is_file() or f"CMAKE_CXX_FLAGS:STRING={SCRATCH_FLAGS}\n" not in cache.read_text():
            rc, _ = run_limited(["cmake", "-S", ".", "-B", str(self.build),
                                 "-DCMAKE_BUILD_TYPE=RelWithDebInfo", f"-DCMAKE_CXX_FLAGS={SCRATCH_FLAGS}"],
                                self.scratch, 1800, self.log)
            if rc != 0:
                sys.exit(f"configuring {self.build} failed, see {self.log}")

    def build_all(self):
        return run_limited(["cmake", "--build", str(self.build), "-j", str(self.args.build_jobs),
                            "--target"] + BUILD_TARGETS, self.scratch, self.args.build_timeout,
                           self.log)

    def e2e_files(self, module):
        names = E2E_FILES[module] + EVERY_MODULE
        return [f"tests/e2e/{n}" for n in names if (self.scratch / "tests" / "e2e" / n).is_file()]

    def test(self, modules, deadline):
        """'pass', 'unit', 'e2e' or 'timeout'."""
        left = deadline - time.monotonic()
        rc, _ = run_limited(self.unit_cmd, self.scratch, max(left, 1), self.log)
        if rc is None:
            return "timeout"
        if rc != 0:
            return "unit"
        files = []
        for m in modules:
            files += [f for f in self.e2e_files(m) if f not in files]
        if files:
            left = deadline - time.monotonic()
            cmd = ["tests/sandbox.sh", "env", f"VTR_BUILD_DIR={self.build}",
                   f"VTR_TOOLS_DIR={self.build}", "/usr/bin/python3", "-m", "pytest", "-x", "-q",
                   "-p", "no:cacheprovider"] + files
            rc, _ = run_limited(cmd, self.scratch, max(left, 1), self.log)
            if rc is None:
                return "timeout"
            if rc != 0:
                return "e2e"
        return "pass"

    def baseline(self):
        rc, _ = self.build_all()
        if rc != 0:
            sys.exit(f"the unmutated copy does not build, see {self.log}")
        verdict = self.test(MODULES, time.monotonic() + 1800)
        if verdict != "pass":
            sys.exit(f"the unmutated copy fails its tests ({verdict}), see {self.log}")

    def run(self, m):
        path = self.scratch / m["file"]
        original = path.read_text()
        lines = original.split("\n")
        k = m["line"] - 1
        indent = lines[k][:len(lines[k]) - len(lines[k].lstrip())]
        assert lines[k].strip() == m["before"], (m["id"], lines[k])
        lines[k] = indent + m["after"]
        start = time.monotonic()
        try:
            path.write_text("\n".join(lines))
            with open(self.log, "ab") as out:
                out.write(f"\n===== {m['id']} {m['file']}:{m['line']} {m['op']}\n".encode())
            rc, _ = self.build_all()
            if rc != 0:
                return "invalid", "build failed" if rc is not None else "build timeout", time.monotonic() - start
            verdict = self.test([m["module"]], time.monotonic() + self.args.timeout)
        finally:
            path.write_text(original)
        seconds = time.monotonic() - start
        if verdict == "pass":
            return "survived", "", seconds
        return "killed", verdict, seconds


RESULT_RE = re.compile(r"^(m\d+)\s+(killed|survived|invalid|gone)\s+\S+\s+\[[^\]]*\]\s*(\([^)]*\))?")


def read_results(out):
    done = {}
    if out and out.is_file():
        for line in out.read_text().splitlines():
            m = RESULT_RE.match(line)
            if m:
                done[m.group(1)] = (m.group(2), (m.group(3) or "()")[1:-1])
    return done


def format_results(mutants, results, header):
    lines = list(header)
    lines.append("")
    for m in mutants:
        if m["id"] not in results:
            continue
        status, detail = results[m["id"]]
        lines.append(f"{m['id']:<4} {status:<8} {m['file']}:{m['line']} [{m['op']} #{m['occurrence']}]"
                     + (f" ({detail})" if detail else ""))
        lines.append(f"       - {m['before']}")
        if status != "gone":
            lines.append(f"       + {m['after']}")
    counts = {s: 0 for s in ("killed", "survived", "invalid", "gone")}
    for status, _ in results.values():
        counts[status] += 1
    valid = counts["killed"] + counts["survived"]
    rate = f"{100.0 * counts['killed'] / valid:.1f} %" if valid else "n/a"
    pending = sum(1 for m in mutants if m["id"] not in results)
    lines += ["", f"kill rate: {counts['killed']}/{valid} = {rate}"
              f" (killed {counts['killed']}, survived {counts['survived']}, invalid {counts['invalid']},"
              f" gone {counts['gone']}, not run {pending})"]
    survivors = [m for m in mutants if results.get(m["id"], ("",))[0] == "survived"]
    if survivors:
        lines.append("survivors: " + " ".join(m["id"] for m in survivors))
    return "\n".join(lines) + "\n"


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--repo", default=str(Path(__file__).resolve().parents[1]),
                    help="repository to mutate (default: this script's checkout)")
    ap.add_argument("--scratch", help="scratch copy (default /work/mutants-scratch/<repo folder name>)")
    ap.add_argument("--size", type=int, default=64, help="mutants to sample (default 64)")
    ap.add_argument("--seed", type=int, default=2026)
    ap.add_argument("--sample", metavar="FILE", help="write the sampled mutants to FILE (JSON)")
    ap.add_argument("--replay", metavar="FILE", help="run the mutants of FILE, re-located by line text")
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--sites", action="store_true", help="print the site counts per module and operator")
    ap.add_argument("--only", help="comma-separated mutant ids to (re)run; other results of --out are kept")
    ap.add_argument("--out", metavar="FILE", help="results file, rewritten after every mutant")
    ap.add_argument("--resume", action="store_true", help="skip the mutants already in --out")
    ap.add_argument("--timeout", type=float, default=300, help="seconds of tests per mutant (default 300)")
    ap.add_argument("--build-timeout", type=float, default=1800)
    ap.add_argument("--build-jobs", type=int, default=2)
    ap.add_argument("--jobs", type=int, default=1, help="mutants at a time, each in its own scratch copy")
    ap.add_argument("--no-baseline", action="store_true",
                    help="skip the check that the unmutated copy builds and passes")
    args = ap.parse_args()

    repo = Path(args.repo).resolve()
    if args.replay:
        sample = json.loads(Path(args.replay).read_text())
        mutants = locate(repo, sample["mutants"])
        seed, size = sample.get("seed"), len(mutants)
    else:
        sites = enumerate_sites(repo)
        if args.sites:
            for mod in MODULES:
                ops = {}
                for s in sites:
                    if s["module"] == mod:
                        ops[s["op"]] = ops.get(s["op"], 0) + 1
                print(f"{mod:<9} {sum(ops.values()):>5}  " + " ".join(f"{o}={n}" for o, n in sorted(ops.items())))
            print(f"total     {len(sites):>5}")
            return 0
        mutants = stratified_sample(sites, args.size, args.seed)
        for m in mutants:
            m["gone"] = False
        seed, size = args.seed, len(mutants)
        if args.sample:
            keep = ("id", "module", "file", "line_text", "op", "occurrence", "line", "before", "after")
            Path(args.sample).write_text(json.dumps(
                {"seed": args.seed, "size": args.size, "sites": len(sites),
                 "mutants": [{k: m[k] for k in keep} for m in mutants]}, indent=1) + "\n")
    if args.list:
        for m in mutants:
            state = "gone" if m["gone"] else f"{m['file']}:{m['line']}"
            print(f"{m['id']:<4} {state} [{m['op']} #{m['occurrence']}]\n       - {m['before']}"
                  + ("" if m["gone"] else f"\n       + {m['after']}"))
        per = {mod: sum(1 for m in mutants if m["module"] == mod) for mod in MODULES}
        print(f"{len(mutants)} mutants: " + ", ".join(f"{k} {v}" for k, v in per.items()))
        return 0

    out = Path(args.out) if args.out else None
    only = set(args.only.split(",")) if args.only else None
    # --only keeps the other results of --out and reruns the named ones.
    results = read_results(out) if args.resume or only else {}
    for mid in only or ():
        results.pop(mid, None)
    todo = [m for m in mutants if (only is None or m["id"] in only) and m["id"] not in results]
    for m in todo:
        if m["gone"]:
            results[m["id"]] = ("gone", "")
    todo = [m for m in todo if not m["gone"]]

    commit = subprocess.run(["git", "-C", str(repo), "rev-parse", "--short", "HEAD"],
                            stdout=subprocess.PIPE, text=True).stdout.strip()
    header = [f"# mutation check of {repo.name} at {commit}, {datetime.datetime.now():%Y-%m-%d %H:%M}",
              f"# {size} mutants, seed {seed}" + (f", replayed from {args.replay}" if args.replay else "")
              + f"; per-mutant test limit {args.timeout:.0f} s (a timeout is a kill)",
              "# tests: unit_tests, then the mutated module's end-to-end files:"]
    header += [f"#   {mod}: " + " ".join(E2E_FILES[mod] + EVERY_MODULE) for mod in MODULES]
    header.append("#   (missing files skipped)")
    lock = threading.Lock()

    def record(m, status, detail, seconds):
        with lock:
            results[m["id"]] = (status, ", ".join(x for x in (detail, f"{seconds:.0f} s") if x))
            print(f"{m['id']:<4} {status:<8} {m['file']}:{m['line']} [{m['op']} #{m['occurrence']}] "
                  f"{m['before']}  ->  {m['after']}  ({results[m['id']][1]})", flush=True)
            if out:
                out.write_text(format_results(mutants, results, header))

    if not todo:
        text = format_results(mutants, results, header)
        if out:
            out.write_text(text)
        print("nothing left to run\n" + text.rstrip().split("\n\n")[-1])
        return 0

    scratch_base = Path(args.scratch) if args.scratch else Path("/work/mutants-scratch") / repo.name
    runners = []
    for j in range(max(1, args.jobs)):
        scratch = scratch_base if j == 0 else Path(f"{scratch_base}-{j + 1}")
        sync_scratch(repo, scratch)
        runner = Runner(scratch, args)
        runner.configure()
        if not args.no_baseline:
            print(f"baseline check in {scratch} (log {runner.log})", flush=True)
            runner.baseline()
        runners.append(runner)
    print(f"{len(todo)} mutants to run; log: {runners[0].log}", flush=True)

    free = list(runners)
    free_lock = threading.Lock()

    def work(m):
        with free_lock:
            runner = free.pop()
        try:
            status, detail, seconds = runner.run(m)
        finally:
            with free_lock:
                free.append(runner)
        record(m, status, detail, seconds)

    with concurrent.futures.ThreadPoolExecutor(max_workers=len(runners)) as pool:
        for f in [pool.submit(work, m) for m in todo]:
            f.result()
    text = format_results(mutants, results, header)
    if out:
        out.write_text(text)
    print(text.rstrip().split("\n")[-2 if "survivors" in text else -1])
    if "survivors" in text:
        print(text.rstrip().split("\n")[-1])
    return 0


if __name__ == "__main__":
    sys.exit(main())
