// Geometry on single 2-D float images (row-major, x fastest, nx columns by
// ny rows): block-mean shrinking into an even square, bilinear scaling and
// rotation about the centre, centred paste, window cut, whole-image fills.
// cpu_ functions take host arrays, hcuda_ ones device arrays, gpu_ ones host
// arrays copied through the device.
#pragma once
#include "common/hd.h"

// ---- shrinking (host) ----
// Block mean by f to (nx/f) x (ny/f); f = 1 copies, f < 1 prints an error
// line and leaves out untouched (the run goes on).
void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int f);
// The same for nz stacked images.
void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int f);
// Block mean by f to nxo = (nx/(2f))*2 by nyo = (ny/(2f))*2, written with
// row stride S = max(nxo, nyo) into an S x S buffer and mirror-filled.
void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int f);
// Output sizes of the even square shrink.
inline int hd_even_shrink_size(int n, int f) { return (n / (2 * f)) * 2; }
// Fill the square max(nx, ny) buffer holding an nx x ny image by mirroring
// about its last row (wide) or last column (tall); fatal when one side is at
// least twice the other.
void cpu_2d_extend_to_square_mirror_inplace(float* p, int nx, int ny);

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

// ---- paste and cut ----
// large[(y + (NY-ny)/2)*NX + x + (NX-nx)/2] = small[y*nx + x]; nothing else
// of large is written. A small image larger than the large one is fatal.
// Host window with top-left corner (x0, y0) of large; zeros outside large.
void cpu_x2d_extract_small_from_large(float* small, int nx, int ny, const float* large, int NX, int NY, int x0,
                                      int y0);

// ---- whole-image fills (device) ----
void hcuda_2d_divide_inplace(float* d_p, int nx, int ny, float s);  // true division
