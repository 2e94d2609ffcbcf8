# Helpers shared by the comparison scripts (sourced, not run).

# The scripts' common arguments and tools: BUILD_DIR and ROUNDS, 2 threads, a scratch
# folder removed at exit. Sets build, rounds, threads, batch, py and work.
bench_setup() {
  build=${1:-$root/build}
  rounds=${2:-5}
  threads=2
  batch=$build/bin/quorix-batch
  py=/usr/bin/python3  # the Debian python with numpy, nibabel and dipy
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
}

# One run of a shell command: prints "WALL CPU" in seconds (CPU = user + system time of
# the process and its children). On a shared machine the wall time follows the load; the
# CPU time is the steadier measure of the work done. A failing command stops the
# comparison (a tool that gives up early would look fast).
run() {
  local s e cpu
  s=$(date +%s.%N)
  /usr/bin/time -f "%U %S" -o "$work/last_time" bash -c "$1" >/dev/null 2>"$work/last_error" || {
    echo "Err: failed: $1" >&2
    tail -3 "$work/last_error" >&2
    return 1
  }
  e=$(date +%s.%N)
  cpu=$(awk '{print $1 + $2}' "$work/last_time")
  awk -v a="$s" -v b="$e" -v c="$cpu" 'BEGIN {printf "%.4f %.3f", b - a, c}'
}

# Median of the numbers on standard input (blank-separated).
median() {
  tr ' ' '\n' | grep -v '^$' | sort -g |
    awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'
}

# Runs the named commands round by round, interleaved (A B C A B C ...), and fills the
# associative arrays wall[name] and cpu[name] with the blank-separated times.
# Usage: paired_rounds NAME... (the commands in the array cmd, same order).
paired_rounds() {
  local r i t
  for ((r = 0; r < rounds; ++r)); do
    for i in "${!names[@]}"; do
      t=$(run "${cmd[$i]}") || exit 1
      wall[${names[$i]}]+="${t% *} "
      cpu[${names[$i]}]+="${t#* } "
    done
  done
}
