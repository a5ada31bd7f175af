#!/bin/sh
# gvexreport on generated sets from easy to very hard, sparse and crowded,
# each with contamination: per set, the automatic cut-off reaches 0.95 of the
# best F1 any single cut-off reaches and is never worse than the default 0.15
# by more than 0.02. Picks cut before are kept as cut. Then the refusals:
# no micrographs, a report folder that cannot be made, gvexmatch's options
# refused by --pick; and a micrograph that cannot be read or picked, left out
# of a run that goes on.
# Usage: report_check.sh GVEXMATCH GVEXREPORT MAKEMIC SCRATCH
set -eu
gvex=$1 report=$2 makemic=$3 work=$4
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
sets=""
for noise in 4 16 24 32; do for density in 0.3 0.9; do
  for seed in 1 2; do
    "$makemic" make n${noise}_d${density}_$seed.mrc --nx 2048 --ny 2048 --apix 1.34 --diameter 120 \
      --seed $seed$noise --noise $noise --density $density >/dev/null
  done
  sets="$sets n${noise}_d${density}"
done; done
"$gvex" --diameter 120 --cc_cutoff 0 n*.mrc >pick.log || fail "gvexmatch failed"
"$report" --out rep --apixM 1.34 --diameter 120 --apply n*.mrc >report.log || fail "gvexreport failed"
grep -q '^suggested --cc_cutoff [0-9]*\.[0-9][0-9][0-9][0-9]$' report.log || fail "no suggested cut-off line"
echo "set          auto   best  default (F1)"
for s in $sets; do
  auto=$("$makemic" f1 22 -1e30 ${s}_1_vexmatch_auto.box ${s}_1_truth.txt ${s}_2_vexmatch_auto.box ${s}_2_truth.txt)
  all=$("$makemic" f1 22 0.15 ${s}_1_vexmatch.box ${s}_1_truth.txt ${s}_2_vexmatch.box ${s}_2_truth.txt)
  a=$(echo "$auto" | awk '{print $2}') b=$(echo "$all" | awk '{print $6}') d=$(echo "$all" | awk '{print $2}')
  printf '%-12s %s %s %s\n' "$s" "$a" "$b" "$d"
  awk -v a="$a" -v b="$b" -v d="$d" 'BEGIN { exit !(a >= 0.95 * b && a >= d - 0.02) }' || fail "$s: auto $a, best $b, default $d"
done
cmp -s n4_d0.3_1_vexmatch_auto.star n4_d0.3_1_vexmatch.star && fail "the sparse set kept every pick"
[ "$(grep -c '^n.*\.mrc ' rep/summary.star)" = 16 ] || fail "summary.star rows"
# The kept picks record their cut, and a second report keeps them as cut.
"$report" --out rep1 --apixM 1.34 --diameter 120 --suffix _vexmatch_auto.star n16_d0.3_1.mrc >again.log ||
  fail "gvexreport on its own picks failed"
grep -q '^n16_d0.3_1.mrc: [0-9]* picks, cut-off [0-9.]* keeps \([0-9]*\); already cut at .*, as its picks file records' \
  again.log || fail "the recorded cut is not kept: $(cat again.log)"
kept=$(awk '$1 ~ /^[0-9]/' n16_d0.3_1_vexmatch_auto.star | wc -l)
grep -q "picks, cut-off [0-9.]* keeps $kept;" again.log || fail "the picks cut before were cut again"

# A run cutting a micrograph waits for another that holds it (their partial
# files have the same names): nothing is written until it lets go.
cp n4_d0.3_1.mrc held.mrc && cp n4_d0.3_1_vexmatch.star held_vexmatch.star
flock held.mrc sh -c 'touch holding; sleep 3' & holder=$!
while [ ! -e holding ]; do sleep 0.1; done
"$report" --apply --cutoff 0.5 held.mrc >held.log & cutter=$!
sleep 1.5
[ ! -e held_vexmatch_auto.star ] || fail "--apply wrote while another run held the micrograph"
wait $holder && wait $cutter || fail "--apply after the other run failed"
[ -e held_vexmatch_auto.star ] || fail "--apply wrote nothing once the other run let go"

# Refusals and warnings.
head -c 500 n4_d0.3_2.mrc > cut.mrc
if "$report" --out rep3 n4_d0.3_1.mrc cut.mrc 2>err.log; then fail "a cut micrograph was accepted"; fi
grep -q 'cut.mrc' err.log || fail "the unreadable micrograph is not named"
grep -q 'n4_d0.3_1.mrc' rep3/summary.star && ! grep -q 'cut.mrc' rep3/summary.star ||
  fail "the readable micrograph is not reported alone"
status=0; "$report" --out rep4 2>/dev/null || status=$?; [ $status = 2 ] || fail "no micrographs: status $status"
touch blocker
if "$report" --out blocker/rep n4_d0.3_1.mrc 2>err.log; then fail "an impossible folder was accepted"; fi
grep -q 'blocker/rep' err.log || fail "the folder is not named"
refused() {  # status, a word of the message, the command's words
  want=$1 word=$2 && shift 2 && status=0
  "$report" "$@" >/dev/null 2>err.log || status=$?
  [ $status = "$want" ] && grep -q -- "$word" err.log || fail "gvexreport $*: status $status, $(cat err.log)"
}
refused 2 "cc_cutoff 0" --out rep5 --pick --cc_cutoff 0.2 n4_d0.3_1.mrc
refused 2 "Failed to recognize option" --out rep5 --pick --no_such_option n4_d0.3_1.mrc
refused 2 "out DIR is required with --pick" --pick --apply n4_d0.3_1.mrc
refused 2 "suffix" --out rep5 --pick --suffix _x.star n4_d0.3_1.mrc
refused 2 "cutoff needs a number" --apply --cutoff high n4_d0.3_1.mrc
refused 2 "cutoff needs a number, not '0x10'" --apply --cutoff 0x10 n4_d0.3_1.mrc
refused 2 "whole number of pixels" --apply --boxsize 1.5 n4_d0.3_1.mrc
refused 2 "a particle of 1e+07 pixels, wider than any micrograph" --apply --apixM 1e-5 --diameter 100 n4_d0.3_1.mrc
refused 2 "holds both kinds of quote" --out rep5 "q'\".mrc"
refused 2 "n4_d0.3_1.mrc and ./n4_d0.3_1.mrc name the same micrograph" --out rep5 n4_d0.3_1.mrc ./n4_d0.3_1.mrc
refused 2 "name the same micrograph" --out rep5 --pick --diameter 120 n4_d0.3_1.mrc ../${PWD##*/}/n4_d0.3_1.mrc
refused 2 "out needs a folder, not the option --pick" --out --pick --diameter 120 n4_d0.3_1.mrc
[ ! -e ./--pick ] || fail "a folder named --pick was made"
refused 1 "cannot pick cut.mrc" --out rep6 --pick --apply --diameter 120 cut.mrc n4_d0.3_1.mrc n4_d0.3_2.mrc
grep -q 'gvexmatch.*rep6/pick.log' err.log || fail "the picking transcript is not named"
grep -q '1 of 3 micrographs could not be picked' err.log && [ -e n4_d0.3_2_vexmatch_auto.star ] &&
  [ -e rep6/3_n4_d0.3_2.png ] || fail "the micrograph after the one that failed was not cut and reported"
"$makemic" make blank.mrc --nx 512 --ny 512 --apix 1.34 --diameter 120 >/dev/null
head -c 1024 blank.mrc >zero.mrc && head -c $((512 * 512 * 4)) /dev/zero >>zero.mrc && mv zero.mrc blank.mrc
"$report" --out rep7 --pick --diameter 120 blank.mrc >blank.log || fail "a blank micrograph failed"
grep -q '^no micrograph has picks: no cut-off to suggest$' blank.log && ! grep -q '^suggested' blank.log ||
  fail "a cut-off suggested from no picks"
echo "report_check: all cases passed"
