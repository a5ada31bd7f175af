// The decoys file beside a micrograph's picks, as a killed, edited or
// foreign run may leave it, through the reader and the whole run's cut,
// warnings and page. The picks it must belong to are fixed here, so that
// seeds written for them reach past the checksum.
#include <cmath>
#include <vector>

#include "fuzz_support.h"
#include "report/page.h"
#include "report/run.h"

namespace {

// The picks the seeds' checksum is of (tests/fuzz/corpus/fuzz_decoys).
std::vector<Pick> fixed_picks() {
  std::vector<Pick> picks;
  for (int i = 0; i < 6; i++) {
    Pick p;
    p.x = 20 + 11 * i, p.y = 15 + 9 * i, p.w = p.h = 40;
    p.score = 0.9f - 0.125f * i;
    picks.push_back(p);
  }
  return picks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Settings set = report_settings(2.0, 60.0, true);
  std::vector<Micrograph> mics(2);
  for (size_t k = 0; k < mics.size(); k++) {
    Micrograph& m = mics[k];
    m.name = "fuzz" + std::to_string(k) + ".mrc";
    m.nx = 96, m.ny = 80;
    m.pixels.assign((size_t)m.nx * m.ny, 0.0f);
    // Texture, and a step the edge flags can find.
    for (size_t i = 0; i < m.pixels.size(); i++) m.pixels[i] = (float)((i * 7919) % 13) + (i % 96 > 60 ? 40.f : 0.f);
    m.picks = fixed_picks();
    m.picks_found = true;
    m.usable_pixels = (double)m.nx * m.ny;
    read_decoys(m, fuzz::write_scratch(data, size, "_decoys.star"), set);
  }
  const double pooled = run_cutoff(mics, set);
  fuzz::refused_or_done([&] {
    cut_run(mics, set, pooled, NAN, false);
    write_page(mics, {"", ""}, set, pooled, fuzz::scratch(".html"));
  });
  return 0;
}
