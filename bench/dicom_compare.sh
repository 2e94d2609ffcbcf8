#!/usr/bin/env bash
# DICOM directory import against dcm2niix on the same series: the 128 x 128 x 60 phantom
# with 1 So + 30 DWIs written by pydicom as 1,860 single-slice files (explicit VR with
# preamble, b value and gradient direction elements), made here and removed at exit.
# quorix-batch convert DIR/ -o X.raw against dcm2niix writing uncompressed NIfTI,
# interleaved round by round, whole process against whole process; then a check that
# both give the same voxels.
#
#   bench/dicom_compare.sh [BUILD_DIR] [ROUNDS]      (needs dcm2niix and python3-pydicom)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "$@"
command -v dcm2niix >/dev/null || { echo "Err: dcm2niix missing (tools/setup.sh)"; exit 1; }

echo "phantom 128 x 128 x 60, 1 So + 30 DWIs, 2 mm voxels, as 1860 DICOM files"
"$batch" phantom --size 128,128,60 --directions 30 --no-truth --format nii -o "$work/ph" 2>/dev/null
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
$py - "$work" <<'PY'
import os, sys
import numpy as np, nibabel as nib
from pydicom.dataset import FileDataset, FileMetaDataset
from pydicom.uid import ExplicitVRLittleEndian, generate_uid
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
data = np.asarray(img.dataobj).astype("<i2")  # x, y, z, channel
bvals = np.loadtxt(work + "/ph.bval")
bvecs = np.loadtxt(work + "/ph.bvec")
X, Y, Z, C = data.shape
out = work + "/dcm"
os.makedirs(out)
mr = "1.2.840.10008.5.1.4.1.1.4"
study, series = generate_uid(), generate_uid()
number = 0
for c in range(C):          # one channel's slices after another, as many scanners do
    for z in range(Z):
        number += 1
        meta = FileMetaDataset()
        meta.MediaStorageSOPClassUID = mr
        meta.MediaStorageSOPInstanceUID = generate_uid()
        meta.TransferSyntaxUID = ExplicitVRLittleEndian
        name = "%s/IM%05d" % (out, number)
        ds = FileDataset(name, {}, file_meta=meta, preamble=b"\0" * 128)
        ds.is_little_endian, ds.is_implicit_VR = True, False
        ds.SOPClassUID, ds.SOPInstanceUID = mr, meta.MediaStorageSOPInstanceUID
        ds.StudyInstanceUID, ds.SeriesInstanceUID = study, series
        ds.Modality, ds.PatientName, ds.PatientID = "MR", "Phantom", "P1"
        ds.SeriesNumber, ds.AcquisitionNumber = 1, 1
        ds.InstanceNumber = number
        ds.EchoTime, ds.RepetitionTime = 80, 8000
        ds.SpacingBetweenSlices, ds.SliceThickness, ds.ReconstructionDiameter = 2, 2, 256
        ds.ImagePositionPatient = [-127.0, -127.0, -59.0 + 2 * z]
        ds.ImageOrientationPatient = [1, 0, 0, 0, 1, 0]
        ds.PixelSpacing = [2, 2]
        ds.add_new(0x00189087, "FD", float(bvals[c]))
        ds.add_new(0x00189089, "FD", [float(v) for v in bvecs[:, c]])
        ds.Rows, ds.Columns = Y, X
        ds.SamplesPerPixel, ds.PhotometricInterpretation = 1, "MONOCHROME2"
        ds.BitsAllocated, ds.BitsStored, ds.HighBit, ds.PixelRepresentation = 16, 16, 15, 1
        ds.add_new(0x7FE00010, "OW", np.ascontiguousarray(data[:, :, z, c].T).tobytes())
        ds.save_as(name, write_like_original=False)
PY
echo "$(ls "$work/dcm" | wc -l) files, $(du -sm "$work/dcm" | cut -f1) MB"
mkdir -p "$work/d"
q="$batch convert $work/dcm/ -o $work/q.raw"
d="dcm2niix -z n -w 1 -f d -o $work/d $work/dcm"
cat "$work"/dcm/* >/dev/null  # both read from the page cache
tq=""; td=""
# run prints "WALL CPU"; the medians are of the wall times
for ((r = 0; r < rounds; ++r)); do tq+="$(run "$q" | cut -d" " -f1) "; td+="$(run "$d" | cut -d" " -f1) "; done
mq=$(echo "$tq" | median); md=$(echo "$td" | median)
printf "quorix-batch convert  median %.3f s  (%s)\n" "$mq" "$tq"
printf "dcm2niix              median %.3f s  (%s)\n" "$md" "$td"
awk -v q=$mq -v d=$md 'BEGIN {printf "wall-time ratio quorix / dcm2niix: %.2f\n", q/d}'

# same voxels: ours x fastest with rows down; dcm2niix flips the rows into its own frame
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
raw = open(work + "/q.raw", "rb").read()
head = raw.split(b"\n", 5)
x, y, z, c = map(int, head[1].split())
ours = np.frombuffer(raw[len(raw) - x * y * z * c * 2:], "<i2").reshape(c, z, y, x)
theirs = np.asarray(nib.load(work + "/d/d.nii").dataobj)
same = np.array_equal(ours.transpose(3, 2, 1, 0)[:, ::-1], theirs) or np.array_equal(ours.transpose(3, 2, 1, 0), theirs)
print("voxels equal to dcm2niix's:", "yes" if same else "NO")
PY
