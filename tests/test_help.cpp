// The random tip, in process; the help and the tip table themselves are
// fixed by the golden transcript help_full.txt (test_cli).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "picker/help.h"

namespace {

template <class F>
std::string stdout_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// Runs started in the same second print the same tip: entry rand() % 9
// after seeding with the second, between rulers, with no added newline.
TEST(Help, RandomTipFollowsTheSecond) {
  const std::string ruler = std::string(127, '-') + "\n";
  for (long t : {0L, 1L, 1501234567L, 1501234568L, 1700000000L, 1700000001L, 1700000002L}) {
    srand((unsigned)t);
    const std::string expect = ruler + gvexmatch_tip_text(rand() % GVEX_N_TIPS) + ruler;
    EXPECT_EQ(stdout_of([&] { gvexmatch_put_tip_for_seed(t); }), expect) << t;
    EXPECT_EQ(stdout_of([&] { gvexmatch_put_tip_for_seed(t); }), expect) << t;
  }
  EXPECT_EQ(gvexmatch_tip_text(GVEX_N_TIPS), nullptr);
  EXPECT_EQ(gvexmatch_tip_text(-1), nullptr);
  const std::string now = stdout_of([] { gvexmatch_put_one_random_tip(); });
  EXPECT_EQ(now.rfind(ruler, 0), 0u);
  EXPECT_EQ(now.substr(now.size() - ruler.size()), ruler);
}

}  // namespace
