#!/usr/bin/env bash
# hardening_fails.sh C_COMPILER - hardening.sh lets a library through that has everything, and none that lacks one thing.
set -euo pipefail
cc=$1
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/library.c" <<'SOURCE'
#include <stdio.h>
#include <sys/types.h>
int Use(char *text, unsigned size) {
  char place[64];
  snprintf(place, size, "%s", text);
  return puts(place);
}
#ifdef RENAMED
ssize_t __recv_chk(int fd, void *place, size_t size, size_t room, int flags);
ssize_t Receive(int fd, char *place) { return __recv_chk(fd, place, 1, 2, 0); }
#endif
#ifdef RELOCATED
__asm__(".text\n .quad Use\n");
#endif
#ifdef MIXED
__asm__(".section .mixed, \"awx\"\n .quad 0\n .text\n");
#endif
SOURCE

good=(-O2 -fPIC -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -Wl,-z,relro,-z,now,-z,noexecstack)
file=libmqnode.so
options=()
# expect TEXT FLAG ... - what hardening.sh says of the file made with the good flags and these; nothing when it is let
# through.
expect() {
  local text=$1 said status=0
  shift
  "$cc" -shared -o "$work/$file" "$work/library.c" "${good[@]}" "$@" 2>"$work/log" || { cat "$work/log" >&2; exit 1; }
  said=$(./hardening.sh "${options[@]}" "$work/$file" 2>&1) || status=$?
  if [ -z "$text" ]; then
    [ $status = 0 ] || { printf 'refused: %s\n' "$said" >&2; exit 1; }
  elif [ $status = 0 ] || [[ $said != *"$text"* ]] || [ "$(wc -l <<<"$said")" != 1 ]; then
    printf 'with %s: ended with %d and said "%s" instead of "%s"\n' "$*" $status "$said" "$text" >&2
    exit 1
  fi
}

expect ''
expect 'bound while it runs' -Wl,-z,lazy
expect 'stays writable' -Wl,-z,norelro
expect 'stack is executable' -Wl,-z,execstack
expect 'writable and executable' -DMIXED
expect 'code has relocations' -DRELOCATED -Wl,-z,notext
expect 'stack protector' -fno-stack-protector
expect 'is fortified' -U_FORTIFY_SOURCE
expect 'search path' -Wl,-rpath,/nowhere
expect 'another name: __recv_chk' -DRENAMED

# A built program may have a search path.
file=program options=(--built)
expect '' -Wl,-rpath,/nowhere:/elsewhere
expect 'not absolute throughout' -Wl,-rpath,/nowhere:
expect 'not absolute throughout' '-Wl,-rpath,/nowhere:$ORIGIN/lib'
