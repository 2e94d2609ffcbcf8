#!/usr/bin/env bash
# Region statistics of one phantom with quorix-batch stats against MRtrix3 (dwi2tensor
# -ols, tensor2metric -fa -adc -value, mrstats -mask on each map and on the b = 0
# volume), whole process against whole process, paired round by round (A B A B ...),
# MRtrix3 on 2 threads; prints medians and the ratio. Then tensor growing of the straight
# bundle from its 27 seed voxels, paired with the channels command on the same volume.
#
#   bench/stats_compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
for tool in dwi2tensor tensor2metric mrstats mrconvert; do
  command -v $tool >/dev/null || { echo "Err: $tool missing (tools/setup.sh --peers)"; exit 1; }
done

echo "phantom 128 x 128 x 60, 1 So + 30 DWIs, 2% Rician noise; region: the head"
"$batch" phantom --size 128,128,60 --directions 30 --noise 0.02 --no-truth --format both -o "$work/ph" 2>/dev/null
"$batch" phantom --size 128,128,60 --directions 30 --no-truth --format nii -o "$work/clean" 2>/dev/null
# every tool reads an uncompressed image, so that no one pays for gzip
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
# the head: where the noise-free phantom has signal; the seeds: 3 x 3 x 3 voxels of the
# straight bundle (as in track_compare.sh)
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
img = nib.load(work + "/clean.nii.gz")
head = (np.asarray(img.dataobj[..., 0]) > 0).astype(np.uint8)
nib.save(nib.Nifti1Image(head, img.affine), work + "/head.nii")
seed = np.zeros(head.shape, np.uint8)
seed[20:23, 62:65, 28:31] = 1
nib.save(nib.Nifti1Image(seed, img.affine), work + "/seed.nii")
print("head mask:", int(head.sum()), "voxels")
PY

# each tool reads its own uncompressed format (as in compare.sh): quorix the raw volume
q="$batch stats $work/ph.raw --mpg $work/ph.mpg --mask $work/head.nii"
m="dwi2tensor -quiet -force -nthreads $threads -ols -mask $work/head.nii -fslgrad $work/ph.bvec $work/ph.bval $work/ph.nii $work/dt.mif -b0 $work/b0.mif"
m+=" && tensor2metric -quiet -force -nthreads $threads -mask $work/head.nii -fa $work/fa.mif -adc $work/adc.mif -value $work/ev.mif -num 1,2,3 $work/dt.mif"
m+=" && for f in b0 fa adc ev; do mrstats -quiet -nthreads $threads -mask $work/head.nii \$f.mif; done"
m="cd $work && $m"
g="$batch grow $work/ph.raw --mpg $work/ph.mpg --seed-mask $work/seed.nii -o $work/region.raw"
c="$batch channels $work/ph.raw --mpg $work/ph.mpg --threads $threads -o $work/maps.raw"

tq=""; tm=""; tg=""; tc=""
for ((r = 0; r < rounds; ++r)); do
  tq+="$(run "$q") "; tm+="$(run "$m") "
done
for ((r = 0; r < rounds; ++r)); do
  tg+="$(run "$g") "; tc+="$(run "$c") "
done
mq=$(echo "$tq" | median); mm=$(echo "$tm" | median)
mg=$(echo "$tg" | median); mc=$(echo "$tc" | median)
printf "quorix stats        median %.3f s  (%s)\n" "$mq" "$tq"
printf "mrtrix3 pipeline    median %.3f s  (%s)\n" "$mm" "$tm"
awk -v a="$mq" -v b="$mm" 'BEGIN {printf "ratio quorix stats / mrtrix3   %.3f\n", a / b}'
printf "quorix grow         median %.3f s  (%s)\n" "$mg" "$tg"
printf "quorix channels     median %.3f s  (%s)\n" "$mc" "$tc"
awk -v a="$mg" -v b="$mc" 'BEGIN {printf "ratio grow / channels          %.3f\n", a / b}'
"$batch" grow "$work/ph.raw" --mpg "$work/ph.mpg" --seed-mask "$work/seed.nii" -o "$work/region.raw" 2>/dev/null
