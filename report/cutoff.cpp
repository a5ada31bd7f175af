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
