#include "relion/cutoff_rule.h"

#include "report/cutoff.h"
#include "report/edges.h"

double auto_cutoff(const PickResult& r, double diameter, double apix, const std::vector<float>& pixels, int nx,
                   int ny, std::vector<Pick>& picks, long& edge_dropped) {
  std::vector<double> scores, decoys;
  for (const Pick& p : r.picks) scores.push_back(p.score);
  for (const Pick& p : r.decoys) decoys.push_back(p.score);
  const DecoyCutoff d = null_model_cutoff(scores, decoys, disc_capacity(r.usable_pixels, diameter, apix));
  edge_dropped = 0;
  if (d.crowded || d.particles <= 0 || pixels.empty()) return d.value;
  const std::vector<char> edge = edge_picks(pixels, nx, ny, diameter / 2 / apix, picks, r.decoys);
  std::vector<Pick> left;
  for (size_t i = 0; i < picks.size(); i++) {
    const bool out = edge[i] && pick_kept(picks[i], d.value);
    edge_dropped += out;
    if (!out) left.push_back(picks[i]);
  }
  picks.swap(left);
  return d.value;
}

double job_cutoff(const std::vector<double>& all) { return pooled_cutoff(all).value; }
