// FFT wrappers and Fourier-space kernels against the direct formulas, and
// the reproducibility of the host transforms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "reference/reference.h"

namespace {

std::vector<float> random_image(int n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

bool same_bits(const void* a, const void* b, size_t bytes) { return memcmp(a, b, bytes) == 0; }

void set_threads(int n) {
#if defined(_OPENMP)
  omp_set_num_threads(n);
#else
  (void)n;
#endif
}

struct Shape {
  int nx, ny;
};

// Even, odd and mixed shapes, including one-row and one-column images.
const Shape kShapes[] = {{8, 6}, {16, 16}, {10, 12}, {7, 5}, {9, 16}, {2, 2}, {1, 4}, {5, 1}};

TEST(FftTransforms, ForwardMatchesDirectDft) {
  for (const Shape& s : kShapes) {
    const int nxh = s.nx / 2 + 1, n = s.nx * s.ny;
    std::vector<float> img = random_image(n, 11 + s.nx * 31 + s.ny);
    std::vector<float2> spectrum((size_t)nxh * s.ny);
    gpu_2d_fft_r2c(img.data(), spectrum.data(), s.nx, s.ny);
    std::vector<std::complex<double>> want = ref::dft_r2c(img.data(), s.nx, s.ny);
    const double tol = 1e-6 * ref::abs_sum(img.data(), n);
    for (int i = 0; i < nxh * s.ny; i++) {
      ASSERT_NEAR(spectrum[i].x, want[i].real(), tol) << s.nx << "x" << s.ny << " element " << i;
      ASSERT_NEAR(spectrum[i].y, want[i].imag(), tol) << s.nx << "x" << s.ny << " element " << i;
    }
  }
}

TEST(FftTransforms, InverseOfForwardScalesByPixelCount) {
  for (const Shape& s : kShapes) {
    const int nxh = s.nx / 2 + 1, n = s.nx * s.ny;
    std::vector<float> img = random_image(n, 5 + s.nx + 17 * s.ny);
    std::vector<float2> spectrum((size_t)nxh * s.ny);
    std::vector<float> back(n);
    gpu_2d_fft_r2c(img.data(), spectrum.data(), s.nx, s.ny);
    gpu_2d_fft_c2r(spectrum.data(), back.data(), s.nx, s.ny);
    const double tol = 1e-5 * n;
    for (int i = 0; i < n; i++) ASSERT_NEAR(back[i], (double)n * img[i], tol) << s.nx << "x" << s.ny;
  }
}

TEST(FftTransforms, StackTransformsEachImageLikeASingleOne) {
  // 7 x 5 images sit at odd float offsets in the stack, so all but the first
  // are unaligned: they must still give the very same bits.
  const int nx = 7, ny = 5, nz = 3, nxh = nx / 2 + 1;
  std::vector<float> stack = random_image(nx * ny * nz, 3);
  std::vector<float2> all((size_t)nxh * ny * nz), one((size_t)nxh * ny);
  gpu_2ds_fft_r2c(stack.data(), all.data(), nx, ny, nz);
  for (int k = 0; k < nz; k++) {
    gpu_2d_fft_r2c(stack.data() + k * nx * ny, one.data(), nx, ny);
    EXPECT_TRUE(same_bits(one.data(), all.data() + k * nxh * ny, one.size() * sizeof(float2))) << "image " << k;
  }
}

TEST(FftTransforms, UnalignedArraysGiveTheAlignedBits) {
  const int nx = 64, ny = 48, nxh = nx / 2 + 1, n = nx * ny;
  std::vector<float> img = random_image(n, 8);
  DeviceArray<float> a(n), b(n + 1), back(n + 1);
  DeviceArray<float2> f(nxh * ny), g(nxh * ny + 1);
  memcpy_H2D(a.get(), img.data(), n * sizeof(float));
  memcpy_H2D(b.get() + 1, img.data(), n * sizeof(float));
  FftPlan2d& plan = gvex_fft_plan(nx, ny);
  plan.r2c(a.get(), f.get());
  plan.r2c(b.get() + 1, g.get() + 1);
  ASSERT_TRUE(same_bits(f.get(), g.get() + 1, nxh * ny * sizeof(float2)));
  // The inverse from an unaligned spectrum into an unaligned image, and the
  // input left intact there because it went through staging.
  std::vector<float2> keep(g.get() + 1, g.get() + 1 + nxh * ny);
  plan.c2r(g.get() + 1, back.get() + 1);
  plan.c2r(f.get(), a.get());
  EXPECT_TRUE(same_bits(a.get(), back.get() + 1, n * sizeof(float)));
  EXPECT_TRUE(same_bits(keep.data(), g.get() + 1, keep.size() * sizeof(float2)));
}

TEST(FftTransforms, BitsDoNotDependOnThreadsOrRuns) {
  // Sizes the picker transforms (working images and their padded doubles);
  // 682 is one where FFTW picks another algorithm when planned for another
  // thread count, which is why plans take a fixed job count instead.
  for (int n : {512, 682, 1024}) {
    const int nxh = n / 2 + 1;
    const size_t nc = (size_t)nxh * n, nr = (size_t)n * n;
    std::vector<float> img = random_image((int)nr, n);
    std::vector<float2> s1(nc), s2(nc), s3(nc);
    std::vector<float> b1(nr), b2(nr);
    const int saved = gvex_host_threads();
    set_threads(1);
    FftPlan2d one(n, n);
    one.r2c(img.data(), s1.data());
    set_threads(2);
    FftPlan2d two(n, n);
    two.r2c(img.data(), s2.data());
    gvex_fft_plan(n, n).r2c(img.data(), s3.data());
    EXPECT_TRUE(same_bits(s1.data(), s2.data(), nc * sizeof(float2))) << n << " r2c 1 vs 2 threads";
    EXPECT_TRUE(same_bits(s1.data(), s3.data(), nc * sizeof(float2))) << n << " r2c cached plan";
    one.r2c(img.data(), s3.data());
    EXPECT_TRUE(same_bits(s1.data(), s3.data(), nc * sizeof(float2))) << n << " r2c 1-thread plan on 2 threads";
    two.c2r(s2.data(), b2.data());
    set_threads(1);
    one.c2r(s1.data(), b1.data());
    EXPECT_TRUE(same_bits(b1.data(), b2.data(), nr * sizeof(float))) << n << " c2r 1 vs 2 threads";
    set_threads(saved);
  }
}

TEST(FftTransforms, BadSizeEndsWithTheFftErrorLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT({ FftPlan2d p(0, 8); }, testing::ExitedWithCode(1),
              "Error CUFFT_INVALID_SIZE, User specified an invalid transform size at line [0-9]+ in file cuda_fft");
}

TEST(FftNormz, ForwardChangesOnlyTheDiagonalInverseDividesAll) {
  const int nx = 8, ny = 6, nxh = nx / 2 + 1, n = nx * ny;
  const float f = sqrtf((float)n);
  std::vector<float> img = random_image(n, 21);
  DeviceArray<float> d_img(n), d_back(n), d_plain(n);
  DeviceArray<float2> d_plain_s(nxh * ny), d_norm_s(nxh * ny), d_tmp(nxh * ny);
  memcpy_H2D(d_img.get(), img.data(), n * sizeof(float));
  hcuda_2d_fft_r2c(d_img.get(), d_plain_s.get(), nx, ny);
  hcuda_2d_fft_r2c_normz(d_img.get(), d_norm_s.get(), nx, ny);
  const float2* p = d_plain_s.get();
  const float2* q = d_norm_s.get();
  for (int ky = 0; ky < ny; ky++)
    for (int kx = 0; kx < nxh; kx++) {
      const int i = ky * nxh + kx;
      const bool diag = kx == ky;
      EXPECT_EQ(q[i].x, diag ? p[i].x / f : p[i].x) << kx << "," << ky;
      EXPECT_EQ(q[i].y, diag ? p[i].y / f : p[i].y) << kx << "," << ky;
    }
  memcpy_D2D(d_tmp.get(), d_plain_s.get(), nxh * ny * sizeof(float2));
  hcuda_2d_fft_c2r(d_tmp.get(), d_plain.get(), nx, ny);
  memcpy_D2D(d_tmp.get(), d_plain_s.get(), nxh * ny * sizeof(float2));
  hcuda_2d_fft_c2r_normz(d_tmp.get(), d_back.get(), nx, ny);
  for (int i = 0; i < n; i++) EXPECT_EQ(d_back.get()[i], d_plain.get()[i] / f);
}

TEST(FourierKernels, ConjugateProductIsFusedAndTrulyDivided) {
  // a.re*b.re = 1 + 2^-11 + 2^-24 is a tie that plain float rounds away;
  // the fused product keeps it. s = 3 is picked so that x/3 differs from
  // x*(1/3) for the resulting value.
  const float e = ldexpf(1.0f, -12);
  float2 a{1.0f + e, 1.0f}, b{1.0f + e, -1.0f};
  const float fused = fmaf(a.x, b.x, a.y * b.y);
  const float plain = a.x * b.x + a.y * b.y;
  ASSERT_NE(fused, plain);
  float s = 3.0f;
  while (fused / s == fused * (1.0f / s)) s += 2.0f;
  const float2 A[2] = {a, {0.5f, 2.0f}}, B[2] = {b, {-3.0f, 0.25f}};
  float2 out[2], io[2] = {A[0], A[1]};
  hcuda_c2d_multconj_norm(A, B, out, 2, 1, s);
  hcuda_c2d_multconj_norm_inplace(io, B, 2, 1, s);
  EXPECT_EQ(out[0].x, fused / s);
  EXPECT_NE(out[0].x, fused * (1.0f / s));
  EXPECT_EQ(out[0].y, (a.y * b.x - a.x * b.y) / s);
  EXPECT_EQ(out[1].x, fmaf(0.5f, -3.0f, 2.0f * 0.25f) / s);
  EXPECT_EQ(out[1].y, (2.0f * -3.0f - 0.5f * 0.25f) / s);
  EXPECT_TRUE(same_bits(out, io, sizeof out));
}

TEST(FourierKernels, CentreSwap) {
  // 2 x 2: (0,0) <-> (1,1) and (1,0) <-> (0,1).
  float p2[4] = {1, 2, 3, 4};
  hcuda_2d_swap_ccf_inplace(p2, 2, 2);
  EXPECT_EQ(p2[0], 4);
  EXPECT_EQ(p2[1], 3);
  EXPECT_EQ(p2[2], 2);
  EXPECT_EQ(p2[3], 1);
  // Even rectangles: the quadrant exchange, and its own inverse.
  for (Shape s : {Shape{6, 4}, Shape{8, 10}, Shape{64, 64}}) {
    std::vector<float> p(s.nx * s.ny);
    for (size_t i = 0; i < p.size(); i++) p[i] = (float)i;
    std::vector<float> q = p;
    hcuda_2d_swap_ccf_inplace(q.data(), s.nx, s.ny);
    for (int y = 0; y < s.ny; y++)
      for (int x = 0; x < s.nx; x++)
        ASSERT_EQ(q[((y + s.ny / 2) % s.ny) * s.nx + (x + s.nx / 2) % s.nx], p[y * s.nx + x]);
    hcuda_2d_swap_ccf_inplace(q.data(), s.nx, s.ny);
    EXPECT_EQ(p, q);
  }
}

TEST(FourierKernels, ImpulseAutocorrelationPeaksAtTheCentre) {
  const int nx = 16, ny = 12, nxh = nx / 2 + 1, n = nx * ny;
  DeviceArray<float> d_img(n), d_cc(n);
  DeviceArray<float2> d_a(nxh * ny), d_p(nxh * ny);
  d_img.get()[0] = 1.0f;
  hcuda_2d_fft_r2c(d_img.get(), d_a.get(), nx, ny);
  hcuda_c2d_multconj_norm(d_a.get(), d_a.get(), d_p.get(), nxh, ny, (float)n);
  hcuda_2d_fft_c2r(d_p.get(), d_cc.get(), nx, ny);
  hcuda_2d_swap_ccf_inplace(d_cc.get(), nx, ny);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const float v = d_cc.get()[y * nx + x];
      if (x == nx / 2 && y == ny / 2)
        EXPECT_NEAR(v, 1.0f, 1e-6f);
      else
        EXPECT_NEAR(v, 0.0f, 1e-6f) << x << "," << y;
    }
}

TEST(FourierKernels, SpectrumProductGivesTheCircularCorrelation) {
  for (Shape s : {Shape{16, 12}, Shape{10, 10}, Shape{9, 7}}) {
    const int nxh = s.nx / 2 + 1, n = s.nx * s.ny;
    std::vector<float> m = random_image(n, 1 + s.nx), t = random_image(n, 2 + s.ny);
    DeviceArray<float> d_m(n), d_t(n), d_cc(n);
    DeviceArray<float2> d_M(nxh * s.ny), d_T(nxh * s.ny);
    memcpy_H2D(d_m.get(), m.data(), n * sizeof(float));
    memcpy_H2D(d_t.get(), t.data(), n * sizeof(float));
    hcuda_2d_fft_r2c(d_m.get(), d_M.get(), s.nx, s.ny);
    hcuda_2d_fft_r2c(d_t.get(), d_T.get(), s.nx, s.ny);
    hcuda_c2d_multconj_norm_inplace(d_M.get(), d_T.get(), nxh, s.ny, (float)n);
    hcuda_2d_fft_c2r(d_M.get(), d_cc.get(), s.nx, s.ny);
    std::vector<double> want = ref::circular_xcorr(m.data(), t.data(), s.nx, s.ny);
    const double tol = 1e-5 * n;
    for (int i = 0; i < n; i++) ASSERT_NEAR(d_cc.get()[i], want[i], tol) << s.nx << "x" << s.ny << " at " << i;
  }
}

TEST(FourierKernels, ProductWithImpulseSpectrumReturnsTheImage) {
  const int nx = 12, ny = 8, nxh = nx / 2 + 1, n = nx * ny;
  std::vector<float> img = random_image(n, 99);
  DeviceArray<float> d_img(n), d_imp(n), d_out(n);
  DeviceArray<float2> d_A(nxh * ny), d_B(nxh * ny);
  memcpy_H2D(d_img.get(), img.data(), n * sizeof(float));
  d_imp.get()[0] = 1.0f;
  hcuda_2d_fft_r2c(d_img.get(), d_A.get(), nx, ny);
  hcuda_2d_fft_r2c(d_imp.get(), d_B.get(), nx, ny);
  hcuda_c2d_multconj_norm_inplace(d_A.get(), d_B.get(), nxh, ny, (float)n);
  hcuda_2d_fft_c2r(d_A.get(), d_out.get(), nx, ny);
  for (int i = 0; i < n; i++) EXPECT_NEAR(d_out.get()[i], img[i], 1e-5f);
}

}  // namespace
