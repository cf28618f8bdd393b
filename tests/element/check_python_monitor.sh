#!/bin/sh
# Runs examples/python/monitor.py on the simulated board (preloaded by the caller)
# with a link loss and continuity errors, and checks that its output shows every
# statistics field and the alarms those raise.
set -eu
out=$(/usr/bin/python3 "$1" --device /dev/video0 --source-name cam1 --seconds 5)
echo "$out"
for field in system-time signal-state no-data-count no-link-count no-lock-count range-count unknown-count \
             bitrate raw-bitrate bytes raw-bytes bad-bytes frames dropped-frames fake-frames \
             map-delay-min map-delay-avg map-delay-max push-delay-min push-delay-avg push-delay-max \
             frame-interval-min frame-interval-avg frame-interval-max last-error; do
  echo "$out" | grep -q "^STATS.*[ ,]$field=" || { echo "missing stats field $field"; exit 1; }
done
echo "$out" | grep -q "^STATS .*no-link-count=1" || { echo "the link loss is not counted"; exit 1; }
echo "$out" | grep -q "^ALARM code=501, .*source=cam1, pid=-1, description=Sync lost " || { echo "no sync-lost alarm"; exit 1; }
echo "$out" | grep -q "^CLEAR code=501, " || { echo "the sync-lost alarm did not clear"; exit 1; }
echo "$out" | grep -q "^ALARM code=112, .*description=CC error on PID " || { echo "no CC alarm"; exit 1; }
