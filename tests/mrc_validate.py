#!/usr/bin/python3
"""Writes MRC files with our writers and checks them with the mrcfile package.

Usage: mrc_validate.py <writer program> <scratch folder>
Exit status 0 when every file passes mrcfile.validate() and holds the
expected sizes, header fields and pixels; 1 otherwise.
"""
import io
import os
import shutil
import subprocess
import sys

import mrcfile
import numpy as np

EXPECTED_FILES = 9


def check(folder, line):
    name, nx, ny, nz, kind = line.split()
    nx, ny, nz = int(nx), int(ny), int(nz)
    file = os.path.join(folder, name)
    problems = []
    report = io.StringIO()
    if not mrcfile.validate(file, print_file=report):
        problems.append("mrcfile.validate failed:\n" + report.getvalue())
    with mrcfile.open(file, permissive=True) as mrc:
        h = mrc.header
        if (int(h.nx), int(h.ny), int(h.nz)) != (nx, ny, nz):
            problems.append("size %d x %d x %d, expected %d x %d x %d" % (h.nx, h.ny, h.nz, nx, ny, nz))
        if int(h.mode) != 2:
            problems.append("mode %d, expected 2" % h.mode)
        if tuple(float(v) for v in h.cellb.tolist()) != (90.0, 90.0, 90.0):
            problems.append("cell angles %s" % (h.cellb,))
        if (int(h.mapc), int(h.mapr), int(h.maps)) != (1, 2, 3):
            problems.append("axes %d %d %d" % (h.mapc, h.mapr, h.maps))
        if bytes(h.machst.tobytes()) != b"DA\x00\x00":
            problems.append("machine stamp %r" % h.machst.tobytes())
        data = np.asarray(mrc.data, dtype=np.float32).reshape(nz, ny, nx)
        if data.size:
            if float(h.dmin) != float(data.min()) or float(h.dmax) != float(data.max()):
                problems.append("amin/amax %g %g, data %g %g" % (h.dmin, h.dmax, data.min(), data.max()))
            if not np.isclose(float(h.dmean), data.mean(dtype=np.float64), rtol=1e-5, atol=1e-4):
                problems.append("amean %g, data %g" % (h.dmean, data.mean(dtype=np.float64)))
        if kind != "any":
            z, y, x = np.meshgrid(np.arange(nz), np.arange(ny), np.arange(nx), indexing="ij")
            want = (x + 100 * y + 10000 * z).astype(np.float32) + np.float32(float(kind))
            if not np.array_equal(data, want):
                problems.append("pixels differ from the ramp written")
    for p in problems:
        print("%s: %s" % (name, p))
    return not problems


def main():
    if len(sys.argv) != 3:
        print(__doc__)
        return 1
    writer, folder = sys.argv[1], sys.argv[2]
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    run = subprocess.run([writer, folder], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if run.returncode != 0:
        print("writer failed with status %d:\n%s" % (run.returncode, run.stdout))
        return 1
    with open(os.path.join(folder, "manifest.txt")) as f:
        lines = [l for l in f.read().splitlines() if l.strip()]
    ok = len(lines) == EXPECTED_FILES
    if not ok:
        print("manifest lists %d files, expected %d" % (len(lines), EXPECTED_FILES))
    for line in lines:
        ok = check(folder, line) and ok
    print("all %d files valid" % len(lines) if ok else "MRC validation FAILED")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
