#!/usr/bin/env bash
# wireshark_test.sh BUILD_DIR - what tools/wireshark/mqnode.lua makes tshark show of captures whose content is known.
# The captures come from BUILD_DIR/bin/wireshark_captures, which also says what has to be seen. MQNODE_SEED repeats the
# mutants of an earlier run. Exits 77 without tshark.
set -euo pipefail

build=$(cd "${1:?usage: wireshark_test.sh BUILD_DIR}" && pwd)
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
script=$tree/tools/wireshark/mqnode.lua
command -v tshark >/dev/null || { echo 'skipped: no tshark'; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME=$work XDG_CONFIG_HOME=$work TZ=UTC LC_ALL=C.UTF-8
seed=${MQNODE_SEED:-$RANDOM}
"$build/bin/wireshark_captures" "$work" "$seed"
cd "$work"

failures=0
fail() {
  printf 'FAILED: %s\n' "$*"
  failures=$((failures + 1))
}

# shark CAPTURE [OPTION ...]: tshark with the script, nothing on standard error but what matters.
shark() {
  local capture=$1
  shift
  tshark -X "lua_script:$script" -r "$capture" "$@" 2> >(grep -v 'Running as user' >&2)
}
forced=(-o mqnode.tcp_ports:47110 -o mqnode.udp_ports:47110)

# same NAME EXPECTED SEEN: the two files are equal.
same() {
  diff "$2" "$3" >"$1.diff" || { fail "$1, seed $seed (< expected, > seen):"; head -n 20 "$1.diff"; }
}

# values CAPTURE [OPTION ...]: every value that is seen, a line each: field TAB value, by field, in order.
fields=(mqnode.command mqnode.user mqnode.application mqnode.param.id mqnode.param.length mqnode.param.int32
        mqnode.param.int64 mqnode.param.text mqnode.param.bytes mqnode.env.user mqnode.trailer.milliseconds mqnode.error)
values() {
  local columns=() field
  for field in "${fields[@]}"; do columns+=(-e "$field"); done
  shark "$@" -Y mqnode -T fields "${columns[@]}" -E separator=/t -E "aggregator=$(printf '\037')" |
    awk -F'\t' -v names="${fields[*]}" '
      BEGIN { split(names, name, " ") }
      { for (i = 1; i <= NF; i++) {
          count = split($i, part, "\037")
          # An empty column is no value; an empty value stands beside another one.
          for (k = 1; k <= count; k++) print name[i] "\t" part[k]
      } }' | sort -s -t "$(printf '\t')" -k1,1
}

# Bytes longer than 100 are not in what is expected.
check_values() {
  local name=$1
  shift
  sort -s -t "$(printf '\t')" -k1,1 "$name.txt" >"$name.expected"
  values "$name.pcap" "$@" | awk -F'\t' '!($1 == "mqnode.param.bytes" && length($2) > 200)' >"$name.seen"
  same "$name $*" "$name.expected" "$name.seen"
}

# verdicts CAPTURE: a line a frame, mqnode.error TAB expert infos.
verdicts() {
  shark "$1" "${forced[@]}" -T fields -e mqnode.error -e _ws.expert.message -E separator=/t -E aggregator='^'
}

check_samples() {
  echo '== every value of every kind of message, over UDP and in TCP segments of 1 to 60000 bytes'
  check_values samples  # recognised, each on its own
  check_values samples "${forced[@]}"
  for size in 1 7 100 1460 60000; do check_values "stream-$size" "${forced[@]}"; done
  for size in 100 1460 60000; do check_values "stream-$size"; done
  check_values stream-1460 -d tcp.port==47110,mqnode -2
}

# check_faults NAME: error code and text of each frame.
check_faults() {
  local code says error experts line=0
  verdicts "$1.pcap" >"$1.seen"
  [ "$(wc -l <"$1.seen")" = "$(wc -l <"$1.txt")" ] || fail "$1: not a line for each message"
  while IFS=$'\t' read -r code says <&3; do
    IFS= read -r seen <&4 || break
    line=$((line + 1))
    error=${seen%%$'\t'*} experts=${seen#*$'\t'}
    [ "${error:-0}" = "$code" ] || fail "$1, frame $line ($says): the library says $code, seen is '$seen'"
    case $experts in *"$says"*) ;; *) fail "$1, frame $line: expected '$says', seen is '$seen'" ;; esac
    [ -n "$says" ] || [ -z "$experts" ] || fail "$1, frame $line: nothing is wrong, seen is '$seen'"
  done 3<"$1.txt" 4<"$1.seen"
}

# A node authenticates before it looks at the body, and only it can see that a signature is wrong: where it says -1001,
# anything but 2026 may be seen.
check_mutants() {
  echo "== the same verdict as the library on $(wc -l <mutants.txt) mutants, seed $seed"
  verdicts mutants.pcap | cut -f1 | sed 's/^$/0/' >mutants.seen
  paste mutants.txt mutants.seen |
    awk '{ print ($1 == -1001 && $2 != 2026) ? $1 : $2 }' >mutants.judged
  same mutants mutants.txt mutants.judged
  [ "$(sort -u mutants.txt | wc -l)" = 4 ] || fail "the mutants of seed $seed miss a verdict"
}

# What moves a terminal's cursor, rings it or turns the direction of writing.
unsafe='[\x00-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]'

# healthy CAPTURE OPTION ...: the whole tree of every packet without a failure of the script, fit for a terminal.
failure='Lua Error|Dissector bug|Malformed Packet|stack traceback|exceeds|assertion'
healthy() {
  shark "$@" -O mqnode -V >healthy.seen 2>&1 || true
  grep -q 'mqnode' healthy.seen || fail "nothing was seen: $*"
  ! grep -E -m 3 -A 3 "$failure" healthy.seen || fail "the script failed, seed $seed: $*"
  ! LC_ALL=C grep -aP -m 3 "$unsafe" healthy.seen | cat -v | grep . || fail "unsafe characters, seed $seed: $*"
}

check_health() {
  echo "== no failure on mutants and cut packets, seed $seed"
  local cut capture
  for capture in mutants mutated broken; do
    healthy "$capture.pcap" "${forced[@]}"
    healthy "$capture.pcap" "${forced[@]}" -o tcp.desegment_tcp_streams:FALSE -o mqnode.companion:FALSE
  done
  healthy mutated.pcap "${forced[@]}" -2
  healthy stream-7.pcap "${forced[@]}" -o tcp.desegment_tcp_streams:FALSE
  for cut in 31 45 58 75 110 190 220 300; do
    editcap -s "$cut" mutants.pcap cut.pcap
    healthy cut.pcap "${forced[@]}"
    editcap -s $((cut + 12)) mutated.pcap cut.pcap
    healthy cut.pcap "${forced[@]}"
  done
}

# What was not captured breaks no rule.
check_cut() {
  local cut
  for cut in 60 180 210 230 250; do
    editcap -s "$cut" samples.pcap cut.pcap
    [ -z "$(shark cut.pcap "${forced[@]}" -Y mqnode.error)" ] || fail "samples cut at $cut bytes are seen as faulty"
    [ "$(shark cut.pcap "${forced[@]}" -Y mqnode.expert.cut | wc -l)" -ge 8 ] || fail "no note on packets cut at $cut bytes"
  done
}

# count CAPTURE FILTER [OPTION ...]: packets that the filter finds.
count() {
  local capture=$1 filter=$2
  shift 2
  shark "$capture" -Y "$filter" "$@" | wc -l
}

# Of the samples, 4 are signed, just before they were captured.
check_signatures() {
  editcap -t -400 samples.pcap early.pcap
  editcap -t 400 samples.pcap late.pcap
  mergecap -a -w twice.pcap samples.pcap samples.pcap
  local row capture filter expected seen
  for row in 'samples mqnode.trailer 4' 'samples mqnode.expert.replay||mqnode.expert.time 0' 'early mqnode.expert.time 4' \
             'late mqnode.expert.time 4' 'twice mqnode.expert.replay 4' 'twice frame.number<=9&&mqnode.expert.replay 0'; do
    read -r capture filter expected <<<"$row"
    seen="$(count "$capture.pcap" "$filter") $(count "$capture.pcap" "$filter" -2)"
    [ "$seen" = "$expected $expected" ] || fail "$row: in one pass and in two, seen are $seen"
  done
}

# The same search on a script without its one check has to find something, else it finds nothing anywhere.
check_detector() {
  local good=$script
  sed 's/return at + length <= tvb:len()/return true/' "$good" >broken.lua
  ! cmp -s "$good" broken.lua || fail 'the check of what was captured is not where it was'
  script=$work/broken.lua
  editcap -s 190 mutants.pcap cut.pcap
  shark cut.pcap "${forced[@]}" -V >healthy.seen 2>&1 || true
  grep -q 'Lua Error' healthy.seen || fail 'a script that reads past the end was not noticed'
  script=$good
}

# As the README says it.
check_install() {
  local plugins
  plugins=$(tshark -G folders 2>/dev/null | sed -n 's/^Personal Lua Plugins:[[:space:]]*//p')
  case $plugins in "$work"/*) ;; *) fail "the plugins of this user would go to '$plugins'"; return ;; esac
  mkdir -p "$plugins" && cp "$script" "$plugins"
  [ "$(tshark -r samples.pcap -Y mqnode 2>/dev/null | wc -l)" = 9 ] || fail 'the installed script is not loaded'
}

check_samples
echo '== every broken rule by its code and text'
check_faults broken
check_mutants
check_cut
check_signatures
check_health
check_detector
check_install
[ "$failures" = 0 ] || { echo "$failures failures"; exit 1; }
echo 'all seen as expected'
