#!/bin/sh
# Cut-off rules on real micrographs with reference picks (the ten
# beta-galactosidase micrographs: NAME.mrc and NAME_truth.star in DATA_DIR,
# 7.08 A per pixel, particles of 190 A, a pick is true within 10 px).
# The data stay where they are; WORK_DIR gets links and the picks.
# Exit status 77 (skipped) when DATA_DIR holds no micrographs; with --check,
# 1 when the decoy rule misses its targets.
# Usage: bgal_set.sh [--check] BUILD_DIR DATA_DIR WORK_DIR
set -eu
check=""
[ "${1:-}" = --check ] && check=--check && shift
build=$(cd "$1" && pwd) work=$3
here=$(cd "$(dirname "$0")" && pwd)
[ -n "$2" ] && [ -d "$2" ] || { echo "bgal_set: no folder '$2': skipped"; exit 77; }
data=$(cd "$2" && pwd)
set -- "$data"/*.mrc
[ -e "$1" ] || { echo "bgal_set: no micrographs in $data: skipped"; exit 77; }
mkdir -p "$work" && cd "$work"
for side in real decoy; do
  rm -rf "$side" && mkdir "$side"
  for m in "$@"; do ln -s "$m" "$side/"; done
  flag=""
  [ $side = decoy ] && flag=--dont_invertT
  # The flag goes first: a flag takes a following word that starts with neither
  # a letter nor "-" as its value.
  (cd $side && "$build/gvexmatch" $flag --apixM 7.08 --diameter 190 --cc_cutoff 0 ./*.mrc >pick.log)
done
(cd real && "$build/report/gvexreport" --out rep --apixM 7.08 --diameter 190 --apply ./*.mrc >report.log)
: >list
for m in "$@"; do
  b=$(basename "$m" .mrc)
  [ -e "$data/${b}_truth.star" ] || continue
  echo "real/${b}_vexmatch.box decoy/${b}_vexmatch.box $data/${b}_truth.star real/${b}_vexmatch_auto.box 10 13.42" >>list
done
python3 "$here/cutoff_eval.py" table $check bgal=list
