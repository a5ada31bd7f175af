// Small helpers for the gpu layer's unit tests: seeded host data, device
// copies of host vectors and bitwise comparison.
#pragma once
#include <cstring>
#include <random>
#include <vector>

#include "gpu/device.h"

using Vec = std::vector<float>;

// n values drawn uniformly from [lo, hi) with a fixed seed.
inline Vec uniform(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  Vec v(n);
  for (float& x : v) x = u(g);
  return v;
}

// A device array holding a copy of a host vector, or n uninitialised floats.
struct DevVec {
  explicit DevVec(const Vec& h) : a(h.empty() ? 1 : h.size()) {
    memcpy_H2D(a.get(), h.data(), h.size() * sizeof(float));
  }
  explicit DevVec(size_t n) : a(n) {}
  float* get() const { return a.get(); }
  DeviceArray<float> a;
};

inline Vec download(const float* d, size_t n) {
  Vec h(n);
  memcpy_D2H(h.data(), d, n * sizeof(float));
  return h;
}

// Same bits (NaNs included), which == cannot say.
inline bool same_bits(const void* a, const void* b, size_t bytes) { return std::memcmp(a, b, bytes) == 0; }
