// Device layer on the host back end: selection rule, byte-counting fills,
// error texts, the memory report and the fixed summation tree.
#include <gtest/gtest.h>

#include <cmath>

#include "support/capture.h"
#include "gpu/device.h"
#include "gpu/pool.h"
#include "gpu/reduce.h"
#include "support/match_fixtures.h"

namespace {

// A fake device table: major, minor and readability per id.
struct Fake {
  int n, major[4], minor[4];
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
  struct Case {
    Fake table;
    int request, rc, chosen;
    const char* said;
  };
  const Case cases[] = {
      {{3, {6, 8, 9}, {0, 0, 0}, {true, true, true}}, 0, 0, 0, ""},           // a readable request is kept
      {{4, {7, 9, 8, 9}, {5, 0, 6, 0}, {true, true, true, true}}, 7, 0, 1, ""},  // lowest id of the best
      {{3, {8, 8, 8}, {0, 9, 6}, {true, false, true}}, -1, 0, 2, ""},  // minor breaks ties; unreadable skipped
      {{2, {8, 8}, {0, 0}, {false, false}}, 5, -1, 5, ""},             // none readable: the bad id stays
      {{0, {}, {}, {}}, 3, -1, 3, "Warning: no GPU device found!\n"},
  };
  for (const Case& c : cases) {
    g_fake = c.table;
    int gid = c.request;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(gvex_select_gid(gid, fake_count, fake_props), c.rc) << c.request; }), c.said);
    EXPECT_EQ(gid, c.chosen) << c.request;
  }
  int gid = 3;  // the host back end answers as device 0
  EXPECT_EQ(check_and_set_gid(gid), 0);
  EXPECT_EQ(gid, 0);
}

TEST(DeviceErrors, FftTextsAndExit) {
  EXPECT_STREQ(cuFFT_GetErrorString(10), "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call");
  EXPECT_STREQ(cuFFT_GetErrorString(12), "CUFFT_PARSE_ERROR,  Internal plan database error");
  EXPECT_STREQ(cuFFT_GetErrorString(99), "Unkown error");
  EXPECT_STREQ(cuFFT_GetErrorString(-1), "Unkown error");
  EXPECT_FAILS(gvex_check_fft(8, "/x/cuda_fft.cpp", 42),
              "Error CUFFT_INVALID_SIZE, User specified an invalid transform size at line 42 in file cuda_fft\n");
  gvex_check_fft(0, "cuda_fft.cpp", 1);  // success passes
}

// Independent statement of the tree: a block's sum is the sum of its two
// halves, down to single elements, zero past the end; passes of 1024-blocks
// repeat over the block sums until one is left.
float halves(const Vec& v, size_t b, size_t w) {
  if (b >= v.size()) return 0.0f;
  return w == 1 ? v[b] : halves(v, b, w / 2) + halves(v, b + w / 2, w / 2);
}
float tree_ref(Vec v) {
  while (v.size() > 1) {
    Vec next;
    for (size_t b = 0; b < v.size(); b += 1024) next.push_back(halves(v, b, 1024));
    v = next;
  }
  return v[0];
}

TEST(Reduction, MatchesTheFixedTreeBitForBit) {
  std::mt19937 rng(12345);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (unsigned long n : {1UL, 2UL, 1023UL, 1024UL, 1025UL, 4097UL, 3UL * 1024 * 1024, 3UL * 1024 * 1024 + 17}) {
    Vec v(n);  // many magnitudes, so that the order changes the float result
    for (float& x : v) x = u(rng) * std::pow(10.0f, (float)(rng() % 8));
    const float want = tree_ref(v);
    float seq = 0;
    for (float x : v) seq += x;
    ASSERT_TRUE(n <= 1024 || seq != want) << n << ": the data do not tell the orders apart";
    // The plain form leaves the input alone, the in-place one the sum in front.
    Dev<float> d(v);
    EXPECT_EQ(hcuda_fast_sum(d.get(), n), want) << n;
    EXPECT_EQ(d.host()[0], v[0]);
    EXPECT_EQ(hcuda_fast_sum_inplace(d.get(), n), want) << n;
    EXPECT_EQ(d.host()[0], want);
  }
  EXPECT_EQ(hcuda_fast_sum(nullptr, 0), 0.0f);
  Vec nan(2000, 1.0f);
  nan[1500] = NAN;
  EXPECT_TRUE(std::isnan(hcuda_fast_sum(Dev<float>(nan).get(), nan.size())));
}

TEST(BlockPool, HandsBackAFreedBlockOfTheSameSizeOnly) {
  gvex_pool_clear();
  const float* first = PooledArray<float>(1000).get();  // back in the pool at once
  {
    PooledArray<float> other(999), same(1000), more(1000);
    EXPECT_EQ(same.get(), first);
    EXPECT_NE(more.get(), first);
  }
  // The freed block of that size comes back, the most recent first.
  EXPECT_EQ(PooledArray<float>(1000).get(), first);
}

}  // namespace
