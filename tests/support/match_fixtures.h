// Small helpers shared by the unit tests of gpu/ and match/: device copies
// of host vectors, seeded noise, writable C strings for the char*
// interfaces, bitwise comparison.
#pragma once
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gpu/device.h"

using Vec = std::vector<float>;

// A device array filled from a host vector (or n elements), read back whole.
template <class T>
struct Dev : DeviceArray<T> {
  explicit Dev(const std::vector<T>& h) : DeviceArray<T>(h.empty() ? 1 : h.size()) { put(h); }
  explicit Dev(size_t n, bool zero = false) : DeviceArray<T>(n, zero) {}
  void put(const std::vector<T>& h) const { memcpy_H2D(this->get(), h.data(), h.size() * sizeof(T)); }
  std::vector<T> host() const {
    std::vector<T> h(this->size());
    memcpy_D2H(h.data(), this->get(), h.size() * sizeof(T));
    return h;
  }
};

// n values drawn uniformly from [lo, hi) with a fixed seed.
inline Vec uniform(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  Vec v(n);
  for (float& x : v) x = u(g);
  return v;
}

inline std::vector<char> cstr(const std::string& s) {
  std::vector<char> v(s.begin(), s.end());
  v.push_back(0);
  return v;
}

// Same bits (NaNs included), which == cannot say.
inline bool same_bits(const void* a, const void* b, size_t bytes) { return std::memcmp(a, b, bytes) == 0; }
template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && same_bits(a.data(), b.data(), a.size() * sizeof(T));
}
