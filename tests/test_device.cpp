// Device layer on the host back end: selection rule, fills, copies, launch
// shapes, error texts and the fixed summation tree.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/reduce.h"

namespace {

// Fake device tables for the selection rule.
struct Fake {
  int n;
  int major[4], minor[4];
  bool ok[4];
};
Fake g_fake;
int fake_count() { return g_fake.n; }
bool fake_props(int id, int& ma, int& mi) {
  if (id < 0 || id >= g_fake.n || !g_fake.ok[id]) return false;
  ma = g_fake.major[id];
  mi = g_fake.minor[id];
  return true;
}

TEST(DeviceSelection, FollowsTheCapabilityRule) {
  // A valid request is kept even when a better device exists.
  g_fake = {3, {6, 8, 9}, {0, 0, 0}, {true, true, true}};
  int gid = 0;
  EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), 0);
  EXPECT_EQ(gid, 0);
  // An invalid request takes the lowest id of the highest capability.
  g_fake = {4, {7, 9, 8, 9}, {5, 0, 6, 0}, {true, true, true, true}};
  gid = 7;
  EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), 0);
  EXPECT_EQ(gid, 1);
  // Minor version breaks a tie of majors; unreadable devices are passed over.
  g_fake = {3, {8, 8, 8}, {0, 9, 6}, {true, false, true}};
  gid = -1;
  EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), 0);
  EXPECT_EQ(gid, 2);
  // Nothing answers: -1 with the warning line.
  g_fake = {0, {}, {}, {}};
  gid = 3;
  testing::internal::CaptureStdout();
  EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Warning: no GPU device found!\n");
  // Devices exist but none can be read: the bad id stays and fails.
  g_fake = {2, {8, 8}, {0, 0}, {false, false}};
  gid = 5;
  EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), -1);
  EXPECT_EQ(gid, 5);
}

TEST(DeviceSelection, HostBackEndIsDeviceZero) {
  int gid = 3;
  if (gvex_on_gpu()) GTEST_SKIP();
  EXPECT_EQ(check_and_set_gid(gid), 0);
  EXPECT_EQ(gid, 0);
}

TEST(DeviceMemory, FillsCopiesAndByteCounts) {
  const unsigned long n = 3000;
  float* d = nullptr;
  safe_cudaMalloc((void**)&d, n * sizeof(float));
  hcuda_memset_float(d, 2.5f, n);
  // hcuda_empty counts bytes: n bytes clear only a quarter of the floats.
  hcuda_empty(d, n);
  std::vector<float> h(n);
  memcpy_D2H(h.data(), d, n * sizeof(float));
  for (unsigned long i = 0; i < n; i++) ASSERT_EQ(h[i], i < n / 4 ? 0.0f : 2.5f) << i;
  hcuda_empty_float(d, n);
  memcpy_D2H(h.data(), d, n * sizeof(float));
  for (float v : h) ASSERT_EQ(v, 0.0f);
  hcuda_free(d);

  int* di = nullptr;
  EXPECT_EQ(cudaMalloc_empty((void**)&di, 10 * sizeof(int)), 0);
  hcuda_memset_int(di, -7, 9);
  std::vector<int> hi(10);
  memcpy_D2H(hi.data(), di, sizeof(int) * 10);
  EXPECT_EQ(hi[8], -7);
  EXPECT_EQ(hi[9], 0);
  hcuda_free(di);

  std::vector<unsigned int> hu(5, 1);
  host_memset_uint(hu.data(), 9u, 4);
  EXPECT_EQ(hu[3], 9u);
  EXPECT_EQ(hu[4], 1u);
}

TEST(DeviceLaunch, ShapesCoverEveryIndexOnce) {
  EXPECT_EQ(gvex_blocks_1d(1), 1u);
  EXPECT_EQ(gvex_blocks_1d(1024), 1u);
  EXPECT_EQ(gvex_blocks_1d(1025), 2u);
  EXPECT_EQ(gvex_blocks_2d(33), 2u);
  std::vector<int> hits(70 * 45, 0);
  int* p = hits.data();
  launch_2d(GVEX_SITE, 70, 45, GVEX_LAMBDA(int x, int y) { p[y * 70 + x] += 1; });
  for (int v : hits) ASSERT_EQ(v, 1);
  std::vector<int> one(100000, 0);
  int* q = one.data();
  launch_1d(GVEX_SITE, one.size(), GVEX_LAMBDA(int i) { q[i] += i; });
  for (int i = 0; i < 100000; i++) ASSERT_EQ(one[i], i);
  launch_1d(GVEX_SITE, 0, GVEX_LAMBDA(int i) { q[i] = -1; });
  EXPECT_EQ(one[0], 0);
}

TEST(DeviceErrors, TextsAndExit) {
  EXPECT_STREQ(cuFFT_GetErrorString(10), "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call");
  EXPECT_STREQ(cuFFT_GetErrorString(12), "CUFFT_PARSE_ERROR,  Internal plan database error");
  EXPECT_STREQ(cuFFT_GetErrorString(99), "Unkown error");
  EXPECT_STREQ(cuFFT_GetErrorString(-1), "Unkown error");
  EXPECT_EXIT(gvex_check_fft(8, "/x/cuda_fft.cpp", 42), testing::ExitedWithCode(1),
              "Error CUFFT_INVALID_SIZE, User specified an invalid transform size at line 42 in file cuda_fft\n");
  gvex_check_fft(0, "cuda_fft.cpp", 1);  // success passes
}

TEST(DeviceMemory, ReportKeepsItsSwappedLabels) {
  testing::internal::CaptureStdout();
  gpu_report_memory();
  std::string out = testing::internal::GetCapturedStdout();
  double a, b, c;
  ASSERT_EQ(sscanf(out.c_str(), "GPU memory usage:  total = %lf MB, used = %lf, free = %lf MB\n", &a, &b, &c), 3);
  // "total =" shows the used memory and "free =" the total.
  EXPECT_NEAR(a + b, c, 1e-6 * c + 1e-6);
  EXPECT_GE(c, b);
}

// Independent statement of the tree: recursive halves of each 1024 block,
// pairs (0,1), (2,3), ... then (0,2), ... as the interleaved tree orders them.
float tree_ref(const std::vector<float>& v) {
  std::vector<float> cur = v;
  while (true) {
    std::vector<float> next;
    for (size_t b = 0; b < cur.size(); b += 1024) {
      std::vector<float> s(1024, 0.0f);
      for (size_t t = 0; t < 1024 && b + t < cur.size(); t++) s[t] = cur[b + t];
      for (int width = 1024; width > 1; width /= 2) {
        std::vector<float> h(width / 2);
        for (int k = 0; k < width / 2; k++) h[k] = s[2 * k] + s[2 * k + 1];
        s = h;
      }
      next.push_back(s[0]);
    }
    if (next.size() == 1) return next[0];
    cur = next;
  }
}

float device_sum(const std::vector<float>& v, bool inplace) {
  float* d = nullptr;
  safe_cudaMalloc((void**)&d, v.size() * sizeof(float));
  memcpy_H2D(d, v.data(), v.size() * sizeof(float));
  float s = inplace ? hcuda_fast_sum_inplace(d, v.size()) : hcuda_fast_sum(d, v.size());
  float first = 0;
  memcpy_D2H(&first, d, sizeof(float));
  if (inplace) EXPECT_EQ(first, s);
  else EXPECT_EQ(first, v[0]);
  hcuda_free(d);
  return s;
}

TEST(Reduction, MatchesTheFixedTreeBitForBit) {
  std::mt19937 rng(12345);
  // Values spanning many magnitudes so that summation order changes the float result.
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (unsigned long n : {1UL, 2UL, 1023UL, 1024UL, 1025UL, 4097UL, 3UL * 1024 * 1024, 3UL * 1024 * 1024 + 17}) {
    std::vector<float> v(n);
    for (auto& x : v) x = u(rng) * std::pow(10.0f, (float)(rng() % 8));
    const float want = tree_ref(v);
    EXPECT_EQ(device_sum(v, false), want) << n;
    EXPECT_EQ(device_sum(v, true), want) << n;
  }
  // The order really matters for these data: a plain left-to-right sum differs.
  std::vector<float> v(1025);
  for (size_t i = 0; i < v.size(); i++) v[i] = (i % 2 ? 1e8f : 1.0f);
  float seq = 0;
  for (float x : v) seq += x;
  EXPECT_NE(seq, tree_ref(v));
  EXPECT_EQ(device_sum(v, false), tree_ref(v));
}

TEST(Reduction, EdgeSizes) {
  EXPECT_EQ(device_sum({42.5f}, false), 42.5f);
  EXPECT_EQ(hcuda_fast_sum(nullptr, 0), 0.0f);
  std::vector<float> nan(2000, 1.0f);
  nan[1500] = NAN;
  EXPECT_TRUE(std::isnan(device_sum(nan, false)));
}

}  // namespace
