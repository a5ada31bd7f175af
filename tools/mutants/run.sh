#!/usr/bin/env bash
# Plants each fault of tools/mutants/faults.txt alone in a scratch worktree
# of HEAD, rebuilds the host back end there, runs the whole suite and prints
# which tests caught it. A fault no test catches is a missing test.
#   tools/mutants/run.sh [WORKTREE (default /tmp/gvex_mutants)]
set -uo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
wt=${1:-/tmp/gvex_mutants}
rm -rf "$wt"
git -C "$repo" worktree prune
git -C "$repo" worktree add -q --detach "$wt" HEAD || exit 1
trap 'git -C "$repo" worktree remove --force "$wt"' EXIT
cd "$wt"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DGVEX_CUDA=OFF -DGVEX_BENCH=OFF >/dev/null || exit 1
cmake --build build -j2 >/dev/null || { echo "the unmodified tree does not build"; exit 1; }
missed=0
while IFS=$'\t' read -r -u 3 file from to what; do
  case $file in '#'* | '') continue ;; esac
  cp "$file" "$file.orig"
  if ! python3 - "$file" "$from" "$to" <<'PY'
import sys
path, a, b = sys.argv[1], sys.argv[2].replace('\\n', '\n'), sys.argv[3].replace('\\n', '\n')
s = open(path).read()
if s.count(a) != 1:
    sys.exit(f'{path}: the fault text occurs {s.count(a)} times')
open(path, 'w').write(s.replace(a, b))
PY
  then
    echo "NOT PLANTED  $what"
    missed=$((missed + 1))
    continue
  fi
  if ! cmake --build build -j2 >/dev/null 2>&1; then
    echo "BUILD FAILS  $what"
  else
    (cd build && ctest -j2 --timeout 300 >../ctest.log 2>&1)
    failed=$(grep -c '\*\*\*Failed\|\*\*\*Timeout' ctest.log)
    if [ "$failed" -gt 0 ]; then
      echo "caught ($failed)  $what: $(grep '\*\*\*Failed\|\*\*\*Timeout' ctest.log | sed 's/.*Test *#[0-9]*: //; s/ \..*//' | head -4 | tr '\n' ' ')"
    else
      echo "MISSED       $what"
      missed=$((missed + 1))
    fi
  fi
  mv "$file.orig" "$file"
  touch "$file"  # newer than the mutant's objects, so the next build takes it
done 3<"$repo/tools/mutants/faults.txt"
cmake --build build -j2 >/dev/null 2>&1
echo "mutants: $missed not caught"
exit $((missed > 0))
