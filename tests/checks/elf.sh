#!/usr/bin/env bash
# elf.sh CHECK ARGUMENT ... - what the linked files promise. Every broken promise is a line on standard error.
#   names LIBRARY             libmqnode.so exports what exports.map lists and the headers mark with MQ_API, needs
#                             libc.so.6 alone, takes other names from the companion's headers, runs no code when loaded;
#                             libmqnode-uv.so the same with loop/exports.map, but needs the other two and libuv
#   hardened [--built] FILE   the file has what makes a fault in it harder to use; --built: it is a program of a build
#                             tree, which finds the libraries by a search path of absolute directories
set -euo pipefail
cd "$(dirname "$0")/../.."
status=0
broken() {
  printf '%s: %s\n' "$file" "$*" >&2
  status=1
}

# same NAME NAMES NAME NAMES: two lists hold the same names.
same() {
  diff <(sort <<<"$2") <(sort <<<"$4") >&2 || broken "'<' is only in $1, '>' only in $3"
}

names() {
  local map=exports.map headers=({mqnode,queue,sockutil,socksin}/*.h) needs=libc.so.6
  local bound=(G_node_trace G_socket_trace G_szApplName pSavedAlarm mnOpen mnRead)
  local name exported listed declared undefined offered needed init
  if [[ $file == *libmqnode-uv* ]]; then
    map=loop/exports.map headers=(loop/mqnode/uv.h) needs='libmqcompanion.so.1 libmqnode.so.1 libuv.so.1 libc.so.6'
    bound=()
  fi
  exported=$(nm -D --defined-only "$file" | awk '{ print $3 }')
  listed=$(sed -n '/global:/,/local:/ s/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$map")
  # The name is before the first parenthesis, bracket or semicolon of a declaration, which may have several lines.
  declared=$(cat "${headers[@]}" | tr '\n' ' ' | grep -oE '\bMQ_API [^([;]*' | sed 's/.*[ *]//')
  same 'the library' "$exported" "$map" "$listed"
  same "$map" "$listed" 'the headers' "$declared"

  # A name of libc has its version; the few weak ones without are the linker's own.
  undefined=$(nm -D --undefined-only "$file" | awk '$1 != "w" && !/@GLIBC_/ { print $2 }' | sort)
  offered=$(grep -hoE '^MQ_RUNTIME [^(]*' runtime/*.h | sed 's/.*[ *]//' | sort)
  undefined=$(comm -23 <(echo "$undefined") <(echo "$offered"))
  [[ -z $undefined || $needs != libc.so.6 ]] || broken "names that neither libc nor the companion's headers offer:" $undefined
  needed=$(readelf -dW "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd ' ')
  [ "$needed" = "$needs" ] || broken "needs $needed"
  # A program that is not position-independent has copies of the variables and other addresses of the functions.
  for name in "${bound[@]}"; do
    readelf -rW "$file" | grep -E " $name( |@|\$)" >/dev/null ||
      broken "$name is bound when the library is linked (-Bsymbolic)"
  done
  # One entry of 8 bytes: the compiler's own frame_dummy.
  init=$(readelf -SW "$file" | sed -nE 's/.* \.(init_array|ctors) +[A-Z_]+ +[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+) .*/\2/p')
  [ "$init" = 000008 ] || broken "static initialisers: 0x$init bytes of them"
}

has() { grep -qE -- "$1" <<<"$facts" || broken "$2"; }
lacks() { ! grep -qE -- "$1" <<<"$facts" || broken "$2"; }

# A call of libmqnode.so.1 that a host may interpose keeps its name: of the fortified calls only those that stay within
# the process are let through. Not asked for: control-flow enforcement (-fcf-protection), which costs 12 instructions a
# message, while neither the C library nor the kernel of the supported systems turns it on.
hardened() {
  local facts within='mem(cpy|move|set)|str(cpy|cat)|(printf|v?snprintf|fgets)'
  facts=$(readelf -dlW "$file"; nm -D --undefined-only "$file" | sed 's/@.*//')
  has 'BIND_NOW|FLAGS_1.*NOW' 'names are bound while it runs (-z now)'
  has 'GNU_RELRO' 'what was bound stays writable (-z relro)'
  has 'GNU_STACK.* RW ' 'the stack is executable, or nothing says that it is not'
  has 'Elf file type is DYN' 'is not position-independent'
  has ' U __stack_chk_fail$' 'no function has a stack protector'
  lacks '^ *LOAD.* (RWE|WE) ' 'a segment is writable and executable'
  lacks TEXTREL 'the code has relocations'
  # libmqnode-uv makes no call that could be.
  [[ $file != *.so* || $file == *-uv.so* ]] || has ' U __[a-z]+_chk$' 'no call of libc is fortified (-D_FORTIFY_SOURCE)'
  # An empty element of a search path is the current directory.
  [ -z "$built" ] || lacks '(RPATH|RUNPATH).*\[(.*:)?[^/]' 'its search path for libraries is not absolute throughout'
  [ -n "$built" ] || lacks '(RPATH|RUNPATH)' 'has a search path for libraries'
  [[ $file != *libmqnode.so* ]] || facts=$(grep -vE " __($within)_chk$" <<<"$facts")
  [[ $file != *libmqnode.so* ]] || lacks ' U __[a-z]+_chk$' 'a call that a host may interpose has another name'
}

check=$1 built=
shift
[ "$1" != --built ] || { built=yes; shift; }
case $check in
  names | hardened) for file; do "$check"; done ;;
  *) exit 2 ;;
esac
exit $status
