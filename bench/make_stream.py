#!/usr/bin/env python3
"""Writes a long transport stream by repeating a capture.

Each repetition has its continuity counters shifted per PID so that the
stream stays continuous across the seams: a parser sees no continuity
error that the capture itself does not hold. PCR, PTS and section
versions are left as they are.

usage: make_stream.py INPUT OUTPUT MEGABYTES
"""
import sys

PACKET = 188


def cc_steps(data):
    """Per PID: the counter shift one repetition needs, and the packet offsets."""
    first = {}
    last = {}
    offsets = {}
    for pos in range(0, len(data) - PACKET + 1, PACKET):
        if data[pos] != 0x47:
            continue
        pid = ((data[pos + 1] & 0x1F) << 8) | data[pos + 2]
        if pid == 0x1FFF:
            continue
        cc = data[pos + 3] & 0x0F
        has_payload = bool(data[pos + 3] & 0x10)
        if pid not in first:
            first[pid] = (cc, has_payload)
        last[pid] = cc
        offsets.setdefault(pid, []).append(pos + 3)
    steps = {}
    for pid, (cc, has_payload) in first.items():
        steps[pid] = (last[pid] + (1 if has_payload else 0) - cc) & 0x0F
    return steps, offsets


def variant(data, steps, offsets, repetition):
    out = bytearray(data)
    for pid, step in steps.items():
        shift = (step * repetition) & 0x0F
        if shift == 0:
            continue
        for off in offsets[pid]:
            b = out[off]
            out[off] = (b & 0xF0) | (((b & 0x0F) + shift) & 0x0F)
    return bytes(out)


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    src, dst, megabytes = sys.argv[1], sys.argv[2], float(sys.argv[3])
    with open(src, "rb") as f:
        data = f.read()
    data = data[: len(data) - len(data) % PACKET]
    if not data:
        sys.exit("make_stream.py: %s holds no whole packet" % src)
    steps, offsets = cc_steps(data)
    # The shift of repetition r is r * step modulo 16: sixteen variants cover all.
    variants = [variant(data, steps, offsets, r) for r in range(16)]
    target = int(megabytes * 1e6)
    repetitions = max(1, -(-target // len(data)))
    with open(dst, "wb") as f:
        for r in range(repetitions):
            f.write(variants[r % 16])
    print(repetitions * len(data))


if __name__ == "__main__":
    main()
