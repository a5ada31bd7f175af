#!/bin/sh
# gvexreport's page in a real browser (headless Chromium): every picture
# loads, the table lists every micrograph, the console stays quiet, the
# sliders start at the printed cut-offs, and a slider moved (through the
# page's "#cut=K:X" fragment, as a user's drag moves it) redraws the kept
# circles and counts and prints a command that keeps exactly those picks.
# A fourth micrograph, sparse with a carbon edge, has picks the automatic
# choice leaves out as on the edge: dashed at its cut-off, not counted; and
# its scores lie far below the other three's, whose cut it keeps out. A
# fifth has no picks and no slider, and stops no other's; nor does a part
# of the fragment that names no slider or decodes to nothing.
# Skips (status 77) with a line saying why when Chromium cannot start.
# Usage: report_browser.sh GVEXREPORT MAKEMIC REALMIC SCRATCH
set -eu
report=$1 makemic=$2 realmic=$3 work=$4
browser=$(command -v chromium || command -v chromium-browser || true)
[ -n "$browser" ] || { echo "SKIP: no chromium on this machine (apt-get install chromium)"; exit 77; }
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
for i in 1 2 3; do "$makemic" make m$i.mrc --nx 2048 --ny 2048 --apix 1.34 --diameter 120 --seed $i >/dev/null; done
"$realmic" m4.mrc --nx 2048 --ny 2048 --apix 1.34 --diameter 120 --snr 0.1 --density 0.06 --seed 1 --carbon 0.15 \
  --carbon-step 0.3 >/dev/null
"$report" --out picked --pick --apixM 1.34 --diameter 120 m1.mrc m2.mrc m3.mrc m4.mrc >picked.log ||
  fail "gvexreport --pick failed"
# The page of those picks (read back with their decoys), and of a fifth
# micrograph without picks.
ln m1.mrc m5.mrc
"$report" --out rep --apixM 1.34 --diameter 120 m1.mrc m2.mrc m3.mrc m4.mrc m5.mrc >report.log || fail "gvexreport failed"
grep -q "^warning: m5.mrc: no picks file" report.log || fail "m5 has picks"
if grep -q "^note: without decoys" report.log; then fail "a micrograph without picks made the cut-offs decoy-less"; fi
[ "$(grep '^suggested' report.log)" = "$(grep '^suggested' picked.log)" ] || fail "m5 moved the run's suggestion"
dom() { timeout 120 "$browser" --headless --no-sandbox --disable-gpu --no-first-run --user-data-dir="$work/profile" \
          --enable-logging=stderr --v=0 --dump-dom "file://$work/rep/index.html$1" >"$2" 2>>console.log; }
if ! dom "" dom.html; then
  echo "SKIP: chromium could not start here:"; tail -3 console.log; exit 77
fi
grep -q 'data-images="10"' dom.html || fail "the page does not show 10 pictures (a view and a crop per micrograph)"
grep -q 'data-broken="0"' dom.html || fail "a picture did not load"
[ "$(grep -c '<td class="name">' dom.html)" = 5 ] || fail "the table does not list 5 micrographs"
# Each slider starts where gvexreport cut.
for k in 1 2 3 4; do
  printed=$(sed -n "s/^m$k.mrc: .* keeps \([0-9]*\),.*/\1/p" report.log)
  grep -q "id=\"kept-$k\">$printed<" dom.html || fail "micrograph $k: the page does not start at the $printed picks kept"
  decoys=$(sed -n "s/^m$k.mrc: .* keeps [0-9]*, \([0-9]*\) decoys\{0,1\} above it.*/\1/p" report.log)
  grep -q "id=\"decoys-$k\">$decoys<" dom.html || fail "micrograph $k: the page does not start at the $decoys decoys above"
done
# m4, faint beside the three generated ones, keeps its particles: the run's
# cut-off, a score on their scale, is not weighed in.
[ "$(sed -n 's/^m4.mrc: .* keeps \([0-9]*\),.*/\1/p' report.log)" -gt 10 ] || fail "m4 lost its particles to the run's cut-off"
grep -q "^m4.mrc: .*is not weighed in: its decoys score unlike" report.log || fail "m4: the run's cut-off weighed in"
# m4's picks on the carbon edge: dashed at the automatic cut-off, as many as
# gvexreport left out, and none in m1.
marks() { tr -d '\n' <"$1" | sed 's/<section/\n<section/g' | grep "id=\"m$2\"" | sed 's/<svg class="marks"/\n&/g' | sed -n '2p'; }
left=$(sed -n 's/^m4.mrc: .*; \([0-9]*\) picks\{0,1\} above it lie.*/\1/p' report.log)
[ -n "$left" ] || fail "gvexreport left no pick on m4's carbon edge out"
[ "$(marks dom.html 4 | grep -o 'class="e"' | wc -l)" = "$left" ] || fail "m4: not $left circles dashed as on the edge"
[ "$(marks dom.html 1 | grep -o 'class="e"' | wc -l)" = 0 ] || fail "m1: circles dashed as on an edge"
# m1's slider moved to its median score: the circles kept, the count and the
# command follow.
scores=$(awk '$1 ~ /^[0-9]/ { print $5 }' m1_vexmatch.star | sort -g)
n=$(echo "$scores" | wc -l)
cut=$(echo "$scores" | sed -n "$(((n + 1) / 2))p")
want=$(echo "$scores" | awk -v c="$cut" '$1 >= c' | wc -l)
dom "#cut=__proto__:1;5:0.1;%;1:$cut" moved.html
grep -q "id=\"kept-1\">$want<" moved.html || fail "slider at $cut: the page does not show the $want picks kept"
grep -q "id=\"value-1\">$cut<" moved.html || fail "slider at $cut: the cut-off shown is not $cut"
circles=$(marks moved.html 1 | grep -o 'class="k"' | wc -l)
[ "$circles" = "$want" ] || fail "slider at $cut: $circles circles drawn as kept, not $want"
cmd=$(sed -n 's/.*id="cmd-1">\([^<]*\)<.*/\1/p' moved.html)
case $cmd in "gvexreport --apply --cutoff $cut "*" m1.mrc") ;; *) fail "slider at $cut: the command reads '$cmd'" ;; esac
# shellcheck disable=SC2086 # the page's command, word by word
"$report" ${cmd#gvexreport } >apply.log || fail "the page's command failed: $cmd"
[ "$(awk '$1 ~ /^[0-9]/' m1_vexmatch_auto.star | wc -l)" = "$want" ] || fail "the page's command did not keep $want picks"
# The page says nothing on the console unless something is wrong.
if grep -q ':CONSOLE' console.log; then grep ':CONSOLE' console.log; fail "console messages"; fi
echo "report_browser: 10 pictures loaded, 5 rows, $left picks dashed on m4's edge, the slider moved to $cut keeps $want, as its command does"
