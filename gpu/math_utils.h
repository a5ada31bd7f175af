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
float hcuda_fast_sum_withmask(const float* d_p, const float* d_w, unsigned long n);
float hcuda_fast_sumsqr_withmask(const float* d_p, const float* d_w, unsigned long n);

// ---- normalisations (in place) ----
// Zero mean, deviation scale, plus offset: p = fmaf(p - m, scale/s, offset).
void hcuda_normz_inplace(float* d_p, unsigned long n, float scale, float offset);
// The same with the masked mean and deviation (both taken before any change),
// applied to every element, inside the mask or not.
void hcuda_norm_withmask_inplace(float* d_p, const float* d_w, unsigned long n, float scale, float offset);
// Contrast inversion by sign (not a reciprocal).
void hcuda_invert_inplace(float* d_p, unsigned long n);

// ---- element-wise: x from in, y from in2, w from the mask; a, b scalars ----
void hcuda_sub(float* d_out, const float* d_in, unsigned long n, float a);     // x-a
void hcuda_multi(float* d_out, const float* d_in, unsigned long n, float a);   // x*a
void hcuda_sub_inplace(float* d_p, unsigned long n, float a);
void hcuda_multi_add(float* d_out, const float* d_in, unsigned long n, float a, float b);   // fmaf(x, a, b)
void hcuda_multi_add_inplace(float* d_p, unsigned long n, float a, float b);
void hcuda_sqr(float* d_out, const float* d_in, unsigned long n);                           // x*x
void hcuda_sqr_inplace(float* d_p, unsigned long n);
void hcuda_sqrtf(float* d_out, const float* d_in, unsigned long n);
void hcuda_sqrtf_inplace(float* d_p, unsigned long n);
void hcuda_x1d_sub(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);     // x-y
void hcuda_x1d_multi(float* d_out, const float* d_in1, const float* d_in2, unsigned long n);   // x*y
void hcuda_x1d_sub_inplace(float* d_io, const float* d_in2, unsigned long n);
void hcuda_apply_mask(float* d_out, const float* d_in, const float* d_w, unsigned long n);  // x*w
void hcuda_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n);  // x*x*w
void hcuda_data_submean_sqr_withmask(float* d_out, const float* d_in, const float* d_w, unsigned long n,
                                     float m);  // (x-m)^2*w
