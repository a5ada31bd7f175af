// CUDA twin of gpu/reduce.cpp: the shared-memory block reduction.
#include "gpu/device.h"
#include "gpu/device_cuda.h"
#include "gpu/launch.h"
#include "gpu/reduce.h"

__global__ void cuda_reduce_data_for_sum(const float* in, float* out, unsigned long n) {
  __shared__ float s[GVEX_REDUCE_BLOCK];
  const int t = threadIdx.x;
  const unsigned long i = (unsigned long)blockIdx.x * GVEX_REDUCE_BLOCK + t;
  s[t] = i < n ? in[i] : 0.0f;
  for (int stride = 1; stride < GVEX_REDUCE_BLOCK; stride *= 2) {
    __syncthreads();
    hd_tree_step(s, t, stride);
  }
  if (t == 0) out[blockIdx.x] = s[0];
}

void gvex_cuda_reduce_pass(const float* d_in, float* d_out, unsigned long n) {
  if (n > 0) cuda_reduce_data_for_sum<<<gvex_blocks_1d(n), GVEX_REDUCE_BLOCK>>>(d_in, d_out, n);
  gvex_check_kernel(__FILE__, __LINE__);
}
