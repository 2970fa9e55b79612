#!/bin/sh
# make.sh man|html FOLDER VERSION - makes the manual pages in FOLDER/man/man3, or the pages for a browser in
# FOLDER/html, from the public headers. The pages of before are replaced. Needs awk, and for the latter doxygen, whose
# warnings are failures.
set -eu
[ $# = 3 ] || { echo 'usage: make.sh man|html FOLDER VERSION' >&2; exit 2; }
mkdir -p "$2"
folder=$(cd "$2" && pwd)
cd "$(dirname "$0")/../.."
case $1 in
  man)
    rm -rf "$folder/man/man3"
    mkdir -p "$folder/man/man3"
    awk -v out="$folder/man/man3" -v version="$3" -f docs/reference/man.awk \
      mqnode/*.h cpp/mqnode/*.h loop/mqnode/limits.h loop/mqnode/uv.h socksin/*.h sockutil/*.h queue/*.h runtime/*.h companion/host.h
    ;;
  html)
    rm -rf "$folder/html"
    REFERENCE_OUT=$folder REFERENCE_VERSION=$3 doxygen docs/reference/Doxyfile
    ;;
  *)
    echo "make.sh: '$1' is neither man nor html" >&2
    exit 2
    ;;
esac
