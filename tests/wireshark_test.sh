#!/usr/bin/env bash
# wireshark_test.sh BUILD_DIR - checks what tshark shows, with tools/wireshark/mqnode.lua, of the messages that
# captures.cc writes. MQNODE_SEED repeats the mutants of an earlier run. Exits with 77 without tshark.
. "$(dirname "$0")/support/shell.sh"
needs tshark text2pcap editcap mergecap
cd "$work" || exit
script=$tree/tools/wireshark/mqnode.lua
seed=${MQNODE_SEED:-$RANDOM}
export HOME=$work XDG_CONFIG_HOME=$work TZ=UTC
echo "seed $seed"
"$build/bin/captures" "$work" "$seed" || exit

# Each dump becomes a capture with its own port: 5000N for datagrams, from 60000 for streams. Copies of the streams are
# changed after the TCP header.
for name in *.hex; do
  name=${name%.hex} number=${name##*[!0-9]}
  ports=(-u "$((50000 + number)),47110")
  [[ $name != stream-* ]] || ports=(-T "$((60000 + number % 997)),47110")
  text2pcap -q "${ports[@]}" "$name.hex" "$name.pcap" 2>/dev/null
done
for number in 7 100 1460; do
  editcap -E 0.01 -o 54 --seed "$seed" "stream-$number.pcap" "mutated-$number.pcap" 2>/dev/null
done
mergecap -a -w samples.pcap sample-?.pcap
mergecap -a -w streams.pcap stream-{100,1460,60000}.pcap
mergecap -a -w verdicts.pcap {broken,mutants}.pcap

# shark CAPTURE [OPTION ...]: runs tshark with the script; removes irrelevant messages from standard error.
shark() { tshark -X "lua_script:$script" -r "$@" 2> >(grep -v 'Running as user' >&2); }
forced=(-o mqnode.tcp_ports:47110 -o mqnode.udp_ports:47110)

# The columns of samples.txt: each message is recognised. In a stream, a frame may contain several messages, so every
# value must be shown as often as it was sent.
columns() {
  shark "$1" -Y mqnode -T fields -E aggregator='|' -e mqnode.command -e mqnode.user -e mqnode.application \
    -e mqnode.param.id -e mqnode.param.length -e mqnode.param.int32 -e mqnode.param.int64 -e mqnode.param.text \
    -e mqnode.param.bytes -e mqnode.env.user -e mqnode.trailer.milliseconds -e mqnode.seal.user "${@:2}"
}
values() { tr '\t|' '\n\n' | grep . | sort; }
thrice=$(cat samples.txt samples.txt samples.txt | values)
same samples "$(<samples.txt)" "$(columns samples.pcap)"
same streams "$thrice" "$(columns streams.pcap | values)"
same 'streams in two passes' "$thrice" "$(columns streams.pcap -2 -d tcp.port==47110,mqnode | values)"
same 'segments of 7 bytes' "$(values <samples.txt)" "$(columns stream-7.pcap "${forced[@]}" | values)"

# Error and rule must be the library's. A node authenticates before it parses the body, and only a node can detect a
# wrong signature: for a mutant with -1001, tshark may show anything except 2026.
shark verdicts.pcap "${forced[@]}" -T fields -e mqnode.error -e _ws.expert.message -E aggregator='^' |
  paste <(cat broken.txt mutants.txt) - | awk -F'\t' '
    { error = $4 == "" ? 0 : $4; good = error == $1 && ($3 == "" ? $5 == "" : index($5, $3)) }
    $3 == "any" { good = $1 == -1001 ? error != 2026 : error == $1 }
    !good' >wrong
same 'verdict, rule, what is said; seen are' '' "$(<wrong)"
same 'kinds of verdicts on mutants' 4 "$(cut -f1 mutants.txt | sort -u | wc -l)"

# The whole tree of every packet, including partly captured ones: the script does not fail, and its output is safe for a
# terminal.
failure='Lua Error|Dissector bug|Malformed Packet|stack traceback|exceeds|assertion'
for cut in 45 59 72 89 124 204 234 314; do editcap -s "$cut" mutants.pcap "cut-$cut.pcap"; done
mergecap -a -w all.pcap verdicts.pcap mutated-*.pcap cut-*.pcap
for options in '-2' '-o tcp.desegment_tcp_streams:FALSE -o mqnode.companion:FALSE'; do
  # shellcheck disable=SC2086 # several options
  shark all.pcap "${forced[@]}" $options -O mqnode -V >seen 2>&1
  has seen mqnode
  same "failures of the script with $options" '' "$(grep -E -m 3 -A 3 "$failure" seen)"
  same "unsafe characters with $options" '' "$(unsafe seen)"
done
# The same search must find something in a script without its only check, to prove that it can.
sed 's/return at + length <= tvb:len()/return true/' "$script" >broken.lua
script=$work/broken.lua shark cut-204.pcap "${forced[@]}" -V 2>&1 | grep -E "$failure" >seen ||
  fail 'a script that reads past the end was not noticed'

# Bytes that were not captured break no rule. 5 samples are signed, just before their capture; early, late and repeated
# ones are reported, in one pass and in two.
for cut in 74 194 224 244; do editcap -s "$cut" samples.pcap "part-$cut.pcap"; done
mergecap -a -w parts.pcap part-*.pcap
editcap -t -400 samples.pcap early.pcap
editcap -t 400 samples.pcap late.pcap
mergecap -a -w again.pcap samples.pcap early.pcap late.pcap
while read -r expected capture filter; do
  # shellcheck disable=SC2086 # an option, perhaps
  same "$capture $filter" "$expected" "$(shark "$capture.pcap" "${forced[@]}" -Y $filter </dev/null | wc -l)"
done <<'ROWS'
0 parts mqnode.error
37 parts mqnode.expert.cut
0 samples mqnode.expert.replay||mqnode.expert.time
10 again mqnode.expert.replay||mqnode.expert.time
10 again mqnode.expert.replay&&mqnode.expert.time -2
ROWS

# Installed as the README says.
plugins=$(tshark -G folders 2>/dev/null | sed -n 's/^Personal Lua Plugins:[[:space:]]*//p')
[[ $plugins == "$work"/* ]] || { fail "the plugins of this user would go to '$plugins'"; exit; }
mkdir -p "$plugins" && cp "$script" "$plugins"
same 'packets seen by the installed script' 10 "$(tshark -r samples.pcap -Y mqnode 2>/dev/null | wc -l)"
