// Host arithmetic and double-accumulated statistics.
#include "gpu/hm_math.h"

#include <cmath>

#include "common/errors.h"

static const char* const MODULE = "math_utils";

// Element-wise loops: each element is independent, so threads never change
// the result.
#define HM_EACH(n, body)                                                   \
  do {                                                                     \
    const long m_ = (long)(n);                                             \
    _Pragma("omp parallel for schedule(static) if (m_ >= (1L << 16))") for \
        (long i = 0; i < m_; i++) {                                        \
      body;                                                                \
    }                                                                      \
  } while (0)

void hm_add(float* out, const float* in, unsigned long n, float a) { HM_EACH(n, out[i] = in[i] + a); }
void hm_sub(float* out, const float* in, unsigned long n, float a) { HM_EACH(n, out[i] = in[i] - a); }
void hm_multi(float* out, const float* in, unsigned long n, float a) { HM_EACH(n, out[i] = in[i] * a); }
void hm_divide(float* out, const float* in, unsigned long n, float a) { HM_EACH(n, out[i] = in[i] / a); }
void hm_add_multi(float* out, const float* in, unsigned long n, float a, float b) {
  HM_EACH(n, out[i] = (in[i] + a) * b);
}
void hm_multi_add(float* out, const float* in, unsigned long n, float a, float b) {
  HM_EACH(n, out[i] = fmaf(in[i], a, b));
}
void hm_sub_divide(float* out, const float* in, unsigned long n, float a, float b) {
  HM_EACH(n, out[i] = (in[i] - a) / b);
}
void hm_divide_sub(float* out, const float* in, unsigned long n, float a, float b) {
  HM_EACH(n, out[i] = in[i] / a - b);
}
void hm_sub_sqr(float* out, const float* in, unsigned long n, float a) {
  HM_EACH(n, float d = in[i] - a; out[i] = d * d);
}
void hm_sqr(float* out, const float* in, unsigned long n) { HM_EACH(n, out[i] = in[i] * in[i]); }
void hm_sqrtf(float* out, const float* in, unsigned long n) { HM_EACH(n, out[i] = sqrtf(in[i])); }
void hm_logf(float* out, const float* in, unsigned long n) { HM_EACH(n, out[i] = logf(in[i])); }
void hm_invert(float* out, const float* in, unsigned long n) { HM_EACH(n, out[i] = (float)(in[i] * -1.0)); }
void hm_linear_norm_kb(float* out, const float* in, unsigned long n, float k, float b) {
  HM_EACH(n, out[i] = in[i] * k + b);
}

void hm_add_inplace(float* p, unsigned long n, float a) { hm_add(p, p, n, a); }
void hm_sub_inplace(float* p, unsigned long n, float a) { hm_sub(p, p, n, a); }
void hm_multi_inplace(float* p, unsigned long n, float a) { hm_multi(p, p, n, a); }
void hm_divide_inplace(float* p, unsigned long n, float a) { hm_divide(p, p, n, a); }
void hm_add_multi_inplace(float* p, unsigned long n, float a, float b) { hm_add_multi(p, p, n, a, b); }
void hm_multi_add_inplace(float* p, unsigned long n, float a, float b) { hm_multi_add(p, p, n, a, b); }
void hm_sub_divide_inplace(float* p, unsigned long n, float a, float b) { hm_sub_divide(p, p, n, a, b); }
void hm_divide_sub_inplace(float* p, unsigned long n, float a, float b) { hm_divide_sub(p, p, n, a, b); }
void hm_sub_sqr_inplace(float* p, unsigned long n, float a) { hm_sub_sqr(p, p, n, a); }
void hm_sqr_inplace(float* p, unsigned long n) { hm_sqr(p, p, n); }
void hm_sqrtf_inplace(float* p, unsigned long n) { hm_sqrtf(p, p, n); }
void hm_logf_inplace(float* p, unsigned long n) { hm_logf(p, p, n); }
void hm_invert_inplace(float* p, unsigned long n) { hm_invert(p, p, n); }
void hm_linear_norm_kb_inplace(float* p, unsigned long n, float k, float b) { hm_linear_norm_kb(p, p, n, k, b); }

void hm_x1d_add(float* out, const float* in1, const float* in2, unsigned long n) {
  HM_EACH(n, out[i] = in1[i] + in2[i]);
}
void hm_x1d_sub(float* out, const float* in1, const float* in2, unsigned long n) {
  HM_EACH(n, out[i] = in1[i] - in2[i]);
}
void hm_x1d_multi(float* out, const float* in1, const float* in2, unsigned long n) {
  HM_EACH(n, out[i] = in1[i] * in2[i]);
}
void hm_x1d_divide(float* out, const float* in1, const float* in2, unsigned long n) {
  HM_EACH(n, out[i] = in1[i] / in2[i]);
}
void hm_x1d_add_inplace(float* io, const float* in2, unsigned long n) { hm_x1d_add(io, io, in2, n); }
void hm_x1d_sub_inplace(float* io, const float* in2, unsigned long n) { hm_x1d_sub(io, io, in2, n); }
void hm_x1d_multi_inplace(float* io, const float* in2, unsigned long n) { hm_x1d_multi(io, io, in2, n); }
void hm_x1d_divide_inplace(float* io, const float* in2, unsigned long n) { hm_x1d_divide(io, io, in2, n); }
void hm_apply_mask_inplace(float* p, const float* w, unsigned long n) { hm_x1d_multi(p, p, w, n); }
void hm_apply_weights(float* out, const float* in, const float* w, unsigned long n) { hm_x1d_multi(out, in, w, n); }

// Statistics run serially: a double sum in a fixed order gives the same
// value whatever the thread count.
double hm_sum(const float* p, unsigned long n) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) s += p[i];
  return s;
}

double hm_mean(const float* p, unsigned long n) { return hm_sum(p, n) / (double)n; }

double hm_sum_sqr(const float* p, unsigned long n) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) s += (double)p[i] * p[i];
  return s;
}

static double centred_sum_sqr(const float* p, unsigned long n, double m) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    double d = p[i] - m;
    s += d * d;
  }
  return s;
}

double hm_variance(const float* p, unsigned long n) { return centred_sum_sqr(p, n, hm_mean(p, n)) / (double)n; }
double hm_svariance(const float* p, unsigned long n) {
  return centred_sum_sqr(p, n, hm_mean(p, n)) / ((double)n - 1.0);
}
double hm_stdv(const float* p, unsigned long n) { return sqrt(hm_variance(p, n)); }
double hm_sstdv(const float* p, unsigned long n) { return sqrt(hm_svariance(p, n)); }

void hm_mean_stdv(const float* p, unsigned long n, double& mean, double& stdv) {
  mean = hm_mean(p, n);
  stdv = sqrt(centred_sum_sqr(p, n, mean) / (double)n);
}

double hm_sum_withmask(const float* p, const float* w, unsigned long n) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) s += (double)p[i] * w[i];
  return s;
}

double hm_mean_withmask(const float* p, const float* w, unsigned long n) {
  return hm_sum_withmask(p, w, n) / hm_sum(w, n);
}

double hm_sum_sqr_withmask(const float* p, const float* w, unsigned long n) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) s += (double)p[i] * p[i] * w[i];
  return s;
}

static double centred_sum_sqr_withmask(const float* p, const float* w, unsigned long n, double m) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    double d = p[i] - m;
    s += w[i] * d * d;
  }
  return s;
}

double hm_variance_withmask(const float* p, const float* w, unsigned long n) {
  return centred_sum_sqr_withmask(p, w, n, hm_mean_withmask(p, w, n)) / hm_sum(w, n);
}

double hm_stdv_withmask(const float* p, const float* w, unsigned long n) { return sqrt(hm_variance_withmask(p, w, n)); }

void hm_mean_stdv_withmask(const float* p, const float* w, unsigned long n, double& mean, double& stdv) {
  const double sw = hm_sum(w, n);
  mean = hm_sum_withmask(p, w, n) / sw;
  stdv = sqrt(centred_sum_sqr_withmask(p, w, n, mean) / sw);
}

double hm_ccc_norm(const float* a, const float* b, unsigned long n) {
  const double ma = hm_mean(a, n), mb = hm_mean(b, n);
  double sab = 0.0, saa = 0.0, sbb = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    const double da = a[i] - ma, db = b[i] - mb;
    sab += da * db;
    saa += da * da;
    sbb += db * db;
  }
  return sab / sqrt(saa * sbb);
}

void hm_normz(float* out, const float* in, unsigned long n) {
  double m, s;
  hm_mean_stdv(in, n, m, s);
  for (unsigned long i = 0; i < n; i++) out[i] = (float)((in[i] - m) / s);
}

void hm_normz_withmask(float* out, const float* in, const float* w, unsigned long n) {
  double m, s;
  hm_mean_stdv_withmask(in, w, n, m, s);
  for (unsigned long i = 0; i < n; i++) out[i] = (float)((in[i] - m) / s);
}

void hm_submean_inplace(float* p, unsigned long n) {
  const float m = (float)(hm_sum(p, n) / (double)n);
  HM_EACH(n, p[i] -= m);
}

void max_min_mean_value(const float* p, unsigned long n, float& max, float& min, float& mean) {
  if (n == 0) {
    max = min = mean = 0.0f;
    return;
  }
  float hi = p[0], lo = p[0];
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    const float v = p[i];
    if (v > hi) hi = v;
    if (v < lo) lo = v;
    s += v;
  }
  max = hi;
  min = lo;
  mean = (float)(s / (double)n);
}

double hm_sum_check0(const float* p, unsigned long n) {
  const double s = hm_sum(p, n);
  // The zero test sits behind the small-sum test and so never fires for a
  // zero sum: an empty mask warns and the caller divides by it.
  if (s < 1e-6)
    gvex_warning("hm_sum_check0", MODULE, __LINE__, "Too small sum of mask");
  else if (s == 0.0)
    gvex_fatal("hm_sum_check0", MODULE, __LINE__, "Zero sum of mask");
  return s;
}
