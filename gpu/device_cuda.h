// The CUDA twins of the device layer, in one place: what gpu/device.cu,
// gpu/cuda_fft.cu and gpu/reduce.cu define for the host-side units, which
// call them only when the CUDA back end is active.
#pragma once
#if defined(GVEX_WITH_CUDA)
#include "common/hd.h"

// cuFFT (gpu/cuda_fft.cu), loaded when the GPU is first used so that the
// same binary runs on the host where no CUDA toolkit is installed. Null
// when loaded, else why not. Each call below returns the cufftResult code.
const char* gvex_cufft_load();
int gvex_cufft_plan(int nx, int ny, bool forward, int* handle);
int gvex_cufft_plan_batch(int nx, int ny, int batch, bool forward, int* handle);
int gvex_cufft_r2c(int handle, const float* d_in, float2* d_out);
int gvex_cufft_c2r(int handle, float2* d_in, float* d_out);
void gvex_cufft_destroy(int handle);

// One pass of the shared-memory block reduction (gpu/reduce.cu).
void gvex_cuda_reduce_pass(const float* d_in, float* d_out, unsigned long n);

// Device layer (gpu/device.cu).
namespace gvex_cuda {
int device_count();                                // 0 when no GPU answers
bool device_props(int id, int& major, int& minor);  // properties readable
// Makes id current and checks that this binary can work there: code for
// its compute capability in the launcher's kernels, and cuFFT loaded. Null
// when it can, else why not.
const char* usable(int id);
const char* device_name(int id);
int malloc_bytes(void** p, unsigned long bytes);  // platform error code
void free_bytes(void* p);
int host_alloc(void** p, unsigned long bytes);  // page-locked; platform error code
void host_free(void* p);
int copy(void* dst, const void* src, unsigned long bytes, int kind);  // 1 H2D, 2 D2H, 3 D2D
int mem_info(unsigned long& free_b, unsigned long& total_b, const char** err);
const char* sync_error();  // null when the device is fine
const char* error_text(int code);  // the platform's text for an error code
}  // namespace gvex_cuda
#endif
