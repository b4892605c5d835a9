#!/usr/bin/env bash
# The systemd templates as systemd reads them: `systemd-analyze verify` on an instance of
# each, with ExecStart pointed at the built hxagent. Any diagnostic fails the test (systemd
# only warns about an unknown or misspelt setting and goes on). Exit 77 (skipped) where
# systemd-analyze is missing. Usage: systemd_units_test.sh PACKAGING_DIR HXAGENT
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not installed"; exit 77; }
packaging=$1
hxagent=$(realpath "$2")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s#/usr/bin/hxagent#$hxagent#" "$packaging/hxagent-backup@.service" >"$work/hxagent-backup@.service"
cp "$packaging/hxagent-backup@.timer" "$work/"
ln -s hxagent-backup@.service "$work/hxagent-backup@i-1.service"
ln -s hxagent-backup@.timer "$work/hxagent-backup@i-1.timer"

grep -q "^ExecStart=$hxagent " "$work/hxagent-backup@.service" || { echo "FAIL: no ExecStart of /usr/bin/hxagent"; exit 1; }
status=0
out=$(cd "$work" && systemd-analyze verify --man=no ./hxagent-backup@i-1.service ./hxagent-backup@i-1.timer 2>&1) || status=$?
if [[ $status -ne 0 || -n $out ]]; then
    echo "FAIL: systemd-analyze verify (status $status):"
    echo "$out"
    exit 1
fi
echo "systemd units: verified"
