#!/usr/bin/env bash
# reference_test.sh BUILD_DIR - checks the reference made from the headers: every exported name has a manual page that
# names, declares and describes it; each page describes its own function; groff and doxygen report no warnings.
. "$(dirname "$0")/support/shell.sh"
cd "$build/reference/man/man3" || exit

# One line for each section: PAGE SECTION TEXT.
awk '/^\.SH /{ printf "\n%s %s ", FILENAME, $2; next } !/^\.[A-Za-z]/{ printf "%s ", $0 }' ./*.3 >"$work/sections"
section() { grep -qE -- "^\./$1\.3 $2 .*$3" "$work/sections" || fail "$1.3: no '$3' in $2"; }

exported=$(sed -n 's/^    \([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$tree/exports.map" "$tree/loop/exports.map")
[ -n "$exported" ] || fail 'exports.map names nothing'
for name in $exported; do
  section "$name" NAME "\b$name(,.*)? \\\\- [^ ]"
  section "$name" SYNOPSIS "[ *]${name}[(;[]"
  section "$name" DESCRIPTION '[a-z]'
  section "$name" EXAMPLE '[;{]'
done
section mnFinishWrite ERRORS 'MQ_NO_DESCRIPTOR .105..* If an entry without a descriptor'
section mq_error_remedy DESCRIPTION 'of a code\\\(aqs first entry'

same 'SEE ALSO of pages that do not exist' '' \
  "$(comm -23 <(sed -n 's/^\.BR \([^ ]*\) (3).*/\1.3/p' ./*.3 | sort -u) <(printf '%s\n' *.3 | sort))"
same groff '' "$(cd .. && groff -man -ww -z -Tutf8 man3/*.3 man7/*.7 2>&1)"

quietly "$tree/docs/reference/make.sh" html "$work" 0
same doxygen '' "$(<"$work/log")"
has "$work/html/deliver_8h.html" '105 if an entry without' 'A node gets a queue when'
has "$work/html/structMQNode.html" 'Address to connect to, or that was bound'
has "$work/html/index.html" document-guide.html
has "$work/html/classmqnode_1_1NodeRef.html" 'mnOpen on a connecting node'
