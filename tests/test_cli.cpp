// End-to-end runs of the built program's command-line front end: exit
// status and standard output, against golden transcripts where the whole
// output is fixed.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/run.h"

namespace {

// Golden file: "$ <words>" (with @BIN@ for the program), "? <exit status>"
// ("? *": any status), then the exact standard output. "\e" stands for ESC
// and "\t" for a tab; a line "@ANY@" matches any one line (machine-dependent
// text) and a last line "@REST@" whatever follows (later stages of a run).
struct Golden {
  std::vector<std::string> argv;
  int status = -1;
  std::string out;
};

std::string unescape(const std::string& s) {
  std::string r;
  for (size_t i = 0; i < s.size(); i++) {
    if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == 'e' || s[i + 1] == 't')) {
      r += s[i + 1] == 'e' ? '\033' : '\t';
      i++;
    } else {
      r += s[i];
    }
  }
  return r;
}

Golden load_golden(const std::string& path) {
  Golden g;
  std::string text = read_text_file(path);
  size_t l1 = text.find('\n');
  size_t l2 = text.find('\n', l1 + 1);
  if (text.compare(0, 2, "$ ") != 0 || l1 == std::string::npos || l2 == std::string::npos) return g;
  std::istringstream words(text.substr(2, l1 - 2));
  for (std::string w; words >> w;) g.argv.push_back(w == "@BIN@" ? gvex_bin() : w);
  const std::string status = text.substr(l1 + 3, l2 - l1 - 3);
  g.status = status == "*" ? -1 : std::stoi(status);
  g.out = unescape(text.substr(l2 + 1));
  return g;
}

std::vector<std::string> split_lines(const std::string& s) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < s.size()) {
    size_t end = s.find('\n', start);
    if (end == std::string::npos) end = s.size();
    lines.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void expect_transcript(const std::string& expected, const std::string& actual) {
  if (expected.find("@ANY@") == std::string::npos && expected.find("@REST@") == std::string::npos) {
    EXPECT_EQ(expected, actual);
    return;
  }
  std::vector<std::string> e = split_lines(expected), a = split_lines(actual);
  if (!e.empty() && e.back() == "@REST@") {
    e.pop_back();
    ASSERT_GE(a.size(), e.size()) << actual;
    a.resize(e.size());
  }
  ASSERT_EQ(e.size(), a.size()) << actual;
  for (size_t i = 0; i < e.size(); i++)
    if (e[i] != "@ANY@") {
      EXPECT_EQ(e[i], a[i]) << "line " << i + 1;
    }
}

RunResult gvex(std::vector<std::string> args) {
  args.insert(args.begin(), gvex_bin());
  TempDir dir;  // never let a run touch the source or build tree
  RunOptions opt;
  opt.cwd = dir.path();
  return run_argv(args, opt);
}

size_t count_of(const std::string& s, const std::string& what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1)) n++;
  return n;
}

TEST(Cli, GoldenTranscripts) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (const auto& e : fs::directory_iterator(std::string(GVEX_SOURCE_DIR) + "/tests/golden/cli"))
    if (e.path().extension() == ".txt") files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  ASSERT_GE(files.size(), 7u);
  for (const std::string& f : files) {
    SCOPED_TRACE(f);
    Golden g = load_golden(f);
    ASSERT_FALSE(g.argv.empty());
    TempDir dir;
    RunOptions opt;
    opt.cwd = dir.path();
    RunResult r = run_argv(g.argv, opt);
    ASSERT_TRUE(r.exited());
    if (g.status >= 0) {
      EXPECT_EQ(r.status, g.status);
    }
    expect_transcript(g.out, r.out);
  }
}

TEST(Cli, HelpPaths) {
  const std::string bin = gvex_bin();
  // No word: the short help only.
  RunResult r = gvex({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(std::string(99, '*') + "\nVersion:       " + bin + " v0.56, updated on 2017-07-30\n", 0), 0u);
  EXPECT_NE(r.out.find("Usage:\n         " + bin + " [options] <micrographs>  \n\n"), std::string::npos);
  EXPECT_EQ(count_of(r.out, "\033[1m Tips\033[m: "), 0u);
  // A help keyword first: help and all nine tips, whatever follows.
  for (const char* h : {"-h", "--HELP", "-Help"}) {
    SCOPED_TRACE(h);
    RunResult f = gvex({h, "a.mrc", "--bogus"});
    EXPECT_EQ(f.status, 0);
    EXPECT_EQ(f.out.rfind(r.out, 0), 0u) << "full help starts with the short help";
    EXPECT_EQ(count_of(f.out, "\033[1m Tips\033[m: "), 7u);
    const std::string ruler = std::string(127, '-') + "\n";
    size_t a = f.out.find(ruler), b = f.out.rfind(ruler);
    ASSERT_NE(a, b);
    EXPECT_EQ(b + ruler.size(), f.out.size());
    EXPECT_EQ(count_of(f.out.substr(a + ruler.size(), b - a - ruler.size()), "\n"), 9u);
  }
}

TEST(Cli, RunsThatEndEarly) {
  // Options but no micrograph: help, then the fatal line, status 1.
  RunResult r = gvex({"--diameter", "200"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("Usage:"), std::string::npos);
  const std::string nofile =
      "Error in function gvexmatch_help_exit(), file vexmatch56 on line 1322: No valid files to be processed.! Exit now!\n";
  ASSERT_GE(r.out.size(), nofile.size());
  EXPECT_EQ(r.out.substr(r.out.size() - nofile.size()), nofile);

  // A value option as the last word reads nothing beyond argv.
  for (const char* opt : {"--apixM", "--T", "--speed", "-GID"}) {
    SCOPED_TRACE(opt);
    RunResult m = gvex({"a.mrc", opt});
    EXPECT_EQ(m.status, 1);
    EXPECT_NE(m.out.find("needs a value! Exit now!"), std::string::npos) << m.out;
    EXPECT_EQ(m.out.find("User input parameters"), std::string::npos);
  }
  RunResult m = gvex({"a.mrc", "--apixM"});
  EXPECT_NE(m.out.find("option --apixM needs a value"), std::string::npos);

  // Values that could never be processed stop after the echo.
  RunResult z = gvex({"--apixM", "0", "a.mrc"});
  EXPECT_EQ(z.status, 1);
  EXPECT_NE(z.out.find("User input parameters:"), std::string::npos);
  EXPECT_NE(z.out.find("gvexmatch_check_values(), file vexmatch56"), std::string::npos);
  EXPECT_NE(z.out.find("--apixM"), std::string::npos);
}

TEST(Cli, EchoOfDerivedDefaults) {
  // x.mrc does not exist: the run ends later, after the echo and the device line.
  RunResult r = gvex({"--diameter", "200", "x.mrc"});
  ASSERT_TRUE(r.exited());
  EXPECT_NE(r.out.find("       --min_dist           160.00\n"), std::string::npos);
  EXPECT_NE(r.out.find("       --boxsize            198\n"), std::string::npos);
  EXPECT_NE(r.out.find("All 1 files to be used:\n        x.mrc\nRunning "), std::string::npos);
}

}  // namespace
