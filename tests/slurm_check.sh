#!/bin/sh
# The job array's slices: every micrograph of the list is picked by exactly
# one task, in list order within a slice, whatever the task count and the
# first id; with the number of slices given, ids are slices; names reach
# gvexmatch as written (spaces, glob characters, a leading dash, DOS line
# ends); a task fails when a micrograph of its slice was not picked; bad
# calls are refused. gvexmatch is a stand-in that lists its micrographs.
# Usage: slurm_check.sh SOURCE_DIR SCRATCH
set -eu
src=$1 work=$2
rm -rf "$work" && mkdir -p "$work/bin" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
cat >bin/gvexmatch <<'EOF'
#!/bin/bash
# One line a micrograph; its picks file made, unless it is named in skip.txt.
for a in "$@"; do
  case $a in --*) continue ;; *[a-z]*) ;; *) continue ;; esac
  echo "$a" >>calls.txt
  case $a in *.mrc) a=${a%.mrc} ;; esac
  grep -qxF -- "$a.mrc" skip.txt 2>/dev/null || : >"${a}_vexmatch.box"
done
EOF
chmod +x bin/gvexmatch
array() {  # list, id, first id, task count, [slices]; the last id is $max or the first + count - 1
  list=$1 id=$2 min=$3 count=$4 && shift 4
  PATH="$work/bin:$PATH" SLURM_ARRAY_TASK_ID=$id SLURM_ARRAY_TASK_MIN=$min SLURM_ARRAY_TASK_COUNT=$count \
    SLURM_ARRAY_TASK_MAX=${max:-$((min + count - 1))} \
    bash "$src/tools/slurm/array.sbatch" "$list" "$@" >out.log 2>err.log
}
printf 'm%02d.mrc\n' $(seq 1 23) >list.txt && printf '\n' >>list.txt
grep -v '^$' list.txt >want.txt
for count in 1 2 5 23 30; do
  for min in 0 1; do
    rm -f calls.txt && id=$min
    while [ $id -lt $((min + count)) ]; do array list.txt $id $min $count || fail "count $count: $(cat err.log)"; id=$((id + 1)); done
    sort calls.txt | cmp -s - want.txt || fail "count $count from id $min: slices do not cover the list once"
  done
done
rm -f calls.txt && array list.txt 1 0 5 && [ "$(tr '\n' ' ' <calls.txt)" = "m02.mrc m07.mrc m12.mrc m17.mrc m22.mrc " ] ||
  fail "slice order"
rm -f calls.txt && array list.txt 3 3 2 16 && [ "$(tr '\n' ' ' <calls.txt)" = "m04.mrc m20.mrc " ] ||
  fail "slice 3 of 16 by its id"
if max=6 array list.txt 4 0 4; then fail "ids with gaps (0-6:2) taken without the number of slices"; fi
grep -q "have gaps: give the number of slices" err.log || fail "gaps: $(cat err.log)"
printf 'my mic.mrc\r\nm[12].mrc\r\n-m4.mrc\r\nd.v2/b.MRC\r\n\r\n' >-odd.txt && mkdir d.v2
rm -f calls.txt && array -odd.txt 0 0 1 || fail "odd names: $(cat err.log)"
printf 'my mic.mrc\nm[12].mrc\n./-m4.mrc\nd.v2/b.MRC\n' | cmp -s - calls.txt || fail "odd names changed: $(cat calls.txt)"
rm -f ./*_vexmatch.box && echo "m07.mrc" >skip.txt
if array list.txt 1 0 5; then fail "a micrograph not picked, and the task succeeded"; fi
grep -q "m07.mrc was not picked" err.log || fail "the micrograph not picked is not named"
rm skip.txt && head -c 100 /dev/zero >m.mrc && : >empty.txt
for bad in m.mrc empty.txt missing.txt "list.txt x" "list.txt 16 m01.mrc"; do
  # shellcheck disable=SC2086
  set -- $bad && if array "$1" 0 0 1 ${2:-} ${3:-}; then fail "array.sbatch $bad: accepted"; fi
  [ -s err.log ] || fail "array.sbatch $bad: no message"
done
echo "slurm_check: all cases passed"
