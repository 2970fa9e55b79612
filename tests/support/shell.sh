# shell.sh - functions for the test scripts. A script is called with the build directory and sources this file, which
# sets build, tree and work (an empty directory). At exit, started processes are killed; the code is 1 after fail.
# shellcheck shell=bash disable=SC2034 # used by those who source it
set -uo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd) || exit
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
started=()
failures=0
unset TEVRA_HOME COLUMNS
export LC_ALL=C.UTF-8

finish() {
  local code=$? pid
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null; done
  rm -rf "$work"
  exit $((failures != 0 ? 1 : code))
}
trap finish EXIT

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# needs TOOL ...: skips the rest of the script, with exit code 77, unless the tools are installed.
needs() {
  local tool
  for tool; do command -v "$tool" >/dev/null || { echo "skipped: no $tool"; exit 77; }; done
}

# quietly COMMAND ...: shows the command's output only if it fails.
quietly() { "$@" >"$work/log" 2>&1 || fail "$*: $(tail -n 40 "$work/log")"; }

# same WHAT EXPECTED ACTUAL
same() { [ "$2" = "$3" ] || fail "$1: $(diff <(echo "$2") <(echo "$3"))"; }

# has FILE TEXT ...: checks that the file contains each text.
has() {
  local file=$1 text
  shift
  for text; do grep -qF -- "$text" "$file" || fail "no '$text' in ${file##*/}: $(head -c 2000 "$file")"; done
}

# unsafe FILE ...: prints lines with characters that move the cursor, ring the bell or change the text direction.
unsafe() {
  LC_ALL=C grep -ahP -m 3 \
    '[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]' "$@" | cat -v
}

# serve NAME COMMAND ...: starts a server, with output to $work/NAME and $work/NAME.err; sets pid, and port to the first
# word printed. --foreground prevents a second signal, which can hang the server in the middle of a leak check.
serve() {
  local name=$1
  shift
  : >"$work/$name"
  timeout --foreground 60 "$@" >"$work/$name" 2>"$work/$name.err" &
  pid=$!
  started+=("$pid")
  for _ in {1..400}; do
    read -r port <"$work/$name" && return
    sleep 0.05
  done
  fail "$name does not listen: $(cat "$work/$name.err")"
}

# ends NAME CODE: waits until the server started last ends, and checks its exit code.
ends() {
  wait "$pid"
  local code=$?
  same "exit code of $1, $(cat "$work/$1.err")" "$2" $code
}
stops() {
  kill "$pid"
  ends "$1" 0
}
