#!/bin/sh
# scripts/valgrind-e2e.sh [PYTEST_ARG...]
#
# Runs the end-to-end suite (but the HTTP front end's tests) once with every
# vtr-host process under valgrind memcheck (the native build in build/, or
# VALGRIND_BUILD_DIR). Passes when pytest passes with at least one test and
# every valgrind log is empty (valgrind runs with -q, so a log holds only
# errors, bytes definitely lost included).
# Logs: <build>/valgrind-logs/vg.<pid>.log.
#
# Batch requests start detached threads that may still run when a host
# ends: their stacks and buffers show as "possibly lost" or "still
# reachable", which are not errors here; only definite leaks are.
set -eu
cd "$(dirname "$0")/.."
build=${VALGRIND_BUILD_DIR:-build}
start=$(date +%s)
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
make -C "$build" -j2 >/dev/null
build=$(cd "$build" && pwd)
logs="$build/valgrind-logs"
rm -rf "$logs"
mkdir -p "$logs"
chmod 1777 "$logs"  # hosts of other users (permission tests) log here too
export VTR_BUILD_DIR="$build"
# Quoted for the fixtures' shell-like split: the checkout may hold blanks.
export VTR_HOST_WRAPPER="valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite --track-fds=no '--log-file=$logs/vg.%p.log'"
export VTR_REQUEST_TIMEOUT="${VTR_REQUEST_TIMEOUT:-900}"
status=0
# The HTTP front end's tests start no vtr-host: valgrind would watch nothing.
{ tests/sandbox.sh /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e \
    --ignore=tests/e2e/test_cmdserver.py --ignore=tests/e2e/test_cmdserver_load.py "$@" 2>&1 ||
    echo "pytest exit $?"; } |
    tee "$build/valgrind-pytest.log"
status=$(sed -n 's/^pytest exit //p' "$build/valgrind-pytest.log")
status=${status:-0}
# A run in which no test passed is no pass.
grep -Eq '\b[1-9][0-9]* passed' "$build/valgrind-pytest.log" || { echo "valgrind-e2e: no test ran"; status=1; }
hosts=$(ls "$logs" | wc -l)
# With -q a log holds only errors (definite leaks included): any text fails.
bad=$(find "$logs" -type f -size +0 | sort)
end=$(date +%s)
echo "valgrind-e2e: $hosts host processes, $((end - start)) s, pytest exit $status"
if [ -n "$bad" ]; then
    echo "valgrind found problems in:"
    for f in $bad; do
        echo "== $f"
        head -60 "$f"
    done
    exit 1
fi
exit $status
