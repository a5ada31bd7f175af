#include "report/micrograph.h"

#include <unistd.h>

#include <algorithm>
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
#include "report/cutoff.h"

std::string beside(const std::string& mic, const std::string& suffix) {
  for (const char* end : {".mrcs", ".mrc"}) {
    const size_t n = strlen(end);
    if (mic.size() > n && mic.compare(mic.size() - n, n, end) == 0) return mic.substr(0, mic.size() - n) + suffix;
  }
  return mic + suffix;
}

namespace {

// Hot pixels, a saturated column, a stray value: gvexmatch normalises over
// the whole micrograph, so a few such pixels can hold its variance and with
// it the picks (a thousand pixels at 30 sd, a few tenths of a percent, took
// every pick of a test micrograph). Realistic and real micrographs reach
// 10 sd at most. The rest's spread is read robustly, from the quartiles of
// a sample.
constexpr double kOutlying = 20, kOutlyingShare = 0.1;

void find_outlying(Micrograph& m) {
  m.outlying = 0, m.outlying_share = 0;
  std::vector<float> sample;
  for (size_t i = 0; i < m.pixels.size(); i += 7)
    if (std::isfinite(m.pixels[i])) sample.push_back(m.pixels[i]);
  if (sample.size() < 4) return;
  auto quantile = [&](double q) {
    auto k = sample.begin() + (long)(q * (sample.size() - 1));
    std::nth_element(sample.begin(), k, sample.end());
    return (double)*k;
  };
  const double median = quantile(0.5), sd = (quantile(0.75) - quantile(0.25)) / 1.349;
  if (!(sd > 0)) return;
  double all = 0, far = 0;
  for (float v : m.pixels) {
    if (!std::isfinite(v)) continue;
    const double d = ((double)v - median) * ((double)v - median);
    all += d;
    if (d > kOutlying * kOutlying * sd * sd) far += d, m.outlying++;
  }
  m.outlying_share = all > 0 ? far / all : 0;
}

}  // namespace

void read_micrograph(Micrograph& m) {
  const char* kind = "";
  OwnedFile fp(gvex_open_regular(m.name.c_str(), &kind));
  if (!fp && *kind) gvex_throw("micrograph " + m.name + " is " + kind + ", not a file: it cannot be read\n");
  if (!fp) gvex_throw("cannot open micrograph " + m.name + "\n");
  MRC_HEAD h;
  mrc_read_head(fp.get(), &h);
  if (!mrc_mode_is_readable(h.mode, false))
    gvex_throw("micrograph " + m.name + " has pixel mode " + std::to_string(h.mode) + ", which cannot be read\n");
  std::vector<float> pixels((size_t)h.nx * h.ny, 0.0f);
  mrc_read_slice(fp.get(), &h, 0, 'z', pixels.data(), false);
  take_micrograph(m, h, std::move(pixels));
}

void take_micrograph(Micrograph& m, const MRC_HEAD& h, std::vector<float> pixels) {
  m.nx = h.nx, m.ny = h.ny, m.nz = h.nz, m.mode = h.mode;
  // Writers today keep the extended header's length as 32 bits at byte 92,
  // older ones as 16 bits at 90: either shifts the pixels the picker reads.
  m.nsymbt = h.nsymbt > 0 ? h.nsymbt : std::max<int32_t>(0, h.next);
  // A cell equal to the sampling (1 A per pixel) is what writers leave when
  // they know no pixel size: no claim to compare.
  m.header_apix = h.mx > 0 && h.xlen > 0 && h.xlen != (float)h.mx ? (double)h.xlen / h.mx : 0;
  m.pixels = std::move(pixels);
  m.nonfinite = 0;
  for (float v : m.pixels) m.nonfinite += !std::isfinite(v);
  find_outlying(m);
}

PicksRead read_picks(Micrograph& m, const std::string& path, int boxsize) {
  const PicksRead got = picks_read(path, boxsize, m.picks);
  m.picks_found = got.opened;
  double recorded = got.cut;
  // A ".box" file cannot carry the record; the STAR file written with it does.
  const std::string box = ".box";
  if (path.size() > box.size() && path.compare(path.size() - box.size(), box.size(), box) == 0) {
    std::vector<Pick> twin;
    recorded = picks_read(path.substr(0, path.size() - box.size()) + ".star", boxsize, twin).cut;
  }
  m.cut_recorded = std::isfinite(recorded);
  m.cut_before = m.cut_recorded ? recorded : cut_shown_by_scores(scores_of(m.picks));
  return got;
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
  add_file_warnings(m, s);
  if (m.picks_found) add_kept_warnings(m, s);
}

void add_file_warnings(Micrograph& m, const Settings& s) {
  auto& w = m.warnings;
  if (m.nonfinite) w.push_back(fmt("%.0f pixels are not finite numbers: gvexmatch finds no picks on such a micrograph", m.nonfinite));
  if (m.outlying > 0 && m.outlying_share > kOutlyingShare)
    w.push_back(fmt("%.0f pixels lie beyond 20 sd of the rest and hold %.0f%% of the micrograph's variance (hot "
                    "pixels, a saturated column?): gvexmatch normalises over the whole micrograph, so they can take "
                    "its picks",
                    (double)m.outlying, 100 * m.outlying_share));
  if (m.nsymbt > 0) w.push_back(fmt("extended header of %.0f bytes: gvexmatch reads the pixels from byte 1024 all the same", m.nsymbt));
  if (m.mode == 0) w.push_back("pixel mode 0: read as unsigned bytes");
  if (m.nz > 1) w.push_back(fmt("%.0f sections: only the first is picked", m.nz));
  if (s.apix_given && m.header_apix > 0 && std::fabs(m.header_apix - s.apix) > 0.05 * s.apix)
    w.push_back(fmt("the header's pixel size %.3f A differs from --apixM %.3f A by more than 5%%", m.header_apix, s.apix));
  if (!m.picks_found)
    w.push_back(m.unfinished ? "its picking was interrupted (NAME_vexmatch.commit is there): its picks are not read; "
                               "gvexmatch --do_unfinished 1 picks it again"
                             : "no picks file");
}

void add_kept_warnings(Micrograph& m, const Settings& s) {
  auto& w = m.warnings;
  std::vector<const Pick*> kept;
  for (size_t i = 0; i < m.picks.size(); i++)
    if (kept_in(m, i)) kept.push_back(&m.picks[i]);
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
}

void add_run_warnings(std::vector<Micrograph>& mics) {
  std::vector<double> real, decoys;
  for (const Micrograph& m : mics)
    if (m.decoys_found) {
      for (const Pick& p : m.picks) real.push_back(p.score);
      for (const Pick& p : m.decoys) decoys.push_back(p.score);
    }
  if (decoys.empty() || !decoys_outscore(real, decoys)) return;
  for (Micrograph& m : mics)
    if (m.decoys_found)
      m.warnings.push_back("the decoys (these templates with their contrast inverted) outscore the picks on this "
                           "run's micrographs: templates of the wrong contrast? (--dont_invertT)");
}

std::string write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path) {
  std::vector<Pick> kept;
  for (size_t i = 0; i < m.picks.size(); i++)
    if (kept_in(m, i)) kept.push_back(m.picks[i]);
  // Another run cutting this micrograph finishes first: the partial names
  // are fixed, and each run clears what it finds at them.
  const InputLock lock(m.name.c_str());
  // Both written whole under their partial names, then renamed as one
  // commit, as gvexmatch commits its pair.
  for (const std::string* path : {&box_path, &star_path}) {
    FILE* fp = gvex_create_new(gvex_part_name(path->c_str()).c_str(), "w");
    // Picks cut before at a higher cut-off are still cut at that one.
    const double cut = m.cut_recorded ? std::max(m.cutoff, m.cut_before) : m.cutoff;
    const bool ok = fp && picks_write(fp, kept, path == &star_path, cut);
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
