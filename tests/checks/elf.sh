#!/usr/bin/env bash
# elf.sh CHECK ARGUMENT ... - checks the linked files. Every broken promise is a line on standard error.
#   names LIBRARY             libmqnode.so exports what exports.map lists and the headers mark with MQ_API, needs
#                             libc.so.6 alone, imports only names of libc and of the companion's headers, runs no code
#                             when loaded; the same for libmqnode-uv.so with loop/exports.map, the libraries and libuv
#   hardened [--built] FILE   the file is hardened against exploits; --built: it is a program in a build tree, which
#                             finds the libraries by a search path of absolute directories
set -euo pipefail
cd "$(dirname "$0")/../.."
status=0
broken() {
  printf '%s: %s\n' "$file" "$*" >&2
  status=1
}

# same NAME NAMES NAME NAMES: checks that two lists have the same names.
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
  # The name precedes the first parenthesis, bracket or semicolon of a declaration, which may have several lines.
  declared=$(cat "${headers[@]}" | tr '\n' ' ' | grep -oE '\bMQ_API [^([;]*' | sed 's/.*[ *]//')
  same 'the library' "$exported" "$map" "$listed"
  same "$map" "$listed" 'the headers' "$declared"

  # libc's names have a version; the few weak names without one are the linker's own.
  undefined=$(nm -D --undefined-only "$file" | awk '$1 != "w" && !/@GLIBC_/ { print $2 }' | sort)
  offered=$(grep -hoE '^MQ_RUNTIME [^(]*' runtime/*.h | sed 's/.*[ *]//' | sort)
  undefined=$(comm -23 <(echo "$undefined") <(echo "$offered"))
  [[ -z $undefined || $needs != libc.so.6 ]] || broken "names that neither libc nor the companion's headers offer:" $undefined
  needed=$(readelf -dW "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd ' ')
  [ "$needed" = "$needs" ] || broken "needs $needed"
  # A position-dependent program has copies of the variables and other addresses of the functions.
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

# Calls of libmqnode.so.1 that an application may interpose must keep their names, so only fortified calls that stay
# within the process are allowed. Control-flow enforcement (-fcf-protection) is not required: it costs 12 instructions a
# message, and neither the C library nor the kernel of the supported systems enables it.
hardened() {
  local facts within='mem(cpy|move|set)|str(cpy|cat)|(printf|v?snprintf|fgets)'
  facts=$(readelf -dlW "$file"; nm -D --undefined-only "$file" | sed 's/@.*//')
  has 'BIND_NOW|FLAGS_1.*NOW' 'names are bound lazily (-z now)'
  has 'GNU_RELRO' 'relocated data stays writable (-z relro)'
  has 'GNU_STACK.* RW ' 'the stack may be executable'
  has 'Elf file type is DYN' 'is not position-independent'
  has ' U __stack_chk_fail$' 'no function has a stack protector'
  lacks '^ *LOAD.* (RWE|WE) ' 'a segment is writable and executable'
  lacks TEXTREL 'the code has relocations'
  # libmqnode-uv makes no call that can be fortified.
  [[ $file != *.so* || $file == *-uv.so* ]] || has ' U __[a-z]+_chk$' 'no call of libc is fortified (-D_FORTIFY_SOURCE)'
  # An empty element of a search path is the current directory.
  [ -z "$built" ] || lacks '(RPATH|RUNPATH).*\[(.*:)?[^/]' 'its search path has a relative directory'
  [ -n "$built" ] || lacks '(RPATH|RUNPATH)' 'has a search path for libraries'
  [[ $file != *libmqnode.so* ]] || facts=$(grep -vE " __($within)_chk$" <<<"$facts")
  [[ $file != *libmqnode.so* ]] || lacks ' U __[a-z]+_chk$' 'a call that an application may interpose has another name'
}

check=$1 built=
shift
[ "$1" != --built ] || { built=yes; shift; }
case $check in
  names | hardened) for file; do "$check"; done ;;
  *) exit 2 ;;
esac
exit $status
