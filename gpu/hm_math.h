// Host arithmetic and statistics on float arrays. Statistics accumulate in
// double; the forms ending in f round the double result to float. Standard
// deviations and variances are population ones unless the name starts with
// an s (sample: divided by n-1). A mask or weight array has the same length
// and is multiplied in; masked statistics divide by the mask's sum.
#pragma once

// ---- element-wise, out[i] from in[i] (out may equal in) ----
void hm_add(float* out, const float* in, unsigned long n, float a);     // x+a
void hm_sub(float* out, const float* in, unsigned long n, float a);     // x-a
void hm_multi(float* out, const float* in, unsigned long n, float a);   // x*a
void hm_divide(float* out, const float* in, unsigned long n, float a);  // x/a
void hm_add_multi(float* out, const float* in, unsigned long n, float a, float b);   // (x+a)*b
void hm_multi_add(float* out, const float* in, unsigned long n, float a, float b);   // fmaf(x,a,b)
void hm_sub_divide(float* out, const float* in, unsigned long n, float a, float b);  // (x-a)/b
void hm_divide_sub(float* out, const float* in, unsigned long n, float a, float b);  // x/a-b
void hm_sub_sqr(float* out, const float* in, unsigned long n, float a);              // (x-a)^2
void hm_sqr(float* out, const float* in, unsigned long n);
void hm_sqrtf(float* out, const float* in, unsigned long n);
void hm_logf(float* out, const float* in, unsigned long n);
void hm_invert(float* out, const float* in, unsigned long n);  // x * -1.0
void hm_linear_norm_kb(float* out, const float* in, unsigned long n, float k, float b);  // x*k+b, unfused

void hm_add_inplace(float* p, unsigned long n, float a);
void hm_sub_inplace(float* p, unsigned long n, float a);
void hm_multi_inplace(float* p, unsigned long n, float a);
void hm_divide_inplace(float* p, unsigned long n, float a);
void hm_add_multi_inplace(float* p, unsigned long n, float a, float b);
void hm_multi_add_inplace(float* p, unsigned long n, float a, float b);
void hm_sub_divide_inplace(float* p, unsigned long n, float a, float b);
void hm_divide_sub_inplace(float* p, unsigned long n, float a, float b);
void hm_sub_sqr_inplace(float* p, unsigned long n, float a);
void hm_sqr_inplace(float* p, unsigned long n);
void hm_sqrtf_inplace(float* p, unsigned long n);
void hm_logf_inplace(float* p, unsigned long n);
// Contrast inversion by sign (never a reciprocal); applying it twice restores p.
void hm_invert_inplace(float* p, unsigned long n);
void hm_linear_norm_kb_inplace(float* p, unsigned long n, float k, float b);

// ---- two arrays: x op y ----
void hm_x1d_add(float* out, const float* in1, const float* in2, unsigned long n);
void hm_x1d_sub(float* out, const float* in1, const float* in2, unsigned long n);
void hm_x1d_multi(float* out, const float* in1, const float* in2, unsigned long n);
void hm_x1d_divide(float* out, const float* in1, const float* in2, unsigned long n);
void hm_x1d_add_inplace(float* io, const float* in2, unsigned long n);
void hm_x1d_sub_inplace(float* io, const float* in2, unsigned long n);
void hm_x1d_multi_inplace(float* io, const float* in2, unsigned long n);
void hm_x1d_divide_inplace(float* io, const float* in2, unsigned long n);
void hm_apply_mask_inplace(float* p, const float* w, unsigned long n);             // p*w
void hm_apply_weights(float* out, const float* in, const float* w, unsigned long n);  // x*w

// ---- statistics (double accumulation) ----
double hm_sum(const float* p, unsigned long n);
double hm_mean(const float* p, unsigned long n);
double hm_sum_sqr(const float* p, unsigned long n);
double hm_variance(const float* p, unsigned long n);   // / n
double hm_svariance(const float* p, unsigned long n);  // / (n-1)
double hm_stdv(const float* p, unsigned long n);
double hm_sstdv(const float* p, unsigned long n);
void hm_mean_stdv(const float* p, unsigned long n, double& mean, double& stdv);

double hm_sum_withmask(const float* p, const float* w, unsigned long n);  // sum p*w
double hm_mean_withmask(const float* p, const float* w, unsigned long n);
double hm_sum_sqr_withmask(const float* p, const float* w, unsigned long n);  // sum p^2*w
double hm_variance_withmask(const float* p, const float* w, unsigned long n);
double hm_stdv_withmask(const float* p, const float* w, unsigned long n);
void hm_mean_stdv_withmask(const float* p, const float* w, unsigned long n, double& mean, double& stdv);

// Weights are masks here: multiplied in and normalised by their sum.
inline double hm_mean_weighted(const float* p, const float* w, unsigned long n) { return hm_mean_withmask(p, w, n); }
inline double hm_variance_weighted(const float* p, const float* w, unsigned long n) {
  return hm_variance_withmask(p, w, n);
}
inline double hm_stdv_weighted(const float* p, const float* w, unsigned long n) { return hm_stdv_withmask(p, w, n); }
inline void hm_mean_stdv_weighted(const float* p, const float* w, unsigned long n, double& mean, double& stdv) {
  hm_mean_stdv_withmask(p, w, n, mean, stdv);
}

// Pearson correlation coefficient of a and b.
double hm_ccc_norm(const float* a, const float* b, unsigned long n);

inline float hm_sumf(const float* p, unsigned long n) { return (float)hm_sum(p, n); }
inline float hm_meanf(const float* p, unsigned long n) { return (float)hm_mean(p, n); }
inline float hm_sum_sqrf(const float* p, unsigned long n) { return (float)hm_sum_sqr(p, n); }
inline float hm_variancef(const float* p, unsigned long n) { return (float)hm_variance(p, n); }
inline float hm_svariancef(const float* p, unsigned long n) { return (float)hm_svariance(p, n); }
inline float hm_stdvf(const float* p, unsigned long n) { return (float)hm_stdv(p, n); }
inline float hm_sstdvf(const float* p, unsigned long n) { return (float)hm_sstdv(p, n); }
inline float hm_mean_withmaskf(const float* p, const float* w, unsigned long n) {
  return (float)hm_mean_withmask(p, w, n);
}
inline float hm_stdv_withmaskf(const float* p, const float* w, unsigned long n) {
  return (float)hm_stdv_withmask(p, w, n);
}
inline float hm_ccc_normf(const float* a, const float* b, unsigned long n) { return (float)hm_ccc_norm(a, b, n); }

// ---- normalisations ----
// out = (in - mean)/stdv, computed in double and rounded once (out may equal in).
void hm_normz(float* out, const float* in, unsigned long n);
inline void hm_normz_inplace(float* p, unsigned long n) { hm_normz(p, p, n); }
// The same with the masked mean and deviation; every element is normalised.
void hm_normz_withmask(float* out, const float* in, const float* w, unsigned long n);
inline void hm_normz_withmask_inplace(float* p, const float* w, unsigned long n) { hm_normz_withmask(p, p, w, n); }

// Subtract the float mean (double sum / n, rounded to float) from every element.
void hm_submean_inplace(float* p, unsigned long n);

// Maximum, minimum and float mean of n elements; strict comparisons, so the
// first of equal extremes wins and a NaN after the first element never does.
// n = 0 gives all three 0.
void max_min_mean_value(const float* p, unsigned long n, float& max, float& min, float& mean);

// Sum of a mask in double, with the warning "Too small sum of mask!" (the
// caller goes on) when it is below 1e-6.
double hm_sum_check0(const float* p, unsigned long n);
