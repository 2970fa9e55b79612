#!/usr/bin/env bash
# mqcat_test.sh BUILD_DIR - the tool as users see it: every command, and common mistakes. A case is a row of a table:
# exit code, command, " => ", and a pattern for the whole output, standard output before standard error, with " / "
# between lines.
# shellcheck disable=SC2016,SC2034 # rows are evaluated later
. "$(dirname "$0")/support/shell.sh"
cd "$work" || exit
tool=$build/bin/mqcat
mqcat() { timeout 20 "$tool" "$@"; }
json() { mqcat send 127.0.0.1 5000 --json "$1"; }
x() { printf 'x%.0s' $(seq "$1"); }

check() {
  local got text
  eval "$2" >out.txt 2>err.txt
  got=$?
  text=$(cat out.txt err.txt | tr -d '\0')
  text=${text//$'\n'/ / }
  # shellcheck disable=SC2053 # it is a pattern
  [[ $got == "$1" && $text == ${3# } ]] || fail "$2: $got instead of $1, or not '$3': ${text:0:600}"
}

table() {
  local code row
  while read -r code row <&3; do check "$code" "${row%% =>*}" "${row##* =>}"; done 3<&0 </dev/null
}

# start NAME ARGUMENT...: starts a listener on a port that the system chooses. Sets port and pid; its output goes to
# NAME.out and NAME.err.
start() {
  : >"$1.err"
  "$tool" listen 0 "${@:2}" >"$1.out" 2>"$1.err" &
  pid=$!
  started+=("$pid")
  await "$1" "listening on"
  port=$(sed -n 's/.*listening on [A-Z]* .*:\([0-9]*\)$/\1/p' "$1.err")
}

# stop NAME TEXT: checks that SIGINT ends the listener with 0, and that it printed the text.
stop() { kill -INT "$pid" && ends "$1" 0 && has "$1.err" "$2"; }

# await NAME TEXT: waits until the listener prints the text, at most 20 s.
await() {
  for _ in {1..1000}; do grep -qF -e "$2" "$1.err" && return || sleep 0.02; done
  has "$1.err" "$2"
}

# ---- Mistakes, help, where output goes ----

head -c 67108864 /dev/zero >zeros.bin
head -c 300000 /dev/zero >big.bin
memory=900000  # KiB for 64 MiB of input; sanitizers reserve all address space
grep -q '^MQNODE_SANITIZE:[A-Z]*=.' "$build/CMakeCache.txt" && memory=unlimited

table <<'END'
2 mqcat lisen 5000 => mqcat: "lisen" is not a command; did you mean "listen"? / *
2 mqcat help keys lsit => mqcat: "lsit" is not a command of mqcat keys; did you mean "list"?
2 mqcat send a:1 --replly=1 => mqcat: "--replly" is not an option of mqcat send; did you mean "--reply"? / *
2 mqcat send 5000 -c 1 => mqcat: "5000": expected HOST:PORT, such as 127.0.0.1:5000
2 script -qec "$tool listen 0 --format raw" /dev/null => *raw bytes*--force*
2 mqcat send 127.0.0.1:65536 -c 1 => mqcat: service "65536": not a port from 0 to 65535
2 mqcat ping 127.0.0.300 5000 => mqcat: host "127.0.0.300": not an IPv4 address (*)
4 mqcat listen no-such-service => mqcat: *: SOCK_SERVICE_UNKNOWN (9002): * / * a name from /etc/services
2 mqcat send 127.0.0.1 5000 -c 4294967296 => *"4294967296" is not a whole number from 0 to 4294967295 / *
2 mqcat ping 127.0.0.1 5000 -i nan => mqcat: -i,--interval: "nan" is not a time from 0 to 86400 s / *
2 mqcat send 127.0.0.1 5000 -c 1 --format $'\u202e\e' => *\\xe2\\x80\\xae\\x1b*
2 mqcat send 127.0.0.1 5000 -c 1 --json '{}' => mqcat: send: give one message: *
2 mqcat send 127.0.0.1 5000 -c 1 --user thirteenchars => mqcat: *a user name has 1 to 12 characters*
2 mqcat send 127.0.0.1 5000 -c 1 -p 1:int=1 => mqcat: *: type "int" is none of int32, int64, text, bytes, file
3 mqcat send 127.0.0.1 5000 -c 1 -p 1:int32=2147483648 => mqcat: parameter 1 (int32): * does not fit int32 *
3 mqcat send 127.0.0.1 5000 -c 1 -p 1:bytes=abc => *"abc" is not an even number of hexadecimal digits*
3 mqcat send 127.0.0.1 5000 -c 1 --file 4=. => *EISDIR*
3 json '{"command":' => mqcat: --json, line 1, column 12: not JSON: *
3 json '{"command":1,"paramters":[]}' => mqcat: --json, line 1, column 14: unknown key "paramters"*
3 json $'{"command":1,\n"command":2}' => mqcat: --json, line 2, column 1: key "command" appears twice*
3 json "{\"command\":$(printf '[%.0s' {1..9999})}" => mqcat: --json*nested deeper*
3 json '{"command":1,"parameters":[{"id":1,"value":"a\u0000b"}]}' => mqcat: --json*zero character*
3 json $'{"command":1,\n"parameters":[{"id":1,"value":"ß\\\\\\""},{"id":2,"value": 1e300}]}' => *line 2, column 57: *1e+300*
0 mqcat explain 2026 105 -1001 sock_peer_closed => *MQ_BAD_MESSAGE*ENOBUFS*MQ_NOT_AUTHENTIC*9004*
0 mqcat explain --all --format markdown | cmp - "$tree/docs/errors.md" =>
0 COLUMNS=40 mqcat explain --all | awk 'length > 72' =>
8 mqcat explain --all >&- => mqcat: *EBADF*
8 mqcat explain --all >/dev/full => mqcat: *ENOSPC*
9 head -c 3000000 zeros.bin | mqcat decode --full | true =>
END

# Whatever the help names, the manual page names, too, and the completion offers.
documented() {
  local program=$build/bin/$1 command page
  for command in "${@:2}"; do
    # shellcheck disable=SC2086 # two words
    "$program" $command --help | grep -oE -e '^  (-.,)? *--[a-z-]+' | grep -oE -e '--.*' || fail "no options of $command"
  done | sort -u >options
  for shell in bash zsh fish; do "$program" completion $shell >completion.$shell; done
  sed -i 's/ -l / --/g' completion.fish
  for page in "$tree/tools/$1/$1.1" completion.{bash,zsh,fish}; do
    same "options that $page does not name" '' \
      "$(sed 's/\\-/-/g' "$page" | grep -oE -e '--[a-z-]+' | sort -u | comm -23 options -)"
  done
  . ./completion.bash
}
offers() { COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); "_$1"; echo "${COMPREPLY[*]}"; }
documented mqcat listen send ping decode 'keys add' 'keys list' explain
if [ -x "$build/bin/mqbridge" ]; then
  documented mqbridge in out
  check 0 "offers mqbridge in '*:0' --mode ''" 'request store'
fi
table <<'END'
0 offers mqcat keys re => remove
0 offers mqcat send -q 127.0.0.1 : 5000 --format = '' => text json hex raw quiet
0 offers mqcat keys list opt => options
END

# ---- Connections ----

message='"command":4294967295,"parameters":[{"id":1,"type":"text","value":"grüß \"Gott\"\n"},'
message+='{"id":4294967295,"type":"int32","value":-2147483648},{"id":0,"type":"int64","value":9223372036854775807},'
message+='{"id":3,"type":"bytes","value":"00ff10"},{"id":3,"type":"text","value":"��A","hex":"fffe41"},'
message+='{"id":5,"type":"text","value":""},{"id":6,"type":"bytes","value":""},'
message+='{"id":7,"type":"text","value":"\u001b[2J\u007f\u009b\u061c\u202e\u2066"}]}'
start json --format json --echo
table <<'END'
0 mqcat send 127.0.0.1 $port --json "{$message" --reply --format json | tee round.json => {*"signed":false,*mqcat: sent 1 message, *; 1 answered
0 sed 's/.*"command":/"command":/' round.json | cmp - <(echo "$message") =>
0 printf '{"command":1}\n\n{"command":2}' | mqcat send 127.0.0.1 $port => mqcat: handed to the system: 2 messages, *; received by *
3 printf '{"command":1}\n!\n' | mqcat send 127.0.0.1 $port => mqcat: standard input, line 2, column 1: not JSON: *
3 mqcat send 127.0.0.1 $port <&- => *EBADF*
0 mqcat send 127.0.0.1 $port -c 5 -p 1=x --file 7=big.bin --reply => *300*
0 mqcat send localhost:$port -c 1 --repeat 20000 => mqcat: handed to the system: 20000 messages, *
0 mqcat ping 127.0.0.1 $port -c 5 -i 0.01 => *seq=4 time=*5 sent, 5 answered, 0% loss*rtt p50/p90/p99*####*
0 mqcat ping 127.0.0.1 $port -c 3 -i 0 -s 100000 --json => *"answered":3*
0 timeout --foreground -s INT 1 "$tool" ping 127.0.0.1 $port -i 0.05 -q || [ $? = 124 ] => *ping statistics*
0 mqcat send @ $port -c 1 --repeat 3 --interval 0.01 --reply --user bob => *; 3 answered
0 grep -c '"user":"bob"' json.out => 3
3 mqcat ping 127.0.0.1 $port --udp -s 20000 => *0 sent, 0 answered, 0% loss*
1 "$build/bin/client" 127.0.0.1 $port 'this node resets when it closes' => *not an answer*
END
stop json "messages, "
check 1 'grep ECONNRESET json.err' ''

# Bytes that are not a message, a signed message without a ring, and missing answers.
start plain --count 5 --trace
mqcat keys new alice alice.key >ring 2>err.txt
for filling in '' "$(x 200)"; do printf 'GET / HTTP/1.0\r\n\r\n%s' "$filling" >"/dev/tcp/127.0.0.1/$port"; done
table <<'END'
4 mqcat listen $port => mqcat: *EADDRINUSE*
5 mqcat send 127.0.0.1 $port -c 1 --reply --timeout 0.2 => *none within 0.2 s*
4 mqcat send 127.0.0.1 $port -c 7 -p "1=$(x 100)" --sign alice.key --repeat 5 --interval 0.2 => *: [1-4] message*not known
5 mqcat ping 127.0.0.1 $port -c 2 -i 0.01 -W 0.1 => *2 sent, 0 answered, 100% loss*
0 mqcat send 127.0.0.1 $port -c 1 -p $'1=a\tb' -p 2:bytes= --repeat 2 => mqcat: handed to the system: 2 messages*
0 wait $pid; grep -e 'left after 18 bytes' -e 'it is signed' plain.err => *"GET / HTTP/1.0\\r\\n\\r\\n"*--ring FILE
0 grep -e 'it begins with' -e ' faulty' plain.err => *"GET / HTTP/*2 faulty*
0 grep -m1 'a.tb' plain.out =>   1 text   "a\\tb"
0 grep -c 'trace .* fd [0-9]* 127.*:[0-9]* ReadSocket:After 136 bytes' plain.err => [5-9]
0 grep -c 'trace .* message from 127.*:[0-9]*: command 1, 2 parameters, 172 bytes' plain.err => 2
4 mqcat send 127.0.0.1 $port -c 1 => *ECONNREFUSED (111)*
END

hostile=$'\e[2J\a\n\x7f\u009b\u061c\u202e\u2066'
for format in text json hex; do
  start $format --format $format --count 1
  check 0 "mqcat send 127.0.0.1 $port -c 258 -p '1=$hostile' --user \$'\u009b\u202e\e\x7fq'" 'mqcat: handed to the system: 1 message*'
  ends $format 0
  same "unsafe as $format" '' "$(unsafe $format.out)"
done
check 0 'mqcat decode hex.out' '*command *258*1 message, 0 stray bytes, 0 faults'

# The limits on a client: half a message and then nothing, a long message, a second client of one address.
start bounds --max-message 1000 --max-clients 2 --max-per-address 1 --midway 1
exec {half}<>"/dev/tcp/127.0.0.1/$port"
printf '\210\0\0\0' >&"$half"
table <<'END'
4 mqcat send 127.0.0.1 $port -c 1 -q --repeat 1000 --interval 0.01 => mqcat: *to 127.0.0.1:*
0 await bounds "too slow (--midway)" =>
4 mqcat send 127.0.0.1 $port -c 1 -q --repeat 1000 --interval 0.01 -p 1=$(x 1000) => mqcat: *to 127.0.0.1:*
END
stop bounds "2 clients, 2 dropped"
has bounds.err "--max-per-address" "its message is too long (--max-message)"
exec {half}>&-

# ---- Datagrams: an answer is marked and never answered, so that two servers do not answer each other for ever ----

start udp --udp --echo --format json --answer-rate 4
printf 'noise' >"/dev/udp/127.0.0.1/$port"
table <<'END'
0 mqcat send 127.0.0.1 $port --udp -c 7 -p 1=hello --reply --format json => *"value":"hello"*"id":1095652183,*
0 mqcat ping 127.0.0.1 $port --udp -c 2 -i 0.01 => *, 0% loss*
1 grep -F '{"id":1095652183,"type":"int32","value":1}' udp.out =>
5 mqcat send 127.0.0.1 $port --udp -c 7 -p 1095652183=x --reply --timeout 0.1 => *none within*
0 mqcat ping 127.0.0.1 $port --udp -c 9 -i 0 -W 0.1 => *9 sent, [1-8] answered*
3 mqcat send 127.0.0.1 $port --udp -c 7 --file big.bin => *at most 16520 bytes*
END
stop udp "1 faulty"
has udp.err 'held back'

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
0 add alice ring => *0 of 1 key new or changed*
7 mqcat keys public mallory.key | sed 's/^mallory/alice/' | mqcat keys add ring => mqcat: *another key*
7 mqcat keys add ring bob "$(printf 'ab%.0s' {1..32})" => mqcat: *not a valid public key*
7 mqcat keys add alice.key bob "$(cut -d' ' -f2 ring)" => mqcat: *secret key in a ring*
3 mqcat keys list nowhere => mqcat: read nowhere: *ENOENT*
7 add alice fifo => mqcat: *not a regular file*
7 chmod 644 mallory.key; mqcat send 127.0.0.1 9 -c 1 --sign mallory.key => mqcat: *chmod 600*
0 chmod 600 *.key; mqcat keys new carol carol.key --until 2031-05-06 => carol * public until=2031-05-06 / *
0 add carol link.ring => *1 of 1 key new or changed*
7 add carol link.ring --until 2030-01-01 => mqcat: *another last day*
0 add carol link.ring --until 2030-01-01 --replace => *1 of 1 key*
0 chmod 640 real.ring; mqcat keys list link.ring => *until=2030-01-01*
0 add carol link.ring --revoke => *1 of 1 key*
7 add carol link.ring --replace => mqcat: *is revoked*
0 stat -c '%F %a' link.ring real.ring => symbolic link 777 / regular file 640
7 chmod 666 real.ring; mqcat keys list real.ring => mqcat: *chmod go-w*
0 chmod 640 real.ring; mqcat keys remove link.ring carol; mqcat keys list link.ring => mqcat: 1 key of carol removed *
7 mqcat keys remove link.ring carol => mqcat: *no key of user*
7 mqcat listen 0 --ring nowhere => mqcat: *nowhere*
END
# However a secret key is marked, if at all, it reaches no ring and no output, nor do lines with swapped columns.
for key in {alice,old,bare,swapped}.key; do
  check 7 "mqcat keys add fresh <$key" '*'
  (cat out.txt err.txt; mqcat keys list $key 2>&1) | grep -F "${secret:0:20}" && fail "$key: a secret key is shown"
  [ ! -e fresh ] || fail "$key made a ring: $(<fresh)"
done
for i in {1..20}; do
  mqcat keys public alice.key | sed "s/alice/user$i/" | mqcat keys add many.ring 2>/dev/null &
  adders[i]=$!
done
wait "${adders[@]}"
check 0 'mqcat keys list many.ring | wc -l' 20

start signed --ring ring --echo --sign alice.key
table <<'END'
0 mqcat send 127.0.0.1 $port -c 7 -p 1=signed --sign alice.key --ring ring --reply => *signed by "alice"*
0 mqcat ping 127.0.0.1:$port -c 2 -i 0 --sign alice.key --ring ring => *2 answered, 0% loss*
0 mqcat send 127.0.0.1 $port -c 7 --sign mallory.key => mqcat: handed to the system: 1 message*
4 mqcat send 127.0.0.1 $port -c 7 -p "1=$(x 100)" --repeat 5 --interval 0.2 => mqcat: send *refused what it read*not known
END
await signed "it is not signed"
stop signed "1 not authentic, 1 faulty"
has signed.err "user mallory is not in the ring"

mqcat keys new bob bob.key 2>/dev/null | mqcat keys add ring 2>/dev/null
start sealed --ring ring --key bob.key --only-sealed --echo --sign bob.key
sealed='--sign alice.key --ring ring --seal-to bob'
table <<'END'
0 mqcat send 127.0.0.1 $port -c 7 -p 1=secret $sealed --reply => *sealed by "bob"*
0 mqcat send 127.0.0.1 $port -c 7 -p 1=secret $sealed --reply --format json => {*"sealed":true*
0 mqcat ping 127.0.0.1:$port -c 2 -i 0 $sealed => *2 answered, 0% loss*
0 mqcat send 127.0.0.1 $port -c 7 -p 1=open --sign alice.key => mqcat: handed to the system: 1 message*
7 mqcat send 127.0.0.1 $port -c 7 --sign alice.key --ring ring --seal-to carol => mqcat: seal for "carol": *
2 mqcat send 127.0.0.1 $port -c 7 --seal-to bob => mqcat: --seal-to requires --sign*
2 mqcat send 127.0.0.1 $port -c 7 --sign alice.key --ring ring --seal-to '' => mqcat: --seal-to: the value is empty*
2 mqcat send 127.0.0.1 $port -c 7 --sign '' --ring ring --seal-to bob => mqcat: --sign: the value is empty*
2 mqcat listen 0 --ring '' --key bob.key --only-sealed => mqcat: --ring: the value is empty*
2 mqcat listen 0 --ring ring --key bob.key --echo => mqcat: listen: --echo with --key requires --sign*
3 mqcat send 127.0.0.1 $port -c 7 -p "1=$(x 16200)" $sealed --udp => mqcat: *at most 16328 bytes
END
await sealed "only sealed messages are accepted"
stop sealed ", 1 not authentic"

# ---- Decode ----

"$build/bin/captures" . 1
binary() { perl -ne 's/^\S+|\s//g; print pack "H*", $_' "$@"; }
for i in 1 2 3 5 9; do binary sample-$i.hex >$i.bin; done
cat 1.bin 1.bin 1.bin >plain.bin
{ cat plain.bin; printf 'noise\0\210\0\0'; cat 2.bin 5.bin; } >noise.bin
{ head -c 180 1.bin; cat plain.bin; } >lost.bin
{ head -c 64 1.bin; printf '\xe8\3\0\0'; tail -c +69 plain.bin; } >long.bin
table <<'END'
0 mqcat decode 1.bin => *  136    4  command              77*dämmrig*-5*-9223372036854775807*00feff*1 message*0 faults
0 mqcat decode 2.bin => *signed message*"moritz"*"MQSIGN01"*UTC*1 message, 0 stray bytes, 0 faults
0 mqcat decode 3.bin => *"moritz"*"foreign sender"*" !*ABC*
0 mqcat decode 9.bin => *sealed message*encrypted header and body*sealedFor  *"moritz"*"MQSIGN02"*, 0 faults
0 mqcat decode 9.bin --key moritz.key => *"foreign sender"*" !*ABC*-9223372036854775807*sealedFor*, 0 faults
0 mqcat decode 9.bin --key alice.key => *encrypted header and body*, 0 faults
6 (head -c 99 9.bin; printf '\1'; tail -c +101 9.bin) | mqcat decode --key moritz.key => *seal-broken: *another key of user moritz*
0 od -An -v -tx1 plain.bin | tr -d ' \n' | mqcat decode => *3 messages, 0 stray bytes, 0 faults
0 od -Ax -tx1 plain.bin | mqcat decode => *3 messages, 0 stray bytes, 0 faults
0 sed -n '/^0000[0-9a-f]* /p' "$tree/docs/wire-format.md" | mqcat decode => *"hello"*1 message, 0 stray bytes, 0 faults
3 printf '00000000 00 01 02 03\n*\n08000000\n' | mqcat decode --input hex => *mqcat: -: line 3 is not part of a hexadecimal dump
3 mqcat decode --input hex plain.bin => *line 1 is not part of a hexadecimal dump
6 (ulimit -v $memory; "$tool" decode zeros.bin) => *0 messages, 67108864 stray bytes, 1 fault
0 mqcat decode 1.bin --format json => *"value":77,*"name":"value","value":"dämmrig*"value":-9223372036854775807,*
0 mqcat decode 3.bin --format json => *"name":"userId","value":"moritz"*
0 sed 's/64 c3 a4/64 c3 ff/' sample-1.hex | mqcat decode --format json => *"value":"d\\ufffd*","hex":"64c3ff*
6 mqcat decode noise.bin => *5 messages, 9 stray bytes, 1 fault
6 mqcat decode lost.bin => *4 messages, *
6 mqcat decode long.bin => *3 messages, *
END
while read -r _ rule _ <&3 && read -r dump <&4; do
  case $rule in
    none) check 0 'mqcat decode <<<"$dump"' '*, 0 faults' ;;
    *) check 6 'mqcat decode <<<"$dump"' "*FAULT at byte [0-9]*: $rule: *"
       has "$tree/docs/wire-format.md" "| \`$rule\` |" ;;
  esac
done 3<broken.txt 4<broken.hex

# Captures: segments out of order, repeated, without the first or another one; link types, fragments, a cut file.
needs text2pcap editcap mergecap
capture() { text2pcap -q "${@:2}" - "$1" 2>/dev/null; }
# link TYPE HEADER: decodes a datagram after this link header.
link() { (printf '%b' "$2"; tail -c +55 one.pcap) | od -Ax -v -tx1 | capture - -F pcap -l "$1" | mqcat decode; }
# packets EXPRESSION ...: writes a dump of each IP packet; $m is a message, $d a UDP datagram with it.
packets() {
  perl -e '
    sub ip { my ($protocol, $fragment, $p) = @_;
      pack("CCn3CCnNN", 0x45, 0, 20 + length $p, 1, $fragment, 64, $protocol, 0, (0x7f000001) x 2) . $p }
    sub tcp { my ($seq, $flags, $p) = @_; ip(6, 0, pack("nnNNCCnnn", 4, 5, $seq, 0, 0x50, $flags, 0, 0, 0) . $p) }
    read STDIN, $m, 1000;
    $d = pack("nnnn", 1, 2, 8 + length $m, 0) . $m;
    print "000000 ", unpack("H*", eval) =~ s/../$& /gr, "\n" for @ARGV' "$@" <1.bin
}
capture one.pcap -F pcap -u 1,2 <sample-1.hex
capture datagrams.pcap -u 1,2 <broken.hex
split -b 100 --filter 'od -Ax -v -tx1' plain.bin | capture tcp.pcapng -T 40000,5000
for i in {1..8}; do editcap -r tcp.pcapng "$i.pcapng" "$i"; done
mergecap -a -w order.pcapng {1,3,1,5,2,4,4,7,6,6,8}.pcapng
mergecap -a -w gap.pcapng {1,2,4,5,6,7,8}.pcapng
head -c -20 one.pcap >cut.pcap
od -Ax -tx1 <<<'dns' | capture foreign.pcapng -u 53,53
packets 'ip(17, 8, substr $d, 64)' 'ip(17, 0x2000, substr $d, 0, 64)' | capture fragments.pcapng -l 101
# Sequence numbers wrap around, then another connection uses the same port.
packets 'tcp(0xffffffdf, 2, "")' 'tcp(0xffffffe0, 16, substr $m, 0, 100)' 'tcp(68, 16, substr $m, 100)' \
  'tcp(9, 2, "")' 'tcp(10, 16, $m)' | capture again.pcapng -l 101
table <<'END'
0 mqcat decode tcp.pcapng => TCP *:40000 > *:5000 / *3 messages, 0 stray bytes, 0 faults
0 mqcat decode - <order.pcapng => *3 messages, 0 stray bytes, 0 faults
3 mqcat decode gap.pcapng => *:5000 (part 2) / *mqcat: gap.pcapng: TCP *: 100 bytes are missing from the capture
0 mqcat decode fragments.pcapng => UDP 127.0.0.1:1 > 127.0.0.1:2*1 message, 0 stray bytes, 0 faults
0 mqcat decode again.pcapng => TCP *:5 / *:5 (part 2) / *2 messages, 0 stray bytes, 0 faults
3 editcap -r fragments.pcapng - 1 | mqcat decode => *: 1 fragment without the rest of the packet
6 mqcat decode datagrams.pcap => *datagram-size: *
0 mqcat decode foreign.pcapng => 0 messages, *:53: 4 bytes without a message, left out
3 mqcat decode cut.pcap => 0 messages, *after packet 0: truncated dump file; *
3 mqcat decode --input pcap plain.bin => 0 messages, *not a pcap or pcapng file: unknown file format
3 link 147 '' => *link type 147 is not supported
0 link 101 '' => *1 message, 0 stray bytes, 0 faults
0 link 1 '123456123456\x81\x00\x00\x01\x08\x00' => *1 message, 0 stray bytes, 0 faults
0 link 113 '12345678901234\x08\x00' => *1 message, 0 stray bytes, 0 faults
0 link 0 '\x02\x00\x00\x00' => *1 message, 0 stray bytes, 0 faults
0 link 276 '\x08\x00123456789012345678' => *1 message, 0 stray bytes, 0 faults
0 link 1 '123456123456\x86\xdd' => *1 of 1 packets carry no IPv4 TCP or UDP
3 mqcat decode --interface nowhere => mqcat: capture from nowhere: *
2 mqcat decode --interface lo one.pcap => mqcat: FILE excludes --interface*
END

# Each message is shown as soon as it has arrived through a pipe; SIGINT ends with the summary.
mkfifo pipe
for input in 1.bin one.pcap sample-1.hex; do
  "$tool" decode <pipe >piped.err 2>&1 &
  live=$!
  exec {pipe}>pipe
  cat "$input" >&"$pipe"
  await piped "message 1: plain message"
  kill -INT $live
  check 130 'wait $live; code=$?; cat piped.err; (exit $code)' '*1 message, 0 stray bytes, 0 faults'
  exec {pipe}>&-
done

"$tool" decode --interface lo --filter 'udp port 47111' --count 2 >live.out 2>live.err &
live=$!
for _ in {1..100}; do [ -s live.err ] && break; sleep 0.02; done
if grep -q capturing live.err; then
  mqcat send 127.0.0.1 47111 --udp -c 5 --repeat 2 -q
  check 0 'wait $live; cat live.out' '*:47111 / *2 messages, 0 stray bytes, 0 faults'
  check 2 'mqcat decode --interface lo --filter "port ((" ' 'mqcat: --filter: *'
else
  echo "left out: capture from an interface: $(<live.err)"
fi
