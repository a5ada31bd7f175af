// Bare transforms of the sizes a picking run uses, the baseline of
// bench_picker.sh: a real-to-complex transform alone, a complex-to-real one
// alone (what an angle with a stored spectrum needs) and a pair, at the working size N (correlation scan) and at
// the mirror-padded 2N (band-pass and local statistics).
// Host back end: plain FFTW plans made and run as the program makes and runs
// them (FFTW_ESTIMATE, the same job count, the jobs on OpenMP threads with a
// dynamic team). On a GPU: cuFFT through the program's plan object, whose
// calls are the library call and a device synchronisation.
//
// With --measure the host plans are measured now (FFTW_MEASURE): the floor
// for a run that plans from wisdom. With --wisdom FILE they come from that
// wisdom where it has the shape (a run's wisdom holds its scan's 1-D plans,
// not these 2-D ones).
//
//   bench_picker_fft --n N [--store-mib MIB] [--measure | --wisdom FILE] [Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"

namespace {

unsigned g_rigor = FFTW_ESTIMATE;
std::string g_wisdom;

#if defined(GVEX_FFTW_THREADS)
// FFTW's parallel loops on OpenMP threads, as the program runs them.
void omp_loop(void* (*work)(char*), char* jobdata, size_t elsize, int njobs, void*) {
#pragma omp parallel for schedule(static)
  for (int i = 0; i < njobs; i++) work(jobdata + elsize * (size_t)i);
}
#endif

class Bare {
 public:
  explicit Bare(int n) {
    const size_t nr = (size_t)n * n, nc = (size_t)(n / 2 + 1) * n;
    r_ = fftwf_alloc_real(nr);
    back_ = fftwf_alloc_real(nr);
    c_ = fftwf_alloc_complex(nc);
    std::mt19937 g(5);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (size_t i = 0; i < nr; i++) r_[i] = u(g);
#if defined(GVEX_FFTW_THREADS)
    fftwf_init_threads();
    fftwf_threads_set_callback(omp_loop, nullptr);
    fftwf_plan_with_nthreads(gvex_fft_plan_jobs(n, n));
#endif
    static bool imported = false;  // after the threads' solvers are registered, or it never matches
    if (!g_wisdom.empty() && !imported) {
      imported = fftwf_import_wisdom_from_filename(g_wisdom.c_str()) != 0;
      if (!imported) fprintf(stderr, "bench_picker_fft: cannot read wisdom %s\n", g_wisdom.c_str());
    }
    std::vector<float> keep(r_, r_ + nr);  // measuring overwrites the arrays
    fwd_ = fftwf_plan_dft_r2c_2d(n, n, r_, c_, g_rigor);
    if (!fwd_) fwd_ = fftwf_plan_dft_r2c_2d(n, n, r_, c_, FFTW_ESTIMATE);  // a shape the wisdom lacks
    inv_ = fftwf_plan_dft_c2r_2d(n, n, c_, back_, g_rigor | FFTW_DESTROY_INPUT);
    if (!inv_) inv_ = fftwf_plan_dft_c2r_2d(n, n, c_, back_, FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
    std::copy(keep.begin(), keep.end(), r_);
  }
  ~Bare() {
    fftwf_destroy_plan(fwd_);
    fftwf_destroy_plan(inv_);
    fftwf_free(r_);
    fftwf_free(back_);
    fftwf_free(c_);
  }
  void r2c() { fftwf_execute(fwd_); }
  void c2r() { fftwf_execute(inv_); }
  void pair() {
    fftwf_execute(fwd_);
    fftwf_execute(inv_);
  }

 private:
  float *r_, *back_;
  fftwf_complex* c_;
  fftwf_plan fwd_, inv_;
};

// cuFFT on device arrays.
class Device {
 public:
  explicit Device(int n)
      : plan_(n, n), r_((unsigned long)n * n, true), back_((unsigned long)n * n), c_((unsigned long)(n / 2 + 1) * n) {}
  void r2c() { plan_.r2c(r_.get(), c_.get()); }
  void c2r() { plan_.c2r(c_.get(), back_.get()); }
  void pair() {
    plan_.r2c(r_.get(), c_.get());
    plan_.c2r(c_.get(), back_.get());
  }

 private:
  FftPlan2d plan_;
  DeviceArray<float> r_, back_;
  DeviceArray<float2> c_;
};

template <class T>
void run_r2c(benchmark::State& state) {
  T t((int)state.range(0));
  t.r2c();
  for (auto _ : state) t.r2c();
}

template <class T>
void run_c2r(benchmark::State& state) {
  T t((int)state.range(0));
  t.r2c();
  for (auto _ : state) {
    state.PauseTiming();  // c2r destroys its input: a fresh spectrum each time
    t.r2c();
    state.ResumeTiming();
    t.c2r();
  }
}

template <class T>
void run_pair(benchmark::State& state) {
  T t((int)state.range(0));
  t.pair();
  for (auto _ : state) t.pair();
}

void BM_BareR2C(benchmark::State& state) {
  if (gvex_on_gpu())
    run_r2c<Device>(state);
  else
    run_r2c<Bare>(state);
}

void BM_BareC2R(benchmark::State& state) {
  if (gvex_on_gpu())
    run_c2r<Device>(state);
  else
    run_c2r<Bare>(state);
}

void BM_BarePair(benchmark::State& state) {
  if (gvex_on_gpu())
    run_pair<Device>(state);
  else
    run_pair<Bare>(state);
}

// Writing once to a fresh device array of the given number of MiB: what
// filling a spectrum store of that size costs beyond computing it (on the
// host the kernel's zeroing of fresh pages; on virtual machines that hand
// freed memory back to their host this is far slower than on bare metal).
void BM_FreshStore(benchmark::State& state) {
  const unsigned long bytes = (unsigned long)state.range(0) << 20;
  for (auto _ : state) {
    DeviceArray<char> a(bytes);
    hcuda_empty(a.get(), bytes);
  }
}

}  // namespace

int main(int argc, char** argv) {
  int n = 1024, store_mib = 0;
  std::vector<char*> rest;
  for (int i = 0; i < argc; i++) {
    if (i > 0 && !strcmp(argv[i], "--n") && i + 1 < argc) {
      n = atoi(argv[++i]);
      continue;
    }
    if (i > 0 && !strcmp(argv[i], "--measure")) {
      g_rigor = FFTW_MEASURE;
      continue;
    }
    if (i > 0 && !strcmp(argv[i], "--wisdom") && i + 1 < argc) {
      g_wisdom = argv[++i];
      g_rigor = FFTW_MEASURE | FFTW_WISDOM_ONLY;
      continue;
    }
    if (i > 0 && !strcmp(argv[i], "--store-mib") && i + 1 < argc) {
      store_mib = atoi(argv[++i]);
      continue;
    }
    rest.push_back(argv[i]);
  }
  if (n < 2 || n % 2) {
    fprintf(stderr, "bench_picker_fft: --n must be an even size of at least 2\n");
    return 2;
  }
  fputs(gvex_device_activate(0), stderr);  // GPU 0 when there is one; the host's thread policy otherwise
  for (int size : {n, 2 * n}) {
    benchmark::RegisterBenchmark("BM_BareR2C", BM_BareR2C)->Arg(size)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("BM_BareC2R", BM_BareC2R)->Arg(size)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("BM_BarePair", BM_BarePair)->Arg(size)->Unit(benchmark::kMillisecond)->UseRealTime();
  }
  if (store_mib > 0)
    benchmark::RegisterBenchmark("BM_FreshStore", BM_FreshStore)
        ->Arg(store_mib)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
  int rc = (int)rest.size();
  benchmark::Initialize(&rc, rest.data());
  if (benchmark::ReportUnrecognizedArguments(rc, rest.data())) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
