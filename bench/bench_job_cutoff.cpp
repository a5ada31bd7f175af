// The RELION job's cut over the whole job (--cutoff run) and of each
// micrograph with those picked before it (--cutoff recent) against the cut
// of each micrograph alone (--cutoff auto), on the same synthetic records in
// the same run: noise maxima and decoys alike, a tenth of the maxima
// particles scoring higher.
//
//   bench_job_cutoff [micrographs (2000)] [grid maxima a micrograph (1000)]
//
// Prints the times in seconds and their ratios to the cut of each alone.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "picker/timer.h"
#include "relion/cutoff_rule.h"
#include "relion/job_options.h"

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 2000, maxima = argc > 2 ? std::atoi(argv[2]) : 1000;
  if (n < 1 || maxima < 1) {
    fprintf(stderr, "usage: bench_job_cutoff [micrographs] [grid maxima a micrograph]\n");
    return 2;
  }
  std::mt19937 rng(7);
  std::normal_distribution<float> noise(0.1f, 0.05f), particle(0.4f, 0.1f);
  std::vector<MicRecord> records(n);
  for (int k = 0; k < n; k++) {
    MicRecord& r = records[k];
    r.mic = "m" + std::to_string(k) + ".mrc";
    r.apix = 1, r.pooled = true, r.usable_pixels = 4096.0 * 4096;
    for (int i = 0; i < maxima; i++) {
      Pick p, d;
      p.x = d.x = i, p.y = d.y = k;
      p.score = i < maxima / 10 ? particle(rng) : noise(rng);
      d.score = noise(rng);
      r.picks.push_back(p), r.decoys.push_back(d);
    }
    r.on_edge.assign(maxima, 0), r.decoy_on_edge.assign(maxima, 0);
  }
  double t = gvex_wall_seconds();
  for (const MicRecord& r : records) {
    std::vector<MicRecord> one{r};
    run_cutoffs(one, 150);
  }
  const double alone = gvex_wall_seconds() - t;
  t = gvex_wall_seconds();
  std::vector<MicRecord> picked;
  for (MicRecord& r : records) {
    recent_cutoff(picked, r, kRecentBefore, 150);
    picked.push_back(std::move(r));
  }
  records.swap(picked);
  const double recent = gvex_wall_seconds() - t;
  t = gvex_wall_seconds();
  run_cutoffs(records, 150);
  const double job = gvex_wall_seconds() - t;
  printf("%d micrographs of %d grid maxima: each alone %.3f s; with up to %d before it %.3f s (%.2f times); over "
         "the job %.3f s (%.2f times)\n",
         n, maxima, alone, kRecentBefore, recent, recent / alone, job, job / alone);
  return 0;
}
