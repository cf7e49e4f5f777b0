#!/usr/bin/env bash
# Installs, starts and stops the test prevention driver (zelipsdrv.sys, a
# 64-bit driver that both Windows builds make) in a Wine prefix, and sets its
# scenario and record. Builds nothing. The prefix is $WINEPREFIX, which must be set.
#
#   wine-driver.sh install SYS       copy SYS into the prefix's drivers folder
#                                    and register the kernel-driver service
#                                    ZELIPSDriver (started on demand); an
#                                    installed driver is stopped first
#   wine-driver.sh start             start the service (returns once DriverEntry
#                                    has run); a running one is left running
#   wine-driver.sh stop              stop the service (returns once it is
#                                    unloaded); a stopped one is left stopped
#   wine-driver.sh scenario FILE     the scenario: FILE's lines ("-": standard
#                                    input), one directive a line, as driver_sim
#                                    reads them; applied at the next open
#   wine-driver.sh record PATH       the file (a Unix path) the driver appends
#                                    its record to; "-" for none
#
# Settings live under
#   HKLM\SYSTEM\CurrentControlSet\Services\ZELIPSDriver\Parameters
# (Scenario: REG_MULTI_SZ, Record: REG_SZ); the driver reads them on every open.
set -uo pipefail

service=ZELIPSDriver
image=zelipsdrv.sys
image_path="\\SystemRoot\\System32\\drivers\\$image"
key="HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\$service"

die() {
  echo "wine-driver: $*" >&2
  exit 1
}

[[ -n ${WINEPREFIX:-} ]] || die "set WINEPREFIX to the Wine prefix"
[[ -d $WINEPREFIX/drive_c ]] || die "$WINEPREFIX is no initialised Wine prefix"
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

# A Unix path as Wine sees it (every prefix maps Z: to the Unix root).
windows_path() {
  local p
  p=$(realpath -m -- "$1")
  printf 'Z:%s' "${p//\//\\}"
}

# A .reg string: backslashes and double quotes escaped.
reg_text() {
  local t=${1//\\/\\\\}
  printf '"%s"' "${t//\"/\\\"}"
}

# Imports .reg text given on standard input (UTF-8). The file is written as
# UTF-16LE: only then does reg import take hex(7) bytes as UTF-16 (from a
# UTF-8 file it widens each byte on its own). Wine's reg has been seen, rarely,
# to exit 1 without a word (why is not known): a silent failure is tried again
# (twice at most) and reported on standard error.
import_reg() {
  local file log rc attempt
  file=$(mktemp "${TMPDIR:-/tmp}/wine-driver.XXXXXX.reg") || return 1
  log=$file.log
  { printf '\xff\xfe'; iconv -f UTF-8 -t UTF-16LE; } >"$file"
  for attempt in 1 2 3; do
    wine reg import "$(windows_path "$file")" /reg:64 </dev/null >"$log" 2>&1
    rc=$?
    ((rc != 0 && attempt < 3)) && [[ ! -s $log ]] || break
    echo "wine-driver: reg import exited $rc without output; trying again" >&2
    sleep 0.5
  done
  ((rc == 0)) || echo "wine-driver: reg import failed ($rc): $(tr -d '\r' <"$log")" >&2
  rm -f "$file" "$log"
  return "$rc"
}

# Runs the 64-bit "sc ARGS..." and prints the Win32 error it failed with (0:
# none). A kernel-driver service created by the 32-bit sc (plain "wine sc"
# once the 32-bit loader is installed) is started in a 32-bit winedevice.exe,
# which cannot load the 64-bit driver (error 1114); created by the 64-bit sc
# it runs in the 64-bit one, as on 64-bit Windows. Wine's sc tells the error
# only in its diagnostics. Its output goes to a file, not a pipe: the first
# Wine program of a session starts Wine's service processes, which inherit
# its output and outlive it.
wine64=wine
[[ -x /usr/lib/wine/wine64 ]] && wine64=/usr/lib/wine/wine64
sc_error() {
  local file out
  file=$(mktemp "${TMPDIR:-/tmp}/wine-driver.XXXXXX") || return 1
  WINEDEBUG=err+sc "$wine64" sc "$@" </dev/null >"$file" 2>&1
  out=$(tr -d '\r' <"$file")
  rm -f "$file"
  if [[ $out =~ failed\ to\ [a-z]+\ service\ ([0-9]+) ]]; then
    echo "${BASH_REMATCH[1]}"
  elif [[ $out == *Usage:* ]]; then
    printf '%s\n' "$out" >&2
    echo 1
  else
    echo 0
  fi
}

# Text as the hex(7) value of a .reg file: one string a line, then an empty one.
multi_sz_hex() {
  local line
  {
    while IFS= read -r line || [[ -n $line ]]; do
      printf '%s\0' "${line%$'\r'}"
    done
    printf '\0'
  } | iconv -f UTF-8 -t UTF-16LE | od -An -v -tx1 | tr -s ' \n' ',' | sed 's/^,//; s/,$//'
}

cmd=${1:-}
shift || true
case $cmd in
  install)
    [[ $# -eq 1 && -f $1 ]] || die "usage: wine-driver.sh install SYS (an existing file)"
    e=$(sc_error stop "$service")
    [[ $e == 0 || $e == 1060 || $e == 1062 ]] || die "cannot stop $service (error $e)"
    drivers=$WINEPREFIX/drive_c/windows/system32/drivers
    if ! mkdir -p "$drivers" || ! cp -f -- "$1" "$drivers/$image"; then
      die "cannot copy $1 to $drivers"
    fi
    # The service control manager reads the service keys when it starts: a
    # running one learns of a new service only through "sc create" (error
    # 1073: it knows the service already).
    e=$(sc_error create "$service" type= kernel start= demand error= normal binPath= "$image_path")
    [[ $e == 0 || $e == 1073 ]] || die "cannot create the service $service (error $e)"
    import_reg <<EOF || exit 1
Windows Registry Editor Version 5.00

[$key]
"Type"=dword:00000001
"Start"=dword:00000003
"ErrorControl"=dword:00000001
"ImagePath"=$(reg_text "$image_path")
"DisplayName"="ZELIPS test prevention driver"

[$key\\Parameters]
EOF
    ;;
  start)
    e=$(sc_error start "$service")
    [[ $e == 0 || $e == 1056 ]] || die "cannot start $service (error $e)"
    ;;
  stop)
    e=$(sc_error stop "$service")
    [[ $e == 0 || $e == 1062 ]] || die "cannot stop $service (error $e)"
    ;;
  scenario)
    [[ $# -eq 1 ]] || die "usage: wine-driver.sh scenario FILE|-"
    if [[ $1 == - ]]; then
      hex=$(multi_sz_hex)
    else
      [[ -f $1 ]] || die "no file $1"
      hex=$(multi_sz_hex <"$1")
    fi
    import_reg <<EOF
Windows Registry Editor Version 5.00

[$key\\Parameters]
"Scenario"=hex(7):$hex
EOF
    ;;
  record)
    [[ $# -eq 1 ]] || die "usage: wine-driver.sh record PATH|-"
    if [[ $1 == - ]]; then
      value=-
    else
      value=$(reg_text "$(windows_path "$1")")
    fi
    import_reg <<EOF
Windows Registry Editor Version 5.00

[$key\\Parameters]
"Record"=$value
EOF
    ;;
  *)
    sed -n '2,/^set /p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
    exit 2
    ;;
esac
