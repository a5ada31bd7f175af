// Merge of the per-template candidate file into the final pick file.
#include "match/box_filter.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/records.h"
#include "io/boxfile.h"
#include "match/peaks.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "boxfile";

namespace {

const unsigned int NO_TEMPLATE = 0xFFFFFFFFu;  // a cell no candidate reached

// The candidate files hold seven numbers per line: x y w h score template
// angle. Returns false for a line with fewer than seven numbers (or any of
// the first seven not a number), which is then passed over.
bool parse_candidate(char* line, long long& x, long long& y, long long& w, long long& h, float& score, long long& t,
                     float& angle) {
  char* tok[7];
  int n = 0;
  for (char* s = strtok(line, " \t\r\n"); s && n < 7; s = strtok(nullptr, " \t\r\n")) tok[n++] = s;
  if (n < 7) return false;
  long long iv[4];
  const int ipos[4] = {0, 1, 2, 3};
  for (int k = 0; k < 4; k++) {
    char* end = nullptr;
    errno = 0;
    iv[k] = strtoll(tok[ipos[k]], &end, 10);
    // Our own candidates are ints; anything else is a damaged line, and
    // keeping to the int range keeps x + w / 2 far from overflow.
    if (end == tok[ipos[k]] || *end || errno || iv[k] < INT_MIN || iv[k] > INT_MAX) return false;
  }
  char* end = nullptr;
  errno = 0;
  t = strtoll(tok[5], &end, 10);
  if (end == tok[5] || *end || errno) return false;
  end = nullptr;
  score = strtof(tok[4], &end);
  if (end == tok[4] || *end) return false;
  end = nullptr;
  angle = strtof(tok[6], &end);
  if (end == tok[6] || *end) return false;
  x = iv[0];
  y = iv[1];
  w = iv[2];
  h = iv[3];
  return true;
}

bool names_a_file(const char* name) {
  return name && name[0] && name[0] != '\n' && strcasecmp(name, "NULL") != 0 && strcasecmp(name, "NONE") != 0;
}

// 1. The best candidate per merge cell (strictly better replaces).
void best_per_cell(FILE* in, int nx, int ny, int c, int gnx, std::vector<float>& best, std::vector<float>& angle,
                   std::vector<unsigned int>& index, std::vector<unsigned int>& templ) {
  char* line = nullptr;
  size_t cap = 0;
  while (getline(&line, &cap, in) != -1) {
    long long x, y, w, h, t;
    float score, ang;
    if (!parse_candidate(line, x, y, w, h, score, t, ang)) continue;
    const long long cx = x + w / 2, cy = y + h / 2;
    if (cx < 0 || cy < 0 || cx >= nx || cy >= ny) continue;  // outside the working image
    const long g = (long)(cy / c) * gnx + (long)(cx / c);
    if (score > best[g]) {
      best[g] = score;
      index[g] = (unsigned int)(cy * nx + cx);
      templ[g] = (unsigned int)t;
      angle[g] = ang;
    }
  }
  free(line);
}

// 2. Neighbour suppression, in scan order and in place: a cell falls to an
// equal or better close neighbour; at the border the cell is its own
// neighbour, so the outer ring of cells never survives.
void suppress_neighbours(int nx, int c, int gnx, int gny, const std::vector<float>& best,
                         std::vector<unsigned int>& index) {
  const long long lim2 = 2LL * c * c;
  for (int gy = 0; gy < gny; gy++) {
    for (int gx = 0; gx < gnx; gx++) {
      const int g = gy * gnx + gx;
      int nb[8];
      hd_grid_neighbours(gx, gy, gnx, gny, nb);
      for (int k = 0; k < 8; k++) {
        if (hd_too_close(index[g], index[nb[k]], nx, lim2) && best[nb[k]] >= best[g]) {
          index[g] = 0;
          break;
        }
      }
    }
  }
}

// 4. Positions excluded by the user, in micrograph pixels.
void drop_excluded(int nx, int c, float scale, int2 origin, const char* excluded_file, std::vector<unsigned int>& index) {
  const long ng = (long)index.size();
  std::vector<PTCL_BOX> ex(ng);
  const int n = read_all_ptcl_boxes(ex.data(), (int)ng, excluded_file);
  const float lim = 2.0f * c * c * scale * scale;
  for (long g = 0; g < ng; g++) {
    if (!index[g]) continue;
    const long long px = index[g] % (unsigned int)nx, py = index[g] / (unsigned int)nx;
    const long long x = (long long)(int)(px * scale) + origin.x;
    const long long y = (long long)(int)(py * scale) + origin.y;
    for (int k = 0; k < n; k++) {
      // In double: coordinates from a hand-edited file may be anywhere in
      // the int range, and their squares would overflow 64-bit integers.
      const double dx = (double)(x - ((long long)ex[k].x + ex[k].bx / 2));
      const double dy = (double)(y - ((long long)ex[k].y + ex[k].by / 2));
      if ((float)(dx * dx + dy * dy) < lim) {
        index[g] = 0;
        break;
      }
    }
  }
}

}  // namespace

// The merge of the candidates in `in` (closed here).
static std::vector<Pick> merge_candidates(FILE* in, int nx, int ny, float min_dist, float score_limit, float scale,
                                          int box_x, int box_y, int2 origin, const char* excluded_file) {
  const int c = (int)(1.4142135f * min_dist / 2);
  if (c < 1 || nx < 1 || ny < 1) {
    fclose(in);
    char why[200];
    snprintf(why, sizeof why, "merge cell of %d pixels (minimum distance %g) on a %d x %d image; the cell must be at least 1 pixel",
             c, min_dist, nx, ny);
    GVEX_FAIL(why);
  }
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const long ng = (long)gnx * gny;
  std::vector<float> best(ng, 0.0f), angle(ng, 0.0f);
  std::vector<unsigned int> index(ng, 0u), templ(ng, NO_TEMPLATE);
  best_per_cell(in, nx, ny, c, gnx, best, angle, index, templ);
  fclose(in);
  suppress_neighbours(nx, c, gnx, gny, best, index);
  for (long g = 0; g < ng; g++)
    if (index[g] && best[g] < score_limit) index[g] = 0;
  if (names_a_file(excluded_file) && access(excluded_file, R_OK) == 0)
    drop_excluded(nx, c, scale, origin, excluded_file, index);

  // Picks whose box lies inside the micrograph, in cell order.
  std::vector<Pick> picks;
  const int hx = box_x / 2, hy = box_y / 2;
  for (long g = 0; g < ng; g++) {
    if (!index[g] || templ[g] == NO_TEMPLATE) continue;
    const unsigned int px = index[g] % (unsigned int)nx, py = index[g] / (unsigned int)nx;
    const float sx = px * scale, sy = py * scale;
    if (!(hx < sx && sx < nx * scale - hx && hy < sy && sy < ny * scale - hy)) continue;
    Pick p;
    p.x = (int)sx + origin.x;
    p.y = (int)sy + origin.y;
    p.w = box_x;
    p.h = box_y;
    p.score = best[g];
    p.cls = (int)templ[g];
    p.psi = angle[g];
    picks.push_back(p);
  }
  return picks;
}

std::vector<Pick> merge_candidate_text(const std::string& candidates, int nx, int ny, float min_dist,
                                       float score_limit, float scale, int box_x, int box_y, int2 origin,
                                       const char* excluded_file) {
  std::string text = candidates.empty() ? "\n" : candidates;  // fmemopen takes no empty buffer
  FILE* in = fmemopen(&text[0], text.size(), "r");
  if (!in) GVEX_FAIL("out of memory for the candidates");
  return merge_candidates(in, nx, ny, min_dist, score_limit, scale, box_x, box_y, origin, excluded_file);
}

void write_merged_picks(const char* out_file, const std::vector<Pick>& picks, bool star) {
  FILE* out = gvex_create_new(out_file, "w+");
  if (!out) gvex_open_write_failed(out_file, "box_filter", "boxfile", __LINE__);
  const bool ok = picks_write(out, picks, star);
  if (fclose(out) != 0 || !ok) gvex_open_write_failed(out_file, "box_filter", "boxfile", __LINE__);
}

std::vector<Pick> box_filter(int nx, int ny, float min_dist, float score_limit, float scale, int box_x, int box_y,
                             int2 origin, const char* in_file, const char* excluded_file, const char* out_file,
                             int format) {
  FILE* in = fopen(in_file, "r");
  if (!in) gvex_open_read_failed(in_file, "box_filter", "boxfile", 331);
  std::vector<Pick> picks =
      merge_candidates(in, nx, ny, min_dist, score_limit, scale, box_x, box_y, origin, excluded_file);
  write_merged_picks(out_file, picks, format == 1);
  return picks;
}
