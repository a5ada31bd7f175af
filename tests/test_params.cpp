// Option parsing, derived values, value checks, the echo and the string
// helpers behind them.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "common/records.h"
#include "common/strutil.h"
#include "picker/params.h"
#include "picker/timer.h"

namespace {

// argv with a program name in front; the words live as long as the object.
struct Args {
  std::vector<std::string> words;
  std::vector<char*> argv;
  explicit Args(std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), "gvexmatch");
    for (std::string& s : words) argv.push_back(&s[0]);
    argv.push_back(nullptr);
  }
  int argc() const { return (int)words.size(); }
};

// A parsed record together with its argv and what parsing printed.
struct Parsed {
  Args args;
  GVexMatch_Para* p = nullptr;
  std::string out;
  explicit Parsed(std::vector<std::string> w) : args(std::move(w)) {
    p = new GVexMatch_Para();
    gvexmatch_init_parameters(args.argc(), p);
    testing::internal::CaptureStdout();
    gvexmatch_get_parameters(args.argc(), args.argv.data(), p);
    out = testing::internal::GetCapturedStdout();
  }
  ~Parsed() { gvexmatch_delete_parameters(p); }
  std::string file(int i) const { return i < p->n_mic ? p->mic_files[i] : "<none>"; }
};

// Runs the parser in a death-test child with its standard output sent to
// the stream the death test matches.
void parse_to_stderr(std::vector<std::string> w) {
  fflush(stdout);
  dup2(2, 1);
  Args a(std::move(w));
  GVexMatch_Para* p = new GVexMatch_Para();
  gvexmatch_init_parameters(a.argc(), p);
  gvexmatch_get_parameters(a.argc(), a.argv.data(), p);
  gvexmatch_check_values(p);
  fflush(stdout);
  exit(42);  // parsed and accepted
}

const char kWarnDiameter[] =
    "Waring: You have not set the parameter '--diameter',  the default value 400\xc3\x85 will be used.\n";
const char kWarnT[] =
    "Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be used. "
    "This is fine for 'spherical particles' like virus or ribosome. Do use templates for non-spherical particles.\n";
const char kWarnApixM[] =
    "Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be 1.34\xc3\x85 by "
    "default.\n";
const char kWarnApixT[] =
    "Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the same as "
    "micrographs by default.\n";

TEST(StringHelpers, KeywordsHelpAndNull) {
  EXPECT_TRUE(keywd_cmp("-kV", "kv"));
  EXPECT_TRUE(keywd_cmp("--KV", "kv"));
  EXPECT_TRUE(keywd_cmp("-T", "T"));
  EXPECT_FALSE(keywd_cmp("kv", "kv"));
  EXPECT_FALSE(keywd_cmp("---kv", "kv"));
  EXPECT_FALSE(keywd_cmp("--kv2", "kv"));
  EXPECT_FALSE(keywd_cmp("--k", "kv"));
  for (const char* h : {"-h", "--h", "-help", "--help", "--HELP", "-H"}) EXPECT_TRUE(is_keywd_help(h)) << h;
  for (const char* h : {"h", "help", "-hel", "---help", "--helpme"}) EXPECT_FALSE(is_keywd_help(h)) << h;
  for (const char* s : {"NULL", "null", "NONE", "None", "", "\nabc"}) EXPECT_TRUE(is_str_null(s)) << s;
  for (const char* s : {"NULLX", "a.mrc", " NULL", "nul"}) EXPECT_FALSE(is_str_null(s)) << s;

  char buf[8];
  EXPECT_TRUE(str_copy_fits(buf, "1234567", sizeof buf));
  EXPECT_STREQ(buf, "1234567");
  EXPECT_FALSE(str_copy_fits(buf, "12345678", sizeof buf));
  EXPECT_STREQ(buf, "1234567");
}

TEST(StringHelpers, FlagTakesNumbersButNotNamesOrOptions) {
  struct Case {
    std::vector<std::string> words;
    int value, next_i;
  } cases[] = {
      {{"--f"}, 1, 1},                 // last word
      {{"--f", "-x"}, 1, 1},           // next is an option
      {{"--f", "a.mrc"}, 1, 1},        // next begins with a letter
      {{"--f", "0"}, 0, 2},            // number consumed
      {{"--f", "3"}, 1, 2},
      {{"--f", "./a.mrc"}, 0, 2},      // the sharp edge: consumed, atoi 0
      {{"--f", "/data/1.mrc"}, 0, 2},
      {{"--f", "12_a.mrc"}, 1, 2},
  };
  for (const Case& c : cases) {
    Args a(c.words);
    int v = -7, i = 1;
    get_bool_keyword(a.argc(), a.argv.data(), v, i);
    EXPECT_EQ(v, c.value) << c.words.back();
    EXPECT_EQ(i, c.next_i) << c.words.back();
  }
}

TEST(Parameters, DefaultsOfTheRecord) {
  GVexMatch_Para* p = new GVexMatch_Para();
  gvexmatch_init_parameters(3, p);
  EXPECT_STREQ(p->T, "NULL");
  EXPECT_STREQ(p->excluded_suffix, "NULL");
  EXPECT_STREQ(p->global_excluded_box, "NULL");
  EXPECT_FLOAT_EQ(p->apixM, 1.34f);
  EXPECT_FLOAT_EQ(p->cc_cutoff, 0.15f);
  EXPECT_FLOAT_EQ(p->lp, 40.0f);
  EXPECT_FLOAT_EQ(p->lave_max, 1.0f);
  EXPECT_EQ(p->speed, 2);
  EXPECT_EQ(p->shrink, 4);
  EXPECT_EQ(p->boxsize, 128);
  EXPECT_EQ(p->write_rejected_box, 1);
  EXPECT_EQ(p->write_star, 1);
  EXPECT_EQ(p->detect_ice, 1);
  EXPECT_EQ(p->do_bandpass, 1);
  EXPECT_EQ(p->auto_template, 1);
  EXPECT_EQ(p->ang_start, 0);
  EXPECT_FLOAT_EQ(p->ang_end, 359.0f);
  EXPECT_FLOAT_EQ(p->local_edge, 8.0f);
  EXPECT_FLOAT_EQ(p->aux_ratio, 1.2f);
  EXPECT_EQ(p->n_mic, 0);
  // Derived fields follow the table's defaults at init.
  EXPECT_FLOAT_EQ(p->min_dist_px, 300.0f / (4 * 1.34f));
  EXPECT_FLOAT_EQ(p->template_r, 1.3f * 400.0f / (4 * 2 * 1.34f));
  EXPECT_FLOAT_EQ(p->lsigma_r, 100.0f / (4 * 2 * 1.34f));
  EXPECT_FLOAT_EQ(p->lave_r, 400.0f / (4 * 2 * 1.34f));
  gvexmatch_delete_parameters(p);
}

TEST(Parameters, FlagSharpEdges) {
  {
    Parsed r({"--write_star", "0", "a.mrc"});
    EXPECT_EQ(r.p->write_star, 0);
    ASSERT_EQ(r.p->n_mic, 1);
    EXPECT_EQ(r.file(0), "a.mrc");
  }
  {
    Parsed r({"--write_star", "a.mrc"});
    EXPECT_EQ(r.p->write_star, 1);
    EXPECT_EQ(r.file(0), "a.mrc");
  }
  {
    // ./a.mrc switches the flag off and is lost as a file.
    Parsed r({"b.mrc", "--write_star", "./a.mrc"});
    EXPECT_EQ(r.p->write_star, 0);
    ASSERT_EQ(r.p->n_mic, 1);
    EXPECT_EQ(r.file(0), "b.mrc");
  }
  {
    Parsed r({"b.mrc", "--do_pre_filter", "--extract_raw", "--WRITE_MIC_MASK"});
    EXPECT_EQ(r.p->do_pre_filter, 1);
    EXPECT_EQ(r.p->extract_raw, 1);
    EXPECT_EQ(r.p->write_mic_mask, 1);
  }
}

TEST(Parameters, NamesValuesAndFiles) {
  Parsed r({"--SPEED", "3", "-KV", "200", "x", "--kv", "120", "-apixm", "1.5", "--T", "t.mrcs", "--gid", "0",
            "--excluded_suffix", "_manual.star", "y.mrc", "--T_norm_type", "3"});
  EXPECT_EQ(r.p->speed, 3);
  EXPECT_EQ(r.p->shrink, 6);
  EXPECT_FLOAT_EQ(r.p->kV, 120.0f);  // the last occurrence wins
  EXPECT_FLOAT_EQ(r.p->apixM, 1.5f);
  EXPECT_STREQ(r.p->T, "t.mrcs");
  EXPECT_EQ(r.p->auto_template, 0);
  EXPECT_STREQ(r.p->excluded_suffix, "_manual.star");
  EXPECT_EQ(r.p->T_norm_type, 3);
  ASSERT_EQ(r.p->n_mic, 2);
  EXPECT_EQ(r.file(0), "x");
  EXPECT_EQ(r.file(1), "y.mrc");
  // Files point into argv, in command-line order.
  EXPECT_EQ(r.p->mic_files[0], r.args.argv[5]);

  const int shrink_of[5] = {1, 2, 4, 6, 8};
  for (int s = 0; s <= 4; s++) {
    int speed = s, shrink = -1;
    gvexmatch_speed2shrink(speed, shrink);
    EXPECT_EQ(shrink, shrink_of[s]);
  }
}

TEST(Parameters, TemplateNoneAndWarnings) {
  {
    Parsed r({"a.mrc"});
    EXPECT_EQ(r.out, std::string(kWarnDiameter) + kWarnT + kWarnApixM + kWarnApixT);
  }
  {
    // NONE keeps the synthetic template but still counts as given; a value
    // equal to the default counts as given too.
    Parsed r({"--T", "NONE", "--diameter", "400", "--apixM", "2.0", "a.mrc"});
    EXPECT_EQ(r.p->auto_template, 1);
    EXPECT_EQ(r.out, kWarnApixT);
    EXPECT_FLOAT_EQ(r.p->apixT, 2.0f);  // follows apixM when not given
  }
  {
    Parsed r({"--T", "none", "--apixT", "3", "a.mrc"});
    EXPECT_EQ(r.p->auto_template, 1);
    EXPECT_FLOAT_EQ(r.p->apixT, 3.0f);
    EXPECT_EQ(r.out, std::string(kWarnDiameter) + kWarnApixM);
  }
}

TEST(Parameters, DerivedDefaults) {
  {
    Parsed r({"--diameter", "200", "a.mrc"});
    EXPECT_FLOAT_EQ(r.p->min_dist, 160.0f);
    EXPECT_EQ(r.p->boxsize, 198);
    EXPECT_FLOAT_EQ(r.p->lsigma_D, 200.0f);
    EXPECT_FLOAT_EQ(r.p->lave_D, 260.0f);
    EXPECT_FLOAT_EQ(r.p->min_dist_px, 160.0f / (4 * 1.34f));
    EXPECT_FLOAT_EQ(r.p->template_r, 1.3f * 200.0f / (4 * 2 * 1.34f));
    EXPECT_FLOAT_EQ(r.p->lsigma_r, 200.0f / (4 * 2 * 1.34f));
    EXPECT_FLOAT_EQ(r.p->lave_r, 260.0f / (4 * 2 * 1.34f));
  }
  {
    // The default diameter still derives the others.
    Parsed r({"a.mrc"});
    EXPECT_FLOAT_EQ(r.p->min_dist, 320.0f);
    EXPECT_EQ(r.p->boxsize, 396);
    EXPECT_FLOAT_EQ(r.p->lsigma_D, 300.0f);
    EXPECT_FLOAT_EQ(r.p->lave_D, 320.0f);
  }
  {
    // Given values are kept, whatever their order relative to --diameter;
    // derived fields use the final shrink and apixM.
    Parsed r({"--min_dist", "100", "--boxsize", "64", "--lsigma_D", "50", "--lave_D", "70", "--diameter", "200",
              "--speed", "1", "--apixM", "2", "a.mrc"});
    EXPECT_FLOAT_EQ(r.p->min_dist, 100.0f);
    EXPECT_EQ(r.p->boxsize, 64);
    EXPECT_FLOAT_EQ(r.p->lsigma_D, 50.0f);
    EXPECT_FLOAT_EQ(r.p->lave_D, 70.0f);
    EXPECT_FLOAT_EQ(r.p->min_dist_px, 100.0f / (2 * 2.0f));
    EXPECT_FLOAT_EQ(r.p->lave_r, 70.0f / (2 * 2 * 2.0f));
  }
  {
    // Box size from the raw pixel size, rounded down to even.
    Parsed r({"--diameter", "101", "--apixM", "1", "a.mrc"});
    EXPECT_EQ(r.p->boxsize, 134);  // (int)134.33 = 134
    Parsed s({"--diameter", "100", "--apixM", "1", "a.mrc"});
    EXPECT_EQ(s.p->boxsize, 132);  // (int)133.0 = 133 -> 132
  }
}

using ParametersDeathTest = testing::Test;

TEST_F(ParametersDeathTest, UnknownOptionsExitZeroWithTheList) {
  for (const char* bad : {"-x", "--x", "--write_rejected_box", "--lcutoff_D", "--per_lp", "-", "--shrink"}) {
    SCOPED_TRACE(bad);
    std::string word = bad;
    EXPECT_EXIT(parse_to_stderr({"a.mrc", word, "1"}), testing::ExitedWithCode(0),
                "Failed to recognize option: .*" + std::string(word == "-" ? "-" : word) + "!.*All valid options:");
  }
  // A bare word is a micrograph name.
  Parsed r({"x"});
  EXPECT_EQ(r.file(0), "x");
}

TEST_F(ParametersDeathTest, SpeedIsCheckedWhenRead) {
  const char* msg = "gvexmatch_speed2shrink\\(\\), file vexmatch56 on line 896: speed level must belong to";
  EXPECT_EXIT(parse_to_stderr({"--speed", "5", "a.mrc"}), testing::ExitedWithCode(1), msg);
  EXPECT_EXIT(parse_to_stderr({"a.mrc", "--speed", "-1", "--speed", "2"}), testing::ExitedWithCode(1), msg);
  EXPECT_EXIT(parse_to_stderr({"--speed", "4", "a.mrc"}), testing::ExitedWithCode(42), "");
}

TEST_F(ParametersDeathTest, MissingValuesAndFiles) {
  EXPECT_EXIT(parse_to_stderr({"a.mrc", "--apixM"}), testing::ExitedWithCode(1),
              "gvexmatch_get_parameters\\(\\), file vexmatch56 on line [0-9]+: option --apixM needs a value! Exit now!");
  EXPECT_EXIT(parse_to_stderr({"a.mrc", "--global_excluded_box"}), testing::ExitedWithCode(1),
              "option --global_excluded_box needs a value");
  EXPECT_EXIT(parse_to_stderr({"a.mrc", "-kv"}), testing::ExitedWithCode(1), "option --kV needs a value");
  EXPECT_EXIT(parse_to_stderr({"--T", std::string(GVEX_NAME_LEN, 't'), "a.mrc"}), testing::ExitedWithCode(1),
              "value of option --T is longer than 1023 characters");
  EXPECT_EXIT(parse_to_stderr({"--T", std::string(GVEX_NAME_LEN - 1, 't'), "a.mrc"}), testing::ExitedWithCode(42), "");
  // No micrograph: help, then the fatal line.
  EXPECT_EXIT(parse_to_stderr({"--write_star", "./a.mrc"}), testing::ExitedWithCode(1),
              "Usage:.*gvexmatch_help_exit\\(\\), file vexmatch56 on line 1322: No valid files to be processed\\.! Exit now!");
}

TEST_F(ParametersDeathTest, ValuesThatCannotBeProcessed) {
  struct Case {
    std::vector<std::string> words;
    const char* match;
  } bad[] = {
      {{"--apixM", "0"}, "option --apixM must be a positive"},
      {{"--apixM", "-1.3"}, "option --apixM"},
      {{"--apixM", "nan"}, "option --apixM"},
      {{"--diameter", "0"}, "option --diameter must be a positive"},
      {{"--diameter", "-5", "--min_dist", "100"}, "option --diameter"},
      {{"--min_dist", "3"}, "option --min_dist 3 leaves a picking grid cell below one"},
      {{"--diameter", "4"}, "option --diameter 4 gives a minimum distance"},
      {{"--min_dist", "40", "--speed", "4", "--apixM", "4"}, "option --min_dist"},
      {{"--T", "t.mrcs", "--ang_step", "0"}, "option --ang_step 0 must be a positive step"},
      {{"--T", "t.mrcs", "--ang_step", "-5"}, "option --ang_step"},
      {{"--T", "t.mrcs", "--ang_step", "nan"}, "option --ang_step"},
      {{"--T", "t.mrcs", "--ang_step", "1e-6"}, "option --ang_step"},
      {{"--T", "t.mrcs", "--ang_step", "0.009"}, "option --ang_step"},
      {{"--T", "t.mrcs", "--apixT", "0"}, "option --apixT"},
      {{"--extract_raw", "--boxsize", "0"}, "option --boxsize must be positive"},
  };
  for (const Case& c : bad) {
    SCOPED_TRACE(c.match);
    std::vector<std::string> w = c.words;
    w.push_back("a.mrc");
    EXPECT_EXIT(parse_to_stderr(w), testing::ExitedWithCode(1),
                std::string("gvexmatch_check_values\\(\\), file vexmatch56 on line [0-9]+: ") + c.match);
  }
  std::vector<std::string> fine[] = {
      {"--ang_step", "0"},  // the synthetic template scans one orientation
      {"--T", "t.mrcs", "--ang_step", "0.01"},
      {"--boxsize", "0"},  // only extraction needs a box
      {"--min_dist", "8"},  // cell (int)1.055 = 1
  };
  for (auto w : fine) {
    w.push_back("a.mrc");
    EXPECT_EXIT(parse_to_stderr(w), testing::ExitedWithCode(42), "") << w[1];
  }
}

TEST(Parameters, GridCell) {
  Parsed r({"--diameter", "200", "a.mrc"});
  // (int)(160 * 1.4142135 / (2 * 4 * 1.34)) = (int)21.107
  EXPECT_EQ(gvexmatch_grid_cell(r.p), 21);
  r.p->apixM = 0.0f;
  EXPECT_EQ(gvexmatch_grid_cell(r.p), INT_MAX);
  r.p->apixM = NAN;
  EXPECT_EQ(gvexmatch_grid_cell(r.p), 0);
}

TEST(Parameters, NonuniqueBoxName) {
  char out[GVEX_NAME_LEN];
  memset(out, 'z', sizeof out);
  set_name_shrinked_box(out, "Micrographs/a.mrc", 4);
  EXPECT_STREQ(out, "Micrographs/a_nonunique.box");
  EXPECT_EQ(out[GVEX_NAME_LEN - 1], 0);  // cleared first
  set_name_shrinked_box(out, "a.b.mrcs", 8);
  EXPECT_STREQ(out, "a.b_nonunique.box");
  set_name_shrinked_box(out, "noext", 1);
  EXPECT_STREQ(out, "noext_nonunique.box");
  set_name_shrinked_box(out, "../run.2/mic", 1);  // a dot in a folder is no suffix
  EXPECT_STREQ(out, "../run.2/mic_nonunique.box");
  // The longest name that fits: 1009 kept + 14 + terminator.
  std::string longest(GVEX_NAME_LEN - 15, 'm');
  set_name_shrinked_box(out, (longest + ".mrc").c_str(), 2);
  EXPECT_EQ(std::string(out), longest + "_nonunique.box");
}

TEST(ParametersDeathTest2, NonuniqueBoxNameTooLong) {
  char out[GVEX_NAME_LEN];
  std::string name(GVEX_NAME_LEN - 14, 'm');
  EXPECT_EXIT(set_name_shrinked_box(out, (name + ".mrc").c_str(), 2), testing::ExitedWithCode(1), "");
}

std::string echo_of(std::vector<std::string> w) {
  Parsed r(std::move(w));
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  gvexmatch_fput_parameters(r.args.argc(), r.args.argv.data(), r.p, f);
  fclose(f);
  std::string s(buf, len);
  free(buf);
  return s;
}

TEST(Parameters, EchoOfTheCommandLine) {
  std::string e = echo_of({"--apixM", "1.5", "--do_local_ctf", "-KV", "200", "--write_star", "0", "a.mrc",
                           "--speed", "3", "--center1_ratio", "0.1", "--T", "t.mrcs", "b.mrc"});
  const std::string user = std::string(99, '*') +
                           "\nUser input parameters:\n"
                           "       --apixM              1.500\n"
                           "       --local_ctf          1\n"
                           "       --kV                 200.00\n"
                           "       --write_star         0\n"
                           "       --speed              3\n"
                           "       --center1_ratio      0.100\n"
                           "       --T                  t.mrcs\n"
                           "All parameters to be used:\n"
                           "Basic options:  \n"
                           "       --T                  t.mrcs\n"
                           "       --apixM              1.500\n";
  EXPECT_EQ(e.rfind(user, 0), 0u) << e;
  EXPECT_NE(e.find("Additional options:  \n       --ang_step           5.00\n       --speed              3\n"),
            std::string::npos);
  EXPECT_NE(e.find("       --lp                 40.00\n"), std::string::npos);
  EXPECT_NE(e.find("CTF options: \n       --do_ctf             0\n       --local_ctf          1\n"), std::string::npos);
  EXPECT_NE(e.find("       --write_rejected_box 1\n"), std::string::npos);
  EXPECT_NE(e.find("       --global_excluded_box NULL\n"), std::string::npos);
  // center1_ratio and update_T are echoed only as typed.
  EXPECT_EQ(e.find("--center1_ratio", user.size()), std::string::npos);
  EXPECT_EQ(e.find("--update_T"), std::string::npos);
  const std::string tail = "\n\nAll 2 files to be used:\n        a.mrc\n        b.mrc\n";
  ASSERT_GE(e.size(), tail.size());
  EXPECT_EQ(e.substr(e.size() - tail.size()), tail);
}

TEST(Parameters, ValidOptionList) {
  testing::internal::CaptureStdout();
  gvexmatch_print_valid_options();
  std::string out = testing::internal::GetCapturedStdout();
  std::string names =
      "apixM T diameter ang_step speed boxsize min_dist cc_cutoff lsigma_cutoff lave_max lave_min lcutoff_D lp hp "
      "dont_invertT per_lp pre_hp do_pre_filter do_ctf do_local_ctf kv cs ac write_ccmax_mic write_pf_mic "
      "write_bg_mic write_bgfree_mic write_lsigma_mic write_mic_mask extract_raw extract_pf write_rejected_box "
      "write_star exclusive_picking excluded_suffix mask_excluded global_excluded_box gid ";
  std::string list;
  int n = 0;
  for (size_t a = 0, b; (b = names.find(' ', a)) != std::string::npos; a = b + 1, n++)
    list += "--" + names.substr(a, b - a) + "\t ";
  EXPECT_EQ(n, 38);
  EXPECT_EQ(out, std::string(130, '-') + "\nAll valid options:\n" + list + "\n" + std::string(128, '-') + "\n");
}

TEST(Timer, PushPopAndAFullStack) {
  gvex_timer_reset();
  gvex_timer_push();
  gvex_timer_push();
  EXPECT_EQ(gvex_timer_depth(), 2);
  testing::internal::CaptureStdout();
  double dt = gvex_timer_pop("READING");
  std::string line = testing::internal::GetCapturedStdout();
  EXPECT_GE(dt, 0.0);
  char expect[128];
  snprintf(expect, sizeof expect, ">>>>>>TIME<<<<<<%32s: %fs\n", "READING", dt);
  EXPECT_EQ(line, expect);
  EXPECT_EQ(line.substr(0, 16 + 32), ">>>>>>TIME<<<<<<" + std::string(25, ' ') + "READING");

  // A full stack never grows; it warns once and keeps working.
  gvex_timer_reset();
  testing::internal::CaptureStdout();
  for (int i = 0; i < GVEX_TIMER_DEPTH + 50; i++) gvex_timer_push();
  std::string warn = testing::internal::GetCapturedStdout();
  EXPECT_EQ(gvex_timer_depth(), GVEX_TIMER_DEPTH);
  EXPECT_EQ(warn.find("Warning in function gvex_timer_push(), file timer on line "), 0u);
  EXPECT_EQ(warn.find("Warning", 1), std::string::npos);
  testing::internal::CaptureStdout();
  for (int i = 0; i < GVEX_TIMER_DEPTH; i++) gvex_timer_pop("X");
  EXPECT_EQ(gvex_timer_pop("TOTAL"), -1.0);  // nothing left: a warning, no crash
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("Warning in function gvex_timer_pop()"), std::string::npos);
  EXPECT_EQ(gvex_timer_depth(), 0);
}

}  // namespace
