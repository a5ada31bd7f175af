#include "relion/cutoff_rule.h"

#include "report/cutoff.h"

double auto_cutoff(const std::vector<double>& scores, const std::vector<double>& earlier) {
  // The run so far, this micrograph included, plays the whole run's part of
  // gvexreport's rule.
  std::vector<double> pooled = earlier;
  pooled.insert(pooled.end(), scores.begin(), scores.end());
  return choose_cutoff(scores, pooled_cutoff(pooled).value).value;
}

double job_cutoff(const std::vector<double>& all) { return pooled_cutoff(all).value; }
