#!/usr/bin/env bash
# Builds the programs without optimisation (build/api: nothing is inlined,
# so every call leaves a trace) and lists the library functions no program
# reaches (tools/api_check.py); fails when there are any.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/api -DCMAKE_BUILD_TYPE=Debug -DGVEX_CUDA=OFF -DGVEX_TESTS=OFF -DGVEX_BENCH=OFF >/dev/null
cmake --build build/api -j2 >/dev/null
python3 tools/api_check.py build/api
