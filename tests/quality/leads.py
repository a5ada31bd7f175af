#!/usr/bin/python3
"""Rules for the sparse micrographs, scored beside the decoy rule.

  leads.py SET=LIST [SET=LIST ...]

LIST as for cutoff_eval.py (the lists realistic_sets.sh and bgal_set.sh
leave in WORK/runs/*/list and WORK/list); run it from the folder the list's
paths start in. Needs python3-numpy.

- "area": gvexreport's rule before it counted the grid maxima: crowded
  only when the particles cover 0.10 of the usable area, a hard switch.
- "switch": "edge" with the hard switch at 0.10 instead of the move.
- "decoy": the decoy rule alone, without its edge step.
- "edge": on micrographs the rule finds sparse, picks whose surroundings
  (an annulus of 1.5 to 3 particle radii) hold a gradient of more than
  EDGE times the micrograph's median (over its picks and decoys) are
  dropped: the edge of carbon or of contamination the rejected cells
  missed, where the real run scores above the decoys. This is what
  gvexreport --pick does now (report/edges.h); a micrograph is crowded
  when its particles cover 0.10 of the usable area or are 0.4 of all its
  grid maxima, 2 sd beyond chance, and between 0.05 and 0.15 of crowding
  the cut moves from the sparse cut to the half-decoy cut in proportion
  (report/cutoff.h).
- "run": a micrograph of crowding between 0.05 and 0.15 takes the branch
  of its run's median crowding (a sample is crowded or not on the whole
  grid, and the estimate of one micrograph straddles the switch); below
  and above that its own (area measure only).
- "both": the run's branches, and the sparse ones lose their edge picks.
- "retry": "edge", and a micrograph whose picks never outnumber the decoys
  beyond chance is tried again without the picks and decoys on edges
  (decoys on contamination rims at the top of the scores keep the 0.4
  floor from being met).
- "unsure": "edge" without the chance test on the grid maxima measure.
- "evidence": "edge", but the grid maxima measure stands in for the sparse
  rule's proof of particles (its 3 sd) instead of making the micrograph
  crowded: the estimated-F1 cut then decides.
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
CROWDED = 0.10  # the area measure's switch


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


def crowding(m):
    t = ce.tally(m.scores, m.decoys)
    h = ce.half_decoy(t) if t else None
    return (h[1] - h[2]) / m.cap if h and m.cap > 0 else 0.0


def sparse(m, sure=2.0):
    """Not crowded by the rule (sure=None: by the area measure alone)."""
    t = ce.tally(m.scores, m.decoys)
    h = ce.half_decoy(t) if t else None
    if not h:
        return bool(t)
    return not ce.crowded(m, h, sure)


def rule_edge(triples, retry=False, sure=2.0, blend=(0.05, 0.15)):
    """(micrographs, cuts): the decoy rule's cut; sparse ones lose their edge picks."""
    mics, cuts = [], []
    for m, s, calm in triples:
        cut = ce.decoy_rule(m, sure, blend)
        retried = retry and cut == ce.NONE and bool(calm.scores)
        if retried:
            cut = ce.decoy_rule(calm, sure, blend)
        mics.append(s if sparse(m, sure) or retried else m)
        cuts.append(cut)
    return mics, cuts


def run_branches(mics):
    """Whether each micrograph takes the crowded branch, by the run lead."""
    c = [crowding(m) for m in mics]
    run = statistics.median(c) if c else 0
    return [cm >= 0.15 or (cm >= 0.05 and run >= CROWDED) for cm in c]


def rule_run(pairs, edge=False):
    mics, cuts = [], []
    for (m, s, _), crowded in zip(pairs, run_branches([m for m, _, _ in pairs])):
        t = ce.tally(m.scores, m.decoys)
        mics.append(s if edge and t and not crowded else m)
        cuts.append(0.0 if not t else ce.half_decoy(t)[0] if crowded else ce.est_f1(t))
    return mics, cuts


def rule_evidence(triples):
    """"edge", but the grid maxima measure stands for the sparse rule's proof
    of particles instead of making the micrograph crowded."""
    mics, cuts = [], []
    for m, s, _ in triples:
        t = ce.tally(m.scores, m.decoys)
        h = ce.half_decoy(t) if t else None
        if not t or (h and ce.crowded(m, h, None)):
            mics.append(m)
            cuts.append(h[0] if h else 0.0)
            continue
        proof = h and ce.most_maxima(m, h)
        mics.append(s)
        cuts.append(ce.est_f1(t, need=0.0 if proof else 3.0))
    return mics, cuts


RULES = {"area": lambda p: rule_edge(p, sure=None, blend=None),
         "decoy": lambda p: ([m for m, _, _ in p], [ce.decoy_rule(m) for m, _, _ in p]),
         "edge": rule_edge, "run": rule_run, "both": lambda p: rule_run(p, edge=True),
         "retry": lambda p: rule_edge(p, retry=True), "unsure": lambda p: rule_edge(p, sure=0.0),
         "evidence": rule_evidence, "switch": lambda p: rule_edge(p, blend=None)}


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
