# Helpers shared by the comparison scripts (sourced, not run).

# Wall time of one run of a shell command, in seconds.
run() {
  local s e
  s=$(date +%s.%N)
  bash -c "$1" >/dev/null 2>&1
  e=$(date +%s.%N)
  awk -v a="$s" -v b="$e" 'BEGIN {printf "%.4f", b - a}'
}

# Median of the numbers on standard input (blank-separated).
median() {
  tr ' ' '\n' | grep -v '^$' | sort -g |
    awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'
}
