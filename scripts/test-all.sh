#!/bin/bash
# Installs what is missing, builds for the PC and for the player (mipsel),
# and runs every test suite inside the sandbox. Stages can be narrowed with
# FILEOP_STAGES (default: "pc mips asan fuzz tsan valgrind").
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
stages=${FILEOP_STAGES:-pc mips asan fuzz tsan valgrind}
jobs=${FILEOP_JOBS:-$(nproc)}

if [[ $(id -u) -ne 0 ]]; then
  echo "run as root (the tests use a private mount namespace)" >&2
  exit 1
fi
bash scripts/install-deps.sh

step() { printf '\n=== %s (%s)\n' "$*" "$(date +%H:%M:%S)"; }
failed=()

build() {  # dir, cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs"
}

run_suite() {  # name, build dir
  local name=$1 dir=$2 log=$2/Testing/Temporary/LastTest.log
  step "tests: $name"
  rm -f "$log"
  if ! tests/sandbox.sh ctest --test-dir "$dir" --output-on-failure --no-tests=error --timeout 1800; then
    failed+=("$name")
  # A suite in which no test ran did not pass: GoogleTest's and pytest's counts.
  elif ! grep -Eq '^\[  PASSED  \] [1-9][0-9]* test' "$log" || ! grep -Eq '\b[1-9][0-9]* passed' "$log"; then
    echo "no unit test or no end-to-end test ran in $name (see $log)"
    failed+=("$name(no-tests)")
  fi
}

step "layering"
bash scripts/check-layers.sh || failed+=(layering)

mkdir -p "$root/build"
for stage in $stages; do
  case $stage in
    pc)
      step "build: PC"
      build "$root/build/pc"
      run_suite pc "$root/build/pc"
      ;;
    mips)
      step "build: mipsel"
      [[ -x $root/build/pc/netfs_client ]] || build "$root/build/pc"
      build "$root/build/mips" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mipsel-linux-gnu.cmake" \
        -DFILEOP_NATIVE_TOOLS_DIR="$root/build/pc"
      file "$root/build/mips/libvantor_command_server_command_file_operation.so"
      run_suite mipsel "$root/build/mips"
      ;;
    asan)
      step "build: PC with AddressSanitizer and UndefinedBehaviorSanitizer"
      build "$root/build/asan" -DFILEOP_SANITIZE=ON
      # Reports of every process (hosts started by the tests included) go to
      # files: any report fails the stage, leaks too.
      rm -rf "$root/build/asan-logs"
      mkdir -p "$root/build/asan-logs"
      chmod 1777 "$root/build/asan-logs"
      ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:log_path='$root/build/asan-logs/asan'" \
        UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_suite asan "$root/build/asan"
      if [[ -n $(ls -A "$root/build/asan-logs") ]]; then
        cat "$root"/build/asan-logs/*
        failed+=(asan-reports)
      fi
      ;;
    fuzz)
      step "fuzz: every target ${FUZZ_SECONDS:-30} s"
      FUZZ_SECONDS=${FUZZ_SECONDS:-30} FUZZ_BUILD_DIR="$root/build/fuzz" fuzz/run.sh || failed+=(fuzz)
      ;;
    tsan)
      step "ThreadSanitizer"
      TSAN_BUILD_DIR="$root/build/tsan" scripts/tsan.sh || failed+=(tsan)
      ;;
    valgrind)
      step "valgrind memcheck over the end-to-end suite"
      [[ -x $root/build/pc/vtr-host ]] || build "$root/build/pc"
      VALGRIND_BUILD_DIR="$root/build/pc" scripts/valgrind-e2e.sh || failed+=(valgrind)
      ;;
    *)
      echo "unknown stage $stage" >&2
      exit 2
      ;;
  esac
done

step "summary"
if ((${#failed[@]})); then
  echo "failed suites: ${failed[*]}"
  exit 1
fi
echo "all suites passed: $stages"
