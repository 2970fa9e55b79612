#!/usr/bin/env bash
# wireshark_test.sh BUILD_DIR - what tools/wireshark/mqnode.lua makes tshark show of captures whose content is known.
# BUILD_DIR/bin/wireshark_captures writes the packets and what has to be seen. MQNODE_SEED repeats the mutants of an
# earlier run. Exits 77 without tshark.
set -euo pipefail

build=$(cd "${1:?usage: wireshark_test.sh BUILD_DIR}" && pwd)
script=$(cd "$(dirname "$0")/.." && pwd)/tools/wireshark/mqnode.lua
for tool in tshark text2pcap editcap mergecap; do
  command -v $tool >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME=$work XDG_CONFIG_HOME=$work TZ=UTC LC_ALL=C.UTF-8
seed=${MQNODE_SEED:-$RANDOM}
"$build/bin/wireshark_captures" "$work" "$seed"
cd "$work"

failures=0
fail() {
  printf 'FAILED, seed %s: %s\n' "$seed" "$*"
  failures=$((failures + 1))
}

# Each dump becomes a capture of its own port: datagrams from 5000N, a stream from 60000 on. Copies of the streams are
# changed behind the head of TCP.
make_captures() {
  local name number
  for name in *.hex; do
    name=${name%.hex} number=${name##*[!0-9]}
    case $name in
      stream-*) set -- -T "$((60000 + number % 997)),47110" ;;
      *) set -- -u "$((50000 + number)),47110" ;;
    esac
    text2pcap -q "$@" "$name.hex" "$name.pcap" 2>/dev/null
  done
  mergecap -a -w samples.pcap sample-?.pcap
  mergecap -a -w streams.pcap stream-{100,1460,60000}.pcap
  for number in 7 100 1460; do
    editcap -E 0.01 -o 54 --seed "$seed" "stream-$number.pcap" "mutated-$number.pcap" 2>/dev/null
  done
}

# shark CAPTURE [OPTION ...]: tshark with the script, nothing on standard error but what matters.
shark() { tshark -X "lua_script:$script" -r "$@" 2> >(grep -v 'Running as user' >&2); }
forced=(-o mqnode.tcp_ports:47110 -o mqnode.udp_ports:47110)

# check_values CAPTURE TIMES [OPTION ...]: every value of the samples is seen as often, and no other. Bytes longer than
# 100 are not in what is expected.
fields=(mqnode.command mqnode.user mqnode.application mqnode.param.id mqnode.param.length mqnode.param.int32
        mqnode.param.int64 mqnode.param.text mqnode.param.bytes mqnode.env.user mqnode.trailer.milliseconds
        mqnode.error)
check_values() {
  local capture=$1 i columns=()
  for i in "${fields[@]}"; do columns+=(-e "$i"); done
  for ((i = 0; i < $2; i++)); do cat samples.txt; done | sort >expected
  # An empty column is no value; an empty value stands beside another one.
  shark "$capture" -Y mqnode -T fields "${columns[@]}" -E aggregator=$'\037' "${@:3}" |
    awk -F'\t' -v names="${fields[*]}" '
      BEGIN { split(names, name, " ") }
      { for (i = 1; i <= NF; i++) {
          count = split($i, part, "\037")
          for (k = 1; k <= count; k++) if (length(part[k]) <= 200 || i != 9) print name[i] "\t" part[k]
      } }' | sort >seen
  diff expected seen >difference || fail "$* (< expected, > seen): $(head -n 20 difference)"
}

# verdicts CAPTURE: a line a frame, mqnode.error TAB expert infos.
verdicts() { shark "$1" "${forced[@]}" -T fields -e mqnode.error -e _ws.expert.message -E aggregator='^'; }

check_broken() {
  local code says error experts
  verdicts broken.pcap | paste -d $'\036' broken.txt - >broken.both
  while IFS=$'\036' read -r expected seen; do
    IFS=$'\t' read -r code says <<<"$expected"
    error=${seen%%$'\t'*} experts=${seen#*$'\t'}
    [[ ${error:-0} == "$code" && $experts == *"$says"* && ( -n $says || -z $experts ) ]] ||
      fail "the library says $code, expected is '$says', seen is '$seen'"
  done <broken.both
}

# A node authenticates before it looks at the body, and only it can see that a signature is wrong: where it says -1001,
# anything but 2026 may be seen.
check_mutants() {
  verdicts mutants.pcap | cut -f1 | sed 's/^$/0/' | paste mutants.txt - |
    awk '{ print ($1 == -1001 && $2 != 2026) ? $1 : $2 }' | diff mutants.txt - >difference ||
    fail "not the verdicts of the library: $(head -n 20 difference)"
  [ "$(sort -u mutants.txt | wc -l)" = 4 ] || fail 'the mutants miss a verdict'
}

# The whole tree of every packet, also of those that were captured in part: no failure of the script, and nothing that
# moves a terminal's cursor, rings it or turns the direction of writing.
failure='Lua Error|Dissector bug|Malformed Packet|stack traceback|exceeds|assertion'
unsafe='[\x00-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]'
check_health() {
  local cut options
  for cut in 45 59 72 89 124 204 234 314; do editcap -s "$cut" mutants.pcap "cut-$cut.pcap"; done
  mergecap -a -w all.pcap broken.pcap mutants.pcap mutated-*.pcap cut-*.pcap
  for options in '-2' '-o tcp.desegment_tcp_streams:FALSE -o mqnode.companion:FALSE'; do
    # shellcheck disable=SC2086 # several options
    shark all.pcap "${forced[@]}" $options -O mqnode -V >seen 2>&1 || true
    grep -q mqnode seen || fail "nothing was seen with $options"
    ! grep -E -m 3 -A 3 "$failure" seen || fail "the script failed with $options"
    ! LC_ALL=C grep -aP -m 3 "$unsafe" seen | cat -v | grep . || fail "unsafe characters with $options"
  done
  # The same search on a script without its one check has to find something, else it finds nothing anywhere.
  sed 's/return at + length <= tvb:len()/return true/' "$script" >broken.lua
  script=$work/broken.lua shark cut-204.pcap "${forced[@]}" -V 2>&1 | grep -E "$failure" >seen ||
    fail 'a script that reads past the end was not noticed'
}

# What was not captured breaks no rule. Of the samples 4 are signed, just before they were captured; late, early and
# seen once more they are told so, in one pass and in two.
check_counts() {
  local cut row capture filter expected
  for cut in 74 194 224 244; do editcap -s "$cut" samples.pcap "part-$cut.pcap"; done
  mergecap -a -w parts.pcap part-*.pcap
  editcap -t -400 samples.pcap early.pcap
  editcap -t 400 samples.pcap late.pcap
  mergecap -a -w again.pcap samples.pcap early.pcap late.pcap
  for row in '0 parts mqnode.error' '37 parts mqnode.expert.cut' '0 samples mqnode.expert.replay||mqnode.expert.time' \
             '8 again mqnode.expert.replay||mqnode.expert.time' \
             '8 again mqnode.expert.replay&&mqnode.expert.time -2'; do
    read -r expected capture filter <<<"$row"
    # shellcheck disable=SC2086 # an option, perhaps
    [ "$(shark "$capture.pcap" "${forced[@]}" -Y $filter | wc -l)" = "$expected" ] || fail "$row"
  done
}

# As the README says it.
check_install() {
  local plugins
  plugins=$(tshark -G folders 2>/dev/null | sed -n 's/^Personal Lua Plugins:[[:space:]]*//p')
  case $plugins in "$work"/*) ;; *) fail "the plugins of this user would go to '$plugins'"; return ;; esac
  mkdir -p "$plugins" && cp "$script" "$plugins"
  [ "$(tshark -r samples.pcap -Y mqnode 2>/dev/null | wc -l)" = 10 ] || fail 'the installed script is not loaded'
}

make_captures
check_values samples.pcap 1  # recognised, each on its own
check_values streams.pcap 3
check_values streams.pcap 3 -2 -d tcp.port==47110,mqnode
check_values stream-7.pcap 1 "${forced[@]}"
check_broken
check_mutants
check_health
check_counts
check_install
[ "$failures" = 0 ] || { echo "$failures failures"; exit 1; }
echo 'all seen as expected'
