#!/usr/bin/env python3
"""Where quorix-batch puts a fiber in the world, checked with nibabel alone.

A phantom's NIfTI is given a voxel-to-world matrix with shears and an origin; tracking
from one seed voxel writes a .tck and the tracking dump. nibabel reads the matrix and the
.tck: the seed voxel's centre, by the matrix, is a point of the fiber; and every node of
the dump (millimetres along the voxel axes) lands, by the same matrix, where the .tck has
it. With MRtrix3 installed, tckinfo must read the file and count the same fiber.
Usage: tck_world.py QUORIX_BATCH WORK_DIR   (exit 77: nibabel is not installed)
"""
import os
import shutil
import subprocess
import sys

try:
    import nibabel as nib
    import numpy as np
except ImportError:
    sys.exit(77)

batch, work = sys.argv[1], sys.argv[2]
run = lambda *a: subprocess.run([batch, *a], cwd=work, check=True, capture_output=True, text=True)
run("phantom", "-o", "p", "--size", "40,40,16", "--format", "nii", "--no-truth", "--voxel-size", "2")
image = nib.load(os.path.join(work, "p.nii.gz"))
affine = np.array([[2.0, 0.1, 0.0, -40.0], [0.0, 2.0, 0.2, -38.0], [0.0, 0.0, 2.0, 12.0], [0, 0, 0, 1]])
moved = nib.Nifti1Image(np.asanyarray(image.dataobj), affine)
moved.set_qform(affine, code=1)
moved.set_sform(affine, code=1)
nib.save(moved, os.path.join(work, "q.nii.gz"))
for ext in ("bval", "bvec"):
    shutil.copy(os.path.join(work, "p." + ext), os.path.join(work, "q." + ext))
seed = (10, 20, 8)  # in the phantom's x bundle
run("track", "q.nii.gz", "--seed-box", "%d,%d,%d,%d,%d,%d" % (seed + seed), "--dump", "d.txt", "--tck", "t.tck")

tracks = nib.streamlines.load(os.path.join(work, "t.tck")).streamlines
if len(tracks) != 1:
    sys.exit("expected one fiber, found %d" % len(tracks))
fiber = np.asarray(tracks[0], dtype=np.float64)
world_seed = nib.affines.apply_affine(affine, seed)
gap = np.min(np.linalg.norm(fiber - world_seed, axis=1))
if gap > 1e-4:
    sys.exit("the seed voxel's centre %s is %.6f mm from the nearest fiber point" % (world_seed, gap))

lines = open(os.path.join(work, "d.txt")).read().split("<Dump result is from here>")[1].split("\n")[1:]
rows = [l.split() for l in lines if len(l.split()) == 6]
dump_mm = np.array([[float(v) for v in r[:3]] for r in rows])
if dump_mm.shape[0] != fiber.shape[0]:
    sys.exit("dump has %d nodes, the .tck %d" % (dump_mm.shape[0], fiber.shape[0]))
from_dump = nib.affines.apply_affine(affine, dump_mm / 2.0)  # the dump's two decimals
worst = np.max(np.linalg.norm(from_dump - fiber, axis=1))
if worst > 0.01:
    sys.exit("a node of the dump lies %.4f mm from the .tck's" % worst)

if shutil.which("tckinfo"):
    info = subprocess.run(["tckinfo", "-count", "t.tck"], cwd=work, capture_output=True, text=True)
    if info.returncode != 0 or "actual count in file: 1" not in info.stdout:
        sys.exit("tckinfo: " + info.stdout + info.stderr)
print("seed at %s, %d nodes, largest gap to the dump %.4f mm" % (world_seed, fiber.shape[0], worst))
