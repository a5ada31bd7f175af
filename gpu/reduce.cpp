// Host twin of gpu/reduce.cu, and the pass driver shared by both back ends.
#include "gpu/reduce.h"

#include <cstring>

#include "gpu/device.h"
#include "gpu/device_cuda.h"
#include "gpu/launch.h"
#include "gpu/pool.h"


static void host_reduce_pass(const float* in, float* out, unsigned long n) {
  const long blocks = (long)gvex_blocks_1d(n);
#pragma omp parallel for schedule(static) if (n >= (unsigned long)GVEX_OMP_MIN)
  for (long b = 0; b < blocks; b++) {
    float s[GVEX_REDUCE_BLOCK];
    const unsigned long base = (unsigned long)b * GVEX_REDUCE_BLOCK;
    for (int t = 0; t < GVEX_REDUCE_BLOCK; t++) s[t] = base + t < n ? in[base + t] : 0.0f;
    for (int stride = 1; stride < GVEX_REDUCE_BLOCK; stride *= 2)
      for (int t = 0; t < GVEX_REDUCE_BLOCK / 2; t++) hd_tree_step(s, t, stride);
    out[b] = s[0];
  }
}

void gvex_reduce_pass(const float* d_in, float* d_out, unsigned long n) {
#if defined(GVEX_WITH_CUDA)
  if (gvex_on_gpu()) {
    gvex_cuda_reduce_pass(d_in, d_out, n);
    return;
  }
#endif
  host_reduce_pass(d_in, d_out, n);
}

// Passes ping-pong between two scratch arrays so that every pass reads all
// its inputs before any output lands.
static float tree_sum(const float* d_p, unsigned long n) {
  if (n == 0) return 0.0f;
  unsigned long m = gvex_blocks_1d(n);
  PooledArray<float> a(m), b(m > 1 ? gvex_blocks_1d(m) : 1);
  float* src = a.get();
  float* dst = b.get();
  gvex_reduce_pass(d_p, src, n);
  while (m >= 2) {
    gvex_reduce_pass(src, dst, m);
    m = gvex_blocks_1d(m);
    float* t = src;
    src = dst;
    dst = t;
  }
  float s = 0.0f;
  memcpy_D2H(&s, src, sizeof(float));
  return s;
}

float hcuda_fast_sum(const float* d_p, unsigned long n) { return tree_sum(d_p, n); }

float hcuda_fast_sum_inplace(float* d_p, unsigned long n) {
  float s = tree_sum(d_p, n);
  if (n > 0) memcpy_H2D(d_p, &s, sizeof(float));
  return s;
}
