#!/bin/sh
# The job-array slicing: every micrograph of the list lands in exactly one
# slice, in list order within a slice, whatever the task count; bad calls
# are refused. The array script runs here with a fake gvexmatch that lists
# its micrographs.
# Usage: slurm_check.sh SOURCE_DIR SCRATCH
set -eu
src=$1 work=$2
rm -rf "$work" && mkdir -p "$work/bin" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
printf 'm%02d.mrc\n' $(seq 1 23) > list.txt
printf '\n' >> list.txt
grep -v '^$' list.txt | sort > want.txt
for count in 1 2 5 23 30; do
  : > all.txt
  t=0
  while [ $t -lt $count ]; do sh "$src/tools/slurm/slice.sh" list.txt $t $count >> all.txt; t=$((t + 1)); done
  sort all.txt | cmp -s - want.txt || fail "count $count: slices do not cover the list once"
done
[ "$(sh "$src/tools/slurm/slice.sh" list.txt 1 5 | tr '\n' ' ')" = "m02.mrc m07.mrc m12.mrc m17.mrc m22.mrc " ] || fail "order"
if sh "$src/tools/slurm/slice.sh" list.txt 5 5 2>/dev/null; then fail "task beyond count accepted"; fi
if sh "$src/tools/slurm/slice.sh" missing.txt 0 1 2>/dev/null; then fail "missing list accepted"; fi
printf '#!/bin/sh\necho "$@" >> %s/calls.txt\n' "$work" > bin/gvexmatch && chmod +x bin/gvexmatch
for id in 10 11 12; do
  PATH="$work/bin:$PATH" SLURM_ARRAY_TASK_COUNT=3 SLURM_ARRAY_TASK_ID=$id SLURM_ARRAY_TASK_MIN=10 \
    SLICE="$src/tools/slurm/slice.sh" bash "$src/tools/slurm/array.sbatch" list.txt >/dev/null
done
[ "$(wc -l < calls.txt)" = 3 ] || fail "array: three runs expected"
[ "$(tr ' ' '\n' < calls.txt | grep -c '^m[0-9]*\.mrc$')" = 23 ] || fail "array: 23 micrographs expected"
grep -q -- '--do_unfinished 1' calls.txt || fail "array: runs must resume"
echo "slurm_check: all cases passed"
