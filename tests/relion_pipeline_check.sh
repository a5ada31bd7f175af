#!/bin/sh
# gvexmatch_relion inside a RELION 3.1 project, driven by relion_pipeliner
# as a user's GUI would: Import the micrographs, an External job running
# gvexmatch_relion, an Extract job on its coordinates. RELION must extract
# exactly the picks we kept, at our coordinates. Then more micrographs come:
# Import and the External job run again (continue), only the new micrograph
# is picked, and Extract takes the picks of all.
#
# usage: relion_pipeline_check.sh GVEXMATCH_RELION GVEX_MAKEMIC WORKDIR
# Exit status 77 (a skip for CTest) when RELION is not installed.
set -eu

abspath() { case $1 in /*) echo "$1" ;; *) echo "$(pwd)/$1" ;; esac; }
PICKER=$(abspath "$1")
MAKEMIC=$(abspath "$2")
WORK=$(abspath "$3")

for p in relion_pipeliner relion_preprocess; do
  command -v $p >/dev/null 2>&1 || { echo "$p is not installed: test skipped"; exit 77; }
done

fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$WORK"
mkdir -p "$WORK/Micrographs"
cd "$WORK"

mic() {
  "$MAKEMIC" make "Micrographs/m$1.mrc" --nx 1024 --ny 1024 --apix 1.34 --diameter 120 --seed "$1" >>makemic.log ||
    fail "gvex_makemic failed"
  # Written a while ago, as on a collection disk: settled.
  touch -d '-1 min' "Micrographs/m$1.mrc"
}
for i in 1 2 3; do mic $i; done

# A new project's pipeline, as the GUI makes it.
printf '\ndata_pipeline_general\n\n_rlnPipeLineJobCounter 1\n' >default_pipeline.star

pipeliner() { relion_pipeliner "$@" >>pipeliner.log 2>&1 || fail "relion_pipeliner $* failed, see $WORK/pipeliner.log"; }
run_job() {
  pipeliner --RunJobs "$1" --sec_wait_after 1
  [ -f "$1RELION_JOB_EXIT_SUCCESS" ] || fail "$1 did not succeed: $(cat "$1run.err" 2>/dev/null)"
}

pipeliner --addJob Import --addJobOptions \
  "Raw input files: == Micrographs/*.mrc;Are these multi-frame movies? == No;Pixel size (Angstrom): == 1.34"
run_job Import/job001/
pipeliner --addJob External --addJobOptions \
  "External executable: == $PICKER;Input micrographs:  == Import/job001/micrographs.star;Param1 - label: == diameter;Param1 - value: == 120;Number of threads: == 2"
run_job External/job002/
grep -q "External/job002/coords_suffix_autopick.star *2" default_pipeline.star ||
  fail "the pipeline has no coordinates node of the External job"
pipeliner --addJob Extract --addJobOptions \
  "micrograph STAR file:  == Import/job001/micrographs.star;Input coordinates:  == External/job002/coords_suffix_autopick.star;Particle box size (pix): == 96"
run_job Extract/job003/

# "micrograph x y" of every kept pick of the External job $PICK, and of
# every particle the Extract job $CUT cut.
PICK=External/job002 CUT=Extract/job003
ours() {
  for f in "$PICK"/Micrographs/m*_autopick.star; do
    m=Micrographs/$(basename "$f" _autopick.star).mrc
    awk -v m="$m" '$1 ~ /^[0-9]/ && NF == 5 { printf "%s %d %d\n", m, $1, $2 }' "$f"
  done | sort
}
theirs() {
  awk '
    /^data_/ { block = $1; n = 0; next }
    block == "data_particles" && /^_rln/ { col[$1] = ++n; next }
    block == "data_particles" && NF >= n && n > 0 && $1 !~ /^(loop_|#)/ {
      printf "%s %d %d\n", $col["_rlnMicrographName"], $col["_rlnCoordinateX"] + 0.5, $col["_rlnCoordinateY"] + 0.5
    }' "$CUT/particles.star" | sort
}
check_extracted() {
  ours >ours.txt
  theirs >theirs.txt
  n=$(wc -l <ours.txt)
  [ "$n" -ge $((10 * $1)) ] || fail "only $n picks kept on $1 micrographs"
  cmp -s ours.txt theirs.txt || { diff ours.txt theirs.txt | head; fail "RELION extracted other particles than we kept"; }
  echo "$1 micrographs: RELION extracted our $n kept picks, at our coordinates"
}
check_extracted 3

# Collection goes on: a fourth micrograph; every job runs again (continue).
before=$(cksum <External/job002/Micrographs/m1_autopick.star)
mic 4
run_job Import/job001/
run_job External/job002/
grep -q "1 micrographs picked in this run (4 in the job)" External/job002/run.out ||
  fail "the continued job did not pick just the new micrograph: $(tail -3 External/job002/run.out)"
[ "$(cksum <External/job002/Micrographs/m1_autopick.star)" = "$before" ] || fail "a picked micrograph changed"
run_job Extract/job003/
check_extracted 4

# A second External job cuts all four as one run (cutoff run): RELION passes
# the label, and extracts what the cut over the job kept.
pipeliner --addJob External --addJobOptions \
  "External executable: == $PICKER;Input micrographs:  == Import/job001/micrographs.star;Param1 - label: == diameter;Param1 - value: == 120;Param2 - label: == cutoff;Param2 - value: == run;Number of threads: == 2"
run_job External/job004/
grep -q "cut over the job's 4 micrographs" External/job004/run.out || fail "no cut over the job: $(tail -3 External/job004/run.out)"
pipeliner --addJob Extract --addJobOptions \
  "micrograph STAR file:  == Import/job001/micrographs.star;Input coordinates:  == External/job004/coords_suffix_autopick.star;Particle box size (pix): == 96"
run_job Extract/job005/
PICK=External/job004 CUT=Extract/job005
check_extracted 4

# Plain MRC files without a project: the job writes the micrographs STAR
# file, and RELION 3.1 extracts from it what the job kept.
"$PICKER" --o Picks/ --in_mics 'Micrographs/m*.mrc' --apix 1.34 --diameter 120 --voltage 200 --j 2 >>picks.log 2>&1 ||
  fail "the job on a glob failed, see $WORK/picks.log"
mkdir -p Cut
relion_preprocess --i Picks/micrographs.star --coord_dir Picks/ --coord_suffix _autopick.star --part_star Cut/particles.star \
  --part_dir Cut/ --extract --extract_size 96 >>preprocess.log 2>&1 || fail "RELION cannot extract from Picks/micrographs.star"
PICK=Picks CUT=Cut
check_extracted 4
