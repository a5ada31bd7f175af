#!/usr/bin/env bash
# Install, build (CUDA back end too when nvcc exists) and run every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh --tests
cmake -S . -B build/ci -DCMAKE_BUILD_TYPE=Release -DGVEX_CUDA=AUTO
cmake --build build/ci -j2
# Every fuzz target for 30 s from its seeds (the sanitizers report any finding).
bash tools/fuzz.sh 30
ctest --test-dir build/ci --output-on-failure -j2
# Every library function is reached by a program (an unoptimised build).
bash tools/api_check.sh
