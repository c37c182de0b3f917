#!/usr/bin/env bash
# The main job: sets up the machine, builds the `korvalin` program and runs `korvalin demo`, a
# whole experiment on the embedded service (no server). Arguments go to `korvalin demo`.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target korvalin
exec build/korvalin demo "$@"
