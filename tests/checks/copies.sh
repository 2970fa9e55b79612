#!/usr/bin/env bash
# copies.sh PROGRAM - the program holds its own copies of libmqnode's four globals.
set -euo pipefail
copies=$(readelf -rW "$1" | awk '$3 == "R_X86_64_COPY" { print $5 }' | sed 's/@.*//')
for name in G_node_trace G_socket_trace G_szApplName pSavedAlarm; do
  grep -qx "$name" <<<"$copies" || { echo "copies: $1 has no copy of $name" >&2; exit 1; }
done
