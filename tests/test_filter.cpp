// Band-pass filters: padding, the two filter shapes on a spectrum, and the
// whole padded pipeline.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "gpu/device.h"
#include "gpu/img_filter.h"
#include "reference/reference.h"

namespace {

std::vector<float> random_image(int n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

const double kInvSqrt2Pi = 0.3989422804014327;

TEST(MirrorPad, EvenExtensionAndItsInverse) {
  const int nx = 5, ny = 3;
  std::vector<float> in = random_image(nx * ny, 1);
  std::vector<float> pad(4 * nx * ny), back(nx * ny);
  hcuda_2d_mirror_pad(pad.data(), in.data(), nx, ny);
  EXPECT_EQ(pad, ref::mirror_pad(in.data(), nx, ny));
  hcuda_2d_mirror_pad_inv(back.data(), pad.data(), nx, ny);
  EXPECT_EQ(back, in);
}

// A flat spectrum of ones for an N x N image.
std::vector<float2> ones(int N) { return std::vector<float2>((size_t)(N / 2 + 1) * N, float2{1.0f, 1.0f}); }

double radius(int kx, int y, int N) {
  const int ky = y < N / 2 ? y : y - N;
  return std::sqrt((double)(kx * kx + ky * ky));
}

TEST(BandpassShapes, SoftRKeepsTheBandAndStartsItsEdgeAt0399) {
  // N = 32, apix 1: r1 = 2 gives R_hi = 16 (Nyquist), r2 = 16 gives R_lo = 2.
  const int N = 32, nxh = N / 2 + 1;
  const float w = 4.0f;
  std::vector<float2> s = ones(N);
  cuda_c2d_bandpass_softR(s.data(), N, 1.0f, 16.0f, 2.0f, w);
  for (int y = 0; y < N; y++)
    for (int kx = 0; kx < nxh; kx++) {
      const double r = radius(kx, y, N);
      double want;
      if (r < 2.0 || r > 16.0 + w)
        want = 0.0;
      else if (r <= 16.0)
        want = 1.0;
      else
        want = kInvSqrt2Pi * std::exp(-(r - 16.0) * (r - 16.0) / (2.0 * (w / 3.0) * (w / 3.0)));
      const float2 v = s[y * nxh + kx];
      ASSERT_NEAR(v.x, want, 1e-6) << kx << "," << y;
      ASSERT_EQ(v.x, v.y);
    }
  // At R_hi exactly: full amplitude; just above it: about 0.399.
  EXPECT_EQ(s[0 * nxh + 16].x, 1.0f);
  EXPECT_NEAR(s[1 * nxh + 16].x, 0.3989, 1e-3);  // r = sqrt(257)
  EXPECT_EQ(s[0 * nxh + 1].x, 0.0f);             // below R_lo
  EXPECT_EQ(s[0 * nxh + 2].x, 1.0f);             // R_lo itself is kept
}

TEST(BandpassShapes, ZeroEdgeWidthIsAHardBand) {
  const int N = 16, nxh = N / 2 + 1;
  std::vector<float2> s = ones(N);
  cuda_c2d_bandpass_softR(s.data(), N, 1.0f, 4.0f, 8.0f, 0.0f);  // band [2, 4]
  for (int y = 0; y < N; y++)
    for (int kx = 0; kx < nxh; kx++) {
      const double r = radius(kx, y, N);
      ASSERT_EQ(s[y * nxh + kx].x, (r >= 2.0 && r <= 4.0) ? 1.0f : 0.0f) << kx << "," << y;
    }
}

TEST(BandpassShapes, GuasIsTheProductOfTwoGaussians) {
  const int N = 64, nxh = N / 2 + 1;
  const float apix = 1.5f, lp = 6.0f, hp = 48.0f;
  const double r_hi = N * apix / lp, r_lo = N * apix / hp, h = N / 2 + 1;
  std::vector<float2> s = ones(N);
  cuda_c2d_bandpass_guas(s.data(), N, apix, lp, hp);
  float top = 0.0f;
  for (int y = 0; y < N; y++)
    for (int kx = 0; kx < nxh; kx++) {
      const double r = radius(kx, y, N);
      double want = 0.0;
      if (r >= r_lo && r <= r_hi) {
        const double s1 = r_hi / 3.0, s2 = (h - r_lo) / 3.0;
        want = kInvSqrt2Pi * std::exp(-r * r / (2 * s1 * s1)) * kInvSqrt2Pi *
               std::exp(-(h - r) * (h - r) / (2 * s2 * s2));
      }
      ASSERT_NEAR(s[y * nxh + kx].x, want, 1e-6) << kx << "," << y;
      top = std::max(top, s[y * nxh + kx].x);
    }
  EXPECT_GT(top, 0.0f);
  EXPECT_LE(top, 0.16f);
}

TEST(BandpassShapes, LimitOrderDoesNotMatter) {
  const int N = 32;
  std::vector<float2> a = ones(N), b = ones(N), c = ones(N), d = ones(N);
  cuda_c2d_bandpass_softR(a.data(), N, 1.3f, 3.1f, 11.0f, 2.0f);
  cuda_c2d_bandpass_softR(b.data(), N, 1.3f, 11.0f, 3.1f, 2.0f);
  cuda_c2d_bandpass_guas(c.data(), N, 1.3f, 3.1f, 11.0f);
  cuda_c2d_bandpass_guas(d.data(), N, 1.3f, 11.0f, 3.1f);
  EXPECT_EQ(0, memcmp(a.data(), b.data(), a.size() * sizeof(float2)));
  EXPECT_EQ(0, memcmp(c.data(), d.data(), c.size() * sizeof(float2)));
}

TEST(BandpassPadded, AllPassReturnsTheImageTimesThePaddedSize) {
  // R_lo = 0 and R_hi beyond every radius: only the unnormalised round trip
  // remains, a factor (2n)^2.
  const int n = 24;
  std::vector<float> in = random_image(n * n, 4), out(n * n);
  hcuda_2d_bandpass_softR_mpad(in.data(), out.data(), n, 1.0f, 0.01f, INFINITY, 3.0f);
  const double f = 4.0 * n * n;
  for (int i = 0; i < n * n; i++) ASSERT_NEAR(out[i], f * in[i], 1e-4 * f) << i;
}

TEST(BandpassPadded, RemovesTheMeanAndIgnoresLimitOrder) {
  const int n = 32;
  std::vector<float> in = random_image(n * n, 7);
  for (float& v : in) v += 5.0f;  // a large mean to remove
  std::vector<float> a(n * n), b(n * n), c(n * n), d(n * n);
  hcuda_2d_bandpass_guas_mpad(in.data(), a.data(), n, 2.0f, 8.0f, 40.0f);
  hcuda_2d_bandpass_guas_mpad(in.data(), b.data(), n, 2.0f, 40.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad(in.data(), c.data(), n, 2.0f, 4.0f, 40.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad(in.data(), d.data(), n, 2.0f, 40.0f, 4.0f, 8.0f);
  EXPECT_EQ(a, b);
  EXPECT_EQ(c, d);
  for (const std::vector<float>* v : {&a, &c}) {
    double sum = 0.0, sq = 0.0;
    for (float x : *v) {
      sum += x;
      sq += (double)x * x;
    }
    const double rms = std::sqrt(sq / (n * n));
    EXPECT_GT(rms, 0.0);
    EXPECT_LT(std::fabs(sum / (n * n)), 1e-5 * rms);
  }
}

TEST(BandpassPadded, InPlaceAndHostFormsGiveTheSameBits) {
  const int n = 20;
  std::vector<float> in = random_image(n * n, 9), out(n * n), p = in, q = in, h(n * n);
  hcuda_2d_bandpass_guas_mpad(in.data(), out.data(), n, 1.0f, 3.0f, 30.0f);
  hcuda_2d_bandpass_guas_mpad_inplace(p.data(), n, 1.0f, 3.0f, 30.0f);
  gpu_2d_bandpass_guas_mpad(in.data(), h.data(), n, 1.0f, 3.0f, 30.0f);
  gpu_2d_bandpass_guas_mpad_inplace(q.data(), n, 1.0f, 3.0f, 30.0f);
  EXPECT_EQ(out, p);
  EXPECT_EQ(out, h);
  EXPECT_EQ(out, q);
  std::vector<float> r = in, s = in;
  hcuda_2d_bandpass_softR_mpad(in.data(), r.data(), n, 1.0f, 2.0f, 30.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad_inplace(s.data(), n, 1.0f, 2.0f, 30.0f, 8.0f);
  EXPECT_EQ(r, s);
}

}  // namespace
