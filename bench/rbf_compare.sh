#!/usr/bin/env bash
# The interpolated tensor field against SciPy: quorix-batch model --field-dump on the
# 128 x 128 x 60 phantom with the union of its bundles as control region (pitch 2), and
# SciPy's RBFInterpolator(kernel="linear", degree=1) fitting the same six tensor
# components on the same control voxels and evaluating them at every voxel, writing the
# same seven-channel synthetic acquisition. Whole process against whole process, paired
# round by round; medians of wall and CPU time and their ratios.
#
#   bench/rbf_compare.sh [BUILD_DIR] [ROUNDS]      (peers: tools/setup.sh --peers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/bench/common.sh"
bench_setup "${1:-}" "${2:-3}"
$py -c "import scipy.interpolate" 2>/dev/null || { echo "Err: python3-scipy missing (tools/setup.sh --peers)"; exit 1; }

"$batch" phantom --size 128,128,60 --directions 30 --no-truth --format nii -o "$work/ph" 2>/dev/null
"$batch" convert "$work/ph.nii.gz" -o "$work/ph.nii" 2>/dev/null
# the bundles are where the b = 0 signal is the bundles' 8000 (crossings included)
$py - "$work" <<'PY'
import sys, numpy as np, nibabel as nib
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
so = np.asarray(img.dataobj[..., 0])
mask = (so == 8000).astype(np.uint8)
nib.save(nib.Nifti1Image(mask, img.affine), work + "/union.nii")
grid = mask[::2, ::2, ::2]
print("control voxels on the pitch-2 grid:", int(grid.sum()))
PY
cat > "$work/peer.py" <<'PY'
import sys, numpy as np, nibabel as nib
from scipy.interpolate import RBFInterpolator
work = sys.argv[1]
img = nib.load(work + "/ph.nii")
data = np.asarray(img.dataobj, dtype=np.float64)
b = np.loadtxt(work + "/ph.bval"); g = np.loadtxt(work + "/ph.bvec").T
mask = np.asarray(nib.load(work + "/union.nii").dataobj) > 0
grid = np.zeros_like(mask); grid[::2, ::2, ::2] = True
points = np.argwhere(mask & grid).astype(np.float64)
# the six components at the control voxels: log-linear least squares
so = data[..., 0]
dw = b > 0
design = -b[dw, None] * np.stack([g[dw, 0]**2, g[dw, 1]**2, g[dw, 2]**2, 2 * g[dw, 0] * g[dw, 1],
                                   2 * g[dw, 1] * g[dw, 2], 2 * g[dw, 0] * g[dw, 2]], axis=1)
ijk = points.astype(int)
s = data[ijk[:, 0], ijk[:, 1], ijk[:, 2]]
y = np.log(np.maximum(s[:, dw], 1) / np.maximum(s[:, :1], 1))
d = np.linalg.lstsq(design, y.T, rcond=None)[0].T
field = RBFInterpolator(points, d, kernel="linear", degree=1)
nx, ny, nz = mask.shape
xyz = np.stack(np.meshgrid(np.arange(nx), np.arange(ny), np.arange(nz), indexing="ij"), -1).reshape(-1, 3)
t = field(xyz.astype(np.float64))  # Dxx Dyy Dzz Dxy Dyz Dxz per voxel
dirs = [(0, 0, 0), (.707, 0, .707), (-.707, 0, .707), (0, .707, .707), (0, .707, -.707), (.707, .707, 0), (-.707, .707, 0)]
out = np.empty((7, nz, ny, nx), np.int16)
s0 = so.reshape(-1)
for c, (gx, gy, gz) in enumerate(dirs):
    adc = (t[:, 0] * gx * gx + t[:, 1] * gy * gy + t[:, 2] * gz * gz
           + 2 * (t[:, 3] * gx * gy + t[:, 4] * gy * gz + t[:, 5] * gx * gz))
    out[c] = (s0 * np.exp(-1000 * adc)).astype(np.int32).astype(np.int16).reshape(nx, ny, nz).transpose(2, 1, 0)
out.tofile(work + "/peer.raw")
PY
q="$batch model $work/ph.nii --control-mask $work/union.nii --seed-box 64,64,30,64,64,30 --threads $threads --field-dump $work/q.raw"
s="OPENBLAS_NUM_THREADS=$threads $py $work/peer.py $work"
# wall and CPU seconds (user + system) of one run; on a shared machine the CPU time says
# more about the work done than the wall time
timed() {
  /usr/bin/time -f "%e %U %S" -o "$work/time" bash -c "$1" >/dev/null 2>"$work/last_error" || {
    echo "Err: failed: $1" >&2; tail -3 "$work/last_error" >&2; return 1; }
  awk '{printf "%.2f %.2f\n", $1, $2 + $3}' "$work/time"
}
echo "quorix: $q"
wq=""; cq=""; ws=""; cs=""
for ((r = 0; r < rounds; ++r)); do
  read -r w c < <(timed "$q"); wq+="$w "; cq+="$c "
  echo "round $((r + 1)): quorix wall $w s, CPU $c s"
  read -r w c < <(timed "$s"); ws+="$w "; cs+="$c "
  echo "round $((r + 1)): SciPy  wall $w s, CPU $c s"
done
mwq=$(echo "$wq" | median); mws=$(echo "$ws" | median); mcq=$(echo "$cq" | median); mcs=$(echo "$cs" | median)
printf "quorix model --field-dump  median wall %.2f s, CPU %.2f s\n" "$mwq" "$mcq"
printf "SciPy RBFInterpolator      median wall %.2f s, CPU %.2f s\n" "$mws" "$mcs"
awk -v a="$mwq" -v b="$mws" -v c="$mcq" -v d="$mcs" 'BEGIN {printf "ratio quorix / SciPy: wall %.2f, CPU %.2f\n", a / b, c / d}'
$py - "$work" <<'PY'
import sys, numpy as np
w = sys.argv[1]
q = np.fromfile(w + "/q.raw", np.int16).astype(int); s = np.fromfile(w + "/peer.raw", np.int16).astype(int)
print("dumps: %d values, %.1f %% within 2 of each other, largest difference %d" % (q.size, 100.0 * np.mean(abs(q - s) <= 2), abs(q - s).max()))
PY
