#include "report/cutoff.h"

#include <algorithm>
#include <cmath>
#include <limits>

Cutoff otsu_split(std::vector<double> s) {
  Cutoff c;
  const size_t n = s.size();
  if (n < 4) return c;
  std::sort(s.begin(), s.end());
  double total = 0, total2 = 0;
  for (double v : s) total += v, total2 += v * v;
  const double mean = total / n, var = total2 / n - mean * mean;
  if (!(var > 0)) return c;
  double low = 0, best = -1;
  for (size_t i = 1; i < n; i++) {
    low += s[i - 1];
    if (s[i] == s[i - 1]) continue;  // a split between equal scores is no split
    const double w0 = (double)i / n, w1 = 1 - w0;
    const double m0 = low / i, m1 = (total - low) / (n - i);
    const double between = w0 * w1 * (m1 - m0) * (m1 - m0);
    if (between > best) best = between, c.value = s[i];
  }
  c.eta = best > 0 ? best / var : 0;
  c.split = true;
  return c;
}

Cutoff choose_cutoff(const std::vector<double>& scores, double pooled) {
  Cutoff c = otsu_split(scores);
  if (c.split && c.eta >= kBimodal) return c;
  c.split = false;
  if (scores.empty()) return c;
  // The upper tenth decides: particle peaks reach beyond the run's split
  // even where a hard, crowded micrograph's median does not.
  std::vector<double> s = scores;
  const size_t k = (s.size() * 9) / 10;
  std::nth_element(s.begin(), s.begin() + k, s.end());
  const double upper = s[k];
  const double lowest = *std::min_element(scores.begin(), scores.end());
  const double highest = *std::max_element(scores.begin(), scores.end());
  // One population: all particles (keep all) or all noise (keep none).
  c.value = upper >= pooled ? lowest : std::nextafter(highest, std::numeric_limits<double>::infinity());
  return c;
}

Cutoff pooled_cutoff(const std::vector<double>& all_scores) {
  Cutoff c = otsu_split(all_scores);
  if (c.split && c.eta >= kBimodal) return c;
  // One population over the whole run: the picks of a run that found its
  // particles (already cut, or all crowded) are kept.
  c.split = false;
  if (!all_scores.empty()) c.value = *std::min_element(all_scores.begin(), all_scores.end());
  return c;
}

namespace {

// Picks and decoys at or above each distinct pick score, lowest score first.
struct Tally {
  double score;
  long picks, decoys;
};

std::vector<Tally> tally(std::vector<double> real, std::vector<double> decoy) {
  std::sort(real.begin(), real.end());
  std::sort(decoy.begin(), decoy.end());
  std::vector<Tally> t;
  const long n = (long)real.size();
  size_t d = 0;
  for (long k = 0; k < n; k++) {
    if (k && real[k] == real[k - 1]) continue;
    while (d < decoy.size() && decoy[d] < real[k]) d++;
    t.push_back({real[k], n - k, (long)(decoy.size() - d)});
  }
  return t;
}

// The most picks at or above any score exceed the decoys, and that excess
// in sd of chance (sqrt of the two counts).
void excess_of(const std::vector<Tally>& t, long& most, double& sd) {
  most = 0, sd = 0;
  for (const Tally& x : t) {
    most = std::max(most, x.picks - x.decoys);
    sd = std::max(sd, (x.picks - x.decoys) / std::sqrt((double)(x.picks + x.decoys)));
  }
}

double above_all(const std::vector<double>& s) {
  return std::nextafter(*std::max_element(s.begin(), s.end()), std::numeric_limits<double>::infinity());
}

// The lowest cut with at most `ratio` decoys per pick above it.
const Tally* lowest(const std::vector<Tally>& t, double ratio) {
  for (const Tally& x : t)
    if (x.decoys <= ratio * x.picks) return &x;
  return nullptr;
}

// The sparse cut of a tally (most: the largest excess of picks over
// decoys).
SparseCut sparse_of(const std::vector<Tally>& t, long& most) {
  SparseCut c;
  excess_of(t, most, c.sd);
  const Tally* floor = lowest(t, kDecoyFloor);
  if (most <= 0 || c.sd < kExcess || !floor) return c;
  double best = -1, cut = 0;
  for (const Tally& x : t) {
    const double f1 = 2.0 * (double)std::max(0L, x.picks - x.decoys) / (double)(x.picks + most);
    if (f1 > best) best = f1, cut = x.score;
  }
  c.value = std::max(cut, floor->score);
  return c;
}

}  // namespace

SparseCut sparse_cut(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores) {
  long most = 0;
  return sparse_of(tally(real_scores, decoy_scores), most);
}

double unlike_the_rest(std::vector<double> own, const std::vector<double>& pool) {
  std::sort(own.begin(), own.end());
  const double n = (double)own.size(), rest = (double)pool.size() - n;
  if (own.empty() || rest <= 0) return 0;
  // Between two of its own scores the micrograph's distribution stands
  // still while the rest's climbs: the widest gap lies just below one of
  // its scores or at one.
  double d = 0;
  for (size_t k = 0; k < own.size(); k++) {
    if (k && own[k] == own[k - 1]) continue;
    const double own_below = (double)k;
    const double own_upto = (double)(std::upper_bound(own.begin(), own.end(), own[k]) - own.begin());
    const double pool_below = (double)(std::lower_bound(pool.begin(), pool.end(), own[k]) - pool.begin());
    const double pool_upto = (double)(std::upper_bound(pool.begin(), pool.end(), own[k]) - pool.begin());
    d = std::max(d, std::fabs(own_below / n - (pool_below - own_below) / rest));
    d = std::max(d, std::fabs(own_upto / n - (pool_upto - own_upto) / rest));
  }
  return d;
}

namespace {

// own_sparse false: the sparse cut is run's alone (the pool's own reading,
// edge picks and all, gives way to the pool off edges).
DecoyCutoff decoy_rule(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores,
                       double capacity, SparseCut run, bool own_sparse) {
  DecoyCutoff c;
  if (real_scores.empty()) return c;
  const std::vector<Tally> t = tally(real_scores, decoy_scores);
  long all_most = 0;
  excess_of(t, all_most, c.evidence);
  const Tally* half = lowest(t, kDecoyHalf);
  bool most_maxima = false;
  double maxima_weight = 0;
  if (half) {
    const double particles = (double)(half->picks - half->decoys);
    c.crowding = capacity > 0 ? particles / capacity : std::numeric_limits<double>::infinity();
    c.of_maxima = particles / (double)real_scores.size();
    if (particles >= kMostSure * std::sqrt((double)(half->picks + half->decoys))) {
      most_maxima = c.of_maxima >= kMostMaxima;
      maxima_weight = std::clamp((c.of_maxima - kMaximaLow) / (kMaximaHigh - kMaximaLow), 0.0, 1.0);
    }
  }
  const bool area_crowded = half && c.crowding >= kCrowded;
  c.crowded = area_crowded || most_maxima;
  c.by_maxima = most_maxima && c.crowding < kBlendHigh;
  if (half && (maxima_weight >= 1 || c.crowding >= kBlendHigh)) {
    c.value = half->score;
    c.toward_half = 1;
    return c;
  }
  long most = 0;
  c.own = sparse_of(t, most);
  c.particles = (double)most;
  if (!own_sparse) c.own.value = NAN;
  double cut = c.own.value;
  c.run = run;
  if (std::isfinite(run.value)) {
    const double own_weight = std::isnan(cut) ? 0 : c.own.sd * c.own.sd, run_weight = run.sd * run.sd;
    c.from_run = std::isnan(cut);
    c.run_share = c.from_run ? 1 : run_weight / (own_weight + run_weight);
    cut = c.from_run ? run.value : weighted_cut(own_weight, cut, run_weight, run.value);
  }
  if (std::isnan(cut)) {
    // No evidence for the sparse reading: crowded ones keep the half-decoy cut, the others nothing.
    c.value = c.crowded ? half->score : above_all(real_scores);
    c.toward_half = c.crowded ? 1 : 0;
    c.none = !c.crowded;
    return c;
  }
  c.value = c.sparse_cut = cut;
  const double area_weight = half ? std::clamp((c.crowding - kBlendLow) / (kBlendHigh - kBlendLow), 0.0, 1.0) : 0;
  c.toward_half = std::max(area_weight, maxima_weight);
  c.moved_by_maxima = maxima_weight > area_weight;
  if (c.toward_half > 0) c.value = weighted_cut(c.toward_half, half->score, 1 - c.toward_half, c.value);
  return c;
}

}  // namespace

DecoyCutoff null_model_cutoff(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores,
                              double capacity, SparseCut run) {
  return decoy_rule(real_scores, decoy_scores, capacity, run, true);
}

DecoyCutoff run_null_model(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores,
                           double capacity, SparseCut sparse) {
  return decoy_rule(real_scores, decoy_scores, capacity, sparse, false);
}

double disc_capacity(double usable_pixels, double diameter, double apix) {
  const double r = diameter / 2 / apix;
  return r > 0 ? usable_pixels / (3.14159265358979 * r * r) : 0.0;
}

double weighted_cut(double wa, double a, double wb, double b) {
  return std::clamp((wa * a + wb * b) / (wa + wb), std::min(a, b), std::max(a, b));
}

double cut_shown_by_scores(const std::vector<double>& scores) {
  if (scores.size() < kCutShownPicks) return NAN;
  const double lowest = *std::min_element(scores.begin(), scores.end());
  return lowest >= kCutShown ? lowest : NAN;
}

bool decoys_outscore(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores) {
  long real_most = 0, decoy_most = 0;
  double real_sd = 0, decoy_sd = 0;
  excess_of(tally(real_scores, decoy_scores), real_most, real_sd);
  excess_of(tally(decoy_scores, real_scores), decoy_most, decoy_sd);
  return decoy_sd >= kExcess && (real_sd < kExcess || decoy_most > 2 * real_most);
}
