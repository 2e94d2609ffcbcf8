#!/usr/bin/env bash
# Scanner DICOM import against dcm2niix on the same files: a 128 x 128 x 60 series of
# 1 So + 30 DWIs (2 mm voxels) written by tests/io/scanner_series.py with pydicom in three
# layouts: GE one slice per file (1,860 files, diffusion in GE's private fields), Siemens
# mosaic (31 files with CSA headers) and enhanced multi-frame (one file of 1,860 frames).
# For each: quorix-batch convert DIR/ -o X.raw against dcm2niix writing uncompressed
# NIfTI, interleaved round by round, whole process against whole process, files read from
# the page cache; then a check that both give the same voxels (equal work).
#
#   bench/dicom_layouts_compare.sh [BUILD_DIR] [ROUNDS] [LAYOUTS...]
#   (needs dcm2niix, python3-pydicom and python3-nibabel)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
shift $(( $# > 2 ? 2 : $# ))
layouts=("$@")
[ ${#layouts[@]} -eq 0 ] && layouts=(ge mosaic enhanced)
command -v dcm2niix >/dev/null || { echo "Err: dcm2niix missing (tools/setup.sh)"; exit 1; }

for layout in "${layouts[@]}"; do
  case $layout in
    ge) json='{"vendor": "ge"' ;;
    mosaic) json='{"layout": "mosaic"' ;;
    enhanced) json='{"layout": "enhanced"' ;;
    *) echo "Err: unknown layout $layout"; exit 1 ;;
  esac
  json+=', "x": 128, "y": 128, "slices": 60, "directions": 30, "orientation": [1, 0, 0, 0, 1, 0]}'
  rm -rf "$work/dcm" "$work/d" && mkdir -p "$work/d"
  "$py" "$root/tests/io/scanner_series.py" "$work/dcm" "$work/expected" "$json"
  echo "== $layout: $(ls "$work/dcm" | wc -l) files, $(du -sm "$work/dcm" | cut -f1) MB"
  cat "$work"/dcm/* >/dev/null
  names=(quorix dcm2niix)
  cmd=("$batch convert $work/dcm/ -o $work/q.raw" "dcm2niix -z n -w 1 -f d -o $work/d $work/dcm")
  declare -A wall=() cpu=()
  paired_rounds
  mq=$(echo "${wall[quorix]}" | median); md=$(echo "${wall[dcm2niix]}" | median)
  cq=$(echo "${cpu[quorix]}" | median); cd=$(echo "${cpu[dcm2niix]}" | median)
  printf "quorix-batch convert  median %.3f s wall, %.3f s CPU  (%s)\n" "$mq" "$cq" "${wall[quorix]}"
  printf "dcm2niix              median %.3f s wall, %.3f s CPU  (%s)\n" "$md" "$cd" "${wall[dcm2niix]}"
  awk -v q="$mq" -v d="$md" -v a="$cq" -v b="$cd" \
    'BEGIN {printf "ratio quorix / dcm2niix: %.2f wall, %.2f CPU\n", q / d, a / b}'
  # equal work: the same voxels (dcm2niix turns the rows, and for some layouts the
  # slices, into its own frame)
  "$py" - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
raw = open(work + "/q.raw", "rb").read()
head = raw.split(b"\n", 5)
x, y, z, c = map(int, head[1].split())
ours = np.frombuffer(raw[len(raw) - x * y * z * c * 2:], "<i2").reshape(c, z, y, x).transpose(3, 2, 1, 0)
theirs = np.asarray(nib.load(work + "/d/d.nii").dataobj)
same = any(np.array_equal(ours[:, ::fy, ::fz], theirs) for fy in (1, -1) for fz in (1, -1))
print("voxels equal to dcm2niix's:", "yes" if same else "NO")
PY
done
