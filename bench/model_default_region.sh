#!/usr/bin/env bash
# Fiber modeling with the default control region (no control mask: the voxels passing
# the stop criteria inside the head and near the seeds) on the noisy 128 x 128 x 60
# phantom: wall time, CPU time and peak resident memory of the whole process, round by
# round, and the control count it solved for. For contrast, the count the stop criteria
# alone would have given (every voxel's tensor that passes, background noise included),
# which is refused up front instead of solved.
#
#   bench/model_default_region.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "${1:-}" "${2:-3}"

"$batch" phantom --size 128,128,60 --directions 30 --noise 0.05 --no-truth --format raw -o "$work/ph" 2>/dev/null
# 4 x 8 x 4 seed voxels in the straight bundle (along x, y 53..74, z 22..37), away from
# the crossing; 2 seeds a voxel
model="$batch model $work/ph.raw --seed-box 30,60,28,33,67,31 --seeds-per-voxel 2 --threads $threads --dump $work/fibers.txt"
for ((r = 1; r <= rounds; ++r)); do
  /usr/bin/time -f "%e %U %S %M" -o "$work/t" $model >"$work/out" 2>"$work/err"
  read -r wall user sys rss <"$work/t"
  echo "round $r: wall ${wall} s, cpu $(awk -v u="$user" -v s="$sys" 'BEGIN {print u + s}') s, peak RSS $((rss / 1024)) MB"
done
grep -a ">>>>" "$work/err" | tr -d '>' | sed 's/^ */controls solved: /; s/<*$//'
grep -a "Tracked Lines" "$work/out"
# without the neighbourhood bound: every voxel seeds
"$batch" model "$work/ph.raw" --seed-box 0,0,0,127,127,59 --threads "$threads" >/dev/null 2>"$work/err_all" || true
grep -a "^Err: " "$work/err_all" | head -1
