#include "report/micrograph.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "io/mrcfile.h"

std::string beside(const std::string& mic, const std::string& suffix) {
  for (const char* end : {".mrcs", ".mrc"}) {
    const size_t n = strlen(end);
    if (mic.size() > n && mic.compare(mic.size() - n, n, end) == 0) return mic.substr(0, mic.size() - n) + suffix;
  }
  return mic + suffix;
}

void read_micrograph(Micrograph& m) {
  const char* kind = "";
  OwnedFile fp(gvex_open_regular(m.name.c_str(), &kind));
  if (!fp && *kind) gvex_throw("gvexreport: micrograph " + m.name + " is " + kind + ", not a file: it cannot be read\n");
  if (!fp) gvex_throw("gvexreport: cannot open micrograph " + m.name + "\n");
  MRC_HEAD h;
  mrc_read_head(fp.get(), &h);
  m.nx = h.nx, m.ny = h.ny, m.nz = h.nz, m.mode = h.mode, m.nsymbt = h.nsymbt;
  if (!mrc_mode_is_readable(h.mode))
    gvex_throw("gvexreport: micrograph " + m.name + " has pixel mode " + std::to_string(h.mode) +
               ", which cannot be read\n");
  // A cell equal to the sampling (1 A per pixel) is what writers leave when
  // they know no pixel size: no claim to compare.
  m.header_apix = h.mx > 0 && h.xlen > 0 && h.xlen != (float)h.mx ? (double)h.xlen / h.mx : 0;
  m.pixels.assign((size_t)h.nx * h.ny, 0.0f);
  mrc_read_slice(fp.get(), &h, 0, 'z', m.pixels.data());
  for (float v : m.pixels) m.nonfinite += !std::isfinite(v);
}

Settings report_settings(double apix, double diameter, bool apix_given) {
  Settings s;
  s.apix = apix;
  s.diameter = diameter;
  s.apix_given = apix_given;
  PickOptions o = pick_defaults();
  o.apixM = (float)apix;
  o.diameter = (float)diameter;
  s.pick = derive(o);
  return s;
}

namespace {

bool in_cell(const Pick& p, const Cell& c) { return p.x >= c.x && p.x < c.x + c.w && p.y >= c.y && p.y < c.y + c.h; }

std::string fmt(const char* f, double a, double b = 0) {
  char buf[256];
  snprintf(buf, sizeof buf, f, a, b);
  return buf;
}

}  // namespace

void add_warnings(Micrograph& m, const Settings& s) {
  auto& w = m.warnings;
  if (m.nonfinite) w.push_back(fmt("%.0f pixels are not finite numbers: gvexmatch finds no picks on such a micrograph", m.nonfinite));
  if (m.nsymbt > 0) w.push_back(fmt("extended header of %.0f bytes: gvexmatch reads the pixels from byte 1024 all the same", m.nsymbt));
  if (m.mode == 0) w.push_back("pixel mode 0: read as unsigned bytes");
  if (m.nz > 1) w.push_back(fmt("%.0f sections: only the first is picked", m.nz));
  if (s.apix_given && m.header_apix > 0 && std::fabs(m.header_apix - s.apix) > 0.05 * s.apix)
    w.push_back(fmt("the header's pixel size %.3f A differs from --apixM %.3f A by more than 5%%", m.header_apix, s.apix));
  if (!m.picks_found) {
    w.push_back("no picks file");
    return;
  }
  std::vector<const Pick*> kept;
  for (const Pick& p : m.picks)
    if (p.score >= m.cutoff) kept.push_back(&p);
  if (kept.empty()) {
    w.push_back("no picks");
    return;
  }
  // gvexmatch's grid (at its default speed); neighbouring cells never both
  // hold a pick, so a quarter of them is the most there is.
  const double cell = (double)s.pick.cell * s.pick.shrink;
  const double room = std::ceil(m.nx / cell) * std::ceil(m.ny / cell) / 4;
  if (kept.size() > 0.8 * room)
    w.push_back("almost every grid cell holds a pick: the cut-off is too low or the picks are noise");
  const double band = s.diameter / s.apix;
  long edge = 0, masked = 0;
  for (const Pick* p : kept) {
    edge += p->x < band || p->y < band || p->x > m.nx - band || p->y > m.ny - band;
    for (const Cell& c : m.rejected) masked += in_cell(*p, c);
  }
  const double band_area = 1 - std::max(0.0, (m.nx - 2 * band) * (m.ny - 2 * band)) / ((double)m.nx * m.ny);
  if (edge >= 5 && edge > 2 * band_area * kept.size())
    w.push_back(fmt("%.0f%% of the picks lie within a particle diameter of the edge", 100.0 * edge / kept.size()));
  if (masked >= 3 && masked > 0.1 * kept.size())
    w.push_back(fmt("%.0f%% of the picks lie on rejected areas", 100.0 * masked / kept.size()));
  // Particles are dark (templates are inverted to match): picks on areas
  // brighter than the micrograph point to templates of the wrong contrast.
  // The mean under each pick is a window of a summed-area table, so the
  // cost does not grow with the particle's size.
  std::vector<double> sat((size_t)(m.nx + 1) * (m.ny + 1), 0.0), cnt(sat.size(), 0.0);
  double sum = 0, sum2 = 0;
  long n = 0;
  for (int y = 0; y < m.ny; y++)
    for (int x = 0; x < m.nx; x++) {
      const float v = m.pixels[(size_t)y * m.nx + x];
      const bool ok = std::isfinite(v);
      if (ok) sum += v, sum2 += (double)v * v, n++;
      const size_t i = (size_t)(y + 1) * (m.nx + 1) + x + 1, up = i - (m.nx + 1);
      sat[i] = (ok ? v : 0.0) + sat[i - 1] + sat[up] - sat[up - 1];
      cnt[i] = (ok ? 1.0 : 0.0) + cnt[i - 1] + cnt[up] - cnt[up - 1];
    }
  auto window = [&](const std::vector<double>& t, long x0, long y0, long x1, long y1) {  // [x0,x1) x [y0,y1)
    const long W = m.nx + 1;
    return t[y1 * W + x1] - t[y0 * W + x1] - t[y1 * W + x0] + t[y0 * W + x0];
  };
  const double r = 0.4 * s.diameter / s.apix / std::sqrt(2.0);  // the square inside the disc
  double under = 0, n_under = 0;
  for (const Pick* p : kept) {
    const long x0 = std::max(0L, (long)(p->x - r)), x1 = std::min((long)m.nx, (long)(p->x + r) + 1);
    const long y0 = std::max(0L, (long)(p->y - r)), y1 = std::min((long)m.ny, (long)(p->y + r) + 1);
    if (x0 >= x1 || y0 >= y1) continue;
    under += window(sat, x0, y0, x1, y1);
    n_under += window(cnt, x0, y0, x1, y1);
  }
  if (n > 1 && n_under > 0 && kept.size() >= 5) {
    const double mean = sum / n, sd = std::sqrt(std::max(0.0, sum2 / n - mean * mean));
    if (sd > 0 && (under / n_under - mean) / sd > 0.02)
      w.push_back("the picks lie on areas brighter than the micrograph: templates of the wrong contrast? (--dont_invertT)");
  }
}

std::string write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path) {
  std::vector<Pick> kept;
  for (const Pick& p : m.picks)
    if (p.score >= m.cutoff) kept.push_back(p);
  // Both written whole under their partial names, then renamed as one
  // commit, as gvexmatch commits its pair.
  for (const std::string* path : {&box_path, &star_path}) {
    FILE* fp = gvex_create_new(gvex_part_name(path->c_str()).c_str(), "w");
    const bool ok = fp && picks_write(fp, kept, path == &star_path);
    if (!fp || fclose(fp) != 0 || !ok) {
      unlink(gvex_part_name(box_path.c_str()).c_str());
      unlink(gvex_part_name(star_path.c_str()).c_str());
      return *path;
    }
  }
  const std::string marker = beside(m.name, "_vexmatch_auto.commit");
  const std::string failed = gvex_commit_together({box_path, star_path}, marker);
  gvex_end_commit(marker);
  return failed;
}
