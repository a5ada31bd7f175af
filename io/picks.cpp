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

namespace {

// Where a row's fields are. A STAR loop names its columns; a file without
// labels has the order the picker writes.
struct Columns {
  int x = 0, y = 1, psi = 2, cls = 3, score = 4;
  size_t count = 5;
};

Columns star_columns_unset() { return Columns{-1, -1, -1, -1, -1, 0}; }

void take_label(Columns& c, const std::string& label) {
  const int k = (int)c.count++;
  if (label == "_rlnCoordinateX") c.x = k;
  if (label == "_rlnCoordinateY") c.y = k;
  if (label == "_rlnAnglePsi") c.psi = k;
  if (label == "_rlnClassNumber") c.cls = k;
  if (label == "_rlnAutopickFigureOfMerit") c.score = k;
}

bool number_of(const std::string& w, double& d) {
  char* end = nullptr;
  d = strtod(w.c_str(), &end);
  return end != w.c_str() && !*end;
}

void refuse(PicksRead& r, long line_no, const char* why) {
  if (r.refused++ == 0) r.first_refused = line_no, r.why = why;
}

// A STAR row: the fields its loop's labels name.
const char* star_row(const std::vector<std::string>& w, const Columns& c, int box, Pick& p) {
  if (c.x < 0 || c.y < 0 || c.score < 0) return "no coordinate or score column in its loop";
  if (w.size() != c.count) return "not as many fields as its loop has labels";
  double x, y, score, psi = 0, cls = 1;
  if (!number_of(w[c.x], x) || !number_of(w[c.y], y) || !number_of(w[c.score], score) ||
      (c.psi >= 0 && !number_of(w[c.psi], psi)) || (c.cls >= 0 && !number_of(w[c.cls], cls)))
    return "a coordinate, score, angle or class is not a number";
  if (!sane(cls, 1e9) || !sane(psi, 1e6) || !sane(score, PICKS_MAX_SCORE) || !sane(x, PICKS_MAX_COORD) ||
      !sane(y, PICKS_MAX_COORD))
    return "numbers not finite or out of range";
  p.x = x, p.y = y, p.psi = (float)psi, p.cls = (int)cls, p.score = (float)score, p.w = p.h = box;
  return nullptr;
}

// A ".box" row: corner x y, box w h, score, class, angle.
const char* box_row(const std::vector<std::string>& w, Pick& p) {
  if (w.size() != 7) return "not the seven fields of a picks line";
  double v[7];
  for (int i = 0; i < 7; i++)
    if (!number_of(w[i], v[i])) return "a field is not a number";
  if (!sane(v[0], PICKS_MAX_COORD) || !sane(v[1], PICKS_MAX_COORD) || !sane(v[2], PICKS_MAX_COORD) ||
      !sane(v[3], PICKS_MAX_COORD) || v[2] < 0 || v[3] < 0 || !sane(v[4], PICKS_MAX_SCORE) || !sane(v[5], 1e9) ||
      !sane(v[6], 1e6))
    return "numbers not finite or out of range";
  p.w = (int)v[2], p.h = (int)v[3];
  p.x = v[0] + p.w / 2, p.y = v[1] + p.h / 2, p.score = (float)v[4], p.cls = (int)v[5], p.psi = (float)v[6];
  return nullptr;
}

}  // namespace

PicksRead picks_parse(const std::string& text, bool star, int box, std::vector<Pick>& picks) {
  PicksRead r;
  std::istringstream in(text);
  r.opened = true;
  Columns columns;
  bool labels = false;  // between "loop_" and its first row
  long line_no = 0;
  for (std::string line; std::getline(in, line);) {
    line_no++;
    if (star && starts_with(line, kCutRecord)) {
      char* end = nullptr;
      const double cut = strtod(line.c_str() + strlen(kCutRecord), &end);
      if (end != line.c_str() + strlen(kCutRecord) && sane(cut, PICKS_MAX_SCORE)) r.cut = cut;
      continue;
    }
    std::vector<std::string> w;
    std::istringstream ws(line);
    for (std::string word; ws >> word;) w.push_back(word);
    if (w.empty() || w[0][0] == '#') continue;
    if (star) {
      const std::string key = w[0];
      if (key == "loop_") {
        columns = star_columns_unset(), labels = true;
        continue;
      }
      if (starts_with(key, "data_") || key == "stop_" || starts_with(key, "save_") || key == "global_") {
        labels = false;
        continue;
      }
      if (key[0] == '_') {
        if (labels) take_label(columns, key);  // else a name-value pair, no pick
        continue;
      }
      labels = false;
    }
    Pick p;
    const char* why = star ? star_row(w, columns, box, p) : box_row(w, p);
    if (why) {
      refuse(r, line_no, why);
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
      refuse(r, line_no, "numbers not finite or out of range");
      continue;
    }
    cells.push_back(Cell{(long)v[0], (long)v[1], (long)v[2], (long)v[3]});
  }
  return r;
}
