#!/usr/bin/env bash
# Builds the CUDA configuration and packs the programs, the test binaries,
# the benchmarks and the libraries a bare machine lacks into one folder and
# one archive that run on any x86-64 Linux with an NVIDIA driver and a glibc
# at least as new as this machine's, without root and without installing
# anything: for clusters, and for the GPU check (tools/device_check.sh).
#
#   tools/bundle.sh [--out DIR] [--probe FILE.cpp]
#
# DIR (default build/bundle) receives gvexmatch-bundle/ and
# gvexmatch-bundle.tar.gz. The bundle keeps the build tree's layout
# (gvexmatch, report/gvexreport, relion/gvexmatch_relion, tune/gvexmatch_tune, tools/gvex_makemic, tests/, bench/), so the
# benchmark scripts take it as a build folder, and holds lib/ with every
# shared library the programs need beyond the C library and the driver.
# cuFFT is not packed (it alone is several times the 64 MiB the bundle must
# stay under): the programs open the CUDA toolkit's libcufft at run time and
# pick on the host, saying why, where there is none.
# --probe compiles a stand-alone probe program against the bundle's library
# and adds it as bin/gpu_probe.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
out=build/bundle
probe=
while [ $# -gt 0 ]; do
  case $1 in
    --out) out=$2; shift 2 ;;
    --probe) probe=$(realpath "$2"); shift 2 ;;
    -h | --help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bundle.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
command -v nvcc >/dev/null 2>&1 || [ -x /usr/local/cuda/bin/nvcc ] ||
  { echo "bundle.sh: the bundle is the CUDA build and needs nvcc" >&2; exit 1; }
bash tools/deps.sh --tests
command -v patchelf >/dev/null 2>&1 || { apt-get update && apt-get install -y --no-install-recommends patchelf; }

build=$out/build
# The foreign-launcher picker is built for Ampere only: on any other GPU it
# must refuse the GPU and pick on the host (tests/test_gpu.cpp).
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DGVEX_CUDA=ON -DGVEX_MPI=OFF -DGVEX_TESTS=ON \
  -DGVEX_BENCH=ON -DGVEX_FOREIGN_ARCH=80-real >/dev/null
cmake --build "$build" -j2

stage=$out/gvexmatch-bundle
rm -rf "$stage" "$out/gvexmatch-bundle.tar.gz"
mkdir -p "$stage"/{lib,report,relion,tune,tools,tests,bench}
cp "$build"/gvexmatch "$build"/gvexmatch_foreign "$stage"/
cp "$build"/report/gvexreport "$stage"/report/
cp "$build"/relion/gvexmatch_relion "$stage"/relion/
cp "$build"/tune/gvexmatch_tune "$stage"/tune/  # run (c) of bench/bench_picker.sh
cp "$build"/tools/gvex_makemic "$stage"/tools/
find "$build"/tests -maxdepth 1 -type f -name 'test_*' -perm -u+x -exec cp {} "$stage"/tests/ \;
find "$build"/bench -maxdepth 1 -type f -name 'bench_*' -perm -u+x -exec cp {} "$stage"/bench/ \;
# What the test binaries read from the source tree, and the scripts.
mkdir -p "$stage"/tests/golden
cp -r tests/golden/cli "$stage"/tests/golden/
cp bench/*.sh bench/*.py bench/pick_hashes.txt "$stage"/bench/
cp tools/device_check.sh "$stage"/

if [ -n "$probe" ]; then
  mkdir -p "$stage"/bin
  # Linked like the programs: the library, FFTW with its threads, OpenMP,
  # the static CUDA runtime.
  # A probe written against an older library may no longer compile; the
  # bundle is still worth having, and device_check.sh skips a missing probe.
  if ! /usr/local/cuda/bin/nvcc -std=c++17 -O2 -I"$src" -I/usr/local/cuda/include -DGVEX_WITH_CUDA=1 \
    -Xcompiler=-fopenmp -o "$stage"/bin/gpu_probe "$probe" "$build"/libgvex.a \
    -lfftw3f_omp -lfftw3f -lgomp -ldl -lrt -lpthread >"$out"/probe.log 2>&1; then
    echo "bundle.sh: $probe does not compile against this library (errors in $out/probe.log); bundled without it" >&2
    grep -m 5 'error' "$out"/probe.log >&2 || true
    rm -rf "$stage"/bin
  fi
fi

# Every shared library the programs load, but the C library's own and the
# driver's, goes to lib/, and each program looks there first.
skip='^(linux-vdso|ld-linux|libc\.so|libm\.so|libdl\.so|libpthread\.so|librt\.so|libcuda\.so)'
for f in $(find "$stage" -type f -perm -u+x ! -name '*.sh' ! -name '*.py'); do
  [ "$(head -c 4 "$f" | tail -c 3)" = ELF ] || continue
  ldd "$f" | awk '$3 ~ /^\// { print $1, $3 }' | while read -r name path; do
    echo "$name" | grep -Eq "$skip" && continue
    [ -e "$stage/lib/$name" ] || cp -L "$path" "$stage/lib/$name"
  done
  rel=$(realpath --relative-to="$(dirname "$f")" "$stage/lib")
  patchelf --set-rpath "\$ORIGIN/$rel" "$f"
done
if ldd "$stage"/gvexmatch | grep -q 'not found'; then
  echo "bundle.sh: gvexmatch still misses a library:" >&2
  ldd "$stage"/gvexmatch >&2
  exit 1
fi

tar -C "$out" -czf "$out/gvexmatch-bundle.tar.gz" gvexmatch-bundle
size=$(stat -c %s "$out/gvexmatch-bundle.tar.gz")
echo "bundle: $out/gvexmatch-bundle.tar.gz ($((size / 1048576)) MiB; $(ls "$stage"/lib | wc -l) libraries packed)"
if [ "$size" -ge $((64 * 1048576)) ]; then
  echo "bundle.sh: the archive is 64 MiB or more" >&2
  exit 1
fi
