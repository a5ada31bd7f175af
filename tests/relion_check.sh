#!/bin/sh
# RELION must read our pick files as we mean them: pick a synthetic
# micrograph, let relion_preprocess extract particles with our
# "_vexmatch.star" as its coordinates, and compare
#   - the number of particles with the rows of our STAR file,
#   - every particle's coordinates, angle, class and figure of merit with ours,
#   - the extracted pixels with our own "_particles.mrcs" for every particle
#     whose box lies inside the micrograph (equal pixels mean both programs
#     put the box centre on the same micrograph pixel).
# The micrograph is not square, so that swapped axes cannot pass. With
# GVEXREPORT, RELION also reads the picks gvexreport --apply keeps, whose
# STAR file records their cut-off in a comment line.
#
# usage: relion_check.sh GVEXMATCH GVEX_MAKEMIC WORKDIR [GVEXREPORT]
# Exit status 77 (a skip for CTest) when relion_preprocess is not installed.
set -eu

abspath() { case $1 in /*) echo "$1" ;; *) echo "$(pwd)/$1" ;; esac; }
GVEX=$(abspath "$1")
MAKEMIC=$(abspath "$2")
WORK=$(abspath "$3")
REPORT=${4:+$(abspath "$4")}

if ! command -v relion_preprocess >/dev/null 2>&1; then
  echo "relion_preprocess is not installed: test skipped"
  exit 77
fi

NX=1024
NY=768
BOX=64
APIX=1.34

fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$WORK"
mkdir -p "$WORK/Micrographs"
cd "$WORK"

"$MAKEMIC" make Micrographs/m1.mrc --nx $NX --ny $NY --apix $APIX --diameter 120 --seed 7 >makemic.log ||
  fail "gvex_makemic failed"
"$GVEX" --apixM $APIX --diameter 120 --boxsize $BOX --extract_raw Micrographs/m1.mrc >gvexmatch.log ||
  fail "gvexmatch failed, see $WORK/gvexmatch.log"

# Our STAR rows: every line that starts with a number.
awk '$1 ~ /^-?[0-9]/ { print $1, $2, $3, $4, $5 }' Micrographs/m1_vexmatch.star >ours.txt
n_ours=$(wc -l <ours.txt)
[ "$n_ours" -ge 5 ] || fail "only $n_ours picks in Micrographs/m1_vexmatch.star"

# RELION 3.1 wants an optics table in the micrographs STAR file.
cat >mics.star <<EOF

data_optics

loop_
_rlnOpticsGroupName #1
_rlnOpticsGroup #2
_rlnMicrographPixelSize #3
_rlnVoltage #4
_rlnSphericalAberration #5
_rlnAmplitudeContrast #6
opticsGroup1 1 $APIX 300 2.7 0.1

data_micrographs

loop_
_rlnMicrographName #1
_rlnOpticsGroup #2
Micrographs/m1.mrc 1
EOF

# --coord_dir ./ : RELION 3.1 prefixes its default "ASINPUT" to the path.
relion_preprocess --i mics.star --coord_suffix _vexmatch.star --coord_dir ./ --part_dir Particles/ \
  --part_star particles.star --extract --extract_size $BOX >relion.log 2>&1 ||
  fail "relion_preprocess failed, see $WORK/relion.log"

# The particles table of RELION's output, in our column order.
awk '
  /^data_/ { block = $1; nlab = 0; next }
  block == "data_particles" && /^_rln/ { col[$1] = ++nlab; next }
  block == "data_particles" && $1 ~ /^-?[0-9]/ {
    print $col["_rlnCoordinateX"], $col["_rlnCoordinateY"], $col["_rlnAnglePsi"], $col["_rlnClassNumber"],
          $col["_rlnAutopickFigureOfMerit"]
  }' particles.star >relion.txt
n_relion=$(wc -l <relion.txt)
[ "$n_relion" -eq "$n_ours" ] || fail "RELION extracted $n_relion particles, our STAR file has $n_ours rows"

# Same values row by row (RELION prints its own number formats).
awk 'NR == FNR { a[FNR] = $0; next }
     {
       split(a[FNR], o, " ")
       for (k = 1; k <= 5; k++) {
         d = o[k] - $k
         if (d < 0) d = -d
         if (d > 1e-5) { printf "row %d column %d: ours %s, RELION %s\n", FNR, k, o[k], $k; bad = 1 }
       }
     }
     END { exit bad }' ours.txt relion.txt || fail "RELION read other values than ours"

# Pixels: particle i of both stacks, for boxes that lie inside the micrograph.
stack_ours=Micrographs/m1_particles.mrcs
stack_relion=Particles/Micrographs/m1.mrcs
[ -f "$stack_relion" ] || fail "RELION wrote no $stack_relion"
word() { od -An -t d4 -j "$2" -N 4 "$1" | tr -d ' '; }
[ "$(word $stack_ours 8)" -eq "$n_ours" ] || fail "$stack_ours does not hold $n_ours sections"
[ "$(word $stack_relion 0)" -eq $BOX ] && [ "$(word $stack_relion 12)" -eq 2 ] ||
  fail "$stack_relion is not a float stack of $BOX x $BOX images"
relion_data=$((1024 + $(word $stack_relion 92)))
bytes=$((BOX * BOX * 4))
compared=0
i=0
while read -r x y rest; do
  x0=$(( ${x%%.*} - BOX / 2 ))
  y0=$(( ${y%%.*} - BOX / 2 ))
  if [ $x0 -ge 0 ] && [ $y0 -ge 0 ] && [ $((x0 + BOX)) -le $NX ] && [ $((y0 + BOX)) -le $NY ]; then
    cmp -s -i $((1024 + i * bytes)):$((relion_data + i * bytes)) -n $bytes $stack_ours $stack_relion ||
      fail "particle $((i + 1)) at ($x, $y): RELION cut other pixels than gvexmatch"
    compared=$((compared + 1))
  fi
  i=$((i + 1))
done <ours.txt
[ $compared -ge 5 ] || fail "only $compared particles lie inside the micrograph"

echo "RELION extracted $n_relion particles at our coordinates; $compared compared pixel by pixel"

[ -n "$REPORT" ] || exit 0
# The median score: about half the picks kept.
cut=$(sort -g -k5 ours.txt | awk -v n="$n_ours" 'NR == int((n + 1) / 2) { print $5 }')
"$REPORT" --apply --cutoff "$cut" --apixM $APIX --diameter 120 --boxsize $BOX Micrographs/m1.mrc >report.log ||
  fail "gvexreport --apply failed, see $WORK/report.log"
grep -q "^# cut-off $cut:" Micrographs/m1_vexmatch_auto.star || fail "the kept picks do not record the cut-off $cut"
kept=$(awk -v c="$cut" '$5 >= c' ours.txt | wc -l)
relion_preprocess --i mics.star --coord_suffix _vexmatch_auto.star --coord_dir ./ --part_dir Kept/ \
  --part_star kept.star --extract --extract_size $BOX >relion_kept.log 2>&1 ||
  fail "relion_preprocess failed on the kept picks, see $WORK/relion_kept.log"
n_kept=$(grep -c 'Micrographs/m1.mrc' kept.star)
[ "$n_kept" -eq "$kept" ] || fail "RELION read $n_kept of the $kept picks gvexreport kept"
echo "RELION read the $kept picks gvexreport kept at $cut, past the comment that records it"
