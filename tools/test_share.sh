#!/usr/bin/env bash
# Share of test code in the project: non-blank, non-comment lines of C, C++,
# CUDA, Python and shell files under tests/ against all of them. The aim is
# a quarter to a third.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  git ls-files -- "$@" | grep -E '\.(c|cc|cpp|cu|cuh|h|hpp|py|sh)$' | xargs -r cat | grep -c -v -E '^\s*(//.*)?$' || true
}
tests=$(count tests)
all=$(count .)
echo "test share: $tests test lines of $all code lines ($((100 * tests / all))%; aim 25-33%)"
