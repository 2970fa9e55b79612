#!/usr/bin/env bash
# dependencies.sh LIBRARY - libmqnode.so needs libc.so.6 and nothing else, takes every other name from the companion's
# headers, and runs nothing when it is loaded. A build with sanitizers or coverage is skipped (exit 77).
set -euo pipefail
library=$1
cd "$(dirname "$0")/../.."

if nm "$library" | grep >/dev/null -E '__(asan|ubsan|tsan|gcov)_'; then
  echo 'dependencies: built with sanitizers or coverage, skipped'
  exit 77
fi

status=0
fail() {
  printf 'dependencies: %s\n' "$*" >&2
  status=1
}

needed=$(readelf -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort | tr '\n' ' ')
[ "$needed" = 'libc.so.6 ' ] || fail "needed libraries: $needed; only libc.so.6 is allowed"

# A name of libc carries its version; the few weak ones without are the linker's own.
undefined=$(nm -D --undefined-only "$library" | awk '$1 != "w" { print $2 }' | grep -v '@GLIBC_' | sort)
offered=$(grep -hoE '^MQ_RUNTIME [^(]*' runtime/*.h | sed 's/.*[ *]//' | sort)
[ -n "$offered" ] || fail 'the headers of the companion could not be read'
unknown=$(comm -23 <(printf '%s\n' "$undefined") <(printf '%s\n' "$offered") | tr '\n' ' ')
[ -z "$unknown" ] || fail "names that neither libc nor the companion's headers offer: $unknown"

readelf -dW "$library" | grep >/dev/null -E 'BIND_NOW|FLAGS.*NOW' || fail 'names are not bound when it is loaded (-z now)'
readelf -dW "$library" | grep >/dev/null SYMBOLIC && fail 'linked with -Bsymbolic: a host could not replace the globals'

# One entry of 8 bytes: the compiler's own frame_dummy.
section_size() {
  readelf -SW "$library" | awk -v name="$1" '{ sub(/^ *\[ *[0-9]+\]/, "") } $1 == name { print $5 }'
}
initialisers=$(section_size .init_array)
[ "$initialisers" = 000008 ] || fail "static initialisers: .init_array has 0x$initialisers bytes"
readelf -SW "$library" | grep >/dev/null '\.ctors' && fail 'static initialisers: .ctors'
exit $status
