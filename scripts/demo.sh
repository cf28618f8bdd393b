#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the toolkit's benchmarks
# (bit reader/writer and CRC-32 throughput) on this machine.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/vq_graph-ccache}
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
for bench in build/bench/bench_*; do
  [ -x "$bench" ] || continue
  echo "=== $(basename "$bench")"
  "$bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
done
