// Soft disc masks, local means and deviations through the Fourier domain,
// and the host masked normalisation.
#include "gpu/local_stats.h"

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "common/host_image.h"
#include "common/hm_math.h"
#include "gpu/img_filter.h"
#include "gpu/launch.h"
#include "gpu/math_utils.h"
#include "gpu/pool.h"
#include "gpu/reduce.h"

void hcuda_2d_generate_rmask_soft(float* d_mask, int nx, int ny, float cx, float cy, float r, float w) {
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) {
    const float dx = (float)x - cx, dy = (float)y - cy;
    d_mask[y * nx + x] = hd_rmask_soft(dx * dx + dy * dy, r, w);
  });
}


// ---- the transformed disc, kept per padded shape and radii ----

namespace {
struct MaskSpectrum {
  int NX = 0, NY = 0;
  float r = 0.0f, w = 0.0f;
  float sum = 0.0f;  // M, the disc's tree sum
  std::unique_ptr<DeviceArray<float2>> spectrum;
  bool matches(int nx_, int ny_, float r_, float w_) const {
    // Compared by value: the same radii give the same disc, bit for bit.
    return spectrum && NX == nx_ && NY == ny_ && r == r_ && w == w_;
  }
};
// Two slots: the picker asks for two radii per micrograph (local sigma and
// local average), each the same on every micrograph.
MaskSpectrum* g_slots = nullptr;
const int kSlots = 2;
}  // namespace

static const MaskSpectrum& mask_spectrum(int NX, int NY, float r, float w) {
  if (!g_slots) g_slots = new MaskSpectrum[kSlots];  // never freed at exit: device memory
  for (int i = 0; i < kSlots; i++)
    if (g_slots[i].matches(NX, NY, r, w)) {
      if (i > 0) std::swap(g_slots[0], g_slots[i]);  // most recent first
      return g_slots[0];
    }
  for (int i = kSlots - 1; i > 0; i--) std::swap(g_slots[i], g_slots[i - 1]);
  MaskSpectrum& m = g_slots[0];
  m.spectrum.reset();  // release the oldest before allocating
  FftPlan2d& plan = gvex_fft_plan(NX, NY);
  float* mask = plan.work_real();
  hcuda_2d_generate_rmask_soft(mask, NX, NY, (float)(((float)NX - 1.0) / 2.0), (float)(((float)NY - 1.0) / 2.0),
                               r, w);
  m.sum = hcuda_fast_sum(mask, (unsigned long)NX * NY);
  m.spectrum.reset(new DeviceArray<float2>((unsigned long)(NX / 2 + 1) * NY));
  plan.r2c(mask, m.spectrum->get());
  m.NX = NX;
  m.NY = NY;
  m.r = r;
  m.w = w;
  return m;
}

void gvex_local_stats_cache_clear() {
  if (!g_slots) return;
  for (int i = 0; i < kSlots; i++) g_slots[i].spectrum.reset();
}

// ---- local statistics ----

namespace {
// What a local mean needs of a cached disc; copied out because the next
// cache lookup may reorder the slots.
struct Disc {
  const float2* spectrum;
  float sum;
};
Disc disc(int NX, int NY, float r, float w) {
  const MaskSpectrum& m = mask_spectrum(NX, NY, r, w);
  return {m.spectrum->get(), m.sum};
}
}  // namespace

// Forward transform of the mirror-padded image into A, through the plan's
// real scratch.
static void padded_spectrum(FftPlan2d& plan, const float* d_in, int nx, int ny, float2* A) {
  float* pad = plan.work_real();
  hcuda_2d_mirror_pad(pad, d_in, nx, ny);
  plan.r2c(pad, A);
}

// From the product spectrum P (destroyed) to the local mean: inverse
// transform, then centre swap, division by the disc's sum and the top-left
// quarter in one pass: pixel (x, y) of the swapped map is (x + NX/2,
// y + NY/2) of the unswapped one (NX and NY are even), so this is exactly
// swap, divide, cut.
static void local_mean_from_product(FftPlan2d& plan, float2* P, float M, float* d_out, int nx, int ny) {
  const int NX = 2 * nx, NY = 2 * ny;
  float* pad = plan.work_real();
  plan.c2r(P, pad);
  const float* d_cc = pad;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) {
    d_out[y * nx + x] = d_cc[((y + NY / 2) % NY) * NX + (x + NX / 2) % NX] / M;
  });
}

void hcuda_2d_bg_mpad(float* d_out, const float* d_in, int nx, int ny, float r, float w) {
  if (nx <= 0 || ny <= 0) return;
  const int NX = 2 * nx, NY = 2 * ny;
  // The disc first: on a cache miss it borrows the plan's real scratch.
  const Disc d = disc(NX, NY, r, w);
  FftPlan2d& plan = gvex_fft_plan(NX, NY);
  float2* A = plan.work_complex();
  padded_spectrum(plan, d_in, nx, ny, A);
  hcuda_c2d_multconj_norm_inplace(A, d.spectrum, NX / 2 + 1, NY, (float)((unsigned long)NX * NY));
  local_mean_from_product(plan, A, d.sum, d_out, nx, ny);
}

// sigma = sqrt(mean(in^2) - mean^2), with mean(in) already in d_mean (overwritten).
static void local_sigma_from_mean(float* d_out, float* d_mean, const float* d_in, int nx, int ny, float r, float w) {
  const unsigned long n = (unsigned long)nx * ny;
  hcuda_sqr_inplace(d_mean, n);
  hcuda_sqr(d_out, d_in, n);
  hcuda_2d_bg_mpad(d_out, d_out, nx, ny, r, w);
  hcuda_x1d_sub_inplace(d_out, d_mean, n);
  hcuda_sqrtf_inplace(d_out, n);
}

void hcuda_2d_local_ave_sigma_softR_mpad(float* d_ave, float* d_sigma, const float* d_in, int nx, int ny,
                                         float r_ave, float r_sigma, float w) {
  if (nx <= 0 || ny <= 0) return;
  const int NX = 2 * nx, NY = 2 * ny, NXH = NX / 2 + 1;
  const Disc sd = disc(NX, NY, r_sigma, w);
  const Disc ad = disc(NX, NY, r_ave, w);
  FftPlan2d& plan = gvex_fft_plan(NX, NY);
  // The padded image's spectrum serves both windows; each product goes
  // to the plan's complex scratch, which the inverse transform destroys.
  PooledArray<float2> A((unsigned long)NXH * NY);
  padded_spectrum(plan, d_in, nx, ny, A.get());
  float2* P = plan.work_complex();
  PooledArray<float> mean((unsigned long)nx * ny);
  hcuda_c2d_multconj_norm(A.get(), sd.spectrum, P, NXH, NY, (float)((unsigned long)NX * NY));
  local_mean_from_product(plan, P, sd.sum, mean.get(), nx, ny);
  local_sigma_from_mean(d_sigma, mean.get(), d_in, nx, ny, r_sigma, w);
  hcuda_c2d_multconj_norm(A.get(), ad.spectrum, P, NXH, NY, (float)((unsigned long)NX * NY));
  local_mean_from_product(plan, P, ad.sum, d_ave, nx, ny);
}

