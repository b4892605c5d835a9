#!/usr/bin/env bash
# Builds the Debian packages: hxagent (the host, the plug-in, the runtime, the bridge, the
# man page, bash completion and systemd examples) and hxagent-ecs-sim (the emulator), with
# dependencies computed from the binaries. A new BUILD_DIR is configured as a Release build
# without sanitizers or tests, with CMAKE_OPTIONS added (-DHX_SKIP_COMPONENTS=sim: the
# production build, no emulator, no hxagent-ecs-sim); an existing one is used as it is.
# Only the shipped targets are built.
# Usage: scripts/package.sh [BUILD_DIR [OUT_DIR [CMAKE_OPTION...]]]   (build-release, dist)
# Prints the paths of the .deb files, one a line, on stdout; everything else goes to stderr.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-release}
out=${2:-dist}
shift $(($# < 2 ? $# : 2))
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DHX_SANITIZE=OFF -DHX_BUILD_TESTS=OFF "$@" >&2
fi
cmake --build "$build" -j"$(nproc)" --target shipped >&2
mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -f "$out"/*.deb
(cd "$build" && cpack -G DEB -B "$out") >&2
ls -1 "$out"/*.deb
