#!/usr/bin/env bash
# mqcat_test.sh BUILD_DIR - the tool as its users meet it: every command, and the mistakes that people make.
# A case is a row: expected exit code, a text that standard output and standard error together must hold, the command.
set -u
build=$(cd "${1:?usage: mqcat_test.sh BUILD_DIR}" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
mqcat=$build/bin/mqcat
work=$(mktemp -d)
cd "$work" || exit 1
unset COLUMNS
failures=0
cases=0
listeners=()

finish() {
  for pid in "${listeners[@]:-}"; do [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; done
  cd / && rm -rf "$work"
}
trap finish EXIT

fail() {
  failures=$((failures + 1))
  printf 'FAIL %s\n' "$*" >&2
}

# row CODE TEXT COMMAND...: the command's input is what the row's is.
row() {
  local code=$1 text=$2 got
  shift 2
  cases=$((cases + 1))
  timeout 20 "$@" >out.txt 2>err.txt
  got=$?
  [ "$got" = "$code" ] || fail "exit code $got instead of $code: $* ($(tail -n 2 err.txt))"
  cat out.txt err.txt | grep -qF -e "$text" || fail "no \"$text\" from: $*: $(head -c 300 out.txt err.txt)"
}

same() {
  cases=$((cases + 1))
  [ "$2" = "$3" ] || fail "$1: \"$2\" is not \"$3\""
}

# start NAME ARGUMENT...: a listener on a port that the system picks; its output in NAME.out and NAME.err, its port in
# $port, its process id in $listener.
start() {
  local name=$1 i
  shift
  : >"$name.err"
  "$mqcat" listen 0 "$@" >"$name.out" 2>"$name.err" &
  listener=$!
  listeners+=("$listener")
  for ((i = 0; i < 200; i++)); do
    port=$(sed -n 's/.*listening on [A-Z]* .*:\([0-9]*\)$/\1/p' "$name.err")
    [ -n "$port" ] && return
    sleep 0.02
  done
  fail "listener $name did not start: $(cat "$name.err")"
}

# stop NAME CODE TEXT: SIGINT, and what the listener says last.
stop() {
  local i got
  kill -INT "$listener"
  wait "$listener"
  got=$?
  cases=$((cases + 1))
  [ "$got" = "$2" ] || fail "listener $1 ended with $got instead of $2"
  grep -qF -e "$3" "$1.err" || fail "listener $1: no \"$3\" in: $(cat "$1.err")"
}

# Waits until a file holds as many lines with this text.
await() {
  local i
  for ((i = 0; i < 1000; i++)); do
    [ "$(grep -cF -e "$3" "$1")" -ge "$2" ] && return
    sleep 0.02
  done
  fail "$1 has not $2 times \"$3\": $(head -c 300 "$1")"
}

# ---- Mistakes on the command line, help ----

row 0 "Exit codes:" "$mqcat" --help
row 0 "mqcat 1." "$mqcat" --version
row 2 "command is required" "$mqcat"
row 2 'no command "lisen"' "$mqcat" lisen 5000
for command in listen send ping decode keys explain; do row 0 "Example" "$mqcat" $command --help; done
# What the help names, the manual page and the completion name, too.
options=$(for command in listen send ping decode 'keys add' 'keys list' explain; do
  # shellcheck disable=SC2086
  "$mqcat" $command --help | sed -n '/^Options/,/^$/s/^  \(-.,\)\?\(--[a-z-]*\).*/\2/p'
done | sort -u)
[ "$(wc -l <<<"$options")" -gt 20 ] || fail "the help has few options: $options"
sed 's/\\-/-/g' "$source_dir/tools/mqcat/mqcat.1" >manual.txt
for option in $options; do
  for page in manual.txt "$source_dir/tools/mqcat/mqcat.bash"; do
    cases=$((cases + 1))
    grep -qE -e "$option([^a-z-]|\$)" "$page" || fail "$(basename "$page") does not know $option"
  done
done
row 2 "PLACE" "$mqcat" listen
row 2 "SERVICE" "$mqcat" send 127.0.0.1
row 2 "not a port from 0 to 65535" "$mqcat" send 127.0.0.1 65536 -c 1
row 2 "not a port from 0 to 65535" "$mqcat" listen 80abc
row 2 "not an IPv4 address" "$mqcat" ping 127.0.0.300 5000
row 4 "SOCK_SERVICE_UNKNOWN (9002)" "$mqcat" listen no-such-service
row 2 "a service has 1 to 32 characters" "$mqcat" listen "$(printf 'x%.0s' {1..40})"
row 2 "a host has 1 to 255 characters" "$mqcat" send "" 5000 -c 1
row 2 "not a whole number from 0 to 4294967295" "$mqcat" send 127.0.0.1 5000 -c 4294967296
row 2 "not a whole number from 0 to 4294967295" "$mqcat" send 127.0.0.1 5000 -c -1
row 2 "not a whole number" "$mqcat" ping 127.0.0.1 5000 -c 0
row 2 "not a time from" "$mqcat" ping 127.0.0.1 5000 -i nan
row 2 "not a time from" "$mqcat" send 127.0.0.1 5000 -c 1 --timeout -1
row 2 "--format" "$mqcat" listen 0 --format xml
row 2 "give the message once" "$mqcat" send 127.0.0.1 5000 -c 1 --json '{}'
row 2 "expected ID=TEXT" "$mqcat" send 127.0.0.1 5000 -c 1 -p hello
row 2 "a user has 1 to 12 characters" "$mqcat" send 127.0.0.1 5000 -c 1 --user thirteenchars
row 2 "is not an id" "$mqcat" send 127.0.0.1 5000 -c 1 -p x=1
row 2 "is none of int32" "$mqcat" send 127.0.0.1 5000 -c 1 -p 1:int=1
row 3 "does not fit int32" "$mqcat" send 127.0.0.1 5000 -c 1 -p 1:int32=2147483648
row 3 "is not a whole number" "$mqcat" send 127.0.0.1 5000 -c 1 -p 1:int64=9223372036854775808
row 3 "even number of hexadecimal digits" "$mqcat" send 127.0.0.1 5000 -c 1 -p 1:bytes=abc
row 3 "ENOENT" "$mqcat" send 127.0.0.1 5000 -c 1 --file nowhere
row 3 "EISDIR" "$mqcat" send 127.0.0.1 5000 -c 1 --file 4=.
row 3 "not JSON" "$mqcat" send 127.0.0.1 5000 --json '{"command":'
row 3 '"command" is missing' "$mqcat" send 127.0.0.1 5000 --json '{}'
row 3 'key "paramters"' "$mqcat" send 127.0.0.1 5000 --json '{"command":1,"paramters":[]}'
row 3 "an array is not a whole number" "$mqcat" send 127.0.0.1 5000 --json '{"command":[]}'
row 3 "--json, line 1, column 12: not JSON: number overflow" "$mqcat" send 127.0.0.1 5000 --json '{"command":1e999}'
row 3 "--json, line 2, column 9: key \"command\" is there twice" "$mqcat" send 127.0.0.1 5000 \
  --json $'{"command":1,\n"command":2}'
row 3 "twice" "$mqcat" send 127.0.0.1 5000 --json '{"command":1,"parameters":[{"id":1,"value":"a","id":2}]}'
row 3 "nested deeper" "$mqcat" send 127.0.0.1 5000 \
  --json "{\"command\":$(printf '[%.0s' {1..9999})$(printf ']%.0s' {1..9999})}"
row 3 "is not a whole number from 0" "$mqcat" send 127.0.0.1 5000 --json '{"command":-1}'
row 3 "zero character" "$mqcat" send 127.0.0.1 5000 --json '{"command":1,"parameters":[{"id":1,"value":"a\u0000b"}]}'
row 3 "parameter 0, value: 1e+300" "$mqcat" send 127.0.0.1 5000 \
  --json '{"command":1,"parameters":[{"id":1,"value":1e300}]}'

# ---- explain ----

row 0 "MQ_BAD_MESSAGE" "$mqcat" explain 2026
row 0 "ENOBUFS" "$mqcat" explain 105
row 0 "MQ_NOT_AUTHENTIC" "$mqcat" explain -1001
row 0 "9004" "$mqcat" explain sock_peer_closed
row 0 "EDESTADDRREQ" "$mqcat" explain 89
row 2 "not a code" "$mqcat" explain 9001
row 2 "SOCK_PEER_CLOSED" "$mqcat" explain closed
row 2 "no code has this name" "$mqcat" explain 99999999999
row 2 "name a code" "$mqcat" explain
same "docs/errors.md is up to date" "$("$mqcat" explain --all --format markdown | cksum)" \
  "$(cksum <"$source_dir/docs/errors.md")"

# ---- Where output goes ----

row 8 "EBADF" bash -c '"$0" explain --all >&-' "$mqcat"
row 8 "ENOSPC" bash -c '"$0" explain --all >/dev/full' "$mqcat"
# Who reads the head of a long output closes the pipe: no word, an exit code of its own.
same "exit code when the reader has gone" \
  "$(bash -c '"$0" decode --full /dev/stdin <"$1" 2>pipe.err | true; echo "${PIPESTATUS[0]}"' \
  "$mqcat" <(head -c 3000000 /dev/zero))" 9
same "words when the reader has gone" "$(cat pipe.err)" ""
for width in 1 20 40; do
  widest=$(COLUMNS=$width "$mqcat" explain --all | awk '{ if (length > w) w = length } END { print w }')
  [ "$widest" -le 72 ] || fail "explain is $widest wide at COLUMNS=$width"
  row 0 "Usage" env COLUMNS=$width "$mqcat" send --help
done
if script -qec true /dev/null >/dev/null 2>&1; then
  row 0 "Usage" script -qec "stty cols 40; '$mqcat' listen --help" /dev/null
  awk 'length > 41' out.txt | grep -q . && fail "help does not fit 40 columns: $(awk 'length > 41' out.txt | head -n 3)"
else
  echo "left out: help on a terminal, for script(1) is not here or gets no pseudo-terminal"
fi

# ---- send and listen ----

start json --format json --echo
message='{"command":4294967295,"parameters":[{"id":1,"type":"text","value":"grüß \"Gott\"\n"},'
message+='{"id":4294967295,"type":"int32","value":-2147483648},{"id":0,"type":"int64","value":9223372036854775807},'
message+='{"id":3,"type":"bytes","value":"00ff10"},{"id":3,"type":"text","hex":"fffe41"},'
message+='{"id":5,"type":"text","value":""},{"id":6,"type":"bytes","value":""},'
message+='{"id":7,"type":"text","value":"\u001b[2J\u007f\u009b\u061c\u202e\u2066"}]}'
row 0 '"signed":false' "$mqcat" send 127.0.0.1 "$port" --json "$message" --reply --format json
same "JSON comes back as it went" "$(sed 's/.*\("command":.*\)/{\1/' out.txt)" "$message"
cp out.txt round.json
row 0 "1 answered" "$mqcat" send 127.0.0.1 "$port" --stdin --reply --format quiet <round.json
await json.out 2 '"command"'
same "what listen prints can be sent again" "$(tail -n 1 json.out | sed 's/.*\("command":.*\)/{\1/')" "$message"
printf '%s\n\n%s' '{"command":1}' '{"command":2,"parameters":[{"id":9,"value":70000000000}]}' >two.json
row 0 "sent 2 messages" "$mqcat" send 127.0.0.1 "$port" <two.json
await json.out 4 '"command"'
row 3 "standard input, line 2, column 2: not JSON" "$mqcat" send 127.0.0.1 "$port" < <(printf '{"command":1}\nnonsense\n')
head -c 300000 /dev/zero >big.bin
row 0 "300" "$mqcat" send 127.0.0.1 "$port" -c 5 -p 1=x --file 7=big.bin --reply
row 0 "sent 20000 messages" "$mqcat" send localhost "$port" -c 1 --repeat 20000
row 0 "3 answered" "$mqcat" send @ "$port" -c 1 --repeat 3 --interval 0.01 --reply --user bob
grep -q '"user":"bob"' json.out || fail "--user did not arrive"
await json.out 20009 '"command"'
row 3 "EBADF" bash -c '"$0" send 127.0.0.1 "$1" <&-' "$mqcat" "$port"
row 3 "0 sent, 0 answered, 0% loss" "$mqcat" ping 127.0.0.1 "$port" --udp -s 20000
row 1 "not an answer" "$build/bin/client" 127.0.0.1 "$port" "this node resets when it closes"
stop json 0 "messages, "
same "what a listener says of its clients' ends" "$(grep -c ECONNRESET json.err)" 0

start plain --count 3
row 4 "EADDRINUSE" "$mqcat" listen "$port"
row 5 "none within 0.2 s" "$mqcat" send 127.0.0.1 "$port" -c 1 --reply --timeout 0.2
row 0 "sent 1 message" "$mqcat" send 127.0.0.1 "$port" -c 1 -p '1=a	b' -p '2:bytes='
printf 'GET / HTTP/1.0\r\n\r\n%0200d' 0 >"/dev/tcp/127.0.0.1/$port"
await plain.err 1 "MQ_BAD_MESSAGE (2026)"
row 0 "sent 1 message" "$mqcat" send 127.0.0.1 "$port" -c 1
wait "$listener"
same "a listener with --count ends" "$?" 0
grep -qF '1 text   "a\tb"' plain.out || fail "text is not shown as text: $(cat plain.out)"
grep -qF "3 messages" plain.err && grep -qF "1 faulty" plain.err || fail "no summary: $(cat plain.err)"
row 4 "ECONNREFUSED (111)" "$mqcat" send 127.0.0.1 "$port" -c 1

# What moves a terminal's cursor, rings it or turns the direction of writing comes out as an escape, if at all.
unsafe='[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]'
hostile=$'\e[2J\a\n\x7f\u009b\u061c\u202e\u2066'
for format in text json hex; do
  start hostile-$format --format $format --count 1
  row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 1 -p "1=$hostile" --user $'\u009b\u202e\e\x7fq'
  wait "$listener"
  cases=$((cases + 1))
  LC_ALL=C grep -aP "$unsafe" hostile-$format.out >unsafe.txt && fail "--format $format: $(cat -v unsafe.txt)"
done
row 2 '\xe2\x80\xae\x1b' "$mqcat" send 127.0.0.1 5000 -c 1 --format $'\u202e\e'

start hex --format hex --max-clients 1 --trace
row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 258 -p 1=traced
await hex.out 1 "# 20"
row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 259
await hex.out 2 "# 20"
stop hex 0 "2 messages"
for point in "node fd" "mnOpen" "mnRead" "ReadSocket:After"; do
  grep -qF "$point" hex.err || fail "--trace does not show $point"
done
row 0 "2 messages, 0 stray bytes, 0 faults" "$mqcat" decode hex.out

# Many clients at once, and one that does not read its answers.
start many --echo --format quiet
"$mqcat" send 127.0.0.1 "$port" -c 1 --file big.bin --repeat 200 --timeout 3 -q 2>/dev/null &
greedy=$!
clients=()
for i in {1..8}; do
  "$mqcat" send 127.0.0.1 "$port" -c "$i" --repeat 50 --reply --format quiet -q &
  clients+=($!)
done
for pid in "${clients[@]}"; do wait "$pid" || fail "one of eight clients failed"; done
row 0 "0% loss" "$mqcat" ping 127.0.0.1 "$port" -c 20 -i 0 -q
wait "$greedy"
stop many 0 "10 clients"

# What a client may cost. Half a message, then nothing: bash keeps the connection.
start bounds --max-message 1000 --max-clients 2 --max-per-address 1 --midway 2
exec {half}<>"/dev/tcp/127.0.0.1/$port"
printf '\210\0\0\0' >&"$half"
row 4 "to 127.0.0.1:$port" "$mqcat" send 127.0.0.1 "$port" -c 1 -q --repeat 1000 --interval 0.01
await bounds.err 1 "--max-per-address"
await bounds.err 1 "half a message for 2 s (--midway)"
exec {half}>&-
row 4 "to 127.0.0.1:$port" "$mqcat" send 127.0.0.1 "$port" -c 1 -q --repeat 1000 --interval 0.01 \
  -p "1=$(printf 'x%.0s' {1..1000})"
await bounds.err 1 "a message of 1160 bytes is too long (--max-message)"
stop bounds 0 "3 clients, 3 dropped"

# A client that never reads: its messages stay where they are once 1 MiB of answers wait, far below 64 of them.
start never --echo --format quiet
perl -MIO::Socket::INET -e '
  my $body = pack("V5", 1, 1, 1, 4, 900000) . "\0" x 900000;
  my $peer = IO::Socket::INET->new("127.0.0.1:$ARGV[0]") or die;
  $SIG{ALRM} = sub { exit };
  alarm 1;
  print $peer pack("V4 x48 V x68", 136, 1, 0, 1, length $body), $body while 1' "$port"
stop never 0 "not delivered"
[ "$(sed -n 's/^mqcat: \([0-9]*\) messages.*/\1/p' never.err)" -lt 30 ] || fail "read too much: $(cat never.err)"

# Without descriptors the listener neither spins nor gives up.
: >few.err
(ulimit -n 20 && exec "$mqcat" listen 0 --echo --format quiet) >few.out 2>few.err &
listener=$!
listeners+=("$listener")
await few.err 1 "listening on"
port=$(sed -n 's/.*:\([0-9]*\)$/\1/p' few.err)
many=()
for ((i = 0; i < 20; i++)); do exec {one}<>"/dev/tcp/127.0.0.1/$port" && many+=("$one"); done
await few.err 1 "EMFILE"
for one in "${many[@]}"; do exec {one}>&-; done
row 0 "0% loss" "$mqcat" ping 127.0.0.1 "$port" -c 1 -W 5
stop few 0 "1 message"
[ "$(grep -c EMFILE few.err)" -lt 10 ] || fail "a listener without descriptors said so $(grep -c EMFILE few.err) times"

# ---- ping ----

start echo --echo --format quiet
row 0 "5 sent, 5 answered, 0% loss" "$mqcat" ping 127.0.0.1 "$port" -c 5 -i 0.01
grep -q "seq=4 time=" out.txt && grep -q "rtt p50/p90/p99" out.txt && grep -q "####" out.txt ||
  fail "ping: $(cat out.txt)"
row 0 '"answered":3' "$mqcat" ping 127.0.0.1 "$port" -c 3 -i 0 -s 100000 --json
timeout --foreground -s INT 0.5 "$mqcat" ping 127.0.0.1 "$port" -i 0.05 -q >out.txt
grep -q "ping statistics" out.txt || fail "no summary of an interrupted ping"
row 0 "answered" "$mqcat" ping 127.0.0.1 "$port" -w 0.2 -i 0.05 -q
stop echo 0 "messages"
start mute --format quiet
row 5 "2 sent, 0 answered, 100% loss" "$mqcat" ping 127.0.0.1 "$port" -c 2 -i 0.01 -W 0.1
stop mute 0 "2 messages"
row 4 "ECONNREFUSED" "$mqcat" ping 127.0.0.1 "$port" -c 1

# ---- Datagrams ----

start udp --udp --echo --format json
row 0 '"value":"hello"' "$mqcat" send 127.0.0.1 "$port" --udp -c 7 -p 1=hello --reply --format json
row 0 "0% loss" "$mqcat" ping 127.0.0.1 "$port" --udp -c 3 -i 0.01
# Two servers that answer answers would never stop.
grep -qF '{"id":1095652183,"type":"int32","value":1}' out.txt udp.out && fail "a question is marked as an answer"
row 0 '{"id":1095652183,"type":"int32","value":1}' "$mqcat" send 127.0.0.1 "$port" --udp -c 7 --reply --format json
row 5 "none within" "$mqcat" send 127.0.0.1 "$port" --udp -c 7 -p 1095652183=x --reply --timeout 0.2
row 3 "at most 16520 bytes" "$mqcat" send 127.0.0.1 "$port" --udp -c 7 --file big.bin
printf 'noise' >"/dev/udp/127.0.0.1/$port"
await udp.err 1 "2026"
stop udp 0 "1 faulty"
start rate --udp --echo --answer-rate 1 --format quiet
row 0 "answered" "$mqcat" ping 127.0.0.1 "$port" --udp -c 5 -i 0 -W 0.1
stop rate 0 "held back"
row 5 "none within" "$mqcat" send 127.0.0.1 "$port" --udp -c 7 --reply --timeout 0.1

# ---- Keys and signed messages ----

row 0 "alice " "$mqcat" keys new alice alice.key
same "mode of a secret key file" "$(stat -c %a alice.key)" 600
row 7 "alice.key" "$mqcat" keys new alice alice.key
row 7 "user" "$mqcat" keys new 'name with blanks' other.key
row 0 "mallory " "$mqcat" keys new mallory mallory.key
row 0 "1 of 1 keys are new" bash -c '"$0" keys public alice.key | "$0" keys add ring' "$mqcat"
row 0 "0 of 1 keys are new" bash -c '"$0" keys public alice.key | "$0" keys add ring' "$mqcat"
row 7 "another key" bash -c '"$0" keys public mallory.key | sed "s/^mallory/alice/" | "$0" keys add ring' "$mqcat"
row 7 "hexadecimal" "$mqcat" keys add ring bob 1234
row 7 "not a valid public key" "$mqcat" keys add ring bob "$(printf 'ab%.0s' {1..32})"
row 2 "without a key" "$mqcat" keys add ring bob
row 7 "secret key in a ring" "$mqcat" keys add alice.key bob "$(cut -d' ' -f2 <("$mqcat" keys public alice.key))"
row 0 "$(cut -d' ' -f2 <(grep alice ring))" "$mqcat" keys list ring
row 3 "ENOENT" "$mqcat" keys list nowhere
mkfifo fifo
row 7 "not a regular file" "$mqcat" keys list fifo
row 7 "not a regular file" bash -c '"$0" keys public alice.key | "$0" keys add fifo' "$mqcat"

# Whatever marks a secret key, or nothing does: it enters no ring and no output, and columns that are swapped neither.
secret=$(grep -o '[0-9a-f]\{64\}' alice.key)
printf 'alice %s\n# secret key: keep it to yourself\n' "$secret" >old.key
printf 'alice %s\n' "$secret" >bare.key
printf '%s alice\n' "$secret" >swapped.key
chmod 600 ./*.key
for file in alice.key old.key bare.key swapped.key; do
  for mode in 600 644; do
    chmod $mode $file
    row 7 "" "$mqcat" keys add fresh <$file
    cat out.txt err.txt >said.txt
    timeout 20 "$mqcat" keys list $file >>said.txt 2>&1
    [ -e fresh ] && fail "$file of mode $mode made a ring: $(cat fresh)"
    grep -qF "${secret:0:20}" said.txt && fail "$file of mode $mode: a secret key is shown"
  done
done
row 7 "expected a user" "$mqcat" keys add fresh "$secret" alice
grep -qF "${secret:0:20}" out.txt err.txt && fail "a secret key is shown"
chmod 644 mallory.key
row 7 "chmod 600" "$mqcat" send 127.0.0.1 9 -c 1 --sign mallory.key
row 7 "chmod 600" "$mqcat" keys list mallory.key
chmod 600 ./*.key

# Keys that end and that are revoked; a ring behind a symbolic link; many who add at once.
row 0 "public until=2031-05-06" "$mqcat" keys new carol carol.key --until 2031-05-06
row 2 "expected a day" "$mqcat" keys new carol other.key --until 2031-02-30
ln -s real.ring link.ring
row 0 "1 of 1 keys" bash -c '"$0" keys public carol.key | "$0" keys add link.ring' "$mqcat"
row 7 "another end" bash -c '"$0" keys public carol.key | "$0" keys add link.ring --until 2030-01-01' "$mqcat"
row 0 "1 of 1 keys" bash -c '"$0" keys public carol.key | "$0" keys add link.ring --until 2030-01-01 --replace' "$mqcat"
row 0 "until=2030-01-01" "$mqcat" keys list link.ring
chmod 640 real.ring
row 0 "1 of 1 keys" bash -c '"$0" keys public carol.key | "$0" keys add link.ring --revoke' "$mqcat"
row 7 "is revoked" bash -c '"$0" keys public carol.key | "$0" keys add link.ring --replace' "$mqcat"
row 0 "revoked" "$mqcat" keys list real.ring
same "a ring behind a link" "$(stat -c %F link.ring) $(stat -c %a real.ring)" "symbolic link 640"
chmod 666 real.ring
row 7 "chmod go-w" "$mqcat" keys list real.ring
line=$("$mqcat" keys public alice.key)
adders=()
for i in {1..40}; do
  "$mqcat" keys add many.ring <<<"user$i ${line#* }" 2>/dev/null &
  adders+=($!)
done
for pid in "${adders[@]}"; do wait "$pid" || fail "one of 40 who add keys at once failed"; done
same "keys that 40 have added at once" "$("$mqcat" keys list many.ring | wc -l)" 40
row 7 "nowhere" "$mqcat" listen 0 --ring nowhere

start signed --ring ring --echo --sign alice.key
row 0 'signed by "alice"' "$mqcat" send 127.0.0.1 "$port" -c 7 -p 1=signed --sign alice.key --ring ring --reply
await signed.out 1 'signed by "alice"'
row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 7 --sign mallory.key
await signed.err 1 "user mallory is not in the ring"
row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 7 -p "1=$(printf 'x%.0s' {1..100})"
await signed.err 1 "it is not signed"
stop signed 0 "1 not authentic, 1 faulty"
start unsigned
row 0 "sent" "$mqcat" send 127.0.0.1 "$port" -c 7 -p "1=$(printf 'x%.0s' {1..100})" --sign alice.key
await unsigned.err 1 "it is signed: --ring FILE"
stop unsigned 0 "1 faulty"

# ---- decode ----

# record NAME ARGUMENT...: the bytes that mqcat send puts on the wire.
record() {
  local name=$1
  shift
  perl -MIO::Socket::INET -e '
    my $server = IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1") or die;
    $| = 1; print STDERR $server->sockport, "\n";
    my $client = $server->accept or die;
    binmode STDOUT; print $_ while sysread $client, $_, 65536;' >"$name" 2>port.txt &
  local recorder=$! i
  for ((i = 0; i < 200; i++)); do [ -s port.txt ] && break; sleep 0.02; done
  "$mqcat" send 127.0.0.1 "$(cat port.txt)" -q "$@"
  wait "$recorder"
  rm -f port.txt
}

record plain.bin -c 7 -p 1=hello -p 2:int32=-5 -p 3:int64=12345678901 -p 4:bytes=00ff10 --repeat 3
record signed.bin -c 8 -p 1=hello --sign alice.key --repeat 2
row 0 "3 messages, 0 stray bytes, 0 faults" "$mqcat" decode plain.bin
for text in "parameter 1 value    -5" '"hello"' "12345678901" "00ff10" "sender is little-endian" \
  "     136    4  command              7"; do
  grep -qF -e "$text" out.txt || fail "decode does not show: $text"
done
row 0 "2 messages, 0 stray bytes, 0 faults" "$mqcat" decode signed.bin
for text in "signed message" '"MQSIGN01"' "UTC" '"alice"'; do grep -qF -e "$text" out.txt || fail "no $text"; done
row 0 '"name":"signature"' "$mqcat" decode --format json signed.bin
row 0 "3 messages" "$mqcat" decode --input raw - <plain.bin
row 0 "0 messages" "$mqcat" decode /dev/null
row 3 "ENOENT" "$mqcat" decode nowhere
row 3 "no hexadecimal dump" "$mqcat" decode --input hex plain.bin
row 3 "not a pcap file" "$mqcat" decode --input pcap plain.bin
row 0 "3 messages" env COLUMNS=40 "$mqcat" decode plain.bin

# Cut at every byte: always the same messages before the cut, and a fault in the one that is cut.
size=$(stat -c %s signed.bin)
one=$((size / 2))
for ((cut = 1; cut < size; cut += 7)); do
  head -c "$cut" signed.bin >cut.bin
  timeout 5 "$mqcat" decode cut.bin >out.txt 2>err.txt
  got=$?
  want=6
  [ "$cut" = "$one" ] && want=0
  [ "$got" = "$want" ] || fail "decode of $cut bytes ended with $got instead of $want"
done

# bytes PERL-EXPRESSION: what it evaluates to. header(ORDER, ASCII, LENGTH), body(ORDER, PARAMETERS...) help.
bytes() {
  perl -e '
    sub header { my ($o, $ascii, $length, $user) = @_;
      pack("${o}4 x48 ${o}2 a12 a48 x4", 136, 1, $o eq "N" ? 1 : 0, $ascii, $length, 0, $user, $user) }
    sub text { my ($o, $id, $text) = @_;
      my $n = length $text; pack("${o}3 a*", $id, 3, $n, $text . "\0" x (4 - $n % 4)) }
    sub message { my ($o, $ascii, $user, @params) = @_;
      my $body = pack("${o}2", 7, scalar @params) . join "", @params; header($o, $ascii, length $body, $user) . $body }
    binmode STDOUT; print eval $ARGV[0]; die $@ if $@' "$1"
}

bytes 'message("N", 1, "big", text("N", 1, "hello"))' >big-endian.bin
row 0 "sender is big-endian" "$mqcat" decode big-endian.bin
bytes 'message("V", 0, "\x81\x82", text("V", 1, "\xc8\x85\x93\x93\x96"))' >ebcdic.bin
row 0 '"Hello"' "$mqcat" decode ebcdic.bin
grep -qF '"ab"' out.txt || fail "the user is not shown in ASCII"
for case in \
  'first-word|pack("V", 135) . "x" x 200' \
  'byte-order-flag|my $m = message("V", 1, "u", text("V", 1, "t")); substr($m, 8, 1) = "\1"; $m' \
  'charset-flag|message("V", 2, "u", text("V", 1, "t"))' \
  'encoding-version|my $m = message("V", 1, "u", text("V", 1, "t")); substr($m, 4, 1) = "\2"; $m' \
  'origin-word|my $m = message("V", 1, "u", text("V", 1, "t")); substr($m, 68, 1) = "\1"; $m' \
  'zero-fill|message("V", 1, "u\0x", text("V", 1, "t"))' \
  'body-length|header("V", 1, 0, "u")' \
  'body-length|header("V", 1, 0x7fffffff, "u") . "x" x 100' \
  'body-head|header("V", 1, 4, "u") . "x" x 4' \
  'truncated|substr(message("V", 1, "u", text("V", 1, "t")), 0, 150)' \
  'parameter-count|header("V", 1, 8, "u") . pack("V2", 1, 0xffffffff)' \
  'parameter-head|header("V", 1, 12, "u") . pack("V3", 1, 1, 1)' \
  'parameter-length|header("V", 1, 20, "u") . pack("V5", 1, 1, 1, 4, 0xfffffff0)' \
  'parameter-length|header("V", 1, 24, "u") . pack("V6", 1, 1, 1, 1, 2, 3)' \
  'parameter-type|header("V", 1, 20, "u") . pack("V5", 1, 1, 1, 9, 0)' \
  'parameter-padding|header("V", 1, 24, "u") . pack("V5", 1, 1, 1, 4, 1) . "abcd"' \
  'text-zero-byte|message("V", 1, "u", text("V", 1, "a\0b"))' \
  'body-rest|header("V", 1, 12, "u") . pack("V3", 1, 0, 1)' \
  'envelope-version|pack("V5", 32, 2, 0, 1, 200) . "u" x 12 . message("V", 1, "u" x 12, text("V", 1, "t" x 200))' \
  'header-in-envelope|pack("V5", 32, 1, 0, 1, 200) . "u" x 212' \
  'message-length|pack("V5", 32, 1, 0, 1, 0) . "u" x 12'; do
  bytes "${case#*|}" >case.bin
  row 6 ": ${case%%|*}: " "$mqcat" decode case.bin
done

# It goes on behind what is broken: noise between messages, a message with lost bytes, a length that swallows the next.
(cat plain.bin; printf 'noise\0\210\0\0'; cat signed.bin big-endian.bin) >noise.bin
row 6 "6 messages, 9 stray bytes, 1 fault" "$mqcat" decode noise.bin
one=$(($(stat -c %s plain.bin) / 3))
(head -c $((one - 5)) plain.bin; cat plain.bin) >lost.bin
row 6 "4 messages" "$mqcat" decode lost.bin
bytes 'my $m = message("V", 1, "u", text("V", 1, "t"));
  my $n = $m; substr($n, 64, 4) = pack("V", 1000); $n . $m . $m' >longer.bin
row 6 "3 messages" "$mqcat" decode longer.bin

# Dumps as other tools write them.
perl -e 'local $/; $_ = <STDIN>; my $at = 0;
  while (length) { my $l = substr $_, 0, 16, ""; (my $s = $l) =~ s/[^ -~]/./g;
    printf "%08x: %s  %s\n", $at, join(" ", map { unpack "H4", $_ } $l =~ /..?/sg), $s; $at += 16 }' <plain.bin >xxd.txt
perl -e 'local $/; $_ = <STDIN>; print unpack "H*", $_' <plain.bin >digits.txt
od -Ax -tx1 plain.bin >od.txt
for dump in xxd.txt digits.txt od.txt; do row 0 "3 messages, 0 stray bytes, 0 faults" "$mqcat" decode $dump; done
grep -q '^\*' od.txt || fail "the dump of od has no repeated lines: the case is not tested"

# The example in the documents is a message as it is.
sed -n '/^0000[0-9a-f]* /p' "$source_dir/docs/wire-format.md" >example.txt
row 0 '"hello"' "$mqcat" decode example.txt
for rule in $(sed -n 's/.*part\.Break([^"]*"\([a-z-]*\)".*/\1/p; s/.*part\.size(), "\([a-z-]*\)".*/\1/p' \
  "$source_dir/tools/mqcat/decode.cc" | sort -u); do
  grep -qF "| \`$rule\` |" "$source_dir/docs/wire-format.md" || fail "docs/wire-format.md does not know the rule $rule"
done

# A capture: a connection whose segments come in the wrong order and twice, a datagram, somebody else's packet.
for link in 1 101 113 0; do
  perl -e '
    local $/; open F, "<", "plain.bin"; binmode F; my $s = <F>; open F, "<", "big-endian.bin"; my $d = <F>;
    sub frame { my $p = shift; my $link = $ARGV[0];
      $p = "\0" x 12 . "\x08\0" . $p if $link == 1; $p = "\0" x 14 . "\x08\0" . $p if $link == 113;
      $p = pack("V", 2) . $p if $link == 0;
      pack("V4", 0, 0, length $p, length $p) . $p }
    sub ip { my ($proto, $p) = @_;
      frame(pack("CCn3CCnNN", 0x45, 0, 20 + length $p, 1, 0, 64, $proto, 0, 0x7f000001, 0x7f000002) . $p) }
    sub tcp { my ($seq, $flags, $p) = @_; ip(6, pack("nnNNCCnnn", 40000, 5000, $seq, 0, 0x50, $flags, 0, 0, 0) . $p) }
    binmode STDOUT; print pack("VvvVVVV", 0xa1b2c3d4, 2, 4, 0, 0, 65535, $ARGV[0]);
    my $base = 0xffffff00;
    print tcp($base - 1, 2, ""), tcp($base, 16, substr $s, 0, 100),
      tcp(($base + 300) & 0xffffffff, 16, substr $s, 300), tcp($base, 16, substr $s, 0, 150),
      tcp(($base + 150) & 0xffffffff, 16, substr $s, 150, 150),
      ip(17, pack("nnnn", 1, 2, 8 + length $d, 0) . $d), ip(17, pack("nnnn", 53, 53, 12, 0) . "dns!"), ip(1, "icmp")' \
    $link >capture.pcap
  row 0 "4 messages, 0 stray bytes, 0 faults" "$mqcat" decode capture.pcap
  grep -qF "127.0.0.1:53 > 127.0.0.2:53: 4 bytes without a message" err.txt || fail "link $link: $(cat err.txt)"
done
head -c -20 capture.pcap >short.pcap
row 3 "announces" "$mqcat" decode short.pcap
printf '\n\r\r\n' >next.pcapng
row 3 "editcap" "$mqcat" decode next.pcapng

printf '%d cases, %d failures\n' "$cases" "$failures"
[ "$failures" = 0 ]
