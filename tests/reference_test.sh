#!/usr/bin/env bash
# reference_test.sh BUILD_DIR - the reference as it is made from the headers: the build's manual pages cover every
# exported name, say something under each heading and please groff; doxygen, where it is installed, has no warning, and
# what it made has the headers' words.
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
pages=$build/reference/man/man3
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
status=0
fail() {
  printf 'reference: %s\n' "$*" >&2
  status=1
}

# section PAGE NAME: the text under a heading, without requests.
section() { awk -v name="$2" '/^\.SH /{ here = $0 == ".SH " name; next } here && !/^\.[A-Za-z]/' "$1"; }

[ -d "$pages" ] || { fail "the build made no manual pages"; exit 1; }
exported=$(sed -n 's/^    \([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' exports.map)
[ -n "$exported" ] || fail 'exports.map names nothing'
for name in $exported; do
  page=$pages/$name.3
  [ -s "$page" ] || { fail "$name is exported and has no manual page"; continue; }
  section "$page" NAME | grep >/dev/null -E "(^|, )${name}(,.*)? \\\\- [^ ]" || fail "$name.3: what is it?"
  section "$page" SYNOPSIS | tr -d '\n' | grep >/dev/null -E "[ *]${name}[(;[]" || fail "$name.3: not declared"
  section "$page" DESCRIPTION | grep >/dev/null '[a-z]' || fail "$name.3: DESCRIPTION is empty"
done

# Each page is about what the header says of that function, not of its neighbour.
says() { section "$pages/$1.3" DESCRIPTION | tr '\n' ' ' | grep >/dev/null -F -- "$2" || fail "$1.3 does not say: $2"; }
says mnFinishWrite '105 when an entry without a descriptor was dropped'
says mnPostExMSec 'milliseconds and the caller\(aqs record'
says NoblockSocket 'errno of fcntl, reported'
says BlockSocket 'errno of fcntl, reported'
says mqc_add_bytes 'may be null when length is 0'
says mq_error_remedy 'of a code\(aqs first entry'

# Every name under SEE ALSO leads somewhere.
cat "$pages"/*.3 | sed -n 's/^\.BR \([^ ]*\) (3).*/\1/p' | sort -u | while read -r name; do
  [ -e "$pages/$name.3" ] || echo "$name"
done >"$place/nowhere"
[ ! -s "$place/nowhere" ] || fail "SEE ALSO names pages that are not there: $(tr '\n' ' ' <"$place/nowhere")"

if command -v groff >/dev/null; then
  for page in "$pages"/*.3; do
    groff -man -ww -Tutf8 "$page" 2>&1 >/dev/null | sed "s,^,$(basename "$page"): ,"
  done >"$place/groff"
  [ ! -s "$place/groff" ] || fail "groff has something to say:
$(cat "$place/groff")"
else
  echo 'reference: no groff, the pages were not rendered'
fi

if command -v doxygen >/dev/null; then
  if docs/reference/make.sh html "$place" 0 >"$place/doxygen" 2>&1 && [ ! -s "$place/doxygen" ]; then
    page=$place/html/deliver_8h.html
    grep -qF '105 when an entry without a' "$page" || fail 'the page of mqnode/deliver.h lacks the text of the header'
    grep -qF 'A node has no queue until' "$page" || fail 'the page of mqnode/deliver.h lacks the opening of the header'
    grep -qF 'where to connect, or what was bound' "$place/html/structMQNode.html" || fail 'MQNode has no field texts'
  else
    fail "doxygen has something to say:
$(cat "$place/doxygen")"
  fi
else
  echo 'reference: no doxygen, that half was not tried'
fi
exit $status
