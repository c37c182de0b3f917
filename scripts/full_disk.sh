#!/usr/bin/env bash
# A full disk, for real: runs `korvalin demo` with its store on a small tmpfs, then again once
# space is freed. Needs root (it mounts a tmpfs); without root it is skipped (exit 77, which
# ctest counts as skipped: the test "full_disk", label full_disk).
#
#   scripts/full_disk.sh [path/to/korvalin]      (default: build/korvalin)
#
# Two disks:
#  - 4 MiB with 300 KiB left: the run fills the disk in the middle of its measurements;
#  - 2 MiB with 120 KiB left: the disk is full before the run can even be marked running.
# What must happen on each: the run ends within a minute with the experiment's error (exit 1,
# the message saying the disk is full); it never hangs. The next run, on the same store with
# space freed, completes.
set -euo pipefail
cd "$(dirname "$0")/.."
korvalin="${1:-build/korvalin}"
if [ "$(id -u)" -ne 0 ]; then
  echo "full_disk.sh: skipped: needs root to mount a tmpfs" >&2
  exit 77
fi
[ -x "$korvalin" ] || { echo "full_disk.sh: no program at $korvalin (build it first)" >&2; exit 2; }
korvalin="$(cd "$(dirname "$korvalin")" && pwd)/$(basename "$korvalin")"

work="$(mktemp -d)"
mnt="$work/store"
trap 'umount "$mnt" 2>/dev/null || true; rm -rf "$work"' EXIT
export KORVALIN_CACHE_DIR="$work/cache"

fail() {
  echo "FAIL ($1): $2" >&2
  exit 1
}

# full_disk SIZE_MIB LEFT_KIB POINTS
full_disk() {
  local size=$1 left=$2 points=$3 case="$1 MiB disk, $2 KiB left"
  mkdir -p "$mnt"
  if ! mount -t tmpfs -o "size=${size}m" tmpfs "$mnt"; then
    echo "full_disk.sh: skipped: cannot mount a tmpfs here" >&2
    exit 77
  fi
  export KORVALIN_STORAGE_DIR="$mnt"

  echo "== $case: a small run makes the store"
  timeout 120 "$korvalin" demo --yes --points 10 >"$work/first.out" 2>&1 ||
    { cat "$work/first.out"; fail "$case" "the first run failed"; }

  echo "== $case: fill the disk but for $left KiB, then a run of $points points"
  local free_kib
  free_kib=$(df -k --output=avail "$mnt" | tail -1 | tr -d ' ')
  dd if=/dev/zero of="$mnt/filler" bs=1K count=$((free_kib - left)) status=none
  local start=$SECONDS code=0
  timeout 150 "$korvalin" demo --yes --points "$points" >"$work/full.out" 2>&1 || code=$?
  local took=$((SECONDS - start))
  tail -5 "$work/full.out"
  [ "$code" -ne 124 ] || fail "$case" "the run on a full disk hung"
  [ "$code" -ne 0 ] || fail "$case" "the run on a full disk claims success"
  grep -qE "No space left on device|disk is full" "$work/full.out" ||
    fail "$case" "the error does not say the disk is full"
  [ "$took" -le 60 ] || fail "$case" "the run took $took s to end"

  echo "== $case: space freed, the next run completes"
  rm -f "$mnt/filler"
  timeout 120 "$korvalin" demo --yes --points 300 >"$work/after.out" 2>&1 ||
    { cat "$work/after.out"; fail "$case" "the run after freeing space failed"; }
  grep -q "Result: 300 items" "$work/after.out" ||
    { cat "$work/after.out"; fail "$case" "the run after freeing space is incomplete"; }
  echo "== $case: OK (ended with an error after $took s; the next run completed)"
  umount "$mnt"
}

full_disk 4 300 20000
full_disk 2 120 3000
echo "full_disk.sh: OK"
