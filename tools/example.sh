#!/usr/bin/env bash
# Install what is missing, build, generate a synthetic micrograph with known
# particle centres, pick it and say how many planted particles were found.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh
cmake -S . -B build/example -DCMAKE_BUILD_TYPE=Release -DGVEX_CUDA=AUTO -DGVEX_TESTS=OFF -DGVEX_BENCH=OFF
cmake --build build/example -j2 --target gvexmatch gvex_makemic gvexreport
mkdir -p example/Micrographs
build/example/tools/gvex_makemic make example/Micrographs/mic001.mrc --nx 4096 --ny 4096 --apix 1.34 --diameter 300 --seed 7
build/example/gvexmatch --apixM 1.34 --diameter 300 example/Micrographs/mic001.mrc
build/example/tools/gvex_makemic score example/Micrographs/mic001_vexmatch.box example/Micrographs/mic001_truth.txt 40
# Pick again with decoys and a cut-off chosen for the micrograph (this
# replaces gvexmatch's picks with every grid maximum), keep the picks above
# it, and see them in one page: pictures, histograms, warnings, a slider.
build/example/report/gvexreport --out example/report --pick --apply --apixM 1.34 --diameter 300 \
  example/Micrographs/mic001.mrc
build/example/tools/gvex_makemic score example/Micrographs/mic001_vexmatch_auto.box example/Micrographs/mic001_truth.txt 40
