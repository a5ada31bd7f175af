#!/bin/sh
# Picks of a fixed set of end-to-end runs, to show that a speed change moved
# no pick.
#
#   bench/pick_hashes.sh BUILD                print one line per output file:
#                                             run, file, hash of the picks
#                                             without scores, hash of the file
#   bench/pick_hashes.sh BUILD --check FILE   the same, compared with FILE
#                                             (bench/pick_hashes.txt): picks
#                                             must match exactly
#   bench/pick_hashes.sh BUILD --against OLD  run both builds and compare:
#                                             picks exactly, scores within
#                                             1e-5 relative
#   bench/pick_hashes.sh BUILD --against-host the same, BUILD on its GPU
#                                             against BUILD on the host
#                                             (CUDA_VISIBLE_DEVICES empty);
#                                             angles are counted apart
#
# The micrographs come from gvex_makemic with fixed seeds, so the set is the
# same on every machine.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:?usage: pick_hashes.sh BUILD [--check FILE | --against OLD_BUILD]}" && pwd)
mode=${2:-}
arg=${3:-}
case $arg in "" | /*) ;; *) arg=$PWD/$arg ;; esac
WORK=$(mktemp -d /tmp/gvex_picks_XXXXXX)
trap 'rm -rf "$WORK"' EXIT

make_set() {
  mk=$1/tools/gvex_makemic
  cd "$2"
  "$mk" make a2048.mrc --nx 2048 --ny 2048 --seed 3 >/dev/null
  "$mk" make b2048.mrc --nx 2048 --ny 2048 --seed 4 --density 0.6 >/dev/null
  "$mk" make a4096.mrc --nx 4096 --ny 4096 --seed 1 >/dev/null
  "$mk" make b4096.mrc --nx 4096 --ny 4096 --seed 2 --noise 2 >/dev/null
  "$mk" make odd.mrc --nx 1500 --ny 1100 --seed 5 --noise 2 >/dev/null
  python3 "$here/make_templates.py" templates.mrcs 1.34 300
}

# run_set BUILD DIR: every run of the set, outputs under DIR/<run>/
run_set() {
  g=$1/gvexmatch
  base=$2
  one() {
    name=$1
    shift
    mkdir -p "$base/$name"
    for m in $MICS; do cp "$base/$m" "$base/$name/"; done
    (cd "$base/$name" && env $RUN_ENV "$g" --apixM 1.34 --diameter 300 "$@" $MICS >run.log 2>&1) ||
      { echo "run $name failed:" >&2; tail -5 "$base/$name/run.log" >&2; exit 1; }
  }
  MICS="a2048.mrc b2048.mrc" one synthetic
  MICS="a4096.mrc b4096.mrc" one stack --T ../templates.mrcs --apixT 1.34
  MICS="odd.mrc" one stack_fine --T ../templates.mrcs --apixT 1.34 --ang_step 7.5 --speed 1
  MICS="a2048.mrc b2048.mrc" one stack_fine2 --T ../templates.mrcs --apixT 1.34 --ang_step 3
}

# Coordinates, template and angle of every pick; the score column dropped.
picks() { awk '{ $5 = ""; print }' "$1"; }
hashes() {
  for f in "$1"/*/*_vexmatch.box "$1"/*/*_vexmatch.star "$1"/*/*_nonunique.box; do
    run=$(basename "$(dirname "$f")")
    if case $f in *.star) true ;; *) false ;; esac; then
      p=$(grep -v '^_\|^data_\|^loop_\|^$' "$f" | awk '{ $5 = ""; print }' | sha256sum | cut -c1-16)
    else
      p=$(picks "$f" | sha256sum | cut -c1-16)
    fi
    echo "$run $(basename "$f") $p $(sha256sum <"$f" | cut -c1-16)"
  done
}

RUN_ENV=
make_set "$BUILD" "$WORK"
run_set "$BUILD" "$WORK"
case $mode in
  "")
    hashes "$WORK"
    ;;
  --check)
    if ! grep -q '^Running on the host back end' "$WORK/synthetic/run.log"; then
      echo "the hashes were recorded on the host back end and this run used a GPU: not compared"
      exit 77
    fi
    hashes "$WORK" >"$WORK/now.txt"
    awk '{ print $1, $2, $3 }' "$WORK/now.txt" >"$WORK/picks.txt"
    if ! awk '{ print $1, $2, $3 }' "$arg" | diff - "$WORK/picks.txt"; then
      echo "picks differ from $arg" >&2
      exit 1
    fi
    same=$(awk 'NR == FNR { h[$1 " " $2] = $4; next } h[$1 " " $2] == $4' "$arg" "$WORK/now.txt" | wc -l)
    echo "picks identical to $arg in $(wc -l <"$WORK/now.txt") files ($same byte-identical)"
    ;;
  --against | --against-host)
    if [ "$mode" = --against-host ]; then
      OLD=$BUILD
      RUN_ENV=CUDA_VISIBLE_DEVICES=
    else
      OLD=$(cd "$arg" && pwd)
    fi
    mkdir -p "$WORK/old"
    (make_set "$OLD" "$WORK/old")
    run_set "$OLD" "$WORK/old"
    echo "this build: $(grep -h '^Running on' "$WORK/synthetic/run.log")"
    echo "against:    $(grep -h '^Running on' "$WORK/old/synthetic/run.log")"
    status=0
    worst=0
    angles=0
    # Between back ends the angle is compared apart: the set's templates are
    # discs, so every angle scores alike up to rounding, and which one wins
    # is the FFT library's rounding.
    keep() { if [ "$mode" = --against-host ]; then awk '{ $5 = ""; $7 = ""; print }' "$1"; else picks "$1"; fi; }
    for f in "$WORK"/*/*_vexmatch.box "$WORK"/*/*_nonunique.box; do
      rel=${f#"$WORK"/}
      o=$WORK/old/$rel
      keep "$o" >"$WORK/o.txt"
      angles=$((angles + $(paste "$f" "$o" | awk -v n="$(awk '{ print NF; exit }' "$f")" '$7 != $(n + 7)' | wc -l)))
      if ! keep "$f" | diff -q - "$WORK/o.txt" >/dev/null; then
        echo "picks differ: $rel (this build <, against >; first lines with scores)" >&2
        diff "$f" "$o" | head -8 >&2
        status=1
      fi
      w=$(paste "$f" "$o" | awk -v n="$(awk '{ print NF; exit }' "$f")" '
        { a = $5; b = $(n + 5); d = a - b; if (d < 0) d = -d; m = b < 0 ? -b : b; r = m > 0 ? d / m : d; if (r > w) w = r }
        END { printf "%.3g", w + 0 }')
      worst=$(awk -v a="$worst" -v b="$w" 'BEGIN { print (b > a ? b : a) }')
    done
    echo "largest relative score difference: $worst; picks with another angle: $angles of $(cat "$WORK"/*/*_vexmatch.box "$WORK"/*/*_nonunique.box | wc -l)"
    awk -v w="$worst" 'BEGIN { exit !(w <= 1e-5) }' || { echo "scores differ by more than 1e-5" >&2; status=1; }
    [ $status -eq 0 ] && echo "picks identical in every run"
    exit $status
    ;;
  *)
    echo "unknown mode $mode" >&2
    exit 2
    ;;
esac
