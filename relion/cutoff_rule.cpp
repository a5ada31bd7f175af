#include "relion/cutoff_rule.h"

#include "report/cutoff.h"

double auto_cutoff(const PickResult& r, double diameter, double apix) {
  std::vector<double> scores, decoys;
  for (const Pick& p : r.picks) scores.push_back(p.score);
  for (const Pick& p : r.decoys) decoys.push_back(p.score);
  return null_model_cutoff(scores, decoys, disc_capacity(r.usable_pixels, diameter, apix)).value;
}

double job_cutoff(const std::vector<double>& all) { return pooled_cutoff(all).value; }
