// Band-pass filters with mirror padding.
#include "gpu/img_filter.h"

#include <math.h>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/launch.h"

// 1/sqrt(2*pi): both shapes carry it, so the soft edge starts at 0.399.
#define GVEX_INV_SQRT_2PI 0.3989423f

void hcuda_2d_mirror_pad(float* d_out, const float* d_in, int nx, int ny) {
  const int NX = 2 * nx, NY = 2 * ny;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) {
    const float v = d_in[y * nx + x];
    const int xm = NX - 1 - x, ym = NY - 1 - y;
    d_out[y * NX + x] = v;
    d_out[ym * NX + x] = v;
    d_out[y * NX + xm] = v;
    d_out[ym * NX + xm] = v;
  });
}

void hcuda_2d_mirror_pad_inv(float* d_out, const float* d_in, int nx, int ny) {
  const int NX = 2 * nx;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) { d_out[y * nx + x] = d_in[y * NX + x]; });
}

static void band_limits(int N, float apix, float r1, float r2, float& r_lo, float& r_hi) {
  const float dmin = r1 < r2 ? r1 : r2;
  const float dmax = r1 < r2 ? r2 : r1;
  r_hi = (float)N * apix / dmin;
  r_lo = (float)N * apix / dmax;
}

void cuda_c2d_bandpass_softR(float2* d_spec, int N, float apix, float r1, float r2, float w) {
  float r_lo, r_hi;
  band_limits(N, apix, r1, r2, r_lo, r_hi);
  launch_2d(GVEX_SITE, N / 2 + 1, N, GVEX_LAMBDA(int kx, int y) {
    const float r = hd_spectrum_radius(kx, y, N);
    float2& v = d_spec[y * (N / 2 + 1) + kx];
    if (r < r_lo || r > r_hi + w) {
      v.x = 0.0f;
      v.y = 0.0f;
    } else if (r > r_hi) {
      const float e = r - r_hi, s = w / 3.0f;
      const float f = GVEX_INV_SQRT_2PI * expf(-(e * e) / (2.0f * s * s));
      v.x = v.x * f;
      v.y = v.y * f;
    }
  });
}

void cuda_c2d_bandpass_guas(float2* d_spec, int N, float apix, float r1, float r2) {
  float r_lo, r_hi;
  band_limits(N, apix, r1, r2, r_lo, r_hi);
  const float h = (float)(N / 2 + 1);
  const float s1 = r_hi / 3.0f, s2 = (h - r_lo) / 3.0f;
  launch_2d(GVEX_SITE, N / 2 + 1, N, GVEX_LAMBDA(int kx, int y) {
    const float r = hd_spectrum_radius(kx, y, N);
    float2& v = d_spec[y * (N / 2 + 1) + kx];
    if (r < r_lo || r > r_hi) {
      v.x = 0.0f;
      v.y = 0.0f;
    } else {
      const float g1 = GVEX_INV_SQRT_2PI * expf(-(r * r) / (2.0f * s1 * s1));
      const float d = h - r;
      const float g2 = GVEX_INV_SQRT_2PI * expf(-(d * d) / (2.0f * s2 * s2));
      const float g = g1 * g2;
      v.x = v.x * g;
      v.y = v.y * g;
    }
  });
}

// Pad, transform, filter, transform back, cut, in the plan's scratch
// arrays of the padded shape. shape 0: softR, 1: guas.
static void bandpass_mpad(const float* d_in, float* d_out, int n, float apix, float r1, float r2, float w,
                          int shape) {
  if (n <= 0) return;
  const int N = 2 * n;
  FftPlan2d& plan = gvex_fft_plan(N, N);
  float* pad = plan.work_real();
  float2* spectrum = plan.work_complex();
  hcuda_2d_mirror_pad(pad, d_in, n, n);
  plan.r2c(pad, spectrum);
  if (shape == 0)
    cuda_c2d_bandpass_softR(spectrum, N, apix, r1, r2, w);
  else
    cuda_c2d_bandpass_guas(spectrum, N, apix, r1, r2);
  plan.c2r(spectrum, pad);
  hcuda_2d_mirror_pad_inv(d_out, pad, n, n);
}

void hcuda_2d_bandpass_softR_mpad_inplace(float* d_p, int n, float apix, float r1, float r2, float w) {
  bandpass_mpad(d_p, d_p, n, apix, r1, r2, w, 0);
}

void hcuda_2d_bandpass_guas_mpad_inplace(float* d_p, int n, float apix, float r1, float r2) {
  bandpass_mpad(d_p, d_p, n, apix, r1, r2, 0.0f, 1);
}
