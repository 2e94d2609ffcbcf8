#!/usr/bin/env bash
# Fiber tracking against MRtrix3 tckgen -algorithm Tensor_Det on the same phantom, seed
# region and seed count (FA cutoff 0.18, step 0.7 voxel, at most 159 steps each way, 2
# threads), interleaved round by round; prints medians and tracking steps per second,
# whole process against whole process.
#
#   bench/track_compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
command -v tckgen >/dev/null || { echo "Err: tckgen missing (tools/setup.sh --peers)"; exit 1; }

echo "phantom 128 x 128 x 60, 1 So + 30 DWIs, voxel 2 mm; 27 seed voxels in the straight bundle"
"$batch" phantom --size 128,128,60 --directions 30 --no-truth --format nii -o "$work/ph" 2>/dev/null
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
mask = np.zeros(img.shape[:3], np.uint8)
mask[20:23, 62:65, 28:31] = 1
nib.save(nib.Nifti1Image(mask, img.affine), work + "/seed.nii")
PY
# 27 voxels x 741 seeds = 20007 seeds
q="$batch track $work/ph.nii --seed-mask $work/seed.nii --seeds-per-voxel 741 --threads $threads --tck $work/q.tck"
m="tckgen -quiet -force -algorithm Tensor_Det -nthreads $threads -fslgrad $work/ph.bvec $work/ph.bval -seed_image $work/seed.nii -seeds 20007 -select 0 -cutoff 0.18 -step 1.4 -minlength 0 -maxlength 445 $work/ph.nii $work/m.tck"

points() {  # points of a .tck file: float triplets minus one separator per track and the end
  $py - "$1" <<'PY'
import sys, numpy as np
data = open(sys.argv[1], "rb").read()
off = int([l for l in data[:4096].split(b"\n") if l.startswith(b"file:")][0].split()[2])
xyz = np.frombuffer(data[off:], "<f4").reshape(-1, 3)
print(int(np.isfinite(xyz[:, 0]).sum()), int(np.isnan(xyz[:, 0]).sum()))
PY
}
tq=""; tm=""
for ((r = 0; r < rounds; ++r)); do tq+="$(run "$q") "; tm+="$(run "$m") "; done
mq=$(echo "$tq" | median); mm=$(echo "$tm" | median)
read -r pq lq < <(points "$work/q.tck"); read -r pm lm < <(points "$work/m.tck")
printf "quorix   median %.3f s  %d points in %d tracks  %.2f M points/s  (%s)\n" "$mq" "$pq" "$lq" "$(awk -v p=$pq -v t=$mq 'BEGIN{print p/t/1e6}')" "$tq"
printf "tckgen   median %.3f s  %d points in %d tracks  %.2f M points/s  (%s)\n" "$mm" "$pm" "$lm" "$(awk -v p=$pm -v t=$mm 'BEGIN{print p/t/1e6}')" "$tm"
awk -v pq=$pq -v tq=$mq -v pm=$pm -v tm=$mm 'BEGIN {printf "speed ratio quorix / tckgen (points per second): %.2f\n", (pq/tq)/(pm/tm)}'
