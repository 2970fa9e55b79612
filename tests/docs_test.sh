#!/usr/bin/env bash
# docs_test.sh BUILD_DIR - README and guide are true: every block of code stands, line by line, in an example that is
# built; every command is run as it stands, those of a document in one shell, in a folder that looks like the tree; what
# is shown below a command is what it says; links lead somewhere.
#
# What differs from run to run is matched by its shape:
#   404xx            a port that the kernel gives; the one that is seen stands for it from then on
#   5xxxx            a port that nobody asks for again
#   anna             the user who runs this
#   times, keys      as dates, seconds and milliseconds, 64 hexadecimal digits; bars of a histogram
#   …                anything; a line of ... alone: lines that are not shown
set -euo pipefail
build=$(cd "${1:?usage: docs_test.sh BUILD_DIR}" && pwd)
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Commands that are not run here: how they begin, and why.
declare -A elsewhere=(
  ['./run demo']='the test "examples" runs what it builds'
  ['./run test']='this is a part of it'
  ['./run build']='the build folder is there'
  ['cpack ']='the test "packages" makes and looks at them'
  ['apt install ']='changes the system; the test "packages" unpacks and runs them'
  ['tshark -i lo']='needs the right to capture packets'
)
declare -A unused
for start in "${!elsewhere[@]}"; do unused[$start]=1; done

work=$(mktemp -d)
user=$(id -un)
user=${user:0:12}
shell=
failures=0
fail() {
  printf 'FAILED: %s\n' "$*"
  failures=$((failures + 1))
}

# ---- The shell that runs a document's commands ----

# Its home is empty, its folder has what the documents name: the build, the sources, and nothing else of this machine.
open_shell() {
  local folder=$work/$1
  mkdir -p "$folder/home" "$folder/tree/build"
  ln -s "$build" "$folder/tree/build/release"
  local name
  for name in examples tools docs; do ln -s "$tree/$name" "$folder/tree/$name"; done
  mkfifo "$folder/in"
  (
    cd "$folder/tree"
    unset TEVRA_HOME COLUMNS PKG_CONFIG_PATH LD_LIBRARY_PATH XDG_CONFIG_HOME XDG_DATA_HOME
    HOME=$folder/home LC_ALL=C.UTF-8 exec bash --norc <"$folder/in" >"$folder/said" 2>&1
  ) &
  shell=$!
  exec {in}>"$folder/in"
  said=$folder/said
  commands=0
}

# Ends what the commands have left running, and the shell.
close_shell() {
  [ -n "$shell" ] || return 0
  printf 'kill $(jobs -p) 2>/dev/null; wait; exit 0\n' >&"$in"
  exec {in}>&-
  wait "$shell" || true
  shell=
}
finish() {
  close_shell
  rm -rf "$work"
}
trap finish EXIT

# until_true SECONDS COMMAND ...: tries until it succeeds; fails when the time is over.
until_true() {
  local tries=$(($1 * 50))
  shift
  while ! "$@"; do
    ((tries-- > 0)) || return 1
    sleep 0.02
  done
}

ended() { grep -q "^--- command $commands ended with" "$said"; }

# run COMMAND: gives it to the shell with the ports of this run, and waits for its end. Sets from, the line of what was
# said at which its own begins, and status.
run() {
  local command=$1 port
  for port in "${!ports[@]}"; do command=${command//$port/${ports[$port]}}; done
  from=$(($(wc -l <"$said") + 1))
  commands=$((commands + 1))
  printf '{ (exit "${status:-0}"); %s\n} </dev/null; status=$?; echo "--- command %d ended with $status"\n' \
    "$command" "$commands" >&"$in"
  until_true 100 ended || { fail "$where: does not end: $1"; exit 1; }
  status=$(sed -n "s/^--- command $commands ended with //p" "$said")
}

# ---- What is shown ----

# pattern LINE: the regular expression of a line that is shown. Ports not seen yet become groups.
pattern() {
  local text port
  text=$(sed -E 's/[][\\.*^$+?(){}|]/\\&/g
    s/…/.*/g
    s/\banna\b/'"$user"'/g
    s/\b[0-9a-f]{64}\b/[0-9a-f]{64}/g
    s/[0-9]{4}-[0-9]{2}-[0-9]{2}([ T])[0-9:]{8}\\\.[0-9]{3}/[-0-9]{10}\1[0-9:]{8}\\.[0-9]{3}/g
    s/ *[0-9]+\\\.[0-9]{3} ms +[0-9]+( #+)?/ *[0-9.]+ ms +[0-9]+( #+)?/g
    s/\b[0-9]+\\\.[0-9]{3}\b/[0-9]+\\.[0-9]{3}/g
    s/\b[0-9]+\\\.[0-9] s\b/[0-9]+\\.[0-9] s/g
    s/\btime [0-9]+ ms/time [0-9]+ ms/g
    s/\b5[0-9]{4}\b/[0-9]+/g' <<<"$1")
  unknown=()
  while [[ $text =~ (^|[^0-9])(404[0-9][0-9])([^0-9]|$) ]]; do
    port=${BASH_REMATCH[2]}
    if [ -n "${ports[$port]:-}" ]; then
      text=${text//$port/${ports[$port]}}
    else
      unknown+=("$port")
      text=${text/"$port"/([0-9]+)}
    fi
  done
  expression="^$text\$"
}

# Whether a line that was said since the last command matches; learns the ports that it names.
was_said() {
  local line i
  while IFS= read -r line; do
    [[ $line =~ $expression ]] || continue
    for i in "${!unknown[@]}"; do ports[${unknown[i]}]=${BASH_REMATCH[i + 1]}; done
    return 0
  done < <(tail -n "+$from" "$said")
  return 1
}

check_shown() {
  [ "$1" = '...' ] && return
  pattern "$1"
  until_true 10 was_said ||
    fail "$where: shown, but not said by: $command"$'\n'"  $1"$'\n'"$(tail -n "+$from" "$said" | head -n 20)"
}

# ---- Blocks ----

# The block stands in an example, and the example is built: a program of its name, or a header.
check_code() {
  local file name
  for file in "$tree"/examples/*.{c,cc,h} "$tree"/examples/outside/CMakeLists.txt; do
    [[ $'\n'$(<"$file")$'\n' == *$'\n'"$1"* ]] || continue
    name=$(basename "$file")
    [ "$name" = CMakeLists.txt ] || [ "${name%.h}" != "$name" ] || [ -x "$build/bin/${name%.*}" ] ||
      fail "$where: $name is not built"
    return 0
  done
  fail "$where: code that no example has:"$'\n'"$1"
}

# Runs a command, or looks it up among those that are tried elsewhere. Not 0 is right when the next one shows it.
try() {
  local start
  command=$1
  tried=0
  for start in "${!elsewhere[@]}"; do
    [[ $command == "$start"* ]] || continue
    unset "unused[$start]"
    return 0
  done
  if [[ $command =~ tshark|text2pcap ]] && ! command -v tshark >/dev/null; then
    echo "no tshark, not run: $command"
    return 0
  fi
  run "$command"
  tried=1
}

# console: commands behind "$ ", what they say below. sh: commands alone, one a line. A backslash continues a line.
check_commands() {
  local line text='' kind=$1
  command='' tried=0
  while IFS= read -r line; do
    if [ -n "$text" ]; then
      text+=$'\n'${line#> }
    elif [ "$kind" = sh ]; then
      text=$line
    elif [[ $line == '$ '* ]]; then
      text=${line#'$ '}
    else
      ((!tried)) || check_shown "$line"
      continue
    fi
    [[ $text != *\\ ]] || continue
    [[ -z $text || $text == '#'* ]] || try "$text"
    ((!tried || status == 0)) || [[ $text == *'; echo $?' ]] ||
      fail "$where: ended with $status: $text"$'\n'"$(tail -n "+$from" "$said")"
    text=''
  done <<<"${2%$'\n'}"
}

check_block() {
  case $1 in
    c | cpp | cmake) check_code "$2" ;;
    sh | console) check_commands "$1" "$2" ;;
    text) ;;
    *) fail "$where: a block must say what it is: sh, console, c, cpp, cmake or text" ;;
  esac
  blocks=$((blocks + 1))
}

# Indented blocks lie in lists.
check_document() {
  local file=$1 line number=0 kind='' block indent=''
  declare -gA ports=()
  blocks=0
  open_shell "$(basename "$file")"
  while IFS= read -r line; do
    number=$((number + 1))
    if [ -n "$kind" ]; then
      if [ "$line" = "$indent"'```' ]; then
        check_block "$kind" "$block"
        kind=''
      else
        block+=${line#"$indent"}$'\n'
      fi
    elif [[ $line =~ ^(\ *)\`\`\`(.*)$ ]]; then
      indent=${BASH_REMATCH[1]} kind=${BASH_REMATCH[2]:-nothing} block='' where=$(basename "$file"):$number
    fi
  done <"$file"
  [ -z "$kind" ] || fail "$where: a block without an end"
  close_shell
  printf '%s: %d blocks, %d commands\n' "$(basename "$file")" "$blocks" "$commands"
}

# Links to files and to headings lead somewhere.
check_links() {
  local file=$1 link path
  while IFS= read -r link; do
    path=${link%%#*}
    [ -e "$(dirname "$file")/$path" ] || { fail "$(basename "$file"): nothing at $link"; continue; }
    [[ $link == *#* ]] || continue
    path=$([ -z "$path" ] && echo "$file" || echo "$(dirname "$file")/$path")
    sed -n 's/^##* //p' "$path" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9_ -]//g; s/ /-/g' |
      grep -xF >/dev/null -e "${link#*#}" || fail "$(basename "$file"): no heading $link"
  done < <(grep -oE '\]\([^)]+\)' "$file" | sed 's/^](//; s/)$//' | grep -v '^https\?:')
}

for document in "$tree/README.md" "$tree/docs/guide.md"; do
  check_document "$document"
  check_links "$document"
done
for document in "$tree"/CONTRIBUTING.md "$tree"/docs/*.md "$tree"/docs/reference/README.md "$tree"/tools/*/README.md; do
  [ "$document" = "$tree/docs/guide.md" ] || check_links "$document"
done
for start in "${!unused[@]}"; do fail "no document has the command $start, which is listed as tried elsewhere"; done
exit $((failures != 0))
