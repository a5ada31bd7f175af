#!/bin/sh
# Whole-program time per micrograph against the bare FFT work of the same run.
#
# A synthetic 4096 x 4096 mode-2 micrograph is picked at default settings
#   (a) with the synthetic template (one template, one orientation),
#   (b) with a stack of 4 user templates scanned at the default --ang_step 5
#       (72 orientations each).
# The stage timings of each run are printed, and beside them the time the
# bare FFT library takes for the transforms that run needs (measured in this
# same invocation by bench_picker_fft: FFTW with the program's plan flags,
# job count and threads on the host back end, cuFFT on a GPU):
#   normalisation: band-pass 1 pair, local sigma 2 pairs, local average
#                  1 pair, plus the two disc spectra (2 r2c), all at 2N;
#   scan:          per template 1 r2c of the micrograph and per orientation
#                  1 pair, at N;
# N the working size (1024 here: 4096 shrunk by 4 at --speed 2). Ratios are
# stage time / bare FFT time: 1.0 would mean the stage costs no more than its
# transforms.
#
# usage: bench/bench_picker.sh [BUILD_DIR] [WORK_DIR]
#   BUILD_DIR holds gvexmatch, tools/gvex_makemic and bench/bench_picker_fft
#   (configure with -DGVEX_BENCH=ON); default build/default.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:-$here/../build/default}" && pwd)
WORK=${2:-$(mktemp -d /tmp/gvex_bench_XXXXXX)}
GVEX=$BUILD/gvexmatch
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
python3 - <<EOF
import math, struct
apix, diameter, n = $APIX, $DIAMETER, 256
r0 = diameter / (2 * apix)
head = bytearray(1024)
struct.pack_into('<4i', head, 0, n, n, 4, 2)
head[208:216] = b'MAP DA\0\0'
with open('templates.mrcs', 'wb') as f:
    f.write(head)
    c = (n - 1) / 2
    for k in range(4):
        r, e = (0.65 + 0.05 * k) * r0, 0.2 * r0
        img = []
        for y in range(n):
            for x in range(n):
                d = math.hypot(x - c, y - c)
                img.append(1.0 if d <= r else 0.5 + 0.5 * math.cos(math.pi * (d - r) / e) if d < r + e else 0.0)
        f.write(struct.pack('<%df' % len(img), *img))
EOF

# Bare transforms, milliseconds each: r2c and pair at N and 2N.
"$FFT" --n $N --benchmark_format=csv --benchmark_min_time=0.5 2>fft.err >fft.csv
ms() { awk -F, -v name="\"$1/$2/real_time\"" '$1 == name { print $3 }' fft.csv; }
r2c_n=$(ms BM_BareR2C $N)
pair_n=$(ms BM_BarePair $N)
r2c_2n=$(ms BM_BareR2C $((2 * N)))
pair_2n=$(ms BM_BarePair $((2 * N)))
echo
echo "bare FFT on $(head -1 fft.err | sed 's/^Running on //')"
echo "bare FFT (ms): r2c ${N}^2 $r2c_n, pair ${N}^2 $pair_n, r2c $((2 * N))^2 $r2c_2n, pair $((2 * N))^2 $pair_2n"

stage() { awk -v s="$2" '$0 ~ /^>>>>>>TIME<<<<<</ { sub(/^>>>>>>TIME<<<<<< */, ""); split($0, a, ": "); if (a[1] == s) { sub(/s$/, "", a[2]); print a[2] } }' "$1"; }

# run LABEL TEMPLATES ORIENTATIONS [options...]
run() {
  label=$1
  nt=$2
  na=$3
  shift 3
  log=run_$label.log
  t0=$(date +%s.%N)
  "$GVEX" --apixM $APIX --diameter $DIAMETER "$@" mic.mrc >"$log"
  t1=$(date +%s.%N)
  echo
  echo "($label) gvexmatch --apixM $APIX --diameter $DIAMETER $* mic.mrc"
  grep '^Running on' "$log"
  grep '^>>>>>>TIME<<<<<<' "$log"
  awk -v t0="$t0" -v t1="$t1" -v nt="$nt" -v na="$na" \
      -v prep="$(stage "$log" PREPARATION)" -v read="$(stage "$log" READING)" \
      -v norm="$(stage "$log" NORMALIZATION)" -v pick="$(stage "$log" PICKING)" -v total="$(stage "$log" TOTAL)" \
      -v r2c_n="$r2c_n" -v pair_n="$pair_n" -v r2c_2n="$r2c_2n" -v pair_2n="$pair_2n" 'BEGIN {
    fft_norm = (4 * pair_2n + 2 * r2c_2n) / 1000
    fft_scan = nt * (r2c_n + na * pair_n) / 1000
    fft_all = fft_norm + fft_scan
    printf "  bare FFT work: normalisation %.3fs (4 pairs + 2 r2c at 2N), scan %.3fs (%d x (1 r2c + %d pairs) at N), all %.3fs\n", fft_norm, fft_scan, nt, na, fft_all
    printf "  NORMALIZATION / its FFT work  %6.2f\n", norm / fft_norm
    printf "  PICKING       / scan FFT work %6.2f\n", pick / fft_scan
    printf "  TOTAL         / all FFT work  %6.2f   (TOTAL %.3fs; process wall %.3fs; preparation %.3fs, reading %.3fs)\n", total / fft_all, total, t1 - t0, prep, read
  }'
  echo "  picks: $(wc -l <mic_vexmatch.box)"
}

run a 1 1
run b 4 72 --T templates.mrcs --apixT $APIX
