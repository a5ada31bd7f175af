#!/usr/bin/python3
"""Rules for the sparse micrographs, scored beside gvexreport's.

  leads.py SET=LIST [SET=LIST ...]

LIST as for cutoff_eval.py (the lists realistic_sets.sh and bgal_set.sh
leave in WORK/runs/*/list and WORK/list); run it from the folder the list's
paths start in. Needs python3-numpy. A set's micrographs are one run.

- "edge": gvexreport --pick's rule (report/cutoff.h). A micrograph is
  crowded when its particles cover 0.10 of the usable area or are half of
  all its grid maxima, 2 sd beyond chance; between 0.05 and 0.15 of
  crowding the cut moves from the sparse cut to the half-decoy cut in
  proportion. On micrographs it finds sparse, picks whose surroundings (an
  annulus of 1.5 to 3 particle radii) hold a gradient of more than EDGE
  times the micrograph's median (over its picks and decoys) are dropped:
  the edge of carbon or of contamination the rejected cells missed, where
  the real run scores above the decoys (report/edges.h). The run's sparse
  cut is the one of the pooled picks and decoys off edges of the run's
  sparse micrographs. A sparse micrograph whose picks never outnumber its
  decoys beyond chance takes it; one whose picks do takes the mean of its
  own sparse cut and the run's, each weighted by the square of its
  evidence (the largest excess of picks over decoys in sd of chance).
  Last, each micrograph's cut is weighed with the whole run's (the same
  rule over the run's picks and decoys together, its sparse cut from the
  pool off edges), each by its evidence squared, the run's divided among
  its micrographs (cutoff_eval.whole_run), save where its decoys score
  unlike the rest's or where, on a sparse micrograph, toward a lower run's
  cut, its own picks between the two do not outnumber its decoys
  (cutoff_eval.weigh).
- "fours": "edge" on the set cut as runs of four micrographs (the
  same as "edge" on sets of four).
- "permic": "edge" without the whole run's cut weighed in (the rule
  before it).
- "decoy": the same without its edge step (cutoff_eval.py's), its run's
  pool taking every pick and decoy.
- "own": "edge" with the micrograph's own sparse cut wherever it has one.
- "alone": "edge" without the run's sparse cut.
- "pool": every sparse micrograph takes the run's sparse cut, its own
  evidence or not.
- "job": gvexmatch_relion's cutoff auto: each micrograph from its own
  picks and decoys alone, neither run's cut.
- "recent": gvexmatch_relion's default (cutoff recent): each micrograph,
  in the list's order, cut as the last of a run of itself and the (up to)
  63 micrographs before it.
Prints the F1 of each (kept picks per micrograph on a set without
particles) and how many sets meet the targets.
"""
import math
import os
import statistics
import struct
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cutoff_eval as ce  # noqa: E402

EDGE = 4.0


def read_mrc(path):
    with open(path, "rb") as f:
        head = f.read(1024)
        nx, ny, _, mode = struct.unpack("<4i", head[:16])
        f.seek(1024 + struct.unpack("<i", head[92:96])[0])
        dtype = {0: np.int8, 1: np.int16, 2: np.float32, 6: np.uint16, 12: np.float16}[mode]
        data = np.frombuffer(f.read(nx * ny * np.dtype(dtype).itemsize), dtype=dtype)
    return data.astype(np.float32).reshape(ny, nx)


class Gradient:
    """Gradient of a plane fitted to the annulus around a point, on the
    micrograph binned to about 8 pixels a particle radius."""

    def __init__(self, mrc, particle_radius):
        img = read_mrc(mrc)
        self.bin = max(1, int(round(particle_radius / 8)))
        ny, nx = (n // self.bin * self.bin for n in img.shape)
        self.img = img[:ny, :nx].reshape(ny // self.bin, self.bin, nx // self.bin, self.bin).mean(axis=(1, 3))
        r = particle_radius / self.bin
        self.reach = int(math.ceil(3 * r))
        yy, xx = np.mgrid[-self.reach:self.reach + 1, -self.reach:self.reach + 1]
        rr = np.hypot(xx, yy)
        self.ring = (rr >= 1.5 * r) & (rr <= 3 * r)

    def at(self, x, y):
        cx, cy, k = int(round(x / self.bin)), int(round(y / self.bin)), self.reach
        ny, nx = self.img.shape
        x0, x1, y0, y1 = max(0, cx - k), min(nx, cx + k + 1), max(0, cy - k), min(ny, cy + k + 1)
        ring = self.ring[y0 - cy + k:y1 - cy + k, x0 - cx + k:x1 - cx + k]
        ys, xs = np.nonzero(ring)
        if len(xs) < 4:
            return 0.0
        values = self.img[y0:y1, x0:x1][ring]
        a = np.c_[xs - xs.mean(), ys - ys.mean(), np.ones(len(xs))]
        coef = np.linalg.lstsq(a, values, rcond=None)[0]
        return math.hypot(coef[0], coef[1])


def load(path):
    """[(Mic, Mic without the edge picks, Mic without edge picks or decoys)] of a list."""
    out = []
    for v in (line.split() for line in open(path)):
        if len(v) < 6:
            continue
        picks, decoys, truth = ce.read_box(v[0]), ce.read_box(v[1]), ce.read_truth(v[2])
        cap = ce.capacity(v[0], float(v[5]))
        grad = Gradient(v[0][: -len("_vexmatch.box")] + ".mrc", float(v[5]))
        g = [grad.at(x, y) for x, y, _ in picks]
        gd = [grad.at(x, y) for x, y, _ in decoys]
        median = statistics.median(g + gd or [1.0])
        smooth = [p for p, gp in zip(picks, g) if gp <= EDGE * median]
        calm = [d for d, gp in zip(decoys, gd) if gp <= EDGE * median]
        out.append((ce.Mic(picks, truth, float(v[4]), decoys, cap, None),
                    ce.Mic(smooth, truth, float(v[4]), decoys, cap, None),
                    ce.Mic(smooth, truth, float(v[4]), calm, cap, None)))
    return out


def run_sparse(triples):
    """The run's sparse cut and its evidence: over the picks and decoys off
    edges of the micrographs read as sparse."""
    real = [x for m, _, calm in triples if ce.reads_sparse(m) for x in calm.scores]
    decoys = sorted(x for m, _, calm in triples if ce.reads_sparse(m) for x in calm.decoys)
    t = ce.tally(real, decoys)
    return (ce.est_f1(t), ce.evidence(t)) if real else (ce.NONE, 0.0)


def rule_edge(triples, run=True, own=True, average=True, whole=True):
    """(micrographs, cuts): the rule's cut; sparse ones lose their edge
    picks. run: with the run's sparse cut; own=False: the run's cut even
    where a micrograph shows evidence of its own; average=False: its own
    cut where it has one; whole: weighed with the whole run's cut."""
    cut = run_sparse(triples) if run else (ce.NONE, 0.0)
    mics = [m for m, _, _ in triples]
    w = ce.whole_run(mics, [calm for _, _, calm in triples]) if whole else (ce.NONE, 0.0, [])
    return ([s if ce.reads_sparse(m) else m for m, s, _ in triples],
            [ce.weigh(m, ce.decoy_rule(m, run=cut, own=own, average=average), w) for m in mics])


def in_fours(rule):
    """rule on the set's micrographs taken four at a time, in list order, as
    runs of four."""
    def cut(triples):
        mics, cuts = [], []
        for k in range(0, len(triples), 4):
            m, c = rule(triples[k:k + 4])
            mics, cuts = mics + m, cuts + c
        return mics, cuts
    return cut


def recent(triples, window=64):
    """gvexmatch_relion's default: each micrograph, in list order, cut as the
    last of a run of itself and up to window - 1 micrographs before it."""
    mics, cuts = [], []
    for i in range(len(triples)):
        m, c = rule_edge(triples[max(0, i + 1 - window):i + 1])
        mics.append(m[-1])
        cuts.append(c[-1])
    return mics, cuts


RULES = {"edge": rule_edge,
         "fours": in_fours(rule_edge),
         "permic": lambda p: rule_edge(p, whole=False),
         "decoy": lambda p: ([m for m, _, _ in p], ce.decoy_cuts([m for m, _, _ in p])),
         "own": lambda p: rule_edge(p, average=False),
         "alone": lambda p: rule_edge(p, run=False),
         "pool": lambda p: rule_edge(p, own=False),
         "job": lambda p: rule_edge(p, run=False, whole=False),
         "recent": recent}


def main(args):
    if not args:
        sys.exit(__doc__)
    met = {k: [0, 0] for k in RULES}
    print("%-28s%9s%9s%9s" % ("set", "none", "0.15", "best") + "".join("%10s" % k for k in RULES))
    for arg in args:
        label, path = arg.split("=", 1)
        pairs = load(path)
        mics = [m for m, _, _ in pairs]
        if sum(m.n_truth for m in mics) == 0:
            kept = [sum(m.counts(c)[1] for m, c in zip(*r(pairs))) / len(mics) for r in RULES.values()]
            print("%-28s" % (label + " (kept)") + " " * 27 + "".join("%10.1f" % k for k in kept))
            continue
        best = ce.best_single(mics)[0]
        floor = max(ce.set_f1(mics, [-ce.NONE] * len(mics)), ce.set_f1(mics, [0.15] * len(mics))) - 0.01
        row = [ce.set_f1(*r(pairs)) for r in RULES.values()]
        for k, f in zip(RULES, row):
            met[k][0] += f >= 0.95 * best and f >= floor
            met[k][1] += 1
        print("%-28s%9.3f%9.3f%9.3f" % (label, ce.set_f1(mics, [-ce.NONE] * len(mics)),
                                        ce.set_f1(mics, [0.15] * len(mics)), best) + "".join("%10.3f" % f for f in row))
    print("sets meeting the targets: " + ", ".join("%s %d of %d" % (k, *v) for k, v in met.items()))


if __name__ == "__main__":
    main(sys.argv[1:])
