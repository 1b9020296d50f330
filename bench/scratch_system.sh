# shellcheck shell=bash disable=SC2154  # bench_name and server come from the sourcing script
# Sourced by the benchmarks that run the system's processes: one scratch
# folder for all their state, removed on exit together with every process
# whose id is in `pids`; the environment that points the programs at it (no
# Secret Service answers on its bus, so tokens go to the container's token
# file); and start_devserver, which starts halvark-devserver on loopback
# and leaves its base URL in `url`. Set `bench_name` and `server` (the
# devserver's path) before sourcing.

work="$(mktemp -d)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  exec 3<&- 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "$bench_name: $1" >&2
  [ -n "${2:-}" ] && tail -n 20 "$2" >&2
  exit 1
}

export HALVARK_CONTAINER="$work/container" XDG_CONFIG_HOME="$work/config"
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/runtime" HALVARK_MIRROR="$work/mirror"
export DBUS_SESSION_BUS_ADDRESS="unix:path=$work/no-bus"
unset JOURNAL_STREAM
mkdir -p "$HALVARK_CONTAINER" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME"
mkdir -m 700 "$XDG_RUNTIME_DIR"

start_devserver() {
  mkfifo "$work/url"
  "$server" --quiet >"$work/url" 2>"$work/devserver.log" &
  pids+=($!)
  exec 3<"$work/url"
  # shellcheck disable=SC2034  # read by the sourcing script
  read -r url <&3
}
