#!/usr/bin/env bash
# Throughput of gvexmatch_mpi: the same 8 micrographs (4096 x 4096, the
# example's settings) with K ranks, in micrographs per hour, against K = 1
# in the same run; then the last K again with the automatic cut-off, without
# and with its page, against the last K without. Usage: bench/bench_mpi.sh [BUILD_DIR] [K...]
set -euo pipefail
build=$(realpath "${1:-build/ci}")
shift || true
ranks=("${@:-1 2 3}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for i in 1 2 3 4 5 6 7 8; do
  "$build/tools/gvex_makemic" make "$work/m$i.mrc" --nx 4096 --ny 4096 --apix 1.34 --diameter 300 --seed $i >/dev/null
done
base=""
# timed K [OPTIONS]: seconds for the 8 micrographs with K ranks.
timed() {
  local k=$1 start
  shift
  rm -rf "$work"/*_vexmatch* "$work"/*_nonunique.box "$work"/*_rejected.* "$work/rep"
  start=$(date +%s.%N)
  mpirun --allow-run-as-root --oversubscribe --bind-to none -n "$k" "$build/mpi/gvexmatch_mpi" "$@" --apixM 1.34 \
    --diameter 300 "$work"/m?.mrc >"$work/log.txt" 2>&1
  awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { print b - a }'
}
for k in ${ranks[@]}; do
  secs=$(timed "$k")
  [ -n "$base" ] || base=$secs
  awk -v k="$k" -v s="$secs" -v b="$base" \
    'BEGIN { printf "K = %d: %6.1f s for 8 micrographs, %7.0f micrographs/hour, %.2f x K = 1\n", k, s, 8 * 3600 / s, b / s }'
done
for extra in "--auto_cutoff" "--auto_cutoff --report $work/rep"; do
  # shellcheck disable=SC2086 # the options are words
  auto=$(timed "$k" $extra)
  awk -v k="$k" -v s="$auto" -v b="$secs" -v o="${extra/"$work/rep"/DIR}" \
    'BEGIN { printf "K = %d, %s: %6.1f s, %.2f x the time without\n", k, o, s, s / b }'
done
