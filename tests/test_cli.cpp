// End-to-end runs of the built program's command-line front end: golden
// transcripts (tests/golden/cli) fix whole outputs; the tables below vary
// the word that matters.
#include <gtest/gtest.h>

#include <filesystem>
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

// Golden file: blocks of "$ <words>", "? <exit status or *>", then the
// exact standard output up to the next "$ @BIN@" line. @BIN@ stands for the
// program, "\e" for ESC, "\t" for a tab; a line "@SKIP@" matches any lines
// (none included), and a last line "@REST@" whatever follows.
struct Golden {
  std::vector<std::string> args;  // after the program
  std::string status, out;
};

std::vector<Golden> load_golden(const std::string& name) {
  std::istringstream in(read_text_file(gvex_source_dir() + "/tests/golden/cli/" + name));
  std::vector<Golden> blocks;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("$ @BIN@", 0) == 0) {
      blocks.emplace_back();
      std::istringstream words(line.substr(7));
      for (std::string w; words >> w;) blocks.back().args.push_back(w == "''" ? "" : w);
      std::getline(in, blocks.back().status);
      blocks.back().status.erase(0, 2);
    } else if (!blocks.empty()) {
      blocks.back().out += line + "\n";
    }
  }
  for (Golden& g : blocks) {
    replace_all(g.out, "@BIN@", gvex_bin());
    replace_all(g.out, "\\e", "\033");
    replace_all(g.out, "\\t", "\t");
  }
  return blocks;
}

// The expected text in pieces between @SKIP@ lines, each found in order;
// without a final @REST@ the output must end with the last piece.
bool transcript_matches(std::string want, const std::string& got) {
  const std::string skip = "@SKIP@\n", rest = "@REST@\n";
  const bool open_end = want.size() >= rest.size() && want.compare(want.size() - rest.size(), rest.size(), rest) == 0;
  if (open_end) want.resize(want.size() - rest.size());
  size_t at = 0, from = 0;
  for (bool first = true;; first = false) {
    const size_t cut = want.find(skip, from);
    const std::string piece = want.substr(from, cut == std::string::npos ? std::string::npos : cut - from);
    const size_t found = first ? (got.compare(0, piece.size(), piece) == 0 ? 0 : std::string::npos)
                         : cut == std::string::npos && !open_end ? got.size() - std::min(got.size(), piece.size())
                                                                 : got.find(piece, at);
    if (found == std::string::npos || found < at || got.compare(found, piece.size(), piece) != 0) return false;
    at = found + piece.size();
    if (cut == std::string::npos) return open_end || at == got.size();
    from = cut + skip.size();
  }
}

TEST(Cli, GoldenTranscripts) {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator(gvex_source_dir() + "/tests/golden/cli")) {
    for (const Golden& g : load_golden(e.path().filename().string())) {
      SCOPED_TRACE(e.path().filename().string() + ": " + (g.args.empty() ? "" : g.args[0]) + " ...");
      const RunResult r = gvex(g.args);
      ASSERT_TRUE(r.exited());
      EXPECT_TRUE(g.status == "*" || std::to_string(r.status) == g.status) << r.status;
      EXPECT_TRUE(transcript_matches(g.out, r.out)) << "expected:\n" << g.out << "\nactual:\n" << r.out;
      n++;
    }
  }
  EXPECT_GE(n, 40);
}

}  // namespace
