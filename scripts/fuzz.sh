#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ and runs each for a while (default
# 30 s) from its seed corpus and the kept regression inputs. Fails when any
# target finds a crash, a leak, a time-out or a broken harness check; the
# input is copied to tests/data/fuzz_regressions/<target>/, where the normal
# test suite (test_fuzz_regressions) replays it from then on.
#
#   scripts/fuzz.sh [seconds-per-target]
#
# FUZZ_BUILD_DIR (default build-fuzz), FUZZ_PARALLEL (targets run side by
# side, default: number of cores, at most 2), FUZZ_TARGETS (a subset, e.g.
# "pat pmt"), FUZZ_ARGS (more libFuzzer options), FUZZ_CXX (default clang++).
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_PER_TARGET=${1:-30}
BUILD=${FUZZ_BUILD_DIR:-build-fuzz}
CORES=$(nproc)
PARALLEL=${FUZZ_PARALLEL:-$(( CORES < 2 ? CORES : 2 ))}
REGRESSIONS=tests/data/fuzz_regressions
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

read -r -a TARGETS <<<"${FUZZ_TARGETS:-$(tr '\n' ' ' < fuzz/targets.txt)}"
read -r -a EXTRA_ARGS <<<"${FUZZ_ARGS:-}"

max_len() {
  case $1 in
    sync|parser|analyzer) echo 12000 ;;
    t2mi) echo 40000 ;;
    descriptors) echo 1024 ;;
    text) echo 256 ;;  # a text field: 8-bit length
    *) echo 4200 ;;  # a section: 12-bit length plus header and selector bytes
  esac
}

uses_dict() {
  case $1 in sync|parser|t2mi|analyzer) return 0 ;; *) return 1 ;; esac
}

# Every parser input builds 8192 PID states; entropic scheduling over their
# many features costs more than it gains at that speed.
entropic() {
  case $1 in parser|t2mi) echo 0 ;; *) echo 1 ;; esac
}

start=$(date +%s)
echo "=== build $BUILD"
cmake -S fuzz -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER="${FUZZ_CXX:-clang++}" >/dev/null
cmake --build "$BUILD" -j "$CORES"
echo "built in $(( $(date +%s) - start )) s"

run_target() {
  local t=$1
  local work="$BUILD/corpus/$t" artifacts="$BUILD/artifacts/$t/"
  rm -rf "$artifacts"
  mkdir -p "$work" "$artifacts"
  local args=(-max_total_time="$SECONDS_PER_TARGET" -max_len="$(max_len "$t")" -rss_limit_mb=2048
              -timeout=10 -entropic="$(entropic "$t")" -print_final_stats=1 -artifact_prefix="$artifacts")
  uses_dict "$t" && args+=(-dict=fuzz/ts.dict)
  args+=("${EXTRA_ARGS[@]}")
  # New inputs go to the work corpus (first directory); seeds stay as committed.
  local dirs=("$work" "fuzz/corpus/$t")
  [ -d "$REGRESSIONS/$t" ] && dirs+=("$REGRESSIONS/$t")
  "$BUILD/fuzz_$t" "${args[@]}" "${dirs[@]}" >"$BUILD/fuzz_$t.log" 2>&1
}

echo "=== fuzz ${#TARGETS[@]} targets, ${SECONDS_PER_TARGET} s each, $PARALLEL at a time"
declare -A status
running=0
for t in "${TARGETS[@]}"; do
  ( set +e; run_target "$t"; echo $? >"$BUILD/fuzz_$t.rc" ) &
  running=$((running + 1))
  if [ "$running" -ge "$PARALLEL" ]; then
    wait -n || true
    running=$((running - 1))
  fi
done
wait || true

failed=0
total_execs=0
printf '%-12s %12s %8s %8s %6s  %s\n' target executions cov ft corpus result
for t in "${TARGETS[@]}"; do
  log="$BUILD/fuzz_$t.log"
  rc=$(cat "$BUILD/fuzz_$t.rc" 2>/dev/null || echo 1)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  line=$(grep -E '^#[0-9]+.*cov: [0-9]+' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$line")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$line")
  corp=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$line")
  result=ok
  details=""
  shopt -s nullglob
  found=("$BUILD/artifacts/$t"/*)
  shopt -u nullglob
  if [ "$rc" != 0 ] || [ "${#found[@]}" -gt 0 ]; then
    result="FAILED (exit $rc)"
    failed=1
    mkdir -p "$REGRESSIONS/$t"
    for f in "${found[@]}"; do
      cp "$f" "$REGRESSIONS/$t/"
      result+=" kept $REGRESSIONS/$t/$(basename "$f")"
    done
    details=$(grep -E 'ERROR: |SUMMARY: |fuzz_[a-z0-9]+: ' "$log" | head -5 | sed 's/^/    /' || true)
  fi
  total_execs=$((total_execs + ${execs:-0}))
  printf '%-12s %12s %8s %8s %6s  %s\n' "$t" "${execs:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "$result"
  [ -n "$details" ] && echo "$details"
done
echo "total executions: $total_execs, run time $(( $(date +%s) - start )) s (logs: $BUILD/fuzz_<target>.log)"
exit $failed
