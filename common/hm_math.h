// Host arithmetic and statistics on float arrays. Statistics accumulate in
// double; the forms ending in f round the double result to float. Standard
// deviations and variances are population ones unless the name starts with
// an s (sample: divided by n-1). A mask or weight array has the same length
// and is multiplied in; masked statistics divide by the mask's sum.
#pragma once

// ---- element-wise, out[i] from in[i] (out may equal in) ----
void hm_sub(float* out, const float* in, unsigned long n, float a);     // x-a
void hm_invert(float* out, const float* in, unsigned long n);  // x * -1.0

void hm_sub_inplace(float* p, unsigned long n, float a);
// Contrast inversion by sign (never a reciprocal); applying it twice restores p.
void hm_invert_inplace(float* p, unsigned long n);

// ---- statistics (double accumulation) ----
double hm_sum(const float* p, unsigned long n);
double hm_mean(const float* p, unsigned long n);
double hm_variance(const float* p, unsigned long n);   // / n
double hm_stdv(const float* p, unsigned long n);

// ---- normalisations ----

// Subtract the float mean (double sum / n, rounded to float) from every element.
void hm_submean_inplace(float* p, unsigned long n);

// Maximum, minimum and float mean of n elements; strict comparisons, so the
// first of equal extremes wins and a NaN after the first element never does.
// n = 0 gives all three 0.
void max_min_mean_value(const float* p, unsigned long n, float& max, float& min, float& mean);

// Sum of a mask in double, with the warning "Too small sum of mask!" (the
// caller goes on) when it is below 1e-6.
double hm_sum_check0(const float* p, unsigned long n);
