#include "report/micrograph.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "io/mrcfile.h"

std::string beside(const std::string& mic, const std::string& suffix) {
  for (const char* end : {".mrcs", ".mrc"}) {
    const size_t n = strlen(end);
    if (mic.size() > n && mic.compare(mic.size() - n, n, end) == 0) return mic.substr(0, mic.size() - n) + suffix;
  }
  return mic + suffix;
}

void read_micrograph(Micrograph& m) {
  OwnedFile fp(fopen(m.name.c_str(), "r"));
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
  double sum = 0, sum2 = 0, under = 0;
  long n_under = 0, n = 0;
  for (float v : m.pixels)
    if (std::isfinite(v)) sum += v, sum2 += (double)v * v, n++;
  const double r = 0.4 * s.diameter / s.apix;
  for (const Pick* p : kept)
    for (int y = (int)(p->y - r); y <= (int)(p->y + r); y++)
      for (int x = (int)(p->x - r); x <= (int)(p->x + r); x++)
        if (x >= 0 && y >= 0 && x < m.nx && y < m.ny && std::hypot(x - p->x, y - p->y) <= r) {
          const float v = m.pixels[(size_t)y * m.nx + x];
          if (std::isfinite(v)) under += v, n_under++;
        }
  if (n > 1 && n_under > 0 && kept.size() >= 5) {
    const double mean = sum / n, sd = std::sqrt(std::max(0.0, sum2 / n - mean * mean));
    if (sd > 0 && (under / n_under - mean) / sd > 0.02)
      w.push_back("the picks lie on areas brighter than the micrograph: templates of the wrong contrast? (--dont_invertT)");
  }
}

bool write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path) {
  std::vector<Pick> kept;
  for (const Pick& p : m.picks)
    if (p.score >= m.cutoff) kept.push_back(p);
  PartFile box(box_path.c_str(), "w"), star(star_path.c_str(), "w");
  if (!box.fp() || !star.fp()) return false;
  return picks_write(box.fp(), kept, false) && picks_write(star.fp(), kept, true) && box.commit() && star.commit();
}
