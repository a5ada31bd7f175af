#!/bin/sh
# Every warning of gvexreport on a planted case, each micrograph drawing its
# own warning and no other, and none on the clean micrograph they come from:
# pixels that are not finite, a saturated column, an extended header, mode 0, two sections, a
# header pixel size other than --apixM, no picks file (or one whose commit
# was interrupted), no picks kept, picks
# in nearly every grid cell, along the edge, on rejected areas, outside the
# micrograph, and templates of the wrong contrast (decoys outscoring the
# picks), and a decoys file that is damaged or belongs to other picks. The
# realistic and real micrographs on which none may fire are checked by
# tests/quality/.
# Usage: report_warnings.sh GVEXMATCH GVEXREPORT MAKEMIC SCRATCH
set -eu
gvex=$1 report=$2 makemic=$3 work=$4
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
"$makemic" make m.mrc --nx 1024 --ny 1024 --apix 1.34 --diameter 120 --seed 3 >/dev/null
"$gvex" --apixM 1.34 --diameter 120 --cc_cutoff 0 m.mrc >pick.log || fail "gvexmatch failed"
# Damaged copies of m.mrc, each with m's picks.
python3 - <<'EOF'
import struct
raw = open("m.mrc", "rb").read()
head, data = bytearray(raw[:1024]), raw[1024:]
nx, ny = struct.unpack_from("<2i", head)
def write(name, head, data):
    open(name, "wb").write(bytes(head) + data)
nan = bytearray(data)
for i in range(0, 40, 4):
    struct.pack_into("<f", nan, 4 * (500 * nx + 300) + i, float("nan"))
write("nan.mrc", head, bytes(nan))
hot = bytearray(data)
for y in range(ny):
    struct.pack_into("<f", hot, 4 * (y * nx + 200), 1e6)
write("hot.mrc", head, bytes(hot))
ext = bytearray(head)
struct.pack_into("<h", ext, 90, 1024)  # the reader's field, as older writers set it
write("ext.mrc", ext, bytes(1024) + data)
ext = bytearray(head)
struct.pack_into("<i", ext, 92, 2048)  # where writers keep it today
write("ext92.mrc", ext, bytes(2048) + data)
two = bytearray(head)
struct.pack_into("<i", two, 8, 2)
struct.pack_into("<i", two, 36, 2)
write("two.mrc", two, data + data)
floats = struct.unpack("<%df" % (nx * ny), data)
lo, hi = min(floats), max(floats)
byte = bytearray(head)
struct.pack_into("<i", byte, 12, 0)
write("byte.mrc", byte, bytes(int(255 * (v - lo) / (hi - lo)) for v in floats))
apix = bytearray(head)  # 1.5 A per pixel: cell lengths over the sampling
struct.pack_into("<3i", apix, 28, nx, ny, 1)
struct.pack_into("<3f", apix, 40, 1.5 * nx, 1.5 * ny, 1.5)
write("apix.mrc", apix, data)
EOF
for m in nan hot ext ext92 two byte apix edge grid masked far unfinished; do
  [ -e $m.mrc ] || ln m.mrc $m.mrc
  cp m_vexmatch.star ${m}_vexmatch.star
done
ln m.mrc lonely.mrc
: >unfinished_vexmatch.commit  # a run killed in its commit
# Picks along the left edge; a pick every 20 pixels; every pick in a rejected cell.
head -9 m_vexmatch.star >edge_vexmatch.star
head -9 m_vexmatch.star >grid_vexmatch.star
awk 'BEGIN { for (y = 100; y < 900; y += 80) printf "20 %d 0 1 2.0\n", y }' >>edge_vexmatch.star
awk 'BEGIN { for (y = 10; y < 1024; y += 20) for (x = 10; x < 1024; x += 20) printf "%d %d 0 1 0.5\n", x, y }' \
  >>grid_vexmatch.star
echo "0 0 1024 1024" >masked_rejected.box
echo "5000 20 0 1 0.9" >>far_vexmatch.star
"$report" --out rep --apixM 1.34 --diameter 120 m.mrc nan.mrc hot.mrc ext.mrc ext92.mrc two.mrc byte.mrc apix.mrc lonely.mrc edge.mrc \
  grid.mrc masked.mrc far.mrc unfinished.mrc >report.log || fail "gvexreport failed"
expect() {  # micrograph, the start of its one warning
  got=$(grep "^warning: $1: " report.log | sed "s/^warning: $1: //")
  case $got in "$2"*) ;; *) fail "$1: warned '$got', not '$2...'" ;; esac
  [ "$(echo "$got" | wc -l)" = 1 ] || fail "$1: more than one warning: $got"
}
expect nan.mrc "10 pixels are not finite numbers"
expect hot.mrc "1024 pixels lie beyond 20 sd of the rest and hold 100% of the micrograph's variance"
expect ext.mrc "extended header of 1024 bytes"
expect ext92.mrc "extended header of 2048 bytes"
expect two.mrc "2 sections: only the first is picked"
expect byte.mrc "pixel mode 0"
expect apix.mrc "the header's pixel size 1.500 A differs from --apixM 1.340 A"
expect lonely.mrc "no picks file"
expect unfinished.mrc "its picking was interrupted (NAME_vexmatch.commit is there): its picks are not read"
expect edge.mrc "100% of the picks lie within a particle diameter of the edge"
expect grid.mrc "almost every grid cell holds a pick"
expect masked.mrc "100% of the picks lie on rejected areas"
expect far.mrc "1 pick(s) of far_vexmatch.star lie outside the micrograph's 1024 x 1024 pixels"
if grep '^warning: m.mrc' report.log; then fail "a warning on the clean micrograph"; fi
"$report" --out rep3 --cutoff 99 --apixM 1.34 --diameter 120 m.mrc >none.log || fail "gvexreport --cutoff 99 failed"
grep -q '^warning: m.mrc: no picks$' none.log || fail "no warning of no picks kept: $(cat none.log)"
# Templates of the wrong contrast: the decoys of gvexreport --pick are then the particles.
"$report" --out rep4 --pick --apixM 1.34 --diameter 120 m.mrc >right.log || fail "gvexreport --pick failed"
if grep '^warning' right.log; then fail "a warning on the clean micrograph picked with decoys"; fi
"$report" --out rep5 --pick --dont_invertT --apixM 1.34 --diameter 120 m.mrc >wrong.log ||
  fail "gvexreport --pick --dont_invertT failed"
grep -q '^warning: m.mrc: the decoys (these templates with their contrast inverted) outscore the picks on this' wrong.log ||
  fail "templates of the wrong contrast not found: $(cat wrong.log)"
# The decoys file --pick wrote beside the picks: read without --pick, unless
# the picks were made again since or the file is damaged.
for m in stale damaged vast; do
  ln m.mrc $m.mrc && cp m_vexmatch_decoys.star ${m}_vexmatch_decoys.star
done
head -n -1 m_vexmatch.star >stale_vexmatch.star && cp m_vexmatch.star damaged_vexmatch.star
cp m_vexmatch.star vast_vexmatch.star
sed -i '12s/^[0-9]*/1e300/' damaged_vexmatch_decoys.star
sed -i 's/usable pixels .*/usable pixels 9e99/' vast_vexmatch_decoys.star
"$report" --out rep6 --apixM 1.34 --diameter 120 m.mrc stale.mrc damaged.mrc vast.mrc >decoys.log ||
  fail "gvexreport failed"
grep -q '^m.mrc: .* decoys\{0,1\} above it' decoys.log || fail "the decoys file was not read: $(cat decoys.log)"
expect() {  # the same, in decoys.log
  got=$(grep "^warning: $1: " decoys.log | grep -v "outscore the picks" | sed "s/^warning: $1: //")
  case $got in "$2"*) ;; *) fail "$1: warned '$got', not '$2...'" ;; esac
}
expect stale.mrc "decoys file stale_vexmatch_decoys.star belongs to other picks (picked again since?)"
expect damaged.mrc "decoys file damaged_vexmatch_decoys.star is damaged"
expect vast.mrc "decoys file vast_vexmatch_decoys.star is damaged"
echo "report_warnings: every warning fired on its planted case and on no other"
