#!/usr/bin/env bash
# Start-up time and request throughput of halvark-devserver on loopback.
#
#   bench/devserver_load.sh [path/to/halvark-devserver] [seconds]
#
# Each figure comes with a baseline measured in the same run, because the
# machine is shared and noisy:
#   - start-up (time until the base URL is printed) against spawning /bin/true;
#   - throughput of an authenticated GET api/sync/brains against the
#     unauthenticated metadata document (the HTTP stack's own ceiling).
# Needs curl and wrk (scripts/setup installs both). Uses loopback only.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
server="${1:-$root/build/server/halvark-devserver}"
duration="${2:-5}"
runs=20
[ -x "$server" ] || { echo "no executable at $server (build the halvark-devserver target)" >&2; exit 1; }
command -v wrk >/dev/null || { echo "wrk is missing (run scripts/setup)" >&2; exit 1; }

now_ns() { date +%s%N; }
work="$(mktemp -d)"
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# Starts the server in the background; sets pid and url.
start_server() {
  rm -f "$work/out"
  mkfifo "$work/out"
  "$server" --quiet --seed demo "$@" >"$work/out" &
  pid=$!
  exec 3<"$work/out"
  read -r url <&3
}
stop_server() {
  kill "$pid"; wait "$pid" 2>/dev/null || true; pid=""
  exec 3<&-
}

# --- start-up -----------------------------------------------------------------
spawn_total=0
start_total=0
for _ in $(seq "$runs"); do
  t0=$(now_ns); /bin/true; t1=$(now_ns)
  spawn_total=$((spawn_total + t1 - t0))
  t0=$(now_ns); start_server; t1=$(now_ns)
  start_total=$((start_total + t1 - t0))
  stop_server
done
spawn_us=$((spawn_total / runs / 1000))
start_us=$((start_total / runs / 1000))

# --- sign in by hand: registration, login form, code exchange with PKCE ------
start_server
redirect="http://127.0.0.1/callback"
verifier="dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"
challenge="E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"
client_id=$(curl -sf "$url/oauth/register" -H 'Content-Type: application/json' \
  -d "{\"client_name\":\"load\",\"redirect_uris\":[\"$redirect\"],\"token_endpoint_auth_method\":\"none\"}" |
  sed -n 's/.*"client_id":"\([^"]*\)".*/\1/p')
location=$(curl -s -o /dev/null -w '%{redirect_url}' "$url/oauth/authorize" \
  --data-urlencode response_type=code --data-urlencode "client_id=$client_id" \
  --data-urlencode "redirect_uri=$redirect" --data-urlencode state=s \
  --data-urlencode "code_challenge=$challenge" --data-urlencode code_challenge_method=S256 \
  -d member=demo -d password=demo -d decision=allow)
code=$(printf '%s' "$location" | sed -n 's/.*[?&]code=\([^&]*\).*/\1/p')
token=$(curl -sf "$url/oauth/token" -d grant_type=authorization_code -d "client_id=$client_id" \
  -d "code=$code" --data-urlencode "redirect_uri=$redirect" -d "code_verifier=$verifier" |
  sed -n 's/.*"access_token":"\([^"]*\)".*/\1/p')
[ -n "$token" ] || { echo "sign-in failed" >&2; exit 1; }
curl -sf "$url/api/sync/brains" -H "Authorization: Bearer $token" >/dev/null

# --- throughput ----------------------------------------------------------------
rps() { wrk -t2 -c8 -d"${duration}s" "$@" | sed -n 's/^Requests\/sec: *\([0-9.]*\).*/\1/p'; }
base_rps=$(rps "$url/.well-known/oauth-authorization-server")
brains_rps=$(rps -H "Authorization: Bearer $token" "$url/api/sync/brains")
stop_server

printf 'start-up:   %d us to the first line (baseline: spawning /bin/true, %d us; ratio %s)\n' \
  "$start_us" "$spawn_us" "$(awk -v a="$start_us" -v b="$spawn_us" 'BEGIN{printf "%.1f", a/(b>0?b:1)}')"
printf 'throughput: GET api/sync/brains %s req/s (baseline: metadata document %s req/s; ratio %s)\n' \
  "$brains_rps" "$base_rps" "$(awk -v a="$brains_rps" -v b="$base_rps" 'BEGIN{printf "%.2f", a/b}')"
