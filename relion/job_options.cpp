#include "relion/job_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "common/strutil.h"

namespace {

// One row per word the program takes: its name, the value it wants ("" for
// a flag) and the help line. The refusal of an unknown word lists these.
struct Word {
  const char* name;
  const char* value;
  const char* help;
};

const Word kWords[] = {
    {"o", "DIR", "job folder; RELION gives External/jobNNN/ (required)"},
    {"in_mics", "FILE", "micrographs: a STAR file of RELION 3.0 to 5, a list of names, or a quoted glob"},
    {"j", "N", "threads (RELION's \"Number of threads\"); default every core"},
    {"diameter", "A", "particle diameter in Angstrom (required)"},
    {"templates", "FILE", ".mrcs stack of templates, e.g. selected 2D class averages (default: a disc)"},
    {"apix_templates", "A", "pixel size of the templates (default: the micrographs')"},
    {"angle_step", "DEG", "in-plane angle step of the templates (default 5)"},
    {"speed", "0-4", "shrink of the micrographs before picking, 0 slowest (default 2)"},
    {"cutoff", "auto|recent|run|X",
     "recent (default): each micrograph cut as it is picked, as one run with the (up to) 63\n"
     "                        micrographs picked before it; auto: from its own picks alone; run: all\n"
     "                        cut again together, as gvexreport --pick cuts one run (the files of micrographs\n"
     "                        picked before change as the job grows); X: keep scores >= X"},
    {"gpu", "ID", "GPU to pick on (RELION's \"0\" or \"0:1\": the first is used); empty or none: the best one"},
    {"extract_box", "PX", "leave out picks whose box of PX pixels would cross the micrograph's edge"},
    {"apix", "A", "pixel size of the micrographs, over what the input says"},
    {"voltage", "KV", "with a glob or list: the voltage its micrographs.star gives (default 300)"},
    {"cs", "MM", "with a glob or list: the spherical aberration likewise (default 2.7)"},
    {"q0", "F", "with a glob or list: the amplitude contrast likewise (default 0.1)"},
    {"follow", "", "keep watching the input and pick each new micrograph once it holds still"},
    {"follow_idle", "S", "with --follow: end after S seconds without a new micrograph (0: never)"},
    {"settle", "S", "a micrograph is picked once unchanged for S seconds (default 3)"},
    {"help", "", "this text"},
};

const Word* find_word(const std::string& name) {
  for (const Word& w : kWords)
    if (name == w.name) return &w;
  return nullptr;
}

std::string known_words() {
  std::string s;
  for (const Word& w : kWords) s += (s.empty() ? "--" : ", --") + std::string(w.name);
  return s;
}

bool number(const std::string& word, const std::string& v, double lo, double hi, double& out, std::string& why) {
  char* end = nullptr;
  errno = 0;
  const double d = strtod(v.c_str(), &end);
  if (v.empty() || *end || errno || !std::isfinite(d) || d < lo || d > hi) {
    char range[96];
    snprintf(range, sizeof range, "a number from %g to %g", lo, hi);
    why = "--" + word + " needs " + range + ", not '" + v + "'";
    return false;
  }
  out = d;
  return true;
}

bool whole(const std::string& word, const std::string& v, double lo, double hi, int& out, std::string& why) {
  double d = 0;
  if (!number(word, v, lo, hi, d, why)) return false;
  if (d != std::floor(d)) {
    why = "--" + word + " needs a whole number, not '" + v + "'";
    return false;
  }
  out = (int)d;
  return true;
}

bool is_yes(const std::string& v) { return v == "yes" || v == "Yes" || v == "true" || v == "1"; }
bool is_no(const std::string& v) { return v == "no" || v == "No" || v == "false" || v == "0"; }

bool take(const std::string& name, const std::string& v, JobOptions& o, std::string& why) {
  if (name == "o") {
    if (v.empty()) return why = "--o needs a folder", false;
    o.out = v.back() == '/' ? v : v + "/";
  } else if (name == "in_mics") {
    if (v.empty()) return why = "--in_mics needs a file", false;
    o.inputs.push_back(v);
  } else if (name == "j") {
    return whole(name, v, 1, 4096, o.threads, why);
  } else if (name == "diameter") {
    return number(name, v, 1, 1e5, o.diameter, why);
  } else if (name == "templates") {
    o.templates = v;
  } else if (name == "apix_templates") {
    return number(name, v, 0.01, 1000, o.apix_templates, why);
  } else if (name == "angle_step") {
    return number(name, v, 0.1, 360, o.angle_step, why);
  } else if (name == "speed") {
    return whole(name, v, 0, 4, o.speed, why);
  } else if (name == "cutoff") {
    o.cut = v == "auto" ? JobCut::kAlone : v == "recent" ? JobCut::kRecent : v == "run" ? JobCut::kRun : JobCut::kGiven;
    if (o.cut == JobCut::kGiven && !number(name, v, -1e6, 1e6, o.cutoff, why))
      return why += " (or auto, recent or run)", false;
  } else if (name == "gpu") {
    // RELION's GPU field: "", "0", "0:1", "0,1"; one process uses the first.
    const std::string first = v.substr(0, v.find_first_of(":,"));
    o.gpu = -1;
    if (!first.empty() && !whole(name, first, 0, 1023, o.gpu, why)) return false;
  } else if (name == "extract_box") {
    return whole(name, v, 0, 1e6, o.extract_box, why);
  } else if (name == "apix") {
    return number(name, v, 0.01, 1000, o.apix, why);
  } else if (name == "voltage") {
    return number(name, v, 1, 3000, o.voltage, why);
  } else if (name == "cs") {
    return number(name, v, 0, 100, o.cs, why);
  } else if (name == "q0") {
    return number(name, v, 0, 1, o.q0, why);
  } else if (name == "follow_idle") {
    return number(name, v, 0, 1e9, o.follow_idle, why);
  } else if (name == "settle") {
    return number(name, v, 0, 3600, o.settle, why);
  } else if (name == "follow") {
    if (!v.empty() && !is_yes(v) && !is_no(v)) return why = "--follow takes no value, or yes/no, not '" + v + "'", false;
    o.follow = !is_no(v);
  } else if (name == "help") {
    o.help = true;
  }
  return true;
}

}  // namespace

bool parse_job_options(const std::vector<std::string>& words, JobOptions& o, std::string& why) {
  for (size_t i = 0; i < words.size(); i++) {
    const std::string& a = words[i];
    if (a == "-h") {
      o.help = true;
      continue;
    }
    if (!starts_with(a, "--")) {
      if (!a.empty() && a[0] == '-') return why = "unknown option " + a + "; known: " + known_words(), false;
      o.inputs.push_back(a);  // a micrograph or a list given by hand
      continue;
    }
    std::string name = a.substr(2), value;
    bool inline_value = false;
    const size_t eq = name.find('=');
    if (eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      inline_value = true;
    }
    const Word* w = find_word(name);
    if (!w) return why = "unknown parameter --" + name + "; known: " + known_words(), false;
    // A value is the next word unless that is the next label: RELION writes
    // "--LABEL VALUE" with an empty VALUE as "--LABEL" alone. --follow takes
    // only yes/no, so that a micrograph name after it stays a name.
    const bool flag = !*w->value;
    const bool next_free = i + 1 < words.size() && !starts_with(words[i + 1], "--");
    if (!inline_value && next_free &&
        (!flag || (name == "follow" && (is_yes(words[i + 1]) || is_no(words[i + 1])))))
      value = words[++i];
    else if (!inline_value && !flag && name != "gpu")  // RELION's empty GPU field: the default
      return why = "--" + name + " needs a value (" + w->value + ")", false;
    if (!take(name, value, o, why)) return false;
  }
  if (o.help) return true;
  if (o.out.empty()) return why = "no job folder: give --o DIR (RELION gives External/jobNNN/)", false;
  if (o.inputs.empty()) return why = "no micrographs: give --in_mics FILE", false;
  if (o.diameter <= 0) return why = "no particle diameter: give --diameter A (in Angstrom)", false;
  if (o.follow_idle > 0 && !o.follow) return why = "--follow_idle needs --follow", false;
  return true;
}

std::string job_usage(const char* prog) {
  std::string s = std::string("Usage: ") + prog +
                  " --o DIR --in_mics FILE --diameter A [options]\n"
                  "\n"
                  "Picks particles in the micrographs of a RELION project as an External job (RELION 3.1 to 5):\n"
                  "per micrograph a coordinate file DIR/<name>_autopick.star, the node files RELION reads\n"
                  "(coords_suffix_autopick.star, autopick.star, RELION_OUTPUT_NODES.star), a report\n"
                  "(DIR/index.html) and DIR/summary.star. Run again with the same --o to pick only the new\n"
                  "micrographs. Micrographs of MRC modes 0, 1, 2, 6 and 12 (float16) are read.\n"
                  "\nOptions (as External-job parameters: label without the dashes, and its value):\n";
  for (const Word& w : kWords) {
    std::string left = std::string("  --") + w.name + (*w.value ? std::string(" ") + w.value : "");
    left.resize(std::max<size_t>(left.size() + 1, 24), ' ');
    s += left + w.help + "\n";
  }
  s += "\nWith --follow it ends when DIR/RELION_JOB_ABORT_NOW appears (RELION's abort), when DIR/STOP\n"
       "appears (a normal end), or after --follow_idle seconds without a new micrograph.\n"
       "\nExit status: 0 success (RELION_JOB_EXIT_SUCCESS), 1 failure (RELION_JOB_EXIT_FAILURE),\n"
       "2 a wrong command line (RELION_JOB_EXIT_FAILURE when the folder of --o exists), 3 aborted\n"
       "(RELION_JOB_EXIT_ABORTED).\n";
  return s;
}

std::vector<std::pair<std::string, std::string>> picking_settings(const JobOptions& o) {
  char b[64];
  auto num = [&](double v) {
    snprintf(b, sizeof b, "%.9g", v);
    return std::string(b);
  };
  return {{"diameter", num(o.diameter)},
          {"templates", o.templates.empty() ? "disc" : o.templates},
          {"apix_templates", num(o.apix_templates)},
          {"angle_step", num(o.angle_step)},
          {"speed", std::to_string(o.speed)},
          {"cutoff", o.cut == JobCut::kAlone    ? "auto"
                     : o.cut == JobCut::kRecent ? "recent"
                     : o.cut == JobCut::kRun    ? "run"
                                                : num(o.cutoff)},
          {"extract_box", std::to_string(o.extract_box)},
          {"apix", num(o.apix)}};
}
