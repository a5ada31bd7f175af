// Soft disc masks, local means and deviations against direct sums, and the
// host masked normalisation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/local_stats.h"
#include "reference/reference.h"

namespace {

std::vector<float> random_image(int n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

// The disc in double: edge factor k (0.3989423 on the device, 1 on the host).
double disc(double x, double y, double cx, double cy, double r, double w, double k) {
  const double d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
  if (d2 > (r + w) * (r + w)) return 0.0;
  if (d2 <= r * r) return 1.0;
  const double e = std::sqrt(d2) - r, s = w / 3.0;
  return k * std::exp(-e * e / (2 * s * s));
}

TEST(SoftMask, DeviceEdgeStartsAt0399HostEdgeIsContinuous) {
  const int nx = 33, ny = 29;
  const float cx = 16.0f, cy = 14.5f, r = 6.9f, w = 4.0f;
  std::vector<float> dev(nx * ny), host(nx * ny);
  hcuda_2d_generate_rmask_soft(dev.data(), nx, ny, cx, cy, r, w);
  cpu_2d_generate_rmask_soft(host.data(), nx, ny, cx, cy, r, w);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      ASSERT_NEAR(dev[y * nx + x], disc(x, y, cx, cy, r, w, 0.3989423), 1e-6) << x << "," << y;
      ASSERT_NEAR(host[y * nx + x], disc(x, y, cx, cy, r, w, 1.0), 1e-6) << x << "," << y;
    }
  // Along the centre row: the last pixel inside r is 1, the first outside
  // drops to just under 0.399 on the device and just under 1 on the host.
  const int row = 14 * nx, xin = 16 + 6, xout = 16 + 7;  // y = 14 is 0.5 off centre
  EXPECT_EQ(dev[row + xin], 1.0f);
  EXPECT_GT(dev[row + xout], 0.39f);
  EXPECT_LE(dev[row + xout], 0.3989423f);
  EXPECT_GT(host[row + xout], 0.99f);
  EXPECT_EQ(dev[row + 16 + 11], 0.0f);  // beyond r + w
}

TEST(SoftMask, ZeroWidthIsAHardDisc) {
  const int nx = 21, ny = 17;
  const float cx = 10.0f, cy = 8.0f, r = 5.0f;
  std::vector<float> dev(nx * ny), host(nx * ny);
  hcuda_2d_generate_rmask_soft(dev.data(), nx, ny, cx, cy, r, 0.0f);
  cpu_2d_generate_rmask_soft(host.data(), nx, ny, cx, cy, r, 0.0f);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const float dx = x - cx, dy = y - cy;
      const float want = dx * dx + dy * dy <= r * r ? 1.0f : 0.0f;
      ASSERT_EQ(dev[y * nx + x], want) << x << "," << y;
      ASSERT_EQ(host[y * nx + x], want) << x << "," << y;
    }
}

// Direct local mean of an nx x ny image with the device disc of the padded
// grid, centred at ((NX-1)/2, (NY-1)/2).
std::vector<double> direct_local_mean(const std::vector<float>& img, int nx, int ny, float r, float w) {
  const int NX = 2 * nx, NY = 2 * ny;
  std::vector<float> mask(NX * NY);
  hcuda_2d_generate_rmask_soft(mask.data(), NX, NY, (NX - 1) / 2.0f, (NY - 1) / 2.0f, r, w);
  std::vector<float> pad = ref::mirror_pad(img.data(), nx, ny);
  return ref::local_mean(pad.data(), mask.data(), NX, NY, nx, ny);
}

TEST(LocalMean, MatchesTheDirectWindowSum) {
  struct Case {
    int nx, ny;
    float r, w;
  };
  for (Case c : {Case{16, 12, 4.0f, 2.0f}, Case{15, 9, 3.3f, 4.0f}, Case{20, 20, 6.0f, 0.0f}}) {
    std::vector<float> img = random_image(c.nx * c.ny, c.nx * 13 + c.ny);
    std::vector<float> out(c.nx * c.ny);
    hcuda_2d_bg_mpad(out.data(), img.data(), c.nx, c.ny, c.r, c.w);
    std::vector<double> want = direct_local_mean(img, c.nx, c.ny, c.r, c.w);
    for (int i = 0; i < c.nx * c.ny; i++) ASSERT_NEAR(out[i], want[i], 2e-6) << c.nx << "x" << c.ny << " at " << i;
  }
}

TEST(LocalMean, WindowIsCentredHalfAPixelBefore) {
  // A hard disc of radius 1 about a centre half a pixel off the grid holds
  // exactly four pixels: the window of (X, Y) is (X-1..X) x (Y-1..Y).
  const int nx = 12, ny = 10;
  std::vector<float> img = random_image(nx * ny, 77);
  std::vector<float> out(nx * ny);
  hcuda_2d_local_ave_softR_mpad(out.data(), img.data(), nx, ny, 1.0f, 0.0f);
  for (int Y = 1; Y < ny; Y++)
    for (int X = 1; X < nx; X++) {
      const double want =
          ((double)img[(Y - 1) * nx + X - 1] + img[(Y - 1) * nx + X] + img[Y * nx + X - 1] + img[Y * nx + X]) / 4.0;
      ASSERT_NEAR(out[Y * nx + X], want, 1e-6) << X << "," << Y;
    }
  // At the top-left corner the window reaches into the mirror image: pixel
  // (-1, y) of the padded grid is its last column, a copy of column 0.
  EXPECT_NEAR(out[0], img[0], 1e-6);
}

TEST(LocalMean, ConstantStaysConstantAndHugeDiscsWrap) {
  const int nx = 24, ny = 20;
  std::vector<float> img(nx * ny, 3.25f), out(nx * ny);
  hcuda_2d_bg_mpad(out.data(), img.data(), nx, ny, 5.0f, 3.0f);
  for (float v : out) ASSERT_NEAR(v, 3.25f, 3.25f * 1e-5f);
  // A disc larger than the padded grid covers all of it: every pixel gets
  // the mean of the whole (mirrored) image.
  const int n = 4;
  std::vector<float> small = random_image(n * n, 5), big(n * n);
  hcuda_2d_bg_mpad(big.data(), small.data(), n, n, 20.0f, 2.0f);
  double mean = 0.0;
  for (float v : small) mean += v;
  mean /= n * n;
  for (float v : big) EXPECT_NEAR(v, mean, 1e-6);
}

TEST(LocalSigma, MatchesTheDirectDeviation) {
  const int nx = 16, ny = 14;
  const float r = 3.5f, w = 3.0f;
  std::vector<float> img = random_image(nx * ny, 31, 0.0f, 2.0f), sq(nx * ny), out(nx * ny);
  for (int i = 0; i < nx * ny; i++) sq[i] = img[i] * img[i];
  hcuda_2d_local_sigma_softR_mpad(out.data(), img.data(), nx, ny, r, w);
  std::vector<double> m = direct_local_mean(img, nx, ny, r, w), m2 = direct_local_mean(sq, nx, ny, r, w);
  for (int i = 0; i < nx * ny; i++) ASSERT_NEAR(out[i], std::sqrt(m2[i] - m[i] * m[i]), 1e-4) << i;
}

TEST(LocalSigma, ConstantImageGivesZeroOrNaN) {
  const int nx = 20, ny = 16;
  const float c = 7.5f;
  std::vector<float> img(nx * ny, c), out(nx * ny);
  hcuda_2d_local_sigma_softR_mpad(out.data(), img.data(), nx, ny, 4.0f, 2.0f);
  // Only rounding is left: sqrt of a tiny difference of either sign.
  for (float v : out) {
    if (std::isnan(v)) continue;
    ASSERT_LT(v, 1e-2f * c);
  }
}

TEST(LocalStats, SameBitsFromTheCacheWithAnyThreadCountAndHostCopies) {
  // 256 x 256 pads to 512 x 512, large enough for threaded transforms and
  // parallel loops.
  const int n = 256;
  std::vector<float> img = random_image(n * n, 123);
  std::vector<float> first(n * n), again(n * n), other(n * n), host(n * n);
  gvex_local_stats_cache_clear();
  hcuda_2d_local_sigma_softR_mpad(first.data(), img.data(), n, n, 20.0f, 8.0f);
  // Two other radii push the first disc out of the cache and back.
  hcuda_2d_bg_mpad(other.data(), img.data(), n, n, 10.0f, 8.0f);
  hcuda_2d_bg_mpad(other.data(), img.data(), n, n, 30.0f, 8.0f);
  hcuda_2d_local_sigma_softR_mpad(again.data(), img.data(), n, n, 20.0f, 8.0f);
  EXPECT_EQ(0, memcmp(first.data(), again.data(), first.size() * sizeof(float)));
  hcuda_2d_local_sigma_softR_mpad(again.data(), img.data(), n, n, 20.0f, 8.0f);
  EXPECT_EQ(0, memcmp(first.data(), again.data(), first.size() * sizeof(float)));
  hcuda_2d_bg_mpad(other.data(), img.data(), n, n, 10.0f, 8.0f);
  gpu_2d_local_ave_softR_mpad(host.data(), img.data(), n, n, 10.0f, 8.0f);
  EXPECT_EQ(0, memcmp(other.data(), host.data(), other.size() * sizeof(float)));
#if defined(_OPENMP)
  const int saved = omp_get_max_threads();
  for (int threads : {1, 2}) {
    omp_set_num_threads(threads);
    gvex_fft_plan_cache_clear();  // fresh plans and disc, made on this many threads
    gvex_local_stats_cache_clear();
    hcuda_2d_local_sigma_softR_mpad(again.data(), img.data(), n, n, 20.0f, 8.0f);
    EXPECT_EQ(0, memcmp(first.data(), again.data(), first.size() * sizeof(float))) << threads << " thread(s)";
  }
  omp_set_num_threads(saved);
  gvex_fft_plan_cache_clear();
#endif
}

TEST(MaskedNormalisation, HardDiscGivesZeroMeanUnitDeviationInside) {
  const int nx = 24, ny = 18;
  const float cx = 11.5f, cy = 8.5f, r = 7.0f;
  std::vector<float> p = random_image(nx * ny, 55, 2.0f, 9.0f);
  cpu_2d_normz_withRmask_applymask_inplace(p.data(), nx, ny, cx, cy, r, 0.0f);
  double s = 0.0, s2 = 0.0;
  int k = 0;
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const float dx = x - cx, dy = y - cy;
      const float v = p[y * nx + x];
      if (dx * dx + dy * dy <= r * r) {
        s += v;
        s2 += (double)v * v;
        k++;
      } else {
        ASSERT_EQ(v, 0.0f) << x << "," << y;
      }
    }
  ASSERT_GT(k, 100);
  EXPECT_NEAR(s / k, 0.0, 1e-6);
  EXPECT_NEAR(s2 / k, 1.0, 1e-6);
}

TEST(MaskedNormalisation, EmptyMaskWarnsAndGoesOnToNaN) {
  const int nx = 8, ny = 8;
  std::vector<float> p = random_image(nx * ny, 2);
  testing::internal::CaptureStdout();
  cpu_2d_normz_withRmask_applymask_inplace(p.data(), nx, ny, -50.0f, -50.0f, 3.0f, 2.0f);
  const std::string said = testing::internal::GetCapturedStdout();
  EXPECT_NE(said.find("Warning in function"), std::string::npos) << said;
  EXPECT_NE(said.find("Too small sum of mask!"), std::string::npos) << said;
  for (float v : p) EXPECT_FALSE(std::isfinite(v));
}

}  // namespace
