#!/usr/bin/env bash
# fuzz.sh BUILD_DIR [ARGUMENT ...] - see usage; ./run fuzz builds first.
set -euo pipefail
usage() {
  cat <<'TEXT'
usage: ./run fuzz [--seconds N] [TARGET ...]

Feeds generated inputs to code that reads untrusted bytes, under the address and undefined-behaviour sanitizers, for
N seconds in all (60), shared equally by the targets:
  reader    reads and browses of plain and signed messages, in streams cut anywhere and datagrams; the verifier
  message   conversion, parser, mqcat decode
  keys      key and ring files
  capture   the files that mqcat decode reads
  planted   a planted fault, which proves that the fuzzers find faults

The next run starts from the corpus in build/fuzz/corpus. Inputs that cause a failure are saved in build/fuzz/findings,
and build/fuzz/bin/fuzz_TARGET FILE repeats one. Exits with 1 if there were findings, or if the planted fault was not
found. A target may use 1 GiB of memory, an input 10 seconds.
TEXT
}

build=$1 here=$(dirname "$0") seconds=60 targets=()
shift
while (($#)); do
  case $1 in
    --seconds)
      [[ ${2:-} =~ ^[1-9][0-9]{0,5}$ ]] || { echo 'fuzz: --seconds needs a number from 1 to 999999' >&2; exit 2; }
      seconds=$2
      shift
      ;;
    reader | message | keys | capture | planted) targets+=("$1") ;;
    -h | --help) usage; exit ;;
    *) usage >&2; exit 2 ;;
  esac
  shift
done
((${#targets[@]})) || targets=(reader message keys capture planted)
share=$((seconds / ${#targets[@]}))

export ASAN_OPTIONS=quarantine_size_mb=16 MQCOMPANION_LOG=/dev/null
rm -rf "$build/corpus/planted" # so that it has to be found again
mkdir -p "$build/findings" "$build/logs"
failed=0
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target log=$build/logs/$target verdict='no finding' status=0
  mkdir -p "$corpus" "$build/tests/fuzz/seeds/$target"
  "$build/bin/fuzz_$target" -rss_limit_mb=1024 -malloc_limit_mb=160 -timeout=10 -max_len=4096 -print_final_stats=1 \
    -max_total_time=$((share ? share : 1)) -artifact_prefix="$build/findings/$target-" \
    "$corpus" "$here/corpus/$target" "$build/tests/fuzz/seeds/$target" >"$log" 2>&1 || status=$?
  if [ "$target" = planted ]; then
    verdict='found, as expected'
    grep >/dev/null 'heap-buffer-overflow' "$log" || { verdict='NOT FOUND' failed=1; }
    rm -f "$build/findings/planted-"*
  elif ((status)); then
    verdict=$(grep -m1 -E 'requirement failed|runtime error|^SUMMARY' "$log" || echo "ended with $status, see $log")
    failed=1
  fi
  printf '%-8s %9s executions, %5s edges: %s\n' "$target" \
    "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" \
    "$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)" "$verdict"
done
((failed == 0)) || { printf 'fuzz: findings, the inputs are in %s\n' "$build/findings" >&2; exit 1; }
