#!/usr/bin/env bash
# Runs curl_probe against mgmt_server_sim (the Linux build) and checks what
# libcurl does with the transport's settings: the right CA passes, an
# unrelated CA fails with 60, a certificate for another host name passes
# (host names are not compared), a TLS 1.1 server refuses the TLS 1.2
# selector and accepts the TLS 1.x one, a closed port gives 7, a connection
# closed without an answer gives 52 (56 with Schannel), a POST reaches the
# server whole.
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
  closed_code=56
else
  run_probe() { "$probe" "$@"; }
  native_path() { echo "$1"; }
  closed_code=52
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
start otherhost otherhost
printf '[log]\nclose\n' >"$work/closing.scenario"
start closing server --scenario "$work/closing.scenario"

ca=$(native_path "$work/certs/ca.pem")
other_ca=$(native_path "$work/certs/other-ca.pem")

# name | URL | CA | probe options | expected first line of the output
cases=(
  "right CA|https://127.0.0.1:$port_plain/agent/testConnection|$ca||curl 0 http 200"
  "localhost by name|https://localhost:$port_plain/agent/testConnection|$ca||curl 0 http 200"
  "unrelated CA|https://127.0.0.1:$port_plain/agent/testConnection|$other_ca||curl 60 http 0"
  "certificate for another host|https://127.0.0.1:$port_otherhost/agent/testConnection|$ca||curl 0 http 200"
  "TLS 1.1 server, TLS 1.2 selector|https://127.0.0.1:$port_capped/agent/testConnection|$ca||curl 35 http 0"
  "TLS 1.1 server, TLS 1.x selector|https://127.0.0.1:$port_capped/agent/testConnection|$ca|--tls1x|curl 0 http 200"
  "status 400 after POST|https://127.0.0.1:$port_plain/agent/register|$ca|--post Data-Length=0|curl 0 http 400"
  # Schannel reports a connection closed after the handshake as a receive
  # error (56); libcurl with OpenSSL says "empty reply" (52).
  "connection closed without answer|https://127.0.0.1:$port_closing/agent/log|$ca||curl $closed_code http 0"
  "closed port|https://127.0.0.1:1/agent/testConnection|$ca||curl 7 http 0"
)

passed=0 failed=0
for c in "${cases[@]}"; do
  IFS='|' read -r name url cafile options expected <<<"$c"
  # shellcheck disable=SC2086 # options are words
  # Wine's own diagnostics go to standard error; the probe writes to stdout.
  out=$(run_probe "$url" "$cafile" $options </dev/null 2>"$work/stderr" | tr -d '\r')
  if [[ $(head -n1 <<<"$out") == "$expected" ]]; then
    echo "ok - $name"
    passed=$((passed + 1))
  else
    echo "not ok - $name: expected \"$expected\", got: $out"
    failed=$((failed + 1))
  fi
done

# The POST body arrived as sent.
if grep -qx 'body-hex 446174612d4c656e6774683d30' "$work/plain.record" &&
   grep -qx 'word register' "$work/plain.record"; then
  echo "ok - POST body recorded"
  passed=$((passed + 1))
else
  echo "not ok - POST body recorded: $(cat "$work/plain.record")"
  failed=$((failed + 1))
fi
if grep -qx 'tls TLSv1.1' "$work/capped.record"; then
  echo "ok - TLS 1.1 negotiated with the capped server"
  passed=$((passed + 1))
else
  echo "not ok - TLS 1.1 negotiated with the capped server: $(grep '^tls' "$work/capped.record")"
  failed=$((failed + 1))
fi

echo "$passed passed, $failed failed"
((failed == 0))
