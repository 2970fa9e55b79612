#!/usr/bin/env bash
# lint.sh BUILD_DIR - everything that reads the sources instead of running them: format, line length, paths, packaging,
# clang-tidy, cppcheck, gcc's analyzer. Runs all of it, names what failed, and ends with 1 when anything did.
set -uo pipefail
if [ $# != 1 ] || [ ! -f "$1/compile_commands.json" ]; then
  echo 'usage: lint.sh BUILD_DIR (configured: compile_commands.json is read)' >&2
  exit 2
fi
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/../.." || exit 2

failed=()
# step NAME COMMAND ... - runs the command; what it prints is shown when it fails.
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

# Tracked files of these kinds that are still there.
tracked() {
  git ls-files -z -- "$@" | while IFS= read -r -d '' file; do
    [ -f "$file" ] && printf '%s\0' "$file"
  done
}
sources() { tracked '*.h' '*.hh' '*.hpp' '*.cc' '*.c'; }

# What is read in depth: the two libraries. The programs around them are watched by the compiler's warnings; their
# headers from outside would make this take minutes, and cppcheck does not understand all of their C++.
libraries() { tracked '*.cc' | grep -zE '^(mqnode|queue|sockutil|socksin|companion)/'; }

check_format() {
  sources | xargs -0 clang-format --dry-run -Werror || { echo 'format: ./run format puts it right'; return 1; }
}

check_line_length() {
  local long
  long=$({ sources; tracked '*.cmake' '*CMakeLists.txt'; } |
    LC_ALL=C.UTF-8 xargs -0 grep -nHE '^.{121,}$')
  [ -z "$long" ] || { printf 'lines of more than 120 columns:\n%s\n' "$long"; return 1; }
}

check_paths() {
  local found
  found=$(git grep -nIE '(^|[^A-Za-z0-9_.$}])/(work|home|root|Users)/[A-Za-z0-9_.]') || return 0
  printf 'paths of one machine:\n%s\n' "$found"
  return 1
}

# Only what the build knows how to compile: an option may have left parts out.
check_tidy() {
  local output
  output=$(libraries | while IFS= read -r -d '' file; do
    grep -qF "\"$PWD/$file\"" "$build/compile_commands.json" && printf '%s\0' "$file"
  done | xargs -0 -P "$(nproc)" -n 3 clang-tidy --quiet -p "$build" 2>/dev/null) && return 0
  printf '%s\n' "$output"
  return 1
}

# cppcheck knows libc by tables of its own; the headers of the system are not read, and it need not say so.
check_cppcheck() {
  libraries | xargs -0 cppcheck --quiet --enable=warning,performance,portability --inline-suppr --std=c++20 \
    --error-exitcode=1 --suppress=missingIncludeSystem -I . -j "$(nproc)"
}

# One file for each process, in C++ as the libraries and in C as the examples are. Of C++ the analyzer understands the
# part that the libraries keep to. Leaks are left out there: it follows a block by its first byte, and every block of the
# companion is handed out behind a head; the tests look for leaks, by count and under the sanitizers.
analyze() {
  local compiler=$1
  shift
  ANALYZE="$compiler -O2 -Wall -Werror -fanalyzer $* -I. -c -o /dev/null" xargs -0 -P "$(nproc)" -n 1 \
    sh -c 'exec $ANALYZE "$0"'
}
check_analyzer() {
  libraries | analyze "g++ -std=gnu++20 -fno-exceptions -fno-rtti" -Wno-analyzer-malloc-leak &&
    tracked 'examples/*.c' 'tests/checks/*.c' | analyze "gcc -std=gnu11"
}

# What a checker is told to pass over has its reason beside it: "NOLINT(check): why".
check_suppressions() {
  local bare
  bare=$(sources | xargs -0 grep -nE 'NOLINT|cppcheck-suppress|pragma.*diagnostic' |
    grep -vE 'NOLINTEND|(NOLINT[A-Z]*\([^)]*\)|cppcheck-suppress [A-Za-z]+|diagnostic.*//): [A-Za-z]') || return 0
  printf 'without a reason:\n%s\n' "$bare"
  return 1
}

check_scripts() {
  local script status=0
  while IFS= read -r -d '' script; do
    bash -n "$script" || status=1
    [ -x "$script" ] || { printf '%s is not executable\n' "$script"; status=1; }
  done < <(tracked '*.sh' run .ci/run)
  return $status
}

library=$build/lib/libmqnode.so.1
step 'format (clang-format)' check_format
step 'lines of at most 120 columns' check_line_length
step 'no path of one machine' check_paths
step 'shell scripts' check_scripts
step 'suppressions with reasons' check_suppressions
step 'exported names' tests/checks/exports.sh "$library"
step 'needed libraries and names' tests/checks/dependencies.sh "$library"
step 'headers alone, as C11 and C++17' tests/checks/headers.sh
step 'cppcheck' check_cppcheck
step 'analyzer (gcc)' check_analyzer
step 'clang-tidy' check_tidy

if ((${#failed[@]})); then
  printf 'lint: failed: %s\n' "$(IFS=,; echo "${failed[*]}" | sed 's/,/, /g')" >&2
  exit 1
fi
echo 'lint: nothing to report'
