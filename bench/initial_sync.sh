#!/usr/bin/env bash
# Initial sync of a brain of many small files into an empty mirror folder:
# halvark-provider against a plain HTTP copy of the same files, in one run.
#
#   bench/initial_sync.sh [FOLDERS FILES_PER_FOLDER BYTES]   # default 100 100 4096
#   HALVARK_BUILD_DIR=build-x HALVARK_BENCH_RUNS=5 bench/initial_sync.sh
#   HALVARK_BENCH_WRAP="strace -f -c -o /tmp/s" bench/initial_sync.sh   # profile the provider
#
# Not timed: initial_sync_setup seeds a halvark-devserver brain (and the same
# files in a local folder) and leaves a signed-in container whose store
# already holds the brain's tree. Timed, HALVARK_BENCH_RUNS times each (3 by
# default, fastest kept), each from a fresh copy of that container:
#   - `halvark-provider --once` from its start until it exits with every file
#     on disk;
#   - the baseline: `rclone copy` from `rclone serve http` of the local
#     folder on loopback, with as many transfers as the provider's pool.
# Peak RSS of halvark-provider and of rclone copy (not of either server)
# comes from /usr/bin/time. Both copies are checked against the source with
# diff -r. The last line is `ratio=R rss_ratio=Q`: ours over rclone's files/s
# and ours over rclone's peak RSS.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVARK_BUILD_DIR:-$root/build}"
runs="${HALVARK_BENCH_RUNS:-3}"
folders="${1:-100}"
per_folder="${2:-100}"
size="${3:-4096}"
files=$((folders * per_folder))
transfers=8

for tool in rclone ss /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "$tool is missing (run scripts/setup)" >&2; exit 1; }
done
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target halvark-provider halvark-devserver initial_sync_setup >/dev/null
provider="$build/provider/halvark-provider"
server="$build/server/halvark-devserver"
setup="$build/bench/initial_sync_setup"

bench_name=initial_sync
# shellcheck source=bench/scratch_system.sh
source "$root/bench/scratch_system.sh"
export RCLONE_CONFIG="$work/rclone.conf"
: >"$RCLONE_CONFIG"
start_devserver

"$setup" "$url" "$work/files" "$folders" "$per_folder" "$size" 2>"$work/setup.log" ||
  fail "set-up failed" "$work/setup.log"
cp -a "$HALVARK_CONTAINER" "$work/container.synced"

rclone serve http "$work/files" --addr 127.0.0.1:0 2>"$work/rclone-serve.log" &
serve_pid=$!
pids+=("$serve_pid")
port=""
for _ in $(seq 100); do
  port="$(ss -ltnpH 2>/dev/null | awk -v p="pid=$serve_pid," 'index($0, p) {sub(/.*:/, "", $4); print $4; exit}')"
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || fail "rclone serve http did not listen" "$work/rclone-serve.log"

now_ns() { date +%s%N; }
count_files() { find "$1" -name .halvark-staging -prune -o -type f -print | wc -l; }
best_ours=0 best_rclone=0 rss_ours=0 rss_rclone=0
for run in $(seq "$runs"); do
  # Each run writes into new folders and nothing is deleted before the end:
  # creating files right after deleting as many costs ext4 a scan past the
  # recently freed inodes, which would measure the previous run.
  export HALVARK_CONTAINER="$work/container-$run" HALVARK_MIRROR="$work/mirror-$run"
  copy="$work/copy-$run"
  cp -a "$work/container.synced" "$HALVARK_CONTAINER"

  t0=$(now_ns)
  /usr/bin/time -f %M -o "$work/ours.rss" ${HALVARK_BENCH_WRAP:-} "$provider" --once 2>"$work/provider.log" ||
    fail "halvark-provider --once failed" "$work/provider.log"
  t1=$(now_ns)
  ours=$((t1 - t0))
  [ "$(count_files "$HALVARK_MIRROR")" -eq "$files" ] ||
    fail "the mirror holds $(count_files "$HALVARK_MIRROR") files, not $files" "$work/provider.log"
  diff -r "$work/files" "$HALVARK_MIRROR/Bench" >/dev/null || fail "the mirror differs from the source"

  t0=$(now_ns)
  /usr/bin/time -f %M -o "$work/rclone.rss" rclone copy :http: "$copy" \
    --http-url "http://127.0.0.1:$port/" --transfers "$transfers" 2>"$work/rclone-copy.log" ||
    fail "rclone copy failed" "$work/rclone-copy.log"
  t1=$(now_ns)
  theirs=$((t1 - t0))
  diff -r "$work/files" "$copy" >/dev/null || fail "rclone's copy differs from the source"

  printf 'run %d: halvark-provider %.2f s, %s KB; rclone copy %.2f s, %s KB\n' "$run" \
    "$(awk -v n="$ours" 'BEGIN{print n/1e9}')" "$(tail -n 1 "$work/ours.rss")" \
    "$(awk -v n="$theirs" 'BEGIN{print n/1e9}')" "$(tail -n 1 "$work/rclone.rss")"
  if [ "$best_ours" -eq 0 ] || [ "$ours" -lt "$best_ours" ]; then best_ours=$ours; fi
  if [ "$best_rclone" -eq 0 ] || [ "$theirs" -lt "$best_rclone" ]; then best_rclone=$theirs; fi
  rss_ours=$(( $(tail -n 1 "$work/ours.rss") > rss_ours ? $(tail -n 1 "$work/ours.rss") : rss_ours ))
  rss_rclone=$(( $(tail -n 1 "$work/rclone.rss") > rss_rclone ? $(tail -n 1 "$work/rclone.rss") : rss_rclone ))
done

ours_fps=$(awk -v f="$files" -v n="$best_ours" 'BEGIN{printf "%.0f", f / (n / 1e9)}')
rclone_fps=$(awk -v f="$files" -v n="$best_rclone" 'BEGIN{printf "%.0f", f / (n / 1e9)}')
printf 'halvark-provider --once: %d files in %.2f s = %s files/s, peak RSS %d KB\n' "$files" \
  "$(awk -v n="$best_ours" 'BEGIN{print n/1e9}')" "$ours_fps" "$rss_ours"
printf 'rclone copy (baseline):  %d files in %.2f s = %s files/s, peak RSS %d KB\n' "$files" \
  "$(awk -v n="$best_rclone" 'BEGIN{print n/1e9}')" "$rclone_fps" "$rss_rclone"
awk -v a="$best_ours" -v b="$best_rclone" -v r="$rss_ours" -v q="$rss_rclone" \
  'BEGIN{printf "ratio=%.2f rss_ratio=%.2f\n", b / a, r / q}'
