#!/usr/bin/env bash
# Times quorix-batch report against quorix-batch channels on the same data set, paired
# round by round (channels, report, channels, report ...), on 2 threads; prints medians of
# wall and CPU time and the report's extra time, whose target is under 2 s.
#
# The data set: the phantom (with its oblique bundle) at 128 x 128 x 60, 1 So + 30 DWIs,
# 2 % Rician noise, as a raw volume file. Both commands read it and fit every voxel with
# So > 0 (the same maps); channels writes them into a raw volume file, report goes on to
# the mask, residuals, gradient check, tracking and figures and writes its page.
#
#   bench/report_speed.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
stem=$work/phantom
$batch phantom --size 128,128,60 --directions 30 --noise 0.02 --oblique --no-truth --format raw -o "$stem" 2>/dev/null
names=(channels report)
cmd=("$batch channels $stem.raw --mpg $stem.mpg --threads $threads -o $work/out.raw"
     "$batch report $stem.raw --mpg $stem.mpg --threads $threads -o $work/report")
declare -A wall=() cpu=()
paired_rounds
# the report did its whole work: the page and every figure it names are there
[ -s "$work/report/index.html" ] || { echo "Err: the report wrote no page" >&2; exit 1; }
for f in $(grep -o 'src="[^"]*"' "$work/report/index.html" | cut -d'"' -f2); do
  [ -s "$work/report/$f" ] || { echo "Err: the report lacks $f" >&2; exit 1; }
done
declare -A mw mc
for n in "${names[@]}"; do
  mw[$n]=$(echo "${wall[$n]}" | median); mc[$n]=$(echo "${cpu[$n]}" | median)
  printf "  %-9s wall %.3f s  cpu %.3f s   (wall: %s)\n" "$n" "${mw[$n]}" "${mc[$n]}" "${wall[$n]}"
done
awk -v a="${mw[report]}" -v b="${mw[channels]}" -v c="${mc[report]}" -v d="${mc[channels]}" \
  'BEGIN {printf "  report - channels: wall %+.3f s  cpu %+.3f s  (target: wall under +2 s: %s)\n", a - b, c - d, (a - b < 2 ? "met" : "NOT met")}'
