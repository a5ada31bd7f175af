// Automatic cross-correlation cut-off from the scores of every grid maximum
// of a micrograph (gvexmatch run with --cc_cutoff 0).
//
// Particle peaks and noise peaks form two populations when a micrograph
// holds both. The split that best separates two groups (Otsu's: the largest
// between-group share of the variance, eta) is taken when the groups are
// clearly apart (eta >= kBimodal); otherwise the scores are one population:
// particle peaks when their 90th percentile reaches the run's pooled cut-off
// (a crowded micrograph: keep every pick), noise when not (keep none).
#pragma once
#include <vector>

constexpr double kBimodal = 0.62;

struct Cutoff {
  double value = 0;     // keep picks with score >= value
  double eta = 0;       // between-group share of the variance at the split
  bool split = false;   // two populations found
};

// The Otsu split of the scores and its eta (value = lowest score of the
// upper group); fewer than 4 scores give no split.
Cutoff otsu_split(std::vector<double> scores);

// The cut-off of one micrograph, given the pooled one of the run.
Cutoff choose_cutoff(const std::vector<double>& scores, double pooled);

// The pooled cut-off over all micrographs' scores: the same split, or the
// lowest score when they form one population.
Cutoff pooled_cutoff(const std::vector<double>& all_scores);
