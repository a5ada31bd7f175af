// Option parsing, derived values and value checks, in process; the texts
// the program prints are checked end to end in test_cli.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/records.h"
#include "common/strutil.h"
#include "picker/params.h"
#include "picker/timer.h"
#include "support/capture.h"

namespace {

// argv of "gvexmatch" and the words of a line; it lives as long as the object.
struct Argv {
  std::vector<std::string> words{"gvexmatch"};
  std::vector<char*> ptrs;
  explicit Argv(const std::string& line) {
    std::istringstream in(line);
    for (std::string w; in >> w;) words.push_back(w);
    for (std::string& w : words) ptrs.push_back(&w[0]);
  }
  int argc() const { return (int)words.size(); }
};

// A parsed record together with its argv and what parsing printed.
struct Parsed : Argv {
  GVexMatch_Para* p = new GVexMatch_Para();
  std::string out;
  explicit Parsed(const std::string& line) : Argv(line) {
    gvexmatch_init_parameters(argc(), p);
    testing::internal::CaptureStdout();
    gvexmatch_get_parameters(argc(), ptrs.data(), p);
    out = testing::internal::GetCapturedStdout();
  }
  ~Parsed() { gvexmatch_delete_parameters(p); }
  std::string files() const {
    std::string s;
    for (int i = 0; i < p->n_mic; i++) s += (i ? " " : "") + std::string(p->mic_files[i]);
    return s;
  }
};

// Parses and checks the values of one command line.
void parse_and_check(const std::string& line) {
  Argv a(line);
  std::unique_ptr<GVexMatch_Para, void (*)(GVexMatch_Para*)> p(new GVexMatch_Para(), gvexmatch_delete_parameters);
  gvexmatch_init_parameters(a.argc(), p.get());
  gvexmatch_get_parameters(a.argc(), a.ptrs.data(), p.get());
  gvexmatch_check_values(p.get());
}

TEST(StringHelpers, KeywordsHelpAndNull) {
  for (const char* w : {"-kV", "--KV", "-kv"}) EXPECT_TRUE(keywd_cmp(w, "kv")) << w;
  for (const char* w : {"kv", "---kv", "--kv2", "--k"}) EXPECT_FALSE(keywd_cmp(w, "kv")) << w;
  for (const char* h : {"-h", "--h", "-help", "--HELP", "-H"}) EXPECT_TRUE(is_keywd_help(h)) << h;
  for (const char* h : {"h", "help", "-hel", "---help", "--helpme"}) EXPECT_FALSE(is_keywd_help(h)) << h;
  for (const char* s : {"NULL", "null", "NONE", "None", "", "\nabc"}) EXPECT_TRUE(is_str_null(s)) << s;
  for (const char* s : {"NULLX", "a.mrc", " NULL", "nul"}) EXPECT_FALSE(is_str_null(s)) << s;
}

// A flag consumes a following number, and also a name beginning with '.' or
// '/', but not one beginning with a letter nor an option.
TEST(Parameters, FlagSharpEdges) {
  const struct {
    const char* words;
    int flag;
    const char* files;
  } cases[] = {
      {"--extract_raw 0 a.mrc", 0, "a.mrc"},
      {"--extract_raw 3 a.mrc", 1, "a.mrc"},
      {"--EXTRACT_RAW a.mrc", 1, "a.mrc"},
      {"b.mrc --extract_raw ./a.mrc", 0, "b.mrc"},
      {"b.mrc --extract_raw /data/1.mrc", 0, "b.mrc"},
      {"b.mrc --extract_raw 12_a.mrc", 1, "b.mrc"},
      {"--extract_raw --gid 0 x", 1, "x"},
      {"x --extract_raw", 1, "x"},
  };
  for (const auto& c : cases) {
    Parsed r(c.words);
    EXPECT_EQ(r.p->extract_raw, c.flag) << c.words;
    EXPECT_EQ(r.files(), c.files) << c.words;
  }
}

TEST(Parameters, NamesValuesAndFiles) {
  Parsed r(
      "--SPEED 3 -KV 200 x --kv 120 -apixm 1.5 --T t.mrcs --gid 0 --excluded_suffix _manual.star y.mrc "
      "--T_norm_type 3");
  EXPECT_EQ(r.p->speed, 3);
  EXPECT_EQ(r.p->shrink, 6);
  EXPECT_FLOAT_EQ(r.p->kV, 120.0f);  // the last occurrence wins
  EXPECT_FLOAT_EQ(r.p->apixM, 1.5f);
  EXPECT_STREQ(r.p->T, "t.mrcs");
  EXPECT_EQ(r.p->auto_template, 0);
  EXPECT_STREQ(r.p->excluded_suffix, "_manual.star");
  EXPECT_EQ(r.p->T_norm_type, 3);
  EXPECT_EQ(r.files(), "x y.mrc");
  EXPECT_EQ(r.p->mic_files[0], r.ptrs[5]);  // names point into argv

  const int shrink_of[5] = {1, 2, 4, 6, 8};
  for (int s = 0, shrink; s <= 4; s++) {
    int speed = s;
    gvexmatch_speed2shrink(speed, shrink);
    EXPECT_EQ(shrink, shrink_of[s]);
  }
}

TEST(Parameters, TemplateNoneCountsAsGiven) {
  // NONE keeps the synthetic template; a value equal to the default counts
  // as given too; apixT follows apixM when not given.
  Parsed r("--T NONE --diameter 400 --apixM 2.0 a.mrc");
  EXPECT_EQ(r.p->auto_template, 1);
  EXPECT_FLOAT_EQ(r.p->apixT, 2.0f);
  EXPECT_EQ(r.out.rfind("Waring: You have not set the parameter '--apixT'", 0), 0u) << r.out;
  EXPECT_EQ(r.out.find("Waring", 1), std::string::npos) << r.out;
}

TEST(Parameters, DerivedDefaults) {
  const struct {
    const char* words;
    float min_dist;
    int boxsize;
    float lsigma_D, lave_D;
  } cases[] = {
      {"--diameter 200", 160.0f, 198, 200.0f, 260.0f},
      {"", 320.0f, 396, 300.0f, 320.0f},  // from the default diameter
      // Given values are kept, before or after --diameter.
      {"--min_dist 100 --boxsize 64 --lsigma_D 50 --lave_D 70 --diameter 200 --speed 1 --apixM 2", 100.0f, 64, 50.0f,
       70.0f},
      {"--diameter 101 --apixM 1", 80.8f, 134, 150.5f, 230.3f},  // (int)134.33
      {"--diameter 100 --apixM 1", 80.0f, 132, 150.0f, 230.0f},  // 133 rounded down to even
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words);
    Parsed r(c.words + std::string(" a.mrc"));
    const GVexMatch_Para& p = *r.p;
    EXPECT_FLOAT_EQ(p.min_dist, c.min_dist);
    EXPECT_EQ(p.boxsize, c.boxsize);
    EXPECT_FLOAT_EQ(p.lsigma_D, c.lsigma_D);
    EXPECT_FLOAT_EQ(p.lave_D, c.lave_D);
    // Shrunk-pixel fields use the final speed and pixel size.
    const float px = p.shrink * p.apixM;
    EXPECT_FLOAT_EQ(p.min_dist_px, p.min_dist / px);
    EXPECT_FLOAT_EQ(p.template_r, 1.3f * p.diameter / (2 * px));
    EXPECT_FLOAT_EQ(p.lsigma_r, p.lsigma_D / (2 * px));
    EXPECT_FLOAT_EQ(p.lave_r, p.lave_D / (2 * px));
  }
}

using ParametersFail = testing::Test;

TEST_F(ParametersFail, ValuesThatCannotBeProcessed) {
  const std::pair<const char*, const char*> bad[] = {
      {"--apixM 0", "--apixM must be a positive"},
      {"--apixM -1.3", "--apixM"},
      {"--apixM nan", "--apixM"},
      {"--diameter 0", "--diameter must be a positive"},
      {"--diameter -5 --min_dist 100", "--diameter"},
      {"--min_dist 3", "--min_dist 3 leaves a picking grid cell below one"},
      {"--diameter 4", "--diameter 4 gives a minimum distance"},
      {"--min_dist 40 --speed 4 --apixM 4", "--min_dist"},
      {"--T t.mrcs --ang_step 0", "--ang_step 0 must be a positive step"},
      {"--T t.mrcs --ang_step -5", "--ang_step"},
      {"--T t.mrcs --ang_step nan", "--ang_step"},
      {"--T t.mrcs --ang_step 0.009", "--ang_step"},
      {"--T t.mrcs --apixT 0", "--apixT"},
      {"--extract_raw --boxsize 0", "--boxsize must be positive"},
  };
  for (const auto& [words, why] : bad)
    EXPECT_FAILS(parse_and_check(words + std::string(" a.mrc")),
                 std::string("gvexmatch_check_values\\(\\), file vexmatch56 on line [0-9]+: option ") + why);
  const char* fine[] = {
      "--ang_step 0",  // the synthetic template scans one orientation
      "--T t.mrcs --ang_step 0.01",
      "--boxsize 0",   // only extraction needs a box
      "--min_dist 8",  // grid cell (int)1.055 = 1
      "--speed 4",
  };
  for (const char* words : fine)
    EXPECT_FALSE(capture_run([&] { parse_and_check(words + std::string(" a.mrc")); }).failed) << words;
  // Text values fill at most 1023 characters of their buffer.
  EXPECT_FAILS(parse_and_check("--T " + std::string(GVEX_NAME_LEN, 't') + " a.mrc"),
              "gvexmatch_get_parameters\\(\\), file vexmatch56 on line [0-9]+: the value of option --T is longer "
              "than 1023");
  EXPECT_FALSE(capture_run([&] { parse_and_check("--T " + std::string(GVEX_NAME_LEN - 1, 't') + " a.mrc"); }).failed);
}

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
  gvex_timer_reset();
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
