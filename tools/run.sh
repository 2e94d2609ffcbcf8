#!/usr/bin/env bash
# Installs what is missing, builds Quorix.II and runs its main job on a data set it
# generates: a DWI phantom with known tensors is written; quorix-batch computes its tensor
# maps and tracks fibers in it; then pellucid-server (the viewer side) is started with the
# phantom and the desktop program quorix attaches to it. There it computes the maps, puts a
# seed sphere in the straight bundle and runs a fiber tracking study from it and a voxel
# statistics study over a box, as a user does with " Analyze and Display ". With a display,
# quorix stays open on that state (quit with Ctrl+Q); without one, it runs under Xvfb at
# depth 24, unattended, and saves screenshots: the fibers over the colour map, the summary,
# the window and its dialogs.
# Usage: tools/run.sh [WORK_DIR]   (default: ./quorix-demo)
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DQUORIX_WERROR=OFF >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
work=${1:-quorix-demo}
mkdir -p "$work/screenshots" "$work/from-viewer"
bin=build/bin

echo "== a 64 x 64 x 24 phantom, 1 So + 30 DWIs, 2% noise: $work/phantom.*"
"$bin/quorix-batch" phantom --noise 0.02 -o "$work/phantom"
echo "== what it holds"
"$bin/quorix-batch" info "$work/phantom.raw" --mpg "$work/phantom.mpg" --voxel-size 2 \
  >"$work/info.txt" 2>&1
head -8 "$work/info.txt"
echo "== tensor maps (directional colour, FA, ADC as NIfTI; all four appended in the .raw)"
"$bin/quorix-batch" channels "$work/phantom.raw" --mpg "$work/phantom.mpg" --voxel-size 2 \
  -o "$work/phantom_maps.raw" 2>/dev/null
"$bin/quorix-batch" channels "$work/phantom.nii.gz" -o "$work/phantom_maps.nii.gz" 2>/dev/null
echo "== fiber tracking from the crossing and the straight bundles"
"$bin/quorix-batch" track "$work/phantom.nii.gz" --seed-box 8,28,10,55,35,13 --seeds-per-voxel 2 \
  --dump "$work/fibetrak_dump.txt" --tck "$work/phantom.tck" 2>/dev/null

number=$(( $$ % 9000 + 100 ))
echo "== pellucid-server $number with the phantom, and quorix attached to it"
"$bin/pellucid-server" --number "$number" --volume "$work/phantom.raw" --voxel-size 2 \
  --save-dir "$work/from-viewer" 2>"$work/server.log" &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null || true' EXIT
sleep 0.5
if [ -n "${DISPLAY:-}" ]; then
  QUORIX_DEMO=1 "$bin/quorix" "$number"
else
  QUORIX_DEMO=1 QUORIX_AUTOPILOT="$work/screenshots" xvfb-run -a -s "-screen 0 1280x1024x24" "$bin/quorix" "$number"
  echo "== screenshots of the window and its dialogs: $work/screenshots"
  ls "$work/screenshots"
fi
echo "== results in $work:"
ls "$work"
