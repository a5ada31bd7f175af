// Correlation scan: running maximum, score normalisation, layout of the two
// maps, the spectrum store, and picks on planted particles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/math_utils.h"
#include "gpu/resample.h"
#include "match/peaks.h"
#include "match/scan.h"
#include "match/templates.h"
#include "reference/reference.h"

namespace {

template <class T>
std::vector<T> to_host(const T* d, size_t n) {
  std::vector<T> h(n);
  memcpy_D2H(h.data(), d, n * sizeof(T));
  return h;
}

template <class T>
void to_device(T* d, const std::vector<T>& h) {
  memcpy_H2D(d, h.data(), h.size() * sizeof(T));
}

bool same_bits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(RunningMaximum, StrictAndNaNNeverWins) {
  const float nan = NAN;
  std::vector<float> m = {0.0f, 1.0f, nan, 2.0f, -INFINITY, 3.0f};
  std::vector<float> c = {0.0f, 2.0f, 5.0f, nan, -1.0f, 2.5f};
  std::vector<float> a = {7.0f, 7.0f, 7.0f, 7.0f, 7.0f, 7.0f};
  DeviceArray<float> dm(6), dc(6), da(6);
  to_device(dm.get(), m);
  to_device(dc.get(), c);
  to_device(da.get(), a);
  hcuda_update_ccmax_psi_2d(dm.get(), dc.get(), da.get(), 45.0f, 3, 2);
  std::vector<float> gm = to_host(dm.get(), 6), ga = to_host(da.get(), 6);
  EXPECT_EQ(gm[0], 0.0f);
  EXPECT_EQ(ga[0], 7.0f);  // equal: the earlier angle stays
  EXPECT_EQ(gm[1], 2.0f);
  EXPECT_EQ(ga[1], 45.0f);
  EXPECT_TRUE(std::isnan(gm[2]));  // a NaN maximum is never replaced...
  EXPECT_EQ(ga[2], 7.0f);
  EXPECT_EQ(gm[3], 2.0f);  // ...nor does a NaN enter
  EXPECT_EQ(ga[3], 7.0f);
  EXPECT_EQ(gm[4], -1.0f);
  EXPECT_EQ(ga[4], 45.0f);
  EXPECT_EQ(gm[5], 3.0f);

  to_device(dm.get(), m);
  hcuda_update_ccmax_2d(dm.get(), dc.get(), 3, 2);
  gm = to_host(dm.get(), 6);
  EXPECT_EQ(gm[1], 2.0f);
  EXPECT_EQ(gm[3], 2.0f);
  EXPECT_EQ(gm[4], -1.0f);
}

// Awkward values for the element-wise passes: NaN, infinities, equal
// values, zeros of both signs, subnormals.
std::vector<float> awkward(size_t n, unsigned seed) {
  const float special[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e-40f, -3e-39f, 1.0f, 1.0f, 3.4e38f};
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  std::vector<float> v(n);
  for (size_t i = 0; i < n; i++) v[i] = rng() % 4 == 0 ? special[rng() % 10] : u(rng);
  return v;
}

TEST(RunningMaximum, LongRunsMatchTheElementRule) {
  // Long enough for the vectorised host loops and their tails.
  const int nx = 37, ny = 11, n = nx * ny;
  std::vector<float> m = awkward(n, 1), c = awkward(n, 2), a(n);
  for (int i = 0; i < n; i += 5) c[i] = m[i];  // plenty of ties
  for (int i = 0; i < n; i++) a[i] = (float)i;
  std::vector<float> want_m = m, want_a = a, want_m2 = m;
  for (int i = 0; i < n; i++)
    if (c[i] > want_m[i]) {
      want_m[i] = c[i];
      want_a[i] = 30.0f;
      want_m2[i] = c[i];
    }
  DeviceArray<float> dm(n), dc(n), da(n);
  to_device(dm.get(), m);
  to_device(dc.get(), c);
  to_device(da.get(), a);
  hcuda_update_ccmax_psi_2d(dm.get(), dc.get(), da.get(), 30.0f, nx, ny);
  EXPECT_TRUE(same_bits(to_host(dm.get(), n), want_m));
  EXPECT_TRUE(same_bits(to_host(da.get(), n), want_a));
  to_device(dm.get(), m);
  hcuda_update_ccmax_2d(dm.get(), dc.get(), nx, ny);
  EXPECT_TRUE(same_bits(to_host(dm.get(), n), want_m2));
}

TEST(SpectrumProduct, SameBitsAsTheGenericProduct) {
  const int nxh = 33, ny = 20, n = nxh * ny;
  std::vector<float> a = awkward(2 * n, 3), b = awkward(2 * n, 4);
  DeviceArray<float2> A(n), B(n), P1(n), P2(n);
  memcpy_H2D(A.get(), a.data(), n * sizeof(float2));
  memcpy_H2D(B.get(), b.data(), n * sizeof(float2));
  for (float s : {4096.0f, 3600.0f, 1.0f}) {
    scan_multconj_norm(A.get(), B.get(), P1.get(), nxh, ny, s);
    hcuda_c2d_multconj_norm(A.get(), B.get(), P2.get(), nxh, ny, s);
    EXPECT_EQ(memcmp(to_host(P1.get(), n).data(), to_host(P2.get(), n).data(), n * sizeof(float2)), 0) << s;
  }
}

TEST(SwapDivide, SameBitsAsSwapThenDivide) {
  const int nx = 6, ny = 4;
  std::vector<float> p(nx * ny);
  for (int i = 0; i < nx * ny; i++) p[i] = 0.1f * i - 0.7f;
  DeviceArray<float> a(nx * ny), b(nx * ny);
  to_device(a.get(), p);
  to_device(b.get(), p);
  hcuda_2d_swap_divide_inplace(a.get(), nx, ny, 3.3f);
  hcuda_2d_swap_ccf_inplace(b.get(), nx, ny);
  hcuda_2d_divide_inplace(b.get(), nx, ny, 3.3f);
  EXPECT_TRUE(same_bits(to_host(a.get(), nx * ny), to_host(b.get(), nx * ny)));
}

// A small scan problem: noise micrograph, a lopsided template, a mask with
// one unusable corner.
struct Problem {
  int nx = 32, ny = 32, tnx = 8, tny = 6;
  float R = 3.5f;
  std::vector<float> mic, mask, T;
  Problem() {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    mic.resize(nx * ny);
    for (float& v : mic) v = u(rng);
    mask.assign(nx * ny, 1.0f);
    for (int y = 0; y < 8; y++)
      for (int x = 0; x < 8; x++) mask[y * nx + x] = 0.0f;
    T.resize(tnx * tny);
    for (int i = 0; i < tnx * tny; i++) T[i] = (float)((i * 5) % 7) - 3.0f + (i < 10 ? 2.0f : 0.0f);
  }
};

struct Maps {
  std::vector<float> ccmax, psi;
};

Maps scan(const Problem& pb, float start, float end, float step, ScanWorkspace* ws, bool quiet = true) {
  const size_t n = (size_t)pb.nx * pb.ny;
  DeviceArray<float> mic(n), mask(n), cc(n), psi(n), T(pb.T.size());
  to_device(mic.get(), pb.mic);
  to_device(mask.get(), pb.mask);
  to_device(T.get(), pb.T);
  hcuda_memset_float(psi.get(), -1.0f, n);
  if (quiet) testing::internal::CaptureStdout();
  vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), cc.get(), psi.get(), 1, pb.nx, pb.ny, T.get(), pb.tnx,
                                     pb.tny, pb.R, start, end, step, ws);
  if (quiet) testing::internal::GetCapturedStdout();
  return {to_host(cc.get(), n), to_host(psi.get(), n)};
}

TEST(Scan, OneAngleMatchesTheDirectCorrelationOverD) {
  Problem pb;
  Maps m = scan(pb, 0.0f, 359.0f, 360.0f, nullptr);
  // The template pasted into the centre of a cleared image, correlated
  // circularly; the score of shift s sits at (s + n/2) after re-centring.
  std::vector<float> pad(pb.nx * pb.ny, 0.0f);
  for (int y = 0; y < pb.tny; y++)
    for (int x = 0; x < pb.tnx; x++)
      pad[(y + (pb.ny - pb.tny) / 2) * pb.nx + x + (pb.nx - pb.tnx) / 2] = pb.T[y * pb.tnx + x];
  std::vector<double> xc = ref::circular_xcorr(pb.mic.data(), pad.data(), pb.nx, pb.ny);
  double s_mic = 0, s_t = 0, s_mask = 0;
  for (int i = 0; i < pb.nx * pb.ny; i++) {
    s_mic += pb.mask[i] * pb.mic[i] * pb.mic[i];
    s_mask += pb.mask[i];
  }
  for (float v : pb.T) s_t += v * v;
  const double D = std::sqrt(s_t * s_mic * (pb.R * pb.R * 3.1415927) / s_mask);
  for (int y = 0; y < pb.ny; y++)
    for (int x = 0; x < pb.nx; x++) {
      const int sx = (x + pb.nx / 2) % pb.nx, sy = (y + pb.ny / 2) % pb.ny;
      ASSERT_NEAR(m.ccmax[y * pb.nx + x], xc[sy * pb.nx + sx] / D, 2e-5) << x << "," << y;
      // psi is filled everywhere with the single angle.
      ASSERT_EQ(m.psi[y * pb.nx + x], 0.0f);
    }
}

TEST(Scan, ProgressDotsAndEmptyRange) {
  Problem pb;
  testing::internal::CaptureStdout();
  scan(pb, 0.0f, 359.0f, 5.0f, nullptr, false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(72, '.') + "\n");
  // No angle below the end: nothing but the newline, scores stay -inf.
  testing::internal::CaptureStdout();
  Maps m = scan(pb, 10.0f, 5.0f, 5.0f, nullptr, false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
  for (float v : m.ccmax) ASSERT_EQ(v, -INFINITY);
  for (float v : m.psi) ASSERT_EQ(v, -1.0f);  // psi is never reset
}

TEST(Scan, StoredSpectraGiveTheSameBits) {
  Problem pb;
  const Maps plain = scan(pb, 0.0f, 359.0f, 30.0f, nullptr);
  ScanWorkspace ws;  // default budget: everything fits
  const Maps first = scan(pb, 0.0f, 359.0f, 30.0f, &ws);
  EXPECT_EQ(ws.cached_spectra(), 12);
  const Maps again = scan(pb, 0.0f, 359.0f, 30.0f, &ws);  // served from the store
  EXPECT_EQ(ws.cached_spectra(), 12);
  for (const Maps* m : {&first, &again}) {
    EXPECT_TRUE(same_bits(m->ccmax, plain.ccmax));
    EXPECT_TRUE(same_bits(m->psi, plain.psi));
  }
  // A different template is never served another's spectra.
  Problem other = pb;
  other.T[5] += 1.0f;
  const Maps other_plain = scan(other, 0.0f, 359.0f, 30.0f, nullptr);
  const Maps other_ws = scan(other, 0.0f, 359.0f, 30.0f, &ws);
  EXPECT_TRUE(same_bits(other_ws.ccmax, other_plain.ccmax));
  EXPECT_FALSE(same_bits(other_ws.ccmax, plain.ccmax));
  EXPECT_EQ(ws.cached_spectra(), 24);

  // A budget for three spectra keeps three and recomputes the rest.
  const unsigned long one = (unsigned long)(pb.nx / 2 + 1) * pb.ny * 8;
  ScanWorkspace small(3 * one);
  const Maps part = scan(pb, 0.0f, 359.0f, 30.0f, &small);
  const Maps part2 = scan(pb, 0.0f, 359.0f, 30.0f, &small);
  EXPECT_EQ(small.cached_spectra(), 3);
  EXPECT_EQ(small.spectrum_bytes(), 3 * one);
  EXPECT_TRUE(same_bits(part.ccmax, plain.ccmax));
  EXPECT_TRUE(same_bits(part2.psi, plain.psi));

  // A new working size starts an empty store.
  Problem wide = pb;
  wide.nx = 40;
  wide.mic.resize(40 * 32, 0.5f);
  wide.mask.assign(40 * 32, 1.0f);
  scan(wide, 0.0f, 359.0f, 30.0f, &ws);
  EXPECT_EQ(ws.cached_spectra(), 12);
}

TEST(ScanDeath, TemplateLargerThanTheImageIsFatal) {
  Problem pb;
  pb.tnx = 40;
  pb.T.resize(40 * pb.tny, 1.0f);
  EXPECT_EXIT(
      {
        dup2(2, 1);
        scan(pb, 0.0f, 359.0f, 360.0f, nullptr, false);
      },
      ::testing::ExitedWithCode(1), "template of 40 x 6 pixels cannot be scanned over a 32 x 32");
}

// Dark discs on a flat background, the synthetic template normalised and
// inverted as in the pipeline: every disc yields a pick on its centre.
TEST(ScanAndPick, PlantedDiscsArePicked) {
  const int N = 128;
  const float R = 6.2f;
  const int cx[4] = {30, 90, 40, 100}, cy[4] = {30, 40, 88, 100};  // off cell borders
  std::vector<float> mic(N * N, 0.0f);
  for (int k = 0; k < 4; k++)
    for (int y = 0; y < N; y++)
      for (int x = 0; x < N; x++) {
        const float dx = (float)(x - cx[k]), dy = (float)(y - cy[k]);
        if (dx * dx + dy * dy <= 25.0f) mic[y * N + x] = -1.0f;
      }
  int tnx, tny, tnz;
  float* t = create_template_data(tnx, tny, tnz, R, 0.05f);
  ASSERT_EQ(tnx, 24);
  DeviceArray<float> d_t(tnx * tny), d_mic(N * N), d_mask(N * N), d_cc(N * N), d_psi(N * N, true);
  hcuda_upload_templates(d_t.get(), t, tnx, tny, 1, 1, R, 0.05f, 0);
  destroy_template_data(t);
  to_device(d_mic.get(), mic);
  hcuda_normz_inplace(d_mic.get(), N * N, 1.0f, 0.0f);
  hcuda_memset_float(d_mask.get(), 1.0f, N * N);
  ScanWorkspace ws;
  testing::internal::CaptureStdout();
  vexmatch_ccmax_psi_by_one_template(d_mic.get(), d_mask.get(), d_cc.get(), d_psi.get(), 1, N, N, d_t.get(), tnx,
                                     tny, R, 0.0f, 359.0f, 360.0f, &ws);
  testing::internal::GetCapturedStdout();
  const int c = 16, gnx = N / c;
  std::vector<unsigned int> idx(gnx * gnx);
  std::vector<float> score(gnx * gnx), angle(gnx * gnx);
  gpu_find_filter_ccmax_psi_grids_exclusive(d_cc.get(), d_psi.get(), idx.data(), score.data(), angle.data(), 0.15f, N,
                                            N, c, nullptr, 0);
  std::vector<int> found;
  for (int g = 0; g < gnx * gnx; g++)
    if (idx[g]) found.push_back(g);
  ASSERT_EQ(found.size(), 4u);
  for (int k = 0; k < 4; k++) {
    bool hit = false;
    for (int g : found) {
      const int px = idx[g] % N, py = idx[g] / N;
      if (std::abs(px - cx[k]) <= 1 && std::abs(py - cy[k]) <= 1) hit = true;
    }
    EXPECT_TRUE(hit) << "disc " << k;
  }
}

// An elongated template against a bar at 90 degrees: ccmax peaks on the
// bar, while the winning angle sits at the unswapped position.
TEST(ScanAndPick, AngleMapStaysInTheUnswappedLayout) {
  Problem pb;
  pb.tnx = pb.tny = 10;
  pb.T.assign(100, 0.0f);
  for (int y = 4; y < 6; y++)
    for (int x = 1; x < 9; x++) pb.T[y * 10 + x] = 1.0f;  // horizontal bar
  pb.mic.assign(32 * 32, 0.0f);
  for (int y = 7; y < 15; y++)
    for (int x = 19; x < 21; x++) pb.mic[y * 32 + x] = 1.0f;  // vertical bar around (19.5, 10.5)
  pb.mask.assign(32 * 32, 1.0f);
  Maps m = scan(pb, 0.0f, 359.0f, 45.0f, nullptr);
  int best = 0;
  for (int i = 1; i < 32 * 32; i++)
    if (m.ccmax[i] > m.ccmax[best]) best = i;
  const int bx = best % 32, by = best / 32;
  EXPECT_NEAR(bx, 19.5, 1.0);
  EXPECT_NEAR(by, 10.5, 1.0);
  const float at_unswapped = m.psi[((by + 16) % 32) * 32 + (bx + 16) % 32];
  EXPECT_TRUE(at_unswapped == 90.0f || at_unswapped == 270.0f) << at_unswapped;
}

}  // namespace
