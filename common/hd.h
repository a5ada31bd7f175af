// Qualifiers and small value types shared by host code and kernel bodies.
#pragma once

#if defined(__CUDACC__)
#define GVEX_HD __host__ __device__
#define GVEX_D __device__
#else
#define GVEX_HD
#define GVEX_D
#endif

// A kernel body written once as a lambda: [=] __host__ __device__ (int i) {...}.
#define GVEX_LAMBDA [=] GVEX_HD

// int2 / float2 are CUDA's vector types when the CUDA headers are in play and
// identical plain records otherwise, so that every translation unit of one
// build sees the same layout.
#if defined(GVEX_WITH_CUDA)
#include <vector_types.h>
#else
struct int2 {
  int x, y;
};
struct float2 {
  float x, y;
};
#endif
