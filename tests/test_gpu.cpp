// The CUDA paths that only a GPU reaches: the start-up check, the batched
// scan in every shape it takes (short and several batches, psi, stored
// spectra, odd sizes, a batch slab past 2 GiB), the batched FFT plans, and
// the launcher's limits. Every GPU result is held against the host back end
// of the same binary. Without a GPU the GPU tests skip and say why; the
// launcher's limits are checked on the host too.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "match/scan.h"
#include "match/scan_state.h"
#include "support/backends.h"
#include "support/capture.h"
#include "support/e2e.h"
#include "support/match_fixtures.h"

namespace {

double max_rel_diff(const std::vector<float>& a, const std::vector<float>& b) {
  double scale = 0, d = 0;
  for (size_t i = 0; i < a.size(); i++) {
    scale = std::fmax(scale, std::fabs(b[i]));
    d = std::fmax(d, std::fabs((double)a[i] - b[i]));
  }
  return scale > 0 ? d / scale : d;
}

struct Maps {
  std::vector<float> cc, psi;
};

// One template scanned over a noise micrograph, 0..359 degrees by step.
Maps scan(int nx, int ny, int t, float step, ScanWorkspace* ws) {
  const size_t n = (size_t)nx * ny;
  Dev<float> mic(uniform(n, 7)), mask(std::vector<float>(n, 1.0f)), T(uniform((size_t)t * t, 4)), cc(n),
      psi(std::vector<float>(n, -1.0f));
  testing::internal::CaptureStdout();
  vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), cc.get(), psi.get(), 1, nx, ny, T.get(), t, t,
                                     0.4f * t, 0.0f, 359.0f, step, ws);
  testing::internal::GetCapturedStdout();
  return Maps{cc.host(), psi.host()};
}

// ---- launcher limits (both back ends) ----

TEST(LaunchLimits, ShapesPastTheLauncherEndTheRunInsteadOfRunningInPart) {
  const auto past_1d = [] { launch_1d(GVEX_SITE, GVEX_LAUNCH_MAX_1D + 1, [](int) {}); };
  const auto past_2d = [] { launch_2d(GVEX_SITE, 4, GVEX_LAUNCH_MAX_ROWS + 1, [](int, int) {}); };
  EXPECT_FAILS(past_1d(), "^Error launch of 2147483649 x 1 elements past the launcher's limit at line [0-9]+ in file "
                          "test_gpu\n$");
  EXPECT_FAILS(past_2d(), "launch of 4 x 2097121 elements past the launcher's limit");
  // The largest shapes still run (nothing is touched: the bodies are empty).
  const Captured ok = capture_run([] { launch_2d(GVEX_SITE, 1, GVEX_LAUNCH_MAX_ROWS, [](int, int) {}); });
  EXPECT_FALSE(ok.failed) << ok.out;
}

TEST(ScanBatch, SizeIsWholeQuantaWithinMemoryAndTheLauncher) {
  const unsigned long spec1024 = 513UL * 1024 * 8, img1024 = 1024UL * 1024 * 4;
  const unsigned long per_angle = 2 * img1024 + 4 * spec1024;
  EXPECT_EQ(scan_quantum(1024, 1024, 72), 8);
  EXPECT_EQ(scan_quantum(1024, 1024, 5), 5);
  EXPECT_EQ(scan_quantum(1024, 1024, 1), 1);
  // At odd sizes every quantum still starts where cuFFT takes it.
  EXPECT_EQ(scan_quantum(99, 99, 15), 8);
  EXPECT_EQ(scan_quantum(33, 31, 3), 4);
  EXPECT_EQ(gvex_scan_batch(1024, 1024, 72, 100 * per_angle), 32);  // at most 32
  EXPECT_EQ(gvex_scan_batch(1024, 1024, 72, 20 * per_angle), 16);   // whole quanta of 8
  EXPECT_EQ(gvex_scan_batch(1024, 1024, 72, 3 * per_angle), 8);     // never below one quantum
  EXPECT_EQ(gvex_scan_batch(1024, 1024, 12, 100 * per_angle), 16);  // 12 angles: two quanta
  EXPECT_EQ(gvex_scan_batch(1024, 1024, 1, 100 * per_angle), 1);    // the synthetic template
  // At the largest working size a batch's product stays below 2^31 elements.
  const int big = 23170;
  const int b = gvex_scan_batch(big, big, 360, ~0UL);
  EXPECT_LE((unsigned long)b * (big / 2 + 1) * big, GVEX_LAUNCH_MAX_1D);
  EXPECT_EQ(b % scan_quantum(big, big, 360), 0);
  EXPECT_EQ(scan_quantum(big, big, 360), 7);
}

// ---- start-up check ----

TEST(GpuStartUp, UsableGpuIsNamedInTheBackEndLine) {
  REQUIRE_GPU();
  const std::string line = gvex_device_activate(gpu_gid());
  gvex_device_use_host();
  EXPECT_EQ(line.rfind("Running on GPU ", 0), 0u) << line;
  EXPECT_NE(line.find("compute capability"), std::string::npos) << line;
}

// A picker whose launcher holds no code for this GPU must not run its
// kernels as no-ops: it says why and picks on the host, with the host's picks.
TEST(GpuStartUp, BuildWithoutCodeForTheGpuPicksOnTheHost) {
  REQUIRE_GPU();
  const std::string foreign = gvex_foreign_bin();
  if (foreign.empty() || !file_exists(foreign)) GTEST_SKIP() << "this build has no foreign-launcher picker";
  TempDir gpu_dir, host_dir;
  for (const TempDir* d : {&gpu_dir, &host_dir}) ASSERT_TRUE(e2e::make_mic(d->path(), "m.mrc", 1024, 1024, 5));
  const RunResult f = run_argv({foreign, "--diameter", "120", "--apixM", "1.34", "m.mrc"}, RunOptions{gpu_dir.path(), 120});
  if (e2e::contains(f.out, "Running on GPU")) GTEST_SKIP() << "the foreign architectures include this GPU's";
  e2e::expect_end(f, 0, gpu_dir.path());
  EXPECT_TRUE(std::regex_search(f.out, std::regex("\nRunning on the host back end \\(GPU [0-9]+, .* \\(compute "
                                                   "capability [0-9]+\\.[0-9]+\\), cannot be used: this build holds "
                                                   "no code for it \\(.*; built for 80-real\\)\\), [0-9]+ "
                                                   "thread\\(s\\)\n")))
      << f.out;
  const RunResult h = run_shell("CUDA_VISIBLE_DEVICES= " + gvex_bin() + " --diameter 120 --apixM 1.34 m.mrc",
                                RunOptions{host_dir.path(), 120});
  e2e::expect_end(h, 0, host_dir.path());
  EXPECT_TRUE(e2e::contains(h.out, "Running on the host back end (no GPU answered)")) << h.out;
  EXPECT_EQ(read_text_file(gpu_dir.file("m_vexmatch.box")), read_text_file(host_dir.file("m_vexmatch.box")));
  EXPECT_FALSE(read_text_file(gpu_dir.file("m_vexmatch.box")).empty());
}

// ---- memory ----

TEST(GpuMemory, ClearingPastTwoGibibytesReachesTheLastByte) {
  REQUIRE_GPU();
  const bool whole = on(true, [] {
    const unsigned long bytes = (2UL << 30) + 4096, n = bytes / 4;
    float* p = nullptr;
    if (gvex_device_alloc((void**)&p, bytes) != 0) return true;  // no room: nothing to show
    hcuda_memset_float(p, NAN, n);
    hcuda_empty(p, bytes);
    bool zero = true;
    for (unsigned long at : {0UL, (1UL << 29) - 1, 1UL << 29, n - 1024}) {
      std::vector<float> h(1024);
      memcpy_D2H(h.data(), p + at, sizeof(float) * 1024);
      for (float v : h) zero = zero && v == 0.0f;
    }
    hcuda_free(p);
    return zero;
  });
  EXPECT_TRUE(whole);
}

// ---- batched FFT ----

// The batched plan against the single one: the same spectra within
// rounding, the input kept, a short batch served by whole quanta, and the
// round trip back to the input.
TEST(GpuBatchFft, MatchesTheSinglePlanAndRoundTrips) {
  REQUIRE_GPU();
  for (auto s : {std::pair<int, int>{128, 128}, {100, 100}, {36, 36}, {33, 31}}) {
    const int nx = s.first, ny = s.second, q = 4, count = 7;  // two quanta, the second short
    const size_t nr = (size_t)nx * ny, nc = (size_t)(nx / 2 + 1) * ny;
    const std::vector<float> img = uniform(nr * 8, 11);
    struct Out {
      std::vector<float> batch, single, kept, back;
    };
    const Out o = on(true, [&] {
      Dev<float> in(img), a(nc * 16, true), b(nc * 16, true), r(nr * 8, true);
      FftPlanBatch plan(nx, ny, q);
      plan.r2c(in.get(), (float2*)a.get(), count);
      FftPlan2d& one = gvex_fft_plan(nx, ny);
      // Images at odd offsets, which the single plan stages to meet cuFFT's alignment.
      for (int k = 0; k < count; k++) one.r2c(in.get() + k * nr, (float2*)b.get() + k * nc);
      Out out{a.host(), b.host(), in.host(), {}};
      plan.c2r((float2*)a.get(), r.get(), count);
      out.back = r.host();
      return out;
    });
    const size_t used = nc * 2 * count;
    const double d = max_rel_diff(std::vector<float>(o.batch.begin(), o.batch.begin() + used),
                                  std::vector<float>(o.single.begin(), o.single.begin() + used));
    EXPECT_LT(d, 1e-5) << nx << "x" << ny;
    EXPECT_TRUE(same_bits(o.kept, img)) << nx << "x" << ny;
    double back = 0;
    for (size_t i = 0; i < nr * count; i++) back = std::fmax(back, std::fabs(o.back[i] / (float)nr - img[i]));
    EXPECT_LT(back, 1e-4) << nx << "x" << ny;
  }
}

// ---- the scan ----

// Batches of every size the GPU takes, with the store empty, partly and
// wholly filled, twice each (the second pass served from the store): the
// same bits everywhere, since every angle passes through the same plan; and
// the host's maps within rounding, psi equal but where two angles all but
// tie.
TEST(GpuScan, BatchesAndStoreGiveTheSameBitsAndTheHostsMaps) {
  REQUIRE_GPU();
  struct Case {
    int n, t;
    float step;
  };
  for (const Case c : {Case{100, 24, 25.0f}, Case{128, 32, 5.0f}, Case{99, 20, 30.0f}}) {
    const unsigned long one = (unsigned long)(c.n / 2 + 1) * c.n * 8;
    const Maps host = on(false, [&] {
      ScanWorkspace ws(0);
      return scan(c.n, c.n, c.t, c.step, &ws);
    });
    const Maps want = on(true, [&] {
      ScanWorkspace ws(0, 1);
      return scan(c.n, c.n, c.t, c.step, &ws);
    });
    EXPECT_LT(max_rel_diff(want.cc, host.cc), 1e-4) << c.n;
    size_t psi_off = 0;
    for (size_t i = 0; i < want.psi.size(); i++) psi_off += want.psi[i] != host.psi[i];
    EXPECT_LE(psi_off, want.psi.size() / 1000) << c.n;
    for (int batch : {8, 16, 32})
      for (unsigned long budget : {0UL, 5 * one, 100 * one}) {
        const bool same = on(true, [&] {
          ScanWorkspace ws(budget, batch);
          bool ok = true;
          for (int pass = 0; pass < 2; pass++) {
            const Maps m = scan(c.n, c.n, c.t, c.step, &ws);
            ok = ok && same_bits(m.cc, want.cc) && same_bits(m.psi, want.psi);
          }
          return ok;
        });
        EXPECT_TRUE(same) << c.n << " batch " << batch << " budget " << budget / one;
      }
  }
}

// On the GPU too, the decoy map of a scan is the map of the template with
// its contrast the other way, bit for bit (the batched fold).
TEST(GpuScan, DecoyMapIsTheInvertedTemplatesMap) {
  REQUIRE_GPU();
  const int n = 128, t = 32;
  const size_t N = (size_t)n * n;
  std::vector<float> T = uniform((size_t)t * t, 4), minus(T);
  for (float& v : minus) v = -v;
  const bool same = on(true, [&] {
    Dev<float> mic(uniform(N, 7)), mask(std::vector<float>(N, 1.0f)), dT(T), dminus(minus), cc(N), psi(N), decoy(N),
        inv(N), inv_psi(N);
    ScanWorkspace a(0, 16), b(0, 16);
    testing::internal::CaptureStdout();
    vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), cc.get(), psi.get(), 1, n, n, dT.get(), t, t, 12.8f, 0.0f,
                                       359.0f, 5.0f, &a, decoy.get());
    vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), inv.get(), inv_psi.get(), 1, n, n, dminus.get(), t, t,
                                       12.8f, 0.0f, 359.0f, 5.0f, &b);
    testing::internal::GetCapturedStdout();
    return same_bits(decoy.host(), inv.host());
  });
  EXPECT_TRUE(same);
}

// A batch slab of 32 working images of 5760^2 (4.2 GB, past the launcher's
// 2^31 elements) over memory left dirty: cleared whole, it gives the maps
// of the smallest batch.
TEST(GpuScan, BatchSlabPastTwoGibibytesIsClearedWhole) {
  REQUIRE_GPU();
  const int n = 5760, t = 64;
  const unsigned long need = 32UL * (2UL * n * n * 4 + 2UL * (n / 2 + 1) * n * 8) + (6UL << 30);
  const bool enough = on(true, [&] { return gvex_memory_available() > need; });
  if (!enough) GTEST_SKIP() << "the GPU has less than " << (need >> 30) << " GiB free";
  const double d = on(true, [&] {
    {  // garbage where the batch buffers will land
      float* junk = nullptr;
      const unsigned long bytes = need - (6UL << 30);
      if (gvex_device_alloc((void**)&junk, bytes) == 0) {
        hcuda_memset_float(junk, 1.0f, bytes / 4 < GVEX_LAUNCH_MAX_1D ? bytes / 4 : GVEX_LAUNCH_MAX_1D);
        hcuda_free(junk);
      }
    }
    ScanWorkspace big(0, 32), small(0, 8);
    const Maps a = scan(n, n, t, 10.0f, &big), b = scan(n, n, t, 10.0f, &small);  // 36 angles: 32 + 4
    return same_bits(a.cc, b.cc) && same_bits(a.psi, b.psi) ? 0.0 : 1.0;
  });
  EXPECT_EQ(d, 0.0);
}

}  // namespace
