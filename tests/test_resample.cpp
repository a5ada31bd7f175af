// Shrinking into an even square, mirror fill, bilinear sampling, scaling,
// rotation, centred paste, window cut and the whole-image fills.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "gpu/resample.h"

namespace {

using Vec = std::vector<float>;

// Deterministic, irregular pixel values (no two neighbours alike).
float pix(long i) { return (float)((i * 2654435761L) % 1000) * 0.37f - 150.0f; }

Vec image(int nx, int ny, long seed = 0) {
  Vec v((size_t)nx * ny);
  for (size_t i = 0; i < v.size(); i++) v[i] = pix((long)i + seed);
  return v;
}

struct Dev {
  explicit Dev(const Vec& h) : a(h.size() ? h.size() : 1) {
    memcpy_H2D(a.get(), h.data(), h.size() * sizeof(float));
  }
  explicit Dev(size_t n) : a(n) {}
  float* get() const { return a.get(); }
  DeviceArray<float> a;
};

Vec back(const float* d, size_t n) {
  Vec h(n);
  memcpy_D2H(h.data(), d, n * sizeof(float));
  return h;
}

// The block mean as defined: float sum row by row from 0, then / (float)(f*f).
float block_mean(const float* in, int nx, int xo, int yo, int f) {
  float s = 0.0f;
  for (int r = 0; r < f; r++)
    for (int c = 0; c < f; c++) s += in[((long)yo * f + r) * nx + (long)xo * f + c];
  return s / (float)(f * f);
}

// The fatal lines go to standard output; death tests read standard error.
#define EXPECT_FATAL(stmt, regex)          \
  EXPECT_EXIT(                             \
      {                                    \
        fflush(stdout);                    \
        dup2(2, 1);                        \
        stmt;                              \
      },                                   \
      testing::ExitedWithCode(1), regex)

// ---- shrinking ----

TEST(MeanShrink, BlockMeansDropPartialBlocks) {
  // 5 x 4 by 2: the last column is dropped.
  const Vec in = {1, 2, 3, 4, 100,  //
                  5, 6, 7, 8, 100,  //
                  0, 0, 1, 1, 100,  //
                  0, 4, 1, 9, 100};
  Vec out(4, -1.0f);
  cpu_2d_meanshrink(out.data(), in.data(), 5, 4, 2);
  EXPECT_EQ(out, (Vec{3.5f, 5.5f, 1.0f, 3.0f}));

  // Every factor follows the same accumulation order, fixed sums or not.
  const int nx = 29, ny = 23;
  const Vec big = image(nx, ny);
  for (int f = 2; f <= 7; f++) {
    Vec o((size_t)(nx / f) * (ny / f));
    cpu_2d_meanshrink(o.data(), big.data(), nx, ny, f);
    for (int y = 0; y < ny / f; y++)
      for (int x = 0; x < nx / f; x++)
        ASSERT_EQ(o[(size_t)y * (nx / f) + x], block_mean(big.data(), nx, x, y, f)) << f << " " << x << " " << y;
  }

  // f = 1 copies; f < 1 reports and leaves the output alone.
  Vec copy(big.size());
  cpu_2d_meanshrink(copy.data(), big.data(), nx, ny, 1);
  EXPECT_EQ(copy, big);
  Vec untouched(16, 9.0f);
  testing::internal::CaptureStdout();
  cpu_2d_meanshrink(untouched.data(), big.data(), nx, ny, 0);
  const std::string msg = testing::internal::GetCapturedStdout();
  EXPECT_EQ(msg.rfind("Error in function cpu_2d_meanshrink(), file process2d_raw on line ", 0), 0u) << msg;
  EXPECT_NE(msg.find(": Wrong value of shrink_factor. Must be >=1!\n"), std::string::npos) << msg;
  EXPECT_EQ(msg.find("Exit now"), std::string::npos);
  EXPECT_EQ(untouched, Vec(16, 9.0f));
}

TEST(MeanShrink, StackImagesAreShrunkOneByOne) {
  const int nx = 11, ny = 9, nz = 3, f = 3;
  const Vec in = image(nx, ny * nz);
  const size_t osz = (size_t)(nx / f) * (ny / f);
  Vec out(osz * nz), one(osz);
  cpu_2ds_meanshrink(out.data(), in.data(), nx, ny, nz, f);
  for (int k = 0; k < nz; k++) {
    cpu_2d_meanshrink(one.data(), in.data() + (size_t)k * nx * ny, nx, ny, f);
    EXPECT_EQ(Vec(out.begin() + k * osz, out.begin() + (k + 1) * osz), one) << k;
  }
}

TEST(EvenSquareShrink, SquareMicrographByThree) {
  const int n = 4096, f = 3;
  const Vec in = image(n, n);
  const int no = hd_even_shrink_size(n, f);
  ASSERT_EQ(no, 1364);
  Vec out((size_t)no * no, NAN);
  cpu_2d_meanshrink_extended_even_square(out.data(), in.data(), n, n, f);
  for (int y = 0; y < no; y += 97)
    for (int x = 0; x < no; x += 89) ASSERT_EQ(out[(size_t)y * no + x], block_mean(in.data(), n, x, y, f));
  for (int k = 0; k < no; k++) {
    ASSERT_EQ(out[(size_t)(no - 1) * no + k], block_mean(in.data(), n, k, no - 1, f));
    ASSERT_EQ(out[(size_t)k * no + no - 1], block_mean(in.data(), n, no - 1, k, f));
  }
}

TEST(EvenSquareShrink, WideMicrographMirrorsItsLastRows) {
  const int nx = 3838, ny = 3710, f = 2;
  const int nxo = hd_even_shrink_size(nx, f), nyo = hd_even_shrink_size(ny, f);
  ASSERT_EQ(nxo, 1918);
  ASSERT_EQ(nyo, 1854);
  const Vec in = image(nx, ny, 7);
  const size_t S = nxo;
  Vec out(S * S, NAN);
  cpu_2d_meanshrink_extended_even_square(out.data(), in.data(), nx, ny, f);
  for (int y = 0; y < nyo; y += 61)
    for (int x = 0; x < nxo; x += 67) ASSERT_EQ(out[y * S + x], block_mean(in.data(), nx, x, y, f));
  EXPECT_EQ(out[(nyo - 1) * S + nxo - 1], block_mean(in.data(), nx, nxo - 1, nyo - 1, f));
  // Rows 1854..1917 are rows 1853 down to 1790.
  for (int y = 1854; y <= 1917; y++)
    ASSERT_TRUE(std::equal(out.begin() + y * S, out.begin() + (y + 1) * S, out.begin() + (3707 - y) * S)) << y;
}

TEST(EvenSquareShrink, TallImagesUseTheSquareStride) {
  // f = 1 with an even width: rows still land at the square's stride.
  const int nx = 20, ny = 30;
  const Vec in = image(nx, ny);
  Vec out(30 * 30, NAN);
  cpu_2d_meanshrink_extended_even_square(out.data(), in.data(), nx, ny, 1);
  for (int y = 0; y < 30; y++)
    for (int x = 0; x < 30; x++) {
      const int sx = x < 20 ? x : 2 * 20 - x - 1;
      ASSERT_EQ(out[y * 30 + x], in[y * nx + sx]) << x << " " << y;
    }

  // By 2: 41 x 58 gives 20 x 28 in a 28-wide square.
  const Vec in2 = image(41, 58, 3);
  Vec out2(28 * 28, NAN);
  cpu_2d_meanshrink_extended_even_square(out2.data(), in2.data(), 41, 58, 2);
  for (int y = 0; y < 28; y++)
    for (int x = 0; x < 28; x++) {
      const int sx = x < 20 ? x : 2 * 20 - x - 1;
      ASSERT_EQ(out2[y * 28 + x], block_mean(in2.data(), 41, sx, y, 2)) << x << " " << y;
    }
}

TEST(MirrorFill, WideAndTall) {
  // 5 wide, 3 high in a 5 x 5 buffer: rows 3 and 4 repeat rows 2 and 1.
  Vec w = image(5, 5);
  const Vec w0 = w;
  cpu_2d_extend_to_square_mirror_inplace(w.data(), 5, 3);
  for (int x = 0; x < 5; x++) {
    EXPECT_EQ(w[3 * 5 + x], w0[2 * 5 + x]);
    EXPECT_EQ(w[4 * 5 + x], w0[1 * 5 + x]);
  }
  EXPECT_TRUE(std::equal(w.begin(), w.begin() + 15, w0.begin()));

  // 3 wide, 5 high with stride 5: columns 3 and 4 repeat columns 2 and 1.
  Vec t = image(5, 5);
  const Vec t0 = t;
  cpu_2d_extend_to_square_mirror_inplace(t.data(), 3, 5);
  for (int y = 0; y < 5; y++) {
    for (int x = 0; x < 3; x++) EXPECT_EQ(t[y * 5 + x], t0[y * 5 + x]);
    EXPECT_EQ(t[y * 5 + 3], t0[y * 5 + 2]);
    EXPECT_EQ(t[y * 5 + 4], t0[y * 5 + 1]);
  }

  Vec sq = image(4, 4);
  cpu_2d_extend_to_square_mirror_inplace(sq.data(), 4, 4);
  EXPECT_EQ(sq, image(4, 4));
}

TEST(MirrorFillDeathTest, OneSideTwiceTheOtherStopsTheRun) {
  Vec buf(100 * 100);
  const char* msg =
      "Error in function cpu_2d_extend_to_square_mirror_inplace\\(\\), file process2d_raw on line [0-9]+: "
      "Make sure: Ny/2 < Nx < 2Ny! Exit now!";
  EXPECT_FATAL(cpu_2d_extend_to_square_mirror_inplace(buf.data(), 6, 3), msg);
  EXPECT_FATAL(cpu_2d_extend_to_square_mirror_inplace(buf.data(), 3, 7), msg);
  // A micrograph five times as wide as high, through the shrink.
  const Vec in = image(200, 40);
  EXPECT_FATAL(cpu_2d_meanshrink_extended_even_square(buf.data(), in.data(), 200, 40, 2), msg);
}

// ---- bilinear sampling, scaling, rotation ----

TEST(Bilinear, IntegerEdgesStayInside) {
  const Vec in = {0, 1, 2,  //
                  10, 20, 40};
  const float* p = in.data();
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 0.5f, 0.5f), 7.75f);
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 2.0f, 1.0f), 40.0f);  // last column and row
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 2.0f, 0.5f), 21.0f);  // last column
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 1.5f, 1.0f), 30.0f);  // last row
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 1.0f, 0.0f), 1.0f);
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 2.0001f, 0.0f), 0.0f);
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, -0.0001f, 0.0f), 0.0f);
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, 0.0f, 1.0001f), 0.0f);
  EXPECT_EQ(hd_2d_bilinear(p, 3, 2, NAN, 0.0f), 0.0f);
}

TEST(Scale, FactorOneIsExactAndSizesTruncate) {
  const Vec in = image(7, 5);
  Dev d(in), o(in.size());
  hcuda_2d_scale(o.get(), d.get(), 7, 5, 1.0f);
  EXPECT_EQ(back(o.get(), in.size()), in);

  EXPECT_EQ(hd_scaled_size(101, 0.5f), 50);
  EXPECT_EQ(hd_scaled_size(64, 1.5f), 96);
  EXPECT_EQ(hd_scaled_size(10, 0.35f), 3);  // 3.4999998 in float
}

TEST(Scale, CentresMapToCentres) {
  // A plane x + 10y is reproduced exactly wherever the source is inside.
  const int nx = 5, ny = 4;
  Vec in(nx * ny);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) in[y * nx + x] = x + 10.0f * y;
  const int nxo = hd_scaled_size(nx, 2.0f), nyo = hd_scaled_size(ny, 2.0f);
  ASSERT_EQ(nxo, 10);
  ASSERT_EQ(nyo, 8);
  Dev d(in), o((size_t)nxo * nyo);
  hcuda_2d_scale(o.get(), d.get(), nx, ny, 2.0f);
  const Vec r = back(o.get(), (size_t)nxo * nyo);
  for (int y = 0; y < nyo; y++)
    for (int x = 0; x < nxo; x++) {
      const float xs = 2.0f + (x - 4.5f) * 0.5f, ys = 1.5f + (y - 3.5f) * 0.5f;
      const bool inside = xs >= 0 && xs <= 4 && ys >= 0 && ys <= 3;
      EXPECT_EQ(r[y * nxo + x], inside ? xs + 10.0f * ys : 0.0f) << x << " " << y;
    }
}

TEST(Scale, StackMatchesSingleImages) {
  const int nx = 9, ny = 7, nz = 3;
  const float factor = 0.6f;
  const int nxo = hd_scaled_size(nx, factor), nyo = hd_scaled_size(ny, factor);
  const Vec in = image(nx, ny * nz, 5);
  Vec out((size_t)nxo * nyo * nz);
  gpu_2ds_scale(out.data(), in.data(), nx, ny, nz, factor);
  for (int k = 0; k < nz; k++) {
    Dev d(Vec(in.begin() + k * nx * ny, in.begin() + (k + 1) * nx * ny)), o((size_t)nxo * nyo);
    hcuda_2d_scale(o.get(), d.get(), nx, ny, factor);
    EXPECT_EQ(back(o.get(), (size_t)nxo * nyo), Vec(out.begin() + k * nxo * nyo, out.begin() + (k + 1) * nxo * nyo));
  }
}

TEST(Rotate, ZeroDegreesIsExact) {
  const Vec in = image(6, 5);
  Dev d(in), o(in.size());
  hcuda_2d_rotate(d.get(), o.get(), 6, 5, 0.0f);
  EXPECT_EQ(back(o.get(), in.size()), in);
}

TEST(Rotate, NinetyDegreesTurnsThePattern) {
  // 1..9 in the middle of a zero 5 x 5 frame; output (x, y) reads input
  // (y, 4 - x), which on screen (y down) is a quarter turn clockwise.
  const Vec in = {0, 0, 0, 0, 0,  //
                  0, 1, 2, 3, 0,  //
                  0, 4, 5, 6, 0,  //
                  0, 7, 8, 9, 0,  //
                  0, 0, 0, 0, 0};
  const Vec want = {0, 0, 0, 0, 0,  //
                    0, 7, 4, 1, 0,  //
                    0, 8, 5, 2, 0,  //
                    0, 9, 6, 3, 0,  //
                    0, 0, 0, 0, 0};
  Dev d(in), o(25);
  hcuda_2d_rotate(d.get(), o.get(), 5, 5, 90.0f);
  const Vec r = back(o.get(), 25);
  // cos of the float angle is not exactly 0: neighbours leak in at 1e-7.
  for (int i = 0; i < 25; i++) EXPECT_NEAR(r[i], want[i], 1e-5) << i;
}

TEST(Rotate, CornersOfARotatedSquareAreZero) {
  const int n = 9;
  Vec in(n * n, 1.0f);
  Dev d(in), o(in.size());
  hcuda_2d_rotate(d.get(), o.get(), n, n, 45.0f);
  const Vec r = back(o.get(), in.size());
  EXPECT_EQ(r[0], 0.0f);
  EXPECT_EQ(r[n - 1], 0.0f);
  EXPECT_EQ(r[(n - 1) * n], 0.0f);
  EXPECT_EQ(r[n * n - 1], 0.0f);
  EXPECT_EQ(r[4 * n + 4], 1.0f);
  EXPECT_NEAR(r[4 * n + 1], 1.0f, 1e-6);
}

// ---- paste, cut, fills ----

TEST(Paste, SmallLandsInTheCentreAndNothingElseChanges) {
  const int NX = 8, NY = 5, nx = 3, ny = 2;
  const Vec small = {1, 2, 3, 4, 5, 6};
  Dev dl(Vec(NX * NY, -1.0f)), ds(small);
  hcuda_x2d_cp_small_to_large_center(dl.get(), ds.get(), NX, NY, nx, ny);
  const Vec r = back(dl.get(), NX * NY);
  // Offsets (8-3)/2 = 2 and (5-2)/2 = 1.
  for (int y = 0; y < NY; y++)
    for (int x = 0; x < NX; x++) {
      const bool in = x >= 2 && x < 5 && y >= 1 && y < 3;
      EXPECT_EQ(r[y * NX + x], in ? small[(y - 1) * nx + x - 2] : -1.0f) << x << " " << y;
    }
  // Equal sizes copy the whole image.
  Dev same_l(Vec(6, 0.0f)), same_s(small);
  hcuda_x2d_cp_small_to_large_center(same_l.get(), same_s.get(), 3, 2, 3, 2);
  EXPECT_EQ(back(same_l.get(), 6), small);
}

TEST(PasteDeathTest, TooLargeAnImageStopsWithTheSizes) {
  Dev dl(Vec(40, 0.0f)), ds(Vec(40, 1.0f));
  EXPECT_FATAL(hcuda_x2d_cp_small_to_large_center(dl.get(), ds.get(), 8, 5, 10, 2),
               "hcuda_x2d_cp_small_to_large_center.*10 x 2.*8 x 5.*Exit now!");
  EXPECT_FATAL(hcuda_x2d_cp_small_to_large_center(dl.get(), ds.get(), 8, 5, 4, 6), "4 x 6.*8 x 5");
}

TEST(WindowCut, ZerosOutsideAtEveryBorder) {
  const int NX = 6, NY = 4;
  const Vec large = image(NX, NY);
  auto at = [&](int x, int y) { return (x >= 0 && x < NX && y >= 0 && y < NY) ? large[y * NX + x] : 0.0f; };
  const int corners[][2] = {{-1, -1}, {4, 2}, {-2, 3}, {1, 1}, {-3, -3}, {6, 0}};
  for (const auto& c : corners) {
    Vec small(3 * 3, NAN);
    cpu_x2d_extract_small_from_large(small.data(), 3, 3, large.data(), NX, NY, c[0], c[1]);
    for (int y = 0; y < 3; y++)
      for (int x = 0; x < 3; x++) EXPECT_EQ(small[y * 3 + x], at(c[0] + x, c[1] + y)) << c[0] << "," << c[1];
  }
  // Corners at the ends of the int range neither wrap nor read outside.
  const int far[][2] = {{INT_MAX, 0}, {0, INT_MAX}, {INT_MIN, INT_MIN}, {INT_MAX - 1, INT_MIN + 1}};
  for (const auto& c : far) {
    Vec small(4 * 4, NAN);
    cpu_x2d_extract_small_from_large(small.data(), 4, 4, large.data(), NX, NY, c[0], c[1]);
    EXPECT_EQ(small, Vec(16, 0.0f)) << c[0] << "," << c[1];
  }
}

TEST(Fills, EmptyMemsetAndTrueDivision) {
  const int nx = 37, ny = 35;  // more than one 32 x 32 block each way
  Dev d(image(nx, ny));
  hcuda_2d_memset(d.get(), 2.5f, nx, ny);
  EXPECT_EQ(back(d.get(), nx * ny), Vec(nx * ny, 2.5f));
  hcuda_2d_empty(d.get(), nx, ny);
  EXPECT_EQ(back(d.get(), nx * ny), Vec(nx * ny, 0.0f));

  // Division, not multiplication by the reciprocal: they differ for some v.
  Vec v(nx * ny);
  for (size_t i = 0; i < v.size(); i++) v[i] = 1.0f + (float)i;
  bool differs = false;
  for (float x : v) differs |= x / 3.0f != x * (1.0f / 3.0f);
  ASSERT_TRUE(differs);
  Dev dv(v);
  hcuda_2d_divide_inplace(dv.get(), nx, ny, 3.0f);
  const Vec r = back(dv.get(), v.size());
  for (size_t i = 0; i < v.size(); i++) ASSERT_EQ(r[i], v[i] / 3.0f) << i;
}

}  // namespace
