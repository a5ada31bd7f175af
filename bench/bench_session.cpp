// The picking session over a batch of micrographs, timed per micrograph
// from its own stage times, with the FFT plans estimated or taken from FFTW
// wisdom (what gvexmatch_tune writes): the whole-program benchmark for a
// planning gvexmatch itself never uses.
//
//   bench_session [--fftw_wisdom FILE] [--decoys] [gvexmatch options] MICROGRAPH...
//
// --decoys also finds the null model's decoys in the same scan (what the
// companions that choose a cut-off ask for).
//
// Prints the planning line, each micrograph's time (reading +
// normalisation + picking) and "steady S first F prep P total T" in seconds.
#include <cstdio>
#include <string>
#include <vector>

#include "common/errors.h"
#include "common/redirect.h"
#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"

namespace {

int run(int argc, char** argv) {
  const std::string wisdom = gvex_take_wisdom_option(argc, argv);
  bool decoys = false;
  for (int i = 1; i < argc; i++)
    if (std::string(argv[i]) == "--decoys") {
      decoys = true;
      for (int k = i; k < argc; k++) argv[k] = argv[k + 1];
      argc--;
      break;
    }
  const double t0 = gvex_wall_seconds();
  std::vector<double> times;
  double prep = 0;
  std::string planning;
  {
    StdoutRedirect quiet;  // the picker's own lines
    ParaPtr p = gvexmatch_start(argc, argv, [](int& gid) { return check_and_set_gid(gid) == 0; });
    gvex_device_activate(p->gid);
    planning = gvex_on_gpu() ? "GPU (cuFFT)" : gvex_companion_wisdom(wisdom.empty() ? "none" : wisdom);
    const Reference ref = gvexmatch_reference(*p, argv[0]);
    PickOptions options = options_from_record(*p);
    options.decoys = decoys;
    PickSession session(derive(options));
    session.prepare(ref.head, ref.name, 1, p->mic_files[0]);
    prep = gvex_wall_seconds() - t0;
    for (int i = 0; i < p->n_mic; i++) {
      const PickResult r = session.pick(p->mic_files[i], i + 1 < p->n_mic ? p->mic_files[i + 1] : "");
      if (r.outcome == PickResult::Outcome::failed) throw r.failure;
      times.push_back(r.times.reading + r.times.normalization + r.times.picking);
    }
    if (!gvex_on_gpu()) planning = "FFT plans: " + gvex_fft_plans_text() + "\n";
  }
  fputs(planning.c_str(), stdout);
  double steady = 0;
  printf("micrograph times:");
  for (double t : times) printf(" %.3f", t);
  for (size_t i = 1; i < times.size(); i++) steady += times[i] / (times.size() - 1);
  if (times.size() < 2) steady = times.empty() ? 0 : times[0];
  printf(" s\nsteady %.4f first %.4f prep %.4f total %.4f\n", steady, times.empty() ? 0 : times[0], prep,
         gvex_wall_seconds() - t0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return gvex_run_main([&] { return run(argc, argv); }); }
