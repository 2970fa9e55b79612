#!/usr/bin/env bash
# renew.sh - make the interface that the tree has now the one that the checks compare with.
# Only when the interface was meant to change; the difference belongs into CHANGELOG. A removed or changed function, a
# moved or resized record breaks the hosts that were built before: that also takes a new major version.
# Needs abigail-tools.
set -euo pipefail
cd "$(dirname "$0")/.."
new=$(mktemp)
trap 'rm -f "$new"' EXIT
abi/dump.sh build/abi "$new"
if [ -e abi/libmqnode.abi ]; then abidiff --harmless --leaf-changes-only abi/libmqnode.abi "$new" || true; fi
cat "$new" >abi/libmqnode.abi
echo 'abi/libmqnode.abi is up to date'
