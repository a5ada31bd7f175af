#!/bin/sh
# gvexreport's page in a real browser (headless Chromium): every picture
# loads, the table lists every micrograph, the console stays quiet.
# Skips (status 77) with a line saying why when Chromium cannot start.
# Usage: report_browser.sh GVEXMATCH GVEXREPORT MAKEMIC SCRATCH
set -eu
gvex=$1 report=$2 makemic=$3 work=$4
browser=$(command -v chromium || command -v chromium-browser || true)
[ -n "$browser" ] || { echo "SKIP: no chromium on this machine (apt-get install chromium)"; exit 77; }
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
for i in 1 2 3; do "$makemic" make m$i.mrc --nx 1024 --ny 1024 --apix 1.34 --diameter 120 --seed $i >/dev/null; done
"$gvex" --diameter 120 --cc_cutoff 0 m1.mrc m2.mrc m3.mrc >pick.log || fail "gvexmatch failed"
"$report" --out rep --apixM 1.34 --diameter 120 m1.mrc m2.mrc m3.mrc >report.log || fail "gvexreport failed"
run() { timeout 120 "$browser" --headless --no-sandbox --disable-gpu --no-first-run --user-data-dir="$work/profile" \
          --enable-logging=stderr --v=0 "$@" "file://$work/rep/index.html"; }
if ! run --dump-dom >dom.html 2>console.log; then
  echo "SKIP: chromium could not start here:"; tail -3 console.log; exit 77
fi
grep -q 'data-images="3"' dom.html || fail "the page does not show 3 pictures"
grep -q 'data-broken="0"' dom.html || fail "a picture did not load"
[ "$(grep -c '<td class="name">' dom.html)" = 3 ] || fail "the table does not list 3 micrographs"
# The page says nothing on the console unless something is wrong.
if grep -q ':CONSOLE' console.log; then grep ':CONSOLE' console.log; fail "console messages"; fi
echo "report_browser: 3 pictures loaded, 3 rows, no console error"
