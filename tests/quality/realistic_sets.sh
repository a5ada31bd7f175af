#!/bin/sh
# Cut-off rules on realistic generated sets: SNR 0.03, 0.05 and 0.1, sparse
# and crowded, picked with the synthetic disc and with projection templates.
# gvexreport --pick --apply picks each set (with --cc_cutoff 0) and cuts it
# (the "auto" column); gvexmatch picks it again with the templates' contrast
# the other way round (the decoy run) for the rules cutoff_eval.py scores
# beside it, and prints the F1 of every rule; then the warnings gvexreport
# gave on each set. Sets and picks already in WORK are reused (remove
# WORK/runs to pick again, WORK/runs/*/real to run only gvexreport again).
# BATCH "main" (default) has sparse, crowded and empty sets (no particles:
# the table shows the picks kept per micrograph); each later batch was made
# to judge a rule found on the batches before it, with its own micrograph
# size, pixel size, particle sizes and densities (the case lists below;
# tests/quality/README.md has them as a table and says what each judged).
# DENSITIES (e.g. "sparse") limits a batch to those of its densities.
# Usage: realistic_sets.sh BUILD_DIR WORK_DIR [MICROGRAPHS_PER_SET [BATCH [DENSITIES]]]
set -eu
build=$(cd "$1" && pwd) work=$2 per_set=${3:-4} batch=${4:-main} only=${5:-}
here=$(cd "$(dirname "$0")" && pwd)
realmic=$build/tools/gvex_realmic gvex=$build/gvexmatch report=$build/report/gvexreport
case $batch in
  main) apix=1.06 size=4096 densities="sparse crowded empty" prefix="" ;;
  check) apix=1.35 size=2048 densities="sparse medium crowded" prefix="check " ;;
  fresh) apix=1.2 size=3072 densities="sparse medium crowded" prefix="fresh " ;;
  hold) apix=1.1 size=2560 densities="sparse medium crowded" prefix="hold " ;;
  late) apix=1.15 size=2880 densities="sparse medium empty" prefix="late " ;;
  next) apix=1.25 size=2304 densities="sparse medium crowded empty" prefix="next " ;;
  last) apix=1.0 size=2688 densities="sparse medium crowded empty" prefix="last " ;;
  extra) apix=1.3 size=2560 densities="sparse medium crowded empty" prefix="extra " ;;
  spare) apix=1.15 size=2432 densities="sparse medium crowded empty" prefix="spare " ;;
  other) apix=1.4 size=2304 densities="sparse medium crowded empty" prefix="other " ;;
  anew) apix=1.12 size=2560 densities="sparse medium crowded empty" prefix="anew " ;;
  after) apix=1.08 size=2816 densities="sparse medium crowded empty" prefix="after " ;;
  coda) apix=1.18 size=2944 densities="sparse medium crowded empty" prefix="coda " ;;
  tail) apix=1.22 size=2624 densities="sparse medium crowded empty" prefix="tail " ;;
  more) apix=1.16 size=2752 densities="sparse medium crowded empty" prefix="more " ;;
  mix) apix=1.24 size=2496 densities="sparse medium crowded empty" prefix="mix " ;;
  long) apix=1.2 size=2304 densities="sparse empty" prefix="long " ;;
  wide) apix=1.1 size=2560 densities="sparse" prefix="wide " ;;
  broad) apix=1.28 size=2432 densities="sparse empty" prefix="broad " ;;
  *) echo "realistic_sets: batch main, check, fresh, hold, late, next, last, extra, spare, other, anew, after, coda, tail, more, mix, long, wide or broad, not $batch" >&2; exit 2 ;;
esac
if [ -n "$only" ]; then
  kept=""
  for density in $densities; do
    case " $only " in *" $density "*) kept="$kept $density" ;; esac
  done
  [ -n "$kept" ] || { echo "realistic_sets: batch $batch has none of the densities $only (it has $densities)" >&2; exit 2; }
  densities=$kept
fi
mkdir -p "$work" && cd "$work"
lists=""
for snr in 0.03 0.05 0.1; do
  case $batch$snr in main0.03) d=180 ;; main0.05) d=150 ;; main*) d=120 ;;
    check0.03) d=200 ;; check0.05) d=100 ;; check*) d=160 ;;
    fresh0.03) d=130 ;; fresh0.05) d=170 ;; fresh*) d=110 ;;
    hold0.03) d=140 ;; hold0.05) d=190 ;; hold*) d=125 ;;
    late0.03) d=160 ;; late0.05) d=115 ;; late*) d=210 ;;
    next0.03) d=150 ;; next0.05) d=95 ;; next*) d=230 ;;
    last0.03) d=240 ;; last0.05) d=125 ;; last*) d=175 ;;
    extra0.03) d=170 ;; extra0.05) d=140 ;; extra*) d=110 ;;
    spare0.03) d=190 ;; spare0.05) d=135 ;; spare*) d=155 ;;
    other0.03) d=120 ;; other0.05) d=200 ;; other*) d=145 ;;
    anew0.03) d=165 ;; anew0.05) d=105 ;; anew*) d=215 ;;
    after0.03) d=135 ;; after0.05) d=185 ;; after*) d=100 ;;
    coda0.03) d=155 ;; coda0.05) d=220 ;; coda*) d=115 ;;
    tail0.03) d=175 ;; tail0.05) d=130 ;; tail*) d=205 ;;
    mix0.03) d=170 ;; mix0.05) d=125 ;; mix*) d=200 ;;
    long0.03) d=160 ;; long0.05) d=140 ;; long*) d=190 ;;
    wide0.03) d=150 ;; wide0.05) d=175 ;; wide*) d=210 ;;
    broad0.03) d=165 ;; broad0.05) d=200 ;; broad*) d=135 ;;
    more0.03) d=195 ;; more0.05) d=145 ;; *) d=225 ;; esac
  for density in $densities; do
    case $batch$density in mainsparse) f=0.08 ;; mainempty) f=0 ;; main*) f=0.45 ;;
      checksparse) f=0.05 ;; checkmedium) f=0.2 ;; check*) f=0.5 ;;
      freshsparse) f=0.1 ;; freshmedium) f=0.25 ;; fresh*) f=0.4 ;;
      holdsparse) f=0.06 ;; holdmedium) f=0.2 ;; hold*) f=0.45 ;;
      latesparse) f=0.07 ;; latemedium) f=0.22 ;; lateempty) f=0 ;;
      nextsparse) f=0.05 ;; nextmedium) f=0.15 ;; nextempty) f=0 ;; next*) f=0.35 ;;
      lastsparse) f=0.08 ;; lastmedium) f=0.18 ;; lastempty) f=0 ;; last*) f=0.4 ;;
      extrasparse) f=0.06 ;; extramedium) f=0.2 ;; extraempty) f=0 ;; extra*) f=0.4 ;;
      sparesparse) f=0.06 ;; sparemedium) f=0.18 ;; spareempty) f=0 ;; spare*) f=0.4 ;;
      othersparse) f=0.07 ;; othermedium) f=0.2 ;; otherempty) f=0 ;; other*) f=0.45 ;;
      anewsparse) f=0.06 ;; anewmedium) f=0.2 ;; anewempty) f=0 ;; anew*) f=0.4 ;;
      aftersparse) f=0.07 ;; aftermedium) f=0.18 ;; afterempty) f=0 ;; after*) f=0.45 ;;
      codasparse) f=0.06 ;; codamedium) f=0.2 ;; codaempty) f=0 ;; coda*) f=0.4 ;;
      tailsparse) f=0.07 ;; tailmedium) f=0.2 ;; tailempty) f=0 ;; tail*) f=0.42 ;;
      mixsparse) f=0.07 ;; mixmedium) f=0.2 ;; mixempty) f=0 ;; mix*) f=0.42 ;;
      longsparse) f=0.06 ;; longempty) f=0 ;; widesparse) f=0.06 ;;
      broadsparse) f=0.065 ;; broadempty) f=0 ;;
      moresparse) f=0.06 ;; moremedium) f=0.2 ;; moreempty) f=0 ;; *) f=0.4 ;; esac
    set=$(echo "${prefix}snr${snr}_$density" | tr ' ' _)
    protein=$(echo "$prefix$snr $density" | cksum | cut -c1-6)
    mkdir -p "sets/$set"
    i=1
    while [ "$i" -le "$per_set" ]; do
      mic=sets/$set/m$i.mrc
      # Carbon alternately brighter and darker; every fourth micrograph has none.
      step=0.15 carbon=0.15
      [ $((i % 2)) = 0 ] && step=-0.15
      [ $((i % 4)) = 0 ] && carbon=0
      [ -s "${mic%.mrc}_truth.txt" ] ||
        "$realmic" "$mic" --nx $size --ny $size --apix $apix --diameter $d --snr $snr --density $f --seed "$i$protein" \
          --protein-seed "$protein" --carbon $carbon --carbon-step $step >/dev/null
      i=$((i + 1))
    done
    [ -s "sets/$set/templates.mrcs" ] ||
      "$realmic" "sets/$set/t.mrc" --nx 512 --ny 512 --apix $apix --diameter $d --protein-seed "$protein" \
        --density 0 --templates "sets/$set/templates.mrcs" 4 >/dev/null
    for kind in disc proj; do
      run=runs/${set}_$kind
      tmpl=""
      [ $kind = proj ] && tmpl="--T $work/sets/$set/templates.mrcs --apixT $apix"
      for side in real decoy; do
        [ -e "$run/picked" ] && [ -d "$run/$side" ] && continue
        rm -rf "${run:?}/$side" && mkdir -p "$run/$side"
        for m in sets/"$set"/m*.mrc; do ln -s "$work/$m" "$run/$side/"; done
        # The flag goes first: a flag takes a following word that starts
        # with neither a letter nor "-" as its value.
        # shellcheck disable=SC2086 # options held in words
        if [ $side = decoy ]; then
          (cd "$run/$side" && "$gvex" --dont_invertT --apixM $apix --diameter $d --cc_cutoff 0 $tmpl m*.mrc >pick.log)
        else
          (cd "$run/$side" && "$report" --out rep --pick --apply --apixM $apix --diameter $d $tmpl m*.mrc >report.log)
        fi
      done
      touch "$run/picked"
      # A pick is true within half a particle radius.
      radii=$(awk -v d=$d -v a=$apix 'BEGIN { print d / 4 / a, d / 2 / a }')
      : >"$run/list"
      for m in sets/"$set"/m*.mrc; do
        b=$(basename "$m" .mrc)
        echo "$run/real/${b}_vexmatch.box $run/decoy/${b}_vexmatch.box sets/$set/${b}_truth.txt" \
          "$run/real/${b}_vexmatch_auto.box $radii" >>"$run/list"
      done
      lists="$lists ${set}_$kind=$run/list"
    done
  done
done
# shellcheck disable=SC2086 # one word per set
python3 "$here/cutoff_eval.py" table $lists
echo "warnings (set: how many, and which)"
for list in $lists; do
  log=$(dirname "${list#*=}")/real/report.log
  which=$(grep '^warning' "$log" | sed 's/^warning: [^:]*: //' | sort | uniq -c | tr -s ' ' | tr '\n' ';')
  echo "${list%%=*}: $(grep -c '^warning' "$log" || true) $which"
done
