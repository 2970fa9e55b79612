#!/usr/bin/env bash
# exports.sh LIBRARY - the names that libmqnode.so exports, those that exports.map lists and those that the public
# headers mark with MQ_API are the same names.
set -euo pipefail
library=$1
cd "$(dirname "$0")/../.."

exported() {
  nm -D --defined-only "$library" | awk '{ print $3 }'
}

listed() {
  sed -n '/global:/,/local:/p' exports.map | grep -oE '^ +[A-Za-z_][A-Za-z0-9_]*;' | tr -d ' ;'
}

# The name in a declaration stands before its first parenthesis, bracket or semicolon.
declared() {
  find mqnode queue sockutil socksin -name '*.h' -print0 | xargs -0 awk '
    /^(extern )?MQ_API / { statement = ""; open = 1 }
    open { statement = statement " " $0 }
    open && /;/ {
      sub(/[(\[;].*/, "", statement)
      sub(/ *$/, "", statement)
      sub(/.*[ *]/, "", statement)
      print statement
      open = 0
    }'
}

status=0
compare() {
  local difference
  difference=$(diff <("$1" | sort) <("$3" | sort)) || {
    printf 'exports: "<" only %s, ">" only %s\n%s\n' "$2" "$4" "$difference" >&2
    status=1
  }
}

[ "$(declared | wc -l)" -gt 50 ] || { echo 'exports: the headers could not be read' >&2; exit 1; }
compare exported 'in the library' listed 'in exports.map'
compare listed 'in exports.map' declared 'in the headers'
exit $status
