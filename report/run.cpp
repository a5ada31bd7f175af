#include "report/run.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/regular_file.h"
#include "common/strutil.h"
#include "report/edges.h"
#include "report/page.h"

bool make_dir(const std::string& dir) {
  struct stat st;
  if (stat(dir.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    errno = ENOTDIR;
    return false;
  }
  return mkdir(dir.c_str(), 0777) == 0;
}

std::string picture_name(size_t k, const std::string& mic) {
  // Any micrograph name gives a file name the file system takes and a link
  // no browser misreads.
  const size_t s = mic.rfind('/');
  std::string stem = beside(s == std::string::npos ? mic : mic.substr(s + 1), "");
  std::string plain;
  for (char c : stem) plain += isalnum((unsigned char)c) || c == '-' || c == '_' || c == '.' ? c : '_';
  if (plain.size() > 60) plain.resize(60);
  return std::to_string(k + 1) + "_" + plain + ".png";
}

void read_pixels(Micrograph& m, const std::string& prog) {
  try {
    read_micrograph(m);
  } catch (const GvexFailure& f) {
    gvex_throw(prog + ": cannot read micrograph " + m.name + ":\n" + f.text, 1, true);
  }
}

// What a user needs to hear of a file read beside a micrograph.
static void damaged_lines(Micrograph& m, const PicksRead& read, const std::string& path) {
  if (*read.not_a_file) m.warnings.push_back(path + " is " + read.not_a_file + ", not a file: not read");
  if (read.refused > 0)
    m.warnings.push_back(std::to_string(read.refused) + " damaged line(s) of " + path + " skipped (the first is line " +
                         std::to_string(read.first_refused) + "): " + read.why);
}

void read_rejected(Micrograph& m) {
  const std::string path = beside(m.name, "_rejected.box");
  damaged_lines(m, rejected_read(path, m.rejected), path);
  double area = 0;
  for (const Cell& c : m.rejected) area += (double)c.w * c.h;
  m.masked = std::min(1.0, area / ((double)m.nx * m.ny));
  m.usable_pixels = (double)m.nx * m.ny * (1 - m.masked);
}

void read_inputs(Micrograph& m, const std::string& suffix, int boxsize, const Settings& s, const std::string& prog) {
  read_pixels(m, prog);
  // gvexmatch's marker of a commit not yet ended: a run killed (or still
  // picking it) between its coordinate files and what goes with them.
  struct stat marker;
  if ((suffix == "_vexmatch.star" || suffix == "_vexmatch.box") && lstat(beside(m.name, "_vexmatch.commit").c_str(), &marker) == 0) {
    m.unfinished = true;
    return;
  }
  const std::string path = beside(m.name, suffix);
  damaged_lines(m, read_picks(m, path, boxsize), path);
  long outside = 0;
  for (const Pick& p : m.picks) outside += !(p.x >= 0 && p.y >= 0 && p.x < m.nx && p.y < m.ny);
  if (outside > 0)
    m.warnings.push_back(std::to_string(outside) + " pick(s) of " + path + " lie outside the micrograph's " +
                         std::to_string(m.nx) + " x " + std::to_string(m.ny) + " pixels: picks of another micrograph?");
  read_rejected(m);
  if (m.picks_found) read_decoys(m, decoys_path(m.name, suffix), s);
}

std::string decoys_path(const std::string& mic, const std::string& suffix) {
  std::string stem = suffix;
  for (const char* end : {".star", ".box"})
    if (ends_with(stem, end)) stem.resize(stem.size() - strlen(end));
  return beside(mic, stem + "_decoys.star");
}

namespace {

const char* const kDecoysRecord = "# decoys of ";

// FNV-1a over the picks as their files hold them: whole-pixel centres and
// six-decimal scores, which the picks read back from a file reproduce.
unsigned long long picks_checksum(const std::vector<Pick>& picks) {
  unsigned long long h = 1469598103934665603ull;
  char text[96];
  for (const Pick& p : picks) {
    const int n = snprintf(text, sizeof text, "%ld %ld %.6f\n", std::lround(p.x), std::lround(p.y), p.score);
    for (int i = 0; i < n; i++) h = (h ^ (unsigned char)text[i]) * 1099511628211ull;
  }
  return h;
}

}  // namespace


void read_decoys(Micrograph& m, const std::string& path, const Settings& s) {
  std::string text;
  const char* kind = "";
  if (!gvex_read_regular(path, text, &kind)) {
    if (*kind) m.warnings.push_back("decoys file " + path + " is " + kind + ", not a file: not read");
    return;
  }
  std::string record;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (starts_with(line, kDecoysRecord)) record = line;
  size_t count = 0;
  unsigned long long sum = 0;
  double usable = 0;
  const bool recorded = !record.empty() &&
                        sscanf(record.c_str() + strlen(kDecoysRecord), "%zu picks, checksum %llx; usable pixels %lf",
                               &count, &sum, &usable) == 3 &&
                        std::isfinite(usable) && usable >= 0 && usable <= (double)m.nx * m.ny &&
                        (usable > 0 || m.picks.empty());
  std::vector<Pick> decoys;
  const PicksRead read = picks_parse(text, true, 0, decoys);
  if (!recorded || read.refused > 0) {
    m.warnings.push_back("decoys file " + path + " is damaged: ignored, the cut-off comes from the scores alone");
    return;
  }
  if (count != m.picks.size() || sum != picks_checksum(m.picks)) {
    m.warnings.push_back("decoys file " + path + " belongs to other picks (picked again since?): ignored, the "
                         "cut-off comes from the scores alone");
    return;
  }
  m.decoys_found = true;
  m.decoys = std::move(decoys);
  m.usable_pixels = usable;
  // Decoys are written only beside picks kept at every grid maximum, so a
  // high lowest score among those picks shows no earlier cut.
  if (!m.cut_recorded) m.cut_before = NAN;
  m.on_edge = edge_picks(m.pixels, m.nx, m.ny, s.diameter / 2 / s.apix, m.picks, m.decoys, &m.decoy_on_edge);
}

// Picks as their files hold them (centres in whole pixels, scores to six
// decimals), so that the report and a later --apply on the files agree.
static std::vector<Pick> as_written(std::vector<Pick> picks) {
  char text[64];
  for (Pick& p : picks) {
    p.x = std::lround(p.x), p.y = std::lround(p.y);
    snprintf(text, sizeof text, "%.6f", p.score);
    p.score = (float)strtod(text, nullptr);
  }
  return picks;
}

// Whole, or not at all; false when it cannot be written.
static bool write_decoys(const PickResult& r, const std::string& path) {
  PartFile f(path.c_str(), "w");
  if (!f.fp()) return false;
  // The record goes last: the table's writer starts from the file's start.
  const bool table = picks_write(f.fp(), as_written(r.decoys), true);
  fprintf(f.fp(), "%s%zu picks, checksum %016llx; usable pixels %.17g\n", kDecoysRecord, r.picks.size(),
          picks_checksum(as_written(r.picks)), r.usable_pixels);
  return table && f.commit();
}

std::string blind_templates_line(const PickSession& session, const PickSettings& s, bool* none) {
  const std::vector<int> blind = session.blind_templates();
  *none = !blind.empty() && (int)blind.size() == session.template_count();
  if (blind.empty()) return "";
  const char* why =
      " (a pixel that is not a number, every pixel alike, or values too large or too small for single precision,"
      " at the working pixel size)";
  if (*none)
    return (s.auto_template ? "the generated template can match nothing"
                            : "no template of " + s.opt.templates + " can match anything") +
           why + ": every micrograph would come back without picks";
  std::string list;
  for (int t : blind) list += (list.empty() ? "" : ", ") + std::to_string(t);
  return (blind.size() == 1 ? "template " : "templates ") + list + " of " + s.opt.templates + " can match nothing" +
         why + ": the others pick without them";
}

void check_templates(const PickSession& session, const PickSettings& s, const std::string& prog, bool say) {
  bool none = false;
  const std::string blind = blind_templates_line(session, s, &none);
  if (none) gvex_throw(prog + ": " + blind + "\n", 1, true);
  if (say && !blind.empty()) printf("warning: %s\n", blind.c_str());
}

void commit_decoys(PickSession& session, const std::string& suffix) {
  session.also_commit([suffix](const std::string& mic) { return decoys_path(mic, suffix); }, write_decoys);
}

void take_picked(Micrograph& m, PickResult& r, const Settings& s) {
  take_micrograph(m, r.head, std::move(r.pixels));
  read_rejected(m);
  m.picks_found = true;
  m.picks = as_written(r.picks);
  m.decoys_found = true;
  m.decoys = as_written(r.decoys);
  m.usable_pixels = r.usable_pixels;
  m.on_edge = edge_picks(m.pixels, m.nx, m.ny, s.diameter / 2 / s.apix, m.picks, m.decoys, &m.decoy_on_edge);
}

std::string write_pictures(Micrograph& m, size_t k, const Settings& s, const std::string& out) {
  std::string name = picture_name(k, m.name);
  if (!out.empty() && !write_picture(m, s, out + "/" + name)) name.clear();
  // A long run holds one micrograph's pixels at a time.
  std::vector<float>().swap(m.pixels);
  return name;
}

std::string cut_run(std::vector<Micrograph>& mics, const Settings& s, double pooled, double fixed, bool apply) {
  add_run_warnings(mics);
  const SparseCut run_sparse = run_sparse_cut(mics, s);
  const RunCut whole = run_cut(mics, s);
  for (Micrograph& m : mics) {
    decide_cutoff(m, s, pooled, fixed, run_sparse, whole);
    add_warnings(m, s);
    std::string decoys;
    if (m.choice.decoys_above >= 0)
      decoys = ", " + std::to_string(m.choice.decoys_above) + (m.choice.decoys_above == 1 ? " decoy" : " decoys") +
               " above it" + (decoys_left_out(m) ? " off the edges whose picks are left out" : "");
    printf("%s: %zu picks, cut-off %.4f keeps %ld%s; %s\n", m.name.c_str(), m.picks.size(), m.cutoff,
           count_kept(m), decoys.c_str(), m.choice.why.c_str());
    for (const std::string& w : m.warnings) printf("warning: %s: %s\n", m.name.c_str(), w.c_str());
    if (apply && m.picks_found) {
      const std::string failed =
          write_kept(m, beside(m.name, "_vexmatch_auto.box"), beside(m.name, "_vexmatch_auto.star"));
      if (!failed.empty()) return failed;
    }
  }
  return "";
}

std::string cut_and_report(std::vector<Micrograph>& mics, const std::vector<std::string>& pictures, const Settings& s,
                           int boxsize, const std::string& suffix, double fixed, bool apply, const std::string& out) {
  // A run without a single pick has no cut-off to suggest: 0 would read as
  // a finding (keep everything).
  const bool any = std::any_of(mics.begin(), mics.end(), [](const Micrograph& m) { return !m.picks.empty(); });
  const double pooled = run_cutoff(mics, s), suggested = any ? pooled : NAN;
  const std::string failed = cut_run(mics, s, pooled, fixed, apply);
  if (!failed.empty()) return "cannot write " + failed;
  if (!out.empty()) {
    const std::string page = write_page(mics, pictures, s, suggested, out + "/index.html", apply_words(s, boxsize, suffix));
    if (!page.empty()) return "cannot write " + page;
    if (!write_summary_star(mics, out + "/summary.star")) return "cannot write " + out + "/summary.star";
  }
  if (any)
    printf("suggested --cc_cutoff %.4f\n", suggested);
  else
    printf("no micrograph has picks: no cut-off to suggest\n");
  if (!out.empty()) printf("report: %s/index.html\n", out.c_str());
  return "";
}

std::string apply_words(const Settings& s, int boxsize, const std::string& suffix) {
  char words[256];
  snprintf(words, sizeof words, "--apixM %g --diameter %g --boxsize %d", s.apix, s.diameter, boxsize);
  std::string all = words;
  if (suffix != "_vexmatch.star") all += " --suffix " + shell_word(suffix);
  return all;
}
