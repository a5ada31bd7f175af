// Host-only image arithmetic (see host_image.h).
#include "common/host_image.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/errors.h"
#include "common/hd.h"
#include "common/hm_math.h"

// The module names of these lines are fixed texts (tests and users match them).
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

void cpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float w) {
  const float rw = r + w;
  const float s = w / 3.0f;
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const float dx = (float)x - cx, dy = (float)y - cy;
      const float d2 = dx * dx + dy * dy;
      float v;
      if (d2 > rw * rw)
        v = 0.0f;
      else if (d2 <= r * r)
        v = 1.0f;
      else {
        const float e = sqrtf(d2) - r;
        if (s == 0.0f)
          v = e == 0.0f ? 1.0f : 0.0f;
        else
          v = expf(-(e * e) / (2.0f * s * s));
      }
      mask[y * nx + x] = v;
    }
}

void cpu_2d_normz_withRmask_applymask_inplace(float* p, int nx, int ny, float cx, float cy, float r, float w) {
  if (nx <= 0 || ny <= 0) return;
  const unsigned long n = (unsigned long)nx * ny;
  std::vector<float> mask(n);
  cpu_2d_generate_rmask_soft(mask.data(), nx, ny, cx, cy, r, w);
  // An empty mask only warns here; the divisions below then give NaN/inf.
  const double M = hm_sum_check0(mask.data(), n);
  double m = 0.0;
  for (unsigned long i = 0; i < n; i++) m += (double)p[i] * mask[i];
  m /= M;
  double ss = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    const double d = (double)p[i] - m;
    ss += mask[i] * d * d;
  }
  const double s = sqrt(ss / M);
  for (unsigned long i = 0; i < n; i++) {
    p[i] = (float)(((double)p[i] - m) / s);
    p[i] = p[i] * mask[i];
  }
}
