#!/usr/bin/env bash
# fuzz.sh BUILD_DIR [ARGUMENT ...] - see usage; ./run fuzz builds first, BUILD_DIR-coverage too when that is wanted.
set -euo pipefail
usage() {
  cat <<'TEXT'
usage: ./run fuzz [--seconds N] [--coverage] [--choose N] [TARGET ...]

Feeds invented inputs to everything that reads messages, key files or captures, under the address and
undefined-behaviour sanitizers, one target after another:
  reader    reads and looks of plain and signed messages, streams and datagrams, arrivals cut anywhere; the verifier
  message   conversion, parser, mqcat decode
  keys      key and ring files
  capture   the files that mqcat decode reads
  planted   a fault that has to be found, else the fuzzers find nothing

  --seconds N   seconds in all, shared equally by the targets; at least one each (60)
  --coverage    afterwards build once more and print what all that was learnt reaches of each source
  --choose N    afterwards put the N inputs that together reach most edges into tests/fuzz/corpus/TARGET, in place of
                all but the found-* and seed-* ones; before, copy a finding there as found-SOMETHING

What is learnt is kept in build/fuzz/corpus and used by the next run; inputs that break something are saved in
build/fuzz/findings, and build/fuzz/bin/fuzz_TARGET FILE repeats one. Ends with 1 when anything was found, or the
planted fault was not. A target uses at most 1 GiB of memory, an input 10 seconds.
TEXT
}

build=$(cd "$1" && pwd)
shift
here=$(cd "$(dirname "$0")" && pwd)
seconds=60 choose=0 coverage=0 targets=()
while (($#)); do
  case $1 in
    --seconds | --choose)
      [[ ${2:-} =~ ^[1-9][0-9]{0,5}$ ]] || { printf 'fuzz: %s needs a number from 1 to 999999\n' "$1" >&2; exit 2; }
      declare "${1#--}=$2"
      shift
      ;;
    --coverage) coverage=1 ;;
    -h | --help) usage; exit ;;
    *)
      [ -d "$here/corpus/$1" ] || { printf "fuzz: unknown target '%s'; see --help\n" "$1" >&2; exit 2; }
      targets+=("$1")
      ;;
  esac
  shift
done
((${#targets[@]})) || mapfile -t targets < <(ls "$here/corpus")
share=$((seconds / ${#targets[@]}))

export ASAN_OPTIONS=quarantine_size_mb=16 MQCOMPANION_LOG=/dev/null
limits=(-rss_limit_mb=1024 -malloc_limit_mb=160 -timeout=10)
mkdir -p "$build/findings" "$build/logs"

# The lines of a merge's control file are paths, then for each file in their order FT, its number and its edges.
choose_inputs() {
  local control=$build/logs/$1.control
  rm -rf "$control" "$build/merged"
  mkdir "$build/merged"
  "$build/bin/fuzz_$1" "${limits[@]}" -set_cover_merge=1 -use_counters=0 -merge_control_file="$control" \
    "$build/merged" "$build/corpus/$1" >"$build/logs/$1.merge" 2>&1
  find "$here/corpus/$1" -type f ! -name 'found-*' ! -name 'seed-*' -delete
  awk -v most="$choose" '
    /^FT/ { for (i = 3; i <= NF; ++i) edges[$2, i] = $i; last[$2] = NF }
    /^\// { path[files++] = $0 }
    END {
      while (most-- > 0) {
        gain = 0
        for (id = 0; id < files; ++id) {
          fresh = 0
          for (i = 3; i <= last[id]; ++i) fresh += !(edges[id, i] in reached)
          if (fresh > gain) { gain = fresh; best = id }
        }
        if (!gain) break
        for (i = 3; i <= last[best]; ++i) reached[edges[best, i]]
        print path[best]
      }
    }' "$control" | xargs -rd '\n' cp -t "$here/corpus/$1"
}

# Counted by the compiler in a build without sanitizers: their checks are no branches of the code.
report_coverage() {
  local built=$build-coverage target objects=()
  rm -f "$built"/*.profile
  for target in "${targets[@]}"; do
    LLVM_PROFILE_FILE=$built/$target.profile "$built/bin/fuzz_$target" "$build/corpus/$target" >"$built/replay.log" 2>&1
    objects+=(-object "$built/bin/fuzz_$target")
  done
  llvm-profdata merge -o "$built/all.profdata" "$built"/*.profile
  llvm-cov report "$built/lib/libmqnode.so" -object "$built/lib/libmqcompanion.so" "${objects[@]}" \
    -instr-profile="$built/all.profdata" -ignore-filename-regex='/usr/|/tests/' 2>"$built/report.log" |
    awk 'NF == 13 && $2 > $3 && $1 != "TOTAL" { printf "%-28s %8s of regions %8s of branches\n", $1, $4, $13 }'
}

failed=0
printf '%-10s %12s %12s %9s %8s  %s\n' target executions per-second inputs edges findings
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target log=$build/logs/$target status=0
  [ "$target" != planted ] || rm -rf "$corpus"
  mkdir -p "$corpus" "$build/tests/fuzz/seeds/$target"
  "$build/bin/fuzz_$target" "${limits[@]}" -max_total_time=$((share ? share : 1)) -max_len=4096 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$corpus" "$here/corpus/$target" "$build/tests/fuzz/seeds/$target" \
    >"$log" 2>&1 || status=$?
  verdict=none
  if [ "$target" = planted ]; then
    verdict='found, as it has to be'
    grep >/dev/null 'heap-buffer-overflow' "$log" || { verdict='NOT FOUND' failed=1; }
    rm -f "$build/findings/planted-"*
  elif ((status)); then
    verdict=$(grep -m1 -E 'requirement failed|runtime error|^SUMMARY' "$log" || echo "ended with $status, see $log")
    failed=1
  elif ((choose)); then
    choose_inputs "$target"
  fi
  printf '%-10s %12s %12s %9s %8s  %s\n' "$target" "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" \
    "$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")" "$(find "$corpus" -type f | wc -l)" \
    "$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)" "$verdict"
done
((coverage == 0)) || report_coverage
((failed == 0)) || { printf 'fuzz: findings, the inputs are in %s\n' "$build/findings" >&2; exit 1; }
