// gvexreport's inputs: the pick file (as .box and as .star) and the
// rejected cells beside a small micrograph, through the readers, the
// warnings, the cut-off and the picture.
#include <unistd.h>

#include <vector>

#include "fuzz_support.h"
#include "io/picks.h"
#include "report/cutoff.h"
#include "report/micrograph.h"
#include "report/page.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_stdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Settings set = report_settings(2.0, 120.0, true);
  for (const char* ending : {".box", ".star"}) {
    Micrograph m;
    m.name = "fuzz.mrc";
    m.nx = 96, m.ny = 80;
    m.pixels.assign((size_t)m.nx * m.ny, 1.0f);
    m.picks_found = picks_read(fuzz::write_scratch(data, size, ending), 40, m.picks).opened;
    rejected_read(fuzz::write_scratch(data, size, "_rejected.box"), m.rejected);
    std::vector<double> scores;
    for (const Pick& p : m.picks) scores.push_back(p.score);
    m.cutoff = choose_cutoff(scores, pooled_cutoff(scores).value).value;
    add_warnings(m, set);
    const std::string png = fuzz::scratch(".png");
    fuzz::refused_or_done([&] { write_picture(m, set, png); });
    unlink(png.c_str());
  }
  return 0;
}
