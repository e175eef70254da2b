#!/bin/sh
# fuzz/run.sh [TARGET...]: builds the libFuzzer targets (build/fuzz, clang-14, ASan, UBSan) and runs each
# for FUZZ_SECONDS (default 60) inside tests/sandbox.sh; FUZZ_BUILD_DIR, FUZZ_ARGS (libFuzzer options).
# New inputs go to build/fuzz/corpus/<target> (fuzz/corpus/<target> is only read); a crash leaves its
# input in build/fuzz/artifacts/. Exits non-zero when any target failed.
set -eu
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD_DIR:-build/fuzz}

if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DFILEOP_FUZZ=ON -DFILEOP_TESTS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
make -C "$build" -j2 fuzz_targets >/dev/null
build=$(cd "$build" && pwd)  # absolute: a target may change its working folder
root=$(pwd)

targets=${*:-$(cd "$build/fuzz" && ls fuzz_* | grep -v '\.' || true)}
failed=0 total=0
mkdir -p "$build/artifacts" "$build/logs"
for t in $targets; do
    mkdir -p "$build/corpus/$t" "fuzz/corpus/$t"
    log="$build/logs/$t.log"
    start=$(date +%s)
    # shellcheck disable=SC2086
    if tests/sandbox.sh "$build/fuzz/$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" ${FUZZ_ARGS:-} \
        "$build/corpus/$t" "$root/fuzz/corpus/$t" >"$log" 2>&1; then status=ok; else status=FAILED failed=1; fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    [ "${runs:-0}" -gt 0 ] || { status=FAILED; failed=1; }  # a target that never ran failed
    total=$((total + ${runs:-0}))
    printf '%-20s %-6s %12s executions in %4ss  (log %s)\n' "$t" "$status" "${runs:-?}" \
        "$(( $(date +%s) - start ))" "$log"
    [ "$status" = ok ] || tail -40 "$log"
done
printf 'total %s executions\n' "$total"
[ -n "$targets" ] || { echo "no fuzz target was built"; failed=1; }
exit $failed
