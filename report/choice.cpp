// Each micrograph's cut-off and the reasons for it, and the run's.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "report/cutoff.h"
#include "report/micrograph.h"

namespace {

template <class... Doubles>
std::string fmt(const char* f, Doubles... v) {
  char buf[768];
  snprintf(buf, sizeof buf, f, (double)v...);
  return buf;
}

// The way from the sparse cut to the half-decoy cut, for micrographs
// between sparse and crowded.
const char* const kHalfCut = "the lowest score with at most half as many decoys as picks above it";

// The lowest float score at or above a chosen cut (one above the highest
// score is no float), so that picks compared as floats are kept as chosen.
double as_score(double cut) {
  float f = (float)cut;
  if ((double)f < cut) f = std::nextafter(f, INFINITY);
  return f;
}

double capacity_of(const Micrograph& m, const Settings& s) {
  return disc_capacity(m.usable_pixels, s.diameter, s.apix);
}

// On a sparse micrograph the picks on strong edges pass the decoys' count
// as particles: they are left out. (On a crowded one they are mostly
// particles beside the edge, and the half-decoy cut already holds.)
void drop_edge_picks(Micrograph& m) {
  if (m.on_edge.size() != m.picks.size()) return;
  m.drop_edges = true;
  for (size_t i = 0; i < m.picks.size(); i++) m.choice.edge_dropped += m.on_edge[i] && pick_kept(m.picks[i], m.cutoff);
  if (m.choice.edge_dropped > 0)
    m.choice.why += fmt(m.choice.edge_dropped == 1 ? "; %.0f pick above it lies on a strong edge (carbon or "
                                                     "contamination the rejected cells missed) and is left out"
                                                   : "; %.0f picks above it lie on strong edges (carbon or "
                                                     "contamination the rejected cells missed) and are left out",
                        (double)m.choice.edge_dropped);
}

// The scores of picks (or decoys) not flagged on an edge; all of them
// without flags.
std::vector<double> off_edges(const std::vector<Pick>& picks, const std::vector<char>& on_edge) {
  std::vector<double> s;
  for (size_t i = 0; i < picks.size(); i++)
    if (on_edge.size() != picks.size() || !on_edge[i]) s.push_back(picks[i].score);
  return s;
}

// How the sparse cut came about: the micrograph's own, the run's, or the
// two weighted by their evidence.
std::string sparse_reason(const DecoyCutoff& d) {
  const std::string own = fmt("the cut that maximises the F1 estimated with the decoys (%.4f; about %.0f particles "
                              "among the picks, no lower than where decoys are 0.4 of the picks)",
                              d.own.value, d.particles);
  const char* const run = "the cut that maximises the F1 estimated over the picks and decoys of the run's sparse "
                          "micrographs together, off strong edges, no lower than where decoys are 0.4 of the picks";
  if (d.from_run)
    return fmt("the run's sparse cut (%.4f: its own picks do not outnumber the decoys beyond chance, so ",
               d.sparse_cut) +
           run + ")";
  if (d.run_share <= 0) return own;
  return "the mean of " + own + fmt(" and the run's sparse cut (%.4f, ", d.run.value) + run +
         fmt("), each weighted by the square of its excess of picks over decoys in sd of chance (%.1f and %.1f)",
             d.own.sd, d.run.sd);
}

// "the way from the sparse cut to the half-decoy cut", the sparse cut's
// reason last where it is a mean (too long to stand between the two).
std::string way_from_sparse(const DecoyCutoff& d) {
  if (d.from_run || d.run_share <= 0) return sparse_reason(d) + " to " + kHalfCut;
  return fmt("the sparse cut (%.4f) to ", d.sparse_cut) + kHalfCut + "; the sparse cut is " + sparse_reason(d);
}

// The micrograph's cut weighed with the run's, and why. A run's cut below
// a sparse micrograph's own moves it only where its own picks between the
// two outnumber its decoys there: else the move would add, by its own
// count, as many noise maxima as particles or more. (On a crowded one the
// decoys overcount, and would hold back particles.)
double weighed_with_run(const Micrograph& m, const DecoyCutoff& d, const RunCut& run, std::string& why) {
  if (d.none) return run.d.value;
  const double own_weight = d.evidence * d.evidence;
  if (own_weight + run.weight <= 0) return d.value;
  const std::string run_cut = fmt("%.4f: the same rule over the picks and decoys of its %.0f micrographs together",
                                  run.d.value, (double)run.micrographs);
  if (run.d.value < d.value && !d.crowded) {
    const long picks = count_kept(m.picks, run.d.value) - count_kept(m.picks, d.value);
    const long decoys = count_kept(m.decoys, run.d.value) - count_kept(m.decoys, d.value);
    if (picks <= decoys) {
      why = "; the run's lower cut (" + run_cut +
            fmt(") is not weighed in: between the two its picks do not outnumber its decoys (%.0f against %.0f)",
                (double)picks, (double)decoys);
      return d.value;
    }
  }
  why = fmt("; that cut (%.4f) is weighed with the run's (", d.value) + run_cut +
        fmt("), each weighted by the square of its excess of picks over decoys in sd of chance (%.1f, and the run's "
            "%.1f shared among its micrographs)",
            d.evidence, std::sqrt(run.weight));
  return weighted_cut(own_weight, d.value, run.weight, run.d.value);
}

void with_decoys(Micrograph& m, const Settings& s, SparseCut run_sparse, const RunCut& run) {
  CutoffChoice& c = m.choice;
  const DecoyCutoff d = null_model_cutoff(scores_of(m.picks), scores_of(m.decoys), capacity_of(m, s), run_sparse);
  const bool run_cut_there = run.micrographs >= 2 && !run.d.none;
  const double unlike = run_cut_there ? unlike_the_rest(scores_of(m.decoys), run.decoys) : 0;
  const bool with_run = run_cut_there && unlike < kUnlike;
  std::string run_why;
  if (!with_run && unlike >= kUnlike)
    run_why = fmt("; the run's cut-off (%.4f) is not weighed in: its decoys score unlike the other micrographs' "
                  "(Kolmogorov-Smirnov distance %.2f), so a score does not mean the same on it",
                  run.d.value, unlike);
  m.cutoff = as_score(with_run ? weighed_with_run(m, d, run, run_why) : d.value);
  c.crowding = d.crowding;
  c.particles = d.particles;
  if (d.none && with_run && count_kept(m.picks, m.cutoff) > 0) {
    c.rule = "sparse";
    c.why = fmt("its picks never outnumber the decoys beyond chance, so the cut-off is the run's (%.4f: the same rule "
                "over the picks and decoys of its %.0f micrographs together)",
                run.d.value, (double)run.micrographs);
    drop_edge_picks(m);
  } else if (d.crowded) {
    c.rule = "crowded";
    c.why = !d.by_maxima
                ? fmt("crowded: particles cover about %.0f%% of the usable area, so decoys also answer in the gaps "
                      "between them and overcount the false picks",
                      100 * d.crowding)
                : fmt("crowded: about %.0f%% of its grid maxima are particles, though they cover only about %.0f%% "
                      "of the usable area (few maxima, as of large particles), so decoys also answer in the gaps "
                      "between them and overcount the false picks",
                      100 * d.of_maxima, 100 * d.crowding);
    c.why += d.toward_half >= 1 ? std::string("; the cut-off is ") + kHalfCut
                                : fmt("; as they are near sparse, the cut-off lies %.0f%% of the way from ",
                                      100 * d.toward_half) +
                                      way_from_sparse(d);
    c.why += run_why;
  } else if (count_kept(m.picks, m.cutoff) == 0 || (!d.from_run && d.particles <= 0)) {
    c.rule = "no-excess";
    c.why = d.from_run   ? fmt("the picks never outnumber the decoys beyond chance, and none reach the run's sparse cut "
                               "%.4f: none kept",
                               d.sparse_cut)
            : with_run ? fmt("the picks never outnumber the decoys beyond chance, and none reach the run's cut-off "
                             "%.4f: none kept",
                             run.d.value)
                       : "the picks never outnumber the decoys beyond chance: no particles found, none kept";
    if (unlike >= kUnlike) c.why += run_why;
  } else {
    c.rule = "sparse";
    c.why = fmt(d.from_run ? "sparse: particles cover about %.0f%% of the usable area; "
                           : "sparse: particles cover about %.0f%% of the usable area and decoys count the false "
                             "picks about one for one; ",
                100 * d.crowding);
    const std::string near = d.moved_by_maxima ? fmt("as about %.0f%% of its grid maxima are particles, near the "
                                                     "half that reads as crowded",
                                                     100 * d.of_maxima)
                                               : "as they are near crowded, where decoys overcount";
    c.why += d.toward_half > 0
                 ? near + fmt(", the cut-off lies %.0f%% of the way from ", 100 * d.toward_half) + way_from_sparse(d)
                 : "the cut-off is " + sparse_reason(d);
    c.why += run_why;
    drop_edge_picks(m);
  }
}

void without_decoys(Micrograph& m, double pooled) {
  CutoffChoice& c = m.choice;
  // Without the picks below a cut the scores split wrongly (a cut noise
  // tail looks like a group of its own): picks already cut are kept whole.
  if (m.cut_recorded) {
    m.cutoff = m.cut_before;
    c.rule = "already-cut";
    c.why = fmt("already cut at %.4f, as its picks file records; kept as cut, since the picks below it, which a "
                "choice needs, are gone",
                m.cut_before);
    return;
  }
  if (std::isfinite(m.cut_before)) {
    m.cutoff = m.cut_before;
    c.rule = "kept-whole";
    c.why = fmt("no score below %.4f, where the noise maxima of a run that keeps every grid maximum go down to a few "
                "thousandths: the picks were cut already, or every maximum is a particle; kept whole",
                m.cut_before);
    return;
  }
  const Cutoff k = choose_cutoff(scores_of(m.picks), pooled);
  m.cutoff = as_score(k.value);
  if (k.split) {
    c.rule = "split";
    c.why = fmt("two groups of scores (the split between them explains %.0f%% of their variance): the split", 100 * k.eta);
  } else if (count_kept(m.picks, m.cutoff) > 0) {
    c.rule = "all-kept";
    c.why = fmt("one group of scores whose upper tenth reaches the run's cut-off %.4f: taken for particles, all kept", pooled);
  } else {
    c.rule = "none-kept";
    c.why = fmt("one group of scores below the run's cut-off %.4f: taken for noise, none kept", pooled);
  }
}

}  // namespace

std::vector<double> scores_of(const std::vector<Pick>& picks) {
  std::vector<double> s;
  s.reserve(picks.size());
  for (const Pick& p : picks) s.push_back(p.score);
  return s;
}

long count_kept(const std::vector<Pick>& picks, double cut) {
  return std::count_if(picks.begin(), picks.end(), [&](const Pick& p) { return pick_kept(p, cut); });
}

bool kept_in(const Micrograph& m, size_t i) {
  return pick_kept(m.picks[i], m.cutoff) && !(m.drop_edges && i < m.on_edge.size() && m.on_edge[i]);
}

long count_kept(const Micrograph& m) {
  long n = 0;
  for (size_t i = 0; i < m.picks.size(); i++) n += kept_in(m, i);
  return n;
}

bool decoys_left_out(const Micrograph& m) {
  return m.decoys_found && count_kept(m.decoys, m.cutoff) > m.choice.decoys_above;
}

void decide_cutoff(Micrograph& m, const Settings& s, double pooled, double fixed, SparseCut run_sparse,
                   const RunCut& run) {
  m.choice = CutoffChoice();
  m.drop_edges = false;
  if (std::isfinite(fixed)) {
    m.cutoff = fixed;
    m.choice.rule = "fixed";
    m.choice.why = "fixed by --cutoff";
    if (std::isfinite(m.cut_before) && (float)fixed < (float)m.cut_before)
      m.choice.why += fmt("; the picks were already cut at %.4f, so none below that are left to keep", m.cut_before);
  } else if (m.picks.empty()) {
    m.cutoff = 0;
    m.choice.rule = "no-picks";
    m.choice.why = "no picks";
  } else if (m.decoys_found) {
    with_decoys(m, s, run_sparse, run);
  } else {
    without_decoys(m, pooled);
  }
  if (m.decoys_found) {
    // A decoy on an edge whose picks the rule leaves out stands for none of the kept picks.
    const bool flags = m.drop_edges && m.decoy_on_edge.size() == m.decoys.size();
    m.choice.decoys_above = 0;
    for (size_t i = 0; i < m.decoys.size(); i++)
      m.choice.decoys_above += pick_kept(m.decoys[i], m.cutoff) && !(flags && m.decoy_on_edge[i]);
  }
}

SparseCut run_sparse_cut(const std::vector<Micrograph>& mics, const Settings& s) {
  std::vector<double> real, decoys;
  for (const Micrograph& m : mics) {
    if (!m.decoys_found || m.picks.empty()) continue;
    if (null_model_cutoff(scores_of(m.picks), scores_of(m.decoys), capacity_of(m, s)).crowded) continue;
    const std::vector<double> r = off_edges(m.picks, m.on_edge), d = off_edges(m.decoys, m.decoy_on_edge);
    real.insert(real.end(), r.begin(), r.end());
    decoys.insert(decoys.end(), d.begin(), d.end());
  }
  return real.empty() ? SparseCut() : sparse_cut(real, decoys);
}

RunCut run_cut(const std::vector<Micrograph>& mics, const Settings& s) {
  RunCut run;
  std::vector<double> real, decoys, calm_real, calm_decoys;
  double capacity = 0;
  for (const Micrograph& m : mics) {
    if (!m.decoys_found || m.picks.empty()) continue;
    const std::vector<double> r = scores_of(m.picks), d = scores_of(m.decoys);
    const std::vector<double> cr = off_edges(m.picks, m.on_edge), cd = off_edges(m.decoys, m.decoy_on_edge);
    real.insert(real.end(), r.begin(), r.end());
    decoys.insert(decoys.end(), d.begin(), d.end());
    calm_real.insert(calm_real.end(), cr.begin(), cr.end());
    calm_decoys.insert(calm_decoys.end(), cd.begin(), cd.end());
    capacity += capacity_of(m, s);
    run.micrographs++;
  }
  if (run.micrographs == 0) return run;
  run.d = run_null_model(real, decoys, capacity, sparse_cut(calm_real, calm_decoys));
  run.weight = run.d.evidence * run.d.evidence / run.micrographs;
  std::sort(decoys.begin(), decoys.end());
  run.decoys = std::move(decoys);
  return run;
}

double run_cutoff(const std::vector<Micrograph>& mics, const Settings& s) {
  std::vector<double> real, decoys, uncut;
  double capacity = 0, floor = -INFINITY;
  bool all_decoys = std::any_of(mics.begin(), mics.end(), [](const Micrograph& m) { return m.picks_found; });
  for (const Micrograph& m : mics) {
    if (!m.picks_found) continue;  // no scores, and no usable area of them
    for (const Pick& p : m.picks) real.push_back(p.score);
    for (const Pick& p : m.decoys) decoys.push_back(p.score);
    capacity += capacity_of(m, s);
    all_decoys = all_decoys && m.decoys_found;
    if (std::isfinite(m.cut_before))
      floor = std::max(floor, m.cut_before);
    else
      for (const Pick& p : m.picks) uncut.push_back(p.score);
  }
  if (all_decoys) return null_model_cutoff(real, decoys, capacity).value;
  // Picks already cut would split the run's scores at their cut's edge:
  // only the others are pooled, and the run is never cut below them.
  if (uncut.empty()) return std::isfinite(floor) ? floor : 0.0;
  return std::max(pooled_cutoff(uncut).value, floor);
}
