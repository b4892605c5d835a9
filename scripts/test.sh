#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test;
# then, on an optimised build, the Debian packages (built, unpacked, run) and the kill walks
# (hxagent killed after every cloud call of whole jobs), and last the production build
# without the emulator and its tests.
# Usage: scripts/test.sh [extra ctest arguments for the first run; the later steps are skipped]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

# The official Node.js SDKs that check the emulator's wire protocol (locked versions).
if [ -f tests/sim/sdk/package-lock.json ]; then
  npm ci --prefix tests/sim/sdk --no-audit --no-fund --loglevel=error
fi

build=build-test
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHX_SANITIZE=ON -DHX_BUILD_TESTS=ON
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
# The kill walks run hxagent several hundred times: they run below, on an optimised build.
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" -E 'KillWalk' "$@"

if [ "$#" -eq 0 ]; then
  walk=build-walk
  cmake -S . -B "$walk" -DCMAKE_BUILD_TYPE=Release -DHX_BUILD_TESTS=ON
  cmake --build "$walk" -j"$(nproc)" --target e2e_kill_walk_tests hxagent AliCloudInfo HXAliCloudSDKCppBridge
  # The Debian packages from the same optimised tree, unpacked and run as a user gets them.
  mapfile -t debs < <(scripts/package.sh "$walk" "$walk/dist")
  scripts/check-package.sh "${debs[@]}"
  # The walks wait on the emulator's time-scaled transitions as much as they compute.
  ctest --test-dir "$walk" --output-on-failure -j4 -R 'KillWalk'

  # The production configuration, without the emulator: everything it ships builds, and the
  # tests of what differs there (hxagent's commands, the packaged files) pass. The other
  # suites test the same code the sanitizer build above already tested.
  prod=build-prod
  cmake -S . -B "$prod" -DCMAKE_BUILD_TYPE=Release -DHX_SKIP_COMPONENTS=sim -DHX_BUILD_TESTS=ON
  cmake --build "$prod" -j"$(nproc)" --target shipped agent_unit_tests
  ctest --test-dir "$prod" --output-on-failure -j"$(nproc)" -R '^(agent|packaging)\.'
fi
