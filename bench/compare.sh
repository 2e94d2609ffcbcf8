#!/usr/bin/env bash
# Times the tensor maps with quorix-batch, MRtrix3 and DIPY on the same voxels, paired
# round by round (A B C D A B C D ...), all on the same number of threads; prints medians
# of wall and CPU time and the ratios.
#
# Two workloads, 128 x 128 x 60, 1 So + 30 DWIs:
#  1. masked: a phantom without noise, whose background is exactly 0. quorix fits where
#     So > 0 (threshold 0); the peers get the mask So > 0, the same voxels.
#  2. whole volume: the phantom with 2 % Rician noise, every voxel fitted by everyone
#     (quorix threshold -32768, the peers without a mask).
# quorix reads its raw volume file, the peers the same samples as uncompressed NIfTI.
#
#   bench/compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
for tool in dwi2tensor tensor2metric mrcalc mrconvert mrstats; do
  command -v $tool >/dev/null || { echo "Err: $tool missing (tools/setup.sh --peers)"; exit 1; }
done
$py -c 'import dipy' 2>/dev/null || { echo "Err: python3-dipy missing"; exit 1; }

cat > "$work/dipy_fit.py" <<'PY'
import sys, numpy as np, nibabel as nib
from dipy.core.gradients import gradient_table
from dipy.io.gradients import read_bvals_bvecs
from dipy.reconst.dti import TensorModel
stem = sys.argv[1]
img = nib.load(stem + ".nii"); data = img.get_fdata(dtype=np.float32)
mask = nib.load(sys.argv[2]).get_fdata() > 0 if len(sys.argv) > 2 else None
bvals, bvecs = read_bvals_bvecs(stem + ".bval", stem + ".bvec")
fit = TensorModel(gradient_table(bvals, bvecs), fit_method="LS").fit(data, mask=mask)
nib.save(nib.Nifti1Image(fit.fa.astype(np.float32), img.affine), stem + "_dipy_fa.nii")
nib.save(nib.Nifti1Image(fit.md.astype(np.float32), img.affine), stem + "_dipy_md.nii")
PY

# one workload: $1 phantom stem, $2 quorix threshold, $3 mask for the peers (or empty)
compare() {
  local stem=$1 threshold=$2 mask=$3 m=""
  [ -n "$mask" ] && m="-mask $mask"
  local tensor="dwi2tensor -quiet -force -nthreads $threads -ols $m -fslgrad $stem.bvec $stem.bval $stem.nii $work/dt.mif"
  local metric="tensor2metric -quiet -force -nthreads $threads -fa $work/fa.mif -adc $work/adc.mif -vector $work/v.mif $work/dt.mif"
  names=(quorix mrtrix_ols mrtrix_iter0 dipy)
  cmd=("$batch channels $stem.raw --mpg $stem.mpg --voxel-size 2 --threshold $threshold --threads $threads -o $work/out.raw"
       "$tensor && $metric"
       "${tensor/-ols/-ols -iter 0} && $metric"
       "OMP_NUM_THREADS=$threads OPENBLAS_NUM_THREADS=$threads $py $work/dipy_fit.py $stem $mask")
  declare -gA wall=() cpu=()
  paired_rounds
  declare -A mw mc
  for n in "${names[@]}"; do
    mw[$n]=$(echo "${wall[$n]}" | median); mc[$n]=$(echo "${cpu[$n]}" | median)
    printf "  %-13s wall %.3f s  cpu %.3f s   (wall: %s)\n" "$n" "${mw[$n]}" "${mc[$n]}" "${wall[$n]}"
  done
  for n in mrtrix_ols mrtrix_iter0 dipy; do
    awk -v n="$n" -v a="${mw[quorix]}" -v b="${mw[$n]}" -v c="${mc[quorix]}" -v d="${mc[$n]}" \
      'BEGIN {printf "  ratio quorix / %-13s wall %.3f  cpu %.3f\n", n, a / b, c / d}'
  done
}

"$batch" phantom --size 128,128,60 --directions 30 --no-truth -o "$work/clean" 2>/dev/null
"$batch" phantom --size 128,128,60 --directions 30 --noise 0.02 --no-truth -o "$work/noisy" 2>/dev/null
for s in clean noisy; do "$batch" convert "$work/$s.nii.gz" -o "$work/$s.nii" 2>/dev/null; done
mrconvert -quiet -coord 3 0 -axes 0,1,2 "$work/clean.nii" - | mrcalc -quiet - 0 -gt "$work/mask.nii" -datatype uint8
voxels=$(mrstats -quiet -output count -mask "$work/mask.nii" "$work/mask.nii")
echo "masked: phantom without noise, $voxels voxels with So > 0 fitted by every tool"
compare "$work/clean" 0 "$work/mask.nii"
echo "whole volume: phantom with 2% Rician noise, all $((128 * 128 * 60)) voxels fitted by every tool"
compare "$work/noisy" -32768 ""
