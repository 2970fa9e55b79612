#!/usr/bin/env bash
# valgrind.sh BUILD_DIR - the test programs and the examples under valgrind's memcheck: no byte is read that nobody has
# written, none outside its block, and at the end every block is released or still known to somebody.
#
# Access to the two blocks that the companion keeps for reuse is not seen. There are no suppressions. Not run here: the
# packaging, the fuzz corpus and the demonstration, which the address sanitizer watches; they would take hours.
set -uo pipefail
build=$(cd "${1:?usage: valgrind.sh BUILD_DIR}" && pwd)
cd "$(dirname "$0")/../.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# "Possibly lost" is no finding: blocks of the companion are known by an address behind their head. The programs' own
# malloc, which makes allocations fail, is left to them.
memcheck=(valgrind -q --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite --error-exitcode=99
  --soname-synonyms=somalloc=nouserintercepts)
export work
one_test() {
  local program=$1
  shift
  if "$@" "$program" --gtest_brief=1 >"$work/${program##*/}" 2>&1; then
    printf 'ok      %s\n' "${program##*/}"
  else
    printf 'FAILED  %s\n' "${program##*/}"
    cat "$work/${program##*/}"
    return 1
  fi
}
export -f one_test

status=0
printf '%s\0' "$build"/bin/*_test | xargs -0 -P "$(nproc)" -I{} bash -c 'one_test "$@"' _ {} "${memcheck[@]}" || status=1

# The test of the examples finds each of them as a program that runs it under valgrind.
mkdir -p "$work/build/bin"
for program in "$build"/bin/*; do ln -s "$program" "$work/build/bin/"; done
for source in examples/*.c examples/*.cc; do
  program=$(basename "${source%.*}")
  [ -x "$build/bin/$program" ] || continue
  rm "$work/build/bin/$program"
  printf '#!/bin/sh\nexec %s %s "$@"\n' "${memcheck[*]}" "$build/bin/$program" >"$work/build/bin/$program"
  chmod +x "$work/build/bin/$program"
done
if tests/examples_test.sh "$work/build" >"$work/examples.log" 2>&1; then
  echo 'ok      the examples'
else
  echo 'FAILED  the examples'
  cat "$work/examples.log"
  status=1
fi
exit $status
