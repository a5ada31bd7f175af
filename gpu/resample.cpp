// Shrinking, bilinear scaling and rotation, paste/cut and fills.
#include "gpu/resample.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/errors.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/pool.h"

void hcuda_2d_scale(float* d_out, const float* d_in, int nx, int ny, float factor) {
  const int nxo = hd_scaled_size(nx, factor), nyo = hd_scaled_size(ny, factor);
  const float r = 1.0f / factor;
  const float cxi = (nx - 1) * 0.5f, cyi = (ny - 1) * 0.5f;
  const float cxo = (nxo - 1) * 0.5f, cyo = (nyo - 1) * 0.5f;
  float* out = d_out;
  const float* in = d_in;
  launch_2d(GVEX_SITE, nxo, nyo, GVEX_LAMBDA(int x, int y) {
    const float xs = cxi + ((float)x - cxo) * r;
    const float ys = cyi + ((float)y - cyo) * r;
    out[(long)y * nxo + x] = hd_2d_bilinear(in, nx, ny, xs, ys);
  });
}

static const char* copy_error_text(int rc) {
#if defined(__CUDACC__)
  return cudaGetErrorString((cudaError_t)rc);
#else
  (void)rc;
  return "host copy failed";
#endif
}

void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float factor) {
  const int nxo = hd_scaled_size(nx, factor), nyo = hd_scaled_size(ny, factor);
  if (nx <= 0 || ny <= 0 || nxo <= 0 || nyo <= 0 || nz <= 0) return;
  const long in_size = (long)nx * ny, out_size = (long)nxo * nyo;
  PooledArray<float> d_in(in_size), d_out(out_size);
  for (int k = 0; k < nz; k++) {
    const int rc = memcpy_H2D(d_in.get(), in + k * in_size, in_size * sizeof(float));
    if (rc != 0) gvex_device_error(copy_error_text(rc), __LINE__, __FILE__);
    hcuda_2d_scale(d_out.get(), d_in.get(), nx, ny, factor);
    memcpy_D2H(out + k * out_size, d_out.get(), out_size * sizeof(float));
  }
}

void hcuda_2d_rotate(const float* d_in, float* d_out, int nx, int ny, float angle) {
  // Taken once on the host so that both back ends use the same two values.
  const float rad = angle * 0.017453292f;
  const float c = cosf(rad), s = sinf(rad);
  float* out = d_out;
  const float* in = d_in;
  launch_2d(GVEX_SITE, nx, ny,
            GVEX_LAMBDA(int x, int y) { out[(long)y * nx + x] = hd_2d_rotated(in, nx, ny, c, s, x, y); });
}

void hcuda_2d_divide_inplace(float* d_p, int nx, int ny, float s) {
  float* p = d_p;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) {
    const long i = (long)y * nx + x;
    p[i] = p[i] / s;
  });
}
