// Soft disc masks, local means and deviations against direct sums, and the
// host masked normalisation.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "common/host_image.h"
#include "common/hm_math.h"
#include "gpu/local_stats.h"
#include "reference/reference.h"
#include "support/capture.h"
#include "support/match_fixtures.h"

namespace {

// The disc in double: edge factor k (0.3989423 on the device, 1 on the host).
double disc(double x, double y, double cx, double cy, double r, double w, double k) {
  const double d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
  if (d2 > (r + w) * (r + w)) return 0.0;
  if (d2 <= r * r) return 1.0;
  const double e = std::sqrt(d2) - r, s = w / 3.0;
  return k * std::exp(-e * e / (2 * s * s));
}

TEST(SoftMask, DeviceEdgeStartsAt0399HostEdgeIsContinuous) {
  // The device disc steps from 1 to 0.399 at r, the host's is continuous;
  // w = 0 makes both a hard disc.
  struct Case {
    int nx, ny;
    float cx, cy, r, w;
  };
  for (Case c : {Case{33, 29, 16.0f, 14.5f, 6.9f, 4.0f}, Case{21, 17, 10.0f, 8.0f, 5.0f, 0.0f}}) {
    Vec host(c.nx * c.ny);
    Dev<float> d(host.size());
    hcuda_2d_generate_rmask_soft(d.get(), c.nx, c.ny, c.cx, c.cy, c.r, c.w);
    const Vec dev = d.host();
    cpu_2d_generate_rmask_soft(host.data(), c.nx, c.ny, c.cx, c.cy, c.r, c.w);
    for (int y = 0; y < c.ny; y++)
      for (int x = 0; x < c.nx; x++) {
        ASSERT_NEAR(dev[y * c.nx + x], disc(x, y, c.cx, c.cy, c.r, c.w, 0.3989423), 1e-6) << x << "," << y;
        ASSERT_NEAR(host[y * c.nx + x], disc(x, y, c.cx, c.cy, c.r, c.w, 1.0), 1e-6) << x << "," << y;
      }
  }
}

// Direct local mean of an nx x ny image with the device disc of the padded
// grid, centred at ((NX-1)/2, (NY-1)/2), half a pixel before the zero shift.
std::vector<double> direct_local_mean(const Vec& img, int nx, int ny, float r, float w) {
  const int NX = 2 * nx, NY = 2 * ny;
  Dev<float> d(NX * NY);
  hcuda_2d_generate_rmask_soft(d.get(), NX, NY, (NX - 1) / 2.0f, (NY - 1) / 2.0f, r, w);
  const Vec mask = d.host();
  const Vec pad = ref::mirror_pad(img.data(), nx, ny);
  return ref::local_mean(pad.data(), mask.data(), NX, NY, nx, ny);
}

TEST(LocalStats, MeanAndSigmaMatchTheDirectWindowSums) {
  struct Case {
    int nx, ny;
    float r, w;
  };
  // The transformed disc is kept in two slots: the shape, r and w must all
  // count, and the first case comes back after the slots have turned over.
  gvex_local_stats_cache_clear();
  for (Case c : {Case{16, 12, 4.0f, 2.0f}, Case{16, 12, 4.0f, 3.0f}, Case{16, 12, 3.3f, 3.0f},
                 Case{15, 9, 3.3f, 4.0f}, Case{20, 20, 6.0f, 0.0f}, Case{16, 12, 4.0f, 2.0f}}) {
    const int n = c.nx * c.ny;
    const Vec img = uniform(n, c.nx * 13 + c.ny, 0.0f, 2.0f);
    Vec sq(n);
    for (int i = 0; i < n; i++) sq[i] = img[i] * img[i];
    Dev<float> d_img(img), d_mean(n), d_wide(n), d_both_ave(n), d_sigma(n);
    hcuda_2d_bg_mpad(d_mean.get(), d_img.get(), c.nx, c.ny, c.r, c.w);
    const Vec mean = d_mean.host();
    // The mean and the deviation at once, from one transform of the padded
    // image: the mean has the bits of the plain local mean.
    hcuda_2d_bg_mpad(d_wide.get(), d_img.get(), c.nx, c.ny, c.r + 1.0f, c.w);
    hcuda_2d_local_ave_sigma_softR_mpad(d_both_ave.get(), d_sigma.get(), d_img.get(), c.nx, c.ny, c.r + 1.0f, c.r,
                                        c.w);
    EXPECT_TRUE(same_bits(d_both_ave.host(), d_wide.host()));
    const Vec sigma = d_sigma.host();
    const std::vector<double> m = direct_local_mean(img, c.nx, c.ny, c.r, c.w);
    const std::vector<double> m2 = direct_local_mean(sq, c.nx, c.ny, c.r, c.w);
    for (int i = 0; i < n; i++) {
      ASSERT_NEAR(mean[i], m[i], 4e-6) << c.nx << "x" << c.ny << " at " << i;
      ASSERT_NEAR(sigma[i], std::sqrt(m2[i] - m[i] * m[i]), 1e-4) << c.nx << "x" << c.ny << " at " << i;
    }
  }
}

TEST(MaskedNormalisation, ZeroMeanUnitDeviationUnderTheDiscAndAnEmptyDiscWarns) {
  const int nx = 24, ny = 18;
  Vec p = uniform(nx * ny, 55, 2.0f, 9.0f), disc(nx * ny);
  cpu_2d_generate_rmask_soft(disc.data(), nx, ny, 11.5f, 8.5f, 7.0f, 0.0f);
  testing::internal::CaptureStdout();
  cpu_2d_normz_withRmask_applymask_inplace(p.data(), nx, ny, 11.5f, 8.5f, 7.0f, 0.0f);
  ASSERT_GT(hm_sum(disc.data(), disc.size()), 100.0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  double w = 0, m = 0, v = 0;
  for (size_t i = 0; i < p.size(); i++) w += disc[i], m += (double)p[i] * disc[i];
  m /= w;
  for (size_t i = 0; i < p.size(); i++) v += (p[i] - m) * (p[i] - m) * disc[i];
  EXPECT_NEAR(m, 0.0, 1e-6);
  EXPECT_NEAR(std::sqrt(v / w), 1.0, 1e-6);
  for (size_t i = 0; i < p.size(); i++) ASSERT_TRUE(disc[i] != 0.0f || p[i] == 0.0f) << i;

  const std::string said =
      stdout_of([&] { cpu_2d_normz_withRmask_applymask_inplace(p.data(), nx, ny, -50.0f, -50.0f, 3.0f, 2.0f); });
  EXPECT_EQ(said.rfind("Warning in function hm_sum_check0(), file math_utils on line ", 0), 0u) << said;
  EXPECT_NE(said.find(": Too small sum of mask!\n"), std::string::npos) << said;
  for (float v : p) EXPECT_FALSE(std::isfinite(v));
}

}  // namespace
