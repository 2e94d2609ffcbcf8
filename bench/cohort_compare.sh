#!/usr/bin/env bash
# A cohort through maps, tracking and atlas statistics against the same work as an
# MRtrix3 script, whole process, both with 2 threads, runs interleaved round by round.
# Six phantom subjects (128 x 128 x 60, 1 So + 30 DWIs, 2 % Rician noise) in BIDS layout
# and an atlas of eight slabs. Per subject:
#   quorix  quorix-batch bids ... participant --atlas (FA, MD, AD, RD, colour maps, tracks
#           from one seed per voxel of FA > 0.3, FA/MD table per label, QC, checksums)
#   MRtrix  dwi2tensor -ols -iter 0 in the same brain mask, tensor2metric (the same five
#           maps), mrthreshold FA > 0.3, tckgen -algorithm Tensor_Det with one seed per
#           voxel of it (cutoff 0.18, step 0.7 voxel, at most 159 steps each way), and per
#           label (inside the brain mask, as quorix) mrcalc + mrstats of FA and MD (mean,
#           std, min, max)
# The brain masks MRtrix gets are made before timing (quorix makes its own inside).
# Equal work: the tracks' points per fiber must agree within 10 % and the FA mean of a
# label within 0.01. Prints subjects per hour of both, quorix's time split per stage
# (from its logs) and how its time grows from 1 to 6 subjects.
#
#   bench/cohort_compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "${1:-}" "${2:-3}"
for tool in dwi2tensor tensor2metric tckgen mrstats mrcalc mrthreshold; do
  command -v $tool >/dev/null || { echo "Err: $tool missing (tools/setup.sh --peers)"; exit 1; }
done
subjects=6

echo "six phantom subjects 128 x 128 x 60, 1 So + 30 DWIs, 2% Rician noise, voxel 2 mm; atlas of 8 slabs; $threads threads"
for i in $(seq $subjects); do
  mkdir -p "$work/bids/sub-0$i/dwi"
  "$batch" phantom --size 128,128,60 --directions 30 --noise 0.02 --seed $i --format nii --no-truth \
    -o "$work/bids/sub-0$i/dwi/sub-0${i}_dwi" 2>/dev/null
done
# the atlas and, for MRtrix, each subject's brain mask (first So above a tenth of its maximum)
$py - "$work" $subjects <<'PY'
import sys, numpy as np, nibabel as nib
work, n = sys.argv[1], int(sys.argv[2])
for i in range(1, n + 1):
    img = nib.load(f"{work}/bids/sub-0{i}/dwi/sub-0{i}_dwi.nii.gz")
    so = np.asarray(img.dataobj[..., 0])
    nib.save(nib.Nifti1Image((so > int(so.max()) // 10).astype(np.uint8), img.affine), f"{work}/mask{i}.nii")
atlas = np.zeros(img.shape[:3], np.int16)
for z in range(img.shape[2]):
    atlas[:, :, z] = 1 + (z * 8) // img.shape[2]
nib.save(nib.Nifti1Image(atlas, img.affine), f"{work}/atlas.nii.gz")
PY

# the MRtrix3 script of one subject
cat > "$work/mrtrix_subject.sh" <<'SH'
#!/bin/bash
set -e
i=$1; work=$2; t=$3; s=$work/bids/sub-0$i/dwi/sub-0${i}_dwi; o=$work/mout/sub-0$i
mkdir -p "$o"
g="-fslgrad $s.bvec $s.bval"
dwi2tensor -quiet -force -nthreads $t $g -ols -iter 0 -mask "$work/mask$i.nii" "$s.nii.gz" "$o/tensor.mif"
tensor2metric -quiet -force -nthreads $t "$o/tensor.mif" -fa "$o/fa.nii.gz" -adc "$o/md.nii.gz" \
  -ad "$o/ad.nii.gz" -rd "$o/rd.nii.gz" -vector "$o/rgb.nii.gz"
mrthreshold -quiet -force -nthreads $t "$o/fa.nii.gz" -abs 0.3 "$o/seed.mif"
tckgen -quiet -force -nthreads $t $g -algorithm Tensor_Det -seed_grid_per_voxel "$o/seed.mif" 1 -select 0 \
  -cutoff 0.18 -step 1.4 -angle 90 -minlength 0 -maxlength 445 "$s.nii.gz" "$o/tracks.tck"
for l in 1 2 3 4 5 6 7 8; do
  mrcalc -quiet -force -nthreads $t "$work/atlas.nii.gz" $l -eq "$work/mask$i.nii" -mult "$o/label.mif"
  for m in fa md; do
    echo "$l $m $(mrstats -quiet "$o/$m.nii.gz" -mask "$o/label.mif" -output mean -output std -output min -output max)"
  done
done > "$o/stats.txt"
SH
chmod +x "$work/mrtrix_subject.sh"
all=$(seq -s ' ' $subjects)
names=(quorix mrtrix)
cmd=("rm -rf $work/qout && $batch bids $work/bids $work/qout participant --atlas $work/atlas.nii.gz --threads $threads"
     "rm -rf $work/mout && for i in $all; do $work/mrtrix_subject.sh \$i $work $threads; done")
declare -A wall=() cpu=()
paired_rounds

# equal work: points per fiber and a label's FA mean
points() {
  $py - "$1" <<'PY'
import sys, numpy as np
data = open(sys.argv[1], "rb").read()
off = int([l for l in data[:4096].split(b"\n") if l.startswith(b"file:")][0].split()[2])
xyz = np.frombuffer(data[off:], "<f4").reshape(-1, 3)
print(int(np.isfinite(xyz[:, 0]).sum()), int(np.isnan(xyz[:, 0]).sum()))
PY
}
read -r pq lq < <(points "$work/qout/quorix/sub-01/dwi/sub-01_model-tensor_alg-det_streamlines.tck")
read -r pm lm < <(points "$work/mout/sub-01/tracks.tck")
faq=$(awk -F'\t' '$1 == 4 {print $4}' "$work/qout/quorix/sub-01/dwi/sub-01_atlas-atlas_roistats.tsv")
fam=$(awk '$1 == 4 && $2 == "fa" {print $3}' "$work/mout/sub-01/stats.txt")
printf "sub-01: quorix %d points in %d fibers, MRtrix %d in %d; label 4 FA mean: quorix %s, MRtrix %s\n" \
  "$pq" "$lq" "$pm" "$lm" "$faq" "$fam"
declare -A mw mc
for n in quorix mrtrix; do
  mw[$n]=$(echo "${wall[$n]}" | median); mc[$n]=$(echo "${cpu[$n]}" | median)
  printf "%-7s wall %.2f s  cpu %.2f s  %.0f subjects/hour  (wall: %s)\n" "$n" "${mw[$n]}" "${mc[$n]}" \
    "$(awk -v t=${mw[$n]} -v n=$subjects 'BEGIN{print n * 3600 / t}')" "${wall[$n]}"
done
if ! awk -v a=$pq -v b=$lq -v c=$pm -v d=$lm -v f=$faq -v g=$fam \
     'BEGIN {r = (a/b) / (c/d); e = f - g; exit !(r >= 1/1.1 && r <= 1.1 && e < 0.01 && e > -0.01)}'; then
  echo "Err: the tools did not do the same work (points per fiber or FA means differ): no ratio"
  exit 1
fi
awk -v q=${mw[quorix]} -v m=${mw[mrtrix]} -v cq=${mc[quorix]} -v cm=${mc[mrtrix]} \
  'BEGIN {printf "subjects per hour, quorix / MRtrix3: wall %.2f  cpu %.2f\n", m / q, cm / cq}'

# quorix's time per stage, medians over the subjects of the last round
echo "quorix seconds per subject by stage (median over subjects): "
cat "$work"/qout/quorix/logs/sub-*_times.tsv | grep -v '^read' |
  awk -F'\t' '{for (i = 1; i <= 5; ++i) v[i] = v[i] " " $i} END {for (i = 1; i <= 5; ++i) print i, v[i]}' |
  while read -r i values; do
    printf "  %-6s %s\n" "$(echo read fit track stats write | cut -d' ' -f$i)" "$(echo "$values" | median)"
  done
# growth from 1 to 6 subjects (one run each, after the rounds)
for n in 1 2 4 6; do
  labels=$(for i in $(seq $n); do printf -- "--participant-label 0%d " $i; done)
  t=$(run "rm -rf $work/grow && $batch bids $work/bids $work/grow participant --atlas $work/atlas.nii.gz --threads $threads $labels")
  printf "quorix %d subject(s): wall %.2f s, %.2f s per subject\n" $n "${t% *}" "$(awk -v t=${t% *} -v n=$n 'BEGIN{print t/n}')"
done
