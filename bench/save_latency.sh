#!/usr/bin/env bash
# The time from a local save in the mirror folder to the change being on the
# server, with everything idle before each save: halvark-devserver on
# loopback, the application's side (scheduler, domain controller, the Linux
# file-provider manager) in bench/save_latency.cpp, and the halvark-provider
# it starts. Half of the saves write the file in place, half rename a
# temporary file over it.
#
#   bench/save_latency.sh [SAVES]          # 20 by default
#   HALVARK_BUILD_DIR=build-x bench/save_latency.sh
#
# Not timed: initial_sync_setup seeds a small brain (20 files) and leaves a
# signed-in container whose store holds it. The baseline is the same number
# of writes straight through the API; the output ends with `ratio=R` (saves
# over the baseline) and `median_ms=M`.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVARK_BUILD_DIR:-$root/build}"
saves="${1:-20}"

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target halvark-provider halvark-devserver initial_sync_setup \
  save_latency >/dev/null
server="$build/server/halvark-devserver"

bench_name=save_latency
# shellcheck source=bench/scratch_system.sh
source "$root/bench/scratch_system.sh"
export HALVARK_PROVIDER_PATH="$build/provider/halvark-provider"
start_devserver

"$build/bench/initial_sync_setup" "$url" "$work/files" 1 20 1024 2>"$work/setup.log" ||
  fail "set-up failed" "$work/setup.log"
# The provider that the file-provider manager starts logs here too.
"$build/bench/save_latency" "$url" "$saves" 2>"$work/app.log" ||
  fail "the measurement failed" "$work/app.log"
