#!/usr/bin/env python3
"""F1 of cut-off rules on picked micrographs with known particle centres.

  cutoff_eval.py table [--check] SET=LIST [SET=LIST ...]

LIST holds one micrograph a line: "picks.box decoy.box truth auto.box radius
particle_radius". picks.box is the --cc_cutoff 0 run (beside its micrograph
NAME.mrc and NAME_rejected.box), decoy.box the same run with the templates'
contrast inverted ("-" when not run: the rules on decoys are not scored),
truth the centres ("x y" lines or a STAR file), auto.box gvexreport --apply's
picks ("-" when absent); radius (px) makes a pick true, particle_radius (px)
sizes the usable area. A pick is true within radius of a centre not taken by
a nearer pick (greedy, nearest pairs first); F1 pools a set's micrographs. On
a set without particles the picks kept per micrograph are shown instead.
--check: status 1 when gvexreport's cut-off (auto) misses the targets (>= 0.95
x the best single cut-off, >= the better of no cut-off and 0.15 less 0.01) on
a set with particles.
"learnt" cuts each micrograph at the best single cut-off of the set's other
micrographs: what a cut learnt with the truth reaches on micrographs it did
not see (the best single cut-off sees them all, and on small sets that
advantage is of the order of the targets' margin).
"""
import bisect
import math
import os
import struct
import sys

NONE = float("inf")  # a cut that keeps nothing


def read_box(path):
    """(x, y, score) of the centres of an EMAN .box file (corner, size, score)."""
    picks = []
    with open(path) as f:
        for line in f:
            v = line.split()
            if len(v) >= 5:
                x, y, w, h, s = (float(t) for t in v[:5])
                picks.append((x + int(w) // 2, y + int(h) // 2, s))
    return picks


def read_truth(path):
    """Centres from "x y" lines, or the first two columns of a STAR loop."""
    out = []
    with open(path) as f:
        for line in f:
            v = line.split()
            try:
                out.append((float(v[0]), float(v[1])))
            except (ValueError, IndexError):
                pass
    return out


def capacity(picks_path, particle_radius):
    """Particle discs that fit the micrograph less its rejected cells."""
    stem = picks_path[: -len("_vexmatch.box")]
    with open(stem + ".mrc", "rb") as f:
        nx, ny = struct.unpack("<2i", f.read(8))
    area = float(nx) * ny
    if os.path.exists(stem + "_rejected.box"):
        for v in (line.split() for line in open(stem + "_rejected.box")):
            if len(v) >= 4:
                area -= float(v[2]) * float(v[3])
    return area / (math.pi * particle_radius ** 2)


class Mic:
    """Pick-centre pairs within reach, nearest first, for fast rescoring."""

    def __init__(self, picks, truth, radius, decoys, cap, auto):
        self.scores = [p[2] for p in picks]
        # gvexreport's kept picks: a cut, less the picks its rule leaves out
        # as on strong edges (those scored as kept by no cut)
        self.auto_keep = None if auto is None else [p in auto for p in picks]
        self.has_decoys = decoys is not None
        self.decoys = sorted(d[2] for d in decoys or [])
        self.n_truth, self.cap = len(truth), cap
        cell = {}
        for j, (x, y) in enumerate(truth):
            cell.setdefault((int(x // radius), int(y // radius)), []).append(j)
        self.pairs = sorted(
            (math.hypot(x - truth[j][0], y - truth[j][1]), i, j)
            for i, (x, y, _) in enumerate(picks)
            for gx in (int(x // radius) - 1, int(x // radius), int(x // radius) + 1)
            for gy in (int(y // radius) - 1, int(y // radius), int(y // radius) + 1)
            for j in cell.get((gx, gy), ())
            if math.hypot(x - truth[j][0], y - truth[j][1]) <= radius)

    def counts(self, cut):
        """(true picks, picks, centres) keeping scores >= cut, or with cut
        "auto" the picks gvexreport kept."""
        keep = self.auto_keep if cut == "auto" else [s >= cut for s in self.scores]
        used_p, used_t = set(), set()
        for _, i, j in self.pairs:
            if keep[i] and i not in used_p and j not in used_t:
                used_p.add(i)
                used_t.add(j)
        return len(used_p), sum(keep), self.n_truth


def set_f1(mics, cuts):
    tp = n = t = 0
    for m, c in zip(mics, cuts):
        a, b, c3 = m.counts(c)
        tp, n, t = tp + a, n + b, t + c3
    return 2.0 * tp / (n + t) if n + t else 0.0


# ---- rules on one micrograph's pick and decoy scores (report/cutoff.cpp) ----

def tally(real, decoys):
    """(score, picks >= score, decoys >= score) per distinct pick score, rising."""
    rs, out = sorted(real), []
    for k, s in enumerate(rs):
        if not k or s != rs[k - 1]:
            out.append((s, len(rs) - k, len(decoys) - bisect.bisect_left(decoys, s)))
    return out


def lowest(t, ratio):
    """Lowest cut with at most ratio decoys per pick above it."""
    return next((x for x in t if x[2] <= ratio * x[1]), None)


def half_decoy(t):
    return lowest(t, 0.5)


def evidence(t):
    """The largest excess of picks over decoys, in sd of chance."""
    return max([0] + [(n - d) / math.sqrt(n + d) for _, n, d in t])


def est_f1(t, floor=0.4, need=3.0):
    """Cut maximising F1 with decoys as the false picks, no lower than the
    floor's ratio cut; NONE without evidence (need sd beyond chance)."""
    most = max([0] + [n - d for _, n, d in t])
    if most <= 0 or evidence(t) < need:
        return NONE
    best = max(t, key=lambda x: (2 * max(0, x[1] - x[2]) / (x[1] + most), -x[0]))[0]
    low = lowest(t, floor) if floor else (best,)
    return max(best, low[0]) if low else NONE


def most_maxima(m, h, sure=2.0):
    """At the half-decoy cut h the picks less the decoys are half of all the
    grid maxima and sure sd beyond chance."""
    excess = h[1] - h[2]
    return excess >= 0.5 * len(m.scores) and excess >= sure * math.sqrt(h[1] + h[2])


def crowded(m, h, sure=2.0):
    """Read as crowded (edge picks stay): particles cover 0.10 of the usable
    area, or most maxima (sure=None: by area alone)."""
    if m.cap <= 0 or h[1] - h[2] >= 0.10 * m.cap:
        return True
    return sure is not None and most_maxima(m, h, sure)


def reads_sparse(m):
    """Picks, and read as sparse (not crowded) by the rule."""
    t = tally(m.scores, m.decoys)
    h = half_decoy(t) if t else None
    return bool(t) and (not h or not crowded(m, h))


def run_cut(mics):
    """The run's sparse cut and its evidence: est_f1 over the pooled picks
    and decoys of the micrographs read as sparse; NONE without evidence."""
    real = [s for m in mics if reads_sparse(m) for s in m.scores]
    decoys = sorted(s for m in mics if reads_sparse(m) for s in m.decoys)
    t = tally(real, decoys)
    return (est_f1(t), evidence(t)) if real else (NONE, 0.0)


def decoy_rule(m, sure=2.0, blend=(0.05, 0.15), run=(NONE, 0.0), own=True, average=True, maxima=(0.4, 0.6)):
    """gvexreport's rule without its edge step. run: the run's sparse cut
    and its evidence, taken where the micrograph alone shows no evidence,
    and averaged with its own cut, weighted by the evidence squared, where
    it does (own=False: the run's cut always; average=False: its own cut
    where it has one). sure=None: crowded by area alone; blend=None: the
    half-decoy cut from 0.10 of crowding up, the sparse cut below (no move
    between them); maxima: the share of the grid maxima over which the cut
    moves to the half-decoy cut (None: a switch at half)."""
    t = tally(m.scores, m.decoys)
    if not t:
        return 0.0
    h = half_decoy(t)
    e = est_f1(t) if own else NONE
    if e == NONE:
        e = run[0]
    elif run[0] != NONE and average:
        w_own, w_run = evidence(t) ** 2, run[1] ** 2
        e = (w_own * e + w_run * run[0]) / (w_own + w_run)
    if not h:
        return e
    crowd = (h[1] - h[2]) / m.cap if m.cap > 0 else math.inf
    mm = sure is not None and most_maxima(m, h, sure)
    w_max = 0.0
    if sure is not None and h[1] - h[2] >= sure * math.sqrt(h[1] + h[2]):
        share = (h[1] - h[2]) / len(m.scores)
        w_max = min(1.0, max(0.0, (share - maxima[0]) / (maxima[1] - maxima[0]))) if maxima else float(mm)
    hi = blend[1] if blend else 0.10
    if w_max >= 1 or crowd >= hi:
        return h[0]
    if e == NONE:
        return h[0] if crowd >= 0.10 or mm else NONE
    w_area = min(1.0, max(0.0, (crowd - blend[0]) / (blend[1] - blend[0]))) if blend else 0.0
    w = max(w_area, w_max)
    return w * h[0] + (1 - w) * e if w > 0 else e


class Pool:
    """Picks and decoys of several micrographs together."""

    def __init__(self, mics):
        self.scores = [s for m in mics for s in m.scores]
        self.decoys = sorted(s for m in mics for s in m.decoys)
        self.cap = sum(m.cap for m in mics)


def whole_run(mics, calm=None):
    """The run's cut (decoy_rule over all its picks and decoys together, its
    sparse cut the pool's off strong edges: calm, the micrographs without
    their edge picks and decoys), its weight against one micrograph (the
    pool's evidence squared over its micrographs) and the pooled decoys,
    sorted; NONE and 0 for fewer than two micrographs with picks."""
    with_picks = [i for i, m in enumerate(mics) if m.scores]
    if len(with_picks) < 2:
        return NONE, 0.0, []
    pool = Pool([mics[i] for i in with_picks])
    off_edges = Pool([(calm or mics)[i] for i in with_picks])
    t = tally(off_edges.scores, off_edges.decoys)
    cut = decoy_rule(pool, run=(est_f1(t), evidence(t)), own=False)
    return cut, evidence(tally(pool.scores, pool.decoys)) ** 2 / len(with_picks), pool.decoys


def unlike_the_rest(own, pool):
    """Kolmogorov-Smirnov distance between a micrograph's decoy scores and
    the pool's others (pool sorted, own among them)."""
    own, rest = sorted(own), len(pool) - len(own)
    if not own or rest <= 0:
        return 0.0
    d = 0.0
    for k, x in enumerate(own):
        if k and x == own[k - 1]:
            continue
        upto = bisect.bisect_right(own, x)
        below_p, upto_p = bisect.bisect_left(pool, x), bisect.bisect_right(pool, x)
        d = max(d, abs(k / len(own) - (below_p - k) / rest), abs(upto / len(own) - (upto_p - upto) / rest))
    return d


def weigh(m, cut, run):
    """A micrograph's cut weighed with the run's, each by its evidence
    squared; not where its decoys score unlike the rest's (a distance of
    0.8), nor, on a sparse micrograph, toward a lower run's cut where its
    own picks between the two do not outnumber its decoys."""
    if run[0] == NONE:
        return cut
    if len(run) > 2 and unlike_the_rest(m.decoys, run[2]) >= 0.8:
        return cut
    if cut == NONE:
        return run[0]
    if run[0] < cut and reads_sparse(m):
        between = lambda v: sum(run[0] <= s < cut for s in v)
        if between(m.scores) <= between(m.decoys):
            return cut
    own = evidence(tally(m.scores, m.decoys)) ** 2
    return (own * cut + run[1] * run[0]) / (own + run[1]) if own + run[1] > 0 else cut


def decoy_cuts(mics):
    """decoy_rule on each micrograph of a run, with the run's sparse cut,
    weighed with the whole run's cut."""
    run, whole = run_cut(mics), whole_run(mics)
    return [weigh(m, decoy_rule(m, run=run), whole) for m in mics]


RULES = {
    "ratio0.5": lambda ms: [(half_decoy(tally(m.scores, m.decoys)) or (NONE,))[0] for m in ms],
    "estF1": lambda ms: [est_f1(tally(m.scores, m.decoys), None) for m in ms],
    "decoy": decoy_cuts,
}


def load_list(path):
    mics = []
    for v in (line.split() for line in open(path)):
        if len(v) < 6:
            continue
        auto = None
        if v[3] != "-" and os.path.exists(v[3]):
            auto = set(read_box(v[3]))
        decoys = read_box(v[1]) if v[1] != "-" else None
        mics.append(Mic(read_box(v[0]), read_truth(v[2]), float(v[4]), decoys,
                        capacity(v[0], float(v[5])), auto))
    return mics


def best_single(mics, n_cuts=800):
    cuts = sorted({s for m in mics for s in m.scores})
    if len(cuts) > n_cuts:
        cuts = [cuts[i * (len(cuts) - 1) // (n_cuts - 1)] for i in range(n_cuts)]
    return max([(set_f1(mics, [c] * len(mics)), c) for c in cuts] or [(0.0, 0.0)])


def learnt(mics):
    """Each micrograph at the best single cut-off of the others (None alone)."""
    if len(mics) < 2:
        return None
    return [best_single(mics[:i] + mics[i + 1:])[1] for i in range(len(mics))]


def table(args):
    check = "--check" in args
    names = ["none", "0.15", "best", "learnt", "auto"] + list(RULES)
    print("%-28s" % "set" + "".join("%9s" % n for n in names) + "  best at")
    missed = []
    for arg in (a for a in args if a != "--check"):
        label, path = arg.split("=", 1)
        mics = load_list(path)
        with_truth = sum(m.n_truth for m in mics) > 0
        cuts = [[-NONE] * len(mics), [0.15] * len(mics), None, learnt(mics) if with_truth else None,
                ["auto"] * len(mics) if all(m.auto_keep is not None for m in mics) else None]
        cuts += [rule(mics) if all(m.has_decoys for m in mics) else None for rule in RULES.values()]
        if not with_truth:
            kept = [sum(m.counts(c)[1] for m, c in zip(mics, cs)) / len(mics) if cs else float("nan")
                    for cs in cuts]
            print("%-28s" % (label + " (kept)") + "".join("%9.1f" % k for k in kept))
            continue
        best, at = best_single(mics)
        row = [best if i == 2 else set_f1(mics, cs) if cs else float("nan") for i, cs in enumerate(cuts)]
        print("%-28s" % label + "".join("%9.3f" % v for v in row) + "  %.3f" % at)
        if not (row[4] >= 0.95 * best and row[4] >= max(row[0], row[1]) - 0.01):
            missed.append(label)
    if missed:
        print("gvexreport's cut-off below the targets on: " + " ".join(missed))
    return 1 if check and missed else 0


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] != "table":
        sys.exit(__doc__)
    sys.exit(table(sys.argv[2:]))
