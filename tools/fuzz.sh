#!/usr/bin/env bash
# Builds the fuzz targets (preset "fuzz": clang, libFuzzer, ASan + UBSan) and
# runs each for SECONDS (default 30) from its checked-in seed corpus, with
# its dictionary. A finding stops the script with the target's report and
# the crashing input under build/fuzz/findings/. Long runs:
#   bash tools/fuzz.sh 3600
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz >/dev/null
mkdir -p build/fuzz/findings
# This run's scratch folder, in memory where the machine has /dev/shm.
shm=/tmp; [ -w /dev/shm ] && shm=/dev/shm
export GVEX_FUZZ_SCRATCH="$(mktemp -d "$shm/gvex_fuzz_run.XXXXXX")"
trap 'rm -rf "$GVEX_FUZZ_SCRATCH"' EXIT  # after a finding too; the input is under findings/
for src in tests/fuzz/fuzz_*.cpp; do
  target=$(basename "$src" .cpp)
  work="build/fuzz/corpus/$target"  # grows here; the seeds stay as checked in
  mkdir -p "$work"
  dict=()
  [ -f "tests/fuzz/$target.dict" ] && dict=("-dict=tests/fuzz/$target.dict")
  build/fuzz/tests/fuzz/"$target" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix=build/fuzz/findings/"$target"- "${dict[@]}" "$work" "tests/fuzz/corpus/$target" \
    >"build/fuzz/$target.log" 2>&1 || { cat "build/fuzz/$target.log"; echo "fuzz: $target found a problem"; exit 1; }
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "build/fuzz/$target.log" | grep -o '[0-9]*$')
  echo "fuzz: $target ran $runs inputs in ${seconds}s, no finding"
done
# The targets remove their scratch inputs when they end.
if [ -n "$(ls -A "$GVEX_FUZZ_SCRATCH")" ]; then
  echo "fuzz: scratch files left in $GVEX_FUZZ_SCRATCH: $(ls "$GVEX_FUZZ_SCRATCH" | head -3 | tr '\n' ' ')"
  exit 1
fi
