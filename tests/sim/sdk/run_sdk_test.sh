#!/usr/bin/env bash
# Starts ecs-sim on an ephemeral port, runs the Node.js SDK test against it, stops it.
# Usage: run_sdk_test.sh <path to ecs-sim>. Exits 77 (skipped) when node or the
# installed SDKs are missing (install them with: npm ci --prefix tests/sim/sdk).
set -u
sim="$1"
here="$(cd "$(dirname "$0")" && pwd)"
if ! command -v node >/dev/null || [ ! -d "$here/node_modules/@alicloud/ecs20140526" ] \
   || [ ! -d "$here/node_modules/@alicloud/pop-core" ]; then
  echo "node or the SDKs are not installed; skipping (npm ci --prefix tests/sim/sdk)"
  exit 77
fi
work="$(mktemp -d)"
out="$work/sim.out"
"$sim" --port 0 --time-scale 0.01 --state-dir "$work/state" >"$out" 2>&1 &
pid=$!
cleanup() { kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
for _ in $(seq 1 100); do
  grep -q "listening on" "$out" && break
  kill -0 "$pid" 2>/dev/null || { cat "$out"; exit 1; }
  sleep 0.1
done
endpoint="$(sed -n 's/^ecs-sim listening on http:\/\///p' "$out" | head -n1)"
[ -n "$endpoint" ] || { echo "ecs-sim did not start"; cat "$out"; exit 1; }
field() { sed -n "s/^  $1: *//p" "$out" | head -n1; }
export HXSIM_HOSTPORT="$endpoint"
export HXSIM_AK="$(field 'access key id')"
export HXSIM_SECRET="$(field 'access secret')"
export HXSIM_BYID="$(field 'device root')/dev/disk/by-id"
proxy_line="$(field 'proxy instance')"
export HXSIM_PROXY="${proxy_line%% *}"
region="${proxy_line##*(}"
export HXSIM_REGION="${region%)}"
node "$here/sdk_test.js"
