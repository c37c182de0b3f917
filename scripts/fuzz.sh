#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz/, writes their seed corpora, and runs each target
# for SECONDS (default 60). Fails when any target finds a crash, a leak, a timeout or an
# input that takes too much memory; the input is saved under build-fuzz/fuzz-artifacts/.
#   scripts/fuzz.sh            60 seconds per target
#   scripts/fuzz.sh 600 image  10 minutes, the image target only
# See docs/fuzzing.md for long runs and what to do with a finding.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(msgpack experiment result image)
fi

scripts/setup.sh

build_dir=build-fuzz
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g" \
      -DKORVALIN_FUZZ=ON >/dev/null
cmake --build "$build_dir" -j "$(nproc)" --target fuzz

# Seeds are made afresh; the corpus of what the runs found grows from run to run.
rm -rf "$build_dir/fuzz-seeds"
"$build_dir/tests/fuzz/make_fuzz_seeds" "$build_dir/fuzz-seeds"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:allocator_may_return_null=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=()
for t in "${targets[@]}"; do
  corpus="$build_dir/fuzz-corpus/$t"
  artifacts="$build_dir/fuzz-artifacts/$t/"
  regressions="tests/fuzz/regressions/$t"
  mkdir -p "$corpus" "$artifacts" "$regressions"
  echo "== fuzzing $t for ${seconds}s"
  # The corpus comes first: new inputs are written there, never into the seeds or regressions,
  # all of which are run once at the start.
  if ! "$build_dir/tests/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 \
       -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts" \
       "$corpus" "$build_dir/fuzz-seeds/$t" "$regressions" 2>"$build_dir/fuzz-$t.log"; then
    failed+=("$t")
    tail -n 60 "$build_dir/fuzz-$t.log"
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb" "$build_dir/fuzz-$t.log" || true
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]} (inputs in $build_dir/fuzz-artifacts/)" >&2
  exit 1
fi
echo "fuzzing: no problem found"
