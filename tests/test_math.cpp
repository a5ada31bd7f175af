// Statistics, normalisations and element-wise arithmetic, device and host.
// The summation tree itself is checked in test_device; here every device
// statistic must give the same bits as the tree sum of an array prepared on
// the host, so that it depends on the tree exactly as documented.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "common/hm_math.h"
#include "gpu/math_utils.h"
#include "support/match_fixtures.h"

namespace {

// Float sums depend on order here: large values of both signs, small values
// that vanish next to them, a non-zero mean.
Vec awkward(size_t n, unsigned seed) {
  Vec v = uniform(n, seed);
  for (size_t i = 0; i < n; i++) v[i] = (i % 7 == 3) ? v[i] * 3.0e4f : 0.7f + v[i] * 1.0e-3f;
  return v;
}

// Zero, soft and one values; never empty.
Vec soft_mask(size_t n, unsigned seed) {
  Vec w = uniform(n, seed, 0.0f, 1.0f);
  for (float& x : w) x = x < 0.3f ? 0.0f : (x > 0.6f ? 1.0f : x);
  w[0] = 1.0f;
  return w;
}

Vec map(const Vec& a, const Vec& b, const std::function<float(float, float)>& f) {
  Vec r(a.size());
  for (size_t i = 0; i < a.size(); i++) r[i] = f(a[i], b[i]);
  return r;
}

float tree_sum(const Vec& h) { return hcuda_fast_sum(Dev<float>(h).get(), h.size()); }

class Reductions : public testing::TestWithParam<size_t> {};

TEST_P(Reductions, StatisticsComposeTheTreeSums) {
  const size_t n = GetParam();
  const Vec h = awkward(n, 11 + (unsigned)n), w = soft_mask(n, 9 + (unsigned)n);
  Dev<float> d(h), dw(w);
  const float mean = tree_sum(h) / (float)n;
  const float sumsqr = tree_sum(map(h, h, [](float x, float) { return x * x; }));
  EXPECT_EQ(hcuda_fast_mean(d.get(), n), mean);
  EXPECT_EQ(hcuda_fast_sumsqr(d.get(), n), sumsqr);

  const float sqw = tree_sum(map(h, w, [](float x, float m) { return x * x * m; }));
  EXPECT_EQ(hcuda_fast_sumsqr_withmask(d.get(), dw.get(), n), sqw);
  // None of those touched the inputs.
  EXPECT_EQ(d.host(), h);
  EXPECT_EQ(dw.host(), w);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Reductions, testing::Values(1, 1024, 1025, 3 * 1024 * 1024));

TEST(Normalisation, FusedStepOnTheTreeStatistics) {
  const size_t n = 1025 * 3;
  const Vec h = awkward(n, 21), w = soft_mask(n, 32);
  // normz: tree mean, subtract, tree deviation of the centred data, one fma.
  Dev<float> d(h);
  hcuda_normz_inplace(d.get(), n, 2.0f, 3.0f);
  const Vec r = d.host();
  const float mean = tree_sum(h) / (float)n;
  const Vec c = map(h, h, [=](float x, float) { return x - mean; });
  const float k = 2.0f / sqrtf(tree_sum(map(c, c, [](float x, float) { return x * x; })) / (float)n);
  for (size_t i = 0; i < n; i++) ASSERT_EQ(r[i], fmaf(c[i], k, 3.0f)) << i;

  // Masked: the mean and the deviation over the mask sum, taken first by
  // the tree, then every element normalised.
  Dev<float> d2(h), dw(w);
  const float wsum = tree_sum(w), mm = tree_sum(map(h, w, [](float x, float m) { return x * m; })) / wsum;
  const float ms = sqrtf(tree_sum(map(h, w, [=](float x, float m) { return (x - mm) * (x - mm) * m; })) / wsum);
  hcuda_norm_withmask_inplace(d2.get(), dw.get(), n, 1.5f, -1.0f);
  const Vec want = map(h, h, [=](float x, float) { return fmaf(x - mm, 1.5f / ms, -1.0f); });
  EXPECT_EQ(d2.host(), want);
}

// x*A+B rounded once differs from rounded twice for x = A = 1 + 2^-12 and
// B = -(1 + 2^-11).
const float A = 1.0f + 1.0f / 4096.0f, B = -(1.0f + 1.0f / 2048.0f), P = 0.3f;

TEST(ElementWise, FusionOnlyWhereFused) {
  Vec x = uniform(64, 7, -50.0f, 50.0f), y = uniform(64, 8, 0.5f, 2.0f), w = soft_mask(64, 9);
  x[0] = A;
  ASSERT_NE(A * A + B, fmaf(A, A, B));
  const size_t n = x.size();
  Dev<float> dx(x), dy(y), dw(w), dout(n);
  const auto expect = [&](const char* what, float (*f)(float, float, float)) {
    Vec want(n);
    for (size_t i = 0; i < n; i++) want[i] = f(x[i], y[i], w[i]);
    EXPECT_EQ(dout.host(), want) << what;
  };
  hcuda_multi_add(dout.get(), dx.get(), n, A, B);
  expect("multi_add", [](float p, float, float) { return fmaf(p, A, B); });
  hcuda_x1d_multi(dout.get(), dx.get(), dy.get(), n);
  expect("x1d_multi", [](float p, float q, float) { return p * q; });
  hcuda_data_submean_sqr_withmask(dout.get(), dx.get(), dw.get(), n, P);
  expect("data_submean_sqr_withmask", [](float p, float, float m) { return (p - P) * (p - P) * m; });
  EXPECT_EQ(dx.host(), x);

  // Contrast inversion is by sign, and twice restores the data.
  const Vec neg = map(x, x, [](float v, float) { return -v; });
  Vec hneg = x;
  hm_invert_inplace(hneg.data(), n);
  hcuda_invert_inplace(dx.get(), n);
  EXPECT_EQ(hneg, neg);
  EXPECT_EQ(dx.host(), neg);
  hcuda_invert_inplace(dx.get(), n);
  EXPECT_EQ(dx.host(), x);
}

}  // namespace
