#!/usr/bin/env bash
# pull_result of a finished experiment from Python against the same pull from C++, on one
# embedded store: one merged result of MIB MiB (one float64 column "v"), pulled three times by
# each side in turn, every pull into a fresh empty cache, so each one downloads the merged
# result, writes the complete file and loads it. Prints each pull's seconds and peak RSS, the
# ratio python/cpp per round, its median, and the ratio of the best pulls of each side (this
# machine's page faults make single pulls of fresh GiBs vary by 3x; the best is the cost). The Python pull includes taking r["v"], which
# must be a numpy view of the result's own memory, not a copy.
# Needs a build with -DKORVALIN_BUILD_BENCH=ON and the Python module ($BUILD_DIR/python).
#   bench/python_pull_bench.sh [BUILD_DIR, default build] [MIB, default 1024] [ROUNDS, default 5]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
mib=${2:-1024}
rounds=${3:-5}
program=$build/bench/pull_store_bench
python=/usr/bin/python3
export PYTHONPATH=$build/python

if [ ! -x "$program" ]; then
  echo "no $program: configure $build with -DKORVALIN_BUILD_BENCH=ON and build it" >&2
  exit 1
fi
work=$(mktemp -d /tmp/korvalin-python-pull-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
if ! KORVALIN_STORAGE_DIR=$work/probe-store KORVALIN_CACHE_DIR=$work/probe-cache \
    "$python" -c "import korvalin_client.group.cloud_group, numpy" 2> "$work/import.err"; then
  echo "the Python module cannot be imported from $PYTHONPATH (build its target first):" >&2
  cat "$work/import.err" >&2
  exit 1
fi
rm -rf "$work/probe-store" "$work/probe-cache"
timed=()
[ -x /usr/bin/time ] && timed=(/usr/bin/time -f "%M" -o "$work/rss")

export KORVALIN_STORAGE_DIR=$work/store
echo "making a finished experiment with a $mib MiB result in $KORVALIN_STORAGE_DIR"
exp_id=$("$program" make "$KORVALIN_STORAGE_DIR" "$mib")
items=$((mib * 131072))

# One pull ("cpp" or "python") with a fresh cache; sets `seconds` and `rss` (peak RSS in MiB,
# or "-"). A failed pull, or one that brings the wrong number of items, ends the script.
pull() {
  export KORVALIN_CACHE_DIR=$work/cache-$1
  rm -f "$work/rss"
  if [ "$1" = cpp ]; then
    out=$("${timed[@]}" "$program" pull "$exp_id")
  else
    out=$("${timed[@]}" "$python" - "$exp_id" "$items" <<'PY'
import os, sys, time
from korvalin_client.group.cloud_group import CloudGroup
g = CloudGroup("bench", "origin")
t = time.perf_counter()
r = g.pull_result(int(sys.argv[1]))
v = r["v"]                         # numpy.ndarray over the result's own memory
dt = time.perf_counter() - t
assert v.flags.owndata is False, "copied"
assert len(r) == int(sys.argv[2]) and v.nbytes == 8 * len(r), "not the whole column"
assert v[-1] == (len(r) - 1) * 0.5, "wrong values"
print("python_pull_seconds", dt, "items", len(r))
PY
)
  fi
  rm -rf "$KORVALIN_CACHE_DIR"
  read -r _ seconds _ got <<< "$out"
  if [ "$got" != "$items" ]; then echo "$1 pull: expected $items items, got: $out" >&2; exit 1; fi
  rss=-
  if [ -s "$work/rss" ]; then rss=$(($(tail -n 1 "$work/rss") / 1024)); fi
}

# A first pull, not counted: on this virtual machine the first GiB touched after `make` gave
# its memory back is slow to fault in (5 s against 0.85 s for the same 1 GiB pull after it).
pull cpp
# C++ first in odd rounds, Python first in even ones: neither always follows the other.
ratios=() cpps=() pys=()
for round in $(seq "$rounds"); do
  for side in $([ $((round % 2)) = 0 ] && echo python cpp || echo cpp python); do
    pull "$side"
    if [ "$side" = cpp ]; then cpp=$seconds cpp_rss=$rss; else py=$seconds py_rss=$rss; fi
  done
  ratio=$("$python" -c "print(f'{$py / $cpp:.2f}')")
  ratios+=("$ratio") cpps+=("$cpp") pys+=("$py")
  printf "round %s: cpp %.3f s (peak %s MiB), python %.3f s (peak %s MiB), python/cpp %s\n" \
    "$round" "$cpp" "$cpp_rss" "$py" "$py_rss" "$ratio"
done
echo "median python/cpp: $(printf '%s\n' "${ratios[@]}" | sort -g | sed -n "$(((rounds + 1) / 2))p")"
best_cpp=$(printf '%s\n' "${cpps[@]}" | sort -g | head -n 1)
best_py=$(printf '%s\n' "${pys[@]}" | sort -g | head -n 1)
printf "best: cpp %.3f s, python %.3f s, python/cpp %s\n" "$best_cpp" "$best_py" \
  "$("$python" -c "print(f'{$best_py / $best_cpp:.2f}')")"
