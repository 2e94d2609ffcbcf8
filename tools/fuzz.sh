#!/usr/bin/env bash
# Builds the libFuzzer harnesses (tests/fuzz/fuzz_*.cpp) with clang and runs each of them,
# starting from seeds that the harness writes with the project's own writers.
# Usage: tools/fuzz.sh [SECONDS per harness, default 20] [-runs=N] [harness names...]
# Corpora grow in build-fuzz/corpus/<harness>; a crash ends the script with status 1 and
# leaves the crashing input in build-fuzz/crashes/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true
limit=()
names=()
for a in "$@"; do
  case "$a" in -runs=*) limit=("$a") ;; *) names+=("$a") ;; esac
done
[ ${#limit[@]} -eq 0 ] && limit=(-max_total_time="$seconds")

# line tables (-g1) are all that a crash's stack trace needs
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" \
  -DQUORIX_FUZZ=ON ${CMAKE_CXX_COMPILER_LAUNCHER:+-DCMAKE_CXX_COMPILER_LAUNCHER=$CMAKE_CXX_COMPILER_LAUNCHER} >/dev/null
if [ ${#names[@]} -eq 0 ]; then
  for f in tests/fuzz/fuzz_*.cpp; do
    n=$(basename "$f" .cpp)
    [ "$n" = fuzz_support ] || names+=("$n")
  done
fi
cmake --build build-fuzz -j"$(nproc)" --target "${names[@]}" >/dev/null

mkdir -p build-fuzz/crashes
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1
# scratch files of the path-taking readers: memory is much faster than the disk here
[ -d /dev/shm ] && [ -w /dev/shm ] && export TMPDIR=/dev/shm

# one harness: seeds, then the run; its verdict goes into build-fuzz/<name>.result
fuzz_one() {
  local n=$1 corpus=build-fuzz/corpus/$1 log=build-fuzz/$1.log
  mkdir -p "$corpus"
  QUORIX_FUZZ_SEEDS="$corpus" "build-fuzz/bin/$n"
  if "build-fuzz/bin/$n" "$corpus" "${limit[@]}" -rss_limit_mb=2048 -malloc_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix=build-fuzz/crashes/"$n"- >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "fuzz $n: $runs executions, no crash" >"build-fuzz/$n.result"
  else
    { echo "fuzz $n: FAILED"; grep -v '^\(Warning\|Err\|INFO\|#\)' "$log" | tail -40; } >"build-fuzz/$n.result"
  fi
}

# as many harnesses at a time as there are cores
running=0
for n in "${names[@]}"; do
  rm -f "build-fuzz/$n.result"
  fuzz_one "$n" &
  running=$((running + 1))
  if [ "$running" -ge "$(nproc)" ]; then wait -n || true; running=$((running - 1)); fi
done
wait || true

status=0
passed=0
failed=0
for n in "${names[@]}"; do
  cat "build-fuzz/$n.result" >&2 2>/dev/null || echo "fuzz $n: FAILED (no result)" >&2
  if grep -q 'no crash' "build-fuzz/$n.result" 2>/dev/null; then
    passed=$((passed + 1))
  else
    status=1
    failed=$((failed + 1))
  fi
done
echo "fuzz: $passed passed, $failed failed"
exit $status
