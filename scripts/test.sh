#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test suite twice:
# a normal build and an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh

JOBS=${JOBS:-$(nproc)}
# Cache hits across clones: paths are hashed relative to the checkout.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

run_build() {
  local dir=$1; shift
  echo "=== build $dir ($*)"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
  echo "=== test $dir"
  ctest --test-dir "$dir" -j "$JOBS" --output-on-failure
}

run_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_build build-asan -DCMAKE_BUILD_TYPE=Debug -DVQ_SANITIZE=ON -DVQ_BUILD_BENCH=OFF

# Suites labelled "tsan" (the multi-threaded ones) also run under ThreadSanitizer.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1}
echo "=== build build-tsan"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVQ_TSAN=ON -DVQ_BUILD_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$JOBS" --target tsan_suites
echo "=== test build-tsan"
ctest --test-dir build-tsan -j "$JOBS" -L tsan --output-on-failure --no-tests=ignore

# Coverage-guided fuzzing of the library, a bounded time per target; findings fail the run.
bash scripts/fuzz.sh "${FUZZ_SECONDS:-20}"

# What users get from `cmake --install`: headers, pkg-config files, the example and the tools.
bash scripts/check-install.sh
