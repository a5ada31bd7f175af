#!/usr/bin/env bash
# The GPU check, run from an unpacked bundle (tools/bundle.sh) on a machine
# with an NVIDIA GPU: the test suite, the stand-alone probe when the bundle
# has one, compute-sanitizer's memcheck and initcheck on the scan and FFT
# tests, the picks of the end-to-end sets on the GPU against the host's, and
# the picker benchmark. Writes summary.txt and one log per step into
# OUT_DIR; each step has its own time limit, so one hang costs only its own.
#
#   device_check.sh OUT_DIR [STEP...]     steps: tests probe sanitizer picks bench hostbench
#
# hostbench (not run by default) is the picker benchmark with no GPU visible:
# the host back end on this machine's cores, plans from wisdom included.
set -uo pipefail
B=$(cd "$(dirname "$0")" && pwd)
OUT=${1:?usage: device_check.sh OUT_DIR [STEP...]}
shift
steps=${*:-tests probe sanitizer picks bench}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
S=$OUT/summary.txt
export GVEX_TEST_BUILD_DIR=$B
say() { echo "$*" | tee -a "$S"; }
t_start=$(date +%s)
elapsed() { echo $(($(date +%s) - t_start)); }

say "device check $(date -u +%Y-%m-%dT%H:%MZ) on $(hostname)"
say "gpu: $(nvidia-smi --query-gpu=name,driver_version,memory.total --format=csv,noheader 2>&1 | head -1)"
say "cpus: $(nproc); cufft: $(ls /usr/local/cuda/lib64/libcufft.so.* 2>/dev/null | head -1)"
say "back end: $({ "$B"/gvexmatch --apixM 1 --diameter 100 /nonexistent 2>&1 || true; } | grep '^Running on')"

has() { case " $steps " in *" $1 "*) return 0 ;; *) return 1 ;; esac; }

if has tests; then
  log=$OUT/tests.log
  : >"$log"
  pass=0 fail=0
  for t in "$B"/tests/test_*; do
    [ -x "$t" ] || continue
    name=$(basename "$t")
    (cd /tmp && timeout 150 "$t" --gtest_brief=1 >>"$log" 2>&1)
    rc=$?
    if [ $rc -eq 0 ]; then
      pass=$((pass + 1))
    else
      fail=$((fail + 1))
      say "FAIL $name (status $rc)"
      grep -A4 'Failure$' "$log" | tail -12 >>"$S"
    fi
  done
  skipped=$(grep -c '^\[  SKIPPED \]' "$log" || true)
  say "tests: $pass binaries passed, $fail failed; skipped lines: $skipped  [$(elapsed) s]"
  grep -h -A3 'Skipped$' "$log" | grep -v '^--$' | sort | uniq -c | head -20 >>"$S"
fi

if has probe && [ ! -x "$B"/bin/gpu_probe ]; then
  say "probe: none in this bundle (tools/bundle.sh --probe FILE.cpp adds one)"
elif has probe; then
  timeout 120 "$B"/bin/gpu_probe >"$OUT"/probe.log 2>&1
  say "probe: status $?, $(grep -c '^PASS' "$OUT"/probe.log) PASS, $(grep -c '^FAIL' "$OUT"/probe.log) FAIL  [$(elapsed) s]"
  grep -E '^(FAIL|INFO)' "$OUT"/probe.log | head -30 >>"$S"
fi

if has sanitizer; then
  cs=$(command -v compute-sanitizer || ls /usr/local/cuda/bin/compute-sanitizer 2>/dev/null)
  if [ -n "$cs" ]; then
    log=$OUT/sanitizer.log
    : >"$log"
    run_cs() {  # tool binary filter
      (cd /tmp && timeout 200 "$cs" --tool "$1" --error-exitcode 99 "$B/tests/$2" --gtest_filter="$3" >"$log.part" 2>&1)
      rc=$?
      cat "$log.part" >>"$log"
      say "compute-sanitizer $1 on $2 $3: status $rc, $(grep -h 'ERROR SUMMARY' "$log.part")  [$(elapsed) s]"
    }
    for tool in memcheck initcheck; do
      run_cs $tool test_gpu 'GpuScan.BatchesAndStore*:GpuScan.Decoy*:GpuBatchFft.*:GpuMemory.*'
      run_cs $tool test_conformance 'Conformance.CorrelationScan:Conformance.FourierSpace'
    done
    rm -f "$log.part"
  else
    say "compute-sanitizer: not found"
  fi
fi

if has picks; then
  timeout 200 sh "$B"/bench/pick_hashes.sh "$B" --against-host >"$OUT"/picks.log 2>&1
  say "picks, GPU against host: status $?  [$(elapsed) s]"
  head -60 "$OUT"/picks.log >>"$S"
fi

if has bench; then
  timeout 200 sh "$B"/bench/bench_picker.sh "$B" /tmp/gvex_bench "${BENCH_MICROGRAPHS:-6}" >"$OUT"/bench.log 2>&1
  say "bench_picker: status $?  [$(elapsed) s]"
  grep -E 'bare FFT on|steady state|first micrograph|run per micrograph|Running on' "$OUT"/bench.log >>"$S"
  # The companions' scan with decoys, against the same scan without, on the
  # benchmark's copies of the 4 x 72 run.
  bw=/tmp/gvex_bench
  if [ -x "$B"/bench/bench_session ] && [ -f $bw/templates.mrcs ]; then
    for d in "" --decoys; do
      (cd $bw && timeout 120 "$B"/bench/bench_session $d --apixM 1.34 --diameter 300 --T templates.mrcs --apixT 1.34 \
        b_*.mrc 2>&1 | tail -1 | sed "s/^/bench_session ${d:-plain}: /") >>"$S"
    done
  fi
fi
if has hostbench; then
  CUDA_VISIBLE_DEVICES= timeout 300 sh "$B"/bench/bench_picker.sh "$B" /tmp/gvex_hbench "${BENCH_MICROGRAPHS:-6}" \
    >"$OUT"/hostbench.log 2>&1
  say "bench_picker, host back end: status $?  [$(elapsed) s]"
  grep -E 'machine:|bare FFT|^\(|steady state|first micrograph|run per micrograph|Running on' "$OUT"/hostbench.log >>"$S"
fi
say "done in $(elapsed) s"
