// String helpers of the parser, the candidate file's name and the stage
// timer, in process; the parser itself is checked end to end in test_cli.
#include <gtest/gtest.h>

#include <string>

#include "common/records.h"
#include "common/strutil.h"
#include "picker/params.h"
#include "picker/timer.h"
#include "support/capture.h"

namespace {

TEST(StringHelpers, KeywordsHelpAndNull) {
  for (const char* w : {"-kV", "--KV", "-kv"}) EXPECT_TRUE(keywd_cmp(w, "kv")) << w;
  for (const char* w : {"kv", "---kv", "--kv2", "--k"}) EXPECT_FALSE(keywd_cmp(w, "kv")) << w;
  for (const char* h : {"-h", "--h", "-help", "--HELP", "-H"}) EXPECT_TRUE(is_keywd_help(h)) << h;
  for (const char* h : {"h", "help", "-hel", "---help", "--helpme"}) EXPECT_FALSE(is_keywd_help(h)) << h;
  for (const char* s : {"NULL", "null", "NONE", "None", "", "\nabc"}) EXPECT_TRUE(is_str_null(s)) << s;
  for (const char* s : {"NULLX", "a.mrc", " NULL", "nul"}) EXPECT_FALSE(is_str_null(s)) << s;
}

// Parsing, derived defaults and refused values are fixed end to end by the
// golden transcripts (tests/golden/cli); here, the helpers beneath them.
using ParametersFail = testing::Test;

TEST_F(ParametersFail, NonuniqueBoxName) {
  char out[GVEX_NAME_LEN];
  const std::pair<const char*, const char*> names[] = {{"Micrographs/a.mrc", "Micrographs/a_nonunique.box"},
                                                       {"a.b.mrcs", "a.b_nonunique.box"},
                                                       {"noext", "noext_nonunique.box"},
                                                       {"../run.2/mic", "../run.2/mic_nonunique.box"}};
  for (const auto& [mic, box] : names) {
    set_name_shrinked_box(out, mic, 4);
    EXPECT_STREQ(out, box);
  }
  EXPECT_FAILS(set_name_shrinked_box(out, (std::string(GVEX_NAME_LEN - 14, 'm') + ".mrc").c_str(), 2),
               "too long");
}

// The TIME lines are checked end to end; here, a stack that is full or empty.
TEST(Timer, FullAndEmptyStacks) {
  gvex_timer_truncate(0);
  testing::internal::CaptureStdout();
  for (int i = 0; i < GVEX_TIMER_DEPTH + 50; i++) gvex_timer_push();
  EXPECT_EQ(gvex_timer_depth(), GVEX_TIMER_DEPTH);
  for (int i = 0; i < GVEX_TIMER_DEPTH; i++) gvex_timer_pop("X");
  EXPECT_EQ(gvex_timer_pop("TOTAL"), -1.0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("Warning in function gvex_timer_push(), file timer on line ", 0), 0u);
  EXPECT_EQ(out.find("Warning in function gvex_timer_push()", 1), std::string::npos);  // once
  EXPECT_NE(out.find("Warning in function gvex_timer_pop()"), std::string::npos);
  EXPECT_EQ(gvex_timer_depth(), 0);
}

}  // namespace
