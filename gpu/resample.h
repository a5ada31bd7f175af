// Geometry on single 2-D float images (row-major, x fastest, nx columns by
// ny rows): block-mean shrinking into an even square, bilinear scaling and
// rotation about the centre, centred paste, window cut, whole-image fills.
// cpu_ functions take host arrays, hcuda_ ones device arrays, gpu_ ones host
// arrays copied through the device.
#pragma once
#include "common/hd.h"


// ---- bilinear sampling, shared by scaling and rotation ----
// 0 outside [0, nx-1] x [0, ny-1]; at an integer coordinate the neighbour is
// the pixel itself, so the last row and column sample inside the image.
GVEX_HD inline float hd_2d_bilinear(const float* in, int nx, int ny, float xs, float ys) {
  // Written so that a NaN position also lands outside.
  if (!(xs >= 0.0f && xs <= (float)(nx - 1) && ys >= 0.0f && ys <= (float)(ny - 1))) return 0.0f;
  const int ix = (int)xs, iy = (int)ys;
  const float fx = xs - (float)ix, fy = ys - (float)iy;
  const int rx = fx != 0.0f ? ix + 1 : ix;
  const int ly = fy != 0.0f ? iy + 1 : iy;
  const long row0 = (long)iy * nx, row1 = (long)ly * nx;
  const float a00 = in[row0 + ix], a10 = in[row0 + rx];
  const float a01 = in[row1 + ix], a11 = in[row1 + rx];
  return a00 + fx * (a10 - a00) + fy * (a01 - a00) + fy * fx * (a00 + a11 - a10 - a01);
}

// Pixel (x, y) of the nx x ny image in rotated about its centre, c and s the
// cosine and sine of the angle.
GVEX_HD inline float hd_2d_rotated(const float* in, int nx, int ny, float c, float s, int x, int y) {
  const float cx = (nx - 1) * 0.5f, cy = (ny - 1) * 0.5f;
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float xs = cx + dx * c + dy * s;
  const float ys = cy + dy * c - dx * s;
  return hd_2d_bilinear(in, nx, ny, xs, ys);
}

// ---- scaling and rotation (device) ----
// Output side of a scaled image: trunc(n * factor), float product.
inline int hd_scaled_size(int n, float factor) { return (int)((float)n * factor); }
// out is hd_scaled_size(nx) x hd_scaled_size(ny); centres map to centres.
void hcuda_2d_scale(float* d_out, const float* d_in, int nx, int ny, float factor);
// Host stack in, host stack out (image k at k*nxo*nyo).
void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float factor);
// Rotate by angle degrees about ((nx-1)/2, (ny-1)/2); sources outside give 0.
void hcuda_2d_rotate(const float* d_in, float* d_out, int nx, int ny, float angle);


// ---- whole-image fills (device) ----
void hcuda_2d_divide_inplace(float* d_p, int nx, int ny, float s);  // true division
