// One process, both back ends: the tests that hold GPU results against the
// host's switch between them here.
#pragma once
#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/local_stats.h"

// The GPU that gpu_usable() chose.
inline int& gpu_gid() {
  static int gid = 0;
  return gid;
}

// True when a GPU answers and this binary can run on it; the back end is
// left on the host either way.
inline bool gpu_usable() {
  static const bool usable = [] {
    if (check_and_set_gid(gpu_gid()) != 0) return false;
    gvex_device_activate(gpu_gid());
    const bool gpu = gvex_on_gpu();
    gvex_device_use_host();
    return gpu;
  }();
  return usable;
}

#define REQUIRE_GPU() \
  if (!gpu_usable()) GTEST_SKIP() << "no usable GPU: " << gvex_device_activate(gpu_gid())

// Runs f on the GPU (true) or the host and leaves the host back end active.
// The caches are emptied on both sides of the switch, since what they hold
// belongs to the back end that made it.
template <class F>
auto on(bool gpu, F f) {
  gvex_fft_plan_cache_clear();
  gvex_local_stats_cache_clear();
  if (gpu)
    gvex_device_activate(gpu_gid());
  else
    gvex_device_use_host();
  auto r = f();
  gvex_fft_plan_cache_clear();
  gvex_local_stats_cache_clear();
  gvex_device_use_host();
  return r;
}
