#!/usr/bin/env bash
# Runs curl_probe against mgmt_server_sim (the Linux build) and checks that
# the probe hands its settings to libcurl and reports what libcurl says. How
# libcurl treats certificates, TLS versions and lost connections is the comm
# tests' (natively and under Wine, through the transport).
#
# Usage: curl_probe_test.sh CURL_PROBE MGMT_SERVER_SIM
# A probe whose name ends in .exe (the Windows build: static libcurl with
# Schannel) runs under Wine, in $WINEPREFIX when set, else in a prefix beside
# the probe's build folder.
set -uo pipefail

probe=$(realpath "$1")
sim=$(realpath "$2")
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
pids=()
windows=0
[[ $probe == *.exe ]] && windows=1
cleanup() {
  local p
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
  ((windows)) && zelips_wine_stop
  rm -rf "$work"
}
trap cleanup EXIT

if ((windows)); then
  source "$root/scripts/wine-env"
  zelips_wine_start "${WINEPREFIX:-$(dirname "$(dirname "$probe")")/wine-curl-probe}" || exit 1
  run_probe() { wine "$probe" "$@"; }
  native_path() { zelips_windows_path "$1"; }
else
  run_probe() { "$probe" "$@"; }
  native_path() { echo "$1"; }
fi
bash "$root/scripts/make-test-certs" "$work/certs" || exit 1

# start NAME CERT [options]: a simulator whose port lands in port_NAME.
start() {
  local name=$1 cert=$2; shift 2
  "$sim" --cert "$work/certs/$cert.pem" --key "$work/certs/$cert.key" --lifetime 120 \
    --record "$work/$name.record" "$@" >"$work/$name.out" 2>"$work/$name.err" &
  pids+=($!)
  local p=
  for _ in $(seq 100); do
    p=$(sed -n '1s/^port \([0-9][0-9]*\)$/\1/p' "$work/$name.out" 2>/dev/null)
    [[ -n $p ]] && break
    sleep 0.05
  done
  [[ -n $p ]] || { echo "simulator $name did not start: $(cat "$work/$name.err")"; exit 1; }
  printf -v "port_$name" '%s' "$p"
}

printf '[register]\nstatus 400\n' >"$work/scenario"
start plain server --scenario "$work/scenario"
start capped server --tls-max 1.1

ca=$(native_path "$work/certs/ca.pem")
other_ca=$(native_path "$work/certs/other-ca.pem")

# name | URL | CA | probe options | expected first line of the output
cases=(
  "right CA|https://127.0.0.1:$port_plain/agent/testConnection|$ca||curl 0 http 200"
  "unrelated CA|https://127.0.0.1:$port_plain/agent/testConnection|$other_ca||curl 60 http 0"
  "TLS 1.1 server, TLS 1.2 selector|https://127.0.0.1:$port_capped/agent/testConnection|$ca||curl 35 http 0"
  "TLS 1.1 server, TLS 1.x selector|https://127.0.0.1:$port_capped/agent/testConnection|$ca|--tls1x|curl 0 http 200"
  "status 400 after POST|https://127.0.0.1:$port_plain/agent/register|$ca|--post Data-Length=0|curl 0 http 400"
)

passed=0 failed=0
verdict() {  # NAME OK DETAIL
  if (($2)); then echo "ok - $1"; passed=$((passed + 1)); else echo "not ok - $1: $3"; failed=$((failed + 1)); fi
}
for c in "${cases[@]}"; do
  IFS='|' read -r name url cafile options expected <<<"$c"
  # Wine's own diagnostics go to standard error; the probe writes to stdout.
  # shellcheck disable=SC2086 # options are words
  out=$(run_probe "$url" "$cafile" $options </dev/null 2>"$work/stderr" | tr -d '\r')
  [[ $(head -n1 <<<"$out") == "$expected" ]]
  verdict "$name" $((! $?)) "expected \"$expected\", got: $out"
done

# The POST body arrived as sent.
grep -qx 'body-hex 446174612d4c656e6774683d30' "$work/plain.record" && grep -qx 'word register' "$work/plain.record"
verdict "POST body recorded" $((! $?)) "$(cat "$work/plain.record")"

echo "$passed passed, $failed failed"
((failed == 0))
