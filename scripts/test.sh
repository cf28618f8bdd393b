#!/usr/bin/env bash
# Installs what is missing, checks the sources' layout (.clang-format), then
# builds and runs every test suite in a normal build
# and an AddressSanitizer + UndefinedBehaviorSanitizer build, the multi-threaded
# suites under ThreadSanitizer, the library's fuzzers for a bounded time, and the
# install check (installed headers, pkg-config files, example and tools), and the
# Debian packages (built, lintian-clean, installed, used and purged).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh
bash scripts/check-format.sh

JOBS=${JOBS:-$(nproc)}
# Cache hits across clones: paths are hashed relative to the checkout.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1}

passed=0
run_ctest() {
  local dir=$1; shift
  echo "=== test $dir"
  local log="$dir/ctest-summary.log"
  ctest --test-dir "$dir" -j "$JOBS" --output-on-failure "$@" | tee "$log"
  local total
  total=$(sed -n 's/.*tests passed, 0 tests failed out of \([0-9]*\).*/\1/p' "$log")
  passed=$((passed + ${total:-0}))
}

configure_and_build() {
  local dir=$1; shift
  echo "=== build $dir ($*)"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
}

configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$JOBS"
run_ctest build

# The performance comparison in its short mode: it runs, no thresholds.
bash bench/compare.sh --short build

configure_and_build build-asan -DCMAKE_BUILD_TYPE=Debug -DVQ_SANITIZE=ON -DVQ_BUILD_BENCH=OFF
cmake --build build-asan -j "$JOBS"
run_ctest build-asan

# Only the suites labelled "tsan" are built and run under ThreadSanitizer.
configure_and_build build-tsan -DCMAKE_BUILD_TYPE=Debug -DVQ_TSAN=ON -DVQ_BUILD_BENCH=OFF
cmake --build build-tsan -j "$JOBS" --target tsan_suites
run_ctest build-tsan -L tsan

# Coverage-guided fuzzing of the library, a bounded time per target; findings fail the run.
bash scripts/fuzz.sh "${FUZZ_SECONDS:-20}"

# What users get from `cmake --install`.
bash scripts/check-install.sh

# The Debian packages of debian/, as a user installs and uses them.
bash scripts/check-debian.sh

echo "all test runs: $passed passed, 0 failed"
