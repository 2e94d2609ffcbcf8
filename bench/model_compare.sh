#!/usr/bin/env bash
# Fiber modeling next to tracking on the same seeds: quorix-batch model (the straight
# bundle as control region, pitch 2) and quorix-batch track from K seeds in each voxel of
# the 3 x 3 x 3 block of track_compare.sh, paired round by round, medians. Modeling pays a
# fixed cost for its interpolator (one LU inverse of the control system); its nodes per
# second are taken from the difference between a run with K seeds per voxel and one with
# a single seed, so they count the modeling alone.
#
#   bench/model_compare.sh [BUILD_DIR] [ROUNDS] [K]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "${1:-}" "${2:-3}"
k=${3:-50}

"$batch" phantom --size 128,128,60 --directions 30 --no-truth --format nii -o "$work/ph" 2>/dev/null
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
# the straight bundle: the bundles' b = 0 signal (8000) in the band of rows and slices the
# phantom gives it (along x, |y - 63.5| <= 128/12, |z - 29.5| <= 60/8)
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
so = np.asarray(img.dataobj[..., 0])
x, y, z = np.meshgrid(*[np.arange(n) for n in so.shape], indexing="ij")
straight = (so == 8000) & (abs(y - 63.5) <= 128 / 12) & (abs(z - 29.5) <= 60 / 8)
nib.save(nib.Nifti1Image(straight.astype(np.uint8), img.affine), work + "/straight.nii")
seed = np.zeros(so.shape, np.uint8)
seed[20:23, 62:65, 28:31] = 1
nib.save(nib.Nifti1Image(seed, img.affine), work + "/seed.nii")
print("control voxels on the pitch-2 grid:", int(straight[::2, ::2, ::2].sum()))
PY
common="$work/ph.nii --seed-mask $work/seed.nii --threads $threads"
m1="$batch model $common --control-mask $work/straight.nii --seeds-per-voxel 1"
mk="$batch model $common --control-mask $work/straight.nii --seeds-per-voxel $k"
tk="$batch track $common --seeds-per-voxel $k"
nodes() { bash -c "$1" 2>/dev/null | awk '/^Nodes:/ {print $2}'; }
n1=$(nodes "$m1"); nk=$(nodes "$mk"); ntk=$(nodes "$tk")
t1=""; tm=""; tt=""
for ((r = 0; r < rounds; ++r)); do t1+="$(run "$m1") "; tm+="$(run "$mk") "; tt+="$(run "$tk") "; done
a=$(echo "$t1" | median); b=$(echo "$tm" | median); c=$(echo "$tt" | median)
printf "model, 1 seed per voxel   median %.2f s  %d nodes  (%s)\n" "$a" "$n1" "$t1"
printf "model, %d seeds per voxel  median %.2f s  %d nodes  (%s)\n" "$k" "$b" "$nk" "$tm"
printf "track, %d seeds per voxel  median %.2f s  %d nodes  (%s)\n" "$k" "$c" "$ntk" "$tt"
awk -v a="$a" -v b="$b" -v c="$c" -v n1="$n1" -v nk="$nk" -v nt="$ntk" 'BEGIN {
  m = (nk - n1) / (b - a); t = nt / c
  printf "modeling %.0f nodes/s (beyond the interpolator), tracking %.0f nodes/s (whole process): ratio %.3f\n", m, t, m / t }'
