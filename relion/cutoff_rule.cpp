#include "relion/cutoff_rule.h"

#include <algorithm>
#include <cmath>

#include "report/cutoff.h"
#include "report/edges.h"
#include "report/micrograph.h"

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

void pool_record(MicRecord& rec, const PickResult& r, double diameter, const std::vector<float>& pixels, int nx,
                 int ny) {
  rec.pooled = true;
  rec.picks = r.picks;
  rec.decoys = r.decoys;
  rec.usable_pixels = r.usable_pixels;
  rec.decoy_on_edge.clear();
  rec.on_edge = pixels.empty() ? std::vector<char>()
                               : edge_picks(pixels, nx, ny, diameter / 2 / rec.apix, rec.picks, rec.decoys,
                                            &rec.decoy_on_edge);
}

namespace {

// Cuts the pooled records as one run; only: the one record whose cut is
// written (null: all of them).
void cut_as_one_run(std::vector<MicRecord*> order, double diameter, const MicRecord* only) {
  if (order.empty()) return;
  // Pooled in name order: sums and ties do not follow the order of arrival.
  std::sort(order.begin(), order.end(), [](const MicRecord* a, const MicRecord* b) { return a->mic < b->mic; });
  // One pixel size for the run; each usable area in its pixels, so that
  // micrographs of other optics groups hold as many particle discs.
  const double apix = order[0]->apix;
  const Settings s = report_settings(apix, diameter, true);
  // The picks and decoys are lent to the report's records, not copied: a
  // job of thousands of micrographs holds millions.
  std::vector<Micrograph> mics(order.size());
  auto lend = [&](size_t i) {
    MicRecord& r = *order[i];
    Micrograph& m = mics[i];
    m.picks.swap(r.picks);
    m.decoys.swap(r.decoys);
    m.on_edge.swap(r.on_edge);
    m.decoy_on_edge.swap(r.decoy_on_edge);
  };
  for (size_t i = 0; i < order.size(); i++) {
    const MicRecord& r = *order[i];
    Micrograph& m = mics[i];
    m.name = r.mic;
    m.picks_found = m.decoys_found = true;
    m.usable_pixels = r.usable_pixels * (r.apix / apix) * (r.apix / apix);
    lend(i);
  }
  const SparseCut sparse = run_sparse_cut(mics, s);
  const RunCut run = run_cut(mics, s);
  for (size_t i = 0; i < order.size(); i++) {
    MicRecord& r = *order[i];
    if (only && &r != only) {
      lend(i);
      continue;
    }
    decide_cutoff(mics[i], s, 0, NAN, sparse, run);
    r.cutoff = mics[i].cutoff;
    r.drop_edges = mics[i].drop_edges;
    r.rule = mics[i].choice.rule, r.why = mics[i].choice.why, r.decoys_above = mics[i].choice.decoys_above;
    lend(i);  // and given back
  }
}

}  // namespace

void run_cutoffs(std::vector<MicRecord>& records, double diameter) {
  std::vector<MicRecord*> pooled;
  for (MicRecord& r : records)
    if (r.pooled) pooled.push_back(&r);
  cut_as_one_run(pooled, diameter, nullptr);
}

int recent_cutoff(std::vector<MicRecord>& before, MicRecord& r, int most, double diameter) {
  std::vector<MicRecord*> run{&r};
  for (size_t k = before.size(); k-- > 0 && (int)run.size() <= most;)
    if (before[k].pooled) run.push_back(&before[k]);
  cut_as_one_run(run, diameter, &r);
  return (int)run.size() - 1;
}

double job_cutoff(const std::vector<double>& all) { return all.empty() ? NAN : pooled_cutoff(all).value; }
