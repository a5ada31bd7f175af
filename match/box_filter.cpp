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

#include "common/errors.h"
#include "common/records.h"
#include "io/boxfile.h"
#include "match/peaks.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "boxfile";

namespace {

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

}  // namespace

int box_filter(int nx, int ny, float min_dist, float score_limit, float scale, int box_x, int box_y, int2 origin,
               char* in_file, char* excluded_file, char* out_file, int format) {
  FILE* in = fopen(in_file, "r");
  if (!in) gvex_open_read_failed(in_file, "box_filter", "boxfile", 331);

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
  const unsigned int none = 0xFFFFFFFFu;
  std::vector<float> best(ng, 0.0f), angle(ng, 0.0f);
  std::vector<unsigned int> index(ng, 0u), templ(ng, none);

  // 1. best candidate per cell
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
  fclose(in);

  // 2. neighbour suppression, in scan order and in place: a cell falls to an
  // equal or better close neighbour; at the border the cell is its own
  // neighbour, so the outer ring of cells never survives.
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

  // 3. score limit
  for (long g = 0; g < ng; g++)
    if (index[g] && best[g] < score_limit) index[g] = 0;

  // 4. positions excluded by the user, in micrograph pixels
  if (names_a_file(excluded_file) && access(excluded_file, R_OK) == 0) {
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

  // 5. output
  FILE* out = fopen(out_file, "w+");
  if (!out) gvex_open_write_failed(out_file, "box_filter", "boxfile", __LINE__);
  if (format == 1) output_starbox_head(out);
  const int hx = box_x / 2, hy = box_y / 2;
  for (long g = 0; g < ng; g++) {
    if (!index[g] || templ[g] == none) continue;
    const unsigned int px = index[g] % (unsigned int)nx, py = index[g] / (unsigned int)nx;
    const float sx = px * scale, sy = py * scale;
    if (!(hx < sx && sx < nx * scale - hx && hy < sy && sy < ny * scale - hy)) continue;
    if (format == 1)
      fprintf(out, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", (int)sx + origin.x, (int)sy + origin.y, angle[g], (int)templ[g],
              best[g]);
    else
      fprintf(out, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", (int)(sx - hx) + origin.x, (int)(sy - hy) + origin.y,
              box_x, box_y, best[g], (int)templ[g], angle[g]);
  }
  const bool bad = ferror(out) != 0;
  if (fclose(out) != 0 || bad) gvex_open_write_failed(out_file, "box_filter", "boxfile", __LINE__);
  return 0;
}
