#!/usr/bin/env bash
# Runs example scripts as a user would, in a fresh work folder, and fails when
# a step exits with another status than expected (0 unless given) or an
# example prints nothing on standard output.
#
#   run_example.sh OMBRIX EXAMPLES WORK STEP [--then STEP]...
#
#   STEP := [--env NAME=VALUE]... [--status N] SCRIPT.lua ARGS...
#                                             an example, run by OMBRIX with
#                                             those variables set
#         | --tls-server DIR                  openssl s_server on 127.0.0.1 with
#                                             DIR/server.pem and DIR/server-key.pem
#         | cmp FILE FILE                     the two files must be identical
#         | check NAME ARGS...                check_NAME.sh beside this script
#                                             must exit 0
#
# WORK is emptied first and is the working folder. It holds sample.txt, 150000
# bytes of text (more than one 100000-byte chunk). In arguments @WORK@ stands
# for WORK and @PORT@ for the port of the last server started.
set -uo pipefail

ombrix=$1 examples=$2 work=$3
shift 3
rm -rf "$work" && mkdir -p "$work" || exit 1
cd "$work" || exit 1
for ((i = 0; i < 3000; ++i)); do printf 'line %04d of the sample file used by the example tests.\n' "$i"; done |
  head -c 150000 >sample.txt

# Secrets reach an example only through --env.
unset OMBRIX_PASSWORD WEBHOOK_SECRET
server_pid=
stop_server() { [[ -n $server_pid ]] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null; }
trap stop_server EXIT
port=

fail() { echo "run_example: $*" >&2; exit 1; }

# Starts the server in the background and waits for the port it reports.
start_server() {  # dir
  command -v openssl >/dev/null || fail "the openssl command is missing"
  stop_server
  local log=$work/s_server.log
  timeout 120 openssl s_server -accept 127.0.0.1:0 -cert "$1/server.pem" -key "$1/server-key.pem" -www \
    </dev/null >"$log" 2>&1 &
  server_pid=$!
  for ((i = 0; i < 100; ++i)); do
    port=$(sed -n 's/^ACCEPT 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$log")
    [[ -n $port ]] && { echo "openssl s_server listens on 127.0.0.1:$port"; return 0; }
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.1
  done
  cat "$log" >&2
  fail "openssl s_server did not start"
}

run_step() {  # the words of one step
  local expected=0 environment=()
  while [[ $1 == --env || $1 == --status ]]; do
    if [[ $1 == --env ]]; then environment+=("$2"); else expected=$2; fi
    shift 2
  done
  local words=() word
  for word in "$@"; do
    word=${word//@WORK@/$work}
    words+=("${word//@PORT@/$port}")
  done
  case ${words[0]} in
    --tls-server) start_server "${words[1]}"; return ;;
    check) "$(dirname "$0")/check_${words[1]}.sh" "${words[@]:2}" || fail "check ${words[1]} failed"; return ;;
    cmp) cmp "${words[1]}" "${words[2]}" || fail "${words[1]} and ${words[2]} differ"; echo "same: ${words[*]:1}"; return ;;
  esac
  local script=$examples/${words[0]}
  echo "\$ ombrix ${words[*]}"
  local out=$work/stdout err=$work/stderr status
  env "${environment[@]}" "$ombrix" "$script" "${words[@]:1}" </dev/null >"$out" 2>"$err"
  status=$?
  cat "$out"
  cat "$err" >&2
  [[ $status == "$expected" ]] || fail "${words[0]} exited with $status, expected $expected"
  # An example that works prints its result; one that is to fail says why.
  if [[ $expected == 0 ]]; then
    [[ -s $out ]] || fail "${words[0]} printed nothing"
  else
    [[ -s $out || -s $err ]] || fail "${words[0]} failed without a word"
  fi
}

step=()
for word in "$@" --then; do
  if [[ $word == --then ]]; then
    [[ ${#step[@]} -gt 0 ]] || fail "empty step"
    run_step "${step[@]}"
    step=()
  else
    step+=("$word")
  fi
done
