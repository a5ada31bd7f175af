#!/bin/sh
# Whole-program time per micrograph against the bare FFT work of the same run.
#
# Copies of a synthetic 4096 x 4096 mode-2 micrograph are picked in one run
# at default settings
#   (a) with the synthetic template (one template, one orientation),
#   (b) with a stack of 4 user templates scanned at the default --ang_step 5
#       (72 orientations each),
# and each micrograph's time (reading + normalisation + picking) is set
# against the bare FFT work a micrograph needs once the rotated templates'
# spectra are stored (measured in this same invocation by bench_picker_fft:
# FFTW with the program's plan flags, job count and threads on the host back
# end, cuFFT on a GPU):
#   normalisation: band-pass 1 pair, local sigma 2 pairs, local average
#                  1 pair, plus the two disc spectra (2 r2c), all at 2N;
#   scan:          per template 1 r2c of the micrograph and per orientation
#                  1 c2r, at N;
# N the working size (1024 here: 4096 shrunk by 4 at --speed 2). Reported:
# the steady state (micrographs after the first) / FFT work, what the first
# micrograph costs beyond the steady state (the spectra it computes and
# stores), and the whole run per micrograph / FFT work. 1.0 would mean the
# picker costs no more than its transforms.
#
# usage: bench/bench_picker.sh [BUILD_DIR] [WORK_DIR] [MICROGRAPHS]
#   BUILD_DIR holds gvexmatch, tools/gvex_makemic and bench/bench_picker_fft
#   (configure with -DGVEX_BENCH=ON); default build/default.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:-$here/../build/default}" && pwd)
WORK=${2:-$(mktemp -d /tmp/gvex_bench_XXXXXX)}
NMIC=${3:-6}
GVEX=$(realpath "${GVEXMATCH:-$BUILD/gvexmatch}")  # GVEXMATCH: another build's program against this FFT baseline
MAKEMIC=$BUILD/tools/gvex_makemic
FFT=$BUILD/bench/bench_picker_fft
for f in "$GVEX" "$MAKEMIC" "$FFT"; do
  if [ ! -x "$f" ]; then
    echo "missing $f: build gvexmatch, gvex_makemic and bench_picker_fft (-DGVEX_BENCH=ON) in $BUILD" >&2
    exit 1
  fi
done
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to write the template stack" >&2; exit 1; }

SIZE=4096
APIX=1.34
DIAMETER=300
N=1024  # working size at the default --speed 2
mkdir -p "$WORK"
cd "$WORK"

echo "machine: $(nproc) CPU(s), $(uname -m); build: $BUILD"
echo "work folder: $WORK"
"$MAKEMIC" make mic.mrc --nx $SIZE --ny $SIZE --apix $APIX --diameter $DIAMETER --seed 1 >/dev/null

# Four white discs of the particle size, at the micrograph's pixel size.
python3 "$here/make_templates.py" templates.mrcs $APIX $DIAMETER

# Bare transforms, milliseconds each: r2c and pair at N and 2N.
STORE_MIB=$(( (N / 2 + 1) * N * 8 * 4 * 72 / 1048576 ))  # spectra of run (b)
"$FFT" --n $N --store-mib $STORE_MIB --benchmark_format=csv --benchmark_min_time=0.5 2>fft.err >fft.csv
ms() { awk -F, -v name="\"$1/$2/real_time\"" '$1 == name { print $3 }' fft.csv; }
r2c_n=$(ms BM_BareR2C $N)
c2r_n=$(ms BM_BareC2R $N)
pair_n=$(ms BM_BarePair $N)
r2c_2n=$(ms BM_BareR2C $((2 * N)))
pair_2n=$(ms BM_BarePair $((2 * N)))
fresh=$(awk -F, -v name="\"BM_FreshStore/$STORE_MIB/iterations:3/real_time\"" '$1 == name { print $3 }' fft.csv)
echo
echo "bare FFT on $(head -1 fft.err | sed 's/^Running on //')"
echo "writing a fresh store of $STORE_MIB MiB once: $fresh ms"
echo "bare FFT (ms): r2c ${N}^2 $r2c_n, c2r ${N}^2 $c2r_n, pair ${N}^2 $pair_n, r2c $((2 * N))^2 $r2c_2n, pair $((2 * N))^2 $pair_2n"

# run LABEL TEMPLATES ORIENTATIONS [options...]: NMIC copies in one run.
run() {
  label=$1
  nt=$2
  na=$3
  shift 3
  mics=""
  for i in $(seq 1 "$NMIC"); do
    cp mic.mrc "${label}_$i.mrc"
    mics="$mics ${label}_$i.mrc"
  done
  log=run_$label.log
  t0=$(date +%s.%N)
  "$GVEX" --apixM $APIX --diameter $DIAMETER "$@" $mics >"$log"
  t1=$(date +%s.%N)
  echo
  echo "($label) gvexmatch --apixM $APIX --diameter $DIAMETER $* [$NMIC micrographs]"
  grep '^Running on' "$log"
  awk -v t0="$t0" -v t1="$t1" -v nt="$nt" -v na="$na" -v nmic="$NMIC" \
      -v r2c_n="$r2c_n" -v c2r_n="$c2r_n" -v r2c_2n="$r2c_2n" -v pair_2n="$pair_2n" -v fresh="$fresh" \
      -v store_mib="$STORE_MIB" '
    /^>>>>>>TIME<<<<<</ {
      sub(/^>>>>>>TIME<<<<<< */, ""); split($0, a, ": "); sub(/s$/, "", a[2])
      if (a[1] == "READING") k++
      if (a[1] == "READING" || a[1] == "NORMALIZATION" || a[1] == "PICKING") t[k] += a[2]
      if (k > 1 && (a[1] == "READING" || a[1] == "NORMALIZATION" || a[1] == "PICKING")) stage[a[1]] += a[2]
      if (a[1] == "TOTAL") total = a[2]
      if (a[1] == "PREPARATION") prep = a[2]
    }
    END {
      fft = (4 * pair_2n + 2 * r2c_2n + nt * (r2c_n + na * c2r_n)) / 1000
      steady = 0
      for (i = 2; i <= k; i++) steady += t[i]
      steady = k > 1 ? steady / (k - 1) : t[1]
      printf "  bare FFT work per micrograph (spectra stored): %.3fs\n", fft
      printf "  micrograph times:"; for (i = 1; i <= k; i++) printf " %.3f", t[i]; printf " s\n"
      printf "  steady state / FFT work      %6.2f   (%.3fs)\n", steady / fft, steady
      if (k > 1) printf "  steady state by stage: reading %.4fs, normalization %.4fs, picking %.4fs\n", stage["READING"] / (k - 1), stage["NORMALIZATION"] / (k - 1), stage["PICKING"] / (k - 1)
      printf "  first micrograph overhead    %6.3fs", t[1] - steady
      if (nt * na == 288) printf "   (of which writing %d MiB of fresh memory once: %.3fs)", store_mib, fresh / 1000
      printf "\n"
      printf "  run per micrograph / FFT work %5.2f   (TOTAL %.3fs for %d, preparation %.3fs, process wall %.3fs)\n", total / k / fft, total, k, prep, t1 - t0
    }' "$log"
  echo "  picks: $(wc -l <"${label}_1_vexmatch.box")"
}

run a 1 1
run b 4 72 --T templates.mrcs --apixT $APIX

# (c) Run (b) with host plans from FFTW wisdom: gvexmatch_tune measures the
# plans of such a run, bench_session picks WISDOM_MICROGRAPHS copies planning
# from it, against the FFT work with plans measured now. Host only.
TUNE=$BUILD/tune/gvexmatch_tune
SESSION=$BUILD/bench/bench_session
if [ -x "$TUNE" ] && [ -x "$SESSION" ] && ! grep -q '^Running on GPU' run_b.log; then
  nw=${WISDOM_MICROGRAPHS:-12}
  "$TUNE" wisdom.wis --apixM $APIX --diameter $DIAMETER --T templates.mrcs --apixT $APIX mic.mrc >tune.log
  "$FFT" --n $N --measure --benchmark_format=csv --benchmark_min_time=0.5 2>/dev/null >fftm.csv
  mms() { awk -F, -v name="\"$1/$2/real_time\"" '$1 == name { print $3 }' fftm.csv; }
  mics=""
  for i in $(seq 1 "$nw"); do cp mic.mrc "c_$i.mrc"; mics="$mics c_$i.mrc"; done
  "$SESSION" --fftw_wisdom wisdom.wis --apixM $APIX --diameter $DIAMETER --T templates.mrcs --apixT $APIX $mics >session.log
  echo
  echo "(c) as (b), plans from wisdom [$nw micrographs]: $(head -1 session.log)"
  awk -v r2c_n="$(mms BM_BareR2C $N)" -v c2r_n="$(mms BM_BareC2R $N)" -v r2c_2n="$(mms BM_BareR2C $((2 * N)))" \
      -v pair_2n="$(mms BM_BarePair $((2 * N)))" -v nw="$nw" '
    /^steady/ {
      fft = (4 * pair_2n + 2 * r2c_2n + 4 * (r2c_n + 72 * c2r_n)) / 1000
      printf "  bare FFT work per micrograph, plans measured now: %.3fs\n", fft
      printf "  steady state / measured FFT work  %5.2f   (%.3fs)\n", $2 / fft, $2
      printf "  run per micrograph / measured FFT work %5.2f   (total %.3fs for %d, preparation %.3fs)\n", $8 / nw / fft, $8, nw, $6
    }' session.log
fi
