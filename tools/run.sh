#!/usr/bin/env bash
# Installs what is missing, builds Quorix.II and runs its main job.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)"
echo "Built: $(ls build/bin | tr '\n' ' ')"
