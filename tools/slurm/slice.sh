#!/bin/sh
# Prints slice TASK (0-based) of COUNT of the micrograph list LIST (one name
# per line): lines TASK, TASK + COUNT, TASK + 2*COUNT, ... Interleaved slices
# keep neighbours of the list (often similar in cost) on different tasks.
# Usage: slice.sh LIST TASK COUNT
set -eu
[ $# -eq 3 ] || { echo "usage: slice.sh LIST TASK COUNT" >&2; exit 2; }
[ -r "$1" ] || { echo "slice.sh: cannot read $1" >&2; exit 1; }
case "$2$3" in *[!0-9]*|"") echo "slice.sh: TASK and COUNT must be whole numbers" >&2; exit 2;; esac
[ "$2" -lt "$3" ] || { echo "slice.sh: TASK $2 is not below COUNT $3" >&2; exit 2; }
grep -v '^[[:space:]]*$' "$1" | awk -v t="$2" -v n="$3" '(NR - 1) % n == t'
