#!/usr/bin/env bash
# Drives mgmt_server_sim with the curl command over real TLS and checks what
# a client sees (status, headers, body, curl's result) and what the
# simulator writes down in its record file. The comm tests drive the same
# simulator through the real transport and read its record back (method,
# path, word, request headers, body, TLS version), including its certificate
# checks, its TLS 1.1 cap and a connection closed without an answer; this
# script covers the scenario directives and record details they leave out.
#
# Usage: mgmt_server_sim_test.sh SIMULATOR MAKE_TEST_CERTS
set -uo pipefail

sim=$1
make_certs=$2
work=$(mktemp -d)
sim_pid=
cleanup() {
  [[ -n $sim_pid ]] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

bash "$make_certs" "$work/certs" || { echo "cannot make the test certificates"; exit 1; }
certs=$work/certs

passed=0 failed=0
fail() { echo "not ok - $case: $*"; failed=$((failed + 1)); case_ok=0; }

# start_sim SCENARIO_TEXT [extra options]: starts the simulator, sets port.
start_sim() {
  local text=$1; shift
  stop_sim
  printf '%s' "$text" >"$work/scenario"
  rm -f "$work/record" "$work/sim.out"
  "$sim" --cert "$certs/server.pem" --key "$certs/server.key" --scenario "$work/scenario" \
    --record "$work/record" --lifetime 60 "$@" >"$work/sim.out" 2>"$work/sim.err" &
  sim_pid=$!
  port=
  for _ in $(seq 100); do
    port=$(sed -n '1s/^port \([0-9][0-9]*\)$/\1/p' "$work/sim.out" 2>/dev/null)
    [[ -n $port ]] && return 0
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.05
  done
  echo "simulator did not start: $(cat "$work/sim.err")"
  return 1
}
stop_sim() {
  if [[ -n $sim_pid ]]; then
    kill "$sim_pid" 2>/dev/null
    wait "$sim_pid" 2>/dev/null
    sim_pid=
  fi
}

# post WORD BODY_FILE [curl options]: POSTs like the agent does; leaves the
# reply headers in $work/headers, the body in $work/body, curl's result in rc
# and the HTTP status in status.
post() {
  local word=$1 body=$2; shift 2
  status=$(curl -sS --cacert "$certs/ca.pem" -o "$work/body" -D "$work/headers" -w '%{http_code}' \
    -H 'Corvane-Format-Version: 1.0' -H 'Content-Type: application/x-corvane' \
    -H 'Corvane-Charset: UTF-8' --data-binary "@$body" "$@" \
    "https://127.0.0.1:$port/zelshield/agent/$word" 2>"$work/curl.err")
  rc=$?
}

# has_header NAME VALUE: the last reply holds exactly that header line.
has_header() { grep -qx "$1: $2"$'\r' "$work/headers"; }
# body_is PRINTF_FORMAT: the last reply body is exactly these bytes.
body_is() { printf "$1" >"$work/expected"; cmp -s "$work/expected" "$work/body"; }
# record_field N NAME: the value of the line "NAME ..." in the Nth request block.
record_field() {
  awk -v n="$1" -v key="$2" '
    $1 == "request" { cur = $2 }
    cur == n && index($0, key " ") == 1 { print substr($0, length(key) + 2); exit }' "$work/record"
}
record_count() { grep -c '^request ' "$work/record" 2>/dev/null || echo 0; }
# reply_is WHAT [RC STATUS]: the last post gave this curl result and status (0 200 by default).
reply_is() { ((rc == ${2:-0} && status == ${3:-200})) || fail "$1: curl $rc status $status ($(cat "$work/curl.err"))"; }

# A request body with bytes that a text-only record would lose.
printf 'Data-Format=text/plain\nData-Type=properties\nData-Length=4\n\na=1\n\nEOF_FLAG\n\x00\xff\r' >"$work/request"
request_hex=$(od -An -v -tx1 "$work/request" | tr -d ' \n')
printf 'x' >"$work/x"

# Each case: name | scenario | checks (a function named check_<name>).
run_case() {
  case=$1
  case_ok=1
  if start_sim "$2" "${@:3}"; then
    "check_$case"
  else
    fail "simulator did not start"
  fi
  stop_sim
  case_done
}
case_done() { ((case_ok)) && { echo "ok - $case"; passed=$((passed + 1)); }; }

check_sections_and_record() {
  post testConnection "$work/request"
  reply_is reply
  has_header Corvane-Charset UTF-8 || fail "no Corvane-Charset header"
  grep -qi '^Corvane-Error' "$work/headers" && fail "unexpected Corvane-Error header"
  body_is 'Data-Format=text/plain\nData-Type=properties\nData-Length=19\n\nupdate.policy=true\n\nData-Format=binary/zip\nData-Type=policy\nData-Length=5\n\nPK\x03\x04\x00\nData-Format=text/xml\nData-Type=\nData-Length=8\n\n<a>b</a>\nEOF_FLAG\n' ||
    fail "body differs: $(od -c "$work/body" | head -n 20)"
  [[ $(record_count) == 1 ]] || fail "record holds $(record_count) requests"
  [[ $(record_field 1 body-hex) == "$request_hex" ]] || fail "body-hex $(record_field 1 body-hex)"
  [[ $(record_field 1 body-length) == $(stat -c %s "$work/request") ]] || fail "body-length"
  grep -q '^header REMOTE_' "$work/record" && fail "pseudo header recorded"
}

check_reply_sequence() {
  post register "$work/x"
  reply_is first
  has_header Corvane-Error 300 || fail "first: no Corvane-Error 300"
  has_header Corvane-Charset UTF-16LE || fail "first: no Corvane-Charset UTF-16LE"
  # "db, é!" as UTF-16LE: 6 code units, 12 bytes.
  body_is 'Data-Format=text/plain\nData-Type=stacktrace\nData-Length=12\n\nd\0b\0,\0 \0\xe9\0!\0\nEOF_FLAG\n' ||
    fail "first: body differs: $(od -c "$work/body" | head -n 12)"
  post register "$work/x"
  grep -qi '^Corvane-Error' "$work/headers" && fail "second: Corvane-Error left over"
  body_is 'Data-Format=text/plain\nData-Type=properties\nData-Length=26\n\nguid=4f1c-77\n# note\nx=a=b\n\nEOF_FLAG\n' ||
    fail "second: body differs: $(cat "$work/body")"
  post register "$work/x"
  grep -q '^guid=4f1c-77$' "$work/body" || fail "third: the last reply is not repeated"
  post log "$work/x"
  ((status == 200)) && body_is 'EOF_FLAG\n' || fail "unscripted word: status $status body $(cat "$work/body")"
  [[ $(record_count) == 4 ]] || fail "record holds $(record_count) requests"
  [[ $(record_field 4 word) == log ]] || fail "fourth word $(record_field 4 word)"
}

check_status_and_headers() {
  post update "$work/x"
  reply_is "scripted status" 0 201
  has_header Corvane-Error 12 || fail "no Corvane-Error 12"
  has_header X-Extra 'a b' || fail "no X-Extra header"
  body_is 'Data-Format=text/plain\nData-Type=stacktrace\nData-Length=7\n\nline1\nx\n' || fail "body differs: $(cat "$work/body")"
  post result "$work/x"
  reply_is "default block" 0 400
}

check_path_before_word() {
  post update "$work/x"
  reply_is "word block" 0 202
  local full
  full=$(curl -sS --cacert "$certs/ca.pem" -o /dev/null -w '%{http_code}' -d x "https://127.0.0.1:$port/special/update")
  [[ $full == 203 ]] || fail "full-path block did not win: status $full"
}

check_raw_bodies() {
  post update "$work/x"
  cmp -s "$work/raw" "$work/body" || fail "body-file: $(cat "$work/body")"
  post register "$work/x"
  body_is 'Corvane\r\n\x01' || fail "body text: $(od -c "$work/body")"
}

check_close_and_delay() {
  post log "$work/x"
  reply_is close 52 000
  local t0=$SECONDS
  post update "$work/x" --max-time 1
  reply_is "delay, time-out" 28 000
  post update "$work/x" --max-time 10
  reply_is delay
  ((SECONDS - t0 >= 2)) || fail "delay: answered too fast"
  [[ $(record_count) == 3 ]] || fail "record holds $(record_count) requests (a request without answer must be recorded)"
}

run_case sections_and_record $'# reply with sections\n[testConnection]\ncharset UTF-8\nflag update.policy\nbinary policy hex:504b030400\nxml <a>b</a>\n'
run_case reply_sequence $'[register]\nerror 300\ncharset UTF-16LE\nstacktrace db, \xc3\xa9!\n[register]\nproperties\nguid=4f1c-77\n# note\nx=a=b\nend\n'
run_case status_and_headers $'[update]\nstatus 201\nerror 12\nheader X-Extra: a b\nstacktrace line1\\nx\nno-eof\n[*]\nstatus 400\n'
run_case path_before_word $'[update]\nstatus 202\n[/special/update]\nstatus 203\n'
printf 'Data-Format=binary/zip\nData-Type=logrule\nData-Length=2\n\nzz' >"$work/raw"
run_case raw_bodies $'[update]\nbody-file raw\n[register]\nbody Corvane\\r\\n\\x01\n'
run_case close_and_delay $'[log]\nclose\n[update]\ndelay 2500\n'

# Scenario mistakes are reported with their line and end the simulator.
case=bad_scenario
case_ok=1
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
case=lifetime
case_ok=1
"$sim" --cert "$certs/server.pem" --key "$certs/server.key" --lifetime 1 >/dev/null 2>&1 &
pid=$!
for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$pid" 2>/dev/null; then
  kill "$pid"
  fail "still running after 5 s"
fi
wait "$pid" 2>/dev/null
case_done

echo "$passed passed, $failed failed"
((failed == 0))
