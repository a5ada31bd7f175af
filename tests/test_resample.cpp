// Shrinking into an even square with mirror fill, bilinear sampling,
// scaling, rotation, centred paste, window cut and true division.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>

#include "support/capture.h"
#include "common/host_image.h"
#include "gpu/resample.h"
#include "support/match_fixtures.h"

namespace {

// Deterministic, irregular pixel values (no two neighbours alike).
Vec image(int nx, int ny, long seed = 0) {
  Vec v((size_t)nx * ny);
  for (size_t i = 0; i < v.size(); i++) v[i] = (float)(((long)i + seed) * 2654435761L % 1000) * 0.37f - 150.0f;
  return v;
}

// The block mean as defined: float sum row by row from 0, then / (float)(f*f).
float block_mean(const float* in, int nx, int xo, int yo, int f) {
  float s = 0.0f;
  for (int r = 0; r < f; r++)
    for (int c = 0; c < f; c++) s += in[((long)yo * f + r) * nx + (long)xo * f + c];
  return s / (float)(f * f);
}

TEST(MeanShrink, BlockMeansDropPartialBlocks) {
  // Stacked 29 x 23 images, none a whole number of blocks; f = 1 copies.
  const int nx = 29, ny = 23, nz = 2;
  const Vec in = image(nx, ny * nz);
  for (int f = 1; f <= 5; f++) {
    const int nxo = nx / f, nyo = ny / f;
    Vec o((size_t)nxo * nyo * nz);
    cpu_2ds_meanshrink(o.data(), in.data(), nx, ny, nz, f);
    for (int y = 0; y < nyo * nz; y++)
      for (int x = 0; x < nxo; x++)
        ASSERT_EQ(o[(size_t)y * nxo + x], block_mean(&in[y / nyo * nx * ny], nx, x, y % nyo, f)) << f;
  }
  // f < 1 reports, leaves the output alone and goes on.
  Vec untouched(16, 9.0f);
  const std::string msg = stdout_of([&] { cpu_2d_meanshrink(untouched.data(), in.data(), nx, ny, 0); });
  EXPECT_EQ(msg.rfind("Error in function cpu_2d_meanshrink(), file process2d_raw on line ", 0), 0u) << msg;
  EXPECT_NE(msg.find(": Wrong value of shrink_factor. Must be >=1!\n"), std::string::npos) << msg;
  EXPECT_EQ(untouched, Vec(16, 9.0f));
}

TEST(EvenSquareShrink, MicrographsFillTheSquareByMirroring) {
  // 4096 x 4096 by 3 is a 1364 square, no mirror. 3838 x 3710 by 2 is
  // 1918 x 1854: rows 1854..1917 repeat rows 1853 down to 1790. Tall images
  // mirror columns instead, also with f = 1 and the width kept: 20 x 30 by 1
  // and 41 x 58 by 2 (20 x 28) repeat columns 19 down from column 20. The
  // large squares are sampled with a step that ends on their last pixel.
  struct Case {
    int nx, ny, f, nxo, nyo, step;
  };
  for (Case c : {Case{4096, 4096, 3, 1364, 1364, 29}, Case{3838, 3710, 2, 1918, 1854, 27},
                 Case{20, 30, 1, 20, 30, 1}, Case{41, 58, 2, 20, 28, 1}}) {
    ASSERT_EQ(hd_even_shrink_size(c.nx, c.f), c.nxo);
    ASSERT_EQ(hd_even_shrink_size(c.ny, c.f), c.nyo);
    const int S = std::max(c.nxo, c.nyo);
    const Vec in = image(c.nx, c.ny, 7);
    Vec out((size_t)S * S, NAN);
    cpu_2d_meanshrink_extended_even_square(out.data(), in.data(), c.nx, c.ny, c.f);
    ASSERT_EQ((S - 1) % c.step, 0);
    for (int y = 0; y < S; y += c.step)
      for (int x = 0; x < S; x += c.step) {
        const int sx = x < c.nxo ? x : 2 * c.nxo - 1 - x, sy = y < c.nyo ? y : 2 * c.nyo - 1 - y;
        ASSERT_EQ(out[(size_t)y * S + x], block_mean(in.data(), c.nx, sx, sy, c.f))
            << c.nx << ": " << x << "," << y;
      }
  }
}

TEST(MirrorFillDeathTest, OneSideTwiceTheOtherStopsTheRun) {
  Vec buf(100 * 100);
  const char* msg =
      "Error in function cpu_2d_extend_to_square_mirror_inplace\\(\\), file process2d_raw on line [0-9]+: "
      "Make sure: Ny/2 < Nx < 2Ny! Exit now!";
  EXPECT_FAILS(cpu_2d_extend_to_square_mirror_inplace(buf.data(), 6, 3), msg);
  EXPECT_FAILS(cpu_2d_extend_to_square_mirror_inplace(buf.data(), 3, 7), msg);
  const Vec in = image(200, 40);  // five times as wide as high, through the shrink
  EXPECT_FAILS(cpu_2d_meanshrink_extended_even_square(buf.data(), in.data(), 200, 40, 2), msg);
}

TEST(Scale, FactorOneIsExact) {
  EXPECT_EQ(hd_scaled_size(10, 0.35f), 3);  // 3.4999998 in float
  const Vec in = image(7, 5);
  Dev<float> d(in), o(in.size());
  hcuda_2d_scale(o.get(), d.get(), 7, 5, 1.0f);
  EXPECT_EQ(o.host(), in);
}

TEST(Rotate, ZeroIsExactAndNinetyTurnsClockwiseOnScreen) {
  const Vec in = image(6, 5);
  Dev<float> d(in), o(in.size());
  hcuda_2d_rotate(d.get(), o.get(), 6, 5, 0.0f);
  EXPECT_EQ(o.host(), in);
  // Output (x, y) reads input (y, 4 - x).
  const Vec pat = {0, 0, 0, 0, 0, 0, 1, 2, 3, 0, 0, 4, 5, 6, 0, 0, 7, 8, 9, 0, 0, 0, 0, 0, 0};
  const Vec want = {0, 0, 0, 0, 0, 0, 7, 4, 1, 0, 0, 8, 5, 2, 0, 0, 9, 6, 3, 0, 0, 0, 0, 0, 0};
  Dev<float> dp(pat), r(25);
  hcuda_2d_rotate(dp.get(), r.get(), 5, 5, 90.0f);
  const Vec got = r.host();
  for (int i = 0; i < 25; i++) EXPECT_NEAR(got[i], want[i], 1e-5) << i;  // cos(90 deg) in float is not 0
}

TEST(WindowCut, ZerosOutsideAtEveryBorderWithoutOverflow) {
  const int NX = 6, NY = 4;
  const Vec large = image(NX, NY);
  auto at = [&](long x, long y) { return (x >= 0 && x < NX && y >= 0 && y < NY) ? large[y * NX + x] : 0.0f; };
  const int corners[][2] = {{-1, -1}, {4, 2},       {-2, 3},           {1, 1},
                            {6, 0},   {INT_MAX, 0}, {0, INT_MAX},      {INT_MIN, INT_MIN},
                            {INT_MAX - 1, INT_MIN + 1}};
  for (const auto& c : corners) {
    Vec small(3 * 3, NAN);
    cpu_x2d_extract_small_from_large(small.data(), 3, 3, large.data(), NX, NY, c[0], c[1]);
    for (int i = 0; i < 9; i++)
      EXPECT_EQ(small[i], at((long)c[0] + i % 3, (long)c[1] + i / 3)) << c[0] << "," << c[1] << ": " << i;
  }
}

}  // namespace
