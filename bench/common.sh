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

# Wall time of one run of a shell command, in seconds; a failing command stops the
# comparison (a tool that gives up early would look fast).
run() {
  local s e
  s=$(date +%s.%N)
  bash -c "$1" >/dev/null 2>"$work/last_error" || {
    echo "Err: failed: $1" >&2
    tail -3 "$work/last_error" >&2
    return 1
  }
  e=$(date +%s.%N)
  awk -v a="$s" -v b="$e" 'BEGIN {printf "%.4f", b - a}'
}

# Median of the numbers on standard input (blank-separated).
median() {
  tr ' ' '\n' | grep -v '^$' | sort -g |
    awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'
}
