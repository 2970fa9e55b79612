#!/usr/bin/env bash
# valgrind.sh BUILD_DIR - runs the test programs and the examples under valgrind's memcheck: no uninitialised or
# out-of-bounds reads, no leaks. Access to the two blocks that the companion keeps for reuse is not detected. There are
# no suppressions. Packaging, fuzz corpus and demonstration would take hours; the address sanitizer covers them.
set -uo pipefail
build=$(cd "${1:?usage: valgrind.sh BUILD_DIR}" && pwd)
cd "$(dirname "$0")/../.." || exit
# "Possibly lost" is not reported, because the companion refers to its blocks by an address behind their head. The
# programs keep their own malloc, which makes allocations fail.
export MEMCHECK="valgrind -q --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
--error-exitcode=99 --soname-synonyms=somalloc=nouserintercepts"
run() {
  local said
  said=$("$@" 2>&1) && echo "ok      ${*: -1}" && return
  printf 'FAILED  %s\n%s\n' "$*" "$said"
  return 1
}
export -f run

# shellcheck disable=SC2016 # bash -c expands them
printf '%s\0' "$build"/bin/*_test | xargs -0 -P "$(nproc)" -n 1 bash -c 'run $MEMCHECK "$0"' &&
  run tests/examples_test.sh "$build"
