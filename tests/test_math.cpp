// Statistics, normalisations and element-wise arithmetic, device and host.
// The summation tree itself is covered by test_device; here every statistic
// is checked against the tree sum of an array prepared on the host (same
// bits expected) and against a double computation (close values expected).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "gpu/hm_math.h"
#include "gpu/math_utils.h"

namespace {

using Vec = std::vector<float>;

// A device copy of a host vector.
struct Dev {
  explicit Dev(const Vec& h) : a(h.size() ? h.size() : 1) {
    memcpy_H2D(a.get(), h.data(), h.size() * sizeof(float));
  }
  float* get() const { return a.get(); }
  DeviceArray<float> a;
};

Vec back(const float* d, size_t n) {
  Vec h(n);
  memcpy_D2H(h.data(), d, n * sizeof(float));
  return h;
}

// Float sums depend on order here: large values of both signs, small values
// that vanish next to them, a non-zero mean.
Vec awkward(size_t n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  Vec v(n);
  for (size_t i = 0; i < n; i++) {
    float x = u(g);
    v[i] = (i % 7 == 3) ? x * 3.0e4f : 0.7f + x * 1.0e-3f;
  }
  return v;
}

Vec soft_mask(size_t n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  Vec w(n);
  for (size_t i = 0; i < n; i++) {
    float x = u(g);
    w[i] = x < 0.3f ? 0.0f : (x > 0.6f ? 1.0f : x);
  }
  return w;
}

float tree_sum(const Vec& h) { return hcuda_fast_sum(Dev(h).get(), h.size()); }

double dsum(const Vec& v) {
  double s = 0;
  for (float x : v) s += x;
  return s;
}

// Float sums of mixed signs lose relative precision; measure against the
// typical magnitude instead.
double mean_abs(const Vec& v) {
  double s = 0;
  for (float x : v) s += fabs(x);
  return s / v.size();
}

void expect_rel(double got, double want, double tol) {
  EXPECT_NEAR(got, want, tol * (fabs(want) + 1e-30)) << "want " << want;
}

class Reductions : public testing::TestWithParam<size_t> {};

TEST_P(Reductions, PlainStatisticsComposeTheTreeSums) {
  const size_t n = GetParam();
  const Vec h = awkward(n, 11 + (unsigned)n);
  Dev d(h);

  const float sum = tree_sum(h);
  const float mean = hcuda_fast_mean(d.get(), n);
  EXPECT_EQ(mean, sum / (float)n);
  EXPECT_NEAR(mean, dsum(h) / n, 1e-5 * mean_abs(h));

  Vec sq(n), dev2(n);
  for (size_t i = 0; i < n; i++) {
    sq[i] = h[i] * h[i];
    const float c = h[i] - mean;
    dev2[i] = c * c;
  }
  const float sumsqr = tree_sum(sq);
  EXPECT_EQ(hcuda_fast_sumsqr(d.get(), n), sumsqr);
  const float ss = tree_sum(dev2);
  EXPECT_EQ(hcuda_fast_submean_sumsqr(d.get(), n), ss);
  EXPECT_EQ(hcuda_variance(d.get(), n), ss / (float)n);
  EXPECT_EQ(hcuda_stdv(d.get(), n), sqrtf(ss / (float)n));
  expect_rel(hcuda_stdv(d.get(), n), hm_stdv(h.data(), n), 1e-3);
  // None of those touched the input.
  EXPECT_EQ(back(d.get(), n), h);

  // The in-place form destroys the input and leaves the sum in front.
  EXPECT_EQ(hcuda_fast_sumsqr_inplace(d.get(), n), sumsqr);
  EXPECT_EQ(back(d.get(), 1)[0], sumsqr);
}

TEST_P(Reductions, MaskedStatisticsDivideAsDocumented) {
  const size_t n = GetParam();
  const Vec h = awkward(n, 5 + (unsigned)n);
  Vec w = soft_mask(n, 9 + (unsigned)n);
  w[0] = 1.0f;  // never an empty mask here
  Dev d(h), dw(w);

  Vec pw(n), p2w(n);
  for (size_t i = 0; i < n; i++) {
    pw[i] = h[i] * w[i];
    p2w[i] = h[i] * h[i] * w[i];
  }
  const float wsum = tree_sum(w);
  const float mean = tree_sum(pw) / wsum;
  EXPECT_EQ(hcuda_fast_sum_withmask(d.get(), dw.get(), n), tree_sum(pw));
  EXPECT_EQ(hcuda_mean_withmask(d.get(), dw.get(), n), mean);
  EXPECT_EQ(hcuda_fast_sumsqr_withmask(d.get(), dw.get(), n), tree_sum(p2w));
  EXPECT_NEAR(mean, hm_mean_withmask(h.data(), w.data(), n), 1e-5 * mean_abs(h));

  Vec dev2(n);
  for (size_t i = 0; i < n; i++) {
    const float c = h[i] - mean;
    dev2[i] = c * c * w[i];
  }
  const float ss = tree_sum(dev2);
  EXPECT_EQ(hcuda_fast_submean_sumsqr_withmask(d.get(), dw.get(), n), ss);
  // Variance over the element count, deviation over the mask sum.
  EXPECT_EQ(hcuda_variance_withmask(d.get(), dw.get(), n), ss / (float)n);
  EXPECT_EQ(hcuda_stdv_withmask(d.get(), dw.get(), n), sqrtf(ss / wsum));
  expect_rel(hcuda_stdv_withmask(d.get(), dw.get(), n), hm_stdv_withmask(h.data(), w.data(), n), 1e-3);
  EXPECT_EQ(back(d.get(), n), h);
  EXPECT_EQ(back(dw.get(), n), w);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Reductions, testing::Values(1, 1024, 1025, 3 * 1024 * 1024));

TEST(Reductions, SingleElementAndEmptyMask) {
  Vec one = {-2.5f};
  Dev d(one);
  EXPECT_EQ(hcuda_fast_mean(d.get(), 1), -2.5f);
  EXPECT_EQ(hcuda_stdv(d.get(), 1), 0.0f);

  // An all-zero mask: 0/0 everywhere downstream, nothing intercepts it.
  Vec h = awkward(2000, 3), w(2000, 0.0f);
  Dev dh(h), dw(w);
  EXPECT_TRUE(std::isnan(hcuda_mean_withmask(dh.get(), dw.get(), h.size())));
  EXPECT_TRUE(std::isnan(hcuda_stdv_withmask(dh.get(), dw.get(), h.size())));
  hcuda_norm_withmask_inplace(dh.get(), dw.get(), h.size(), 1.0f, 0.0f);
  for (float v : back(dh.get(), h.size())) ASSERT_TRUE(std::isnan(v));
}

TEST(Normalisation, NormzGivesScaleAndOffset) {
  const size_t n = 1025 * 3;
  const Vec h = awkward(n, 21);
  Dev d(h);
  hcuda_normz_inplace(d.get(), n, 2.0f, 3.0f);
  Vec r = back(d.get(), n);
  double m, s;
  hm_mean_stdv(r.data(), n, m, s);
  EXPECT_NEAR(m, 3.0, 1e-4);
  EXPECT_NEAR(s, 2.0, 1e-4);

  // Same bits as the steps it is made of: tree mean, subtract, tree
  // deviation of the centred data, one fused multiply-add.
  const float mean = tree_sum(h) / (float)n;
  Vec c(n), c2(n);
  for (size_t i = 0; i < n; i++) {
    c[i] = h[i] - mean;
    c2[i] = c[i] * c[i];
  }
  const float k = 2.0f / sqrtf(tree_sum(c2) / (float)n);
  for (size_t i = 0; i < n; i++) ASSERT_EQ(r[i], fmaf(c[i], k, 3.0f)) << i;

  // A constant image has no deviation: 0 * inf.
  Vec flat(100, 4.0f);
  Dev df(flat);
  hcuda_normz_inplace(df.get(), flat.size(), 1.0f, 0.0f);
  for (float v : back(df.get(), flat.size())) ASSERT_TRUE(std::isnan(v));
}

TEST(Normalisation, MaskedFormsNormaliseEverythingAndApplyTheMask) {
  const size_t n = 4000;
  const Vec h = awkward(n, 31);
  Vec w = soft_mask(n, 32);
  Dev d(h), dw(w);
  const float m = hcuda_mean_withmask(d.get(), dw.get(), n);
  const float s = hcuda_stdv_withmask(d.get(), dw.get(), n);
  hcuda_norm_withmask_inplace(d.get(), dw.get(), n, 1.5f, -1.0f);
  const Vec r = back(d.get(), n);
  for (size_t i = 0; i < n; i++) ASSERT_EQ(r[i], fmaf(h[i] - m, 1.5f / s, -1.0f)) << i;
  double rm, rs;
  hm_mean_stdv_withmask(r.data(), w.data(), n, rm, rs);
  EXPECT_NEAR(rm, -1.0, 1e-3);
  EXPECT_NEAR(rs, 1.5, 1e-3);

  // The applymask forms: the same, times the mask; host and device agree.
  Vec want(n);
  for (size_t i = 0; i < n; i++) want[i] = r[i] * w[i];
  Dev d2(h);
  hcuda_norm_withmask_applymask_inplace(d2.get(), dw.get(), n, 1.5f, -1.0f);
  EXPECT_EQ(back(d2.get(), n), want);
  Vec out(n), io = h;
  gpu_norm_withmask_applymask(out.data(), h.data(), w.data(), n, 1.5f, -1.0f);
  EXPECT_EQ(out, want);
  gpu_norm_withmask_applymask_inplace(io.data(), w.data(), n, 1.5f, -1.0f);
  EXPECT_EQ(io, want);
}

// ---- element-wise ----

// x, a, b with x*a+b rounded once differing from rounded twice.
const float FX = 1.0f + 1.0f / 4096.0f, FA = 1.0f + 1.0f / 4096.0f, FB = -(1.0f + 1.0f / 2048.0f);

TEST(ElementWise, MultiAddIsFused) {
  ASSERT_NE(FX * FA + FB, fmaf(FX, FA, FB));  // the test values do tell the two apart
  Vec h = {FX, 2.0f, -3.0f};
  Dev d(h);
  DeviceArray<float> o(3);
  hcuda_multi_add(o.get(), d.get(), 3, FA, FB);
  Vec r = back(o.get(), 3);
  for (int i = 0; i < 3; i++) EXPECT_EQ(r[i], fmaf(h[i], FA, FB));
  EXPECT_EQ(r[0], 1.0f / 16777216.0f);
  hcuda_multi_add_inplace(d.get(), 3, FA, FB);
  EXPECT_EQ(back(d.get(), 3), r);
  // The host twin fuses as well.
  Vec hr(3);
  hm_multi_add(hr.data(), h.data(), 3, FA, FB);
  EXPECT_EQ(hr, r);
}

TEST(ElementWise, OperationsKeepTheirOrder) {
  const Vec x = {FX, -7.25f, 3.0e-3f, 1.0e6f, 0.1f, 5.0f};
  const Vec y = {0.3f, 2.0f, -1.0e-3f, 7.0f, 0.7f, 0.25f};
  const Vec w = {1.0f, 0.0f, 0.5f, 0.25f, 1.0f, 0.9f};
  const float a = 0.3f, b = 1.7f;
  const size_t n = x.size();
  Dev dx(x), dy(y), dw(w);
  DeviceArray<float> o(n);
  auto check = [&](const char* what, auto fn) {
    for (size_t i = 0; i < n; i++) {
      float want = fn(x[i], y[i], w[i]);
      float got = back(o.get(), n)[i];
      if (std::isnan(want))
        EXPECT_TRUE(std::isnan(got)) << what << " " << i;
      else
        EXPECT_EQ(got, want) << what << " " << i;
    }
  };
  hcuda_add(o.get(), dx.get(), n, a);
  check("add", [&](float p, float, float) { return p + a; });
  hcuda_sub(o.get(), dx.get(), n, a);
  check("sub", [&](float p, float, float) { return p - a; });
  hcuda_multi(o.get(), dx.get(), n, a);
  check("multi", [&](float p, float, float) { return p * a; });
  hcuda_divide(o.get(), dx.get(), n, a);
  check("divide", [&](float p, float, float) { return p / a; });
  hcuda_add_multi(o.get(), dx.get(), n, a, b);
  check("add_multi", [&](float p, float, float) { return (p + a) * b; });
  hcuda_sub_divide(o.get(), dx.get(), n, a, b);
  check("sub_divide", [&](float p, float, float) { return (p - a) / b; });
  hcuda_divide_sub(o.get(), dx.get(), n, a, b);
  check("divide_sub", [&](float p, float, float) { return p / a - b; });
  hcuda_sqr(o.get(), dx.get(), n);
  check("sqr", [&](float p, float, float) { return p * p; });
  hcuda_sub_sqr(o.get(), dx.get(), n, a);
  check("sub_sqr", [&](float p, float, float) { return (p - a) * (p - a); });
  hcuda_data_submean_sqr(o.get(), dx.get(), n, a);
  check("data_submean_sqr", [&](float p, float, float) { return (p - a) * (p - a); });
  hcuda_sqrtf(o.get(), dx.get(), n);
  check("sqrtf", [&](float p, float, float) { return sqrtf(p); });
  hcuda_logf(o.get(), dx.get(), n);
  check("logf", [&](float p, float, float) { return logf(p); });
  hcuda_x1d_add(o.get(), dx.get(), dy.get(), n);
  check("x1d_add", [&](float p, float q, float) { return p + q; });
  hcuda_x1d_sub(o.get(), dx.get(), dy.get(), n);
  check("x1d_sub", [&](float p, float q, float) { return p - q; });
  hcuda_x1d_multi(o.get(), dx.get(), dy.get(), n);
  check("x1d_multi", [&](float p, float q, float) { return p * q; });
  hcuda_x1d_divide(o.get(), dx.get(), dy.get(), n);
  check("x1d_divide", [&](float p, float q, float) { return p / q; });
  hcuda_apply_mask(o.get(), dx.get(), dw.get(), n);
  check("apply_mask", [&](float p, float, float m) { return p * m; });
  hcuda_sqr_withmask(o.get(), dx.get(), dw.get(), n);
  check("sqr_withmask", [&](float p, float, float m) { return p * p * m; });
  hcuda_data_submean_sqr_withmask(o.get(), dx.get(), dw.get(), n, a);
  check("data_submean_sqr_withmask", [&](float p, float, float m) { return (p - a) * (p - a) * m; });
}

TEST(ElementWise, InPlaceFormsMatchTheirOutOfPlaceTwins) {
  const Vec x = awkward(3000, 41);
  Vec y = awkward(3000, 42), w = soft_mask(3000, 43);
  for (float& v : y) v = v == 0.0f ? 1.0f : v;
  const size_t n = x.size();
  Dev dy(y), dw(w);
  DeviceArray<float> o(n);
  auto same = [&](const char* what, void (*out_form)(float*, const float*, const float*, unsigned long, float),
                  void (*in_form)(float*, const float*, unsigned long, float)) {
    Dev src(x), io(x);
    out_form(o.get(), src.get(), dy.get(), n, 0.37f);
    in_form(io.get(), dy.get(), n, 0.37f);
    const Vec a = back(io.get(), n), b = back(o.get(), n);
    EXPECT_EQ(memcmp(a.data(), b.data(), n * sizeof(float)), 0) << what;  // NaNs included
  };
  // Adapters that ignore the arguments a form does not take.
  same("add", [](float* o, const float* p, const float*, unsigned long n, float a) { hcuda_add(o, p, n, a); },
       [](float* p, const float*, unsigned long n, float a) { hcuda_add_inplace(p, n, a); });
  same("sub", [](float* o, const float* p, const float*, unsigned long n, float a) { hcuda_sub(o, p, n, a); },
       [](float* p, const float*, unsigned long n, float a) { hcuda_sub_inplace(p, n, a); });
  same("multi", [](float* o, const float* p, const float*, unsigned long n, float a) { hcuda_multi(o, p, n, a); },
       [](float* p, const float*, unsigned long n, float a) { hcuda_multi_inplace(p, n, a); });
  same("divide", [](float* o, const float* p, const float*, unsigned long n, float a) { hcuda_divide(o, p, n, a); },
       [](float* p, const float*, unsigned long n, float a) { hcuda_divide_inplace(p, n, a); });
  same("sub_divide",
       [](float* o, const float* p, const float*, unsigned long n, float a) { hcuda_sub_divide(o, p, n, a, 3.0f); },
       [](float* p, const float*, unsigned long n, float a) { hcuda_sub_divide_inplace(p, n, a, 3.0f); });
  same("sqr", [](float* o, const float* p, const float*, unsigned long n, float) { hcuda_sqr(o, p, n); },
       [](float* p, const float*, unsigned long n, float) { hcuda_sqr_inplace(p, n); });
  same("sqrtf", [](float* o, const float* p, const float*, unsigned long n, float) { hcuda_sqrtf(o, p, n); },
       [](float* p, const float*, unsigned long n, float) { hcuda_sqrtf_inplace(p, n); });
  same("logf", [](float* o, const float* p, const float*, unsigned long n, float) { hcuda_logf(o, p, n); },
       [](float* p, const float*, unsigned long n, float) { hcuda_logf_inplace(p, n); });
  same("x1d_add", [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_x1d_add(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_x1d_add_inplace(p, q, n); });
  same("addto_float",
       [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_x1d_add(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_addto_float(p, q, n); });
  same("x1d_sub", [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_x1d_sub(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_x1d_sub_inplace(p, q, n); });
  same("x1d_multi",
       [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_x1d_multi(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_x1d_multi_inplace(p, q, n); });
  same("x1d_divide",
       [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_x1d_divide(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_x1d_divide_inplace(p, q, n); });
  same("apply_mask",
       [](float* o, const float* p, const float* q, unsigned long n, float) { hcuda_apply_mask(o, p, q, n); },
       [](float* p, const float* q, unsigned long n, float) { hcuda_apply_mask_inplace(p, q, n); });
}

TEST(ElementWise, InversionIsBySignAndUndoesItself) {
  const Vec h = {2.0f, -0.5f, 0.0f, 3.0e-38f, -1.0e30f, 7.0f};
  Dev d(h);
  hcuda_invert_inplace(d.get(), h.size());
  Vec r = back(d.get(), h.size());
  for (size_t i = 0; i < h.size(); i++) EXPECT_EQ(r[i], -h[i]);
  hcuda_invert_inplace(d.get(), h.size());
  EXPECT_EQ(back(d.get(), h.size()), h);

  Vec hh = h;
  hm_invert_inplace(hh.data(), hh.size());
  EXPECT_EQ(hh, r);
  hm_invert_inplace(hh.data(), hh.size());
  EXPECT_EQ(hh, h);
}

// ---- host family ----

TEST(HostStatistics, PopulationAndSampleForms) {
  const float two[] = {1.0f, 3.0f};
  EXPECT_EQ(hm_sum(two, 2), 4.0);
  EXPECT_EQ(hm_mean(two, 2), 2.0);
  EXPECT_EQ(hm_sum_sqr(two, 2), 10.0);
  EXPECT_EQ(hm_variance(two, 2), 1.0);
  EXPECT_EQ(hm_svariance(two, 2), 2.0);
  EXPECT_EQ(hm_stdv(two, 2), 1.0);
  EXPECT_DOUBLE_EQ(hm_sstdv(two, 2), sqrt(2.0));
  double m, s;
  hm_mean_stdv(two, 2, m, s);
  EXPECT_EQ(m, 2.0);
  EXPECT_EQ(s, 1.0);

  // Double accumulation keeps what a float running sum would lose.
  Vec big(1 << 20, 1.0f);
  big[0] = 1.0e8f;
  EXPECT_EQ(hm_sum(big.data(), big.size()), 1.0e8 + (double)(big.size() - 1));
  EXPECT_EQ(hm_sumf(big.data(), big.size()), (float)(1.0e8 + (double)(big.size() - 1)));

  // Masked: a 0/1 mask selects; a soft mask weights and divides by its sum.
  const float p[] = {1.0f, 3.0f, 100.0f, 5.0f};
  const float sel[] = {1.0f, 1.0f, 0.0f, 0.0f};
  const float soft[] = {0.5f, 0.5f, 0.0f, 1.0f};
  EXPECT_EQ(hm_sum_withmask(p, sel, 4), 4.0);
  EXPECT_EQ(hm_mean_withmask(p, sel, 4), 2.0);
  EXPECT_EQ(hm_variance_withmask(p, sel, 4), 1.0);
  EXPECT_EQ(hm_stdv_withmask(p, sel, 4), 1.0);
  EXPECT_EQ(hm_sum_sqr_withmask(p, sel, 4), 10.0);
  EXPECT_EQ(hm_mean_withmask(p, soft, 4), 3.5);  // (0.5 + 1.5 + 5) / 2
  EXPECT_EQ(hm_variance_withmask(p, soft, 4), (0.5 * 6.25 + 0.5 * 0.25 + 2.25) / 2.0);
  hm_mean_stdv_weighted(p, soft, 4, m, s);
  EXPECT_EQ(m, 3.5);
  EXPECT_DOUBLE_EQ(s, sqrt(hm_variance_withmask(p, soft, 4)));

  const Vec a = awkward(999, 51);
  Vec lin(a.size()), neg(a.size());
  for (size_t i = 0; i < a.size(); i++) {
    lin[i] = 2.0f * a[i] + 1.0f;
    neg[i] = -a[i];
  }
  EXPECT_NEAR(hm_ccc_norm(a.data(), lin.data(), a.size()), 1.0, 1e-6);
  EXPECT_NEAR(hm_ccc_norm(a.data(), neg.data(), a.size()), -1.0, 1e-12);
}

TEST(HostStatistics, NormalisationsAndMeanRemoval) {
  Vec a = awkward(5000, 61);
  Vec z(a.size());
  hm_normz(z.data(), a.data(), a.size());
  EXPECT_NEAR(hm_mean(z.data(), z.size()), 0.0, 1e-6);
  EXPECT_NEAR(hm_stdv(z.data(), z.size()), 1.0, 1e-6);

  Vec w = soft_mask(a.size(), 62);
  Vec zm = a;
  hm_normz_withmask_inplace(zm.data(), w.data(), zm.size());
  EXPECT_NEAR(hm_mean_withmask(zm.data(), w.data(), zm.size()), 0.0, 1e-6);
  EXPECT_NEAR(hm_stdv_withmask(zm.data(), w.data(), zm.size()), 1.0, 1e-6);

  // The mean removed is the float rounding of the double mean.
  Vec b = {1.0f, 2.0f, 2.0f};
  hm_submean_inplace(b.data(), b.size());
  const float m = (float)(5.0 / 3.0);
  EXPECT_EQ(b, (Vec{1.0f - m, 2.0f - m, 2.0f - m}));
}

TEST(HostStatistics, ExtremesAndMean) {
  const float p[] = {2.0f, -1.0f, 7.5f, 7.5f, NAN, -1.0f, 0.5f};
  float hi, lo, mean;
  max_min_mean_value(p, 4, hi, lo, mean);
  EXPECT_EQ(hi, 7.5f);
  EXPECT_EQ(lo, -1.0f);
  EXPECT_EQ(mean, 4.0f);
  // A NaN after the first element never becomes an extreme.
  max_min_mean_value(p, 7, hi, lo, mean);
  EXPECT_EQ(hi, 7.5f);
  EXPECT_EQ(lo, -1.0f);
  EXPECT_TRUE(std::isnan(mean));
  max_min_mean_value(p, 0, hi, lo, mean);
  EXPECT_EQ(hi, 0.0f);
  EXPECT_EQ(lo, 0.0f);
  EXPECT_EQ(mean, 0.0f);
}

TEST(HostStatistics, MaskSumWarnsWhenTooSmallAndGoesOn) {
  const float ok[] = {0.5f, 0.25f};
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_sum_check0(ok, 2), 0.75);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  const float zero[] = {0.0f, 0.0f, 0.0f};
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_sum_check0(zero, 3), 0.0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("Warning in function hm_sum_check0(), file math_utils on line ", 0), 0u) << out;
  EXPECT_NE(out.find(": Too small sum of mask!\n"), std::string::npos) << out;
}

TEST(HostArithmetic, CompoundOrdersAndPairs) {
  const Vec x = {FX, -7.25f, 0.1f, 5.0f};
  const Vec y = {0.3f, 2.0f, 0.7f, 0.25f};
  const size_t n = x.size();
  const float a = 0.3f, b = 1.7f;
  Vec o(n), io;
  hm_add_multi(o.data(), x.data(), n, a, b);
  for (size_t i = 0; i < n; i++) EXPECT_EQ(o[i], (x[i] + a) * b);
  hm_sub_divide(o.data(), x.data(), n, a, b);
  for (size_t i = 0; i < n; i++) EXPECT_EQ(o[i], (x[i] - a) / b);
  hm_divide_sub(o.data(), x.data(), n, a, b);
  for (size_t i = 0; i < n; i++) EXPECT_EQ(o[i], x[i] / a - b);
  hm_sub_sqr(o.data(), x.data(), n, a);
  for (size_t i = 0; i < n; i++) EXPECT_EQ(o[i], (x[i] - a) * (x[i] - a));
  hm_linear_norm_kb(o.data(), x.data(), n, FA, FB);
  EXPECT_EQ(o[0], FX * FA + FB);  // two roundings, unlike multi_add
  hm_x1d_divide(o.data(), x.data(), y.data(), n);
  io = x;
  hm_x1d_divide_inplace(io.data(), y.data(), n);
  EXPECT_EQ(io, o);
  for (size_t i = 0; i < n; i++) EXPECT_EQ(o[i], x[i] / y[i]);
  io = x;
  hm_apply_mask_inplace(io.data(), y.data(), n);
  hm_apply_weights(o.data(), x.data(), y.data(), n);
  EXPECT_EQ(io, o);
  io = x;
  hm_sub_divide_inplace(io.data(), n, a, b);
  hm_sub_divide(o.data(), x.data(), n, a, b);
  EXPECT_EQ(io, o);
}

}  // namespace
