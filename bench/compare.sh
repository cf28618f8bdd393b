#!/usr/bin/env bash
# Speed and cost of the capture path next to GStreamer's own elements and the
# machine's memory bandwidth, on the same bytes, in one run.
#
#   bench/compare.sh [--short] [BUILD_DIR]
#
# BUILD_DIR (or $VQ_BUILD_DIR; default <repo>/build) is configured when it is
# new and the targets needed are built in it. Each round runs every command
# once, in turn, so that the machine's load falls on all of them alike; the
# table gives each command's median over the rounds and its ratio to the
# baselines. --short uses a small stream, three rounds and a short paced run
# (a few seconds in all, for CI); no figure is checked against a threshold.
# Environment: ROUNDS (default 5, 3 with --short), STREAM_MB (200, 4),
# PACED_SECONDS (30, 2).
set -euo pipefail

short=0
build=${VQ_BUILD_DIR:-}
for arg in "$@"; do
    case $arg in
        --short) short=1 ;;
        -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        -*) echo "compare.sh: unknown option $arg" >&2; exit 2 ;;
        *) build=$arg ;;
    esac
done

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${build:-$repo/build}
if [ "$short" = 1 ]; then
    rounds=${ROUNDS:-3}; stream_mb=${STREAM_MB:-4}; paced_s=${PACED_SECONDS:-2}; bench_mb=4; min_time=0.05
else
    rounds=${ROUNDS:-5}; stream_mb=${STREAM_MB:-200}; paced_s=${PACED_SECONDS:-30}; bench_mb=100; min_time=0.5
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target gstvqasicapture vqasisim bench_parser bench_memcpy gst_rate >/dev/null
build=$(cd "$build" && pwd)

work=$build/compare
mkdir -p "$work"
results=$work/results.tsv
: > "$results"

# The streams: captures repeated with their continuity counters carried on.
ts=$work/live-025.${stream_mb}MB.ts
t2mi=$work/t2mi-plp102.${stream_mb}MB.ts
[ -f "$ts" ] || python3 "$repo/bench/make_stream.py" "$repo/tests/data/live-025.ts" "$ts" "$stream_mb" >/dev/null
[ -f "$t2mi" ] || python3 "$repo/bench/make_stream.py" "$repo/tests/data/t2mi-plp102.ts" "$t2mi" "$stream_mb" >/dev/null
ts_bytes=$(stat -L -c %s "$ts")
t2mi_bytes=$(stat -L -c %s "$t2mi")
# The T2-MI run stops once most of the carrier's PLP 102 has come out.
carrier=$(stat -L -c %s "$repo/tests/data/t2mi-plp102.ts")
extracted=$(stat -L -c %s "$repo/tests/data/t2mi-plp102.reference-extracted.ts")
t2mi_out=$(( t2mi_bytes / carrier * extracted * 9 / 10 ))

export GST_PLUGIN_PATH=$build/gst-plugins${GST_PLUGIN_PATH:+:$GST_PLUGIN_PATH}
export GST_REGISTRY=$work/registry.bin
gst_rate=$build/bench/gst_rate
sim=$build/tools/vqasisim/vqasi-sim
summary=$work/sim-summary.txt
full_rate=213000000

# One measurement: name, bytes, wall seconds, CPU seconds of the process.
record() { printf '%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "$4" >> "$results"; }
# The value of key=value among the words of gst_rate's result line.
field() { tr ' ' '\n' | sed -n "s/^$1=//p" | tail -1; }

run_pipeline() {
    local name=$1; shift
    local out
    out=$("$gst_rate" "$@")
    record "$name" "$(echo "$out" | field bytes)" "$(echo "$out" | field seconds)" "$(echo "$out" | field cpu_seconds)"
}

# The element on the unpaced simulator: the board's bytes (from the simulator's
# summary) over the time the pipeline ran. The CPU time includes the simulated
# board's copy of each frame into its buffer.
run_element() {
    local name=$1 input=$2 input_type=$3 stop=$4
    local out
    rm -f "$summary"
    out=$("$sim" --fast -r "$full_rate" -i "$input" --summary "$summary" -- \
        "$gst_rate" --bytes "$stop" --seconds 120 \
        vqasicapture v4l2=/dev/video0 input_type="$input_type" plp=102 ! fakesink name=sink)
    record "$name" "$(sed -n 's/^bytes=//p' "$summary" | head -1)" "$(echo "$out" | field seconds)" \
        "$(echo "$out" | field cpu_seconds)"
}

# One paced full-rate port: the CPU seconds of the process per wall second.
run_paced() {
    local out
    out=$("$sim" --realtime -r "$full_rate" -i "$ts" -- "$gst_rate" --seconds "$paced_s" \
        vqasicapture v4l2=/dev/video0 input_type=0 ! fakesink name=sink)
    record cpu_port "$(echo "$out" | field bytes)" "$(echo "$out" | field seconds)" "$(echo "$out" | field cpu_seconds)"
}

# Google Benchmark rows (CSV: name,iterations,real_time,cpu_time,time_unit,
# bytes_per_second,...; times in ms): bytes, wall and CPU seconds of one iteration.
bench_row() {
    awk -F, -v name="$1" -v key="$2" 'index($1, key) { printf "%s\t%.0f\t%.9f\t%.9f\n", name, $6 * $4 / 1000, $3 / 1000, $4 / 1000 }'
}

run_benchmarks() {
    VQ_BENCH_MB=$bench_mb "$build/bench/bench_parser" --benchmark_format=csv --benchmark_min_time="$min_time" \
        --benchmark_filter='BM_SyncAndParser/65536|BM_ParserMultiplex|BM_T2MI|BM_Analyzer' 2>/dev/null > "$work/bench.csv"
    bench_row lib_sync_parser BM_SyncAndParser < "$work/bench.csv" >> "$results"
    bench_row lib_parser_mux BM_ParserMultiplex < "$work/bench.csv" >> "$results"
    bench_row lib_t2mi BM_T2MI < "$work/bench.csv" >> "$results"
    bench_row lib_analyzer BM_AnalyzerRaw < "$work/bench.csv" >> "$results"
    bench_row lib_analyzer_mux BM_AnalyzerMultiplex < "$work/bench.csv" >> "$results"
    "$build/bench/bench_memcpy" --benchmark_format=csv --benchmark_min_time="$min_time" 2>/dev/null |
        bench_row memcpy BM_Memcpy >> "$results"
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for round in $(seq "$rounds"); do
    echo "round $round/$rounds" >&2
    run_benchmarks
    run_pipeline fakesrc_1316 --bytes "$ts_bytes" fakesrc sizetype=fixed sizemax=1316 filltype=nothing ! fakesink name=sink
    run_pipeline ts_filesrc_1316 filesrc location="$ts" blocksize=1316 ! fakesink name=sink
    run_pipeline ts_tsparse filesrc location="$ts" ! tsparse ! fakesink name=sink
    run_element ts_vqasicapture "$ts" 0 "$ts_bytes"
    run_pipeline t2mi_filesrc_1316 filesrc location="$t2mi" blocksize=1316 ! fakesink name=sink
    run_pipeline t2mi_tsparse filesrc location="$t2mi" ! tsparse ! fakesink name=sink
    run_element t2mi_vqasicapture "$t2mi" 1 "$t2mi_out"
    run_paced
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

python3 - "$results" "$rounds" "$ts_bytes" "$t2mi_bytes" "$load_before" "$load_after" "$(nproc)" <<'PY'
import statistics, sys
path, rounds, ts_bytes, t2mi_bytes, load0, load1, cores = sys.argv[1:]
wall, cpu = {}, {}
for line in open(path):
    name, size, seconds, cpu_seconds = line.rstrip("\n").split("\t")
    wall.setdefault(name, []).append(float(size) / float(seconds))
    cpu.setdefault(name, []).append(float(size) / float(cpu_seconds) if float(cpu_seconds) else 0.0)
med_wall = {k: statistics.median(v) for k, v in wall.items()}
med_cpu = {k: statistics.median(v) for k, v in cpu.items()}
print("rounds %s, %s cores, load average %s before, %s after" % (rounds, cores, load0, load1))
print("TS stream %.1f MB, T2-MI carrier %.1f MB; medians of the input bytes per wall second and"
      % (int(ts_bytes) / 1e6, int(t2mi_bytes) / 1e6))
print("per CPU second of the process (the latter is less disturbed by other load)")
print()
rows = [
    ("memory copy (memcpy, 64 MiB)", "memcpy", None),
    ("library: synchroniser + parser", "lib_sync_parser", "memcpy"),
    ("library: parser, 16-program multiplex", "lib_parser_mux", "memcpy"),
    ("library: T2-MI decapsulation", "lib_t2mi", "memcpy"),
    ("library: stream analysis (raw bytes)", "lib_analyzer", "lib_sync_parser"),
    ("library: stream analysis, 16-program mux", "lib_analyzer_mux", "lib_parser_mux"),
    ("fakesrc sizemax=1316 ! fakesink", "fakesrc_1316", None),
    ("TS: filesrc blocksize=1316 ! fakesink", "ts_filesrc_1316", None),
    ("TS: filesrc ! tsparse ! fakesink", "ts_tsparse", "ts_filesrc_1316"),
    ("TS: vqasicapture input_type=0 ! fakesink", "ts_vqasicapture", "ts_filesrc_1316"),
    ("T2-MI: filesrc blocksize=1316 ! fakesink", "t2mi_filesrc_1316", None),
    ("T2-MI: filesrc ! tsparse ! fakesink", "t2mi_tsparse", "t2mi_filesrc_1316"),
    ("T2-MI: vqasicapture input_type=1 ! fakesink", "t2mi_vqasicapture", "t2mi_filesrc_1316"),
]
print("%-44s %9s %11s %9s %11s  %s" % ("command", "MB/s", "wall range", "MB/cpu-s", "ratio wall", "ratio cpu (to)"))
for label, key, base in rows:
    if key not in med_wall:
        continue
    spread = "%.0f-%.0f" % (min(wall[key]) / 1e6, max(wall[key]) / 1e6)
    ratio_wall = ratio_cpu = ""
    if base and base in med_wall:
        ratio_wall = "%.2f" % (med_wall[key] / med_wall[base])
        ratio_cpu = "%.2f (%s)" % (med_cpu[key] / med_cpu[base], base)
    print("%-44s %9.1f %11s %9.1f %11s  %s" % (label, med_wall[key] / 1e6, spread, med_cpu[key] / 1e6,
                                                ratio_wall, ratio_cpu))
print()
for key, base in (("ts_vqasicapture", "ts_tsparse"), ("t2mi_vqasicapture", "t2mi_tsparse")):
    if key in med_wall and base in med_wall:
        print("%s / %s: %.2f by wall time, %.2f by CPU time"
              % (key, base, med_wall[key] / med_wall[base], med_cpu[key] / med_cpu[base]))
if "cpu_port" in wall:
    share = [r / c if c else 0.0 for r, c in zip(wall["cpu_port"], cpu["cpu_port"])]
    print("CPU per paced 213 Mbit/s port: %.2f %% of one core (median; %.2f-%.2f %%)"
          % (100 * statistics.median(share), 100 * min(share), 100 * max(share)))
if "fakesrc_1316" in med_cpu:
    # What GStreamer itself spends to move a 213 Mbit/s port in 1,316-byte buffers.
    print("GStreamer's own share of such a port (fakesrc sizemax=1316 ! fakesink, unpaced): %.2f %% of one core"
          % (100 * 213e6 / 8 / med_cpu["fakesrc_1316"]))
PY
