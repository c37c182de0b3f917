#!/usr/bin/env bash
# Installs what korvalin_client needs to build and test, from Debian's packages only
# (clang-14 and its runtimes, with libFuzzer, for scripts/fuzz.sh).
# Safe to run again: it installs nothing when every package is already present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  nlohmann-json3-dev libsqlite3-dev libstb-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcurl4-openssl-dev libssl-dev libboost1.81-dev libjemalloc-dev openssl
  libcli11-dev libhdf5-dev
  python3 python3-dev pybind11-dev python3-msgpack python3-numpy python3-h5py
  python3-pytest python3-matplotlib python3-pandas
  clang-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
