#!/bin/sh
# The README's commands, as they stand, on generated data: every fenced
# `sh` block of the sections on gvexreport, MPI, RELION and gvexmatch_tune
# is run with `sh -eu` in a scratch project holding Micrographs/m001.mrc...,
# an Import job's micrographs.star and templates.mrcs, with the built
# programs on the PATH. A command that stops with an error fails the check.
#
# usage: readme_check.sh SOURCE_DIR BUILD_DIR WORKDIR
# Exit status 77 (a skip for CTest) when a program the README calls is missing.
set -eu

abspath() { case $1 in /*) echo "$1" ;; *) echo "$(pwd)/$1" ;; esac; }
SRC=$(abspath "$1")
BUILD=$(abspath "$2")
WORK=$(abspath "$3")
PATH="$BUILD:$BUILD/report:$BUILD/mpi:$BUILD/relion:$BUILD/tune:$PATH"
export PATH

for p in gvexmatch gvexreport gvexmatch_mpi gvexmatch_relion gvexmatch_tune mpirun chromium python3; do
  command -v $p >/dev/null 2>&1 || { echo "$p is not at hand: test skipped"; exit 77; }
done

fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$WORK"
mkdir -p "$WORK/Micrographs" "$WORK/Import/job001"
cd "$WORK"
rows=""
for i in 1 2 3; do
  "$BUILD/tools/gvex_makemic" make Micrographs/m00$i.mrc --nx 1024 --ny 1024 --apix 1.34 --diameter 120 --seed $i \
    >/dev/null || fail "gvex_makemic failed"
  rows="${rows}Micrographs/m00$i.mrc 1
"
done
touch -d '-1 min' Micrographs/*.mrc  # collected a while ago
# Two soft discs of the particles' size as a template stack (MRC mode 2).
python3 - <<'EOF'
import math, struct
r, n, frames = 120 / (2 * 1.34), 96, []
for f in (0.8, 0.7):
    for y in range(n):
        for x in range(n):
            d = math.hypot(x - (n - 1) / 2, y - (n - 1) / 2) - f * r
            frames.append(1.0 if d <= 0 else max(0.0, 1 - d / 8))
head = bytearray(1024)
struct.pack_into('<10i', head, 0, n, n, 2, 2, 0, 0, 0, n, n, 2)
struct.pack_into('<6f', head, 40, n * 1.34, n * 1.34, 2 * 1.34, 90, 90, 90)
struct.pack_into('<3i', head, 64, 1, 2, 3)
head[208:214] = b'MAP DA'
open('templates.mrcs', 'wb').write(bytes(head) + struct.pack('<%df' % len(frames), *frames))
EOF
cat >Import/job001/micrographs.star <<EOF
# version 30001

data_optics

loop_
_rlnOpticsGroupName #1
_rlnOpticsGroup #2
_rlnMicrographPixelSize #3
opticsGroup1 1 1.340000

data_micrographs

loop_
_rlnMicrographName #1
_rlnOpticsGroup #2
$rows
EOF

# The sh blocks of one section ("## TITLE" up to the next "## ").
blocks() {
  awk -v want="## $1" '
    /^## / { inside = ($0 == want) }
    inside && /^```sh$/ { code = 1; next }
    inside && code && /^```$/ { code = 0; next }
    inside && code { print }' "$SRC/README.md"
}

n=0
for section in "Check and tune your picks: gvexreport" "Many micrographs: MPI and SLURM" "From RELION" \
  "Faster host plans: gvexmatch_tune"; do
  n=$((n + 1))
  blocks "$section" >section$n.sh
  [ -s section$n.sh ] || fail "no commands in the README section \"$section\""
  sh -eu section$n.sh >section$n.log 2>&1 || { tail -5 section$n.log; fail "a command of \"$section\" failed (see $WORK/section$n.log)"; }
  echo "README \"$section\": $(grep -c . section$n.sh) command lines ran"
done

# What those commands promise to leave.
for f in report/index.html report.png Micrographs/m001_vexmatch_auto.star External/job005/RELION_JOB_EXIT_SUCCESS \
  External/job005/Micrographs/m001_autopick.star Picks/RELION_JOB_EXIT_SUCCESS Picks/autopick.star run.wisdom; do
  [ -f "$f" ] || fail "the README's commands left no $f"
done
[ ! -f Picks/STOP ] || fail "the followed job did not take its stop file"
