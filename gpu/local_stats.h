// Soft disc masks and local statistics over a soft disc, computed by
// correlating a mirror-padded image with the normalised disc in the
// Fourier domain.
#pragma once
#include <math.h>

#include "common/hd.h"

// Soft disc with centre (cx, cy), inner radius r and edge width w: 1 inside
// r, 0 beyond r + w, a Gaussian edge of sigma w/3 between. This device form
// starts its edge at 0.3989423 (a step at r); the host form
// (common/host_image.h) is continuous.
void hcuda_2d_generate_rmask_soft(float* d_mask, int nx, int ny, float cx, float cy, float r, float w);

// Local weighted mean of in over a soft disc of radius r, edge w, on the
// 2nx x 2ny mirror-padded image with periodic wrap. The disc's centre is
// ((2nx-1)/2, (2ny-1)/2), half a pixel before the zero shift, so the window
// of output pixel (X, Y) is centred at (X - 0.5, Y - 0.5). out may equal in.
void hcuda_2d_bg_mpad(float* d_out, const float* d_in, int nx, int ny, float r, float w);
// The local mean over a disc of radius r_ave (the bits of hcuda_2d_bg_mpad)
// and the local deviation over one of radius r_sigma, sqrt(local mean of
// in^2 - (local mean of in)^2), unclamped: rounding may make it NaN where
// the deviation is (nearly) zero. Both from one transform of the padded
// image. d_ave and d_sigma must differ; either may be d_in.
void hcuda_2d_local_ave_sigma_softR_mpad(float* d_ave, float* d_sigma, const float* d_in, int nx, int ny,
                                         float r_ave, float r_sigma, float w);


// The local means keep the transformed disc of the last radii used (it is
// the same for every image of a run); this releases it.
void gvex_local_stats_cache_clear();

// Device edge formula of the soft disc at squared distance d2.
GVEX_HD inline float hd_rmask_soft(float d2, float r, float w) {
  const float rw = r + w;
  if (d2 > rw * rw) return 0.0f;
  if (d2 <= r * r) return 1.0f;
  const float e = sqrtf(d2) - r, s = w / 3.0f;
  return 0.3989423f * expf(-(e * e) / (2.0f * s * s));
}
