// End-to-end runs of the built program's command-line front end: golden
// transcripts (tests/golden/cli) fix whole outputs; the tables below vary
// the word that matters.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/run.h"

namespace {

RunResult gvex(std::vector<std::string> args) {
  args.insert(args.begin(), gvex_bin());
  TempDir dir;  // never let a run touch the source or build tree
  RunOptions opt;
  opt.cwd = dir.path();
  return run_argv(args, opt);
}

void replace_all(std::string& s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) s.replace(p, from.size(), to);
}

// Golden file: "$ <words>", "? <exit status or *>", then the exact standard
// output. @BIN@ stands for the program, "\e" for ESC, "\t" for a tab, and a
// last line "@REST@" for whatever follows.
struct Golden {
  std::vector<std::string> args;  // after the program
  std::string status, out;
};

Golden load_golden(const std::string& name) {
  std::istringstream in(read_text_file(std::string(GVEX_SOURCE_DIR) + "/tests/golden/cli/" + name));
  Golden g;
  std::string cmd;
  std::getline(in, cmd);
  std::getline(in, g.status);
  std::istringstream words(cmd);
  for (std::string w; words >> w;)
    if (w != "$" && w != "@BIN@") g.args.push_back(w);
  g.status.erase(0, 2);
  g.out.assign(std::istreambuf_iterator<char>(in), {});
  replace_all(g.out, "@BIN@", gvex_bin());
  replace_all(g.out, "\\e", "\033");
  replace_all(g.out, "\\t", "\t");
  return g;
}

bool transcript_matches(const std::string& want, const std::string& got) {
  const std::string rest = "@REST@\n";
  if (want.size() < rest.size() || want.compare(want.size() - rest.size(), rest.size(), rest) != 0) return want == got;
  return got.compare(0, want.size() - rest.size(), want, 0, want.size() - rest.size()) == 0;
}

TEST(Cli, GoldenTranscripts) {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator(std::string(GVEX_SOURCE_DIR) + "/tests/golden/cli")) {
    SCOPED_TRACE(e.path().string());
    const Golden g = load_golden(e.path().filename().string());
    ASSERT_FALSE(g.status.empty());
    const RunResult r = gvex(g.args);
    ASSERT_TRUE(r.exited());
    EXPECT_TRUE(g.status == "*" || std::to_string(r.status) == g.status) << r.status;
    EXPECT_TRUE(transcript_matches(g.out, r.out)) << "expected:\n" << g.out << "\nactual:\n" << r.out;
    n++;
  }
  EXPECT_EQ(n, 7);
}

// No word prints the help without tips; every help keyword first prints help
// and tips whatever follows; no micrograph ends with the help and a fatal line.
TEST(Cli, HelpPaths) {
  const std::string full = load_golden("help_full.txt").out;
  const std::string help = full.substr(0, full.find(std::string(127, '-')));
  RunResult r = gvex({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, help);
  for (const char* h : {"-h", "--h", "-help", "--Help"}) {
    r = gvex({h, "--bogus"});
    EXPECT_EQ(r.status, 0) << h;
    EXPECT_EQ(r.out, full) << h;
  }
  // ./a.mrc after a flag is the flag's value, so no micrograph is left.
  for (std::vector<std::string> words : {std::vector<std::string>{"--diameter", "200"}, {"--write_star", "./a.mrc"}}) {
    r = gvex(words);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, help +
                         "Error in function gvexmatch_help_exit(), file vexmatch56 on line 1322: No valid files to be "
                         "processed.! Exit now!\n");
  }
}

TEST(Cli, UnknownOptionsExitZero) {
  for (const char* bad : {"-x", "--x", "--per_lp", "--lcutoff_D", "-", "--shrink", "--Write_Rejected_Box"}) {
    RunResult r = gvex({"a.mrc", bad, "1"});
    EXPECT_EQ(r.status, 0) << bad;
    EXPECT_EQ(r.out.rfind("\033[41m\033[1m\033[5mCRITICAL ERROR:\033[min function gvexmatch_get_parameters(), file "
                          "vexmatch56 on line 977. Failed to recognize option: \033[41m\033[1m\033[5m" +
                              std::string(bad) + "!\033[m Exit now.",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find("All valid options:"), std::string::npos) << bad;
  }
}

TEST(Cli, RunsThatEndBeforeWork) {
  // A value option as the last word reads nothing beyond argv.
  const std::pair<const char*, const char*> last[] = {
      {"--apixM", "--apixM"}, {"--T", "--T"},  {"--speed", "--speed"},
      {"-GID", "--gid"},      {"-kv", "--kV"}, {"--global_excluded_box", "--global_excluded_box"}};
  for (const auto& [word, label] : last) {
    RunResult r = gvex({"a.mrc", word});
    EXPECT_EQ(r.status, 1) << word;
    EXPECT_EQ(r.out.rfind("Error in function gvexmatch_get_parameters(), file vexmatch56 on line ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find(std::string(": option ") + label + " needs a value! Exit now!\n"), std::string::npos) << r.out;
  }
  // Values that could never be processed stop right after the echo.
  RunResult r = gvex({"--apixM", "0", "a.mrc"});
  EXPECT_EQ(r.status, 1);
  const size_t files = r.out.find("All 1 files to be used:\n        a.mrc\nError in function gvexmatch_check_values()");
  EXPECT_NE(files, std::string::npos) << r.out;
}

}  // namespace
