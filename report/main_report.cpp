// gvexreport: pictures of the picks over every micrograph, score histograms,
// warnings and an automatic cut-off, as one self-contained web page.
#include <sys/stat.h>

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

std::string base_name(const std::string& p) {
  const size_t s = p.rfind('/');
  return s == std::string::npos ? p : p.substr(s + 1);
}

int run(int argc, char** argv) {
  const PickOptions defaults = pick_defaults();
  double apix = defaults.apixM, diameter = defaults.diameter;
  bool apix_given = false;
  std::string out, suffix = "_vexmatch.star";
  int boxsize = 0;
  bool apply = false;
  std::vector<Micrograph> mics;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usage_error(a + " needs a value");
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--out") {
      out = value();
    } else if (a == "--apixM") {
      apix = number("--apixM", value());
      apix_given = true;
    } else if (a == "--diameter") {
      diameter = number("--diameter", value());
    } else if (a == "--suffix") {
      suffix = value();
    } else if (a == "--boxsize") {
      boxsize = (int)number("--boxsize", value());
    } else if (a == "--apply") {
      apply = true;
    } else if (a.size() > 1 && a[0] == '-') {
      usage_error("unknown option " + a);
    } else {
      mics.emplace_back();
      mics.back().name = a;
    }
  }
  if (out.empty()) usage_error("--out DIR is required");
  if (mics.empty()) usage_error("no micrographs given");
  const Settings set = report_settings(apix, diameter, apix_given);
  if (boxsize <= 0) boxsize = set.pick.opt.boxsize;
  if (!make_dir(out)) {
    fprintf(stderr, "gvexreport: cannot make the report folder %s: %s\n", out.c_str(), strerror(errno));
    return 1;
  }

  std::vector<double> pooled_scores;
  for (Micrograph& m : mics) {
    try {
      read_micrograph(m);
    } catch (const GvexFailure& f) {
      // The reader's own lines name the file; say which program stopped.
      fprintf(stderr, "gvexreport: cannot read micrograph %s:\n%s", m.name.c_str(), f.text.c_str());
      return 1;
    }
    const std::string picks_path = beside(m.name, suffix), rejected_path = beside(m.name, "_rejected.box");
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
    for (const Pick& p : m.picks) pooled_scores.push_back(p.score);
  }
  const Cutoff pooled = pooled_cutoff(pooled_scores);
  for (Micrograph& m : mics) {
    std::vector<double> s;
    for (const Pick& p : m.picks) s.push_back(p.score);
    m.cutoff = choose_cutoff(s, pooled.value).value;
    add_warnings(m, set);
    long kept = 0;
    for (const Pick& p : m.picks) kept += p.score >= m.cutoff;
    printf("%s: %zu picks, cut-off %.4f keeps %ld\n", m.name.c_str(), m.picks.size(), m.cutoff, kept);
    for (const std::string& w : m.warnings) printf("warning: %s: %s\n", m.name.c_str(), w.c_str());
    if (apply && m.picks_found &&
        !write_kept(m, beside(m.name, "_vexmatch_auto.box"), beside(m.name, "_vexmatch_auto.star"))) {
      fprintf(stderr, "gvexreport: cannot write %s\n", beside(m.name, "_vexmatch_auto.box").c_str());
      return 1;
    }
  }
  std::vector<std::string> pictures;
  for (size_t k = 0; k < mics.size(); k++) {
    pictures.push_back(std::to_string(k + 1) + "_" + base_name(beside(mics[k].name, ".png")));
    if (!write_picture(mics[k], set, out + "/" + pictures.back())) {
      fprintf(stderr, "gvexreport: cannot write %s/%s\n", out.c_str(), pictures.back().c_str());
      return 1;
    }
  }
  if (!write_page(mics, pictures, pooled.value, out + "/index.html") ||
      !write_summary_star(mics, out + "/summary.star")) {
    fprintf(stderr, "gvexreport: cannot write the report into %s\n", out.c_str());
    return 1;
  }
  printf("suggested --cc_cutoff %.4f\n", pooled.value);
  printf("report: %s/index.html\n", out.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return gvex_run_main([&] { return run(argc, argv); }); }
