#!/usr/bin/env bash
# Installs what Quorix.II needs to build, test and run on Debian 12.
# Usage: tools/setup.sh [--peers]   (--peers also installs MRtrix3 and DIPY for benchmarks)
set -euo pipefail
pkgs=(build-essential cmake pkg-config git libgtest-dev libgmock-dev libbenchmark-dev
      libgtk-3-dev libcairo2-dev libpng-dev libfontconfig-dev libnifti2-dev zlib1g-dev xvfb xauth clang libclang-rt-14-dev)
pkgs+=(chromium)  # the report tests load the pages in a headless browser
pkgs+=(python3-pydicom dcm2niix python3-nibabel)  # DICOM series and tract positions by other tools
pkgs+=(libgdcm-dev libgdcm-tools)  # scanner DICOM; gdcmconv compresses test series
pkgs+=(libssl-dev nlohmann-json3-dev)  # cohorts: SHA-256 of inputs and outputs, done markers
pkgs+=(slurm-wlm munge)  # the cohort test starts a one-node Slurm cluster of its own
if [ "${1:-}" = "--peers" ]; then pkgs+=(mrtrix3 python3-dipy hyperfine python3-scipy); fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
echo "Installing: ${missing[*]}" >&2
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
