#!/usr/bin/env bash
# Share of test code in the project: non-blank, non-comment lines of C, C++,
# CUDA, Python and shell files (sbatch scripts too) under tests/ against all
# of them. The aim is a quarter to a third.
set -euo pipefail
cd "$(dirname "$0")/.."
# Comments are // and /* */ lines in C-like files and # lines (shebangs
# included) in Python and shell; a line with code and a comment counts.
count() {
  local c hash
  c=$(git ls-files -- "$@" | grep -E '\.(c|cc|cpp|cu|cuh|h|hpp)$' | xargs -r awk '
    FNR == 1 { block = 0 }
    { line = $0; sub(/^[ \t]+/, "", line) }
    block { if (index(line, "*/")) block = 0; next }
    line == "" || line ~ /^\/\// { next }
    line ~ /^\/\*/ { if (!index(line, "*/")) block = 1; next }
    { n++ } END { print n + 0 }' | awk '{ s += $1 } END { print s + 0 }')
  hash=$(git ls-files -- "$@" | grep -E '\.(py|sh|sbatch)$' | xargs -r cat | grep -c -v -E '^\s*(#.*)?$' || true)
  echo $((c + hash))
}
tests=$(count tests)
all=$(count .)
echo "test share: $tests test lines of $all code lines ($(awk -v t="$tests" -v a="$all" 'BEGIN { printf "%.1f", 100 * t / a }')%; aim 25-33.3%)"
