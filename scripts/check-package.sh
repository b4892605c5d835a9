#!/usr/bin/env bash
# Checks the Debian packages as a user gets them: unpacks them (dpkg -x, no root, no
# chroot) into a fresh folder, checks the computed dependencies and that every library
# resolves inside that folder, then runs `hxagent --version`, `ecs-sim --version` and
# `hxagent demo` from the unpacked files.
# Usage: scripts/check-package.sh DEB...   (the .deb files of scripts/package.sh)
set -euo pipefail
(($#)) || { echo "usage: $0 DEB..." >&2; exit 2; }
version=$(sed -n 's/^project(hxalicloud VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../CMakeLists.txt")

root=$(mktemp -d "${TMPDIR:-/tmp}/hxagent-package-XXXXXX")
trap 'rm -rf "$root"' EXIT
fail() { echo "check-package: $*" >&2; exit 1; }

for deb in "$@"; do
  dpkg-deb -x "$deb" "$root"
  depends=$(dpkg-deb -f "$deb" Depends)
  [[ $depends == *libc6* ]] || fail "$(basename "$deb"): no computed dependencies (Depends: '$depends')"
done

hxagent=$root/usr/bin/hxagent
for lib in libAliCloudInfo.so libhxframework.so libHXAliCloudSDKCppBridge.so; do
  [ -f "$root/usr/lib/hxagent/$lib" ] || fail "usr/lib/hxagent/$lib is missing"
done
for f in usr/share/man/man1/hxagent.1.gz usr/share/man/man1/ecs-sim.1.gz usr/share/bash-completion/completions/hxagent \
         "usr/share/doc/hxagent/examples/hxagent-backup@.service" "usr/share/doc/hxagent/examples/hxagent-backup@.timer"; do
  [ -f "$root/$f" ] || fail "$f is missing"
done
# Our libraries must come from the unpacked tree (RUNPATH relative to the executable),
# never from a build folder or the system.
for bin in "$hxagent" "$root/usr/lib/hxagent/libAliCloudInfo.so"; do
  ldd "$bin" | awk '/libhxframework|libHXAliCloudSDKCppBridge/ {print $1, $3}' | while read -r lib path; do
    [ "$(realpath -m "$path")" = "$root/usr/lib/hxagent/$lib" ] ||
      fail "$(basename "$bin") loads $lib from '$path', not from the unpacked tree"
  done
done

[ "$("$hxagent" --version)" = "hxagent $version" ] || fail "hxagent --version: '$("$hxagent" --version)'"
[ "$("$root/usr/bin/ecs-sim" --version)" = "ecs-sim $version" ] || fail "ecs-sim --version"
echo "check-package: hxagent $version and ecs-sim unpacked into $root"

# The demo on the built-in emulator, never against a configured cloud; it loads the plug-in
# from usr/lib/hxagent.
env -u ALIBABA_CLOUD_ECS_ENDPOINT -u ALIBABA_CLOUD_ACCESS_KEY_ID -u ALIBABA_CLOUD_ACCESS_KEY_SECRET \
  "$hxagent" demo --state-dir "$root/state" >"$root/demo.log" 2>&1 || { cat "$root/demo.log" >&2; fail "hxagent demo failed"; }
tail -n 3 "$root/demo.log"
echo "check-package: passed"
