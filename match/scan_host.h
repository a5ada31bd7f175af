// The scan's two per-angle passes on the host, in AVX2 when the processor
// has AVX2 and FMA. This unit is compiled by the host compiler in every
// build, so the host fallback of a CUDA build keeps the fast loops.
#pragma once
#include "common/hd.h"
#include "gpu/cuda_fft.h"

// Per-element bodies of the running maximum. The comparison is false for
// equal values and whenever either side is NaN.
GVEX_HD inline void cuda_update_ccmax(float* m, const float* c, long i) {
  if (c[i] > m[i]) m[i] = c[i];
}
GVEX_HD inline void cuda_update_ccmax_psi(float* m, const float* c, float* a, float ang, long i) {
  if (c[i] > m[i]) {
    m[i] = c[i];
    a[i] = ang;
  }
}
// The decoy map's running maximum: of the negated correlation, which is
// bit for bit what the template with its contrast the other way gives.
GVEX_HD inline void cuda_update_decoy(float* m, const float* c, long i) {
  const float v = -c[i];
  if (v > m[i]) m[i] = v;
}

// Over n elements of host arrays: P = M * conj(F) / s, and the running
// maximum without and with its angle. Each returns false, having done
// nothing, when the processor or the build has no AVX2; the caller then
// runs the generic launches (the same bits).
bool scan_host_multconj(const float2* M, const float2* F, float2* P, long n, float s);

// The same on the calling thread alone (inside a caller's parallel loop),
// falling back to the generic bodies without AVX2. a may be null.
void scan_host_multconj_serial(const float2* M, const float2* F, float2* P, long n, float s);
void scan_host_fold_serial(float* m, const float* c, float* a, float ang, long n);
// The decoy map's fold (cuda_update_decoy over n elements).
void scan_host_fold_decoy_serial(float* m, const float* c, long n);
