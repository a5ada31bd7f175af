// gvexreport: pictures of the picks over every micrograph, score histograms,
// warnings and an automatic cut-off, as one self-contained web page.
#include <sys/stat.h>

#include <csignal>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "report/cutoff.h"
#include "report/micrograph.h"
#include "report/page.h"

namespace {

const char* const kUsage =
    "Usage: gvexreport --out DIR [options] MICROGRAPH.mrc...\n"
    "\n"
    "Reads each micrograph and the picks gvexmatch wrote beside it (run gvexmatch with --cc_cutoff 0\n"
    "to keep every grid maximum), chooses a cross-correlation cut-off per micrograph and for the\n"
    "whole run, and writes DIR/index.html (one page: table, histograms, pictures), one PNG per\n"
    "micrograph and DIR/summary.star. Prints the warnings and 'suggested --cc_cutoff X'.\n"
    "\n"
    "Options:\n"
    "  --out DIR        folder for the report (made when missing)\n"
    "  --apixM A        micrograph pixel size, A (default 1.34; compared with the header's)\n"
    "  --diameter D     particle diameter, A (default 400, as gvexmatch)\n"
    "  --suffix S       picks file beside each micrograph (default _vexmatch.star; .box works too)\n"
    "  --boxsize B      box of the written .box picks from STAR picks (default from the diameter)\n"
    "  --apply          also write NAME_vexmatch_auto.box and .star beside each micrograph,\n"
    "                   keeping the picks at or above its cut-off\n"
    "  --help           this text\n";

[[noreturn]] void usage_error(const std::string& why) { gvex_throw("gvexreport: " + why + "\n" + kUsage, 2, true); }

double number(const char* opt, const char* v) {
  char* end = nullptr;
  errno = 0;
  const double d = strtod(v, &end);
  if (end == v || *end || errno || !(d > 0) || !std::isfinite(d))
    usage_error(std::string(opt) + " needs a positive number, not '" + v + "'");
  return d;
}

bool make_dir(const std::string& dir) {
  struct stat st;
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  return mkdir(dir.c_str(), 0777) == 0;
}

// The picture of micrograph k: its number and a short, plain form of its
// name, so that any micrograph name gives a file name the file system takes
// and a link no browser misreads.
std::string picture_name(size_t k, const std::string& mic) {
  const size_t s = mic.rfind('/');
  std::string stem = beside(s == std::string::npos ? mic : mic.substr(s + 1), "");
  std::string plain;
  for (char c : stem) plain += isalnum((unsigned char)c) || c == '-' || c == '_' || c == '.' ? c : '_';
  if (plain.size() > 60) plain.resize(60);
  return std::to_string(k + 1) + "_" + plain + ".png";
}

struct ReportOptions {
  double apix = 0, diameter = 0;
  bool apix_given = false, apply = false, help = false;
  std::string out, suffix = "_vexmatch.star";
  int boxsize = 0;
  std::vector<std::string> mics;
};

ReportOptions parse(int argc, char** argv) {
  ReportOptions o;
  const PickOptions defaults = pick_defaults();
  o.apix = defaults.apixM;
  o.diameter = defaults.diameter;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usage_error(a + " needs a value");
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      o.help = true;
      return o;
    } else if (a == "--out") {
      o.out = value();
    } else if (a == "--apixM") {
      o.apix = number("--apixM", value());
      o.apix_given = true;
    } else if (a == "--diameter") {
      o.diameter = number("--diameter", value());
    } else if (a == "--suffix") {
      o.suffix = value();
    } else if (a == "--boxsize") {
      o.boxsize = (int)number("--boxsize", value());
    } else if (a == "--apply") {
      o.apply = true;
    } else if (a.size() > 1 && a[0] == '-') {
      usage_error("unknown option " + a);
    } else if (a.find_first_of("\n\r") != std::string::npos) {
      usage_error("a micrograph name holds a line break, which the summary cannot carry");
    } else {
      o.mics.push_back(a);
    }
  }
  if (o.out.empty()) usage_error("--out DIR is required");
  if (o.mics.empty()) usage_error("no micrographs given");
  return o;
}

// A micrograph, the picks beside it and its rejected cells; a micrograph
// that cannot be read ends the report (its reader's lines name the file).
void read_inputs(Micrograph& m, const ReportOptions& o, int boxsize) {
  try {
    read_micrograph(m);
  } catch (const GvexFailure& f) {
    gvex_throw("gvexreport: cannot read micrograph " + m.name + ":\n" + f.text, 1, true);
  }
  const std::string picks_path = beside(m.name, o.suffix), rejected_path = beside(m.name, "_rejected.box");
  const PicksRead got = picks_read(picks_path, boxsize, m.picks);
  m.picks_found = got.opened;
  const PicksRead cells = rejected_read(rejected_path, m.rejected);
  for (const auto& [read, path] : {std::make_pair(got, picks_path), std::make_pair(cells, rejected_path)})
    if (read.refused > 0)
      m.warnings.push_back(std::to_string(read.refused) + " damaged line(s) of " + path + " skipped (the first is line " +
                           std::to_string(read.first_refused) + "): numbers not finite or out of range");
  double area = 0;
  for (const Cell& c : m.rejected) area += (double)c.w * c.h;
  m.masked = std::min(1.0, area / ((double)m.nx * m.ny));
}

// Each micrograph's cut-off and warnings, printed, and with --apply its
// kept picks written.
void choose_cutoffs(std::vector<Micrograph>& mics, const Settings& set, const ReportOptions& o, double pooled) {
  for (Micrograph& m : mics) {
    std::vector<double> s;
    for (const Pick& p : m.picks) s.push_back(p.score);
    m.cutoff = choose_cutoff(s, pooled).value;
    add_warnings(m, set);
    long kept = 0;
    for (const Pick& p : m.picks) kept += p.score >= m.cutoff;
    printf("%s: %zu picks, cut-off %.4f keeps %ld\n", m.name.c_str(), m.picks.size(), m.cutoff, kept);
    for (const std::string& w : m.warnings) printf("warning: %s: %s\n", m.name.c_str(), w.c_str());
    if (o.apply && m.picks_found) {
      const std::string failed = write_kept(m, beside(m.name, "_vexmatch_auto.box"), beside(m.name, "_vexmatch_auto.star"));
      if (!failed.empty()) gvex_throw("gvexreport: cannot write " + failed + "\n", 1, true);
    }
  }
}

void write_report(const std::vector<Micrograph>& mics, const Settings& set, const std::string& out, double pooled) {
  std::vector<std::string> pictures;
  for (size_t k = 0; k < mics.size(); k++) {
    pictures.push_back(picture_name(k, mics[k].name));
    if (!write_picture(mics[k], set, out + "/" + pictures.back()))
      gvex_throw("gvexreport: cannot write " + out + "/" + pictures.back() + "\n", 1, true);
  }
  if (!write_page(mics, pictures, pooled, out + "/index.html") || !write_summary_star(mics, out + "/summary.star"))
    gvex_throw("gvexreport: cannot write the report into " + out + "\n", 1, true);
}

int run(int argc, char** argv) {
  const ReportOptions o = parse(argc, argv);
  if (o.help) {
    fputs(kUsage, stdout);
    return 0;
  }
  const Settings set = report_settings(o.apix, o.diameter, o.apix_given);
  const int boxsize = o.boxsize > 0 ? o.boxsize : set.pick.opt.boxsize;
  if (!make_dir(o.out))
    gvex_throw("gvexreport: cannot make the report folder " + o.out + ": " + strerror(errno) + "\n", 1, true);
  std::vector<Micrograph> mics(o.mics.size());
  std::vector<double> pooled_scores;
  for (size_t k = 0; k < mics.size(); k++) {
    mics[k].name = o.mics[k];
    read_inputs(mics[k], o, boxsize);
    for (const Pick& p : mics[k].picks) pooled_scores.push_back(p.score);
  }
  const Cutoff pooled = pooled_cutoff(pooled_scores);
  choose_cutoffs(mics, set, o, pooled.value);
  write_report(mics, set, o.out, pooled.value);
  printf("suggested --cc_cutoff %.4f\n", pooled.value);
  printf("report: %s/index.html\n", o.out.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // A file-size limit fails the write that meets it (and says so) instead
  // of killing the program with a partial file left.
  signal(SIGXFSZ, SIG_IGN);
  return gvex_run_main([&] { return run(argc, argv); });
}
