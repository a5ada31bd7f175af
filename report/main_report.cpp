// gvexreport: a cut-off per micrograph, from decoys when it picks the
// micrographs itself, with pictures of the picks over every micrograph,
// score histograms and warnings, as one self-contained web page.
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "common/atomic_file.h"
#include "common/redirect.h"
#include "common/regular_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "io/star_table.h"
#include "picker/options.h"
#include "picker/params.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"
#include "report/micrograph.h"
#include "report/run.h"

namespace {

const char* const kUsage =
    "Usage: gvexreport --out DIR [--apply] [--cutoff X] [options] MICROGRAPH.mrc...\n"
    "       gvexreport --out DIR --pick [--apply] [--cutoff X] [gvexmatch options] MICROGRAPH.mrc...\n"
    "\n"
    "Chooses a cross-correlation cut-off per micrograph and writes DIR/index.html (a table,\n"
    "histograms, and per micrograph why its cut-off was chosen, pictures and a cut-off slider; past\n"
    "100 micrographs the micrographs go on in DIR/page-2.html, page-3.html, ...), the pictures and\n"
    "DIR/summary.star. Prints each micrograph's cut-off and why, the warnings and 'suggested\n"
    "--cc_cutoff X' for the whole run.\n"
    "\n"
    "With --pick, gvexreport picks the micrographs itself with gvexmatch's options and --cc_cutoff 0,\n"
    "writing gvexmatch's files beside each micrograph (its transcript goes to DIR/pick.log). The same\n"
    "scan gives decoys: the picks of the same templates with their contrast inverted, which match no\n"
    "particle and show how noise and the specimen's edges score on each micrograph; the cut-off comes\n"
    "from them, and on a sparse micrograph the picks on strong edges (carbon or contamination the\n"
    "rejected cells missed) are left out; a fixed --cutoff keeps them. The decoys are written beside\n"
    "each micrograph (NAME_vexmatch_decoys.star). Without --pick it reads the picks gvexmatch wrote\n"
    "beside each micrograph (run it with --cc_cutoff 0 to keep every grid maximum) and the decoys\n"
    "--pick wrote; without decoys the cut-off is less reliable. Picks already cut (the STAR files\n"
    "gvexreport writes record their cut-off) are kept as cut.\n"
    "\n"
    "Options:\n"
    "  --out DIR        folder for the report (made when missing); may be left out with --apply\n"
    "  --pick           pick first, with decoys; words gvexreport does not know go to gvexmatch\n"
    "                   (gvexmatch --help lists them; --cc_cutoff is always 0)\n"
    "  --apply          also write NAME_vexmatch_auto.box and .star beside each micrograph, keeping\n"
    "                   the picks at or above its cut-off less those left out on edges (the STAR\n"
    "                   file records the cut-off)\n"
    "  --cutoff X       one fixed cut-off for every micrograph instead of the automatic ones (the\n"
    "                   page's slider prints the command for the cut-off it is set to)\n"
    "  --apixM A        micrograph pixel size, A (default 1.34; compared with the header's)\n"
    "  --diameter D     particle diameter, A (default 400, as gvexmatch)\n"
    "  --suffix S       picks file beside each micrograph (default _vexmatch.star; .box works too);\n"
    "                   not with --pick\n"
    "  --boxsize B      box of the written .box picks from STAR picks (default from the diameter)\n"
    "  --help           this text\n"
    "\n"
    "Exit status: 0 on success; 1 when a micrograph cannot be read or picked (it is named and left\n"
    "out, and the others are cut and reported) or a file cannot be written; 2 for a wrong command line.\n";

[[noreturn]] void usage_error(const std::string& why) { gvex_throw("gvexreport: " + why + "\n" + kUsage, 2, true); }

double number(const char* opt, const char* v, bool positive = true) {
  char* end = nullptr;
  errno = 0;
  const double d = strtod(v, &end);
  // Decimal only: strtod would also take "0x10" for 16.
  if (end == v || *end || errno || !std::isfinite(d) || (positive && !(d > 0)) ||
      strspn(v, "0123456789+-.eE") != strlen(v))
    usage_error(std::string(opt) + " needs a " + (positive ? "positive " : "") + "number, not '" + v + "'");
  return d;
}

// A particle wider than this many pixels is a slip of units: no micrograph
// holds one, and its box would no longer fit the picks files' columns.
constexpr double kMostParticlePixels = 1e6;

void check_particle(double diameter, double apix, long boxsize) {
  char why[200];
  if (diameter / apix > kMostParticlePixels)
    snprintf(why, sizeof why, "--diameter %g A at --apixM %g A is a particle of %.3g pixels, wider than any micrograph",
             diameter, apix, diameter / apix);
  else if (boxsize > kMostParticlePixels)
    snprintf(why, sizeof why, "a box of %ld pixels is wider than any micrograph", boxsize);
  else
    return;
  usage_error(why);
}

// A name the summary's STAR table cannot carry.
void check_name(const std::string& a) {
  if (a.find_first_of("\n\r") != std::string::npos)
    usage_error("a micrograph name holds a line break, which the summary cannot carry");
  std::string quoted;
  if (!star_quote(a, quoted))
    usage_error("the micrograph name " + a + " holds both kinds of quote, which the summary cannot carry");
}

// Two names of one micrograph would read and write the same picks files and
// count its picks twice in the run's cut.
void check_distinct(const std::vector<std::string>& names) {
  std::map<std::string, std::string> seen;
  for (const std::string& n : names) {
    const auto [it, fresh] = seen.emplace(gvex_place_of(n), n);
    if (!fresh) usage_error(it->second + " and " + n + " name the same micrograph");
  }
}

struct ReportOptions {
  double apix = 0, diameter = 0, fixed = NAN;
  bool apix_given = false, apply = false, help = false, pick = false;
  std::string out, suffix = "_vexmatch.star";
  int boxsize = 0;
  std::vector<std::string> mics;
  std::vector<std::string> picker_words;  // --pick: gvexmatch's options and the micrographs
};

ReportOptions parse(int argc, char** argv) {
  ReportOptions o;
  const PickOptions defaults = pick_defaults();
  o.apix = defaults.apixM;
  o.diameter = defaults.diameter;
  for (int i = 1; i < argc; i++) o.pick = o.pick || std::string(argv[i]) == "--pick";
  bool suffix_given = false;
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
      // "--out --pick": the folder was left out, and the next option would be eaten as its name.
      if (starts_with(o.out, "--")) usage_error("--out needs a folder, not the option " + o.out);
    } else if (a == "--pick") {
    } else if (a == "--apply") {
      o.apply = true;
    } else if (a == "--cutoff") {
      o.fixed = number("--cutoff", value(), false);
    } else if (a == "--suffix") {
      o.suffix = value();
      suffix_given = true;
    } else if (o.pick) {
      const OptionRow* row = gvex_find_option(a.c_str());
      if (row && std::string(row->name) == "cc_cutoff")
        usage_error("--pick keeps every grid maximum (--cc_cutoff 0) and chooses the cut-off itself; "
                    "--cutoff X fixes one");
      if (row && std::string(row->name) == "apixM") o.apix_given = true;
      check_name(a);
      o.picker_words.push_back(a);
    } else if (a == "--apixM") {
      o.apix = number("--apixM", value());
      o.apix_given = true;
    } else if (a == "--diameter") {
      o.diameter = number("--diameter", value());
    } else if (a == "--boxsize") {
      const char* v = value();
      const double box = number("--boxsize", v);
      if (box != std::floor(box) || box > kMostParticlePixels)
        usage_error("--boxsize needs a whole number of pixels up to 1000000, not '" + std::string(v) + "'");
      o.boxsize = (int)box;
    } else if (a.size() > 1 && a[0] == '-') {
      usage_error("unknown option " + a);
    } else {
      check_name(a);
      o.mics.push_back(a);
    }
  }
  if (o.pick && suffix_given) usage_error("--suffix reads picks made before; --pick makes its own");
  if (o.out.empty() && (o.pick || !o.apply)) usage_error("--out DIR is required" + std::string(o.pick ? " with --pick" : ""));
  if (!o.pick && o.mics.empty()) usage_error("no micrographs given");
  if (o.pick && o.picker_words.empty()) usage_error("no micrographs given");
  if (!o.pick) check_particle(o.diameter, o.apix, o.boxsize);
  check_distinct(o.mics);
  return o;
}

// The picture files, written as soon as a micrograph is read.
void picture(Micrograph& m, size_t k, const Settings& set, const std::string& out, std::vector<std::string>& pictures) {
  const std::string name = write_pictures(m, k, set, out);
  if (name.empty())
    gvex_throw("gvexreport: cannot write " + out + "/" + picture_name(k, m.name) + " (or the crop beside it)\n", 1,
               true);
  pictures.push_back(name);
}

struct Run {
  Settings set;
  int boxsize = 0;
  std::string suffix;  // the picks files a later --apply reads
  std::vector<Micrograph> mics;  // those read or picked, in the command line's order
  std::vector<std::string> pictures;
  int left_out = 0;  // micrographs that could not be read or picked
};

// A micrograph that cannot be read or picked is named and left out; the
// others are cut and reported, and the run ends with status 1 (as over MPI:
// one damaged file in a long collection must not cost the rest).
void leave_out(Run& run, const std::string& why) {
  fflush(stdout);
  fputs(why.c_str(), stderr);
  run.left_out++;
}

void read_run(const ReportOptions& o, Run& run) {
  run.set = report_settings(o.apix, o.diameter, o.apix_given);
  run.boxsize = o.boxsize > 0 ? o.boxsize : run.set.pick.opt.boxsize;
  run.suffix = o.suffix;
  for (size_t k = 0; k < o.mics.size(); k++) {
    Micrograph m;
    m.name = o.mics[k];
    try {
      read_inputs(m, o.suffix, run.boxsize, run.set, "gvexreport");
    } catch (const GvexFailure& f) {
      leave_out(run, f.text);
      continue;
    }
    picture(m, k, run.set, o.out, run.pictures);
    run.mics.push_back(std::move(m));
  }
}

// Micrograph k of a --pick run (next: the one after it, read ahead), into
// the run; gvexmatch's lines to log, which is DIR/pick.log.
void pick_one(PickSession& session, const std::string& name, const std::string& next, size_t k,
              const std::string& out, FILE* log, Run& run) {
  Micrograph m;
  m.name = name;
  PickResult r;
  const double t0 = gvex_wall_seconds();
  {
    StdoutRedirect to_log(log);
    r = session.pick(m.name, next);
  }
  if (r.outcome == PickResult::Outcome::failed)
    return leave_out(run, "gvexreport: cannot pick " + m.name + " (gvexmatch's lines are in " + out + "/pick.log): " +
                              gvex_failure_line(r.failure.text) + "\n");
  if (r.outcome == PickResult::Outcome::skipped) {
    try {
      read_inputs(m, run.suffix, run.boxsize, run.set, "gvexreport");
    } catch (const GvexFailure& f) {
      return leave_out(run, f.text);
    }
    printf("%s: picked before (--do_unfinished): its picks file is read, %s\n", m.name.c_str(),
           m.decoys_found ? "and its decoys file" : "without decoys");
  } else {
    take_picked(m, r, run.set);
    printf("%s: picked, %zu picks and %zu decoys (%.1f s)\n", m.name.c_str(), m.picks.size(), m.decoys.size(),
           gvex_wall_seconds() - t0);
  }
  fflush(stdout);
  picture(m, k, run.set, out, run.pictures);
  run.mics.push_back(std::move(m));
}

// --pick: one picking session over the micrographs, gvexmatch's lines in
// DIR/pick.log, ours on standard output.
void pick_run(const ReportOptions& o, const char* prog, Run& run) {
  const std::string log_path = o.out + "/pick.log";
  OwnedFile log(gvex_create_new(log_path.c_str(), "w"));
  if (!log) gvex_throw("gvexreport: cannot write " + log_path + ": " + strerror(errno) + "\n", 1, true);
  std::vector<std::string> words = {prog, "--cc_cutoff", "0"};
  words.insert(words.end(), o.picker_words.begin(), o.picker_words.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  ParaPtr p(nullptr, gvexmatch_delete_parameters);
  Reference ref;
  PickOptions opt;
  try {
    StdoutRedirect to_log(log.get());
    gvex_timer_push();
    p = gvexmatch_start((int)words.size(), argv.data(), [](int& gid) { return check_and_set_gid(gid) == 0; });
    fputs(gvex_device_activate(p->gid), stdout);
    // A damaged micrograph is left out at its turn; the next one serves.
    ref = gvexmatch_reference(*p, prog, true);
    opt = options_from_record(*p);
  } catch (const GvexFailure& f) {
    // gvexmatch calls an unknown option no error (status 0); here it is one.
    gvex_throw("gvexreport: picking could not start (gvexmatch's lines are in " + log_path + "):\n" + f.text,
               f.status == 0 ? 2 : f.status, true);
  }
  opt.decoys = true;
  opt.keep_pixels = true;
  const PickSettings settings = derive(opt);
  check_particle(opt.diameter, opt.apixM, settings.opt.boxsize);
  check_distinct(std::vector<std::string>(p->mic_files, p->mic_files + p->n_mic));
  run.set = report_settings(opt.apixM, opt.diameter, o.apix_given);
  run.set.pick = settings;
  run.boxsize = settings.opt.boxsize;
  run.suffix = opt.write_star ? "_vexmatch.star" : "_vexmatch.box";
  PickSession session(settings);
  commit_decoys(session, run.suffix);
  try {
    StdoutRedirect to_log(log.get());
    session.prepare(ref.head, ref.name, 1, p->mic_files[0]);
  } catch (const GvexFailure& f) {
    gvex_throw("gvexreport: cannot prepare the picking (gvexmatch's lines are in " + log_path + "):\n" + f.text,
               f.status, true);
  }
  check_templates(session, settings, "gvexreport", true);
  for (int i = 0; i < p->n_mic; i++)
    pick_one(session, p->mic_files[i], i + 1 < p->n_mic ? p->mic_files[i + 1] : "", (size_t)i, o.out, log.get(), run);
}

int run(int argc, char** argv) {
  const ReportOptions o = parse(argc, argv);
  if (o.help) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (!o.out.empty() && !make_dir(o.out))
    gvex_throw("gvexreport: cannot make the report folder " + o.out + ": " + strerror(errno) + "\n", 1, true);
  Run run;
  if (o.pick)
    pick_run(o, argv[0], run);
  else
    read_run(o, run);
  // A cut-off chosen from nothing would read as a finding.
  if (run.mics.empty()) {
    printf("no micrograph was %s: no cut-off to suggest%s\n", o.pick ? "picked" : "read",
           o.out.empty() ? "" : ", and no page written");
    return 1;
  }
  const bool decoys = std::all_of(run.mics.begin(), run.mics.end(), decoys_for_all);
  if (!decoys && !std::isfinite(o.fixed))
    printf("note: without decoys these cut-offs come from the scores alone and are less reliable; gvexreport --pick "
           "picks with decoys (the same templates with their contrast inverted, from the same scan) and chooses "
           "from them\n");
  const std::string failed =
      cut_and_report(run.mics, run.pictures, run.set, run.boxsize, run.suffix, o.fixed, o.apply, o.out);
  if (!failed.empty()) gvex_throw("gvexreport: " + failed + "\n", 1, true);
  if (run.left_out > 0)
    fprintf(stderr, "gvexreport: %d of %zu micrographs could not be %s and were left out\n", run.left_out,
            run.mics.size() + run.left_out, o.pick ? "picked" : "read");
  return run.left_out > 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // A file-size limit fails the write that meets it (and says so) instead
  // of killing the program with a partial file left.
  signal(SIGXFSZ, SIG_IGN);
  return gvex_run_main([&] { return run(argc, argv); });
}
