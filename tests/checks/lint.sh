#!/usr/bin/env bash
# lint.sh BUILD_DIR - what reads the sources instead of running them. Does all of it, names what failed, and ends with 1
# when anything did. BUILD_DIR is configured with the tests: its compile_commands.json is read.
set -uo pipefail
build=$(cd "${1:?usage: lint.sh BUILD_DIR}" && pwd) || exit
cd "$(dirname "$0")/../.." || exit 2

failed=()
# step NAME COMMAND ... - what the command prints is shown when it fails.
step() {
  local name=$1 output
  shift
  if output=$("$@" 2>&1); then
    printf 'ok      %s\n' "$name"
  else
    printf 'FAILED  %s\n%s\n' "$name" "$output"
    failed+=("$name")
  fi
}

# none TEXT COMMAND ... - the command finds nothing.
none() {
  local found
  found=$("${@:2}") || return 0
  printf '%s:\n%s\n' "$1" "$found"
  return 1
}

mapfile -t sources < <(git ls-files '*.h' '*.hh' '*.hpp' '*.cc' '*.c')
mapfile -t scripts < <(git ls-files '*.sh' run .ci/run)
mapfile -t libraries < <(git ls-files '*.cc' | grep -E '^(mqnode|queue|sockutil|socksin|companion)/')
# What the build compiles; an option may have left parts out. clang 14 finds no coroutines in Asio 1.22.
mapfile -t programs < <(git ls-files '*.cc' | grep -E "^(${LINT_PROGRAMS:-tools|demo|examples|tests})/" | grep -v asio_ |
  grep -xFf <(sed -n "s,^  \"file\": \"$PWD/\(.*\)\".*,\1,p" "$build/compile_commands.json"))

# each COMMAND ... - the files of standard input, a process for each.
each() { xargs -P "$(nproc)" -n 1 "$@"; }
tidy() { each clang-tidy --quiet -p "$build" "$@" 2>/dev/null; }

# Of programs and tests, most of whose text is headers from outside: what is cheap and is a fault when it is found.
few='-*,bugprone-*use-after-move,bugprone-dangling*,bugprone-infinite-loop,bugprone-suspicious-*,bugprone-unused-*'
few+=',bugprone-string-*,bugprone-macro-*,misc-redundant-expression,misc-unused-*,performance-*'
# Left out: speed pays nothing there; iconv_open and signal return pointers made from -1; whole records are compared on
# purpose.
few+=',-performance-no-int-to-ptr,-performance-no-automatic-move,-performance-inefficient-vector-operation'
few+=',-bugprone-suspicious-memory-comparison'

# Of C++ the analyzer understands the part that the libraries keep to. Leaks are left out there: it follows a block by
# its first byte, and every block of the companion is handed out behind a head; the tests look for leaks.
check_analyzer() {
  local flags=(-O2 -Wall -Werror -fanalyzer -I. -Icpp -Iloop -c -o /dev/null)
  printf '%s\n' "${libraries[@]}" |
    each g++ -std=gnu++20 -fno-exceptions -fno-rtti -Wno-analyzer-malloc-leak "${flags[@]}" &&
    git ls-files 'examples/*.c' 'loop/*.c' 'tests/checks/*.c' | each gcc -std=gnu11 "${flags[@]}"
}

check_scripts() {
  local script
  for script in "${scripts[@]}"; do
    [ -x "$script" ] || [[ $script == tests/support/* ]] || { printf '%s is not executable\n' "$script"; return 1; }
  done
  shellcheck --external-sources --source-path=SCRIPTDIR --severity=warning "${scripts[@]}"
}

# What a checker is told to pass over has its reason beside it: "NOLINT(check): why".
without_reason() {
  local reason='(NOLINT[A-Z]*\([^)]*\)|cppcheck-suppress [A-Za-z]+|diagnostic.*//|EXCL_BR_LINE): [A-Za-z]|SC[0-9]+ # '
  local any='NOLINT|cppcheck-suppress|pragma.*diagnostic|GCOVR_EXCL|shellcheck .*disable='
  grep -nE "$any" "${sources[@]}" "${scripts[@]}" | grep -vE "lint.sh:|NOLINTEND|$reason"
}

export LC_ALL=C.UTF-8
step 'format (./run format puts it right)' clang-format --dry-run -Werror "${sources[@]}"
step 'line length' none 'lines of more than 120 columns' git grep -nE '^.{121,}$' -- '*.h' '*.hh' '*.hpp' '*.cc' '*.c' \
  '*.cmake' '*CMakeLists.txt' run
step 'paths' none 'paths of one machine' git grep -nIE '(^|[^A-Za-z0-9_.$}])/(work|home|root|Users)/[A-Za-z0-9_.]'
step 'suppressions with reasons' none 'without a reason' without_reason
step 'shellcheck' check_scripts
# cppcheck knows libc by tables of its own; the headers of the system are not read, and it need not say so. It does not
# understand all C++ of the programs.
step 'cppcheck' cppcheck --quiet --enable=warning,performance,portability --inline-suppr --std=c++20 -I . \
  -j "$(nproc)" --error-exitcode=1 --suppress=missingIncludeSystem "${libraries[@]}"
step 'analyzer (gcc)' check_analyzer
step 'clang-tidy: libraries' tidy < <(printf '%s\n' "${libraries[@]}")
# clang takes the system calls that tests and chaos.cc define for second definitions of the fortified ones.
step 'clang-tidy, some checks: programs and tests' tidy --checks="$few" --extra-arg=-U_FORTIFY_SOURCE \
  < <(printf '%s\n' "${programs[@]}")
((${#failed[@]} == 0)) || { printf 'lint: failed:%s\n' "$(printf ' %s;' "${failed[@]}")" >&2; exit 1; }
echo 'lint: nothing to report'
