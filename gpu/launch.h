// Names by layer: element bodies are `cuda_*` (GVEX_HD, one element or pixel),
// launched only through launch_1d / launch_2d; entry points are `hcuda_*` on device arrays, `gpu_*` on host arrays.
//
// Launch helpers: a kernel body is written once as a GVEX_LAMBDA and run
// either as a CUDA kernel with the fixed launch shapes (1-D: blocks of 1024,
// (n + 1023) >> 10 blocks; 2-D: 32 x 32 blocks) or as a host loop; `hd_*`
// are scalar helpers usable on both sides.
#pragma once
#include "common/hd.h"
#include "gpu/device.h"

struct gvex_site {
  const char* file;
  int line;
};
#define GVEX_SITE (gvex_site{__FILE__, __LINE__})

inline unsigned int gvex_blocks_1d(unsigned long n) { return (unsigned int)((n + 1023) >> 10); }
inline unsigned int gvex_blocks_2d(int n) { return (unsigned int)((n + 31) / 32); }

// The largest shapes the launchers take: a 1-D thread index is a 32-bit
// signed number, and a grid has at most 65535 blocks in y. The device would
// refuse a larger 2-D grid and skip the kernel without a word, and a larger
// 1-D range would leave its tail untouched, so both end the run instead.
// Callers keep their arrays below these limits (the working size is bounded
// for that); this is the last line of defence, never the plan.
constexpr unsigned long GVEX_LAUNCH_MAX_1D = 1UL << 31;
constexpr int GVEX_LAUNCH_MAX_ROWS = 65535 * 32;
[[noreturn]] void gvex_launch_too_large(const char* source_path, int line, unsigned long nx, unsigned long ny);

#if defined(__CUDACC__)
template <class F>
__global__ void gvex_kernel_1d(unsigned long n, F f) {
  int i = blockIdx.x * 1024 + threadIdx.x;  // 32-bit signed index
  if (i < 0 || (unsigned long)i >= n) return;
  f(i);
}
template <class F>
__global__ void gvex_kernel_2d(int nx, int ny, F f) {
  int x = blockIdx.x * 32 + threadIdx.x;
  int y = blockIdx.y * 32 + threadIdx.y;
  if (x >= nx || y >= ny) return;
  f(x, y);
}
#endif

// Host loops use OpenMP only where the array is large enough to pay for it.
constexpr long GVEX_OMP_MIN = 1L << 15;

template <class F>
void launch_1d(gvex_site s, unsigned long n, F f) {
  if (n > GVEX_LAUNCH_MAX_1D) gvex_launch_too_large(s.file, s.line, n, 1);
#if defined(__CUDACC__)
  if (gvex_on_gpu()) {
    if (n > 0) gvex_kernel_1d<<<gvex_blocks_1d(n), 1024>>>(n, f);
    gvex_check_kernel(s.file, s.line);
    return;
  }
#endif
  const long m = (long)n;
#pragma omp parallel for schedule(static) if (m >= GVEX_OMP_MIN)
  for (long i = 0; i < m; i++) f((int)i);
}

template <class F>
void launch_2d(gvex_site s, int nx, int ny, F f) {
  if (ny > GVEX_LAUNCH_MAX_ROWS) gvex_launch_too_large(s.file, s.line, (unsigned long)nx, (unsigned long)ny);
#if defined(__CUDACC__)
  if (gvex_on_gpu()) {
    if (nx > 0 && ny > 0) {
      dim3 grid(gvex_blocks_2d(nx), gvex_blocks_2d(ny));
      gvex_kernel_2d<<<grid, dim3(32, 32)>>>(nx, ny, f);
    }
    gvex_check_kernel(s.file, s.line);
    return;
  }
#endif
  if (nx <= 0 || ny <= 0) return;
#pragma omp parallel for schedule(static) if ((long)nx * ny >= GVEX_OMP_MIN)
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) f(x, y);
}
