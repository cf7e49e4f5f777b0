#!/usr/bin/env bash
# Drives mgmt_server_sim with the curl command over real TLS and checks what
# a client sees (status, headers, body, curl's result) and what the
# simulator writes down in its record file. The comm tests and the
# transcripts drive the same simulator through the real transport (sections,
# server errors, statuses, blocks used in turn, certificates, the TLS 1.1 cap,
# a closed connection, the record's fields as they read them back); this
# script covers the directives and record details they leave out.
#
# Usage: mgmt_server_sim_test.sh SIMULATOR MAKE_TEST_CERTS
set -uo pipefail

sim=$1
work=$(mktemp -d)
certs=$work/certs
sim_pid=
stop_sim() {
  [[ -n $sim_pid ]] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
  sim_pid=
}
trap 'stop_sim; rm -rf "$work"' EXIT
bash "$2" "$certs" || { echo "cannot make the test certificates"; exit 1; }

passed=0 failed=0
fail() { echo "not ok - $case: $*"; failed=$((failed + 1)); case_ok=0; }
case_done() { ((case_ok)) && { echo "ok - $case"; passed=$((passed + 1)); }; }

# start_sim SCENARIO_TEXT: starts the simulator, sets port.
start_sim() {
  printf '%s' "$1" >"$work/scenario"
  rm -f "$work/record" "$work/sim.out"
  "$sim" --cert "$certs/server.pem" --key "$certs/server.key" --scenario "$work/scenario" \
    --record "$work/record" --lifetime 60 >"$work/sim.out" 2>"$work/sim.err" &
  sim_pid=$!
  for _ in $(seq 100); do
    port=$(sed -n '1s/^port \([0-9][0-9]*\)$/\1/p' "$work/sim.out" 2>/dev/null)
    [[ -n $port ]] && return 0
    sleep 0.05
  done
  return 1
}

# post PATH [curl options]: POSTs the file $body (default "x") to the path
# (a word below /zelshield/agent/, or a full path); leaves the reply headers
# in $work/headers, the body in $work/body, curl's result in rc and the
# HTTP status in status.
post() {
  local path=$1; shift
  [[ $path == /* ]] || path=/zelshield/agent/$path
  status=$(curl -sS --cacert "$certs/ca.pem" -o "$work/body" -D "$work/headers" -w '%{http_code}' \
    -H 'Content-Type: application/x-corvane' --data-binary "@${body:-$work/x}" "$@" \
    "https://127.0.0.1:$port$path" 2>"$work/curl.err")
  rc=$?
}
# reply_is WHAT RC STATUS: the last post gave this curl result and status.
reply_is() { ((rc == $2 && status == $3)) || fail "$1: curl $rc status $status ($(cat "$work/curl.err"))"; }
has_header() { grep -qx "$1: $2"$'\r' "$work/headers" || fail "no header \"$1: $2\""; }
# body_is WHAT PRINTF_FORMAT: the last reply body is exactly these bytes.
body_is() { printf "$2" | cmp -s - "$work/body" || fail "$1: body differs: $(od -c "$work/body" | head -n 12)"; }
record_value() { sed -n "s/^$1 //p" "$work/record" | head -n 1; }

# run_case NAME SCENARIO: runs check_NAME against a simulator.
run_case() {
  case=$1 case_ok=1
  if start_sim "$2"; then "check_$case"; else fail "simulator did not start: $(cat "$work/sim.err")"; fi
  stop_sim
  case_done
}

# A request body with bytes that a text-only record would lose.
printf 'Data-Format=text/plain\nData-Type=properties\nData-Length=4\n\na=1\n\nEOF_FLAG\n\x00\xff\r' >"$work/request"
printf 'x' >"$work/x"
printf 'Data-Format=binary/zip\nData-Type=logrule\nData-Length=2\n\nzz' >"$work/raw"

check_sections_and_record() {
  body=$work/request post testConnection
  body_is reply 'Data-Format=binary/zip\nData-Type=policy\nData-Length=5\n\nPK\x03\x04\x00\nData-Format=text/xml\nData-Type=\nData-Length=8\n\n<a>b</a>\nEOF_FLAG\n'
  [[ $(record_value body-hex) == $(od -An -v -tx1 "$work/request" | tr -d ' \n') ]] || fail "body-hex $(record_value body-hex)"
  [[ $(record_value body-length) == $(stat -c %s "$work/request") ]] || fail "body-length"
  grep -q '^header REMOTE_' "$work/record" && fail "pseudo header recorded"
}

check_reply_sequence() {
  post register
  has_header Corvane-Charset UTF-16LE
  # "db, é!" as UTF-16LE: 6 code units, 12 bytes.
  body_is first 'Data-Format=text/plain\nData-Type=stacktrace\nData-Length=12\n\nd\0b\0,\0 \0\xe9\0!\0\nEOF_FLAG\n'
  post register
  body_is second 'Data-Format=text/plain\nData-Type=properties\nData-Length=20\n\nguid=4f1c-77\n# note\n\nEOF_FLAG\n'
  post register
  body_is "third (the last reply again)" 'Data-Format=text/plain\nData-Type=properties\nData-Length=20\n\nguid=4f1c-77\n# note\n\nEOF_FLAG\n'
}

check_headers_escapes_blocks() {
  post update
  has_header X-Extra 'a b'
  body_is "escapes, no EOF_FLAG" 'Data-Format=text/plain\nData-Type=stacktrace\nData-Length=7\n\nline1\nx\n'
  post result
  reply_is "default block" 0 400
  post /special/update
  reply_is "the full path's block before the word's" 0 203
}

check_raw_bodies() {
  post update
  cmp -s "$work/raw" "$work/body" || fail "body-file: $(cat "$work/body")"
  post register
  body_is body 'Corvane\r\n\x01'
}

check_delay() {
  local t0=$SECONDS
  post update --max-time 1
  reply_is "delay, time-out" 28 000
  post update --max-time 10
  reply_is delay 0 200
  ((SECONDS - t0 >= 2)) || fail "delay: answered too fast"
  (($(grep -c '^request ' "$work/record") == 2)) || fail "a request without an answer must be recorded"
}

run_case sections_and_record $'# reply with sections\n[testConnection]\nbinary policy hex:504b030400\nxml <a>b</a>\n'
run_case reply_sequence $'[register]\ncharset UTF-16LE\nstacktrace db, \xc3\xa9!\n[register]\nproperties\nguid=4f1c-77\n# note\nend\n'
run_case headers_escapes_blocks $'[update]\nheader X-Extra: a b\nstacktrace line1\\nx\nno-eof\n[*]\nstatus 400\n[/special/update]\nstatus 203\n'
run_case raw_bodies $'[update]\nbody-file raw\n[register]\nbody Corvane\\r\\n\\x01\n'
run_case delay $'[update]\ndelay 2500\n'

# Scenario mistakes are reported with their line and end the simulator.
case=bad_scenario case_ok=1
printf '[update]\nstatus 200\nfrobnicate 1\n' >"$work/bad"
out=$("$sim" --cert "$certs/server.pem" --key "$certs/server.key" --scenario "$work/bad" 2>&1 >/dev/null)
code=$?
((code == 2)) || fail "exit status $code"
[[ $out == *"bad:3: unknown directive \"frobnicate\""* ]] || fail "message: $out"
printf 'status 200\n' >"$work/bad"
"$sim" --cert "$certs/server.pem" --key "$certs/server.key" --scenario "$work/bad" >/dev/null 2>&1
(($? == 2)) || fail "directive before any block accepted"
case_done

# The simulator ends by itself when its lifetime is over.
case=lifetime case_ok=1
"$sim" --cert "$certs/server.pem" --key "$certs/server.key" --lifetime 1 >/dev/null 2>&1 &
sim_pid=$!
for _ in $(seq 50); do kill -0 "$sim_pid" 2>/dev/null || break; sleep 0.1; done
kill -0 "$sim_pid" 2>/dev/null && fail "still running after 5 s"
stop_sim
case_done

echo "$passed passed, $failed failed"
((failed == 0))
