// AVX2 loops of the scan's per-angle passes. The spectrum product is the
// shared body, vectorised by the compiler (hardware and library fused
// multiply-adds are both correctly rounded, vector division is IEEE
// division: the same bits); the running maximum compares eight pixels at
// once and writes back only groups in which something rose.
#include "match/scan_host.h"

#include "gpu/launch.h"

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__CUDACC__)
#include <immintrin.h>

namespace {

__attribute__((target("avx2,fma"))) void multconj_avx2(const float2* A, const float2* B, float2* P, long b, long e,
                                                        float s) {
  for (long i = b; i < e; i++) P[i] = cuda_multconj_norm(A[i], B[i], s);
}
// _CMP_GT_OQ is the scalar '>': false for equal values and for NaN.
__attribute__((target("avx2,fma"))) void update_avx2(float* m, const float* c, long b, long e) {
  long i = b;
  for (; i + 8 <= e; i += 8) {
    const __m256 v = _mm256_loadu_ps(c + i), old = _mm256_loadu_ps(m + i);
    const __m256 up = _mm256_cmp_ps(v, old, _CMP_GT_OQ);
    if (_mm256_movemask_ps(up)) _mm256_storeu_ps(m + i, _mm256_blendv_ps(old, v, up));
  }
  for (; i < e; i++) cuda_update_ccmax(m, c, i);
}
__attribute__((target("avx2,fma"))) void update_psi_avx2(float* m, const float* c, float* a, float ang, long b,
                                                          long e) {
  const __m256 va = _mm256_set1_ps(ang);
  long i = b;
  for (; i + 8 <= e; i += 8) {
    const __m256 v = _mm256_loadu_ps(c + i), old = _mm256_loadu_ps(m + i);
    const __m256 up = _mm256_cmp_ps(v, old, _CMP_GT_OQ);
    if (_mm256_movemask_ps(up)) {
      _mm256_storeu_ps(m + i, _mm256_blendv_ps(old, v, up));
      _mm256_storeu_ps(a + i, _mm256_blendv_ps(_mm256_loadu_ps(a + i), va, up));
    }
  }
  for (; i < e; i++) cuda_update_ccmax_psi(m, c, a, ang, i);
}

__attribute__((target("avx2,fma"))) void update_decoy_avx2(float* m, const float* c, long b, long e) {
  const __m256 sign = _mm256_set1_ps(-0.0f);
  long i = b;
  for (; i + 8 <= e; i += 8) {
    const __m256 v = _mm256_xor_ps(_mm256_loadu_ps(c + i), sign), old = _mm256_loadu_ps(m + i);
    const __m256 up = _mm256_cmp_ps(v, old, _CMP_GT_OQ);
    if (_mm256_movemask_ps(up)) _mm256_storeu_ps(m + i, _mm256_blendv_ps(old, v, up));
  }
  for (; i < e; i++) cuda_update_decoy(m, c, i);
}

bool simd_ok() {
  static const bool ok = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  return ok;
}

// Splits [0, n) into fixed chunks shared out among the host threads.
template <class F>
void chunks(long n, F f) {
  const long chunk = 1L << 16;
  const long nchunks = (n + chunk - 1) / chunk;
#pragma omp parallel for schedule(static) if (n >= GVEX_OMP_MIN)
  for (long k = 0; k < nchunks; k++) f(k * chunk, k * chunk + chunk < n ? k * chunk + chunk : n);
}

}  // namespace

bool scan_host_multconj(const float2* M, const float2* F, float2* P, long n, float s) {
  if (!simd_ok()) return false;
  chunks(n, [=](long b, long e) { multconj_avx2(M, F, P, b, e, s); });
  return true;
}
void scan_host_multconj_serial(const float2* M, const float2* F, float2* P, long n, float s) {
  if (simd_ok()) return multconj_avx2(M, F, P, 0, n, s);
  for (long i = 0; i < n; i++) P[i] = cuda_multconj_norm(M[i], F[i], s);
}
void scan_host_fold_serial(float* m, const float* c, float* a, float ang, long n) {
  if (simd_ok()) return a ? update_psi_avx2(m, c, a, ang, 0, n) : update_avx2(m, c, 0, n);
  for (long i = 0; i < n; i++) a ? cuda_update_ccmax_psi(m, c, a, ang, i) : cuda_update_ccmax(m, c, i);
}
void scan_host_fold_decoy_serial(float* m, const float* c, long n) {
  if (simd_ok()) return update_decoy_avx2(m, c, 0, n);
  for (long i = 0; i < n; i++) cuda_update_decoy(m, c, i);
}
#else
bool scan_host_multconj(const float2*, const float2*, float2*, long, float) { return false; }
void scan_host_multconj_serial(const float2* M, const float2* F, float2* P, long n, float s) {
  for (long i = 0; i < n; i++) P[i] = cuda_multconj_norm(M[i], F[i], s);
}
void scan_host_fold_serial(float* m, const float* c, float* a, float ang, long n) {
  for (long i = 0; i < n; i++) a ? cuda_update_ccmax_psi(m, c, a, ang, i) : cuda_update_ccmax(m, c, i);
}
void scan_host_fold_decoy_serial(float* m, const float* c, long n) {
  for (long i = 0; i < n; i++) cuda_update_decoy(m, c, i);
}
#endif
