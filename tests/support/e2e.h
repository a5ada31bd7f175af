// Helpers for whole-program tests: synthetic micrographs from gvex_makemic,
// runs of gvexmatch in a folder, and independent readers of the files it
// writes (pick files, MRC headers and float data).
#pragma once
#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/run.h"

namespace e2e {

inline std::string makemic_bin() {
#ifdef GVEX_TOOLS_DIR
  return std::string(GVEX_TOOLS_DIR) + "/gvex_makemic";
#else
  return "gvex_makemic";
#endif
}

// Runs gvexmatch in dir with the given words; a hang is cut off.
inline RunResult gvex_in(const std::string& dir, std::vector<std::string> args, double timeout_s = 60) {
  args.insert(args.begin(), gvex_bin());
  RunOptions opt;
  opt.cwd = dir;
  opt.timeout_s = timeout_s;
  return run_argv(args, opt);
}

// Writes dir/name (and dir/<name without .mrc>_truth.txt); false on failure.
inline bool make_mic(const std::string& dir, const std::string& name, std::vector<std::string> extra = {}) {
  std::vector<std::string> argv = {makemic_bin(), "make", name};
  argv.insert(argv.end(), extra.begin(), extra.end());
  RunOptions opt;
  opt.cwd = dir;
  opt.timeout_s = 60;
  RunResult r = run_argv(argv, opt);
  return r.exited() && r.status == 0;
}

inline std::string stem(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

inline std::vector<std::vector<std::string>> read_words(const std::string& path) {
  std::vector<std::vector<std::string>> lines;
  std::istringstream in(read_text_file(path));
  for (std::string line; std::getline(in, line);) {
    std::istringstream ws(line);
    std::vector<std::string> w;
    for (std::string s; ws >> s;) w.push_back(s);
    lines.push_back(w);
  }
  return lines;
}

// One line of a final ".box" file: corner, box, score, template, angle.
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
  for (auto& w : read_words(path)) {
    if (w.size() != 7) continue;
    picks.push_back({std::stoi(w[0]), std::stoi(w[1]), std::stoi(w[2]), std::stoi(w[3]), std::stod(w[4]),
                     std::stoi(w[5]), std::stod(w[6])});
  }
  return picks;
}

// Data rows of a ".star" file written by the picker (the lines after its
// labels): centre x, centre y, angle, template, score.
inline std::vector<std::vector<std::string>> star_rows(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  for (auto& w : read_words(path))
    if (!w.empty() && (isdigit((unsigned char)w[0][0]) || w[0][0] == '-')) rows.push_back(w);
  return rows;
}

struct Centre {
  double x, y;
};

inline std::vector<Centre> read_truth(const std::string& path) {
  std::vector<Centre> t;
  for (auto& w : read_words(path))
    if (w.size() == 2) t.push_back({std::stod(w[0]), std::stod(w[1])});
  return t;
}

struct Score {
  int found = 0, truth = 0, picks = 0, stray = 0;
};

// found: planted centres with a pick within radius; stray: picks with none.
inline Score score(const std::vector<BoxPick>& picks, const std::vector<Centre>& truth, double radius) {
  Score s;
  s.truth = (int)truth.size();
  s.picks = (int)picks.size();
  for (auto& t : truth)
    for (auto& p : picks)
      if (std::hypot(p.cx() - t.x, p.cy() - t.y) <= radius) {
        s.found++;
        break;
      }
  for (auto& p : picks) {
    bool near = false;
    for (auto& t : truth) near = near || std::hypot(p.cx() - t.x, p.cy() - t.y) <= radius;
    s.stray += !near;
  }
  return s;
}

// An MRC file as stored: the header words we check and the float pixels.
struct Mrc {
  bool ok = false;
  int nx = 0, ny = 0, nz = 0, mode = -1;
  float amin = 0, amax = 0, amean = 0;
  char map[4] = {0, 0, 0, 0};
  long file_size = 0;
  std::vector<float> data;  // mode 2 only
};

inline Mrc read_mrc(const std::string& path) {
  Mrc m;
  std::string bytes = read_text_file(path);
  m.file_size = (long)bytes.size();
  if (bytes.size() < 1024) return m;
  int32_t w[4];
  memcpy(w, bytes.data(), 16);
  m.nx = w[0];
  m.ny = w[1];
  m.nz = w[2];
  m.mode = w[3];
  memcpy(&m.amin, bytes.data() + 76, 4);
  memcpy(&m.amax, bytes.data() + 80, 4);
  memcpy(&m.amean, bytes.data() + 84, 4);
  memcpy(m.map, bytes.data() + 208, 4);
  if (m.mode == 2 && m.nx > 0 && m.ny > 0 && m.nz > 0) {
    const size_t n = (size_t)m.nx * m.ny * m.nz;
    if (bytes.size() >= 1024 + 4 * n) {
      m.data.resize(n);
      memcpy(m.data.data(), bytes.data() + 1024, 4 * n);
    }
  }
  m.ok = true;
  return m;
}

// Names in dir (not recursive).
inline std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

inline bool ends_with(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Names in dir that end in ".part": files a run left half-written.
inline std::vector<std::string> part_files(const std::string& dir) {
  std::vector<std::string> parts;
  for (auto& n : list_dir(dir))
    if (ends_with(n, ".part")) parts.push_back(n);
  return parts;
}

inline size_t count_of(const std::string& s, const std::string& what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1)) n++;
  return n;
}

inline bool contains(const std::string& s, const std::string& what) { return s.find(what) != std::string::npos; }

// The last line of a text (without its newline).
inline std::string last_line(const std::string& s) {
  std::string t = s;
  while (!t.empty() && t.back() == '\n') t.pop_back();
  const size_t nl = t.rfind('\n');
  return nl == std::string::npos ? t : t.substr(nl + 1);
}

}  // namespace e2e
