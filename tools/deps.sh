#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need (root, Debian 12).
set -euo pipefail
pkgs="cmake g++ make pkg-config libfftw3-dev libgtest-dev libbenchmark-dev python3 python3-mrcfile python3-numpy relion"
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends $missing
fi
