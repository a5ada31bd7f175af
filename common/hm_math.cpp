// Host arithmetic and double-accumulated statistics.
#include "common/hm_math.h"

#include <cmath>

#include "common/errors.h"

static const char* const gvex_module = "math_utils";

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

void hm_sub(float* out, const float* in, unsigned long n, float a) { HM_EACH(n, out[i] = in[i] - a); }
void hm_invert(float* out, const float* in, unsigned long n) { HM_EACH(n, out[i] = (float)(in[i] * -1.0)); }

void hm_sub_inplace(float* p, unsigned long n, float a) { hm_sub(p, p, n, a); }
void hm_invert_inplace(float* p, unsigned long n) { hm_invert(p, p, n); }

// Statistics run serially: a double sum in a fixed order gives the same
// value whatever the thread count.
double hm_sum(const float* p, unsigned long n) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) s += p[i];
  return s;
}

double hm_mean(const float* p, unsigned long n) { return hm_sum(p, n) / (double)n; }

static double centred_sum_sqr(const float* p, unsigned long n, double m) {
  double s = 0.0;
  for (unsigned long i = 0; i < n; i++) {
    double d = p[i] - m;
    s += d * d;
  }
  return s;
}

double hm_variance(const float* p, unsigned long n) { return centred_sum_sqr(p, n, hm_mean(p, n)) / (double)n; }
double hm_stdv(const float* p, unsigned long n) { return sqrt(hm_variance(p, n)); }

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
    gvex_warning("hm_sum_check0", gvex_module, __LINE__, "Too small sum of mask");
  else if (s == 0.0)
    GVEX_FAIL("Zero sum of mask");
  return s;
}
