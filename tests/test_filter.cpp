// Band-pass filters: the two filter shapes on a spectrum, and the whole
// mirror-padded pipeline (the padding itself meets the direct reference in
// test_local_stats, whose local means are built on it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "gpu/img_filter.h"
#include "reference/reference.h"
#include "support/match_fixtures.h"

namespace {

const double kInvSqrt2Pi = 0.3989422804014327;

// A flat spectrum of ones for an N x N image.
std::vector<float2> ones(int N) { return std::vector<float2>((size_t)(N / 2 + 1) * N, float2{1.0f, 1.0f}); }

double radius(int kx, int y, int N) {
  const int ky = y < N / 2 ? y : y - N;
  return std::sqrt((double)(kx * kx + ky * ky));
}

TEST(BandpassShapes, SoftRKeepsTheBandAndStepsTo0399AboveIt) {
  // apix 1: N = 32, r1 = 16, r2 = 2 give the band [2, 16] (R_hi at Nyquist)
  // with an edge of 4, so (kx, ky) = (16, 0) keeps 1 and (16, 1), at sqrt(257),
  // drops to 0.399; N = 16, r1 = 4, r2 = 8 give the hard band [2, 4].
  struct Case {
    int N;
    float r1, r2, w;
  };
  for (Case c : {Case{32, 16.0f, 2.0f, 4.0f}, Case{16, 4.0f, 8.0f, 0.0f}}) {
    const int nxh = c.N / 2 + 1;
    const double lo = c.N / std::max(c.r1, c.r2), hi = c.N / std::min(c.r1, c.r2), s = c.w / 3.0;
    std::vector<float2> sp = ones(c.N);
    cuda_c2d_bandpass_softR(sp.data(), c.N, 1.0f, c.r1, c.r2, c.w);
    for (int y = 0; y < c.N; y++)
      for (int kx = 0; kx < nxh; kx++) {
        const double r = radius(kx, y, c.N);
        const double want = r < lo || r > hi + c.w ? 0.0
                            : r <= hi              ? 1.0
                                                   : kInvSqrt2Pi * std::exp(-(r - hi) * (r - hi) / (2 * s * s));
        ASSERT_NEAR(sp[y * nxh + kx].x, want, 1e-6) << c.N << ": " << kx << "," << y;
        ASSERT_EQ(sp[y * nxh + kx].x, sp[y * nxh + kx].y);
      }
  }
}

TEST(BandpassShapes, GuasIsTheProductOfTwoGaussians) {
  const int N = 64, nxh = N / 2 + 1;
  const float apix = 1.5f, lp = 6.0f, hp = 48.0f;
  const double r_hi = N * apix / lp, r_lo = N * apix / hp, h = N / 2 + 1, s1 = r_hi / 3.0, s2 = (h - r_lo) / 3.0;
  std::vector<float2> sp = ones(N);
  cuda_c2d_bandpass_guas(sp.data(), N, apix, lp, hp);
  for (int y = 0; y < N; y++)
    for (int kx = 0; kx < nxh; kx++) {
      const double r = radius(kx, y, N);
      const double want = r < r_lo || r > r_hi ? 0.0
                          : kInvSqrt2Pi * std::exp(-r * r / (2 * s1 * s1)) * kInvSqrt2Pi *
                                std::exp(-(h - r) * (h - r) / (2 * s2 * s2));
      ASSERT_NEAR(sp[y * nxh + kx].x, want, 1e-6) << kx << "," << y;
    }
}

TEST(BandpassPadded, AllPassReturnsTheImageTimesThePaddedSize) {
  // R_lo = 0 and R_hi beyond every radius: only the unnormalised round trip
  // remains, a factor (2n)^2.
  const int n = 24;
  const Vec in = uniform(n * n, 4);
  Dev<float> d(in);
  hcuda_2d_bandpass_softR_mpad_inplace(d.get(), n, 1.0f, 0.01f, INFINITY, 3.0f);
  const Vec out = d.host();
  const double f = 4.0 * n * n;
  for (int i = 0; i < n * n; i++) ASSERT_NEAR(out[i], f * in[i], 1e-4 * f) << i;
}

TEST(BandpassPadded, RemovesTheMeanAndIgnoresLimitOrder) {
  const int n = 32;
  Vec in = uniform(n * n, 7);
  for (float& v : in) v += 5.0f;  // a large mean to remove
  // The two limits in either order.
  Dev<float> da(in), db(in), dc(in), dd(in);
  hcuda_2d_bandpass_guas_mpad_inplace(da.get(), n, 2.0f, 8.0f, 40.0f);
  hcuda_2d_bandpass_guas_mpad_inplace(db.get(), n, 2.0f, 40.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad_inplace(dc.get(), n, 2.0f, 4.0f, 40.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad_inplace(dd.get(), n, 2.0f, 40.0f, 4.0f, 8.0f);
  const Vec a = da.host(), c = dc.host();
  EXPECT_EQ(a, db.host());
  EXPECT_EQ(c, dd.host());
  for (const Vec* v : {&a, &c}) {  // the zero frequency is gone: mean 0
    const double typical = ref::abs_sum(v->data(), n * n) / (n * n);
    EXPECT_GT(typical, 0.0);
    EXPECT_LT(std::fabs(std::accumulate(v->begin(), v->end(), 0.0) / (n * n)), 1e-5 * typical);
  }
}

}  // namespace
