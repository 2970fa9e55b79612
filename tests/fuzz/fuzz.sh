#!/usr/bin/env bash
# fuzz.sh BUILD_DIR [ARGUMENT ...] - see usage; ./run fuzz builds first, BUILD_DIR-coverage too when that is wanted.
set -euo pipefail
usage() {
  cat <<'TEXT'
usage: ./run fuzz [--seconds N] [--coverage] [--choose N] [TARGET ...]

Feeds invented inputs to everything that bytes or texts from outside reach, under the address and undefined-behaviour
sanitizers, one target after another:
  plain_read secure_read datagram_read browse   the readers, with arrivals cut anywhere
  convert authenticate keys                     the companion's conversion and parser, verifier, key and ring files
  decode capture address                        mqcat decode, the files it reads, the texts of addresses
  planted                                       a fault that has to be found, else the fuzzers find nothing

  --seconds N   seconds in all, shared equally by the targets; at least one each (60)
  --coverage    afterwards build once more and print what all that was learnt reaches of each source: regions, branches
  --choose N    afterwards put the N inputs that together reach most edges into tests/fuzz/corpus/TARGET, in place of
                all but the found-* ones; before, copy a finding there as found-SOMETHING

What is learnt is kept in build/fuzz/corpus and used by the next run; inputs that break something are saved in
build/fuzz/findings, and build/fuzz/bin/fuzz_TARGET FILE repeats one. Coverage counts edges of the functions of this
project that a target enters. Ends with 1 when anything was found, or the planted fault was not. A target uses at most
1 GiB of memory, an input 10 seconds.
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
      if [ "$1" = --seconds ]; then seconds=$2; else choose=$2; fi
      shift 2
      ;;
    --coverage) coverage=1; shift ;;
    -h | --help) usage; exit ;;
    *)
      [ -d "$here/corpus/$1" ] || { printf "fuzz: unknown target '%s'; see --help\n" "$1" >&2; exit 2; }
      targets+=("$1")
      shift
      ;;
  esac
done
((${#targets[@]})) || mapfile -t targets < <(cd "$here/corpus" && ls)
share=$((seconds / ${#targets[@]}))
((share)) || share=1

export ASAN_OPTIONS=quarantine_size_mb=16
limits=(-rss_limit_mb=1024 -malloc_limit_mb=160 -timeout=10)
mkdir -p "$build"/{findings,corpus,logs}
"$build/bin/fuzz_seeds" "$build/seeds"

# Edges reached, and edges in all, of the functions entered; functions of the tests and of other projects left out.
edges() {
  "$build/bin/fuzz_$1" "${limits[@]}" -runs=0 -print_coverage=1 "$build/corpus/$1" 2>&1 |
    awk '/^COVERED_FUNC/ && !/\/tests\// && !/\/usr\// { split($5, edges, "/"); reached += edges[1]; all += edges[2] }
         END { printf "%d of %d", reached, all }'
}

# The lines of a merge's control file are paths, then for each file in their order FT, its number and its edges.
choose_inputs() {
  local target=$1 scratch file
  scratch=$(mktemp -d)
  mkdir "$scratch/merged"
  "$build/bin/fuzz_$target" "${limits[@]}" -set_cover_merge=1 -use_counters=0 -merge_control_file="$scratch/control" \
    "$scratch/merged" "$build/corpus/$target" >"$build/logs/$target.merge" 2>&1
  find "$here/corpus/$target" -type f ! -name 'found-*' -delete
  awk -v most="$choose" '
    /^[0-9]+$/ { next }
    /^FT/ { $1 = ""; id = $2; $2 = ""; edges[id] = $0; next }
    !/^(STARTED|COV)/ { path[files++] = $0 }
    END {
      while (most-- > 0) {
        gain = 0
        for (id = 0; id < files; ++id) {
          n = split(edges[id], list, " ")
          for (fresh = i = 0; ++i <= n;) fresh += !(list[i] in reached)
          if (fresh > gain) { gain = fresh; best = id }
        }
        if (!gain) break
        n = split(edges[best], list, " ")
        for (i = 0; ++i <= n;) reached[list[i]]
        print path[best]
      }
    }' "$scratch/control" | while IFS= read -r file; do cp "$file" "$here/corpus/$target/"; done
  rm -rf "$scratch"
}

# What the inputs of all targets reach of the sources that they enter, counted by the compiler in a build without
# sanitizers: their checks are no branches of the code.
report_coverage() {
  local built=$build-coverage target
  rm -rf "$built/profiles"
  mkdir "$built/profiles"
  for target in "${targets[@]}"; do
    LLVM_PROFILE_FILE=$built/profiles/$target "$built/bin/fuzz_$target" "$build/corpus/$target" >"$built/replay.log" 2>&1
  done
  llvm-profdata merge -o "$built/all.profile" "$built"/profiles/*
  printf '\n%-28s %8s %8s\n' source regions branches
  llvm-cov report "$built/lib/libmqnode.so" -object "$built/lib/libmqcompanion.so" \
    -object "$built/bin/fuzz_${targets[0]}" -instr-profile="$built/all.profile" \
    -ignore-filename-regex='/usr/|/tests/' 2>"$built/report.log" |
    awk 'NF == 13 && $2 > $3 && $1 != "TOTAL" { printf "%-28s %8s %8s\n", $1, $4, $13 }'
}

# Fuzzes a target for its share. Sets status to what the fuzzer ended with.
fuzz() {
  local target=$1 corpus=$build/corpus/$1
  [ "$target" != planted ] || rm -rf "$corpus"
  mkdir -p "$corpus"
  status=0
  "$build/bin/fuzz_$target" "${limits[@]}" -max_total_time="$share" -max_len=4096 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$corpus" "$here/corpus/$target" "$build/seeds/$target" \
    >"$build/logs/$target" 2>&1 || status=$?
}

failed=0
printf '%-14s %12s %9s %7s %14s  %s\n' target executions per-second inputs 'edges reached' findings
for target in "${targets[@]}"; do
  fuzz "$target"
  log=$build/logs/$target
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  inputs=$(find "$build/corpus/$target" -type f | wc -l)
  if [ "$target" = planted ]; then
    verdict='found, as it has to be'
    grep >/dev/null 'heap-buffer-overflow' "$log" || { verdict='NOT FOUND' failed=1; }
    rm -f "$build/findings/planted-"*
  elif ((status)); then
    verdict=$(grep -m1 -E 'broken promise|runtime error|^SUMMARY' "$log" || echo "ended with $status, see $log")
    failed=1
  else
    verdict=none
    ((choose == 0)) || choose_inputs "$target"
  fi
  printf '%-14s %12s %9s %7s %14s  %s\n' "$target" "${executions:-?}" "${rate:-?}" "$inputs" "$(edges "$target")" \
    "$verdict"
done
((coverage == 0)) || report_coverage
if ((failed)); then
  printf 'fuzz: findings, the inputs are in %s\n' "$build/findings" >&2
  exit 1
fi
