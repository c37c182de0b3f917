#!/usr/bin/env bash
# A full disk, for real: runs `korvalin demo` with its store on a small tmpfs that fills up in
# the middle of the run, then again once space is freed. Needs root (it mounts a tmpfs).
#
#   scripts/full_disk.sh [path/to/korvalin]      (default: build/korvalin)
#
# What must happen: the first run ends, within the executor's bounded retries, with the
# experiment's error (exit 1, the message naming the write that failed and "No space left on
# device"); it never hangs. The second run, on the same store with space freed, completes.
set -euo pipefail
cd "$(dirname "$0")/.."
korvalin="${1:-build/korvalin}"
if [ "$(id -u)" -ne 0 ]; then
  echo "full_disk.sh: needs root to mount a tmpfs" >&2
  exit 2
fi
[ -x "$korvalin" ] || { echo "full_disk.sh: no program at $korvalin (build it first)" >&2; exit 2; }

work="$(mktemp -d)"
mnt="$work/store"
mkdir -p "$mnt"
mount -t tmpfs -o size=4m tmpfs "$mnt"
trap 'umount "$mnt" 2>/dev/null || true; rm -rf "$work"' EXIT
export KORVALIN_STORAGE_DIR="$mnt" KORVALIN_CACHE_DIR="$work/cache"

echo "== a small run makes the store"
timeout 120 "$korvalin" demo --yes --points 10 >"$work/first.out" 2>&1 || { cat "$work/first.out"; exit 1; }

echo "== fill the disk but for 300 KiB, then a run that needs more"
free_kib=$(df -k --output=avail "$mnt" | tail -1 | tr -d ' ')
dd if=/dev/zero of="$mnt/filler" bs=1K count=$((free_kib - 300)) status=none
set +e
timeout 300 "$korvalin" demo --yes --points 20000 >"$work/full.out" 2>&1
code=$?
set -e
tail -5 "$work/full.out"
if [ "$code" -eq 124 ]; then echo "FAIL: the run on a full disk hung" >&2; exit 1; fi
if [ "$code" -eq 0 ]; then echo "FAIL: the run on a full disk claims success" >&2; exit 1; fi
grep -qE "No space left on device|disk is full" "$work/full.out" ||
  { echo "FAIL: the error does not say the disk is full" >&2; exit 1; }

echo "== space freed: the next run completes"
rm -f "$mnt/filler"
timeout 120 "$korvalin" demo --yes --points 300 >"$work/after.out" 2>&1 || { cat "$work/after.out"; exit 1; }
grep -q "Result: 300 items" "$work/after.out" || { cat "$work/after.out"; exit 1; }
echo "full_disk.sh: OK (the full disk ended the run with an error; the next run completed)"
