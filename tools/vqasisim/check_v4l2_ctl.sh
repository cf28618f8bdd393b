#!/bin/sh
# v4l2-ctl --all on a simulated node, single- and multi-planar: it must complete
# and see a video capture device with the MPEG transport stream format.
# Usage: check_v4l2_ctl.sh PATH/TO/vqasi-sim SCRATCH_DIR. Exit 77: no v4l2-ctl.
set -u
wrapper=$1
scratch=$2
if ! command -v v4l2-ctl >/dev/null 2>&1; then
    echo "v4l2-ctl is not installed (package v4l-utils): skipped"
    exit 77
fi

status=0
check() {
    label=$1 caps=$2 format=$3
    shift 3
    out="$scratch/v4l2-ctl-$label.txt"
    summary="$scratch/v4l2-ctl-$label.summary"
    rm -f "$summary"
    if ! "$wrapper" -d /dev/vqasi-ctl --summary "$summary" "$@" -- v4l2-ctl -d /dev/vqasi-ctl --all >"$out" 2>&1; then
        echo "FAIL ($label): v4l2-ctl did not complete"; cat "$out"; status=1; return
    fi
    for pattern in "Driver name *: vqasisim" "$caps" "^Format $format:" "Pixel Format *: 'MPEG'"; do
        if ! grep -q "$pattern" "$out"; then
            echo "FAIL ($label): no '$pattern' in:"; cat "$out"; status=1; return
        fi
    done
    if ! grep -q "^ioctl=QUERYCAP calls=" "$summary" 2>/dev/null; then
        echo "FAIL ($label): the simulator wrote no summary of the session"; status=1; return
    fi
    echo "ok ($label)"
}

check single "Video Capture$" "Video Capture"
check mplane "Video Capture Multiplanar$" "Video Capture Multiplanar" --mplane
exit $status
