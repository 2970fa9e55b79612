#!/usr/bin/env bash
# abi.sh BUILD_DIR - checks that libmqnode.so.1 has the interface in abi/libmqnode.abi: names, types, sizes, offsets.
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/../.."
command -v abidw >/dev/null || { echo 'abi: no abigail-tools, skipped'; exit 77; }
abi/dump.sh "$build/abi" "$build/abi.xml"
abidiff --harmless --leaf-changes-only abi/libmqnode.abi "$build/abi.xml" >&2 ||
  { echo 'abi: the interface differs from abi/libmqnode.abi; if that is intended, run abi/renew.sh' >&2; exit 1; }
