// Readers and writers of the picker's final coordinate files.
#include "io/picks.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "common/regular_file.h"
#include "common/strutil.h"
#include "io/boxfile.h"

namespace {

const char* const kCutRecord = "# cut-off ";

// The numbers at the start of a line; false when the line does not start
// with a number (a header or a blank line).
bool leading_numbers(const std::string& line, std::vector<double>& v) {
  v.clear();
  std::istringstream ws(line);
  for (std::string w; ws >> w;) {
    char* end = nullptr;
    const double d = strtod(w.c_str(), &end);
    if (end == w.c_str() || *end) break;
    v.push_back(d);
  }
  return !v.empty();
}

bool sane(double v, double limit) { return std::isfinite(v) && std::fabs(v) <= limit; }

void refuse(PicksRead& r, long line_no) {
  if (r.refused++ == 0) r.first_refused = line_no;
}

}  // namespace

std::string cut_text(double cut) {
  const float want = (float)cut;
  char b[64];
  for (const char* f : {"%.4f", "%.6f", "%.9g"}) {
    snprintf(b, sizeof b, f, (double)want);
    if ((float)strtod(b, nullptr) == want) break;
  }
  return b;
}

bool picks_write(FILE* fp, const std::vector<Pick>& picks, bool star, double cut) {
  if (star) output_starbox_head(fp);
  if (star && std::isfinite(cut)) fprintf(fp, "%s%s: picks scoring below it were left out\n", kCutRecord, cut_text(cut).c_str());
  for (const Pick& p : picks) {
    const int x = (int)std::lround(p.x), y = (int)std::lround(p.y);
    if (star)
      fprintf(fp, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", x, y, p.psi, p.cls, p.score);
    else
      fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", x - p.w / 2, y - p.h / 2, p.w, p.h, p.score, p.cls, p.psi);
  }
  return ferror(fp) == 0;
}


PicksRead picks_read(const std::string& path, int box, std::vector<Pick>& picks) {
  std::string text;
  PicksRead r;
  if (!gvex_read_regular(path, text, &r.not_a_file)) return r;
  return picks_parse(text, ends_with(path, ".star"), box, picks);
}

PicksRead picks_parse(const std::string& text, bool star, int box, std::vector<Pick>& picks) {
  PicksRead r;
  std::istringstream in(text);
  r.opened = true;
  std::vector<double> v;
  long line_no = 0;
  for (std::string line; std::getline(in, line);) {
    line_no++;
    if (star && starts_with(line, kCutRecord)) {
      char* end = nullptr;
      const double cut = strtod(line.c_str() + strlen(kCutRecord), &end);
      if (end != line.c_str() + strlen(kCutRecord) && sane(cut, PICKS_MAX_SCORE)) r.cut = cut;
      continue;
    }
    if (!leading_numbers(line, v)) continue;
    Pick p;
    if (star && v.size() >= 5) {  // x y psi class score
      p.x = v[0], p.y = v[1], p.psi = (float)v[2], p.score = (float)v[4], p.w = p.h = box;
      if (!sane(v[3], 1e9) || !sane(v[2], 1e6) || !sane(v[4], PICKS_MAX_SCORE) || !sane(p.x, PICKS_MAX_COORD) ||
          !sane(p.y, PICKS_MAX_COORD)) {
        refuse(r, line_no);
        continue;
      }
      p.cls = (int)v[3];
    } else if (!star && v.size() >= 7) {  // corner x y, w h, score, class, psi
      if (!sane(v[0], PICKS_MAX_COORD) || !sane(v[1], PICKS_MAX_COORD) || !sane(v[2], PICKS_MAX_COORD) ||
          !sane(v[3], PICKS_MAX_COORD) || v[2] < 0 || v[3] < 0 || !sane(v[4], PICKS_MAX_SCORE) || !sane(v[5], 1e9) ||
          !sane(v[6], 1e6)) {
        refuse(r, line_no);
        continue;
      }
      p.w = (int)v[2], p.h = (int)v[3];
      p.x = v[0] + p.w / 2, p.y = v[1] + p.h / 2, p.score = (float)v[4], p.cls = (int)v[5], p.psi = (float)v[6];
    } else {
      refuse(r, line_no);
      continue;
    }
    picks.push_back(p);
  }
  return r;
}

PicksRead rejected_read(const std::string& path, std::vector<Cell>& cells) {
  PicksRead r;
  std::string text;
  if (!gvex_read_regular(path, text, &r.not_a_file)) return r;
  std::istringstream in(text);
  r.opened = true;
  std::vector<double> v;
  long line_no = 0;
  for (std::string line; std::getline(in, line);) {
    line_no++;
    if (!leading_numbers(line, v)) continue;
    if (v.size() < 4 || !sane(v[0], PICKS_MAX_COORD) || !sane(v[1], PICKS_MAX_COORD) || !(v[2] >= 0) ||
        !(v[3] >= 0) || v[2] > PICKS_MAX_COORD || v[3] > PICKS_MAX_COORD) {
      refuse(r, line_no);
      continue;
    }
    cells.push_back(Cell{(long)v[0], (long)v[1], (long)v[2], (long)v[3]});
  }
  return r;
}
