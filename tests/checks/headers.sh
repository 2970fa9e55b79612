#!/usr/bin/env bash
# headers.sh CC CXX - every public header compiles alone, as C11 and as C++17, with every warning an error. cpp/ and
# loop/ need POSIX, mqnode/uv.h libuv.
set -euo pipefail
cd "$(dirname "$0")/../.."
warnings=(-Wall -Wextra -pedantic -Wshadow -Werror -I. -Icpp -Iloop -fsyntax-only)
status=0
for header in {runtime,queue,sockutil,socksin,mqnode,companion,{cpp,loop}/mqnode}/*.h cpp/mqnode/*.hpp; do
  [[ $header != */uv.h ]] || "$1" -E -x c - <<<'#include <uv.h>' &>/dev/null || continue
  c11=(-std=c11 -Wstrict-prototypes)
  [[ $header != cpp/* && $header != loop/* ]] || c11+=(-D_POSIX_C_SOURCE=200809L)
  # Twice, for the guard. The declaration keeps the unit from being empty.
  unit=$(printf '#include "%s"\n' "$header" "$header")$'\nextern int unit_is_not_empty;'
  [[ $header == *.hpp ]] || "$1" "${c11[@]}" "${warnings[@]}" -x c - <<<"$unit" || status=1
  "$2" -std=c++17 "${warnings[@]}" -x c++ - <<<"$unit" || status=1
done
# The C++ interface leaves an application the names that it does not use itself.
own=$'template <class Type> class Queue;\nclass AcceptClient;\nAcceptClient* strupper(char*);'
"$2" -std=c++17 "${warnings[@]}" -x c++ - <<<$'#include "mqnode/mqnode.hpp"\n'"$own" || status=1
exit $status
