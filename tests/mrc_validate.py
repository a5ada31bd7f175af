#!/usr/bin/python3
"""Usage: mrc_validate.py <writer program> <scratch folder>

Runs the writer into the folder and checks every file it lists with the
mrcfile package: each must pass mrcfile.validate() and hold the expected
sizes, header fields, statistics and pixels. Exit status 0 when all do.
"""
import io
import os
import shutil
import subprocess
import sys

import mrcfile
import numpy as np


def problems(folder, name, nx, ny, nz, kind):
    file = os.path.join(folder, name)
    report = io.StringIO()
    if not mrcfile.validate(file, print_file=report):
        yield "mrcfile.validate failed:\n" + report.getvalue()
    with mrcfile.open(file, permissive=True) as mrc:
        h = mrc.header
        data = np.asarray(mrc.data, dtype=np.float32).reshape(nz, ny, nx).astype(np.float64)
        expect = {
            "size": ((h.nx, h.ny, h.nz), (nx, ny, nz)),
            "mode": ((h.mode,), (2,)),
            "cell angles": (tuple(h.cellb.tolist()), (90.0, 90.0, 90.0)),
            "axes": ((h.mapc, h.mapr, h.maps), (1, 2, 3)),
            "machine stamp": ((h.machst.tobytes(),), (b"DA\x00\x00",)),
        }
        if data.size:
            expect["min, max"] = ((h.dmin, h.dmax), (data.min(), data.max()))
            expect["mean, rms"] = ((h.dmean, h.rms), (data.mean(), data.std()))
        for what, (got, want) in expect.items():
            close = what == "mean, rms"
            if not all(np.isclose(g, w, rtol=1e-5, atol=1e-4) if close else g == w for g, w in zip(got, want)):
                yield "%s %s, expected %s" % (what, got, want)
        if kind != "any":
            z, y, x = np.meshgrid(np.arange(nz), np.arange(ny), np.arange(nx), indexing="ij")
            if not np.array_equal(data, x + 100 * y + 10000 * z + float(kind)):
                yield "pixels differ from the ramp written"


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    writer, folder = sys.argv[1:]
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    run = subprocess.run([writer, folder], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if run.returncode != 0:
        sys.exit("writer failed with status %d:\n%s" % (run.returncode, run.stdout))
    with open(os.path.join(folder, "manifest.txt")) as f:
        files = [line.split() for line in f if line.strip()]
    found = ["%s: %s" % (w[0], p) for w in files for p in problems(folder, w[0], *map(int, w[1:4]), w[4])]
    if len(files) != 9:
        found.append("the writer lists %d files, expected 9" % len(files))
    print("\n".join(found + ["MRC validation FAILED"]) if found else "all %d files valid" % len(files))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
