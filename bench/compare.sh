#!/usr/bin/env bash
# Times the tensor maps of one phantom with quorix-batch, MRtrix3 and DIPY, paired in one
# run (the commands are interleaved round by round: A B C D A B C D ...),
# all on the same number of threads, and prints medians and ratios.
#
#   bench/compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
for tool in dwi2tensor tensor2metric mrcalc; do
  command -v $tool >/dev/null || { echo "Err: $tool missing (tools/setup.sh --peers)"; exit 1; }
done
$py -c 'import dipy' 2>/dev/null || { echo "Err: python3-dipy missing"; exit 1; }

echo "phantom 128 x 128 x 60, 1 So + 30 DWIs, 2% Rician noise"
"$batch" phantom --size 128,128,60 --directions 30 --noise 0.02 --no-truth -o "$work/ph" 2>/dev/null
# every tool reads an uncompressed image, so that no one pays for gzip
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
# the voxels with signal, as a mask for the peers (quorix fits where So > threshold 0)
mrconvert -quiet -coord 3 0 -axes 0,1,2 "$work/ph.nii" - | mrcalc -quiet - 0 -gt "$work/mask.nii"

cat > "$work/dipy_fit.py" <<'PY'
import sys, numpy as np, nibabel as nib
from dipy.core.gradients import gradient_table
from dipy.io.gradients import read_bvals_bvecs
from dipy.reconst.dti import TensorModel
stem = sys.argv[1]
img = nib.load(stem + ".nii"); data = img.get_fdata(dtype=np.float32)
mask = nib.load(sys.argv[2]).get_fdata() > 0
bvals, bvecs = read_bvals_bvecs(stem + ".bval", stem + ".bvec")
fit = TensorModel(gradient_table(bvals, bvecs), fit_method="LS").fit(data, mask=mask)
nib.save(nib.Nifti1Image(fit.fa.astype(np.float32), img.affine), stem + "_dipy_fa.nii.gz")
nib.save(nib.Nifti1Image(fit.md.astype(np.float32), img.affine), stem + "_dipy_md.nii.gz")
PY

q="$batch channels $work/ph.raw --voxel-size 2 --threads $threads -o $work/out.raw"
m_ols="dwi2tensor -quiet -force -nthreads $threads -ols -mask $work/mask.nii -fslgrad $work/ph.bvec $work/ph.bval $work/ph.nii $work/dt.mif && tensor2metric -quiet -force -nthreads $threads -fa $work/fa.mif -adc $work/adc.mif -vector $work/v.mif $work/dt.mif"
m_it0="dwi2tensor -quiet -force -nthreads $threads -ols -iter 0 -mask $work/mask.nii -fslgrad $work/ph.bvec $work/ph.bval $work/ph.nii $work/dt.mif && tensor2metric -quiet -force -nthreads $threads -fa $work/fa.mif -adc $work/adc.mif -vector $work/v.mif $work/dt.mif"
d="OMP_NUM_THREADS=$threads OPENBLAS_NUM_THREADS=$threads $py $work/dipy_fit.py $work/ph $work/mask.nii"

declare -A times
names=(quorix mrtrix_ols mrtrix_iter0 dipy)
cmds=("$q" "$m_ols" "$m_it0" "$d")
for ((r = 0; r < rounds; ++r)); do
  for i in "${!names[@]}"; do times[${names[$i]}]+="$(run "${cmds[$i]}") "; done
done
declare -A med
for n in "${names[@]}"; do med[$n]=$(echo "${times[$n]}" | median); printf "%-14s median %.3f s  (%s)\n" "$n" "${med[$n]}" "${times[$n]}"; done
for n in mrtrix_ols mrtrix_iter0 dipy; do
  awk -v n="$n" -v a="${med[quorix]}" -v b="${med[$n]}" 'BEGIN {printf "ratio quorix / %-13s %.3f\n", n, a / b}'
done
