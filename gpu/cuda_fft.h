// 2-D real Fourier transforms and the Fourier-space operations built on them.
//
// Layout: an nx x ny real image (x fastest) transforms into a half spectrum
// of ny rows of nxh = nx/2 + 1 complex values (float2: re, im), element
// (kx, ky) at ky*nxh + kx, rows in natural order (row ky is frequency ky
// below ny/2, ky - ny above). Forward transforms use exponent sign -1,
// inverse +1, and neither is normalised: c2r(r2c(x)) = nx*ny*x. Any
// normalisation is an explicit factor passed by the caller.
//
// Back ends: cuFFT on the GPU (gpu/cuda_fft.cu), single-precision FFTW on the
// host. The host transforms are reproducible to the bit: the same input gives
// the same output in every run, whatever the number of threads and whatever
// the alignment of the arrays. Plans are made with FFTW_ESTIMATE and a job
// count fixed by the shape (never the machine's thread count, which would
// change the planner's choice for some sizes); the jobs run on the host back
// end's OpenMP threads. Unaligned arrays are staged through aligned scratch
// so that they run through the same plan.
#pragma once
#include <math.h>

#include <string>

#include "common/hd.h"

// Alignment, in bytes, that cuFFT's arrays keep: others are staged. A
// batch's quanta start at multiples of it (gvex_scan_quantum).
constexpr unsigned long GVEX_FFT_ALIGN = 16;

// One plan pair for an nx x ny shape, created lazily per direction on first
// use and kept until the object dies. Not copyable. Plans must be created
// from the main thread only (the host FFT planner is not thread-safe); the
// whole program drives the device from one thread.
//
//   FftPlan2d& p = gvex_fft_plan(nx, ny);   // cached, one per shape per run
//   p.r2c(d_img, d_spec);                    // d_img unchanged
//   p.c2r(d_spec, d_img);                    // d_spec destroyed
//
// Both calls are synchronous and end the process with the cuFFT error text
// when the library fails. In and out must not overlap.
class FftPlan2d {
 public:
  // host_jobs: host back end only; 0 takes gvex_fft_plan_jobs(nx, ny), the
  // count the cache uses. Another count may give other bits. Ignored on the
  // GPU.
  FftPlan2d(int nx, int ny, int host_jobs = 0);
  ~FftPlan2d();
  FftPlan2d(const FftPlan2d&) = delete;
  FftPlan2d& operator=(const FftPlan2d&) = delete;

  void r2c(const float* d_in, float2* d_out);
  void c2r(float2* d_in, float* d_out);

  // Scratch device arrays of this shape (nx*ny reals, (nx/2+1)*ny complex)
  // for the operations built on the plan, made on first use and kept with
  // it so that repeated band-passes and local means neither allocate nor
  // touch fresh pages. One operation at a time: contents are undefined on
  // entry, and an operation must not call another one that uses them.
  float* work_real();
  float2* work_complex();

  int nx() const { return nx_; }
  int ny() const { return ny_; }
  int host_jobs() const { return jobs_; }

 private:
  void make(bool forward);
  float* scratch_real();
  float2* scratch_complex();
#if defined(GVEX_WITH_CUDA)
  static bool dev_aligned(const void* p);
  float* dev_scratch_real();
  float2* dev_scratch_complex();
#endif

  int nx_, ny_, jobs_;
  bool gpu_;
  void* host_fwd_ = nullptr;  // fftwf_plan
  void* host_inv_ = nullptr;
  [[maybe_unused]] int dev_fwd_ = -1;  // cufftHandle (CUDA builds)
  [[maybe_unused]] int dev_inv_ = -1;
  float* tmp_r_ = nullptr;  // aligned staging, allocated only when needed
  float2* tmp_c_ = nullptr;
  float* work_r_ = nullptr;  // device scratch for callers
  float2* work_c_ = nullptr;
  float* dev_tmp_r_ = nullptr;  // device staging of unaligned arrays
  float2* dev_tmp_c_ = nullptr;
};

// The same transforms for batches of images of one shape, consecutive in
// memory (nx*ny reals, (nx/2+1)*ny complex values apart). On the GPU one
// batched cuFFT plan of `quantum` images per direction runs as often as a
// batch needs, so every image passes through the same plan however many a
// batch holds: the bits never depend on the batch size, which follows the
// memory at hand. A batch of count images therefore reads and writes count
// rounded up to whole quanta, and both arrays must hold that many. On the
// host the shape's cached 2-D plan runs image by image (count exactly), so
// each image gets the bits a single transform gives. c2r destroys its input.
class FftPlanBatch {
 public:
  FftPlanBatch(int nx, int ny, int quantum);
  ~FftPlanBatch();
  FftPlanBatch(const FftPlanBatch&) = delete;
  FftPlanBatch& operator=(const FftPlanBatch&) = delete;
  void r2c(const float* d_in, float2* d_out, int count);
  void c2r(float2* d_in, float* d_out, int count);

 private:
  int nx_, ny_;
  [[maybe_unused]] int quantum_;  // transforms per cuFFT call (CUDA builds)
  [[maybe_unused]] int dev_fwd_ = -1, dev_inv_ = -1;  // cufftHandle (CUDA builds)
};

// The run's plan for a shape, created on first request and reused after.
// The reference stays valid until gvex_fft_plan_cache_clear().
FftPlan2d& gvex_fft_plan(int nx, int ny);
// Destroy every cached plan (plans hold device workspace on the GPU).
void gvex_fft_plan_cache_clear();
// Parallel jobs a host plan of nx x ny is split into (1 for small shapes).
int gvex_fft_plan_jobs(int nx, int ny);
// Host back end: FFTW plans made after this call run on the calling thread
// alone (for code that runs many small plans inside its own parallel loop).
// Main thread only, like every planner call.
void gvex_fftw_plan_serial();

// ---- how the host back end plans ----
// By default plans are estimated: every bit of a result is fixed by the
// shape alone. Measured plans are faster; FFTW records them as wisdom,
// which a later run can plan from without timing anything, so that the same
// wisdom gives the same bits. Switch before any plan is made (or clear the
// plan caches first).
//
// Plans from the wisdom at path ("" for FFTW's system wisdom); a shape the
// wisdom lacks is estimated. False, with why, when it cannot be read (plans
// stay estimated).
bool gvex_fft_plans_from_wisdom(const std::string& path, std::string& why);
// Plans measured now, for writing wisdom (gvexmatch_tune); the wisdom at
// path is kept and added to when it exists.
bool gvex_fft_plans_measured(const std::string& path, std::string& why);
// Writes the wisdom gathered so far; false when the file cannot be written.
bool gvex_fft_write_wisdom(const std::string& path);
// How the plans are made, for a program's back-end line: "estimated",
// "from wisdom FILE (N of M found there, the rest estimated)", "measured".
std::string gvex_fft_plans_text();
// Makes a host plan under the current planning: make(flags) is called with
// the planner flags (extra added), perhaps twice. Returns the plan (fftwf_plan).
void* gvex_fftw_make_plan(void* (*make)(unsigned flags, void* arg), void* arg, unsigned extra);

// ---- whole transforms on device arrays ----

// ---- the same on host arrays, copied to and from the device ----

// ---- element-wise Fourier-space operations ----
// out = A*conj(B)/s over nxh x ny: re = fmaf(a.re, b.re, a.im*b.im)/s,
// im = (a.im*b.re - a.re*b.im)/s, true divisions.
void hcuda_c2d_multconj_norm(const float2* d_A, const float2* d_B, float2* d_out, int nxh, int ny, float s);
void hcuda_c2d_multconj_norm_inplace(float2* d_A, const float2* d_B, int nxh, int ny, float s);
// Exchange p(x, y) with p((x + nx/2) mod nx, (y + ny/2) mod ny) for y < ny/2:
// moves the zero shift of a correlation map from (0, 0) to (nx/2, ny/2).
// Its own inverse for even sizes; odd sizes give an undefined map.
void hcuda_2d_swap_ccf_inplace(float* d_p, int nx, int ny);

// Kernel bodies, shared by both back ends and by the tests.
GVEX_HD inline float2 cuda_multconj_norm(float2 a, float2 b, float s) {
  float2 r;
  r.x = fmaf(a.x, b.x, a.y * b.y) / s;
  r.y = (a.y * b.x - a.x * b.y) / s;
  return r;
}
