#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when they are missing.
# Safe to run again: it installs nothing when everything is there.
set -euo pipefail

# file and help2man: the Debian package's computed dependencies (cpack) and the man page.
packages=(
  build-essential cmake pkg-config file help2man
  libgtest-dev libgmock-dev libbenchmark-dev
  libcurl4-openssl-dev libssl-dev ca-certificates
  nlohmann-json3-dev libcpp-httplib-dev libcli11-dev
  libsqlite3-dev
  restic rclone
)
# Node.js and npm run the official SDK conformance test of the emulator. A machine may carry
# them from elsewhere than Debian (where Debian's npm package would conflict), so ask for the
# commands, not the packages.
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
