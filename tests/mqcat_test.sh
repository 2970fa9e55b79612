#!/usr/bin/env bash
# mqcat_test.sh BUILD_DIR - the tool as its users meet it: every command, and the mistakes that people make.
# A case is a row of a table: exit code, command, " => ", and a pattern for all that the command writes, standard output
# before standard error, with " / " between lines.
# shellcheck disable=SC2016,SC2034 # rows are evaluated later
set -u -o pipefail
build=$(cd "${1:?usage: mqcat_test.sh BUILD_DIR}" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
cd "$work" || exit 1
unset COLUMNS
failures=0 cases=0 processes=()

finish() {
  for pid in "${processes[@]:-}"; do [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; done
  cd / && rm -rf "$work"
}
trap finish EXIT

fail() {
  failures=$((failures + 1))
  printf 'FAIL %s\n' "$*" >&2
}

mqcat() { timeout 20 "$build/bin/mqcat" "$@"; }
json() { mqcat send 127.0.0.1 5000 --json "$1"; }
x() { printf 'x%.0s' $(seq "$1"); }

check() {
  local code=$1 command=$2 pattern=$3 got text
  cases=$((cases + 1))
  eval "$command" >out.txt 2>err.txt
  got=$?
  text=$(cat out.txt err.txt | tr -d '\0')
  text=${text//$'\n'/ / }
  # shellcheck disable=SC2053 # it is a pattern
  [[ $got == "$code" && $text == $pattern ]] || fail "$command: $got instead of $code, or not '$pattern': ${text:0:600}"
}

table() {
  local rows row rest pattern
  mapfile -t rows
  for row in "${rows[@]}"; do
    rest=${row#* }
    pattern=${rest##* =>}
    check "${row%% *}" "${rest%% =>*}" "${pattern# }"
  done
}

# start NAME ARGUMENT...: a listener on a port that the system picks; its output goes to NAME.out and NAME.err, its port
# to $port, its process id to $listener.
start() {
  local name=$1
  shift
  : >"$name.err"
  "$build/bin/mqcat" listen 0 "$@" >"$name.out" 2>"$name.err" &
  listener=$!
  processes+=("$listener")
  await "$name.err" 1 "listening on"
  port=$(sed -n 's/.*listening on [A-Z]* .*:\([0-9]*\)$/\1/p' "$name.err")
}

# stop NAME TEXT: SIGINT ends the listener with 0, and what it says holds the text.
stop() {
  kill -INT "$listener"
  wait "$listener" || fail "listener $1 ended with $?"
  grep -qF -e "$2" "$1.err" || fail "listener $1: no \"$2\" in: $(cat "$1.err")"
}

# await FILE COUNT TEXT: until the file has so many lines with the text.
await() {
  local i
  for ((i = 0; i < 1000; i++)); do
    [ "$(grep -cF -e "$3" "$1")" -ge "$2" ] && return
    sleep 0.02
  done
  fail "$1 has not $2 times \"$3\": $(head -c 300 "$1")"
}

# ---- Mistakes, help, where output goes ----

head -c 67108864 /dev/zero >zeros.bin
head -c 300000 /dev/zero >big.bin
memory=900000  # KiB that 64 MiB of input may cost; sanitizers take all
grep -q '^MQNODE_SANITIZE:[A-Z]*=.' "$build/CMakeCache.txt" && memory=unlimited

table <<'END'
0 mqcat --help => *Exit codes:*
2 mqcat => mqcat: A subcommand is required / * --help says more
2 mqcat lisen 5000 => mqcat: no command "lisen" / * --help says more
2 mqcat send 127.0.0.1 65536 -c 1 => mqcat: service "65536": not a port from 0 to 65535
2 mqcat ping 127.0.0.300 5000 => mqcat: host "127.0.0.300": not an IPv4 address (*)
2 mqcat listen "$(x 40)" => mqcat: *a service has 1 to 32 characters*
4 mqcat listen no-such-service => mqcat: *: SOCK_SERVICE_UNKNOWN (9002): * / * add the service to /etc/services
2 mqcat send 127.0.0.1 5000 -c 4294967296 => *"4294967296" is not a whole number from 0 to 4294967295 / *
2 mqcat ping 127.0.0.1 5000 -i nan => mqcat: -i,--interval: "nan" is not a time from 0 to 86400 s / *
2 mqcat send 127.0.0.1 5000 -c 1 --format $'\u202e\e' => *\\xe2\\x80\\xae\\x1b*
2 mqcat send 127.0.0.1 5000 -c 1 --json '{}' => mqcat: send: give the message once: *
2 mqcat send 127.0.0.1 5000 -c 1 --user thirteenchars => mqcat: *a user has 1 to 12 characters*
2 mqcat send 127.0.0.1 5000 -c 1 -p 1:int=1 => mqcat: *: type "int" is none of int32, int64, text, bytes, file
3 mqcat send 127.0.0.1 5000 -c 1 -p 1:int32=2147483648 => mqcat: parameter 1 (int32): * does not fit int32 *
3 mqcat send 127.0.0.1 5000 -c 1 -p 1:bytes=abc => *"abc" is not an even number of hexadecimal digits*
3 mqcat send 127.0.0.1 5000 -c 1 --file 4=. => *EISDIR*
3 json '{"command":' => mqcat: --json, line 1, column 12: not JSON: *
3 json '{"command":1,"paramters":[]}' => mqcat: --json*key "paramters"*
3 json $'{"command":1,\n"command":2}' => mqcat: --json, line 2, column 9: key "command" is there twice*
3 json "{\"command\":$(printf '[%.0s' {1..9999})}" => mqcat: --json*nested deeper*
3 json '{"command":1,"parameters":[{"id":1,"value":"a\u0000b"}]}' => mqcat: --json*zero character*
3 json '{"command":1,"parameters":[{"id":1,"value":1e300}]}' => mqcat: --json*parameter 0, value: 1e+300*
0 mqcat explain 2026 105 -1001 sock_peer_closed => *MQ_BAD_MESSAGE*ENOBUFS*MQ_NOT_AUTHENTIC*9004*
2 mqcat explain closed => mqcat: explain "closed": no code has this name / * SOCK_PEER_CLOSED*
0 mqcat explain --all --format markdown | cmp - "$source_dir/docs/errors.md" =>
8 mqcat explain --all >&- => mqcat: *EBADF*
8 mqcat explain --all >/dev/full => mqcat: *ENOSPC*
9 head -c 3000000 zeros.bin | mqcat decode --full | true =>
END

# What the help names, the manual page and the completion name, too.
options=$(for command in listen send ping decode 'keys add' 'keys list' explain; do
  # shellcheck disable=SC2086 # two words
  mqcat $command --help | sed -n '/^Options/,/^$/s/^  \(-.,\)\?\(--[a-z-]*\).*/\2/p'
done | sort -u)
[ "$(wc -l <<<"$options")" -gt 20 ] || fail "the help has few options: $options"
sed 's/\\-/-/g' "$source_dir/tools/mqcat/mqcat.1" >manual.txt
for option in $options; do
  for page in manual.txt "$source_dir/tools/mqcat/mqcat.bash"; do
    grep -qE -e "$option([^a-z-]|\$)" "$page" || fail "$(basename "$page") does not know $option"
  done
done
for width in 1 40; do
  COLUMNS=$width mqcat explain --all | awk 'length > 72' | grep . && fail "explain is too wide at COLUMNS=$width"
  check 0 "COLUMNS=$width mqcat send --help" '*Usage*'
done

# ---- Connections ----

message='"command":4294967295,"parameters":[{"id":1,"type":"text","value":"grüß \"Gott\"\n"},'
message+='{"id":4294967295,"type":"int32","value":-2147483648},{"id":0,"type":"int64","value":9223372036854775807},'
message+='{"id":3,"type":"bytes","value":"00ff10"},{"id":3,"type":"text","hex":"fffe41"},'
message+='{"id":5,"type":"text","value":""},{"id":6,"type":"bytes","value":""},'
message+='{"id":7,"type":"text","value":"\u001b[2J\u007f\u009b\u061c\u202e\u2066"}]}'
start json --format json --echo
table <<'END'
0 mqcat send 127.0.0.1 $port --json "{$message" --reply --format json | tee round.json => {*"signed":false,*; 1 answered
0 sed 's/.*"command":/"command":/' round.json | cmp - <(echo "$message") =>
0 mqcat send 127.0.0.1 $port --stdin --reply --format quiet <round.json => mqcat: sent 1 message, *; 1 answered
0 tail -n 1 json.out | sed 's/.*"command":/"command":/' | cmp - <(echo "$message") =>
0 printf '{"command":1}\n\n{"command":2}' | mqcat send 127.0.0.1 $port => mqcat: sent 2 messages, *
3 printf '{"command":1}\n!\n' | mqcat send 127.0.0.1 $port => mqcat: standard input, line 2, column 1: not JSON: *
3 mqcat send 127.0.0.1 $port <&- => *EBADF*
0 mqcat send 127.0.0.1 $port -c 5 -p 1=x --file 7=big.bin --reply => *300*
0 mqcat send localhost $port -c 1 --repeat 20000 => mqcat: sent 20000 messages, *
0 mqcat send @ $port -c 1 --repeat 3 --interval 0.01 --reply --user bob => *; 3 answered
0 grep -c '"user":"bob"' json.out => 3
3 mqcat ping 127.0.0.1 $port --udp -s 20000 => *0 sent, 0 answered, 0% loss*
1 "$build/bin/client" 127.0.0.1 $port 'this node resets when it closes' => *not an answer*
END
stop json "messages, "
check 1 'grep ECONNRESET json.err' ''

# Bytes that are no message, a signed one where no ring is, and no answers.
start plain --count 5 --trace
mqcat keys new alice alice.key >ring 2>err.txt
printf 'GET / HTTP/1.0\r\n\r\n%0200d' 0 >"/dev/tcp/127.0.0.1/$port"
table <<'END'
4 mqcat listen $port => mqcat: *EADDRINUSE*
5 mqcat send 127.0.0.1 $port -c 1 --reply --timeout 0.2 => *none within 0.2 s*
0 mqcat send 127.0.0.1 $port -c 7 -p "1=$(x 100)" --sign alice.key => mqcat: sent 1 message*
5 mqcat ping 127.0.0.1 $port -c 2 -i 0.01 -W 0.1 => *2 sent, 0 answered, 100% loss*
0 mqcat send 127.0.0.1 $port -c 1 -p $'1=a\tb' -p 2:bytes= => mqcat: sent 1 message*
0 mqcat send 127.0.0.1 $port -c 1 => mqcat: sent 1 message*
0 wait $listener; grep -e BAD_MESSAGE -e 'it is signed' -e ' faulty' plain.err => *2026*--ring FILE*2 faulty*
0 grep 'a.tb' plain.out =>   1 text   "a\\tb"
0 grep -o -e 'node fd' -e mnRead -e ReadSocket:After plain.err | sort -u => ReadSocket:After / mnRead / node fd
4 mqcat send 127.0.0.1 $port -c 1 => *ECONNREFUSED (111)*
END

# What moves a terminal's cursor, rings it or turns the direction of writing comes out as an escape, if at all.
unsafe='[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]'
hostile=$'\e[2J\a\n\x7f\u009b\u061c\u202e\u2066'
for format in text json hex; do
  start $format --format $format --count 1
  check 0 "mqcat send 127.0.0.1 $port -c 258 -p '1=$hostile' --user \$'\u009b\u202e\e\x7fq'" 'mqcat: sent 1 message*'
  wait "$listener"
  check 1 "LC_ALL=C grep -aP '$unsafe' $format.out | cat -v" ''
done
check 0 'mqcat decode hex.out' '*command *258*1 message, 0 stray bytes, 0 faults'

# Many clients at once, and one that never reads its answers: it delays nobody, and its messages stay where they are
# once 1 MiB of answers wait.
start many --echo --format quiet
perl -MIO::Socket::INET -e '
  my $body = pack("V5", 1, 1, 1, 4, 900000) . "\0" x 900000;
  my $peer = IO::Socket::INET->new("127.0.0.1:$ARGV[0]") or die;
  alarm 1;
  print $peer pack("V4 x48 V x68", 136, 1, 0, 1, length $body), $body while 1' "$port" &
greedy=$!
clients=()
for i in {1..8}; do
  mqcat send 127.0.0.1 "$port" -c "$i" --repeat 50 --reply --format quiet -q &
  clients+=($!)
done
for pid in "${clients[@]}"; do wait "$pid" || fail "one of eight clients failed"; done
table <<'END'
0 mqcat ping 127.0.0.1 $port -c 5 -i 0.01 => *seq=4 time=*5 sent, 5 answered, 0% loss*rtt p50/p90/p99*####*
0 mqcat ping 127.0.0.1 $port -c 3 -i 0 -s 100000 --json => *"answered":3*
0 mqcat ping 127.0.0.1 $port -w 0.2 -i 0.05 -q => *ping statistics*answered*
0 timeout --foreground -s INT 1 "$build/bin/mqcat" ping 127.0.0.1 $port -i 0.05 -q || [ $? = 124 ] => *ping statistics*
END
wait "$greedy" 2>/dev/null
stop many "not delivered"
[ "$(sed -n 's/^mqcat: \([0-9]*\) messages.*/\1/p' many.err)" -lt 470 ] || fail "read too much: $(cat many.err)"

# What a client may cost: half a message and then nothing, a long one, a second client of the address.
start bounds --max-message 1000 --max-clients 2 --max-per-address 1 --midway 1
exec {half}<>"/dev/tcp/127.0.0.1/$port"
printf '\210\0\0\0' >&"$half"
check 4 "mqcat send 127.0.0.1 $port -c 1 -q --repeat 1000 --interval 0.01" "mqcat: *to 127.0.0.1:$port*"
await bounds.err 1 "--max-per-address"
await bounds.err 1 "half a message for 1 s (--midway)"
exec {half}>&-
check 4 "mqcat send 127.0.0.1 $port -c 1 -q --repeat 1000 --interval 0.01 -p 1=$(x 1000)" "mqcat: *to 127.0.0.1:$port*"
await bounds.err 1 "a message of 1160 bytes is too long (--max-message)"
stop bounds "3 clients, 3 dropped"

# Without descriptors the listener neither spins nor gives up.
limit=$(ulimit -S -n)
ulimit -S -n 20
start few --echo --format quiet
ulimit -S -n "$limit"
many=()
for ((i = 0; i < 20; i++)); do exec {one}<>"/dev/tcp/127.0.0.1/$port" && many+=("$one"); done
await few.err 1 "EMFILE"
for one in "${many[@]}"; do exec {one}>&-; done
check 0 "mqcat ping 127.0.0.1 $port -c 1 -W 5" '*, 0% loss*'
stop few "1 message"
[ "$(grep -c EMFILE few.err)" -lt 10 ] || fail "a listener without descriptors said so $(grep -c EMFILE few.err) times"

# ---- Datagrams: an answer is marked and never answered, so that two servers do not answer each other for ever ----

start udp --udp --echo --format json --answer-rate 4
mark='{"id":1095652183,"type":"int32","value":1}'
printf 'noise' >"/dev/udp/127.0.0.1/$port"
table <<'END'
0 mqcat send 127.0.0.1 $port --udp -c 7 -p 1=hello --reply --format json => *"value":"hello"*"id":1095652183,*
0 mqcat ping 127.0.0.1 $port --udp -c 2 -i 0.01 => *, 0% loss*
1 grep -F "$mark" udp.out =>
5 mqcat send 127.0.0.1 $port --udp -c 7 -p 1095652183=x --reply --timeout 0.1 => *none within*
0 mqcat ping 127.0.0.1 $port --udp -c 9 -i 0 -W 0.1 => *9 sent, [1-8] answered*
3 mqcat send 127.0.0.1 $port --udp -c 7 --file big.bin => *at most 16520 bytes*
END
stop udp "1 faulty"
grep -q 'held back' udp.err || fail "--answer-rate: $(cat udp.err)"

# ---- Keys ----

secret=$(grep -o '[0-9a-f]\{64\}' alice.key)
printf 'alice %s\n# secret key: keep it to yourself\n' "$secret" >old.key
printf 'alice %s\n' "$secret" >bare.key
printf '%s alice\n' "$secret" >swapped.key
mkfifo fifo
ln -s real.ring link.ring
add() { mqcat keys public "$1.key" | mqcat keys add "${@:2}"; }
table <<'END'
0 stat -c %a alice.key => 600
7 mqcat keys new alice alice.key => mqcat: *alice.key*
7 mqcat keys new 'name with blanks' other.key => mqcat: *user*
0 mqcat keys new mallory mallory.key => mallory * public / mqcat: *
0 add alice ring => *0 of 1 keys are new*
7 mqcat keys public mallory.key | sed 's/^mallory/alice/' | mqcat keys add ring => mqcat: *another key*
7 mqcat keys add ring bob 1234 => mqcat: *key of 64 hexadecimal digits
7 mqcat keys add ring bob "$(printf 'ab%.0s' {1..32})" => mqcat: *not a valid public key*
2 mqcat keys add ring bob => mqcat: *without a key*
7 mqcat keys add alice.key bob "$(cut -d' ' -f2 ring)" => mqcat: *secret key in a ring*
7 mqcat keys add fresh "$secret" alice => mqcat: *expected a user*
3 mqcat keys list nowhere => mqcat: read nowhere: *ENOENT*
7 mqcat keys list fifo => mqcat: *not a regular file*
7 add alice fifo => mqcat: *not a regular file*
7 chmod 644 mallory.key; mqcat send 127.0.0.1 9 -c 1 --sign mallory.key => mqcat: *chmod 600*
7 mqcat keys list mallory.key => mqcat: *chmod 600*
0 chmod 600 *.key; mqcat keys new carol carol.key --until 2031-05-06 => carol * public until=2031-05-06 / *
2 mqcat keys new carol other.key --until 2031-02-30 => mqcat: *expected a day*
0 add carol link.ring => *1 of 1 keys are new*
7 add carol link.ring --until 2030-01-01 => mqcat: *another end*
0 add carol link.ring --until 2030-01-01 --replace => *1 of 1 keys*
0 chmod 640 real.ring; mqcat keys list link.ring => *until=2030-01-01*
0 add carol link.ring --revoke => *1 of 1 keys*
7 add carol link.ring --replace => mqcat: *is revoked*
0 stat -c '%F %a' link.ring real.ring => symbolic link 777 / regular file 640
7 chmod 666 real.ring; mqcat keys list real.ring => mqcat: *chmod go-w*
7 mqcat listen 0 --ring nowhere => mqcat: *nowhere*
END
# Whatever marks a secret key, or nothing does: it enters no ring and no output, and columns that are swapped neither.
for file in alice old bare swapped; do
  for mode in 600 644; do
    chmod $mode $file.key
    check 7 "mqcat keys add fresh <$file.key" '*'
    grep -F "${secret:0:20}" out.txt err.txt && fail "$file.key of mode $mode: a secret key is shown"
    mqcat keys list $file.key 2>&1 | grep -F "${secret:0:20}" && fail "$file.key of mode $mode: a secret key is listed"
    [ ! -e fresh ] || fail "$file.key of mode $mode made a ring: $(cat fresh)"
  done
done
chmod 600 ./*.key
line=$(mqcat keys public alice.key)
adders=()
for i in {1..40}; do
  mqcat keys add many.ring <<<"user$i ${line#* }" 2>/dev/null &
  adders+=($!)
done
for pid in "${adders[@]}"; do wait "$pid" || fail "one of 40 who add keys at once failed"; done
check 0 'mqcat keys list many.ring | wc -l' 40

start signed --ring ring --echo --sign alice.key --count 3
table <<'END'
0 mqcat send 127.0.0.1 $port -c 7 -p 1=signed --sign alice.key --ring ring --reply => *signed by "alice"*
0 mqcat send 127.0.0.1 $port -c 7 --sign mallory.key => mqcat: sent 1 message*
0 mqcat send 127.0.0.1 $port -c 7 -p "1=$(x 100)" => mqcat: sent 1 message*
END
await signed.err 1 "user mallory is not in the ring"
await signed.err 1 "it is not signed"
stop signed "1 not authentic, 1 faulty"

# ---- Decode ----

# record NAME ARGUMENT...: the bytes that mqcat send puts on the wire.
record() {
  perl -MIO::Socket::INET -e '
    my $server = IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1") or die;
    $| = 1; print STDERR "port ", $server->sockport, "\n";
    my $client = $server->accept or die;
    binmode STDOUT; print $_ while sysread $client, $_, 65536' >"$1" 2>port.txt &
  await port.txt 1 port
  mqcat send 127.0.0.1 "$(cut -d' ' -f2 port.txt)" -q "${@:2}"
  wait $!
  : >port.txt
}
: >port.txt
record plain.bin -c 7 -p 1=hello -p 2:int32=-5 -p 3:int64=12345678901 -p 4:bytes=00ff10 --repeat 3
record signed.bin -c 8 -p 1=hello --sign alice.key

# bytes EXPRESSION: what perl makes of it, with messages of either byte order ("N" is big-endian) and their parts.
bytes() {
  perl -e '
    sub header { my ($o, $ascii, $length, $user) = @_;
      pack("${o}4 x48 ${o}2 a12 a48 x4", 136, 1, $o eq "N" ? 1 : 0, $ascii, $length, 0, $user, $user) }
    sub text { my ($o, $text) = @_; my $n = length $text; pack("${o}3 a*", 1, 3, $n, $text . "\0" x (4 - $n % 4)) }
    sub message { my ($o, $ascii, $user, @params) = @_;
      my $body = pack("${o}2", 7, scalar @params) . join "", @params; header($o, $ascii, length $body, $user) . $body }
    sub body { my $body = pack "V*", @_; header("V", 1, length $body, "u") . $body }
    sub ip { my ($protocol, $fragment, $p) = @_;
      pack("CCn3CCnNN", 0x45, 0, 20 + length $p, 1, $fragment, 64, $protocol, 0, (0x7f000001) x 2) . $p }
    sub tcp { my ($seq, $flags, $p) = @_; ip(6, 0, pack("nnNNCCnnn", 4, 5, $seq, 0, 0x50, $flags, 0, 0, 0) . $p) }
    $m = message("V", 1, "u", text("V", "t"));
    binmode STDOUT; print eval $ARGV[0]; die $@ if $@' "$1"
}
decode() { bytes "$1" | mqcat decode; }
broken() { decode "$2" | grep -o "FAULT at byte [0-9]*: $1: "; }
(cat plain.bin; printf 'noise\0\210\0\0'; cat signed.bin; bytes 'message("N", 1, "big", text("N", "hello"))') >noise.bin
(head -c 180 plain.bin; cat plain.bin) >lost.bin
od -Ax -tx1 plain.bin >od.txt
sed -n '/^0000[0-9a-f]* /p' "$source_dir/docs/wire-format.md" >example.txt
printf '00000000 00 01 02 03\n*\n08000000\n' >repeats.txt
table <<'END'
0 mqcat decode plain.bin => *  136    4  command              7*-5*12345678901*00ff10*3 messages*0 faults
0 mqcat decode signed.bin => *signed message*"alice"*"MQSIGN01"*UTC*1 message, 0 stray bytes, 0 faults
0 mqcat decode --format json signed.bin => {*"name":"signature"*}
0 od -An -v -tx1 plain.bin | tr -d ' \n' | mqcat decode => *3 messages, 0 stray bytes, 0 faults
0 mqcat decode od.txt => *3 messages, 0 stray bytes, 0 faults
0 mqcat decode example.txt => *"hello"*1 message, 0 stray bytes, 0 faults
3 mqcat decode --input hex repeats.txt => *mqcat: repeats.txt: line 3 is not a hexadecimal dump
3 mqcat decode --input hex plain.bin => *line 1 is not a hexadecimal dump
6 (ulimit -v $memory; "$build/bin/mqcat" decode zeros.bin) => *0 messages, 67108864 stray bytes, 1 fault
0 decode 'message("N", 1, "big", text("N", "hello"))' => *sender is big-endian*
0 decode 'message("V", 0, "\x81\x82", text("V", "\xc8\x85\x93\x93\x96"))' => *"ab"*"Hello"*
6 mqcat decode noise.bin => *5 messages, 9 stray bytes, 1 fault
6 mqcat decode lost.bin => *4 messages, *
6 decode 'my $n = $m; substr($n, 64, 4) = pack("V", 1000); $n . $m . $m' => *3 messages, *
6 broken first-word 'pack("V", 135) . "x" x 200' => *
6 broken byte-order-flag 'substr($m, 8, 1) = "\1"; $m' => *
6 broken charset-flag 'message("V", 2, "u", text("V", "t"))' => *
6 broken encoding-version 'substr($m, 4, 1) = "\2"; $m' => *
6 broken origin-word 'substr($m, 68, 1) = "\1"; $m' => *
6 broken zero-fill 'message("V", 1, "u\0x", text("V", "t"))' => *
6 broken body-length 'header("V", 1, 0x7fffffff, "u") . "x" x 100' => *
6 broken body-head 'body(1)' => *
6 broken truncated 'substr($m, 0, 150)' => *
6 broken parameter-count 'body(1, 0xffffffff)' => *
6 broken parameter-head 'body(1, 1, 1)' => *
6 broken parameter-length 'body(1, 1, 1, 4, 0xfffffff0)' => *
6 broken parameter-type 'body(1, 1, 1, 9, 0)' => *
6 broken parameter-padding 'body(1, 1, 1, 4, 1, 0x64636261)' => *
6 broken text-zero-byte 'message("V", 1, "u", text("V", "a\0b"))' => *
6 broken body-rest 'body(1, 0, 1)' => *
6 broken envelope-version 'pack("V5", 32, 2, 0, 1, 200) . "u" x 12 . message("V", 1, "u", text("V", "t" x 200))' => *
6 broken header-in-envelope 'pack("V5", 32, 1, 0, 1, 200) . "u" x 212' => *
6 broken message-length 'pack("V5", 32, 1, 0, 1, 0) . "u" x 12' => *
END
for ((cut = 1; cut < $(stat -c %s signed.bin); cut += 23)); do
  check 6 "head -c $cut signed.bin | mqcat decode" '*, 1 fault'
done
for rule in $(sed -n 's/.*part\.Break([^"]*"\([a-z-]*\)".*/\1/p; s/.*part\.size(), "\([a-z-]*\)".*/\1/p' \
  "$source_dir/tools/mqcat/decode.cc" | sort -u); do
  grep -qF "| \`$rule\` |" "$source_dir/docs/wire-format.md" || fail "docs/wire-format.md does not know the rule $rule"
done

# Captures: segments out of order, twice, without a beginning and with one missing; links, fragments, a cut file.
dump() { od -Ax -v -tx1; }
capture() { text2pcap -q "${@:2}" - "$1" 2>/dev/null; }
# link TYPE HEADER: a datagram behind this header of a link.
link() { (printf '%b' "$2"; tail -c +55 one.pcap) | dump | capture - -F pcap -l "$1" | mqcat decode; }
if command -v text2pcap >/dev/null; then
  bytes 'message("N", 1, "big", text("N", "hello"))' | dump | capture one.pcap -F pcap -u 1,2
  split -b 100 --filter 'od -Ax -v -tx1' plain.bin | capture tcp.pcapng -T 40000,5000
  for i in {1..7}; do editcap -r tcp.pcapng "$i.pcapng" "$i"; done
  mergecap -a -w order.pcapng {1,3,1,5,2,4,4,7,6,6}.pcapng
  mergecap -a -w gap.pcapng {1,2,4,5,6,7}.pcapng
  head -c -20 one.pcap >cut.pcap
  printf 'dns!' | dump | capture foreign.pcapng -u 53,53
  for packet in 'ip(17, 8, substr $d, 64)' 'ip(17, 0x2000, substr $d, 0, 64)'; do
    bytes 'my $d = pack("nnnn", 1, 2, 8 + length $m, 0) . $m; '"$packet" | dump
  done | capture fragments.pcapng -l 101
  # Sequence numbers run over, then another connection has the same port.
  for packet in 'tcp(0xffffffdf, 2, "")' 'tcp(0xffffffe0, 16, substr $m, 0, 100)' 'tcp(68, 16, substr $m, 100)' \
                'tcp(9, 2, "")' 'tcp(10, 16, $m)'; do bytes "$packet" | dump; done | capture again.pcapng -l 101
  table <<'END'
0 mqcat decode tcp.pcapng => TCP *:40000 > *:5000, * bytes*3 messages, 0 stray bytes, 0 faults
0 mqcat decode - <order.pcapng => *3 messages, 0 stray bytes, 0 faults
3 mqcat decode gap.pcapng => *:5000 (part 2), *mqcat: gap.pcapng: TCP *: 100 bytes are missing from the capture
0 mqcat decode fragments.pcapng => UDP 127.0.0.1:1 > 127.0.0.1:2*1 message, 0 stray bytes, 0 faults
0 mqcat decode again.pcapng => TCP *:5, 160 bytes*:5 (part 2), 160 bytes*2 messages, 0 stray bytes, 0 faults
3 editcap -r fragments.pcapng - 1 | mqcat decode => *: 1 fragment without the rest of the packet
0 mqcat decode foreign.pcapng => 0 messages, *:53: 4 bytes without a message, left out
3 mqcat decode cut.pcap => 0 messages, *after packet 0: truncated dump file; *
3 head -c 30 tcp.pcapng | mqcat decode => 0 messages, *mqcat: -: not a pcap or pcapng file: truncated *
3 mqcat decode --input pcap plain.bin => 0 messages, *not a pcap or pcapng file: unknown file format
3 link 147 '' => *link type 147 is not known
0 link 101 '' => *1 message, 0 stray bytes, 0 faults
0 link 1 '123456123456\x81\x00\x00\x01\x08\x00' => *1 message, 0 stray bytes, 0 faults
0 link 113 '12345678901234\x08\x00' => *1 message, 0 stray bytes, 0 faults
0 link 276 '\x08\x00123456789012345678' => *1 message, 0 stray bytes, 0 faults
0 link 0 '\x02\x00\x00\x00' => *1 message, 0 stray bytes, 0 faults
0 link 1 '123456123456\x86\xdd' => *1 of 1 packets carry no IPv4 TCP or UDP
3 mqcat decode --interface nowhere => mqcat: capture from nowhere: *
2 mqcat decode --interface lo one.pcap => mqcat: FILE excludes --interface*
END
else
  echo 'left out: captures, for text2pcap is not here'
fi
"$build/bin/mqcat" decode --interface lo --filter 'udp port 47111' --count 2 >live.out 2>live.err &
live=$!
for ((i = 0; i < 100; i++)); do [ -s live.err ] && break; sleep 0.02; done
if grep -q capturing live.err; then
  mqcat send 127.0.0.1 47111 --udp -c 5 --repeat 2 -q
  check 0 'wait $live; cat live.out' '*:47111, *2 messages, 0 stray bytes, 0 faults'
  check 2 'mqcat decode --interface lo --filter "port ((" ' 'mqcat: --filter: *'
else
  echo "left out: capture from an interface: $(cat live.err)"
fi

printf '%d cases, %d failures\n' "$cases" "$failures"
[ "$failures" = 0 ]
