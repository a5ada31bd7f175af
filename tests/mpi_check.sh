#!/bin/sh
# gvexmatch_mpi against one-process gvexmatch on generated micrographs:
# identical files with 2 and 3 ranks; a corrupt and a wrong-size micrograph
# in the middle are reported and skipped (status 1); a job killed part-way
# and resumed with --do_unfinished ends with the files of an uninterrupted run;
# a damaged first micrograph and a name listed twice. With the automatic
# cut-off, the files and page of gvexreport --pick --apply, whatever the
# ranks, whichever micrographs fail, and when resumed after a kill.
# Usage: mpi_check.sh GVEXMATCH GVEXMATCH_MPI MAKEMIC SCRATCH [GVEXMATCH_TUNE [GVEXREPORT]]
set -eu
gvex=$1 mpi=$2 makemic=$3 work=$4 tune=${5:-} report=${6:-}
rm -rf "$work" && mkdir -p "$work/mics"
cd "$work/mics"
for i in 1 2 3 4 5 6; do "$makemic" make m$i.mrc --nx 512 --ny 512 --apix 1.34 --diameter 120 --seed $i >/dev/null; done
"$makemic" make small.mrc --nx 512 --ny 384 --apix 1.34 --diameter 120 --seed 9 >/dev/null
head -c 3000 m6.mrc > broken.mrc
# FFTW system wisdom would give the MPI runs other bits than gvexmatch's estimated plans.
export GVEX_FFTW_WISDOM=none
run="mpirun --allow-run-as-root --oversubscribe -x GVEX_FFTW_WISDOM"
opts="--diameter 120 --write_mic_mask 1"
fail() { echo "FAIL: $*"; exit 1; }
# fresh DIR [MICROGRAPHS]: a folder of micrographs (by default m1-m6) to pick in.
fresh() { rm -rf "$work/$1" && mkdir "$work/$1" && cp "$work"/${2:-mics/m?.mrc} "$work/$1/" && cd "$work/$1"; }
# same DIR [AS]: DIR holds the files of AS (by default one), and no others.
same() { ref="$work/${2:-one}"
         (cd "$ref" && find . -type f) | while read -r f; do cmp -s "$ref/$f" "$work/$1/$f" || fail "$1: $f differs"; done || exit 1
         [ "$(cd "$work/$1" && find . -type f | wc -l)" = "$(cd "$ref" && find . -type f | wc -l)" ] ||
           fail "$1: other files"; }

fresh one && "$gvex" $opts m1.mrc m2.mrc m3.mrc m4.mrc m5.mrc >out.log || fail "gvexmatch failed"; rm out.log
for k in 1 2 3; do
  fresh k$k && $run -n $k "$mpi" $opts m1.mrc m2.mrc m3.mrc m4.mrc m5.mrc >../k$k.log 2>&1 || fail "-n $k failed"
  same k$k
  grep -q "^\[5/5\] m.\.mrc picks [0-9]*  .* s  ETA 0:00:00$" ../k$k.log || fail "-n $k: no last progress line"
  [ "$(grep -c '^\*\*\*\*' ../k$k.log)" = 1 ] || fail "-n $k: the echo is not printed once"
done

# Keep going: both bad micrographs named, status 1, the others as before.
fresh bad && cp ../mics/broken.mrc ../mics/small.mrc .
if $run -n 3 "$mpi" $opts m1.mrc m2.mrc broken.mrc m3.mrc small.mrc m4.mrc m5.mrc >../bad.log 2>&1; then fail "bad: status 0"; fi
grep -q "^    broken.mrc: rank [12]: .*broken.mrc" ../bad.log || fail "bad: broken.mrc not named"
grep -q "^    small.mrc: rank [12]: Micrograph small.mrc has a different size" ../bad.log || fail "bad: small.mrc not named"
grep -q "^Summary: 7 micrographs, 5 picked, 0 skipped, 2 failed" ../bad.log || fail "bad: summary"
rm broken.mrc small.mrc small_nonunique.box broken_nonunique.box && same bad

# Killed part-way (a rank dies at its second micrograph), then resumed.
fresh resume
if GVEX_TEST_STOP_AT=micrograph:2 $run -x GVEX_TEST_STOP_AT -n 2 "$mpi" $opts m1.mrc m2.mrc m3.mrc m4.mrc m5.mrc \
   >../killed.log 2>&1; then fail "resume: the kill did not happen"; fi
$run -n 3 "$mpi" $opts --do_unfinished 1 m1.mrc m2.mrc m3.mrc m4.mrc m5.mrc >../resume.log 2>&1 || fail "resume failed"
grep -q "skipped (finished before)" ../resume.log || fail "resume: nothing skipped"
same resume
# A damaged first micrograph, or a folder, is reported at its turn and the next one fixes
# the sizes; a micrograph listed twice, in another spelling, is picked once.
fresh first && cp ../mics/broken.mrc . && mkdir folder.mrc
if $run -n 3 "$mpi" $opts folder.mrc broken.mrc m1.mrc m2.mrc ./m1.mrc m3.mrc m4.mrc m5.mrc >../first.log 2>&1; then
  fail "first: status 0"
fi
grep -q "^    broken.mrc: rank [12]: .*broken.mrc" ../first.log || fail "first: broken.mrc not named"
grep -q "^    folder.mrc: rank [12]: .*folder.mrc is a folder" ../first.log || fail "first: folder.mrc not named"
grep -q "\./m1.mrc skipped (listed before)" ../first.log || fail "first: ./m1.mrc was not skipped"
grep -q "^Summary: 8 micrographs, 5 picked, 1 skipped, 2 failed" ../first.log || fail "first: summary"
# Every micrograph damaged: the first one's reason, not the usage.
if $run -n 2 "$mpi" $opts folder.mrc broken.mrc >../none.log 2>&1; then fail "none: status 0"; fi
grep -q "folder.mrc is a folder" ../none.log && ! grep -q "No valid files" ../none.log || fail "none: no reason"
rm -r broken.mrc broken_nonunique.box folder.mrc folder_nonunique.box && same first
# Plans from wisdom that gvexmatch_tune measured: said, and the same files
# run after run.
if [ -n "$tune" ]; then
  fresh tune1 && "$tune" ../wisdom --diameter 120 m1.mrc >../tune.log || fail "tune failed"
  [ ! -e m1_vexmatch.box ] || fail "tune: wrote beside the micrograph"
  for t in tune1 tune2; do
    fresh $t && $run -n 2 "$mpi" --fftw_wisdom ../wisdom $opts m1.mrc m2.mrc >../$t.log 2>&1 || fail "$t failed"
  done
  grep -q "^FFT plans: from wisdom ../wisdom" ../tune1.log || fail "tune: the wisdom is not named"
  cd "$work/tune1" && for f in *; do cmp -s "$f" "../tune2/$f" || fail "tune: $f differs run to run"; done
  # Unshrunk, the scan's column transforms of a template's first and later
  # micrographs have other strides: the same micrograph twice in one rank's
  # queue gets the same picks all the same.
  # (Whether measured plans of the two strides round alike is the machine's:
  # the maps, which show every bit, are compared.)
  fresh tune0 mics/m1.mrc && "$makemic" make m1.mrc --nx 512 --ny 512 --apix 2 --diameter 100 --seed 1 >/dev/null
  cp m1.mrc again.mrc && o0="--apixM 2 --diameter 100 --speed 0"
  # shellcheck disable=SC2086 # the options, word by word
  "$tune" ../wisdom0 $o0 m1.mrc >../tune0.log || fail "tune --speed 0 failed"
  # shellcheck disable=SC2086
  $run -n 1 "$mpi" --fftw_wisdom ../wisdom0 $o0 --write_ccmax_mic 1 m1.mrc again.mrc >../tune0.log 2>&1 ||
    fail "tune0 failed"
  for f in vexmatch.box ccmax.mrc; do
    cmp -s m1_$f again_$f || fail "tune: m1_$f differs from its copy's: its bits depend on its place in the queue"
  done
  # Two runs on one wisdom file at once: the second waits for the first,
  # whose plans it would otherwise overwrite.
  # shellcheck disable=SC2086
  "$tune" ../both $o0 m1.mrc >../both0.log 2>&1 & "$tune" ../both $o0 --speed 1 m1.mrc >../both1.log 2>&1 || fail "tune 1"
  wait $! || fail "tune: one of two runs at once failed"
  grep -q "waiting for another gvexmatch_tune" ../both0.log ../both1.log || fail "tune: two runs at once did not wait"
  # Refused: an unknown option (status 2, where gvexmatch says 0), and an
  # option where the wisdom file goes (no file of that name).
  status=0; "$tune" ../w1 --diameter 120 --bogus 1 m1.mrc >/dev/null 2>&1 || status=$?
  [ $status = 2 ] || fail "tune: an unknown option ended with status $status"
  status=0; "$tune" --diameter 120 m1.mrc >/dev/null 2>&1 || status=$?
  [ $status = 2 ] && [ ! -e ./--diameter ] || fail "tune: an option taken for the wisdom file (status $status)"
fi
# The automatic cut-off: crowded and sparse micrographs cut as one run,
# exactly as gvexreport cuts them; a micrograph that fails is left out of
# the run, not fatal to it.
if [ -n "$report" ]; then
  mkdir "$work/cut" && cd "$work/cut"
  for i in 1 2 3 4; do
    d=0.9; [ $i -gt 2 ] && d=0.3
    "$makemic" make c$i.mrc --nx 1024 --ny 1024 --apix 1.34 --diameter 120 --seed 4$i --noise 16 --density $d >/dev/null
  done
  cuts="c1.mrc c2.mrc c3.mrc c4.mrc" opts="--diameter 120"
  lines() { grep "^c.\.mrc: .* picks, cut-off\|^suggested" "$1"; }
  fresh gr cut/c?.mrc && "$report" --out rep --pick --apply $opts $cuts >../gr.log || fail "gvexreport failed"
  rm rep/pick.log && lines ../gr.log >../gr.lines
  [ "$(grep -c "keeps [1-9]" ../gr.lines)" = 4 ] || fail "cut: a micrograph keeps no picks"
  for k in 1 3; do
    fresh cut$k cut/c?.mrc && $run -n $k "$mpi" --auto_cutoff --report rep $opts $cuts >../cut$k.log 2>&1 ||
      fail "cut -n $k failed"
    same cut$k gr
    lines ../cut$k.log | cmp -s - ../gr.lines || fail "cut -n $k: other cut-off lines"
  done
  # Killed just as a micrograph is finished, and resumed: the micrographs
  # picked before are cut from their decoys files, as if the run had not
  # stopped (the decoys are committed with the picks, not after them).
  fresh cutres cut/c?.mrc
  if GVEX_TEST_STOP_AT=picked:2 $run -x GVEX_TEST_STOP_AT -n 2 "$mpi" --auto_cutoff --report rep $opts $cuts \
     >../cutkill.log 2>&1; then fail "cutres: the kill did not happen"; fi
  $run -n 3 "$mpi" --auto_cutoff --report rep --do_unfinished 1 $opts $cuts >../cutres.log 2>&1 || fail "cutres failed"
  grep -q "skipped (finished before)" ../cutres.log || fail "cutres: nothing skipped"
  same cutres gr
  # gvexreport without --pick reads the decoys files too.
  fresh again cut/c?.mrc && cp ../gr/c?_* . && "$report" --out rep --apply $opts $cuts >../again.log ||
    fail "gvexreport again failed"
  lines ../again.log | cmp -s - ../gr.lines || fail "again: other cut-off lines"
  for f in c?_vexmatch_auto.*; do cmp -s "$f" "../gr/$f" || fail "again: $f differs"; done
  fresh cutbad cut/c?.mrc && cp ../mics/broken.mrc .
  if $run -n 3 "$mpi" --auto_cutoff --report rep $opts c1.mrc broken.mrc c2.mrc c3.mrc c4.mrc >../cutbad.log 2>&1; then
    fail "cutbad: status 0"
  fi
  grep -q "^Summary: 5 micrographs, 4 picked, 0 skipped, 1 failed" ../cutbad.log || fail "cutbad: summary"
  lines ../cutbad.log | cmp -s - ../gr.lines || fail "cutbad: other cut-off lines"
  for f in c?_vexmatch_auto.* rep/summary.star; do cmp -s "$f" "../gr/$f" || fail "cutbad: $f differs"; done
  if $run -n 2 "$mpi" --auto_cutoff --cc_cutoff 0.2 $opts c1.mrc >../refused.log 2>&1; then fail "--cc_cutoff taken"; fi
  grep -q "^gvexmatch_mpi: --auto_cutoff and --report keep every grid maximum" ../refused.log || fail "no refusal"
  # Every micrograph failing after the start (its output names taken by
  # folders): no cut-off suggested from nothing, no empty page.
  fresh cutnone "cut/c[12].mrc" && mkdir c1_vexmatch.star c2_vexmatch.star
  if $run -n 2 "$mpi" --auto_cutoff --report rep $opts c1.mrc c2.mrc >../cutnone.log 2>&1; then fail "cutnone: status 0"; fi
  grep -q "^no micrograph was picked: no cut-off to suggest, and no page written$" ../cutnone.log &&
    ! grep -q "^suggested" ../cutnone.log && [ ! -e rep/index.html ] || fail "cutnone: a cut-off or a page from nothing"
  if $run -n 2 "$mpi" --report --auto_cutoff $opts c1.mrc >../noreport.log 2>&1; then fail "noreport: status 0"; fi
  grep -q "^gvexmatch_mpi: --report needs a folder, not the option --auto_cutoff" ../noreport.log &&
    [ ! -e ./--auto_cutoff ] || fail "noreport: an option taken as the folder"
  touch notdir
  if $run -n 2 "$mpi" --report notdir $opts c1.mrc >../notdir.log 2>&1; then fail "notdir: status 0"; fi
  grep -q "^gvexmatch_mpi: cannot make the report folder notdir" ../notdir.log || fail "notdir: not said"
  # A name the summary cannot carry is refused before any work.
  cp c1.mrc "q'u\".mrc"
  if $run -n 2 "$mpi" --report quoted $opts c1.mrc "q'u\".mrc" >../quoted.log 2>&1; then fail "quoted: status 0"; fi
  grep -q "holds a line break or both kinds of quote" ../quoted.log && [ ! -e c1_vexmatch.box ] ||
    fail "quoted: not refused before picking"
fi
echo "mpi_check: all cases passed"
