#!/usr/bin/env bash
# hardening.sh [--built] FILE ... - shared libraries and programs (ELF) have what makes a fault in them harder to use: all
# names bound and then read-only (full RELRO), no page both writable and executable, code without relocations that runs
# at any address, no search path for libraries, the stack protector, and in libraries fortified calls of libc.
#   --built   of a build tree, whose programs find its libraries by a search path of absolute folders. An empty element
#             of the path is the current directory
# A call of libmqnode.so.1 that a host may interpose keeps its name: of the fortified calls only those that stay within
# the process are let through. Not asked for: control-flow enforcement (-fcf-protection), which costs 12 instructions a
# message, while neither the C library nor the kernel of the supported systems turns it on.
set -euo pipefail
within='__(memcpy|memmove|memset|strcpy|strcat|printf|snprintf|vsnprintf|fgets)_chk'

built=
[ "${1:-}" != --built ] || { built=yes; shift; }
[ $# -gt 0 ] || { echo 'usage: hardening.sh [--built] FILE ...' >&2; exit 2; }

status=0
check() {
  local file=$1 dynamic segments names
  dynamic=$(readelf -dW "$file")
  segments=$(readelf -lW "$file")
  names=$(nm -D --undefined-only "$file" | awk '{ print $2 }' | sed 's/@.*//')
  lacks() {
    printf 'hardening: %s: %s\n' "$file" "$*" >&2
    status=1
  }
  has() { grep >/dev/null -E "$1" <<<"$2"; }

  has 'BIND_NOW|FLAGS_1.*NOW' "$dynamic" || lacks 'names are bound while it runs (-z now)'
  has 'GNU_RELRO' "$segments" || lacks 'what was bound stays writable (-z relro)'
  has 'GNU_STACK.* RW ' "$segments" || lacks 'the stack is executable, or nothing says that it is not'
  ! has '^ *LOAD.* (RWE|WE) ' "$segments" || lacks 'a segment is writable and executable'
  ! has 'TEXTREL' "$dynamic" || lacks 'the code has relocations'
  has 'Elf file type is DYN' "$segments" || lacks 'is no position-independent file'
  has '^__stack_chk_fail$' "$names" || lacks 'no function has a stack protector'

  if [[ $file == *.so* ]]; then
    has '__[a-z]+_chk$' "$names" || lacks 'no call of libc is fortified (-D_FORTIFY_SOURCE)'
  elif [ "$built" ]; then
    ! has '(RPATH|RUNPATH).*\[(.*:)?[^/]' "$dynamic" || lacks 'its search path for libraries is not absolute throughout'
    return 0
  fi
  ! has 'RPATH|RUNPATH' "$dynamic" || lacks 'has a search path for libraries'
  [[ $file == *libmqnode.so* ]] || return 0
  names=$(grep -E '_chk$' <<<"$names" | grep -vxE "$within" | tr '\n' ' ') || return 0
  lacks "calls that a host may interpose have another name: $names"
}

for file in "$@"; do check "$file"; done
exit $status
