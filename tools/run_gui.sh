#!/usr/bin/env bash
# Starts the desktop program on a generated phantom inside a private Xvfb display (depth 24),
# waits until its window is drawn and saves a screenshot of the whole screen.
# Usage: tools/run_gui.sh SCREENSHOT.png [BUILD_DIR] [SECONDS]
#   BUILD_DIR  holds bin/quorix, bin/pellucid-server, bin/quorix-batch (default: ./build)
#   SECONDS    how long to wait before the shot (default: 3)
set -euo pipefail
shot=${1:?usage: tools/run_gui.sh SCREENSHOT.png [BUILD_DIR] [SECONDS]}
build=${2:-build}
wait_s=${3:-3}
bin=$build/bin
for p in quorix pellucid-server quorix-batch; do
  [ -x "$bin/$p" ] || { echo "Err: $bin/$p is not built" >&2; exit 1; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

"$bin/quorix-batch" phantom --size 32,32,12 --directions 6 --format raw --no-truth \
  -o "$work/phantom" >/dev/null

# a display number nobody uses
display=$(( $$ % 400 + 200 ))
while [ -e "/tmp/.X11-unix/X$display" ] || [ -e "/tmp/.X$display-lock" ]; do
  display=$((display + 1))
done
Xvfb ":$display" -screen 0 1280x1024x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X$display" ] && break; sleep 0.1; done

number=$(( $$ % 9000 + 100 ))
"$bin/pellucid-server" --number "$number" --volume "$work/phantom.raw" --voxel-size 2 \
  --save-dir "$work" 2>"$work/server.log" &
pids+=($!)
sleep 0.5

DISPLAY=":$display" "$bin/quorix" "$number" >"$work/console.txt" 2>&1 &
pids+=($!)
sleep "$wait_s"
DISPLAY=":$display" import -window root "$shot"
echo "console of quorix:"
cat "$work/console.txt"
echo "screenshot: $shot"
