// Banner, help groups, tips and the exit-with-help path.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "picker/help.h"

namespace {

template <class F>
std::string stdout_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

std::vector<std::string> lines_of(const std::string& s) {
  std::vector<std::string> v;
  std::istringstream in(s);
  for (std::string l; std::getline(in, l);) v.push_back(l);
  return v;
}

const std::string kTips = "\033[1m Tips\033[m: ";

TEST(Help, Banner) {
  std::string out = stdout_of([] { gvexmatch_put_info("/opt/bin/gvexmatch"); });
  std::vector<std::string> l = lines_of(out);
  ASSERT_EQ(l.size(), 7u);
  EXPECT_EQ(l[0], std::string(99, '*'));
  EXPECT_EQ(l[1], "Version:       /opt/bin/gvexmatch v0.56, updated on 2017-07-30");
  EXPECT_EQ(l[2].rfind("Author:", 0), 0u);
  EXPECT_EQ(l[3].rfind("Contact:", 0), 0u);
  EXPECT_EQ(l[4], "Description:   This is a GPU accelerated program for fully automatic particle picking.");
  EXPECT_EQ(l[5], "Note:          Still under development, to be released soon ...");
  EXPECT_EQ(l[6], l[0]);
}

// Rows of one help group: (option, default shown), in order. An empty
// default means the row shows none.
struct Group {
  const char* title;
  std::vector<std::pair<std::string, std::string>> rows;
};

const Group kGroups[] = {
    {"Basic options:    default values,    description:  ",
     {{"--apixM", "1.34"}, {"--diameter", "400"}, {"--T", "NONE"}, {"--apixT", "1.34"}}},
    {"Additional options(not suggested, only try to optimize in difficult cases), default values and description:  ",
     {{"--ang_step", "5"},       {"--speed", "2"},        {"--boxsize", "128"},       {"--min_dist", "300"},
      {"--cc_cutoff", "0.1"},    {"--lsigma_D", "200"},   {"--lsigma_cutoff", "1.3"}, {"--lave_D", "400"},
      {"--lave_max", "2.0"},     {"--lave_min", "-1.0"},  {"--lp", "30"},             {"--hp", "1000"},
      {"--do_pre_filter", ""},   {"--pre_lp", "8.0"},     {"--pre_hp", "1000"},       {"--detect_ice", "1"},
      {"--T_norm_type", "1"},    {"--do_bandpass", "1"}}},
    {"CTF options(not effective in this verion): ",
     {{"--do_ctf", ""}, {"--do_local_ctf", ""}, {"--kV", "300"}, {"--cs", "2.7"}, {"--ac", "0.1"}}},
    {"I/O options:  ",
     {{"--write_ccmax_mic", ""},   {"--write_pf_mic", ""},          {"--write_pref_mic", ""},
      {"--write_bg_mic", ""},      {"--write_bgfree_mic", ""},      {"--write_lsigma_mic", ""},
      {"--write_mic_mask", ""},    {"--exclusive_picking", ""},     {"--excluded_suffix", ""},
      {"--mask_excluded", ""},     {"--global_excluded_box", "NONE"}, {"--do_unfinished", ""},
      {"--dont_invertT", ""},      {"--extract_raw", ""},           {"--extract_pf", ""},
      {"--gid", "0"}}},
};

TEST(Help, GroupsRowsAndDefaults) {
  const char* prog = "./gvexmatch";
  std::string out = stdout_of([&] { gvexmatch_help(prog); });
  std::string banner = stdout_of([&] { gvexmatch_put_info(prog); });
  EXPECT_EQ(out.rfind(banner + "Usage:\n         ./gvexmatch [options] <micrographs>  \n\nOptions:\n", 0), 0u);

  std::vector<std::string> l = lines_of(out);
  size_t at = 0;
  for (const Group& g : kGroups) {
    SCOPED_TRACE(g.title);
    while (at < l.size() && l[at] != g.title) at++;
    ASSERT_LT(at, l.size()) << "group header missing or out of order";
    for (const auto& row : g.rows) {
      // The next rows of the group, in order: option, then its default.
      ASSERT_LT(++at, l.size());
      std::istringstream words(l[at]);
      std::string opt, value;
      words >> opt >> value;
      EXPECT_EQ(opt, row.first);
      if (!row.second.empty()) {
        EXPECT_EQ(value, row.second) << l[at];
      }
    }
  }
  // Five examples with the program path, and the --help line.
  size_t examples = 0;
  for (const std::string& line : l)
    if (line.find(std::string(prog) + " --") != std::string::npos) examples++;
  EXPECT_EQ(examples, 5u);
  bool help_row = false;
  for (const std::string& line : l) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    help_row = help_row || first == "--help";
  }
  EXPECT_TRUE(help_row);
  // Kept as written.
  for (const char* w : {"verion", "pre-filted", "nerve be taken", "Gvexmach"})
    EXPECT_NE(out.find(w), std::string::npos) << w;
  EXPECT_EQ(out.find("Tips"), std::string::npos);
}

TEST(Help, TipTable) {
  const std::string ruler = std::string(127, '-');
  std::string all = stdout_of([] { gvexmatch_put_all_tips(); });
  std::vector<std::string> l = lines_of(all);
  ASSERT_EQ(l.size(), 11u);
  EXPECT_EQ(l[0], ruler);
  EXPECT_EQ(l[10], ruler);
  const char* subject[7] = {"directory", "CTF", "--dont_invertT", "--speed", "--lsigma_cutoff", "--lp --hp",
                            "--exclusive_picking"};
  for (int i = 0; i < GVEX_N_TIPS; i++) {
    ASSERT_NE(gvexmatch_tip_text(i), nullptr);
    EXPECT_EQ(l[i + 1], gvexmatch_tip_text(i));
    if (i < 7) {
      EXPECT_EQ(l[i + 1].rfind(kTips, 0), 0u) << i;
      EXPECT_NE(l[i + 1].find(subject[i]), std::string::npos) << i;
    } else {
      EXPECT_NE(l[i + 1].rfind(kTips, 0), 0u) << i;
    }
  }
  EXPECT_NE(l[8].find("http"), std::string::npos);
  EXPECT_EQ(gvexmatch_tip_text(GVEX_N_TIPS), nullptr);
  EXPECT_EQ(gvexmatch_tip_text(-1), nullptr);

  // Full help: the help, then the whole table.
  std::string full = stdout_of([] { gvexmatch_help_full("g"); });
  EXPECT_EQ(full, stdout_of([] { gvexmatch_help("g"); }) + all);
}

TEST(Help, RandomTipFollowsTheSecond) {
  const std::string ruler = std::string(127, '-') + "\n";
  std::vector<std::string> seen;
  for (long t : {0L, 1L, 1501234567L, 1501234568L, 1700000000L, 1700000001L, 1700000002L}) {
    std::string a = stdout_of([&] { gvexmatch_put_tip_for_seed(t); });
    std::string b = stdout_of([&] { gvexmatch_put_tip_for_seed(t); });
    EXPECT_EQ(a, b) << "same second, same tip";
    srand((unsigned)t);
    std::string expect = ruler + gvexmatch_tip_text(rand() % GVEX_N_TIPS) + ruler;  // no added newline
    EXPECT_EQ(a, expect);
  }
  std::string now = stdout_of([] { gvexmatch_put_one_random_tip(); });
  EXPECT_EQ(now.rfind(ruler, 0), 0u);
  EXPECT_EQ(now.size() >= ruler.size() && now.compare(now.size() - ruler.size(), ruler.size(), ruler) == 0, true);
}

TEST(Help, NoticesAndOlderHelp) {
  const std::string ruler = std::string(127, '-');
  std::vector<std::string> ad = lines_of(stdout_of([] { gvexmatch_put_ad(); }));
  ASSERT_EQ(ad.size(), 4u);
  EXPECT_EQ(ad[0], ruler);
  EXPECT_EQ(ad[3], ruler);

  std::string v = stdout_of([] { gvexmatch_virus_help("vx"); });
  EXPECT_EQ(v.rfind(stdout_of([] { gvexmatch_put_info("vx"); }), 0), 0u);
  EXPECT_NE(v.find("--shrink"), std::string::npos);
  EXPECT_NE(v.find("black"), std::string::npos);
  EXPECT_NE(v.find("white"), std::string::npos);
  std::string vf = stdout_of([] { gvexmatch_virus_help_full("vx"); });
  EXPECT_EQ(vf, v + stdout_of([] { gvexmatch_put_all_tips(); }));
}

TEST(HelpDeathTest, HelpExitEndsWithTheFatalLine) {
  EXPECT_EXIT(
      {
        fflush(stdout);
        dup2(2, 1);
        gvexmatch_help_exit("g", "Failed to find any usable GPU device!");
      },
      testing::ExitedWithCode(1),
      "Usage:.*Error in function gvexmatch_help_exit\\(\\), file vexmatch56 on line 1322: Failed to find any usable "
      "GPU device!! Exit now!\n$");
}

}  // namespace
