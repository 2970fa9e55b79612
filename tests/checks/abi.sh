#!/usr/bin/env bash
# abi.sh BUILD_DIR - the interface of libmqnode.so.1 is the one in abi/libmqnode.abi: same names, types, sizes, offsets.
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/../.."
command -v abidw >/dev/null || { echo 'abi: no abigail-tools, skipped'; exit 77; }
abi/dump.sh "$build/abi" "$build/abi.xml"
abidiff --harmless --leaf-changes-only abi/libmqnode.abi "$build/abi.xml" >&2 ||
  { echo 'abi: the interface is not the one in abi/libmqnode.abi; when that is meant: abi/renew.sh' >&2; exit 1; }
