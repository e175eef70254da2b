#!/bin/sh
# scripts/tsan.sh [GTEST_FILTER]
#
# Builds the unit tests with ThreadSanitizer (build/tsan, FILEOP_TSAN=ON) and
# runs them inside tests/sandbox.sh; the ThreadSafety test has 8 threads
# call the run entry for FILEOP_THREAD_SECONDS (default 20 here). Any
# ThreadSanitizer report fails the run (exit code 66).
set -eu
cd "$(dirname "$0")/.."
build=${TSAN_BUILD_DIR:-build/tsan}
filter=${1:-*}
start=$(date +%s)
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DFILEOP_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
make -C "$build" -j2 unit_tests >/dev/null
built=$(date +%s)
export FILEOP_THREAD_SECONDS="${FILEOP_THREAD_SECONDS:-20}"
export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
status=0
{ tests/sandbox.sh "$build/tests/unit_tests" --gtest_color=no --gtest_filter="$filter" 2>&1 || echo "tsan exit $?"; } |
    tee "$build/tsan.log"
status=$(sed -n 's/^tsan exit //p' "$build/tsan.log")
status=${status:-0}
grep -Eq '^\[  PASSED  \] [1-9]' "$build/tsan.log" || { echo "tsan: no test ran"; [ "$status" != 0 ] || status=1; }
end=$(date +%s)
echo "tsan: build $((built - start)) s, tests $((end - built)) s, exit $status"
exit $status
