// Device statistics, normalisations and element-wise kernels. The _inplace
// forms pass the array as both input and output: every kernel reads its
// element before it writes it.
#include "gpu/math_utils.h"

#include <cmath>

#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/pool.h"

// ---- element-wise ----
void hcuda_sub(float* d_out, const float* d_in, unsigned long n, float a) {
  float* o = d_out;
  const float* p = d_in;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] - a; });
}
void hcuda_multi(float* d_out, const float* d_in, unsigned long n, float a) {
  float* o = d_out;
  const float* p = d_in;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] * a; });
}
void hcuda_sub_inplace(float* d_p, unsigned long n, float a) { hcuda_sub(d_p, d_p, n, a); }

void hcuda_multi_add(float* d_out, const float* d_in, unsigned long n, float a, float b) {
  float* o = d_out;
  const float* p = d_in;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = fmaf(p[i], a, b); });
}
void hcuda_multi_add_inplace(float* d_p, unsigned long n, float a, float b) { hcuda_multi_add(d_p, d_p, n, a, b); }

void hcuda_sqr(float* d_out, const float* d_in, unsigned long n) {
  float* o = d_out;
  const float* p = d_in;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] * p[i]; });
}
void hcuda_sqr_inplace(float* d_p, unsigned long n) { hcuda_sqr(d_p, d_p, n); }
void hcuda_sqrtf(float* d_out, const float* d_in, unsigned long n) {
  float* o = d_out;
  const float* p = d_in;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = sqrtf(p[i]); });
}
void hcuda_sqrtf_inplace(float* d_p, unsigned long n) { hcuda_sqrtf(d_p, d_p, n); }

void hcuda_x1d_sub(float* d_out, const float* d_in1, const float* d_in2, unsigned long n) {
  float* o = d_out;
  const float *p = d_in1, *q = d_in2;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] - q[i]; });
}
void hcuda_x1d_multi(float* d_out, const float* d_in1, const float* d_in2, unsigned long n) {
  float* o = d_out;
  const float *p = d_in1, *q = d_in2;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] * q[i]; });
}
void hcuda_x1d_sub_inplace(float* d_io, const float* d_in2, unsigned long n) { hcuda_x1d_sub(d_io, d_io, d_in2, n); }
void hcuda_apply_mask(float* d_out, const float* d_in, const float* d_w, unsigned long n) {
  hcuda_x1d_multi(d_out, d_in, d_w, n);
}

void hcuda_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n) {
  float* o = d_out;
  const float *p = d_in, *w = d_w;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { o[i] = p[i] * p[i] * w[i]; });
}
void hcuda_data_submean_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n, float m) {
  float* o = d_out;
  const float *p = d_in, *w = d_w;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) {
    const float d = p[i] - m;
    o[i] = d * d * w[i];
  });
}

void hcuda_invert_inplace(float* d_p, unsigned long n) { hcuda_multi(d_p, d_p, n, -1.0f); }

// ---- reductions: each one takes its own pooled temporary and runs its own passes ----
float hcuda_fast_mean(const float* d_p, unsigned long n) { return hcuda_fast_sum(d_p, n) / (float)n; }

float hcuda_fast_sumsqr(const float* d_p, unsigned long n) {
  PooledArray<float> t(n);
  hcuda_sqr(t.get(), d_p, n);
  return hcuda_fast_sum_inplace(t.get(), n);
}

float hcuda_fast_sum_withmask(const float* d_p, const float* d_w, unsigned long n) {
  PooledArray<float> t(n);
  hcuda_apply_mask(t.get(), d_p, d_w, n);
  return hcuda_fast_sum_inplace(t.get(), n);
}

// The masked statistics all divide by the mask's sum W and centre on the
// masked mean; these take them as given so that a caller needing both
// computes each once.
static float masked_mean(const float* d_p, const float* d_w, unsigned long n, float W) {
  return hcuda_fast_sum_withmask(d_p, d_w, n) / W;
}

static float submean_sumsqr(const float* d_p, const float* d_w, unsigned long n, float m) {
  PooledArray<float> t(n);
  hcuda_data_submean_sqr_withmask(t.get(), d_p, d_w, n, m);
  return hcuda_fast_sum_inplace(t.get(), n);
}

float hcuda_fast_sumsqr_withmask(const float* d_p, const float* d_w, unsigned long n) {
  PooledArray<float> t(n);
  hcuda_sqr_withmask(t.get(), d_p, d_w, n);
  return hcuda_fast_sum_inplace(t.get(), n);
}

// ---- normalisations ----
void hcuda_normz_inplace(float* d_p, unsigned long n, float scale, float offset) {
  const float m = hcuda_fast_mean(d_p, n);
  hcuda_sub_inplace(d_p, n, m);
  const float s = sqrtf(hcuda_fast_sumsqr(d_p, n) / (float)n);
  hcuda_multi_add_inplace(d_p, n, scale / s, offset);
}

void hcuda_norm_withmask_inplace(float* d_p, const float* d_w, unsigned long n, float scale, float offset) {
  const float W = hcuda_fast_sum(d_w, n);
  const float m = masked_mean(d_p, d_w, n, W);
  const float s = sqrtf(submean_sumsqr(d_p, d_w, n, m) / W);
  const float k = scale / s;
  float* p = d_p;
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { p[i] = fmaf(p[i] - m, k, offset); });
}
