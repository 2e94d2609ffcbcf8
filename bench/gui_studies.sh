#!/usr/bin/env bash
# Each kind of study run from the desktop program as a user runs it (" Analyze and
# Display " on the selected study), on the noisy 64 x 64 x 24 phantom (30 directions,
# noise 0.02) that tools/run.sh shows: fiber tracking and fiber modeling seeded from a
# sphere of radius 2 in the straight bundle, voxel statistics and a diffusion profile over
# an 8 x 6 x 4 box around it. The program runs under Xvfb with QUORIX_DEMO=all and prints
# the time of each press; the rounds repeat the whole program.
#
#   bench/gui_studies.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "${1:-}" "${2:-3}"
for p in quorix pellucid-server quorix-batch; do
  [ -x "$build/bin/$p" ] || { echo "Err: $build/bin/$p is not built" >&2; exit 1; }
done

"$batch" phantom --noise 0.02 --no-truth --format raw -o "$work/ph" >/dev/null 2>&1
mkdir -p "$work/shots" "$work/saved"
for ((r = 1; r <= rounds; ++r)); do
  number=$(( ($$ + r) % 9000 + 100 ))
  "$build/bin/pellucid-server" --number "$number" --volume "$work/ph.raw" --voxel-size 2 \
    --save-dir "$work/saved" 2>/dev/null &
  server=$!
  sleep 0.5
  QUORIX_DEMO=all QUORIX_AUTOPILOT="$work/shots" /usr/bin/time -f "%e %M" -o "$work/t" \
    xvfb-run -a -s "-screen 0 1280x1024x24" "$build/bin/quorix" "$number" >/dev/null 2>"$work/err" || true
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  read -r wall rss <"$work/t"
  echo "round $r: $(grep -a '^Demo: ' "$work/err" | sed 's/^Demo: //' | paste -sd ';' -)" \
       "| whole program ${wall} s"
done
grep -a ">>>>" "$work/err" | tr -d '>' | sed 's/^ */modeling controls: /; s/<*$//'
