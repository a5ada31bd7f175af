// gvexreport's inputs: the pick file (as .box and as .star, with its
// recorded cut-off) and the rejected cells beside a small micrograph,
// through the readers, the cut-off with and without the picks as decoys,
// the warnings and the pictures.
#include <unistd.h>

#include <vector>

#include "fuzz_support.h"
#include "io/picks.h"
#include "report/micrograph.h"
#include "report/page.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Settings set = report_settings(2.0, 120.0, true);
  for (const char* ending : {".box", ".star"}) {
    Micrograph m;
    m.name = "fuzz.mrc";
    m.nx = 96, m.ny = 80;
    m.pixels.assign((size_t)m.nx * m.ny, 1.0f);
    read_picks(m, fuzz::write_scratch(data, size, ending), 40);
    rejected_read(fuzz::write_scratch(data, size, "_rejected.box"), m.rejected);
    m.usable_pixels = (double)m.nx * m.ny;
    decide_cutoff(m, set, run_cutoff({m}, set));
    m.decoys_found = true;
    m.decoys = m.picks;
    decide_cutoff(m, set, 0.0);
    add_warnings(m, set);
    const std::string png = fuzz::scratch(".png");
    fuzz::scratch("_crop.png");  // crop_name(png): removed at exit too, even mid-input
    fuzz::refused_or_done([&] { write_picture(m, set, png); });
    unlink(png.c_str());
    unlink(crop_name(png).c_str());
  }
  return 0;
}
