// Band-pass filters of square images through the Fourier domain, on a
// mirror-padded double-size copy so that the image's edges do not wrap.
// Resolutions r1, r2 are in Angstrom, apix in Angstrom per pixel; their
// order does not matter. The output is not divided by the transform size:
// it carries a factor (2n)^2 and the filter's own amplitude, which callers
// remove by normalising afterwards.
#pragma once
#include <math.h>

#include "common/hd.h"

// 2nx x 2ny mirror extension: in(x, y) goes to (x, y), (x, 2ny-1-y),
// (2nx-1-x, y) and (2nx-1-x, 2ny-1-y).
void hcuda_2d_mirror_pad(float* d_out, const float* d_in, int nx, int ny);
// The top-left nx x ny quarter of a 2nx-wide image.
void hcuda_2d_mirror_pad_inv(float* d_out, const float* d_in, int nx, int ny);

void hcuda_2d_bandpass_softR_mpad_inplace(float* d_p, int n, float apix, float r1, float r2, float w);
// Band [R_lo, R_hi] weighted by a low-pass and a high-pass Gaussian.
void hcuda_2d_bandpass_guas_mpad_inplace(float* d_p, int n, float apix, float r1, float r2);

// The filter passes alone, on the half spectrum of an N x N image
// (N rows of N/2+1 values), with R_hi = N*apix/min(r1, r2) and
// R_lo = N*apix/max(r1, r2).
void cuda_c2d_bandpass_softR(float2* d_spec, int N, float apix, float r1, float r2, float w);
void cuda_c2d_bandpass_guas(float2* d_spec, int N, float apix, float r1, float r2);

// Radius of spectrum element (kx, y) of an N-row half spectrum; the sum of
// squares is taken in integers.
GVEX_HD inline float hd_spectrum_radius(int kx, int y, int N) {
  const int ky = y < N / 2 ? y : y - N;
  return sqrtf((float)(kx * kx + ky * ky));
}
