// CUDA twin of gpu/device.cpp (host back end and dispatch).
#include <cuda_runtime.h>

#include <cstdio>

#include "gpu/device_cuda.h"
#include "gpu/launch.h"

#ifndef GVEX_CUDA_ARCH_LIST
#define GVEX_CUDA_ARCH_LIST "(not recorded)"
#endif

namespace {
// Stands for every kernel of the launcher: all are built for the same
// architectures, so if this one has code for the device, they all have.
struct ProbeFill {
  float* p;
  __device__ void operator()(int i) const { p[i] = 0.0f; }
};
}  // namespace

namespace gvex_cuda {

int device_count() {
  int n = 0;
  if (cudaGetDeviceCount(&n) != cudaSuccess) {
    cudaGetLastError();
    return 0;
  }
  return n;
}

bool device_props(int id, int& major, int& minor) {
  cudaDeviceProp prop;
  if (cudaGetDeviceProperties(&prop, id) != cudaSuccess) {
    cudaGetLastError();
    return false;
  }
  major = prop.major;
  minor = prop.minor;
  return true;
}

const char* usable(int id) {
  static char why[400];
  cudaError_t e = cudaSetDevice(id);
  if (e != cudaSuccess) {
    cudaGetLastError();
    snprintf(why, sizeof why, "it cannot be made current (%s)", cudaGetErrorString(e));
    return why;
  }
  cudaFuncAttributes attr;
  e = cudaFuncGetAttributes(&attr, gvex_kernel_1d<ProbeFill>);
  if (e != cudaSuccess) {
    cudaGetLastError();
    snprintf(why, sizeof why, "this build holds no code for it (%s; built for %s)", cudaGetErrorString(e),
             GVEX_CUDA_ARCH_LIST);
    return why;
  }
  if (const char* cufft = gvex_cufft_load()) {
    snprintf(why, sizeof why, "%s", cufft);
    return why;
  }
  return nullptr;
}

const char* device_name(int id) {
  static cudaDeviceProp prop;
  if (cudaGetDeviceProperties(&prop, id) != cudaSuccess) return "unknown GPU";
  return prop.name;
}

int malloc_bytes(void** p, unsigned long bytes) {
  cudaError_t e = cudaMalloc(p, bytes ? bytes : 1);
  if (e != cudaSuccess) {
    cudaGetLastError();
    *p = nullptr;
  }
  return (int)e;
}

void free_bytes(void* p) {
  if (p) cudaFree(p);
}

int host_alloc(void** p, unsigned long bytes) {
  cudaError_t e = cudaMallocHost(p, bytes ? bytes : 1);
  if (e != cudaSuccess) {
    cudaGetLastError();
    *p = nullptr;
  }
  return (int)e;
}

void host_free(void* p) {
  if (p) cudaFreeHost(p);
}

int copy(void* dst, const void* src, unsigned long bytes, int kind) {
  cudaMemcpyKind k = kind == 1 ? cudaMemcpyHostToDevice
                     : kind == 2 ? cudaMemcpyDeviceToHost
                                 : cudaMemcpyDeviceToDevice;
  return (int)cudaMemcpy(dst, src, bytes, k);
}

int mem_info(unsigned long& free_b, unsigned long& total_b, const char** err) {
  size_t f = 0, t = 0;
  cudaError_t e = cudaMemGetInfo(&f, &t);
  free_b = f;
  total_b = t;
  *err = cudaGetErrorString(e);
  return (int)e;
}

const char* error_text(int code) { return cudaGetErrorString((cudaError_t)code); }

const char* sync_error() {
  cudaGetLastError();  // a refused launch configuration is not an error here
  cudaError_t e = cudaDeviceSynchronize();
  return e == cudaSuccess ? nullptr : cudaGetErrorString(e);
}

}  // namespace gvex_cuda
