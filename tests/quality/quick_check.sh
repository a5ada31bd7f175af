#!/bin/sh
# The decoy cut-off of gvexreport --pick on a few small realistic micrographs
# (gvex_realmic, 3072^2 at 1.2 A, particles of 170 A, SNR 0.05): three
# sparse (6 % of the area under particles) and two crowded (45 %), picked
# with the synthetic disc and with four projection templates. Per set, F1 of
# the automatic cut-off against the best single cut-off, no cut-off and the
# default 0.15 (cutoff_eval.py --check: at least 0.95 x the best and no more
# than 0.01 below the better of the other two). No warning may fire on these
# micrographs; the wrong-contrast warning must fire when the templates'
# contrast is inverted. A minute on two cores; realistic_sets.sh measures
# the full batches.
# Usage: quick_check.sh BUILD_DIR WORK_DIR
set -eu
build=$(cd "$1" && pwd) work=$2
here=$(cd "$(dirname "$0")" && pwd)
realmic=$build/tools/gvex_realmic report=$build/report/gvexreport
apix=1.2 d=170 size=3072
fail() { echo "FAIL: $*"; exit 1; }
rm -rf "$work" && mkdir -p "$work" && cd "$work"
"$realmic" t.mrc --nx 512 --ny 512 --apix $apix --diameter $d --protein-seed 78 --density 0 \
  --templates templates.mrcs 4 >/dev/null
lists=""
for density in sparse crowded; do
  case $density in sparse) f=0.06 n=3 ;; *) f=0.45 n=2 ;; esac
  mkdir -p $density
  i=1
  while [ $i -le $n ]; do
    # Carbon alternately brighter and darker than the ice.
    step=0.15
    [ $((i % 2)) = 0 ] && step=-0.15
    "$realmic" $density/m$i.mrc --nx $size --ny $size --apix $apix --diameter $d --snr 0.05 --density $f \
      --seed 3$i --protein-seed 78 --carbon-step $step >/dev/null
    i=$((i + 1))
  done
  for kind in disc proj; do
    run=run_${density}_$kind
    mkdir -p $run
    for m in $density/m*.mrc; do ln -s "$work/$m" $run/; done
    tmpl=""
    [ $kind = proj ] && tmpl="--T $work/templates.mrcs --apixT $apix"
    # shellcheck disable=SC2086 # options held in words
    (cd $run && "$report" --out rep --pick --apply --apixM $apix --diameter $d $tmpl m*.mrc >report.log) ||
      fail "gvexreport --pick failed on $run (see $work/$run/rep/pick.log)"
    if grep '^warning' $run/report.log; then fail "a warning on the realistic micrographs of $run"; fi
    : >$run/list
    for m in $density/m*.mrc; do
      b=$(basename "$m" .mrc)
      # A pick is true within half a particle radius; the radius sizes the usable area.
      echo "$run/${b}_vexmatch.box - $density/${b}_truth.txt $run/${b}_vexmatch_auto.box" \
        "$(awk -v d=$d -v a=$apix 'BEGIN { print d / 4 / a, d / 2 / a }')" >>$run/list
    done
    lists="$lists ${density}_$kind=$run/list"
  done
done
# shellcheck disable=SC2086 # one word per set
python3 "$here/cutoff_eval.py" table --check $lists || fail "the automatic cut-off misses its targets"

# Templates of the wrong contrast: the decoys are then the particles.
mkdir -p inverted && for m in sparse/m*.mrc; do ln -s "$work/$m" inverted/; done
(cd inverted && "$report" --out rep --pick --dont_invertT --apixM $apix --diameter $d --T "$work/templates.mrcs" \
  --apixT $apix m*.mrc >report.log) || fail "gvexreport --pick --dont_invertT failed"
[ "$(grep -c '^warning: m[0-9].mrc: the decoys .* outscore the picks on this run.s micrographs: templates of the wrong contrast' \
  inverted/report.log)" = 3 ] || fail "the wrong contrast was not found on every micrograph: $(cat inverted/report.log)"
echo "quick_check: targets met, no warning on the realistic micrographs, wrong contrast found"
