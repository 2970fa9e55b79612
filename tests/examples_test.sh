#!/usr/bin/env bash
# examples_test.sh BUILD_DIR - failures of the examples and the demonstration. docs_test.py runs the commands of the
# guide, in which all goes well. MEMCHECK is put in front of each example.
. "$(dirname "$0")/support/shell.sh"
PATH=$build/bin:$PATH
cd "$work" || exit
read -ra memcheck <<<"${MEMCHECK:-}"

# listening NAME PROGRAM [ARGUMENT ...]
listening() { serve "$1" "${memcheck[@]}" "$2" 127.0.0.1 0 "${@:3}"; }

# row CODE PATTERN PROGRAM [ARGUMENT ...]: checks the exit code, and that the output on both streams has the pattern.
row() {
  local said
  said=$(timeout 60 "${memcheck[@]}" "${@:3}" 2>&1)
  same "exit code of ${*:3}, $said" "$1" $?
  # shellcheck disable=SC2053 # it is a pattern
  [[ $said == *$2* ]] || fail "${*:3}: no '$2' in: $said"
}

arguments_and_addresses() {
  local name
  for name in {,multi_,epoll_,cpp_,signed_,datagram_}server {,cpp_,signed_,datagram_}client; do
    row 2 usage "$name" 127.0.0.1
  done
  row 2 usage multi_server 127.0.0.1 0 1001
  row 2 'too long' client "$(printf 'x%.0s' {1..300})" 1 hello
  row 1 SOCK_SERVICE_UNKNOWN client 127.0.0.1 no-such-service hello
  listening pair server
  row 1 EADDRINUSE multi_server 127.0.0.1 "$port"
  row 0 'wie geht es? äöü' client 127.0.0.1 "$port" 'wie geht es? äöü'
  ends pair 0
  has pair 'wie geht es? äöü'
  row 1 ECONNREFUSED client 127.0.0.1 "$port" 'nobody is there'
}

# More clients than the server serves at once; a client that sends nonsense does not affect the others.
many() {
  listening many "$@"
  printf 'GET / HTTP/1.0\r\n\r\n%200s' '' >"/dev/tcp/127.0.0.1/$port"
  same "clients of $1" "$(printf 'number %s\n' {1..8})" "$(seq 8 |
    xargs -P 8 -I{} timeout 60 "${memcheck[@]}" client 127.0.0.1 "$port" 'number {}' 2>&1 | sort)"
  row 0 'after all' cpp_client 127.0.0.1 "$port" 'after all'
  has many.err MQ_BAD_MESSAGE
  stops many
}

signed() {
  keys good.key >ring
  keys other.key >/dev/null
  row 1 good.key keys good.key
  listening refusing signed_server ring
  row 1 read signed_client 127.0.0.1 "$port" other.key 'it is not me'
  ends refusing 1
  has refusing.err 'refused: '
  chmod 644 good.key
  row 1 good.key signed_client 127.0.0.1 1 good.key 'a key that others may read'
  row 1 nothing signed_server 127.0.0.1 0 nothing
}

# The client reconnects after its server was killed and restarted, and leaves a server that does not answer.
in_a_loop() {
  listening looped uv_server
  local same_port=$port client
  timeout 60 "${memcheck[@]}" uv_client 127.0.0.1 "$same_port" 'round and round' 40 50 >answers 2>losses &
  client=$!
  started+=("$client")
  until [ -s answers ]; do sleep 0.02; done
  kill -STOP "$(pgrep -P "$pid")"
  until grep -q 'no answer within' losses; do sleep 0.02; done
  kill -KILL "$(pgrep -P "$pid")"
  until grep -q ECONNREFUSED losses; do sleep 0.02; done
  serve again "${memcheck[@]}" uv_server 127.0.0.1 "$same_port"
  wait "$client"
  same 'exit code of uv_client' 0 $?
  same answers 40 "$(grep -c 'round and round' answers)"
  stops again
}

# Answers questions, but none that is marked as an answer, and marks its answers: servers do not answer each other.
datagrams() {
  listening datagrams datagram_server
  printf 'not a message' >"/dev/udp/127.0.0.1/$port"
  row 0 'one datagram' datagram_client 127.0.0.1 "$port" 'one datagram'
  has datagrams.err MQ_BAD_MESSAGE
  local memcheck=() question=(mqcat send 127.0.0.1 "$port" --udp -p '1=hello' --reply --format json --timeout)
  row 0 '"id":1095652183' "${question[@]}" 20 -c 1
  row 5 'none within' "${question[@]}" 0.2 -c 2
  row 5 'none within' "${question[@]}" 0.2 -c 1 -p '1095652183:int32=1'
  stops datagrams
}

# dies WHICH NAME: a demonstration that loses this process ends at once, names it, and leaves no process behind.
dies() {
  local children
  mqdemo --clients 20 --processes 2 --seconds 20 >died 2>&1 &
  pid=$!
  started+=("$pid")
  for _ in {1..200}; do
    read -r -a children <"/proc/$pid/task/$pid/children"
    ((${#children[@]} > 2)) && break # the server, the clients
    sleep 0.05
  done
  kill -KILL "${children[$1]}"
  SECONDS=0
  wait "$pid"
  same "exit code without the $2" 1 $?
  ((SECONDS < 15)) || fail "$SECONDS s without the $2"
  has died 'FAILED:' "the $2 was ended by signal 9"
  same "processes left without the $2" '' "$(ps -o pid=,stat= -p "${children[*]}" | grep -v Z)"
}

demonstration() {
  local interrupted=(timeout --preserve-status -s INT -k 20 2 mqdemo)
  row 0 'UDP signed*0 blocks not released*OK: 30 questions, 30 answers' \
    mqdemo --clients 6 --processes 1 --messages 5 --honest-only
  row 130 'interrupted*OK:' "${interrupted[@]}" --seconds 60 --clients 20
  row 130 'interrupted*OK:' "${interrupted[@]}" soak --seconds 60
  row 130 '15 of 15 attacks not finished' "${interrupted[@]}" hostile --server multi_server --seconds 60
  dies 0 server
  dies 1 'client process 1'
  row 2 --messages mqdemo --messages many
  row 2 'unknown name' mqdemo hostile --attack politeness
  row 2 ulimit bash -c 'ulimit -n 100 && exec mqdemo --clients 400'
  row 2 'cannot write' bash -c 'exec mqdemo --clients 1 --messages 1 --honest-only >/dev/full'
}

arguments_and_addresses
many multi_server 2
many cpp_server
if [ -x "$build/bin/uv_server" ]; then
  many uv_server
  [ -n "${MEMCHECK:-}" ] || in_a_loop
fi
signed
datagrams
[ -n "${MEMCHECK:-}" ] || demonstration
