#include "relion/mic_input.h"

#include <glob.h>

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "common/regular_file.h"
#include "common/strutil.h"
#include "io/star_table.h"

namespace {

double positive(const std::string& v) {
  char* end = nullptr;
  const double d = strtod(v.c_str(), &end);
  return end != v.c_str() && !*end && d > 0 && d < 1e6 ? d : 0;
}

const StarTable* block(const std::vector<StarTable>& blocks, const std::string& name) {
  for (const StarTable& t : blocks)
    if (t.name == name) return &t;
  return nullptr;
}

// RELION 3.1 to 5: the pixel size of each micrograph comes from its optics
// group; a group given twice would leave it unclear which.
bool from_optics(const StarTable& mics, const StarTable* optics, std::vector<MicEntry>& out, std::string& why) {
  std::map<std::string, double> apix_of;
  const int g = optics ? optics->column("rlnOpticsGroup") : -1;
  const int a = optics ? optics->column("rlnMicrographPixelSize") : -1;
  if (g >= 0 && a >= 0)
    for (const auto& row : optics->rows)
      if (!apix_of.emplace(row[g], positive(row[a])).second)
        return why = "optics group " + row[g] + " is given twice in data_optics", false;
  const int name = mics.column("rlnMicrographName"), group = mics.column("rlnOpticsGroup");
  for (const auto& row : mics.rows) {
    MicEntry e;
    e.name = row[name];
    if (group >= 0 && apix_of.count(row[group])) e.apix = apix_of[row[group]];
    else if (group < 0 && apix_of.size() == 1) e.apix = apix_of.begin()->second;
    out.push_back(e);
  }
  return true;
}

// RELION 3.0: one table; the pixel size, when given, is detector pixel (um)
// over magnification.
void from_one_table(const StarTable& t, std::vector<MicEntry>& out) {
  const int name = t.column("rlnMicrographName"), det = t.column("rlnDetectorPixelSize"),
            mag = t.column("rlnMagnification");
  for (const auto& row : t.rows) {
    MicEntry e;
    e.name = row[name];
    if (det >= 0 && mag >= 0 && positive(row[mag]) > 0) e.apix = positive(row[det]) * 1e4 / positive(row[mag]);
    out.push_back(e);
  }
}

bool from_list(const std::string& path, std::vector<MicEntry>& out, std::string& why) {
  std::string text;
  const char* kind = "";
  if (!gvex_read_regular(path, text, &kind))
    return why = "cannot read the micrograph list " + path + (*kind ? std::string(": it is ") + kind : ""), false;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::istringstream ws(line);
    std::string w;
    if (ws >> w && w[0] != '#') out.push_back(MicEntry{w, 0});
  }
  return true;
}

void from_glob(const std::string& pattern, std::vector<MicEntry>& out) {
  glob_t g{};
  if (glob(pattern.c_str(), 0, nullptr, &g) == 0)  // sorted; no match is no micrograph (yet)
    for (size_t i = 0; i < g.gl_pathc; i++) out.push_back(MicEntry{g.gl_pathv[i], 0});
  globfree(&g);
}

}  // namespace

bool mics_from_star(const std::string& text, std::vector<MicEntry>& mics, std::string& why) {
  std::vector<StarTable> blocks;
  if (!star_parse(text, blocks, why)) return false;
  const StarTable* m = block(blocks, "micrographs");
  if (m && m->loop && m->column("rlnMicrographName") >= 0) {
    return from_optics(*m, block(blocks, "optics"), mics, why);
  }
  for (const StarTable& t : blocks)
    if (t.loop && t.column("rlnMicrographName") >= 0) {
      from_one_table(t, mics);
      return true;
    }
  why = "no table with a _rlnMicrographName column: not a micrographs STAR file";
  return false;
}

bool read_mic_input(const std::vector<std::string>& inputs, MicInput& out, std::string& why) {
  std::vector<MicEntry> all;
  for (const std::string& in : inputs) {
    if (ends_with(in, ".star")) {
      std::string text;
      const char* kind = "";
      if (!gvex_read_regular(in, text, &kind))
        return why = "cannot read the micrographs STAR file " + in + (*kind ? std::string(": it is ") + kind : ""),
               false;
      if (!mics_from_star(text, all, why)) return why = in + ": " + why, false;
      if (out.star.empty()) out.star = in;
    } else if (in.find_first_of("*?[") != std::string::npos) {
      from_glob(in, all);
    } else if (ends_with(in, ".mrc") || ends_with(in, ".mrcs")) {
      all.push_back(MicEntry{in, 0});
    } else if (!from_list(in, all, why)) {
      return false;
    }
  }
  std::set<std::string> seen;
  for (const MicEntry& e : all)
    if (seen.insert(e.name).second) out.mics.push_back(e);
  return true;
}
