#!/usr/bin/env bash
# Installs the Debian packages the build needs (root, Debian 12); with
# --tests also those of the tests and benchmarks.
set -euo pipefail
pkgs="cmake g++ make pkg-config libfftw3-dev libpng-dev libopenmpi-dev openmpi-bin"
if [ "${1:-}" = "--tests" ]; then
  pkgs="$pkgs libgtest-dev libbenchmark-dev python3 python3-mrcfile python3-numpy relion clang libclang-rt-14-dev chromium"
fi
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends $missing
fi
