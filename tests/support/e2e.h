// Helpers for whole-program tests: synthetic micrographs from gvex_makemic,
// runs of gvexmatch in a folder, and independent readers of the files it
// writes (pick files, MRC headers and float data).
#pragma once
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/run.h"

namespace e2e {

// The particles gvex_makemic plants: 120 Å across at 1.34 Å per pixel.
const double kApix = 1.34, kRadius = 120.0 / (2 * kApix);

// Writes dir/name, nx x ny pixels with particles planted at random from
// seed, and dir/<stem>_truth.txt, their centres.
inline bool make_mic(const std::string& dir, const std::string& name, int nx, int ny, int seed,
                     std::vector<std::string> more = {}) {
  std::vector<std::string> argv = {gvex_tools_dir() + "/gvex_makemic", "make", name};
  std::istringstream words("--nx " + std::to_string(nx) + " --ny " + std::to_string(ny) +
                           " --apix 1.34 --diameter 120 --seed " + std::to_string(seed));
  for (std::string w; words >> w;) argv.push_back(w);
  argv.insert(argv.end(), more.begin(), more.end());
  RunResult r = run_argv(argv, RunOptions{dir, 60});
  return r.exited() && r.status == 0;
}

// Runs gvexmatch in dir with --diameter 120 and the given words; a hang is cut off.
inline RunResult gvex_in(const std::string& dir, std::vector<std::string> args) {
  args.insert(args.begin(), {gvex_bin(), "--diameter", "120"});
  return run_argv(args, RunOptions{dir, 60});
}

inline bool contains(const std::string& s, const std::string& what) { return s.find(what) != std::string::npos; }

inline size_t count_of(const std::string& s, const std::string& what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1)) n++;
  return n;
}

inline std::string last_line(std::string s) {
  while (!s.empty() && s.back() == '\n') s.pop_back();
  return s.substr(s.rfind('\n') + 1);
}

// The run ended by itself with this status, wrote nothing to standard error
// (where sanitizers report) and left no half-written ".part" file in dir.
inline void expect_end(const RunResult& r, int status, const std::string& dir) {
  ASSERT_TRUE(r.exited()) << "signal " << r.signal << (r.timed_out ? " (timed out)" : "") << "\n" << r.out;
  EXPECT_EQ(r.status, status) << r.out;
  EXPECT_EQ(r.err, "");
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) EXPECT_FALSE(contains(e->d_name, ".part")) << e->d_name;
    closedir(d);
  }
}

// Every file under dir, in every folder (name relative to dir -> bytes),
// but the lock a RELION job holds; hidden files count, since a RELION job's
// .work/ folder must come out the same as well.
inline std::map<std::string, std::string> files_of(const std::string& dir, const std::string& rel = "") {
  std::map<std::string, std::string> out;
  DIR* d = opendir((dir + "/" + rel).c_str());
  if (!d) return out;
  while (dirent* e = readdir(d)) {
    const std::string n = e->d_name, path = dir + "/" + rel + n;
    struct stat st;
    if (n == "." || n == ".." || n == ".gvexmatch_lock" || stat(path.c_str(), &st) != 0) continue;
    if (!S_ISDIR(st.st_mode)) {
      out[rel + n] = read_text_file(path);
    } else {
      const auto sub = files_of(dir, rel + n + "/");
      out.insert(sub.begin(), sub.end());
    }
  }
  closedir(d);
  return out;
}

// The lines of n words of a text file, split into words.
inline std::vector<std::vector<std::string>> read_words(const std::string& path, size_t n) {
  std::vector<std::vector<std::string>> lines;
  std::istringstream in(read_text_file(path));
  for (std::string line; std::getline(in, line);) {
    std::istringstream ws(line);
    std::vector<std::string> w;
    for (std::string s; ws >> s;) w.push_back(s);
    if (w.size() == n) lines.push_back(w);
  }
  return lines;
}

// One line of a ".box" pick file: corner, box, score, template, angle.
struct BoxPick {
  int x, y, w, h;
  double cc;
  int t;
  double psi;
  double cx() const { return x + w / 2; }
  double cy() const { return y + h / 2; }
};

inline std::vector<BoxPick> read_box(const std::string& path) {
  std::vector<BoxPick> picks;
  for (auto& w : read_words(path, 7))
    picks.push_back({std::stoi(w[0]), std::stoi(w[1]), std::stoi(w[2]), std::stoi(w[3]), std::stod(w[4]),
                     std::stoi(w[5]), std::stod(w[6])});
  return picks;
}

// At least 80% of the planted centres (dir/<stem>_truth.txt) have a pick
// within half a particle radius, and at most a tenth of the picks (or two)
// have none.
inline void expect_finds(const std::vector<BoxPick>& picks, const std::string& truth_path) {
  const auto truth = read_words(truth_path, 2);
  auto near = [](const BoxPick& p, const std::vector<std::string>& t) {
    return std::hypot(p.cx() - std::stod(t[0]), p.cy() - std::stod(t[1])) <= kRadius / 2;
  };
  int found = 0, stray = 0;
  for (auto& t : truth) found += std::any_of(picks.begin(), picks.end(), [&](auto& p) { return near(p, t); });
  for (auto& p : picks) stray += std::none_of(truth.begin(), truth.end(), [&](auto& t) { return near(p, t); });
  EXPECT_GE(truth.size(), 10u);
  EXPECT_GE(found, std::ceil(0.8 * truth.size())) << found << " of " << truth.size();
  EXPECT_LE(stray, std::max<int>(2, picks.size() / 10)) << stray << " of " << picks.size();
}

// An MRC file as stored: the header words we check and, in mode 2, the pixels.
struct Mrc {
  int nx = 0, ny = 0, nz = 0, mode = -1;
  std::string map;
  size_t file_size = 0;
  std::vector<float> data;
};

inline Mrc read_mrc(const std::string& path) {
  Mrc m;
  const std::string b = read_text_file(path);
  m.file_size = b.size();
  if (b.size() < 1024) return m;
  int32_t w[4];
  memcpy(w, b.data(), 16);
  m.nx = w[0], m.ny = w[1], m.nz = w[2], m.mode = w[3];
  m.map = b.substr(208, 4);
  const size_t n = (size_t)m.nx * m.ny * m.nz;
  if (m.mode == 2 && m.nx > 0 && m.ny > 0 && m.nz > 0 && b.size() >= 1024 + 4 * n) {
    m.data.resize(n);
    memcpy(m.data.data(), b.data() + 1024, 4 * n);
  }
  return m;
}

}  // namespace e2e
