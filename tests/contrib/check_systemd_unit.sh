#!/bin/sh
# Verifies the shipped systemd unit with systemd-analyze, as instance "probe",
# with ExecStart pointing at the built monitor (verify wants an executable).
# Usage: check_systemd_unit.sh UNIT MONITOR. Exit 77: systemd-analyze absent.
set -eu
unit=$1
monitor=$2
if ! command -v systemd-analyze >/dev/null 2>&1; then
  echo "systemd-analyze is not installed: the unit is not checked"
  exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
sed "s|^ExecStart=/usr/bin/vqasi-monitor |ExecStart=$monitor |" "$unit" >"$dir/vqasi-monitor@probe.service"
grep -q "^ExecStart=$monitor --config /etc/vqasi-monitor/%i.conf\$" "$dir/vqasi-monitor@probe.service"
for key in NoNewPrivileges=yes ProtectSystem=strict SupplementaryGroups=video; do
  grep -qx "$key" "$unit" || { echo "$unit: $key missing"; exit 1; }
done
cd "$dir"
out=$(systemd-analyze verify --man=no ./vqasi-monitor@probe.service 2>&1)
status=$?
echo "$out"
# Anything said (an unknown key is only a warning) fails the check.
[ "$status" -eq 0 ] && [ -z "$out" ]
