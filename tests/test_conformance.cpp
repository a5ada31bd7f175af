// Every device operation run on both back ends with the same seeded input.
// Element-wise kernels, reductions, geometry, peak and cell scans must agree
// to the bit (one kernel body, one summation tree, no contraction); results
// that pass through an FFT or a transcendental library function may differ
// in the last bits and are compared with a tolerance. Runs where a GPU
// answers; skipped elsewhere.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/img_filter.h"
#include "gpu/local_stats.h"
#include "gpu/math_utils.h"
#include "gpu/reduce.h"
#include "gpu/resample.h"
#include "match/ice.h"
#include "match/peaks.h"
#include "match/scan.h"
#include "support/backends.h"
#include "support/match_fixtures.h"

namespace {

// One operation: upload inputs, run, download the outputs.
using Op = std::function<std::vector<float>()>;

// f in place on a device copy of h; the array read back.
Op in_place(const std::vector<float>& h, std::function<void(float*)> f) {
  return [&h, f] { Dev<float> a(h); f(a.get()); return a.host(); };
}

// f from a device copy of h into m zeros; those read back.
Op into(const std::vector<float>& h, size_t m, std::function<void(const float*, float*)> f) {
  return [&h, m, f] { Dev<float> a(h), o(m, true); f(a.get(), o.get()); return o.host(); };
}

void expect_bits(const std::vector<float>& a, const std::vector<float>& b, const char* what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  size_t bad = 0;
  for (size_t i = 0; i < a.size(); i++)
    if (memcmp(&a[i], &b[i], 4) != 0 && !(std::isnan(a[i]) && std::isnan(b[i]))) bad++;
  EXPECT_EQ(bad, 0u) << what << ": " << bad << " of " << a.size() << " elements differ";
}

void expect_near(const std::vector<float>& a, const std::vector<float>& b, double rel, const char* what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  double scale = 0;
  for (float v : a) scale = std::fmax(scale, std::fabs(v));
  size_t bad = 0;
  for (size_t i = 0; i < a.size(); i++)
    if (std::fabs((double)a[i] - b[i]) > rel * scale + 1e-30) bad++;
  EXPECT_EQ(bad, 0u) << what << ": " << bad << " of " << a.size() << " beyond " << rel << " x " << scale;
}

void both(const Op& op, bool exact, const char* what, double rel = 2e-5) {
  std::vector<float> h = on(false, op), g = on(true, op);
  if (exact)
    expect_bits(h, g, what);
  else
    expect_near(h, g, rel, what);
}

class Conformance : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_GPU(); }
};

TEST_F(Conformance, ReductionsAndNormalisations) {
  const auto x = uniform(3 * 1024 * 1024 + 5, 1, -100.0f, 100.0f);
  const auto w = uniform(x.size(), 2, 0.0f, 1.0f);
  const size_t n = x.size();
  both([&] { Dev<float> d(x); return std::vector<float>{hcuda_fast_sum(d.get(), n), hcuda_fast_mean(d.get(), n),
                                                         hcuda_fast_sumsqr(d.get(), n)}; },
       true, "sums");
  both([&] { Dev<float> d(x), m(w); return std::vector<float>{hcuda_fast_sum_withmask(d.get(), m.get(), n),
                                                               hcuda_fast_sumsqr_withmask(d.get(), m.get(), n)}; },
       true, "masked sums");
  both(in_place(x, [&](float* d) { hcuda_normz_inplace(d, n, 1.0f, 0.0f); }), true, "normz");
  both([&] { Dev<float> d(x), m(w); hcuda_norm_withmask_inplace(d.get(), m.get(), n, 1.0f, 0.0f); return d.host(); },
       true, "norm_withmask");
}

TEST_F(Conformance, ElementWise) {
  const auto x = uniform(100003, 3), y = uniform(100003, 4, 0.5f, 2.0f);
  const size_t n = x.size();
  both(into(x, n, [&](const float* a, float* o) { hcuda_multi_add(o, a, n, 1.37f, -0.41f); }), true,
       "multi_add (fused)");
  both(in_place(y, [&](float* a) { hcuda_sqrtf_inplace(a, n); }), true, "sqrtf");
  both(in_place(x, [&](float* a) { hcuda_invert_inplace(a, n); }), true, "invert");
}

TEST_F(Conformance, Geometry) {
  const int n = 96;
  const auto img = uniform(n * n, 5);
  const int m = hd_scaled_size(n, 0.7f);
  both(into(img, n * n, [&](const float* a, float* o) { hcuda_2d_rotate(a, o, n, n, 37.0f); }), true, "rotate");
  both(into(img, (size_t)m * m, [&](const float* a, float* o) { hcuda_2d_scale(o, a, n, n, 0.7f); }), true, "scale");
  both(in_place(img, [&](float* a) { hcuda_2d_swap_ccf_inplace(a, n, n); }), true, "centre swap");
}

TEST_F(Conformance, FourierSpace) {
  const int n = 256, nxh = n / 2 + 1;
  const auto img = uniform(n * n, 6), tpl = uniform(n * n, 7);
  both([&] {
    Dev<float> a(img), spectrum((size_t)nxh * n * 2, true), back(n * n, true);
    FftPlan2d plan(n, n);
    plan.r2c(a.get(), (float2*)spectrum.get());
    std::vector<float> s = spectrum.host();
    plan.c2r((float2*)spectrum.get(), back.get());
    std::vector<float> r = back.host();
    s.insert(s.end(), r.begin(), r.end());
    return s;
  }, false, "r2c / c2r", 1e-5);
  // The spectrum product itself is exact on both sides.
  const auto sa = uniform((size_t)nxh * n * 2, 8), sb = uniform((size_t)nxh * n * 2, 9);
  both([&] {
    Dev<float> a(sa), b(sb), o(sa.size(), true);
    hcuda_c2d_multconj_norm((float2*)a.get(), (float2*)b.get(), (float2*)o.get(), nxh, n, (float)(n * n));
    return o.host();
  }, true, "multconj_norm");
  both(in_place(img, [&](float* a) { hcuda_2d_bandpass_guas_mpad_inplace(a, n, 5.36f, 40.0f, 1000.0f); }), false,
       "band-pass guas", 1e-4);
  both(in_place(img, [&](float* a) { hcuda_2d_bandpass_softR_mpad_inplace(a, n, 5.36f, 10.72f, 1000.0f, 8.0f); }),
       false, "band-pass softR", 1e-4);
  both(into(img, n * n, [&](const float* a, float* o) { hcuda_2d_bg_mpad(o, a, n, n, 20.0f, 8.0f); }), false,
       "local mean", 1e-4);
}

TEST_F(Conformance, CellScansAndPeaks) {
  const int n = 200, c = 17, g = (n + c - 1) / c;
  auto cc = uniform(n * n, 10), psi = uniform(n * n, 11, 0.0f, 355.0f);
  cc[5 * n + 7] = NAN;  // NaN never wins
  both([&] {
    Dev<float> a(cc), p(psi);
    std::vector<unsigned int> idx(g * g);
    std::vector<float> sc(g * g), an(g * g);
    unsigned int* d_ex = nullptr;
    safe_cudaMalloc_empty((void**)&d_ex, sizeof(unsigned int) * 4);
    gpu_find_filter_ccmax_psi_grids_exclusive(a.get(), p.get(), idx.data(), sc.data(), an.data(), 0.5f, n, n, c, d_ex,
                                              0);
    hcuda_free(d_ex);
    std::vector<float> r(sc);
    for (unsigned v : idx) r.push_back((float)v);
    for (size_t k = 0; k < idx.size(); k++) r.push_back(idx[k] ? an[k] : 0.0f);
    return r;
  }, true, "peak find and filter");
  const auto lave = uniform(n * n, 12, -2.0f, 2.0f), lsig = uniform(n * n, 13, 0.0f, 2.0f);
  both([&] {
    Dev<float> a(lave), s(lsig), ave(g * g, true), sig(g * g, true);
    unsigned int* d_grid = nullptr;
    safe_cudaMalloc_empty((void**)&d_grid, sizeof(unsigned int) * g * g);
    hcuda_find_sigma_grids(a.get(), s.get(), d_grid, ave.get(), sig.get(), n, n, c, -1.0f, 1.0f, 1.3f);
    Dev<float> mask(n * n, true);
    hcuda_2d_generate_mask_by_coords(mask.get(), a.get(), n, n, c, d_grid, 0);
    std::vector<unsigned int> grid(g * g);
    memcpy_D2H(grid.data(), d_grid, sizeof(unsigned int) * g * g);
    hcuda_free(d_grid);
    std::vector<float> r = mask.host();
    for (unsigned v : grid) r.push_back((float)v);
    auto a2 = ave.host(), s2 = sig.host();
    r.insert(r.end(), a2.begin(), a2.end());
    r.insert(r.end(), s2.begin(), s2.end());
    return r;
  }, true, "ice cells and mask");
}

TEST_F(Conformance, CorrelationScan) {
  const int n = 128, t = 32;
  const auto mic = uniform(n * n, 14), tpl = uniform(t * t, 15);
  both([&] {
    Dev<float> m(mic), T(tpl), mask(std::vector<float>(n * n, 1.0f)), cc(n * n, true), psi(n * n, true);
    vexmatch_ccmax_psi_by_one_template(m.get(), mask.get(), cc.get(), psi.get(), 1, n, n, T.get(), t, t, 12.0f, 0.0f,
                                       359.0f, 30.0f);
    return cc.host();
  }, false, "scan", 1e-4);
}

}  // namespace
