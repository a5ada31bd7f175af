// Scan of one template over 72 angles on a 1024 x 1024 working image, set
// against the bare transforms it cannot avoid, measured in the same run on
// the same plan: 72 inverse transforms, and 72 forward + inverse pairs (what
// each angle costs when the rotated template's spectrum is not stored).
//
//   bench_scan [size] [repeats]
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "match/scan.h"
#include "match/templates.h"

namespace {

// Wall time and the process's CPU time: on a shared machine the CPU time
// is the steadier figure of the work done (with one thread they agree on a
// quiet machine).
struct Stamp {
  double wall, cpu;
};
Stamp now() {
  timespec w, c;
  clock_gettime(CLOCK_MONOTONIC, &w);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &c);
  return {w.tv_sec + 1e-9 * w.tv_nsec, c.tv_sec + 1e-9 * c.tv_nsec};
}
struct Span {
  double wall = 0, cpu = 0;
  void add(const Stamp& a, const Stamp& b) {
    wall += b.wall - a.wall;
    cpu += b.cpu - a.cpu;
  }
  void keep_min(const Span& o) {
    wall = std::min(wall, o.wall);
    cpu = std::min(cpu, o.cpu);
  }
};

// The scan prints a dot per angle; keep the report readable.
struct QuietStdout {
  QuietStdout() {
    fflush(stdout);
    saved = dup(1);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 1);
    close(null_fd);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
  }
  int saved;
};

}  // namespace

int main(int argc, char** argv) {
  const int N = argc > 1 ? atoi(argv[1]) : 1024;
  const int repeats = argc > 2 ? atoi(argv[2]) : 7;
  if (N < 64 || N % 2 || repeats < 1) {
    fprintf(stderr, "usage: bench_scan [even size >= 64] [repeats >= 1]\n");
    return 1;
  }
  int gid = 0;
  check_and_set_gid(gid);
  fputs(gvex_device_activate(gid), stdout);

  const unsigned long n = (unsigned long)N * N, nh = (unsigned long)(N / 2 + 1) * N;
  std::mt19937 rng(1);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> h_mic(n);
  for (float& v : h_mic) v = noise(rng);
  DeviceArray<float> mic(n), mask(n), ccmax(n), psi(n, true), out(n), pad(n, true);
  DeviceArray<float2> spectrum(nh), work(nh), fwd(nh);
  memcpy_H2D(mic.get(), h_mic.data(), n * sizeof(float));
  hcuda_memset_float(mask.get(), 1.0f, n);

  // The synthetic template of a 400 A particle at 1.34 A/px shrunk by 4.
  const float R = 1.3f * 400.0f / (4 * 2 * 1.34f);
  int tnx, tny, tnz;
  float* t = create_template_data(tnx, tny, tnz, R, 0.05f);
  DeviceArray<float> T((unsigned long)tnx * tny);
  hcuda_upload_templates(T.get(), t, tnx, tny, 1, 1, R, 0.05f, 0);
  free(t);
  const int angles = (int)get_rotation_angles(0.0f, 359.0f, 5.0f).size();

  FftPlan2d& plan = gvex_fft_plan(N, N);
  plan.r2c(mic.get(), spectrum.get());  // a real spectrum to invert

  const Span none{1e30, 1e30};
  Span t_c2r = none, t_pair = none, t_cached = none, t_uncached = none;
  ScanWorkspace ws;
  Span t_fill;
  {
    QuietStdout quiet;
    // Warm-up: plans, buffers, and the spectrum store filled.
    const Stamp a = now();
    vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), ccmax.get(), psi.get(), 1, N, N, T.get(), tnx, tny, R,
                                       0.0f, 359.0f, 5.0f, &ws);
    t_fill.add(a, now());
  }
  ScanWorkspace no_store(0);
  for (int r = 0; r < repeats; r++) {
    Span s;
    for (int k = 0; k < angles; k++) {
      memcpy_D2D(work.get(), spectrum.get(), nh * sizeof(float2));  // the inverse consumes its input
      const Stamp a = now();
      plan.c2r(work.get(), out.get());
      s.add(a, now());
    }
    t_c2r.keep_min(s);

    s = Span();
    for (int k = 0; k < angles; k++) {
      memcpy_D2D(work.get(), spectrum.get(), nh * sizeof(float2));
      const Stamp a = now();
      plan.r2c(pad.get(), fwd.get());
      plan.c2r(work.get(), out.get());
      s.add(a, now());
    }
    t_pair.keep_min(s);

    QuietStdout quiet;
    s = Span();
    Stamp a = now();
    vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), ccmax.get(), psi.get(), 1, N, N, T.get(), tnx, tny, R,
                                       0.0f, 359.0f, 5.0f, &ws);
    s.add(a, now());
    t_cached.keep_min(s);
    s = Span();
    a = now();
    vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), ccmax.get(), psi.get(), 1, N, N, T.get(), tnx, tny, R,
                                       0.0f, 359.0f, 5.0f, &no_store);
    s.add(a, now());
    t_uncached.keep_min(s);
  }

  printf("working image %d x %d, template %d x %d, %d angles, best of %d, %d host thread(s)\n", N, N, tnx, tny,
         angles, repeats, gvex_host_threads());
  printf("%-34s %12s %12s\n", "", "wall ms", "cpu ms");
  printf("%-34s %12.2f %12.2f\n", "72 x c2r (bare)", t_c2r.wall * 1e3, t_c2r.cpu * 1e3);
  printf("%-34s %12.2f %12.2f\n", "72 x (r2c + c2r) (bare)", t_pair.wall * 1e3, t_pair.cpu * 1e3);
  printf("%-34s %12.2f %12.2f\n", "scan, stored spectra", t_cached.wall * 1e3, t_cached.cpu * 1e3);
  printf("%-34s %12.2f %12.2f\n", "scan, filling the store (once)", t_fill.wall * 1e3, t_fill.cpu * 1e3);
  printf("%-34s %12.2f %12.2f\n", "scan, spectra recomputed", t_uncached.wall * 1e3, t_uncached.cpu * 1e3);
  printf("ratio scan (stored) / bare c2r:               wall %.3f  cpu %.3f\n", t_cached.wall / t_c2r.wall,
         t_cached.cpu / t_c2r.cpu);
  printf("ratio scan (recomputed) / bare (r2c + c2r):   wall %.3f  cpu %.3f\n", t_uncached.wall / t_pair.wall,
         t_uncached.cpu / t_pair.cpu);
  return 0;
}
