#!/usr/bin/env bash
# Sets up the machine, builds korvalin_client with its tests and benchmarks, and runs every test.
#   scripts/test.sh                         normal build in build/
#   scripts/test.sh --sanitize address,undefined   sanitizer build in build-address-undefined/
#   scripts/test.sh --sanitize thread -L experiments   ctest arguments after the options
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
if [ "${1:-}" = "--sanitize" ]; then
  sanitize="$2"
  shift 2
fi

scripts/setup.sh

jobs=$(nproc)
if [ -z "$sanitize" ]; then
  build_dir=build
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVALIN_WERROR=ON
else
  build_dir="build-${sanitize//,/-}"
  # Benchmarks are not run under sanitizers; skip building them there.
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVALIN_WERROR=ON \
        -DKORVALIN_SANITIZE="$sanitize" -DKORVALIN_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g"
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
fi
cmake --build "$build_dir" -j "$jobs"
ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" "$@"
