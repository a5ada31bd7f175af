// Host twin of gpu/cuda_fft.cu: FFTW single-precision plans for the host back
// end, the dispatch between the two back ends, and the element-wise
// Fourier-space kernels shared by both.
#include "gpu/cuda_fft.h"

#include <fftw3.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <utility>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "common/atomic_file.h"
#include "common/regular_file.h"
#include "gpu/device.h"
#include "gpu/device_cuda.h"
#include "gpu/launch.h"
#include "gpu/resample.h"


// cuFFT result codes reported for host-side failures.
static const int FFT_ALLOC_FAILED = 2;
static const int FFT_SETUP_FAILED = 7;
static const int FFT_INVALID_SIZE = 8;

// Host plans of at least this many pixels are split into a fixed number of
// parallel jobs. The planner's choice, and so every bit of the result,
// depends on the job count, so it is a constant rather than the machine's
// thread count; the jobs then run on however many threads there are.
static const long FFT_JOBS_MIN_PIXELS = 256L * 256L;
static const int FFT_JOBS = 4;

int gvex_fft_plan_jobs(int nx, int ny) {
#if defined(GVEX_FFTW_THREADS)
  if ((long)nx * ny >= FFT_JOBS_MIN_PIXELS) return FFT_JOBS;
#endif
  (void)nx;
  (void)ny;
  return 1;
}

#if defined(GVEX_FFTW_THREADS)
// FFTW hands its parallel loops here: independent jobs, each writing its own
// part of the output, run on the host back end's threads.
static void fft_parallel_loop(void* (*work)(char*), char* jobdata, size_t elsize, int njobs, void* data) {
  (void)data;
#pragma omp parallel for schedule(static)
  for (int i = 0; i < njobs; i++) work(jobdata + elsize * (size_t)i);
}
#endif

static void host_fft_threads_init() {
#if defined(GVEX_FFTW_THREADS)
  static bool done = false;
  if (!done) {
    fftwf_init_threads();
    fftwf_threads_set_callback(fft_parallel_loop, nullptr);
    done = true;
  }
#endif
}

void gvex_fftw_plan_serial() {
  host_fft_threads_init();
#if defined(GVEX_FFTW_THREADS)
  fftwf_plan_with_nthreads(1);
#endif
}

// ---- planning ----

namespace {
enum class Planning { estimated, from_wisdom, measured };
Planning g_planning = Planning::estimated;
std::string g_wisdom_path;
long g_found = 0, g_asked = 0;

bool import_wisdom(const std::string& path, std::string& why) {
  // The threads' solvers must be registered first: wisdom only matches the
  // planner configuration it was made with.
  host_fft_threads_init();
  int ok;
  if (path.empty()) {
    ok = fftwf_import_system_wisdom();
    if (!ok) why = "no FFTW system wisdom (/etc/fftw/wisdomf)";
  } else {
    // A FIFO would wait for a writer for ever: only a file is read.
    const char* kind = "";
    FILE* fp = gvex_open_regular(path.c_str(), &kind);
    ok = fp && fftwf_import_wisdom_from_file(fp);
    if (fp) fclose(fp);
    if (!ok) why = "cannot read FFTW wisdom from " + path + (*kind ? std::string(": it is ") + kind : "");
  }
  return ok != 0;
}
}  // namespace

bool gvex_fft_plans_from_wisdom(const std::string& path, std::string& why) {
  if (!import_wisdom(path, why)) return false;
  g_planning = Planning::from_wisdom;
  g_wisdom_path = path.empty() ? "/etc/fftw/wisdomf" : path;
  return true;
}

bool gvex_fft_plans_measured(const std::string& path, std::string& why) {
  if (!path.empty() && access(path.c_str(), F_OK) == 0 && !import_wisdom(path, why)) return false;
  g_planning = Planning::measured;
  return true;
}

bool gvex_fft_write_wisdom(const std::string& path) {
  PartFile f(path.c_str(), "w");
  if (!f.fp()) return false;
  fftwf_export_wisdom_to_file(f.fp());
  return f.commit();
}

std::string gvex_fft_plans_text() {
  switch (g_planning) {
    case Planning::measured:
      return "measured";
    case Planning::from_wisdom:
      return "from wisdom " + g_wisdom_path +
             (g_asked ? " (" + std::to_string(g_found) + " of " + std::to_string(g_asked) + " found there, the rest estimated)"
                      : " (shapes it lacks are estimated)");
    default:
      return "estimated";
  }
}

void* gvex_fftw_make_plan(void* (*make)(unsigned flags, void* arg), void* arg, unsigned extra) {
  switch (g_planning) {
    case Planning::measured:
      return make(FFTW_MEASURE | extra, arg);
    case Planning::from_wisdom: {
      g_asked++;
      // Measured plans, but only as the wisdom has them: nothing is timed.
      if (void* p = make(FFTW_MEASURE | FFTW_WISDOM_ONLY | extra, arg)) {
        g_found++;
        return p;
      }
      return make(FFTW_ESTIMATE | extra, arg);
    }
    default:
      return make(FFTW_ESTIMATE | extra, arg);
  }
}

static bool aligned(const void* p) { return fftwf_alignment_of((float*)p) == 0; }

static bool overlap(const void* a, unsigned long na, const void* b, unsigned long nb) {
  const char* pa = static_cast<const char*>(a);
  const char* pb = static_cast<const char*>(b);
  return pa < pb + nb && pb < pa + na;
}

FftPlan2d::FftPlan2d(int nx, int ny, int host_jobs)
    : nx_(nx), ny_(ny), jobs_(host_jobs > 0 ? host_jobs : gvex_fft_plan_jobs(nx, ny)),
      gpu_(gvex_on_gpu()) {
  if (nx <= 0 || ny <= 0) gvex_check_fft(FFT_INVALID_SIZE, __FILE__, __LINE__);
}

FftPlan2d::~FftPlan2d() {
#if defined(GVEX_WITH_CUDA)
  if (dev_fwd_ >= 0) gvex_cufft_destroy(dev_fwd_);
  if (dev_inv_ >= 0) gvex_cufft_destroy(dev_inv_);
#endif
  if (host_fwd_) fftwf_destroy_plan((fftwf_plan)host_fwd_);
  if (host_inv_) fftwf_destroy_plan((fftwf_plan)host_inv_);
  fftwf_free(tmp_r_);
  fftwf_free(tmp_c_);
  hcuda_free(work_r_);
  hcuda_free(work_c_);
  hcuda_free(dev_tmp_r_);
  hcuda_free(dev_tmp_c_);
}

float* FftPlan2d::work_real() {
  if (!work_r_) safe_cudaMalloc((void**)&work_r_, (unsigned long)nx_ * ny_ * sizeof(float));
  return work_r_;
}

float2* FftPlan2d::work_complex() {
  if (!work_c_) safe_cudaMalloc((void**)&work_c_, (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2));
  return work_c_;
}

void FftPlan2d::make(bool forward) {
#if defined(GVEX_WITH_CUDA)
  if (gpu_) {
    int& h = forward ? dev_fwd_ : dev_inv_;
    gvex_check_fft(gvex_cufft_plan(nx_, ny_, forward, &h), __FILE__, __LINE__);
    return;
  }
#endif
#if defined(_OPENMP)
  // The host planner is not thread-safe: plans are made on the driving
  // thread only, never from inside a parallel loop.
  if (omp_in_parallel()) gvex_check_fft(FFT_SETUP_FAILED, __FILE__, __LINE__);
#endif
  // Estimated or from wisdom, never timed here: the plan, and so every bit of
  // the result, depends only on the shape, the job count and the wisdom.
  // The arrays only tell the planner the alignment; it does not touch them.
  const size_t nr = (size_t)nx_ * ny_;
  const size_t nc = (size_t)(nx_ / 2 + 1) * ny_;
  float* r = fftwf_alloc_real(nr);
  fftwf_complex* c = fftwf_alloc_complex(nc);
  if (!r || !c) {
    fftwf_free(r);
    fftwf_free(c);
    gvex_check_fft(FFT_ALLOC_FAILED, __FILE__, __LINE__);
  }
  host_fft_threads_init();
#if defined(GVEX_FFTW_THREADS)
  fftwf_plan_with_nthreads(jobs_);
#endif
  struct Args {
    int nx, ny;
    float* r;
    fftwf_complex* c;
  } a{nx_, ny_, r, c};
  fftwf_plan p = forward ? (fftwf_plan)gvex_fftw_make_plan(
                               [](unsigned f, void* v) -> void* {
                                 Args* a = (Args*)v;
                                 return fftwf_plan_dft_r2c_2d(a->ny, a->nx, a->r, a->c, f);
                               },
                               &a, 0)
                         : (fftwf_plan)gvex_fftw_make_plan(
                               [](unsigned f, void* v) -> void* {
                                 Args* a = (Args*)v;
                                 return fftwf_plan_dft_c2r_2d(a->ny, a->nx, a->c, a->r, f);
                               },
                               &a, FFTW_DESTROY_INPUT);
  fftwf_free(r);
  fftwf_free(c);
  if (!p) gvex_check_fft(FFT_SETUP_FAILED, __FILE__, __LINE__);
  (forward ? host_fwd_ : host_inv_) = (void*)p;
}

#if defined(GVEX_WITH_CUDA)
bool FftPlan2d::dev_aligned(const void* p) { return ((unsigned long)p & (GVEX_FFT_ALIGN - 1)) == 0; }

float* FftPlan2d::dev_scratch_real() {
  if (!dev_tmp_r_) safe_cudaMalloc((void**)&dev_tmp_r_, (unsigned long)nx_ * ny_ * sizeof(float));
  return dev_tmp_r_;
}

float2* FftPlan2d::dev_scratch_complex() {
  if (!dev_tmp_c_) safe_cudaMalloc((void**)&dev_tmp_c_, (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2));
  return dev_tmp_c_;
}
#endif

float* FftPlan2d::scratch_real() {
  if (!tmp_r_) {
    tmp_r_ = fftwf_alloc_real((size_t)nx_ * ny_);
    if (!tmp_r_) gvex_check_fft(FFT_ALLOC_FAILED, __FILE__, __LINE__);
  }
  return tmp_r_;
}

float2* FftPlan2d::scratch_complex() {
  if (!tmp_c_) {
    tmp_c_ = (float2*)fftwf_alloc_complex((size_t)(nx_ / 2 + 1) * ny_);
    if (!tmp_c_) gvex_check_fft(FFT_ALLOC_FAILED, __FILE__, __LINE__);
  }
  return tmp_c_;
}

void FftPlan2d::r2c(const float* d_in, float2* d_out) {
#if defined(GVEX_WITH_CUDA)
  if (gpu_) {
    if (dev_fwd_ < 0) make(true);
    // cuFFT refuses arrays that are not aligned to its vector loads (an
    // image of odd size inside a stack, say): those go through scratch.
    const float* in = d_in;
    if (!dev_aligned(d_in)) {
      in = dev_scratch_real();
      gvex_check_copy(memcpy_D2D((void*)in, d_in, (unsigned long)nx_ * ny_ * sizeof(float)), __FILE__, __LINE__);
    }
    float2* out = dev_aligned(d_out) ? d_out : dev_scratch_complex();
    gvex_check_fft(gvex_cufft_r2c(dev_fwd_, in, out), __FILE__, __LINE__);
    gvex_check_kernel(__FILE__, __LINE__);
    if (out != d_out)
      gvex_check_copy(memcpy_D2D(d_out, out, (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2)), __FILE__,
                      __LINE__);
    return;
  }
#endif
  if (!host_fwd_) make(true);
  const unsigned long nr = (unsigned long)nx_ * ny_ * sizeof(float);
  const unsigned long nc = (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2);
  // The plan was made for aligned arrays; anything else is staged so that
  // the same plan, and so the same bits, serve every caller.
  const float* in = d_in;
  if (!aligned(d_in)) {
    in = scratch_real();
    memcpy((void*)in, d_in, nr);
  }
  float2* out = d_out;
  if (!aligned(d_out) || overlap(d_in, nr, d_out, nc)) out = scratch_complex();
  fftwf_execute_dft_r2c((fftwf_plan)host_fwd_, (float*)in, (fftwf_complex*)out);
  if (out != d_out) memcpy(d_out, out, nc);
}

void FftPlan2d::c2r(float2* d_in, float* d_out) {
#if defined(GVEX_WITH_CUDA)
  if (gpu_) {
    if (dev_inv_ < 0) make(false);
    float2* in = d_in;
    if (!dev_aligned(d_in)) {
      in = dev_scratch_complex();
      gvex_check_copy(memcpy_D2D(in, d_in, (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2)), __FILE__,
                      __LINE__);
    }
    float* out = dev_aligned(d_out) ? d_out : dev_scratch_real();
    gvex_check_fft(gvex_cufft_c2r(dev_inv_, in, out), __FILE__, __LINE__);
    gvex_check_kernel(__FILE__, __LINE__);
    if (out != d_out)
      gvex_check_copy(memcpy_D2D(d_out, out, (unsigned long)nx_ * ny_ * sizeof(float)), __FILE__, __LINE__);
    return;
  }
#endif
  if (!host_inv_) make(false);
  const unsigned long nr = (unsigned long)nx_ * ny_ * sizeof(float);
  const unsigned long nc = (unsigned long)(nx_ / 2 + 1) * ny_ * sizeof(float2);
  float2* in = d_in;
  if (!aligned(d_in) || overlap(d_in, nc, d_out, nr)) {
    in = scratch_complex();
    memcpy(in, d_in, nc);
  }
  float* out = aligned(d_out) ? d_out : scratch_real();
  fftwf_execute_dft_c2r((fftwf_plan)host_inv_, (fftwf_complex*)in, out);
  if (out != d_out) memcpy(d_out, out, nr);
}

// ---- batches ----

FftPlanBatch::FftPlanBatch(int nx, int ny, int quantum) : nx_(nx), ny_(ny), quantum_(quantum) {
  if (nx <= 0 || ny <= 0 || quantum <= 0) gvex_check_fft(FFT_INVALID_SIZE, __FILE__, __LINE__);
}

FftPlanBatch::~FftPlanBatch() {
#if defined(GVEX_WITH_CUDA)
  if (dev_fwd_ >= 0) gvex_cufft_destroy(dev_fwd_);
  if (dev_inv_ >= 0) gvex_cufft_destroy(dev_inv_);
#endif
}

void FftPlanBatch::r2c(const float* d_in, float2* d_out, int count) {
  const unsigned long nr = (unsigned long)nx_ * ny_, nc = (unsigned long)(nx_ / 2 + 1) * ny_;
#if defined(GVEX_WITH_CUDA)
  if (gvex_on_gpu()) {
    if (dev_fwd_ < 0)
      gvex_check_fft(gvex_cufft_plan_batch(nx_, ny_, quantum_, true, &dev_fwd_), __FILE__, __LINE__);
    for (int k = 0; k < count; k += quantum_)
      gvex_check_fft(gvex_cufft_r2c(dev_fwd_, d_in + k * nr, d_out + k * nc), __FILE__, __LINE__);
    gvex_check_kernel(__FILE__, __LINE__);
    return;
  }
#endif
  FftPlan2d& p = gvex_fft_plan(nx_, ny_);
  for (int k = 0; k < count; k++) p.r2c(d_in + k * nr, d_out + k * nc);
}

void FftPlanBatch::c2r(float2* d_in, float* d_out, int count) {
  const unsigned long nr = (unsigned long)nx_ * ny_, nc = (unsigned long)(nx_ / 2 + 1) * ny_;
#if defined(GVEX_WITH_CUDA)
  if (gvex_on_gpu()) {
    if (dev_inv_ < 0)
      gvex_check_fft(gvex_cufft_plan_batch(nx_, ny_, quantum_, false, &dev_inv_), __FILE__, __LINE__);
    for (int k = 0; k < count; k += quantum_)
      gvex_check_fft(gvex_cufft_c2r(dev_inv_, d_in + k * nc, d_out + k * nr), __FILE__, __LINE__);
    gvex_check_kernel(__FILE__, __LINE__);
    return;
  }
#endif
  FftPlan2d& p = gvex_fft_plan(nx_, ny_);
  for (int k = 0; k < count; k++) p.c2r(d_in + k * nc, d_out + k * nr);
}

// ---- plan cache ----

using PlanCache = std::map<std::pair<int, int>, std::unique_ptr<FftPlan2d>>;

// Never destroyed at exit: cuFFT plans must not outlive the CUDA runtime.
static PlanCache& plan_cache() {
  static PlanCache* cache = new PlanCache;
  return *cache;
}

FftPlan2d& gvex_fft_plan(int nx, int ny) {
  PlanCache& c = plan_cache();
  std::unique_ptr<FftPlan2d>& p = c[std::make_pair(nx, ny)];
  if (!p) p.reset(new FftPlan2d(nx, ny));
  return *p;
}

void gvex_fft_plan_cache_clear() { plan_cache().clear(); }

// ---- whole transforms ----

// ---- element-wise operations ----

void hcuda_c2d_multconj_norm(const float2* d_A, const float2* d_B, float2* d_out, int nxh, int ny, float s) {
  launch_2d(GVEX_SITE, nxh, ny, GVEX_LAMBDA(int x, int y) {
    const int i = y * nxh + x;
    d_out[i] = cuda_multconj_norm(d_A[i], d_B[i], s);
  });
}

void hcuda_c2d_multconj_norm_inplace(float2* d_A, const float2* d_B, int nxh, int ny, float s) {
  launch_2d(GVEX_SITE, nxh, ny, GVEX_LAMBDA(int x, int y) {
    const int i = y * nxh + x;
    d_A[i] = cuda_multconj_norm(d_A[i], d_B[i], s);
  });
}

void hcuda_2d_swap_ccf_inplace(float* d_p, int nx, int ny) {
  const int hx = nx / 2, hy = ny / 2;
  // Each thread of the upper half owns one pair, so no two threads touch
  // the same element when both sizes are even.
  launch_2d(GVEX_SITE, nx, hy, GVEX_LAMBDA(int x, int y) {
    const int i = y * nx + x;
    const int j = ((y + hy) % ny) * nx + (x + hx) % nx;
    const float t = d_p[i];
    d_p[i] = d_p[j];
    d_p[j] = t;
  });
}
