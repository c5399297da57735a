#!/usr/bin/env bash
# Installs the Debian packages the build needs (only those missing), then
# configures and builds the engine, tq and the tests in the given build
# directory.  Usage: scripts/setup.sh BUILD_DIR [extra cmake arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake make g++ libgtest-dev libgmock-dev libboost-math-dev libcli11-dev nlohmann-json3-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi

build_dir=$1
shift
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
