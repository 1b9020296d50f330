#!/usr/bin/env bash
# The start-up rescan of an unchanged mirror: halvark-provider's scan of the
# mirror against its local index, next to `find` listing the same tree, in
# one run.
#
#   bench/local_scan.sh [FOLDERS FILES_PER_FOLDER BYTES]   # default 1000 100 64
#   HALVARK_BUILD_DIR=build-x HALVARK_BENCH_RUNS=5 bench/local_scan.sh
#
# Not timed: `local_scan build` writes FOLDERS x FILES_PER_FOLDER files of
# BYTES bytes into a brain folder of a fresh mirror, and the local index the
# provider would hold for it (sizes, mtimes, inodes and SHA-256s). Timed,
# HALVARK_BENCH_RUNS times each (3 by default, fastest kept), with the tree in
# the page cache:
#   - `local_scan scan`: opens the index and scans, as the provider does at
#     start; it must find no change;
#   - the baseline: find MIRROR -printf '%s %T@\n' > /dev/null.
# The last line is `ratio=R`: our time over find's.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVARK_BUILD_DIR:-$root/build}"
runs="${HALVARK_BENCH_RUNS:-3}"
folders="${1:-1000}"
per_folder="${2:-100}"
size="${3:-64}"

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target local_scan >/dev/null
program="$build/bench/local_scan"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
now_ns() { date +%s%N; }

"$program" build "$work/mirror" "$work/index.sqlite" "$folders" "$per_folder" "$size"
find "$work/mirror" -printf '%s %T@\n' >/dev/null  # into the page cache

best_ours=0
best_find=0
for run in $(seq 1 "$runs"); do
  t0=$(now_ns)
  "$program" scan "$work/mirror" "$work/index.sqlite" >"$work/scan.out" ||
    { echo "local_scan: the scan found changes: $(cat "$work/scan.out")" >&2; exit 1; }
  t1=$(now_ns)
  find "$work/mirror" -printf '%s %T@\n' >/dev/null
  t2=$(now_ns)
  ours=$((t1 - t0))
  theirs=$((t2 - t1))
  printf 'run %d: scan %.3f s, find %.3f s\n' "$run" \
    "$(awk -v n="$ours" 'BEGIN{print n/1e9}')" "$(awk -v n="$theirs" 'BEGIN{print n/1e9}')"
  if [ "$best_ours" -eq 0 ] || [ "$ours" -lt "$best_ours" ]; then best_ours=$ours; fi
  if [ "$best_find" -eq 0 ] || [ "$theirs" -lt "$best_find" ]; then best_find=$theirs; fi
done

files=$((folders * per_folder))
printf 'rescan of %d files: %.3f s; find: %.3f s\n' "$files" \
  "$(awk -v n="$best_ours" 'BEGIN{print n/1e9}')" "$(awk -v n="$best_find" 'BEGIN{print n/1e9}')"
awk -v a="$best_ours" -v b="$best_find" 'BEGIN{printf "ratio=%.2f\n", a / b}'
