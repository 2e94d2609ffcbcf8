#!/usr/bin/env bash
# Fiber tracking against MRtrix3 tckgen -algorithm Tensor_Det on equal work: the phantom
# with 2 % Rician noise, 19,980 seeds in the same 27 voxels of the straight bundle (740
# per voxel), FA cutoff 0.18, step 0.7 voxel, at most 159 steps each way, a turn of at
# most 60 degrees per step (tckgen's own default for deterministic tracking, given to
# both), 2 threads, .tck written by both. Runs are interleaved round by round; prints
# medians of wall and CPU time, points per fiber of both, and points per second. When the
# tools' points per fiber differ by more than 10 % the work is not equal and no ratio is
# given.
#
#   bench/track_compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
command -v tckgen >/dev/null || { echo "Err: tckgen missing (tools/setup.sh --peers)"; exit 1; }

echo "phantom 128 x 128 x 60, 1 So + 30 DWIs, 2% Rician noise, voxel 2 mm; 27 seed voxels in the straight bundle"
"$batch" phantom --size 128,128,60 --directions 30 --noise 0.02 --no-truth -o "$work/ph" 2>/dev/null
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
mask = np.zeros(img.shape[:3], np.uint8)
mask[20:23, 62:65, 28:31] = 1
nib.save(nib.Nifti1Image(mask, img.affine), work + "/seed.nii")
PY
# quorix reads its raw volume file, tckgen the same samples as uncompressed NIfTI
names=(quorix tckgen)
cmd=("$batch track $work/ph.raw --mpg $work/ph.mpg --voxel-size 2 --seed-mask $work/seed.nii --seeds-per-voxel 740 --angle-max 60 --threads $threads --tck $work/q.tck"
     "tckgen -quiet -force -algorithm Tensor_Det -nthreads $threads -fslgrad $work/ph.bvec $work/ph.bval -seed_image $work/seed.nii -seeds 19980 -select 0 -cutoff 0.18 -step 1.4 -angle 60 -minlength 0 -maxlength 445 $work/ph.nii $work/m.tck")
declare -A wall=() cpu=()
paired_rounds

points() {  # points and tracks of a .tck file: float triplets minus one separator per track and the end
  $py - "$1" <<'PY'
import sys, numpy as np
data = open(sys.argv[1], "rb").read()
off = int([l for l in data[:4096].split(b"\n") if l.startswith(b"file:")][0].split()[2])
xyz = np.frombuffer(data[off:], "<f4").reshape(-1, 3)
print(int(np.isfinite(xyz[:, 0]).sum()), int(np.isnan(xyz[:, 0]).sum()))
PY
}
read -r pq lq < <(points "$work/q.tck"); read -r pm lm < <(points "$work/m.tck")
declare -A p=([quorix]=$pq [tckgen]=$pm) l=([quorix]=$lq [tckgen]=$lm) mw mc
for n in quorix tckgen; do
  mw[$n]=$(echo "${wall[$n]}" | median); mc[$n]=$(echo "${cpu[$n]}" | median)
  printf "%-7s wall %.3f s  cpu %.3f s  %d points in %d fibers (%.1f per fiber)  %.2f M points/s  (wall: %s)\n" \
    "$n" "${mw[$n]}" "${mc[$n]}" "${p[$n]}" "${l[$n]}" "$(awk -v a=${p[$n]} -v b=${l[$n]} 'BEGIN{print a/b}')" \
    "$(awk -v a=${p[$n]} -v t=${mw[$n]} 'BEGIN{print a/t/1e6}')" "${wall[$n]}"
done
if ! awk -v a=$pq -v b=$lq -v c=$pm -v d=$lm 'BEGIN {r = (a/b) / (c/d); exit !(r >= 1/1.1 && r <= 1.1)}'; then
  echo "Err: points per fiber differ by more than 10 %: not the same work, no ratio"
  exit 1
fi
awk -v pq=$pq -v tq=${mw[quorix]} -v pm=$pm -v tm=${mw[tckgen]} -v cq=${mc[quorix]} -v cm=${mc[tckgen]} \
  'BEGIN {printf "speed ratio quorix / tckgen (points per second): wall %.2f  cpu %.2f\n", (pq/tq)/(pm/tm), (pq/cq)/(pm/cm)}'
