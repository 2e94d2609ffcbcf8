#!/usr/bin/env bash
# CPU time of an idle pellucid-server (no client), as a share of one core, measured from
# /proc over SECONDS after the first quiet second: with its default idle pause, and with
# --idle-pause 0.2 (polling every 200 microseconds all the time, as it did before).
# Usage: bench/link_idle.sh BUILD_DIR [SECONDS, default 20]
set -euo pipefail
build=${1:?usage: bench/link_idle.sh BUILD_DIR [SECONDS]}
seconds=${2:-20}
server=$build/bin/pellucid-server
ticks=$(getconf CLK_TCK)

# utime + stime of a process, in clock ticks
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

measure() {
  local number=$1
  shift
  "$server" --number "$number" "$@" 2>/dev/null &
  local pid=$!
  sleep 2
  local a b
  a=$(cpu_ticks "$pid")
  sleep "$seconds"
  b=$(cpu_ticks "$pid")
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  awk -v a="$a" -v b="$b" -v t="$ticks" -v s="$seconds" 'BEGIN {printf "%.2f", 100 * (b - a) / t / s}'
}

base=$(( ($$ % 100000) * 8 + 2 ))
idle=$(measure "$base")
fast=$(measure "$((base + 1))" --idle-pause 0.2)
printf 'idle pellucid-server over %s s: %s %% of a core (default idle pause), %s %% (polling every 0.2 ms)\n' \
  "$seconds" "$idle" "$fast"
