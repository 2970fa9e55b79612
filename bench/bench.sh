#!/usr/bin/env bash
# bench.sh BUILD_DIR ARGS... - runs the benchmarks of a build; see mqbench --help for the arguments.
#   bench.sh BUILD_DIR parts ARGS...   single calls, with Google Benchmark (its own arguments)
set -euo pipefail
bin=$1/bin
shift
if [ "${1:-}" = parts ]; then
  shift
  exec "$bin/mqbench_parts" "$@"
fi
exec "$bin/mqbench" "$@"
