// Correlation scan: running maximum, fast host loops, the scan against a
// direct correlation, the spectrum store, and picks on planted particles.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "gpu/cuda_fft.h"
#include "match/peaks.h"
#include "match/scan.h"
#include "match/scan_host.h"
#include "match/templates.h"
#include "reference/reference.h"
#include "support/match_fixtures.h"

namespace {

// Values that trip element-wise passes: NaN, infinities, signed zeros,
// subnormals, ties.
std::vector<float> awkward(size_t n, unsigned seed) {
  const float special[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e-40f, -3e-39f, 1.0f, 1.0f, 3.4e38f};
  std::mt19937 rng(seed);
  std::vector<float> v = uniform(n, seed);
  for (float& x : v)
    if (rng() % 4 == 0) x = special[rng() % 10];
  return v;
}

TEST(RunningMaximum, StrictNaNNeitherEntersNorLeavesOnShortAndLongRuns) {
  // Equal values keep the earlier angle (7), a NaN maximum stays, a NaN
  // never enters.
  std::vector<float> m = {0, 1, NAN, 2, -INFINITY, 3}, c = {0, 2, 5, NAN, -1, 2.5f};
  std::vector<float> want_m = {0, 2, NAN, 2, -1, 3}, want_a = {7, 45, 7, 7, 45, 7};
  for (int n : {6, 37 * 11}) {
    if (n > 6) {  // long enough for the vectorised host loops and their tails
      m = awkward(n, 1), c = awkward(n, 2);
      for (int i = 0; i < n; i += 5) c[i] = m[i];
      want_m = m, want_a.assign(n, 7.0f);
      for (int i = 0; i < n; i++)
        if (c[i] > m[i]) want_m[i] = c[i], want_a[i] = 45.0f;
    }
    // The host's fold, with and without angles, and the shared element body.
    std::vector<float> hm = m, ha(n, 7.0f), em = m, ea(n, 7.0f), hm2 = m, em2 = m;
    scan_host_fold_serial(hm.data(), c.data(), ha.data(), 45.0f, n);
    scan_host_fold_serial(hm2.data(), c.data(), nullptr, 45.0f, n);
    for (int i = 0; i < n; i++) cuda_update_ccmax_psi(em.data(), c.data(), ea.data(), 45.0f, i);
    for (int i = 0; i < n; i++) cuda_update_ccmax(em2.data(), c.data(), i);
    for (const auto& [got, want] :
         {std::make_pair(hm, want_m), {ha, want_a}, {hm2, want_m}, {em, want_m}, {ea, want_a}, {em2, want_m}})
      EXPECT_TRUE(same_bits(got, want)) << n;
  }
}

TEST(HostLoops, SameBitsAsTheSharedElementBody) {
  const int n = 33 * 20;
  const std::vector<float> A = awkward(2 * n, 3), B = awkward(2 * n, 4);
  const float2* a = reinterpret_cast<const float2*>(A.data());
  const float2* b = reinterpret_cast<const float2*>(B.data());
  for (float s : {4096.0f, 3600.0f, 1.0f}) {
    std::vector<float> P1(2 * n), P2(2 * n);
    scan_host_multconj_serial(a, b, reinterpret_cast<float2*>(P1.data()), n, s);
    for (int i = 0; i < n; i++) reinterpret_cast<float2*>(P2.data())[i] = cuda_multconj_norm(a[i], b[i], s);
    EXPECT_TRUE(same_bits(P1, P2)) << s;
  }
}

// A scan problem: a noise micrograph with one unusable 8 x 8 corner and a
// lopsided noise template.
struct Problem {
  int nx = 32, ny = 32, tnx = 8, tny = 6;
  float R = 3.5f;
  std::vector<float> mic = uniform(32 * 32, 3), mask = std::vector<float>(32 * 32, 1.0f), T = uniform(8 * 6, 4);
  Problem() {
    for (int i = 0; i < 64; i++) mask[i / 8 * nx + i % 8] = 0.0f;
  }
};

struct Maps {
  std::vector<float> ccmax, psi;
  std::string out;  // what the scan printed
};

Maps scan(const Problem& pb, float step, ScanWorkspace* ws = nullptr, bool capture = true) {
  const size_t n = (size_t)pb.nx * pb.ny;
  Dev<float> mic(pb.mic), mask(pb.mask), T(pb.T), cc(n), psi(std::vector<float>(n, -1.0f));
  Maps m;
  if (capture) testing::internal::CaptureStdout();
  vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), cc.get(), psi.get(), 1, pb.nx, pb.ny, T.get(), pb.tnx,
                                     pb.tny, pb.R, 0.0f, 359.0f, step, ws);
  if (capture) m.out = testing::internal::GetCapturedStdout();
  m.ccmax = cc.host();
  m.psi = psi.host();
  return m;
}

TEST(Scan, OneAngleMatchesTheDirectCorrelationOverD) {
  Problem pb;
  Maps m = scan(pb, 360.0f);
  // The template pasted into the centre of a cleared image, correlated
  // circularly; the score of shift s sits at (s + n/2) after re-centring.
  std::vector<float> pad(pb.nx * pb.ny, 0.0f);
  for (int i = 0; i < pb.tnx * pb.tny; i++)
    pad[(i / pb.tnx + (pb.ny - pb.tny) / 2) * pb.nx + i % pb.tnx + (pb.nx - pb.tnx) / 2] = pb.T[i];
  std::vector<double> xc = ref::circular_xcorr(pb.mic.data(), pad.data(), pb.nx, pb.ny);
  double s_mic = 0, s_t = 0, s_mask = 0;
  for (int i = 0; i < pb.nx * pb.ny; i++) s_mic += pb.mask[i] * pb.mic[i] * pb.mic[i], s_mask += pb.mask[i];
  for (float v : pb.T) s_t += v * v;
  const double D = std::sqrt(s_t * s_mic * (pb.R * pb.R * 3.1415927) / s_mask);
  for (int y = 0; y < pb.ny; y++)
    for (int x = 0; x < pb.nx; x++) {
      const int sx = (x + pb.nx / 2) % pb.nx, sy = (y + pb.ny / 2) % pb.ny;
      ASSERT_NEAR(m.ccmax[y * pb.nx + x], xc[sy * pb.nx + sx] / D, 2e-5) << x << "," << y;
      ASSERT_EQ(m.psi[y * pb.nx + x], 0.0f);
    }
}

TEST(Scan, StoredSpectraGiveTheSameBits) {
  Problem pb, other = pb;
  other.T[5] += 1.0f;
  const Maps plain = scan(pb, 30.0f), other_plain = scan(other, 30.0f);
  EXPECT_EQ(plain.out, std::string(12, '.') + "\n");  // a dot per angle
  EXPECT_FALSE(same_bits(other_plain.ccmax, plain.ccmax));
  const unsigned long one = (unsigned long)(pb.nx / 2 + 1) * pb.ny * 8;
  ScanWorkspace ws, small(3 * one);  // everything fits; three spectra fit
  // Filled, then served from the store; a small budget keeps three and
  // recomputes the rest; another template never gets the first one's.
  for (ScanWorkspace* w : {&ws, &ws, &small, &small}) {
    const Maps m = scan(pb, 30.0f, w);
    EXPECT_TRUE(same_bits(m.ccmax, plain.ccmax));
    EXPECT_TRUE(same_bits(m.psi, plain.psi));
  }
  EXPECT_TRUE(same_bits(scan(other, 30.0f, &ws).ccmax, other_plain.ccmax));
  EXPECT_TRUE(same_bits(scan(pb, 30.0f, &ws).ccmax, plain.ccmax));
}

// Batches of every size (the host takes odd sizes in batches), with the
// store empty, full and partly full, twice each: the same bits everywhere,
// and the maps of a direct correlation within rounding. Even sizes that
// leave a partial block of columns and of rows in the fused stages get the
// same bits whatever the store holds.
TEST(Scan, BatchesAndStoreGiveTheSameBits) {
  for (int n : {33, 99, 32, 36, 100}) {
    Problem pb;
    pb.nx = pb.ny = n;
    pb.mic = uniform(n * n, 7);
    pb.mask.assign(n * n, 1.0f);
    const unsigned long one = (unsigned long)(n / 2 + 1) * n * 8;
    const Maps want = scan(pb, 25.0f);  // 15 angles
    for (int batch : {1, 4, 15})
      for (unsigned long budget : {0UL, 5 * one, 64 * one}) {
        ScanWorkspace ws(budget, batch);
        for (int pass = 0; pass < 2; pass++) {
          const Maps m = scan(pb, 25.0f, &ws);
          EXPECT_EQ(m.out, want.out);
          EXPECT_TRUE(same_bits(m.ccmax, want.ccmax)) << n << " batch " << batch << " budget " << budget;
          EXPECT_TRUE(same_bits(m.psi, want.psi)) << n << " batch " << batch << " budget " << budget;
        }
      }
  }
}

// The decoy map is, bit for bit, the map of the template with its contrast
// the other way, through the fused stages (even size) and the batches (odd),
// with the store empty and full.
TEST(Scan, DecoyMapIsTheInvertedTemplatesMap) {
  for (int n : {36, 33}) {
    Problem pb, inverted;
    pb.nx = pb.ny = inverted.nx = inverted.ny = n;
    pb.mic = inverted.mic = uniform(n * n, 9);
    pb.mask.assign(n * n, 1.0f);
    inverted.mask = pb.mask;
    for (float& v : inverted.T) v = -v;
    const size_t N = (size_t)n * n;
    ScanWorkspace ws;
    for (int pass = 0; pass < 2; pass++) {
      Dev<float> mic(pb.mic), mask(pb.mask), T(pb.T), cc(N), psi(N), decoy(N);
      testing::internal::CaptureStdout();
      vexmatch_ccmax_psi_by_one_template(mic.get(), mask.get(), cc.get(), psi.get(), 1, n, n, T.get(), pb.tnx, pb.tny,
                                         pb.R, 0.0f, 359.0f, 30.0f, &ws, decoy.get());
      testing::internal::GetCapturedStdout();
      const Maps want = scan(inverted, 30.0f), plain = scan(pb, 30.0f);
      EXPECT_TRUE(same_bits(decoy.host(), want.ccmax)) << n << " pass " << pass;
      EXPECT_TRUE(same_bits(cc.host(), plain.ccmax)) << n << " pass " << pass;  // the map itself unchanged
    }
  }
}

// The fused stages keep buffers per thread: a team that grows after the
// first scan (as when a caller raises the thread count) still gets the bits.
TEST(Scan, FusedStagesFollowAGrowingTeam) {
  Problem pb;
  ScanWorkspace ws;
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  const Maps one = scan(pb, 30.0f, &ws);
  omp_set_num_threads(threads + 3);
  const Maps more = scan(pb, 30.0f, &ws), fresh = scan(pb, 30.0f, nullptr);
  omp_set_num_threads(threads);
  EXPECT_TRUE(same_bits(one.ccmax, more.ccmax));
  EXPECT_TRUE(same_bits(one.ccmax, fresh.ccmax));
}

// Dark discs of radius 5 on a flat background, the synthetic template
// normalised and inverted as in the pipeline: each disc gives a pick on its
// centre, and nothing else does.
TEST(ScanAndPick, PlantedDiscsArePicked) {
  Problem pb;
  const int N = pb.nx = pb.ny = 128, c = 16, cx[4] = {30, 90, 40, 100}, cy[4] = {30, 40, 88, 100};
  pb.mask.assign(N * N, 1.0f);
  pb.mic.assign(N * N, 0.0f);
  for (int i = 0; i < N * N; i++)
    for (int k = 0; k < 4; k++)
      if (std::pow(i % N - cx[k], 2) + std::pow(i / N - cy[k], 2) <= 25.0) pb.mic[i] = -1.0f;
  int nz;
  pb.R = 6.2f;
  float* t = create_template_data(pb.tnx, pb.tny, nz, pb.R, 0.05f);
  Dev<float> d_t(pb.tnx * pb.tny);
  hcuda_upload_templates(d_t.get(), t, pb.tnx, pb.tny, 1, 1, pb.R, 0.05f, 0);
  free(t);
  pb.T = d_t.host();
  const Maps m = scan(pb, 360.0f);
  Dev<float> cc(m.ccmax), psi(m.psi);
  std::vector<unsigned int> idx(8 * 8);
  std::vector<float> score(8 * 8), angle(8 * 8);
  gpu_find_filter_ccmax_psi_grids_exclusive(cc.get(), psi.get(), idx.data(), score.data(), angle.data(), 0.15f, N, N, c,
                                            nullptr, 0);
  EXPECT_EQ(std::count_if(idx.begin(), idx.end(), [](unsigned int i) { return i != 0; }), 4);
  for (int k = 0; k < 4; k++) {
    const unsigned int i = idx[cy[k] / c * 8 + cx[k] / c];  // in the disc's own cell
    EXPECT_NEAR((int)(i % N), cx[k], 1) << "disc " << k;
    EXPECT_NEAR((int)(i / N), cy[k], 1) << "disc " << k;
  }
}

// A bar template against a bright vertical bar about (19.5, 10.5) and a dim
// horizontal one half the image away, about (3.5, 26.5): ccmax peaks on the
// vertical bar, and the angle that won there sits at the unswapped position,
// where the re-centred layout would show the horizontal bar's.
TEST(ScanAndPick, AngleMapStaysInTheUnswappedLayout) {
  Problem pb;
  pb.tnx = pb.tny = 10;
  pb.T.assign(100, 0.0f);
  pb.mic.assign(32 * 32, 0.0f);
  pb.mask.assign(32 * 32, 1.0f);
  for (int i = 1; i < 9; i++) {
    pb.T[4 * 10 + i] = pb.T[5 * 10 + i] = 1.0f;
    pb.mic[(6 + i) * 32 + 19] = pb.mic[(6 + i) * 32 + 20] = 2.0f;
    pb.mic[26 * 32 + i - 1] = pb.mic[27 * 32 + i - 1] = 1.0f;
  }
  Maps m = scan(pb, 45.0f);
  const int best = (int)(std::max_element(m.ccmax.begin(), m.ccmax.end()) - m.ccmax.begin());
  const int bx = best % 32, by = best / 32;
  EXPECT_NEAR(bx, 19.5, 1.0);
  EXPECT_NEAR(by, 10.5, 1.0);
  const float unswapped = m.psi[((by + 16) % 32) * 32 + (bx + 16) % 32], there = m.psi[best];
  EXPECT_TRUE(unswapped == 90.0f || unswapped == 270.0f) << unswapped;
  EXPECT_TRUE(there == 0.0f || there == 180.0f) << there;
}

}  // namespace
