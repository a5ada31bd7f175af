// Fourier-space layer against the bare FFT library of the same run.
//
// Every benchmark times its own operation and, interleaved with it in the
// same iterations, a bare FFTW r2c + c2r pair of the transform size it works
// on (plain fftwf_execute, same planner flags and job count). The counter
// x_bare_pair is the ratio of the two: about 1 for our transform pair, about
// 2 for the local sigma (two r2c + c2r pairs once the disc is cached), about
// 1 for a band-pass.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/img_filter.h"
#include "gpu/local_stats.h"

namespace {

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

std::vector<float> random_image(long n) {
  std::mt19937 g(17);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

// A bare FFTW pair on its own aligned arrays.
class BarePair {
 public:
  explicit BarePair(int n) : n_(n) {
    const size_t nr = (size_t)n * n, nc = (size_t)(n / 2 + 1) * n;
    r_ = fftwf_alloc_real(nr);
    c_ = fftwf_alloc_complex(nc);
    std::vector<float> img = random_image((long)nr);
    for (size_t i = 0; i < nr; i++) r_[i] = img[i];
#if defined(GVEX_FFTW_THREADS)
    fftwf_init_threads();
    fftwf_plan_with_nthreads(gvex_fft_plan_jobs(n, n));
#endif
    fwd_ = fftwf_plan_dft_r2c_2d(n, n, r_, c_, FFTW_ESTIMATE);
    inv_ = fftwf_plan_dft_c2r_2d(n, n, c_, r_, FFTW_ESTIMATE);
  }
  ~BarePair() {
    fftwf_destroy_plan(fwd_);
    fftwf_destroy_plan(inv_);
    fftwf_free(r_);
    fftwf_free(c_);
  }
  double run() {
    const double t = now();
    fftwf_execute(fwd_);
    fftwf_execute(inv_);
    return now() - t;
  }

 private:
  int n_;
  float* r_;
  fftwf_complex* c_;
  fftwf_plan fwd_, inv_;
};

// Runs op each iteration, then (outside the timed region) one bare pair of
// size bare_n, and reports the ratio of their total wall times.
template <class Op>
void run_against_bare(benchmark::State& state, int bare_n, Op op) {
  BarePair bare(bare_n);
  op();  // plans, caches and first-touch pages outside the timing
  bare.run();
  double ours = 0.0, base = 0.0;
  for (auto _ : state) {
    const double t = now();
    op();
    ours += now() - t;
    state.PauseTiming();
    base += bare.run();
    state.ResumeTiming();
  }
  state.counters["x_bare_pair"] = ours / base;
  state.counters["bare_pair_ms"] = 1e3 * base / (double)state.iterations();
  state.counters["plan_jobs"] = gvex_fft_plan_jobs(bare_n, bare_n);
  state.counters["threads"] = gvex_host_threads();
}

void BM_FftPair(benchmark::State& state) {
  const int n = (int)state.range(0);
  std::vector<float> img = random_image((long)n * n), back((size_t)n * n);
  std::vector<float2> spectrum((size_t)(n / 2 + 1) * n);
  FftPlan2d& plan = gvex_fft_plan(n, n);
  run_against_bare(state, n, [&] {
    plan.r2c(img.data(), spectrum.data());
    plan.c2r(spectrum.data(), back.data());
  });
}

// The same pair with a serial plan: shows what the job split buys.
void BM_FftPairSerialPlan(benchmark::State& state) {
  const int n = (int)state.range(0);
  std::vector<float> img = random_image((long)n * n), back((size_t)n * n);
  std::vector<float2> spectrum((size_t)(n / 2 + 1) * n);
  FftPlan2d plan(n, n, 1);
  run_against_bare(state, n, [&] {
    plan.r2c(img.data(), spectrum.data());
    plan.c2r(spectrum.data(), back.data());
  });
}

void BM_BareFftwPair(benchmark::State& state) {
  BarePair bare((int)state.range(0));
  bare.run();
  for (auto _ : state) bare.run();
}

void BM_LocalSigma(benchmark::State& state) {
  const int n = (int)state.range(0);
  std::vector<float> img = random_image((long)n * n), out((size_t)n * n);
  std::vector<float> ave((size_t)n * n);
  run_against_bare(state, 2 * n, [&] {
    hcuda_2d_local_ave_sigma_softR_mpad(ave.data(), out.data(), img.data(), n, n, 60.0f, 50.0f, 8.0f);
  });
}

void BM_BandpassGuas(benchmark::State& state) {
  const int n = (int)state.range(0);
  std::vector<float> img = random_image((long)n * n);
  run_against_bare(state, 2 * n, [&] { hcuda_2d_bandpass_guas_mpad_inplace(img.data(), n, 2.68f, 30.0f, 1000.0f); });
}

}  // namespace

BENCHMARK(BM_FftPair)->Arg(1024)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FftPairSerialPlan)->Arg(1024)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareFftwPair)->Arg(1024)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LocalSigma)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BandpassGuas)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
