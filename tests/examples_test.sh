#!/usr/bin/env bash
# examples_test.sh BUILD_DIR - the examples and the demonstration as a person runs them, with what may go wrong.
set -uo pipefail
bin=$(cd "${1:?usage: examples_test.sh BUILD_DIR}/bin" && pwd)
work=$(mktemp -d)
started=()
unset TEVRA_HOME

# Ends what was started and is still there, by its number.
cleanup() {
  local pid
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

failures=0
fail() {
  printf 'FAILED: %s\n' "$*"
  failures=$((failures + 1))
}

# start NAME PROGRAM [ARGUMENT ...]: in the background, output in $work/NAME. Sets pid, and port when it prints one.
start() {
  local name=$1
  shift
  : >"$work/$name"
  # In the foreground timeout passes a signal on once: a second one, in the middle of the leak check at the end, can
  # hang a program built with the address sanitizer.
  timeout --foreground 60 "$bin/$1" "${@:2}" >"$work/$name" 2>"$work/$name.err" &
  pid=$!
  started+=("$pid")
}

listening() {
  start "$@"
  for _ in {1..200}; do
    read -r port <"$work/$1" && return 0
    sleep 0.05
  done
  fail "$1 does not listen: $(cat "$work/$1.err")"
  port=1
}

# ends WHAT CODE: the program that was started last ends by itself with this code.
ends() {
  wait "$pid"
  local code=$?
  [ "$code" = "$2" ] || fail "$1 ended with $code instead of $2: $(cat "$work"/*.err)"
}

# run CODE TEXT PROGRAM [ARGUMENT ...]: ends with the code, and says the text, on either stream.
run() {
  local code=$1 text=$2 said got
  shift 2
  said=$(timeout 60 "$bin/$1" "${@:2}" 2>&1)
  got=$?
  [ "$got" = "$code" ] || fail "$*: code $got instead of $code: $said"
  grep -qF -- "$text" <<<"$said" || fail "$*: no '$text' in: $said"
}

test_pair() {
  local text='how is the weather? äöü'
  listening pair server 127.0.0.1 0
  run 0 "$text" client 127.0.0.1 "$port" "$text"
  ends 'the server' 0
  [ "$(sed -n 2p "$work/pair")" = "$text" ] || fail "the server heard '$(cat "$work/pair")'"
  run 1 ECONNREFUSED client 127.0.0.1 "$port" 'nobody is there'
  run 1 ECONNREFUSED cpp_client 127.0.0.1 "$port" 'nobody is there'
}

test_arguments() {
  local name
  for name in server client cpp_client multi_server cpp_server keys signed_server signed_client datagram_server \
    datagram_client; do
    case $name in keys) run 2 usage keys one two ;; *) run 2 usage "$name" 127.0.0.1 ;; esac
  done
  run 2 usage multi_server 127.0.0.1 0 1001
  run 2 'too long' client "$(printf 'x%.0s' {1..300})" 1 hello
  run 1 SOCK_SERVICE_UNKNOWN client 127.0.0.1 no-such-service hello
}

test_port_in_use() {
  listening first multi_server 127.0.0.1 0
  local first=$pid
  run 1 EADDRINUSE server 127.0.0.1 "$port"
  run 1 EADDRINUSE multi_server 127.0.0.1 "$port"
  kill "$first"
  pid=$first
  ends 'the first server' 0
}

# test_many PROGRAM [CLIENTS]: more clients than the server takes at once; a client that sends nonsense costs nobody
# else anything; a server that is told to stop stops.
test_many() {
  listening many "$1" 127.0.0.1 0 "${@:2}"
  local server=$pid i clients=()
  for i in {1..8}; do
    timeout 60 "$bin/client" 127.0.0.1 "$port" "number $i" >"$work/many.$i" 2>&1 &
    clients+=($!)
  done
  exec 3<>"/dev/tcp/127.0.0.1/$port"
  printf 'GET / HTTP/1.0\r\n\r\n%200s' '' >&3
  for i in {1..8}; do
    wait "${clients[i - 1]}" || fail "client $i of many failed"
    [ "$(cat "$work/many.$i")" = "number $i" ] || fail "client $i of many heard '$(cat "$work/many.$i")'"
  done
  timeout 30 cat <&3 >/dev/null 2>&1
  exec 3>&-
  run 0 'after all' cpp_client 127.0.0.1 "$port" 'after all'
  grep -q MQ_BAD_MESSAGE "$work/many.err" || fail "nobody noticed the nonsense: $(cat "$work/many.err")"
  kill "$server"
  pid=$server
  ends 'the server of many' 0
}

test_signed() {
  "$bin/keys" "$work/good.key" >"$work/ring" || fail 'no keys'
  "$bin/keys" "$work/other.key" >/dev/null || fail 'no other keys'
  run 1 "$work/good.key" keys "$work/good.key"
  listening signed signed_server 127.0.0.1 0 "$work/ring"
  run 0 'it is me' signed_client 127.0.0.1 "$port" "$work/good.key" 'it is me'
  ends 'the signed server' 0
  grep -q "^$(cut -d' ' -f1 "$work/ring"): it is me$" "$work/signed" || fail "who signed? $(cat "$work/signed")"

  listening refusing signed_server 127.0.0.1 0 "$work/ring"
  run 1 read signed_client 127.0.0.1 "$port" "$work/other.key" 'it is not me'
  ends 'the refusing server' 1
  grep -q '^refused: ' "$work/refusing.err" || fail "no refusal: $(cat "$work/refusing.err")"

  listening plain signed_server 127.0.0.1 0 "$work/ring"
  run 1 read client 127.0.0.1 "$port" 'without a signature'
  ends 'the server that was spoken to plainly' 1
  grep -q MQ_BAD_MESSAGE "$work/plain.err" || fail "plain accepted: $(cat "$work/plain.err")"

  chmod 644 "$work/good.key"
  run 1 "$work/good.key" signed_client 127.0.0.1 1 "$work/good.key" 'a key that others may read'
  run 1 "$work/nothing" signed_server 127.0.0.1 0 "$work/nothing"
}

test_datagrams() {
  listening datagrams datagram_server 127.0.0.1 0
  local server=$pid
  for _ in {1..200}; do printf 'not a message' >"/dev/udp/127.0.0.1/$port"; done
  run 0 'one datagram' datagram_client 127.0.0.1 "$port" 'one datagram'
  local lines
  lines=$(grep -c MQ_BAD_MESSAGE "$work/datagrams.err")
  ((lines > 0 && lines < 100)) || fail "$lines lines about 200 bad datagrams"
  # It answers questions, none that is marked as an answer, and marks its own: servers do not answer each other.
  local question=(mqcat send 127.0.0.1 "$port" --udp -p 1=hello --reply --format json --timeout)
  run 0 '"id":1095652183' "${question[@]}" 20 -c 1
  run 5 'none within' "${question[@]}" 0.2 -c 2
  run 5 'none within' "${question[@]}" 0.2 -c 1 -p 1095652183:int32=1
  kill "$server"
  pid=$server
  ends 'the datagram server' 0
  run 1 'no answer' datagram_client 127.0.0.1 "$port" 'nobody is there'
}

# says FILE TEXT ...: the report has each of these.
says() {
  local file=$1 text
  shift
  for text; do grep -qF -- "$text" "$file" || fail "no $text in $file: $(head -c 2000 "$file")"; done
}

test_demo() {
  timeout 100 "$bin/mqdemo" --clients 6 --processes 1 --messages 5 --honest-only >"$work/table" 2>"$work/demo.err" ||
    fail "honest only: $(cat "$work/table")"
  says "$work/table" 'All right: 30 questions, 30 answers' 'UDP signed' '0 rogues' '0 blocks left'
  [ ! -s "$work/demo.err" ] || fail "a progress line without a terminal: $(cat "$work/demo.err")"
}

# A signal ends each mode early, with its report.
test_demo_interrupted() {
  local mode=$1 text=$2
  # shellcheck disable=SC2086 # a mode has options
  "$bin/mqdemo" $mode >"$work/interrupted" 2>&1 &
  started+=("$!")
  sleep 2
  kill -INT "$!"
  SECONDS=0
  wait "$!"
  [ $? = "$3" ] && ((SECONDS < 20)) || fail "mqdemo $mode: not ended in order: $(cat "$work/interrupted")"
  says "$work/interrupted" "$text"
}

# A demonstration that loses a process ends at once, says which, and leaves nobody behind.
test_demo_dies() {
  local which=$1 name=$2 children child code
  "$bin/mqdemo" --clients 20 --processes 2 --seconds 20 >"$work/died" 2>&1 &
  local demo=$!
  started+=("$demo")
  for _ in {1..200}; do
    read -r -a children <"/proc/$demo/task/$demo/children"
    ((${#children[@]} > 3)) && break # the server, the clients, who misbehaves: the talking has begun
    sleep 0.05
  done
  kill -KILL "${children[$which]}"
  SECONDS=0
  wait "$demo"
  code=$?
  [ "$code" = 1 ] && ((SECONDS < 15)) || fail "without the $name: code $code after $SECONDS s"
  says "$work/died" 'Not right:' "the $name was ended by signal 9"
  for child in "${children[@]}"; do
    [ ! -e "/proc/$child/status" ] || grep -q '^State:.Z' "/proc/$child/status" || fail "child $child is left"
  done
}

test_demo_refuses() {
  run 2 --clients mqdemo --clients 0
  run 2 --seconds mqdemo --seconds 61
  run 2 --messages mqdemo --messages many
  run 0 'Exit code' mqdemo --help
  run 2 'there is no' mqdemo hostile --attack politeness
  (ulimit -n 100 && run 2 'ulimit' mqdemo --clients 400 && exit "$failures") || failures=$((failures + 1))
  "$bin/mqdemo" --clients 1 --messages 1 --honest-only >/dev/full 2>"$work/full"
  [ $? = 2 ] && grep -q 'cannot write' "$work/full" || fail 'a report that cannot be written is not told'
}

test_pair
test_arguments
test_port_in_use
test_many multi_server 2
test_many cpp_server
test_signed
test_datagrams
test_demo
test_demo_interrupted '--seconds 60 --clients 20' 'All right' 0
test_demo_interrupted 'soak --seconds 600' 'All right' 0
test_demo_interrupted 'hostile --server multi_server --seconds 60' 'not run' 1
test_demo_dies 0 server
test_demo_dies 1 'client process 1'
test_demo_refuses
[ "$failures" = 0 ] && echo 'all right'
exit $((failures != 0))
