"""The table of bench/compare.sh: medians, ranges and ratios of its measurements.

Input lines (tab-separated): name, bytes, wall seconds, CPU seconds of the process.
"""
import statistics
import sys

path, rounds, ts_bytes, t2mi_bytes, load0, load1, cores, full_rate, ports = sys.argv[1:]
full_rate = float(full_rate)
ports = [int(p) for p in ports.split()]

wall, cpu, share = {}, {}, {}
for line in open(path):
    name, size, seconds, cpu_seconds = line.rstrip("\n").split("\t")
    size, seconds, cpu_seconds = float(size), float(seconds), float(cpu_seconds)
    wall.setdefault(name, []).append(size / seconds)
    cpu.setdefault(name, []).append(size / cpu_seconds if cpu_seconds else 0.0)
    share.setdefault(name, []).append(cpu_seconds / seconds)


def med(values):
    return statistics.median(values)


def span(values, scale=1e6, fmt="%.0f"):
    return (fmt + "-" + fmt) % (min(values) / scale, max(values) / scale)


def overlap(a, b):
    return min(a) <= max(b) and min(b) <= max(a)


warnings = []


def compare(key, base, what):
    """Ratios key/base by CPU and wall (as text), with overlap warnings."""
    if key not in cpu or base not in cpu:
        return None
    if overlap(cpu[key], cpu[base]):
        warnings.append("warning: %s and %s overlap by CPU (%s and %s MB/cpu-s)%s"
                        % (key, base, span(cpu[key]), span(cpu[base]), what))
    if overlap(wall[key], wall[base]):
        warnings.append("warning: %s and %s overlap by wall (%s and %s MB/s)%s"
                        % (key, base, span(wall[key]), span(wall[base]), what))
    return med(cpu[key]) / med(cpu[base]), med(wall[key]) / med(wall[base])


print("rounds %s, %s cores, load average %s before, %s after" % (rounds, cores, load0, load1))
print("TS stream %.1f MB, T2-MI carrier %.1f MB; medians (and ranges) over the rounds of the input bytes"
      % (int(ts_bytes) / 1e6, int(t2mi_bytes) / 1e6))
print("per wall second and per CPU second of the process; rows marked base_ ran the baseline's plug-in")
print()

rows = [
    ("memory copy (memcpy, 64 MiB)", "memcpy"),
    ("library: synchroniser + parser", "lib_sync_parser"),
    ("library: parser, 16-program multiplex", "lib_parser_mux"),
    ("library: T2-MI decapsulation", "lib_t2mi"),
    ("library: stream analysis (raw bytes)", "lib_analyzer"),
    ("library: stream analysis, 16-program mux", "lib_analyzer_mux"),
    ("fakesrc sizemax=1316 ! fakesink", "fakesrc_1316"),
]
for stream, label in (("ts", "TS"), ("t2mi", "T2-MI")):
    rows += [
        ("%s: filesrc blocksize=1316 ! fakesink" % label, "%s_filesrc_1316" % stream),
        ("%s: filesrc ! tsparse ! fakesink" % label, "%s_tsparse" % stream),
        ("%s: memory 1316 ! fakesink" % label, "%s_memsrc_1316" % stream),
        ("%s: memory 1316 ! tsparse ! fakesink" % label, "%s_tsparse_mem" % stream),
    ]
    for tag in ("", "base_"):
        rows += [
            ("%s%s: vqasicapture, prefilled board" % (tag, label), "%s%s_prefilled" % (tag, stream)),
            ("%s%s: vqasicapture, copying board" % (tag, label), "%s%s_copy" % (tag, stream)),
        ]

print("%-44s %9s %11s %9s %11s" % ("command", "MB/s", "range", "MB/cpu-s", "range"))
for label, key in rows:
    if key not in wall:
        continue
    print("%-44s %9.1f %11s %9.1f %11s" % (label, med(wall[key]) / 1e6, span(wall[key]), med(cpu[key]) / 1e6,
                                          span(cpu[key])))

print()
print("ratios of medians (by CPU, by wall)")
for key, base in (("lib_analyzer", "lib_sync_parser"), ("lib_analyzer_mux", "lib_parser_mux")):
    r = compare(key, base, "")
    if r:
        print("  %-20s / %s %.2f, %.2f" % (key, base, r[0], r[1]))
for tag in ("", "base_"):
    for stream in ("ts", "t2mi"):
        for filling in ("prefilled", "copy"):
            key = "%s%s_%s" % (tag, stream, filling)
            if key not in cpu:
                continue
            parts = []
            for base in ("%s_tsparse_mem" % stream, "%s_tsparse" % stream, "fakesrc_1316"):
                r = compare(key, base, "")
                if r:
                    parts.append("%s %.2f, %.2f" % (base, r[0], r[1]))
            print("  %-20s / %s" % (key, "; ".join(parts)))
if any(k.startswith("base_") for k in cpu):
    for stream in ("ts", "t2mi"):
        for filling in ("prefilled", "copy"):
            key = "%s_%s" % (stream, filling)
            r = compare(key, "base_" + key, "")
            if r:
                print("  %-20s / base_%s: %.2f, %.2f" % (key, key, r[0], r[1]))

if "fakesrc_1316" in cpu:
    floor = full_rate / 8 / med(cpu["fakesrc_1316"])
    floor_range = (full_rate / 8 / max(cpu["fakesrc_1316"]), full_rate / 8 / min(cpu["fakesrc_1316"]))
    print()
    print("GStreamer's own floor for a %.0f Mbit/s port (fakesrc sizemax=1316 ! fakesink, unpaced): "
          "%.2f %% of one core (%.2f-%.2f %%)" % (full_rate / 1e6, 100 * floor, 100 * floor_range[0],
                                                  100 * floor_range[1]))
else:
    floor = None

print()
print("paced %.0f Mbit/s ports, one pipeline each in one process: CPU per port in %% of one core"
      % (full_rate / 1e6))
for tag in ("", "base_"):
    one = None
    for n in ports + ["copy_1"]:
        key = "%spaced_%s" % (tag, n)
        if key not in share:
            continue
        count = 1 if n == "copy_1" else n
        per_port = [s / count for s in share[key]]
        line = "  %-18s %2d port(s): %.2f %% (%.2f-%.2f %%)" % (
            key, count, 100 * med(per_port), 100 * min(per_port), 100 * max(per_port))
        if floor:
            line += ", %.2f x the floor" % (med(per_port) / floor)
        if n == 1:
            one = per_port
        elif one and n != "copy_1":
            line += ", %.2f x one port" % (med(per_port) / med(one))
            if overlap(per_port, one):
                warnings.append("warning: %s and %spaced_1 per-port CPU ranges overlap" % (key, tag))
        print(line)

if "monitor_paced_4" in share:
    per_port = [s / 4 for s in share["monitor_paced_4"]]
    line = "  %-18s %2d port(s): %.2f %% (%.2f-%.2f %%)" % (
        "monitor_paced_4", 4, 100 * med(per_port), 100 * min(per_port), 100 * max(per_port))
    if "paced_4" in share:
        alone = [s / 4 for s in share["paced_4"]]
        line += ", %.2f x the element alone (paced_4; goal: at most 1.5)" % (med(per_port) / med(alone))
        if overlap(per_port, alone):
            warnings.append("warning: monitor_paced_4 and paced_4 per-port CPU ranges overlap")
    print(line)
    print("  (vqasi-monitor: vqasicapture ! tee ! fakesink, the stream analysis of every packet and "
          "the HTTP side, one pipeline a port; steady capture, start left out)")

if warnings:
    print()
    for w in warnings:
        print(w)
