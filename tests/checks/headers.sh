#!/usr/bin/env bash
# headers.sh [CC [CXX]] - every public header compiles alone, as C11 and as C++17, with every warning an error.
set -euo pipefail
cc=${1:-cc}
cxx=${2:-c++}
cd "$(dirname "$0")/../.."

status=0
count=0
warnings=(-Wall -Wextra -pedantic -Wshadow -Werror)
for header in $(find runtime queue sockutil socksin mqnode companion -name '*.h' | sort); do
  count=$((count + 1))
  # Twice: the guard holds. The declaration keeps the unit from being empty.
  unit=$(printf '#include "%s"\n#include "%s"\nextern int unit_is_not_empty;\n' "$header" "$header")
  "$cc" -std=c11 "${warnings[@]}" -Wstrict-prototypes -I. -fsyntax-only -x c - <<<"$unit" || status=1
  "$cxx" -std=c++17 "${warnings[@]}" -I. -fsyntax-only -x c++ - <<<"$unit" || status=1
done
[ "$count" -gt 15 ] || { echo "headers: found only $count headers" >&2; exit 1; }
[ "$status" = 0 ] || echo 'headers: a public header does not compile alone, see above' >&2
exit $status
