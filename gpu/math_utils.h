// Whole-array statistics, normalisations and element-wise arithmetic on
// device float arrays. Every sum is the fixed tree of gpu/reduce.h in float,
// so results are the same bits on both back ends; means and deviations
// divide by (float)n (population), masked ones by the mask's tree sum.
// Nothing guards against zero deviations or empty masks: NaN and infinities
// flow through.
#pragma once
#include "gpu/reduce.h"

// ---- reductions (host float result; inputs unchanged unless _inplace) ----
float hcuda_fast_mean(const float* d_p, unsigned long n);
float hcuda_fast_sumsqr(const float* d_p, unsigned long n);
float hcuda_fast_sumsqr_inplace(float* d_p, unsigned long n);  // d_p destroyed
float hcuda_fast_submean_sumsqr(const float* d_p, unsigned long n);
float hcuda_variance(const float* d_p, unsigned long n);
float hcuda_stdv(const float* d_p, unsigned long n);
float hcuda_fast_sum_withmask(const float* d_p, const float* d_w, unsigned long n);
float hcuda_mean_withmask(const float* d_p, const float* d_w, unsigned long n);
float hcuda_fast_sumsqr_withmask(const float* d_p, const float* d_w, unsigned long n);
float hcuda_fast_submean_sumsqr_withmask(const float* d_p, const float* d_w, unsigned long n);
// Divided by n, while the masked deviation divides by the mask sum.
float hcuda_variance_withmask(const float* d_p, const float* d_w, unsigned long n);
float hcuda_stdv_withmask(const float* d_p, const float* d_w, unsigned long n);

// ---- normalisations (in place) ----
// Zero mean, deviation scale, plus offset: p = fmaf(p - m, scale/s, offset).
void hcuda_normz_inplace(float* d_p, unsigned long n, float scale, float offset);
// The same with the masked mean and deviation (both taken before any change),
// applied to every element, inside the mask or not.
void hcuda_norm_withmask_inplace(float* d_p, const float* d_w, unsigned long n, float scale, float offset);
// ... then multiplied by the mask.
void hcuda_norm_withmask_applymask_inplace(float* d_p, const float* d_w, unsigned long n, float scale, float offset);
// Host arrays, copied through the device.
void gpu_norm_withmask_applymask_inplace(float* p, const float* w, unsigned long n, float scale, float offset);
void gpu_norm_withmask_applymask(float* out, const float* in, const float* w, unsigned long n, float scale,
                                 float offset);
// Contrast inversion by sign (not a reciprocal).
void hcuda_invert_inplace(float* d_p, unsigned long n);

// ---- element-wise: x from in, y from in2, w from the mask; a, b scalars ----
void hcuda_add(float* d_out, const float* d_in, unsigned long n, float a);     // x+a
void hcuda_sub(float* d_out, const float* d_in, unsigned long n, float a);     // x-a
void hcuda_multi(float* d_out, const float* d_in, unsigned long n, float a);   // x*a
void hcuda_divide(float* d_out, const float* d_in, unsigned long n, float a);  // x/a
void hcuda_add_inplace(float* d_p, unsigned long n, float a);
void hcuda_sub_inplace(float* d_p, unsigned long n, float a);
void hcuda_multi_inplace(float* d_p, unsigned long n, float a);
void hcuda_divide_inplace(float* d_p, unsigned long n, float a);
void hcuda_add_multi(float* d_out, const float* d_in, unsigned long n, float a, float b);   // (x+a)*b
void hcuda_multi_add(float* d_out, const float* d_in, unsigned long n, float a, float b);   // fmaf(x, a, b)
void hcuda_multi_add_inplace(float* d_p, unsigned long n, float a, float b);
void hcuda_sub_divide(float* d_out, const float* d_in, unsigned long n, float a, float b);  // (x-a)/b
void hcuda_sub_divide_inplace(float* d_p, unsigned long n, float a, float b);
void hcuda_divide_sub(float* d_out, const float* d_in, unsigned long n, float a, float b);  // x/a-b
void hcuda_sqr(float* d_out, const float* d_in, unsigned long n);                           // x*x
void hcuda_sqr_inplace(float* d_p, unsigned long n);
void hcuda_sub_sqr(float* d_out, const float* d_in, unsigned long n, float a);  // (x-a)^2
void hcuda_sqrtf(float* d_out, const float* d_in, unsigned long n);
void hcuda_sqrtf_inplace(float* d_p, unsigned long n);
void hcuda_logf(float* d_out, const float* d_in, unsigned long n);
void hcuda_logf_inplace(float* d_p, unsigned long n);
void hcuda_x1d_add(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);     // x+y
void hcuda_x1d_sub(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);     // x-y
void hcuda_x1d_multi(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);   // x*y
void hcuda_x1d_divide(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);  // x/y
void hcuda_x1d_add_inplace(float* d_io, const float* d_in2, unsigned long n);
void hcuda_x1d_sub_inplace(float* d_io, const float* d_in2, unsigned long n);
void hcuda_x1d_multi_inplace(float* d_io, const float* d_in2, unsigned long n);
void hcuda_x1d_divide_inplace(float* d_io, const float* d_in2, unsigned long n);
void hcuda_addto_float(float* d_io, const float* d_in, unsigned long n);  // io += in
void hcuda_apply_mask(float* d_out, const float* d_in, const float* d_w, unsigned long n);  // x*w
void hcuda_apply_mask_inplace(float* d_p, const float* d_w, unsigned long n);
void hcuda_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n);  // x*x*w
void hcuda_data_submean_sqr(float* d_out, const float* d_in, unsigned long n, float m);       // (x-m)^2
void hcuda_data_submean_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n,
                                     float m);  // (x-m)^2*w
