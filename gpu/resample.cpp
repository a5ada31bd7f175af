// Shrinking, bilinear scaling and rotation, paste/cut and fills.
#include "gpu/resample.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/errors.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/pool.h"

static const char* const gvex_module = "process2d_raw";

static void shrink_factor_error(const char* func, int line) {
  printf("Error in function %s(), file %s on line %d: %s!\n", func, gvex_module, line,
         "Wrong value of shrink_factor. Must be >=1");
  fflush(stdout);
}

// Block means of the nxo x nyo whole f x f blocks of in (row length nx) into
// out with row stride ostride. Every output pixel accumulates its block row
// by row, left to right, from 0, whatever F; F = 2, 3, 4 only let the
// compiler unroll the inner sums. Rows of out are independent, so the
// threads do not change the result.
template <int F>
static void shrink_blocks(float* out, long ostride, const float* in, int nx, int nxo, int nyo, int f_any) {
  const int f = F ? F : f_any;
  const float div = (float)(f * f);
#pragma omp parallel for schedule(static) if ((long)nxo * nyo * f * f >= (1L << 18))
  for (int yo = 0; yo < nyo; yo++) {
    float* o = out + (long)yo * ostride;
    for (int xo = 0; xo < nxo; xo++) o[xo] = 0.0f;
    for (int r = 0; r < f; r++) {
      const float* row = in + ((long)yo * f + r) * nx;
      for (int xo = 0; xo < nxo; xo++) {
        const float* q = row + (long)xo * f;
        float s = o[xo];
        for (int c = 0; c < f; c++) s += q[c];
        o[xo] = s;
      }
    }
    for (int xo = 0; xo < nxo; xo++) o[xo] /= div;
  }
}

static void shrink_any(float* out, long ostride, const float* in, int nx, int nxo, int nyo, int f) {
  if (nxo <= 0 || nyo <= 0) return;
  switch (f) {
    case 2: shrink_blocks<2>(out, ostride, in, nx, nxo, nyo, f); break;
    case 3: shrink_blocks<3>(out, ostride, in, nx, nxo, nyo, f); break;
    case 4: shrink_blocks<4>(out, ostride, in, nx, nxo, nyo, f); break;
    default: shrink_blocks<0>(out, ostride, in, nx, nxo, nyo, f); break;
  }
}

void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int f) {
  if (f < 1) {
    shrink_factor_error("cpu_2d_meanshrink", __LINE__);
    return;
  }
  if (nx <= 0 || ny <= 0) return;
  if (f == 1) {
    memcpy(out, in, (size_t)nx * ny * sizeof(float));
    return;
  }
  shrink_any(out, nx / f, in, nx, nx / f, ny / f, f);
}

void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int f) {
  if (f < 1) {
    shrink_factor_error("cpu_2ds_meanshrink", __LINE__);
    return;
  }
  if (nx <= 0 || ny <= 0) return;
  const long in_size = (long)nx * ny, out_size = (long)(nx / f) * (ny / f);
  for (int k = 0; k < nz; k++) cpu_2d_meanshrink(out + k * out_size, in + k * in_size, nx, ny, f);
}

void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int f) {
  if (f < 1) {
    shrink_factor_error("cpu_2d_meanshrink_extended_even_square", __LINE__);
    return;
  }
  const int nxo = hd_even_shrink_size(nx, f), nyo = hd_even_shrink_size(ny, f);
  const long S = nxo > nyo ? nxo : nyo;
  if (nxo <= 0 || nyo <= 0) {
    cpu_2d_extend_to_square_mirror_inplace(out, nxo, nyo);  // fatal unless both are 0
    return;
  }
  if (f == 1) {
    // One block copy only where the rows already have the output stride.
    if (nxo == nx && S == nxo)
      memcpy(out, in, (size_t)nxo * nyo * sizeof(float));
    else
      for (int y = 0; y < nyo; y++) memcpy(out + y * S, in + (long)y * nx, (size_t)nxo * sizeof(float));
  } else {
    shrink_any(out, S, in, nx, nxo, nyo, f);
  }
  if (nxo != nyo) cpu_2d_extend_to_square_mirror_inplace(out, nxo, nyo);
}

void cpu_2d_extend_to_square_mirror_inplace(float* p, int nx, int ny) {
  if (nx == ny) return;
  const long lx = nx, ly = ny;
  if (ly < lx && lx < 2 * ly) {
    // Wide: rows ny..nx-1 mirror rows ny-1 downwards, stride nx.
    for (long y = ly; y < lx; y++) memcpy(p + y * lx, p + (2 * ly - y - 1) * lx, (size_t)lx * sizeof(float));
  } else if (lx < ly && ly < 2 * lx) {
    // Tall: columns nx..ny-1 mirror column nx-1 leftwards, stride ny.
    for (long y = 0; y < ly; y++) {
      float* row = p + y * ly;
      for (long x = lx; x < ly; x++) row[x] = row[2 * lx - x - 1];
    }
  } else {
    GVEX_FAIL("Make sure: Ny/2 < Nx < 2Ny");
  }
}

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

void cpu_x2d_extract_small_from_large(float* small, int nx, int ny, const float* large, int NX, int NY, int x0,
                                      int y0) {
  for (long y = 0; y < ny; y++) {
    float* row = small + y * nx;
    const long yl = (long)y0 + y;
    if (yl < 0 || yl >= NY) {
      for (long x = 0; x < nx; x++) row[x] = 0.0f;
      continue;
    }
    const float* src = large + yl * NX;
    for (long x = 0; x < nx; x++) {
      const long xl = (long)x0 + x;
      row[x] = (xl >= 0 && xl < NX) ? src[xl] : 0.0f;
    }
  }
}

void hcuda_2d_divide_inplace(float* d_p, int nx, int ny, float s) {
  float* p = d_p;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) {
    const long i = (long)y * nx + x;
    p[i] = p[i] / s;
  });
}
