#!/bin/sh
# make.sh man|html FOLDER VERSION - makes the manual pages in FOLDER/man, or the pages for a browser in FOLDER/html, from
# the public headers. Earlier pages are replaced. Needs awk, and for the latter doxygen, whose warnings are failures.
set -eu
[ $# = 3 ] || { echo 'usage: make.sh man|html FOLDER VERSION' >&2; exit 2; }
mkdir -p "$2"
folder=$(cd "$2" && pwd)
cd "$(dirname "$0")/../.."
case $1 in
  man)
    rm -rf "$folder/man"
    mkdir -p "$folder/man/man3" "$folder/man/man7"
    awk -v out="$folder/man" -v version="$3" -f docs/reference/comment.awk -f docs/reference/man.awk \
      docs/reference/examples.c mqnode/*.h cpp/mqnode/* loop/mqnode/limits.h loop/mqnode/uv.h loop/mqnode/asio.hpp \
      socksin/*.h sockutil/*.h queue/*.h runtime/*.h companion/host.h
    echo '.so man3/mqnode_mqnode.hpp.3' >"$folder/man/man3/mqnode.hpp.3"
    sed -n '/^#include/,$p' examples/hello.c | sed 's/\\/\\e/g; s/^$/.sp/' >"$folder/man/hello"
    sed "s/VERSION/$3/; /^HELLO\$/{r $folder/man/hello
d}" docs/reference/mqnode.7 >"$folder/man/man7/mqnode.7"
    rm "$folder/man/hello"
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
