#!/usr/bin/env bash
# headers.sh CC CXX - compiles each public header alone, as C11 and as C++17, with all warnings as errors. cpp/ and
# loop/ need POSIX, mqnode/uv.h libuv.
set -euo pipefail
cd "$(dirname "$0")/../.."
warnings=(-Wall -Wextra -pedantic -Wshadow -Werror -I. -Icpp -Iloop -fsyntax-only)
status=0
for header in {runtime,queue,sockutil,socksin,mqnode,companion,{cpp,loop}/mqnode}/*.h cpp/mqnode/*.hpp; do
  [[ $header != */uv.h ]] || "$1" -E -x c - <<<'#include <uv.h>' &>/dev/null || continue
  c11=(-std=c11 -Wstrict-prototypes)
  [[ $header != cpp/* && $header != loop/* ]] || c11+=(-D_POSIX_C_SOURCE=200809L)
  # Included twice, to test the guard. The declaration prevents an empty translation unit.
  unit=$(printf '#include "%s"\n' "$header" "$header")$'\nextern int unit_is_not_empty;'
  [[ $header == *.hpp ]] || "$1" "${c11[@]}" "${warnings[@]}" -x c - <<<"$unit" || status=1
  "$2" -std=c++17 "${warnings[@]}" -x c++ - <<<"$unit" || status=1
done
# The C++ interface must not occupy names that an application may use for itself.
own=$'template <class Type> class Queue;\nclass AcceptClient;\nAcceptClient* strupper(char*);'
"$2" -std=c++17 "${warnings[@]}" -x c++ - <<<$'#include "mqnode/mqnode.hpp"\n'"$own" || status=1
exit $status
