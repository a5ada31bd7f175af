// Planning from FFTW wisdom: plans measured and written as wisdom are found
// again by a later plan of the same shape, and give the measured plan's
// bits; a shape the wisdom lacks is estimated. (Its own executable: the
// planning mode is the process's.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "gpu/cuda_fft.h"
#include "support/match_fixtures.h"
#include "support/run.h"

namespace {

std::vector<float> round_trip(int n, const Vec& img) {
  gvex_fft_plan_cache_clear();
  FftPlan2d& p = gvex_fft_plan(n, n);
  Dev<float> in(img), out(img.size());
  DeviceArray<float2> spectrum((unsigned long)(n / 2 + 1) * n);
  p.r2c(in.get(), spectrum.get());
  p.c2r(spectrum.get(), out.get());
  return out.host();
}

TEST(Wisdom, MeasuredPlansAreFoundAgainWithTheirBits) {
  TempDir dir;
  const std::string wisdom = dir.file("w.wisdom");
  const Vec img = uniform(96 * 96, 5);
  std::string why;
  ASSERT_TRUE(gvex_fft_plans_measured(wisdom, why)) << why;  // no file yet: a fresh start
  EXPECT_EQ(gvex_fft_plans_text(), "measured");
  const std::vector<float> measured = round_trip(96, img);
  ASSERT_TRUE(gvex_fft_write_wisdom(wisdom));
  EXPECT_FALSE(gvex_fft_plans_from_wisdom(dir.file("none.wisdom"), why));
  EXPECT_NE(why.find("none.wisdom"), std::string::npos) << why;
  ASSERT_EQ(mkfifo(dir.file("fifo.wisdom").c_str(), 0644), 0);  // named, never waited on
  EXPECT_FALSE(gvex_fft_plans_from_wisdom(dir.file("fifo.wisdom"), why));
  EXPECT_NE(why.find("fifo.wisdom: it is a FIFO"), std::string::npos) << why;
  ASSERT_TRUE(gvex_fft_plans_from_wisdom(wisdom, why)) << why;
  EXPECT_EQ(gvex_fft_plans_text(), "from wisdom " + wisdom + " (shapes it lacks are estimated)");
  EXPECT_TRUE(same_bits(round_trip(96, img), measured));
  round_trip(40, uniform(40 * 40, 6));  // not in the wisdom: estimated
  EXPECT_EQ(gvex_fft_plans_text(), "from wisdom " + wisdom + " (2 of 4 found there, the rest estimated)");
}

}  // namespace
