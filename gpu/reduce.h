// The block reduction that fixes the order of every float sum on the device:
// blocks of 1024 elements, an interleaved pairwise tree inside each block
// (neighbours, then pairs of pairs, ... 512 apart), passes repeated over the
// partial sums until one is left. Both back ends give the same bits.
#pragma once
#include "common/hd.h"

constexpr int GVEX_REDUCE_BLOCK = 1024;

// One step of the tree inside a block: element 2*s*t takes element 2*s*t + s.
GVEX_HD inline void hd_tree_step(float* s, int t, int stride) {
  int k = 2 * stride * t;
  if (k < GVEX_REDUCE_BLOCK) s[k] += s[k + stride];
}

// One pass: out[b] = tree sum of in[b*1024 .. b*1024+1023] (missing = 0),
// for b < ceil(n/1024). in and out must not overlap.
void gvex_reduce_pass(const float* d_in, float* d_out, unsigned long n);

// Whole-array sums (host float results); p unchanged / p destroyed.
float hcuda_fast_sum(const float* d_p, unsigned long n);
float hcuda_fast_sum_inplace(float* d_p, unsigned long n);
