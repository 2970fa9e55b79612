#!/usr/bin/env bash
# dump.sh FOLDER OUT - write the interface of libmqnode.so.1 to OUT: exported names, their types, every size and offset.
# The library is built once more for this, in FOLDER, with the debug information that a release lacks. OUT depends on
# neither the machine nor the folders: no paths, no places in sources, type ids made from the types themselves, and only
# the types of the public headers.
set -euo pipefail
folder=$1
out=$2
cd "$(dirname "$0")/.."

mkdir -p "$folder"
log=$folder/dump.log
if ! { cmake -S . -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-ffile-prefix-map=$PWD/=" &&
       cmake --build "$folder" --target mqnode; } >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  exit 1
fi

headers=()
for room in mqnode queue runtime sockutil socksin; do headers+=(--headers-dir "$room"); done
abidw --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash --exported-interfaces-only \
  --drop-private-types "${headers[@]}" --out-file "$out" "$folder/lib/libmqnode.so.1"
