// The packed micrograph a picking rank of the MPI companion sends rank 0,
// damaged in any way, through the unpacking, the whole run's cut, the
// warnings, the page and the summary table: a message that unpacks must be
// safe to cut.
#include <cmath>
#include <vector>

#include "fuzz_support.h"
#include "mpi/mic_message.h"
#include "report/page.h"
#include "report/run.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Settings set = report_settings(2.0, 60.0, true);
  const std::vector<char> bytes(data, data + size);
  std::vector<Micrograph> mics(1);
  std::vector<std::string> pictures(1);
  if (!unpack_micrograph(bytes, mics[0], pictures[0])) return 0;
  // A second, plain micrograph makes it a run, so the run's cut is weighed in.
  Micrograph other = mics[0];
  other.name = "other.mrc";
  for (Pick& p : other.picks) p.score *= 0.5f;
  mics.push_back(other);
  pictures.push_back("");
  const double pooled = run_cutoff(mics, set);
  fuzz::refused_or_done([&] {
    cut_run(mics, set, pooled, NAN, false);
    write_page(mics, pictures, set, pooled, fuzz::scratch(".html"));
    write_summary_star(mics, fuzz::scratch(".star"));
  });
  return 0;
}
