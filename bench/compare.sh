#!/usr/bin/env bash
# Speed and cost of the capture path next to GStreamer's own elements and the
# machine's memory bandwidth, on the same bytes, in one run.
#
#   bench/compare.sh [--short] [--baseline BASE_BUILD_DIR] [BUILD_DIR]
#
# BUILD_DIR (or $VQ_BUILD_DIR; default <repo>/build) is configured when it is
# new and the targets needed are built in it. Each round runs every command
# once, in turn, so that the machine's load falls on all of them alike; the
# table gives each command's median over the rounds, its range and its ratio to
# the baselines, with a warning where two compared ranges overlap.
# --baseline adds the element rows once more with the plug-in of another build
# (e.g. one of main), alternating with this build's in every round; the
# simulator and the harness are this build's for both. --short uses a small
# stream, three rounds and short paced runs (for CI); no figure is checked
# against a threshold. Environment: ROUNDS (default 5, 3 with --short),
# STREAM_MB (200, 4), PACED_SECONDS (10, 1), PORTS (paced port counts, "1 4 8").
set -euo pipefail

short=0
build=${VQ_BUILD_DIR:-}
baseline=
while [ $# -gt 0 ]; do
    case $1 in
        --short) short=1 ;;
        --baseline) baseline=${2:?--baseline needs a build directory}; shift ;;
        -h|--help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        -*) echo "compare.sh: unknown option $1" >&2; exit 2 ;;
        *) build=$1 ;;
    esac
    shift
done

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${build:-$repo/build}
rounds=${ROUNDS:-5}
ports=${PORTS:-1 4 8}
if [ "$short" = 1 ]; then
    rounds=${ROUNDS:-3}; stream_mb=${STREAM_MB:-4}; paced_s=${PACED_SECONDS:-1}; bench_mb=4; min_time=0.05
else
    stream_mb=${STREAM_MB:-200}; paced_s=${PACED_SECONDS:-10}; bench_mb=100; min_time=0.5
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target gstvqasicapture vqasisim bench_parser bench_memcpy gst_rate vqasi-monitor >/dev/null
build=$(cd "$build" && pwd)
if [ -n "$baseline" ]; then
    baseline=$(cd "$baseline" && pwd)
    [ -d "$baseline/gst-plugins" ] || { echo "compare.sh: no gst-plugins in $baseline" >&2; exit 2; }
fi

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
# The T2-MI runs stop once the PLP of about 90% of the carrier has come out.
carrier=$(stat -L -c %s "$repo/tests/data/t2mi-plp102.ts")
extracted=$(stat -L -c %s "$repo/tests/data/t2mi-plp102.reference-extracted.ts")
t2mi_out=$(( t2mi_bytes / carrier * extracted * 9 / 10 ))
t2mi_scale=$(awk -v c="$carrier" -v e="$extracted" 'BEGIN { printf "%.6f", c / e }')

GST_PLUGIN_PATH_BASE=${GST_PLUGIN_PATH:-}
gst_rate=$build/bench/gst_rate
sim=$build/tools/vqasisim/vqasi-sim
full_rate=213000000

# One measurement: name, bytes, wall seconds, CPU seconds of the process.
record() { printf '%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "$4" >> "$results"; }
# The value of key=value among the words of gst_rate's result line.
field() { tr ' ' '\n' | sed -n "s/^$1=//p" | tail -1; }

# GStreamer finds the plug-in of build $1 (each build its own registry).
with_plugin() {
    local dir=$1; shift
    GST_PLUGIN_PATH=$dir/gst-plugins${GST_PLUGIN_PATH_BASE:+:$GST_PLUGIN_PATH_BASE} \
        GST_REGISTRY=$work/registry-$(echo "$dir" | md5sum | cut -c1-8).bin "$@"
}

run_pipeline() {
    local name=$1; shift
    local out
    out=$(with_plugin "$build" "$gst_rate" "$@")
    record "$name" "$(echo "$out" | field bytes)" "$(echo "$out" | field seconds)" "$(echo "$out" | field cpu_seconds)"
}

# The element on the unpaced simulator. Its input bytes are worked out from the
# bytes that reached the sink in the measured span: the same for TS, and for
# T2-MI scaled by the carrier's size over its PLP's. With --prefilled the
# board's buffers are filled once at stream-on and served without a copy, so
# the CPU time is the element's and GStreamer's (and that one fill); without it
# it includes the simulated board's copy of each frame into its buffer, which a
# real board does by DMA.
run_element() {
    local name=$1 plugin=$2 filling=$3 input=$4 input_type=$5 stop=$6 scale=$7
    local out mode=()
    [ "$filling" = prefilled ] && mode=(--prefilled)
    out=$(with_plugin "$plugin" "$sim" --fast "${mode[@]}" -r "$full_rate" -i "$input" -- \
        "$gst_rate" --bytes "$stop" --seconds 120 \
        vqasicapture v4l2=/dev/video0 input_type="$input_type" plp=102 ! fakesink name=sink)
    record "$name" "$(echo "$out" | field bytes | awk -v s="$scale" '{ printf "%.0f", $1 * s }')" \
        "$(echo "$out" | field seconds)" "$(echo "$out" | field cpu_seconds)"
}

# N paced full-rate ports in one process, one pipeline each: the process's CPU
# seconds per wall second (the table divides by N).
run_paced() {
    local name=$1 plugin=$2 filling=$3 n=$4
    local out devices=() mode=()
    [ "$filling" = prefilled ] && mode=(--prefilled)
    for i in $(seq 0 $((n - 1))); do devices+=(-d "/dev/video$i"); done
    out=$(with_plugin "$plugin" "$sim" --realtime "${mode[@]}" "${devices[@]}" -r "$full_rate" -i "$ts" -- \
        "$gst_rate" --copies "$n" --seconds "$paced_s" \
        vqasicapture v4l2=/dev/video@N@ input_type=0 ! fakesink name=sink)
    record "$name" "$(echo "$out" | field bytes)" "$(echo "$out" | field seconds)" "$(echo "$out" | field cpu_seconds)"
}

# vqasi-monitor with N paced full-rate ports, the stream analysis on each and
# its HTTP side up (not scraped). Like gst_rate, it leaves out the start: the
# process's CPU seconds are read from /proc over PACED_SECONDS of steady
# capture, from 2 s after the launch; the bytes are those its ports captured in
# that span (the JSON line of each port, printed every second).
run_monitor() {
    local name=$1 n=$2
    local devices=() ports=() pid cpu0 cpu1 wall0 wall1
    for i in $(seq 0 $((n - 1))); do devices+=(-d "/dev/video$i"); ports+=(--port "p$i=/dev/video$i"); done
    with_plugin "$build" "$sim" --realtime --prefilled "${devices[@]}" -r "$full_rate" -i "$ts" -- \
        "$build/tools/vqasi_monitor/vqasi-monitor" --json --listen 127.0.0.1:0 --duration $((paced_s + 3)) \
        "${ports[@]}" > "$work/monitor.jsonl" 2>/dev/null &
    local runner=$!
    sleep 2
    pid=$( (grep -lx vqasi-monitor /proc/[0-9]*/comm 2>/dev/null || true) | head -n 1 | cut -d/ -f3)
    [ -n "$pid" ] || { echo "compare.sh: vqasi-monitor did not start" >&2; exit 1; }
    cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
    cpu0=$(cpu_ticks "$pid"); wall0=$(date +%s.%N); local lines0; lines0=$(wc -l < "$work/monitor.jsonl")
    sleep "$paced_s"
    cpu1=$(cpu_ticks "$pid"); wall1=$(date +%s.%N); local lines1; lines1=$(wc -l < "$work/monitor.jsonl")
    wait "$runner"
    local bytes
    bytes=$(python3 -c 'import json, sys
def counters(lines):
    last = {}
    for line in lines:
        port = json.loads(line)
        last[port["name"]] = int(port["statistics"]["Data counter"])
    return last
lines = open(sys.argv[1]).read().splitlines()
before, after = counters(lines[:int(sys.argv[2])]), counters(lines[:int(sys.argv[3])])
print(sum(after[p] - before.get(p, 0) for p in after))' "$work/monitor.jsonl" "$lines0" "$lines1")
    record "$name" "$bytes" "$(awk -v a="$wall0" -v b="$wall1" 'BEGIN { print b - a }')" \
        "$(awk -v a="$cpu0" -v b="$cpu1" -v hz="$(getconf CLK_TCK)" 'BEGIN { print (b - a) / hz }')"
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

# The element rows of one build; `tag` prefixes their names.
run_element_rows() {
    local tag=$1 plugin=$2
    run_element "${tag}ts_prefilled" "$plugin" prefilled "$ts" 0 "$ts_bytes" 1
    run_element "${tag}ts_copy" "$plugin" copy "$ts" 0 "$ts_bytes" 1
    run_element "${tag}t2mi_prefilled" "$plugin" prefilled "$t2mi" 1 "$t2mi_out" "$t2mi_scale"
    run_element "${tag}t2mi_copy" "$plugin" copy "$t2mi" 1 "$t2mi_out" "$t2mi_scale"
}

run_paced_rows() {
    local tag=$1 plugin=$2
    for n in $ports; do
        run_paced "${tag}paced_$n" "$plugin" prefilled "$n"
    done
    run_paced "${tag}paced_copy_1" "$plugin" copy 1
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for round in $(seq "$rounds"); do
    echo "round $round/$rounds" >&2
    run_benchmarks
    run_pipeline fakesrc_1316 --bytes "$ts_bytes" fakesrc sizetype=fixed sizemax=1316 filltype=nothing ! fakesink name=sink
    for stream in ts t2mi; do
        file=$ts; [ "$stream" = t2mi ] && file=$t2mi
        run_pipeline "${stream}_filesrc_1316" filesrc location="$file" blocksize=1316 ! fakesink name=sink
        run_pipeline "${stream}_tsparse" filesrc location="$file" ! tsparse ! fakesink name=sink
        run_pipeline "${stream}_memsrc_1316" vqmemsrc location="$file" blocksize=1316 ! fakesink name=sink
        run_pipeline "${stream}_tsparse_mem" vqmemsrc location="$file" blocksize=1316 ! tsparse ! fakesink name=sink
    done
    # This build and the baseline take turns going first.
    if [ -n "$baseline" ] && [ $((round % 2)) = 1 ]; then
        run_element_rows base_ "$baseline"; run_element_rows "" "$build"
        run_paced_rows base_ "$baseline"; run_paced_rows "" "$build"
    elif [ -n "$baseline" ]; then
        run_element_rows "" "$build"; run_element_rows base_ "$baseline"
        run_paced_rows "" "$build"; run_paced_rows base_ "$baseline"
    else
        run_element_rows "" "$build"
        run_paced_rows "" "$build"
    fi
    run_monitor monitor_paced_4 4
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

python3 "$repo/bench/compare_report.py" "$results" "$rounds" "$ts_bytes" "$t2mi_bytes" "$load_before" \
    "$load_after" "$(nproc)" "$full_rate" "$ports"
