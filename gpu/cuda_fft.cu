// CUDA twin of gpu/cuda_fft.cpp (host FFT back end, dispatch and kernels).
// cuFFT plans of ny rows by nx columns, single precision.
#include <cufft.h>

#include "common/hd.h"
#include "gpu/device_cuda.h"

int gvex_cufft_plan(int nx, int ny, bool forward, int* handle) {
  cufftHandle h = 0;
  cufftResult r = cufftPlan2d(&h, ny, nx, forward ? CUFFT_R2C : CUFFT_C2R);
  *handle = r == CUFFT_SUCCESS ? (int)h : -1;
  return (int)r;
}

int gvex_cufft_plan_batch(int nx, int ny, int batch, bool forward, int* handle) {
  cufftHandle h = 0;
  int n[2] = {ny, nx};
  // Images packed back to back in both domains (default layout).
  cufftResult r = cufftPlanMany(&h, 2, n, nullptr, 1, 0, nullptr, 1, 0, forward ? CUFFT_R2C : CUFFT_C2R, batch);
  *handle = r == CUFFT_SUCCESS ? (int)h : -1;
  return (int)r;
}

int gvex_cufft_r2c(int handle, const float* d_in, float2* d_out) {
  return (int)cufftExecR2C((cufftHandle)handle, const_cast<cufftReal*>(d_in), (cufftComplex*)d_out);
}

int gvex_cufft_c2r(int handle, float2* d_in, float* d_out) {
  return (int)cufftExecC2R((cufftHandle)handle, (cufftComplex*)d_in, (cufftReal*)d_out);
}

void gvex_cufft_destroy(int handle) { cufftDestroy((cufftHandle)handle); }
