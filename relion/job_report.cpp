#include "relion/job_report.h"

#include <algorithm>
#include <cmath>

#include "common/atomic_file.h"
#include "io/star_table.h"
#include "relion/cutoff_rule.h"
#include "relion/relion_files.h"
#include "report/page.h"

bool report_micrograph(Micrograph& m, const PickSettings& pick, bool apix_given, const std::string& picture_path,
                       bool kept_warnings) {
  Settings s;
  s.apix = pick.opt.apixM;
  s.diameter = pick.opt.diameter;
  s.apix_given = apix_given;
  s.pick = pick;
  if (kept_warnings) add_warnings(m, s);
  else add_file_warnings(m, s);
  return make_parent_dirs(picture_path) && write_picture(m, s, picture_path);
}

namespace {

// Swaps the picks, decoys and their edge flags between a record and the
// report's view of it: lent, and given back by the same call.
void lend(MicRecord& r, Micrograph& m) {
  r.picks.swap(m.picks);
  r.decoys.swap(m.decoys);
  r.on_edge.swap(m.on_edge);
  r.decoy_on_edge.swap(m.decoy_on_edge);
}

// The report's view of a recorded micrograph, its picks cut as recorded,
// the record's picks and decoys lent to it. A micrograph cut over the job
// gets the warnings about the picks that cut keeps now, on the grid of the
// job's speed (pixel size, diameter, speed).
Micrograph as_micrograph(MicRecord& r, double diameter, int speed) {
  Micrograph m;
  m.name = r.mic;
  m.nx = r.nx, m.ny = r.ny;
  m.picks_found = true;
  m.rejected = r.rejected;
  m.masked = r.masked;
  m.cutoff = r.cutoff;
  m.drop_edges = r.drop_edges;
  m.warnings = r.warnings;
  // A cut over the job: its decoys, and why it was chosen.
  m.decoys_found = r.pooled;
  lend(r, m);
  m.choice.rule = r.rule, m.choice.why = r.why, m.choice.decoys_above = r.decoys_above;
  if (r.pooled) {
    Settings s = report_settings(r.apix, diameter, false);
    PickOptions o = s.pick.opt;
    o.speed = speed;
    s.pick = derive(o);
    add_kept_warnings(m, s);
  }
  return m;
}

std::string fmt(const char* f, double v) {
  char b[64];
  snprintf(b, sizeof b, f, v);
  return b;
}

// One row per record; mics: the report's view of each, with its warnings.
bool write_summary(const std::string& path, const std::vector<MicRecord>& records,
                   const std::vector<Micrograph>& mics) {
  StarTable t;
  t.name = "micrographs";
  t.labels = {"rlnMicrographName", "rlnMicrographCoordinates", "rlnMicrographPixelSize", "gvexPickCount", "gvexKeptCount",
              "gvexCutoff", "gvexMedianScore", "gvexMaskedFraction", "gvexWarnings"};
  for (size_t k = 0; k < records.size(); k++) {
    const MicRecord& r = records[k];
    std::vector<double> s;
    for (const Pick& p : r.picks) s.push_back(p.score);
    std::sort(s.begin(), s.end());
    std::string warn;
    for (const std::string& w : mics[k].warnings) warn += (warn.empty() ? "" : "; ") + w;
    t.rows.push_back({r.mic, r.coords, fmt("%.6f", r.apix), std::to_string(r.picks.size()), std::to_string(kept_picks(r).size()),
                      fmt("%.6f", r.cutoff), fmt("%.6f", s.empty() ? 0.0 : s[s.size() / 2]), fmt("%.4f", r.masked),
                      warn.empty() ? "none" : warn});
  }
  PartFile f(path.c_str(), "w");
  return f.fp() && fputs("# gvexmatch_relion: one row per picked micrograph\n", f.fp()) >= 0 &&
         star_write(f.fp(), t) && f.commit();
}

}  // namespace

bool write_job_report(const std::string& job, std::vector<MicRecord>& records, double diameter, int speed,
                      size_t settled, std::string& why) {
  std::vector<Micrograph> mics;
  // Gives the lent picks back however the page ends (a failed allocation too).
  struct GiveBack {
    std::vector<MicRecord>& records;
    std::vector<Micrograph>& mics;
    ~GiveBack() {
      for (size_t k = 0; k < mics.size(); k++) lend(records[k], mics[k]);
    }
  };
  std::string page_failed;
  {
    mics.reserve(records.size());
    GiveBack give_back{records, mics};
    std::vector<std::string> pictures;
    std::vector<double> all;
    for (MicRecord& r : records) {
      mics.push_back(as_micrograph(r, diameter, speed));
      pictures.push_back(r.picture);
      for (const Pick& p : mics.back().picks) all.push_back(p.score);
    }
    // The page draws the picks and finds the pictures' crops with the pixel
    // size they were drawn with (one a job, as its first micrograph's).
    Settings s;
    s.apix = records.empty() ? 1.0 : records.front().apix;
    s.diameter = diameter;
    page_failed = write_page(mics, pictures, s, job_cutoff(all), job + "index.html", "", kPageMicrographs, settled);
  }
  if (!page_failed.empty()) return why = "cannot write " + page_failed, false;
  if (!write_summary(job + "summary.star", records, mics)) return why = "cannot write " + job + "summary.star", false;
  return true;
}
