#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need,
# when any of them is missing. Uses sudo when not run as root.
set -euo pipefail

packages=(
  g++ clang libclang-rt-14-dev cmake ninja-build pkg-config
  libtinyxml2-dev nlohmann-json3-dev libavformat-dev libavcodec-dev libavutil-dev
  libgtest-dev libbenchmark-dev libxml2-dev libxml2-utils python3 chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

sudo=""
if [ "$(id -u)" != 0 ]; then
  sudo=sudo
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y "${missing[@]}"
