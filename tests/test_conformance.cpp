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
#include <random>
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

namespace {

bool gpu_present() {
  static int present = -1;
  if (present < 0) {
    present = 0;
#if defined(GVEX_WITH_CUDA)
    int gid = 0;
    if (check_and_set_gid(gid) == 0) {
      gvex_device_activate(gid);
      present = gvex_on_gpu() ? 1 : 0;
      gvex_device_use_host();
    }
#endif
  }
  return present == 1;
}

std::vector<float> seeded(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  std::vector<float> v(n);
  for (auto& x : v) x = u(rng);
  return v;
}

// Runs op on one back end: upload inputs, run, download the first output.
using Op = std::function<std::vector<float>()>;

std::vector<float> on(bool gpu, const Op& op) {
  gvex_fft_plan_cache_clear();
  gvex_local_stats_cache_clear();
  if (gpu) {
    int gid = 0;
    check_and_set_gid(gid);
    gvex_device_activate(gid);
  } else {
    gvex_device_use_host();
  }
  std::vector<float> r = op();
  gvex_fft_plan_cache_clear();
  gvex_local_stats_cache_clear();
  gvex_device_use_host();
  return r;
}

struct Dev {
  float* d = nullptr;
  size_t n = 0;
  explicit Dev(const std::vector<float>& h) : n(h.size()) {
    safe_cudaMalloc((void**)&d, n * sizeof(float));
    memcpy_H2D(d, h.data(), n * sizeof(float));
  }
  explicit Dev(size_t count) : n(count) { safe_cudaMalloc_empty((void**)&d, n * sizeof(float)); }
  ~Dev() { hcuda_free(d); }
  std::vector<float> get() const {
    std::vector<float> h(n);
    memcpy_D2H(h.data(), d, n * sizeof(float));
    return h;
  }
};

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
  void SetUp() override {
    if (!gpu_present()) GTEST_SKIP() << "no GPU answers: nothing to compare";
  }
};

TEST_F(Conformance, ReductionsAndNormalisations) {
  const auto x = seeded(3 * 1024 * 1024 + 5, 1, -100.0f, 100.0f);
  const auto w = seeded(x.size(), 2, 0.0f, 1.0f);
  both([&] { Dev d(x); return std::vector<float>{hcuda_fast_sum(d.d, d.n), hcuda_fast_mean(d.d, d.n),
                                                  hcuda_fast_sumsqr(d.d, d.n)}; },
       true, "sums");
  both([&] { Dev d(x), m(w); return std::vector<float>{hcuda_fast_sum_withmask(d.d, m.d, d.n),
                                                        hcuda_fast_sumsqr_withmask(d.d, m.d, d.n)}; },
       true, "masked sums");
  both([&] { Dev d(x); hcuda_normz_inplace(d.d, d.n, 1.0f, 0.0f); return d.get(); }, true, "normz");
  both([&] { Dev d(x), m(w); hcuda_norm_withmask_inplace(d.d, m.d, d.n, 1.0f, 0.0f); return d.get(); }, true,
       "norm_withmask");
}

TEST_F(Conformance, ElementWise) {
  const auto x = seeded(100003, 3), y = seeded(100003, 4, 0.5f, 2.0f);
  both([&] { Dev a(x), o(x.size()); hcuda_multi_add(o.d, a.d, a.n, 1.37f, -0.41f); return o.get(); }, true,
       "multi_add (fused)");
  both([&] { Dev a(y); hcuda_sqrtf_inplace(a.d, a.n); return a.get(); }, true, "sqrtf");
  both([&] { Dev a(x); hcuda_invert_inplace(a.d, a.n); return a.get(); }, true, "invert");
}

TEST_F(Conformance, Geometry) {
  const int n = 96;
  const auto img = seeded(n * n, 5);
  both([&] { Dev a(img), o(n * n); hcuda_2d_rotate(a.d, o.d, n, n, 37.0f); return o.get(); }, true, "rotate");
  both([&] {
    Dev a(img);
    const int m = hd_scaled_size(n, 0.7f);
    Dev o((size_t)m * m);
    hcuda_2d_scale(o.d, a.d, n, n, 0.7f);
    return o.get();
  }, true, "scale");
  both([&] {
    Dev a(img);
    hcuda_2d_swap_ccf_inplace(a.d, n, n);
    return a.get();
  }, true, "centre swap");
}

TEST_F(Conformance, FourierSpace) {
  const int n = 256, nxh = n / 2 + 1;
  const auto img = seeded(n * n, 6), tpl = seeded(n * n, 7);
  both([&] {
    Dev a(img), spectrum((size_t)nxh * n * 2), back(n * n);
    FftPlan2d plan(n, n);
    plan.r2c(a.d, (float2*)spectrum.d);
    std::vector<float> s = spectrum.get();
    plan.c2r((float2*)spectrum.d, back.d);
    std::vector<float> r = back.get();
    s.insert(s.end(), r.begin(), r.end());
    return s;
  }, false, "r2c / c2r", 1e-5);
  // The spectrum product itself is exact on both sides.
  const auto sa = seeded((size_t)nxh * n * 2, 8), sb = seeded((size_t)nxh * n * 2, 9);
  both([&] {
    Dev a(sa), b(sb), o(sa.size());
    hcuda_c2d_multconj_norm((float2*)a.d, (float2*)b.d, (float2*)o.d, nxh, n, (float)(n * n));
    return o.get();
  }, true, "multconj_norm");
  both([&] { Dev a(img); hcuda_2d_bandpass_guas_mpad_inplace(a.d, n, 5.36f, 40.0f, 1000.0f); return a.get(); },
       false, "band-pass guas", 1e-4);
  both([&] { Dev a(img); hcuda_2d_bandpass_softR_mpad_inplace(a.d, n, 5.36f, 10.72f, 1000.0f, 8.0f); return a.get(); },
       false, "band-pass softR", 1e-4);
  both([&] { Dev a(img), o(n * n); hcuda_2d_bg_mpad(o.d, a.d, n, n, 20.0f, 8.0f); return o.get(); },
       false, "local mean", 1e-4);
}

TEST_F(Conformance, CellScansAndPeaks) {
  const int n = 200, c = 17, g = (n + c - 1) / c;
  auto cc = seeded(n * n, 10), psi = seeded(n * n, 11, 0.0f, 355.0f);
  cc[5 * n + 7] = NAN;  // NaN never wins
  both([&] {
    Dev a(cc), p(psi);
    std::vector<unsigned int> idx(g * g);
    std::vector<float> sc(g * g), an(g * g);
    unsigned int* d_ex = nullptr;
    safe_cudaMalloc_empty((void**)&d_ex, sizeof(unsigned int) * 4);
    gpu_find_filter_ccmax_psi_grids_exclusive(a.d, p.d, idx.data(), sc.data(), an.data(), 0.5f, n, n, c, d_ex, 0);
    hcuda_free(d_ex);
    std::vector<float> r(sc);
    for (unsigned v : idx) r.push_back((float)v);
    for (size_t k = 0; k < idx.size(); k++) r.push_back(idx[k] ? an[k] : 0.0f);
    return r;
  }, true, "peak find and filter");
  const auto lave = seeded(n * n, 12, -2.0f, 2.0f), lsig = seeded(n * n, 13, 0.0f, 2.0f);
  both([&] {
    Dev a(lave), s(lsig), ave(g * g), sig(g * g);
    unsigned int* d_grid = nullptr;
    safe_cudaMalloc_empty((void**)&d_grid, sizeof(unsigned int) * g * g);
    hcuda_find_sigma_grids(a.d, s.d, d_grid, ave.d, sig.d, n, n, c, -1.0f, 1.0f, 1.3f);
    Dev mask(n * n);
    hcuda_2d_generate_mask_by_coords(mask.d, a.d, n, n, c, d_grid, 0);
    std::vector<unsigned int> grid(g * g);
    memcpy_D2H(grid.data(), d_grid, sizeof(unsigned int) * g * g);
    hcuda_free(d_grid);
    std::vector<float> r = mask.get();
    for (unsigned v : grid) r.push_back((float)v);
    auto a2 = ave.get(), s2 = sig.get();
    r.insert(r.end(), a2.begin(), a2.end());
    r.insert(r.end(), s2.begin(), s2.end());
    return r;
  }, true, "ice cells and mask");
}

TEST_F(Conformance, CorrelationScan) {
  const int n = 128, t = 32;
  const auto mic = seeded(n * n, 14), tpl = seeded(t * t, 15);
  both([&] {
    Dev m(mic), T(tpl), mask(std::vector<float>(n * n, 1.0f)), cc(n * n), psi(n * n);
    vexmatch_ccmax_psi_by_one_template(m.d, mask.d, cc.d, psi.d, 1, n, n, T.d, t, t, 12.0f, 0.0f, 359.0f, 30.0f);
    return cc.get();
  }, false, "scan", 1e-4);
}

}  // namespace
