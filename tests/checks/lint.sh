#!/usr/bin/env bash
# lint.sh BUILD_DIR - static checks of the sources. Runs all of them, names those that failed, and exits with 1 if any
# did. BUILD_DIR is configured with the tests: its compile_commands.json is used.
set -uo pipefail
build=$(cd "${1:?usage: lint.sh BUILD_DIR}" && pwd) || exit
cd "$(dirname "$0")/../.." || exit 2

failed=()
# step NAME COMMAND ...: runs the command, and shows its output if it fails.
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

# none TEXT COMMAND ...: fails if the command finds anything.
none() {
  local found
  found=$("${@:2}") || return 0
  printf '%s:\n%s\n' "$1" "$found"
  return 1
}

mapfile -t sources < <(git ls-files '*.h' '*.hh' '*.hpp' '*.cc' '*.c')
mapfile -t scripts < <(git ls-files '*.sh' run .ci/run)
mapfile -t libraries < <(git ls-files '*.cc' | grep -E '^(mqnode|queue|sockutil|socksin|companion)/')
# What the build compiles; an option may exclude parts. clang 14 does not detect coroutine support in Asio 1.22.
mapfile -t programs < <(git ls-files '*.cc' | grep -E "^(${LINT_PROGRAMS:-tools|demo|examples|tests})/" | grep -v asio_ |
  grep -xFf <(sed -n "s,^  \"file\": \"$PWD/\(.*\)\".*,\1,p" "$build/compile_commands.json"))

# each COMMAND ...: runs the command on each file named on standard input, in parallel.
each() { xargs -P "$(nproc)" -n 1 "$@"; }
tidy() { each clang-tidy --quiet -p "$build" "$@" 2>/dev/null; }

# For programs and tests, whose text is mostly system headers: cheap checks with few false positives.
few='-*,bugprone-*use-after-move,bugprone-dangling*,bugprone-infinite-loop,bugprone-suspicious-*,bugprone-unused-*'
few+=',bugprone-string-*,bugprone-macro-*,misc-redundant-expression,misc-unused-*,performance-*'
# Excluded: speed does not matter there; iconv_open and signal return pointers made from -1; comparing whole records is
# intended.
few+=',-performance-no-int-to-ptr,-performance-no-automatic-move,-performance-inefficient-vector-operation'
few+=',-bugprone-suspicious-memory-comparison'

# The analyzer understands the subset of C++ that the libraries use. It does not check for leaks there: it follows a
# block by its first byte, but the companion returns addresses behind a block's head. The tests detect leaks.
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

# Suppressions must state their reason: "NOLINT(check): why".
without_reason() {
  local reason='(NOLINT[A-Z]*\([^)]*\)|cppcheck-suppress [A-Za-z]+|diagnostic.*//|EXCL_BR_LINE): [A-Za-z]|SC[0-9]+ # '
  local any='NOLINT|cppcheck-suppress|pragma.*diagnostic|GCOVR_EXCL|shellcheck .*disable='
  grep -nE "$any" "${sources[@]}" "${scripts[@]}" | grep -vE "lint.sh:|NOLINTEND|$reason"
}

export LC_ALL=C.UTF-8
step 'format (./run format fixes it)' clang-format --dry-run -Werror "${sources[@]}"
step 'line length' none 'lines of more than 120 columns' git grep -nE '^.{121,}$' -- '*.h' '*.hh' '*.hpp' '*.cc' '*.c' \
  '*.cmake' '*CMakeLists.txt' run
step 'paths' none 'paths of one machine' git grep -nIE '(^|[^A-Za-z0-9_.$}])/(work|home|root|Users)/[A-Za-z0-9_.]'
step 'suppressions with reasons' none 'without a reason' without_reason
step 'shellcheck' check_scripts
# cppcheck has its own model of libc and does not read system headers, so it need not report that. It does not
# understand all C++ of the programs.
step 'cppcheck' cppcheck --quiet --enable=warning,performance,portability --inline-suppr --std=c++20 -I . \
  -j "$(nproc)" --error-exitcode=1 --suppress=missingIncludeSystem "${libraries[@]}"
step 'analyzer (gcc)' check_analyzer
step 'clang-tidy: libraries' tidy < <(printf '%s\n' "${libraries[@]}")
# clang would reject the system calls that tests and chaos.cc define as redefinitions of the fortified ones.
step 'clang-tidy, some checks: programs and tests' tidy --checks="$few" --extra-arg=-U_FORTIFY_SOURCE \
  < <(printf '%s\n' "${programs[@]}")
((${#failed[@]} == 0)) || { printf 'lint: failed:%s\n' "$(printf ' %s;' "${failed[@]}")" >&2; exit 1; }
echo 'lint: nothing to report'
