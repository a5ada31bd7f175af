// CUDA twin of gpu/cuda_fft.cpp (host FFT back end, dispatch and kernels).
// cuFFT plans of ny rows by nx columns, single precision.
//
// cuFFT is loaded at run time rather than linked: the library is larger
// than everything else together and belongs to the CUDA toolkit, not the
// driver, so a binary linked against it would not even start on a machine
// without the toolkit, where the host back end should simply take over.
#include <cufft.h>
#include <dlfcn.h>

#include <cstdio>
#include <string>

#include "common/hd.h"
#include "gpu/device_cuda.h"

#define GVEX_STR2(x) #x
#define GVEX_STR(x) GVEX_STR2(x)

namespace {

struct CufftApi {
  decltype(&cufftPlan2d) plan2d = nullptr;
  decltype(&cufftPlanMany) plan_many = nullptr;
  decltype(&cufftExecR2C) exec_r2c = nullptr;
  decltype(&cufftExecC2R) exec_c2r = nullptr;
  decltype(&cufftDestroy) destroy = nullptr;
};

CufftApi g_api;

template <class T>
bool bind(void* lib, const char* name, T& f) {
  f = reinterpret_cast<T>(dlsym(lib, name));
  return f != nullptr;
}

}  // namespace

const char* gvex_cufft_load() {
  static bool tried = false;
  static std::string why;
  if (tried) return why.empty() ? nullptr : why.c_str();
  tried = true;
  // The major version this build was compiled against; the usual search
  // path first (LD_LIBRARY_PATH, the system's cache), then the toolkit the
  // build used and the toolkit's customary home.
  const std::string soname = "libcufft.so." GVEX_STR(CUFFT_VER_MAJOR);
  std::string places[] = {soname,
#if defined(GVEX_CUFFT_DIR)
                          std::string(GVEX_CUFFT_DIR) + "/" + soname,
#endif
                          "/usr/local/cuda/lib64/" + soname};
  void* lib = nullptr;
  std::string first_error;
  for (const std::string& p : places) {
    lib = dlopen(p.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib) break;
    if (first_error.empty()) first_error = dlerror();
  }
  if (!lib) {
    why = "cuFFT could not be loaded (" + first_error + ")";
    return why.c_str();
  }
  if (!bind(lib, "cufftPlan2d", g_api.plan2d) || !bind(lib, "cufftPlanMany", g_api.plan_many) ||
      !bind(lib, "cufftExecR2C", g_api.exec_r2c) || !bind(lib, "cufftExecC2R", g_api.exec_c2r) ||
      !bind(lib, "cufftDestroy", g_api.destroy)) {
    why = "the cuFFT library found lacks a function this build needs";
    return why.c_str();
  }
  return nullptr;
}

int gvex_cufft_plan(int nx, int ny, bool forward, int* handle) {
  cufftHandle h = 0;
  cufftResult r = g_api.plan2d(&h, ny, nx, forward ? CUFFT_R2C : CUFFT_C2R);
  *handle = r == CUFFT_SUCCESS ? (int)h : -1;
  return (int)r;
}

int gvex_cufft_plan_batch(int nx, int ny, int batch, bool forward, int* handle) {
  cufftHandle h = 0;
  int n[2] = {ny, nx};
  // Images packed back to back in both domains (default layout).
  cufftResult r = g_api.plan_many(&h, 2, n, nullptr, 1, 0, nullptr, 1, 0, forward ? CUFFT_R2C : CUFFT_C2R, batch);
  *handle = r == CUFFT_SUCCESS ? (int)h : -1;
  return (int)r;
}

int gvex_cufft_r2c(int handle, const float* d_in, float2* d_out) {
  return (int)g_api.exec_r2c((cufftHandle)handle, const_cast<cufftReal*>(d_in), (cufftComplex*)d_out);
}

int gvex_cufft_c2r(int handle, float2* d_in, float* d_out) {
  return (int)g_api.exec_c2r((cufftHandle)handle, (cufftComplex*)d_in, (cufftReal*)d_out);
}

void gvex_cufft_destroy(int handle) {
  if (g_api.destroy) g_api.destroy((cufftHandle)handle);
}
