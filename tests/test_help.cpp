// The random tip, in process; the help and the tip table themselves are
// fixed by the golden transcript help_full.txt (test_cli).
#include <gtest/gtest.h>

#include <string>

#include "picker/help.h"
#include "support/capture.h"

namespace {

// Runs started in the same second print the same tip: one entry of the
// tip table between rulers, with no added newline.
TEST(Help, RandomTipFollowsTheSecond) {
  const std::string ruler = std::string(127, '-') + "\n";
  const std::string all = stdout_of([] { gvexmatch_put_all_tips(); });
  for (long t : {0L, 1L, 1501234567L, 1700000000L, 1700000001L}) {
    const std::string tip = stdout_of([&] { gvexmatch_put_tip_for_seed(t); });
    EXPECT_EQ(stdout_of([&] { gvexmatch_put_tip_for_seed(t); }), tip) << t;
    ASSERT_EQ(tip.rfind(ruler, 0), 0u);
    ASSERT_EQ(tip.substr(tip.size() - ruler.size()), ruler);
    const std::string entry = tip.substr(ruler.size(), tip.size() - 2 * ruler.size());
    EXPECT_NE(all.find("\n" + entry + "\n"), std::string::npos) << entry;
  }
}

}  // namespace
