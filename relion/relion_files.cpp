#include "relion/relion_files.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sstream>

#include "common/atomic_file.h"
#include "common/regular_file.h"
#include "io/star_table.h"

namespace {

// "jobNNN": RELION's job folders start so.
bool job_folder_at(const std::string& s, size_t i) {
  return s.compare(i, 3, "job") == 0 && i + 6 <= s.size() && isdigit((unsigned char)s[i + 3]) &&
         isdigit((unsigned char)s[i + 4]) && isdigit((unsigned char)s[i + 5]);
}

std::string after_job_folder(const std::string& s, size_t i) {
  const size_t slash = s.find('/', i + 6);
  return slash == std::string::npos ? "" : s.substr(slash + 1);
}

std::string fmt(const char* f, double v) {
  char b[64];
  snprintf(b, sizeof b, f, v);
  return b;
}

bool write_table(const std::string& path, const std::string& head, const StarTable& t) {
  PartFile f(path.c_str(), "w");
  return f.fp() && fputs(head.c_str(), f.fp()) >= 0 && star_write(f.fp(), t) && f.commit();
}

}  // namespace

std::string relion_post_name(const std::string& mic) {
  // A job folder below the top one is looked for first, then the top one
  // itself, as RELION does.
  for (size_t slash = mic.find('/', 1); slash != std::string::npos; slash = mic.find('/', slash + 1))
    if (job_folder_at(mic, slash + 1)) return after_job_folder(mic, slash + 1);
  if (job_folder_at(mic, 0)) return after_job_folder(mic, 0);
  return mic;
}

std::string job_file_for(const std::string& job, const std::string& mic, const std::string& suffix,
                         std::string& why) {
  std::string post = relion_post_name(mic);
  post = post.substr(0, post.rfind('.'));  // RELION drops from the last '.' of the whole rest
  // Spellings of one path ("a//b", "./a/./b") give one file; an absolute
  // name goes below the job too.
  std::string clean;
  std::istringstream parts(post);
  for (std::string part; std::getline(parts, part, '/');) {
    if (part == "..") {
      why = "its file " + job + post + suffix + " would lie outside the job folder";
      return "";
    }
    if (!part.empty() && part != ".") clean += (clean.empty() ? "" : "/") + part;
  }
  if (!clean.empty() && post.back() == '/') clean += '/';  // "d/.mrc": a file named by its suffix alone
  return job + clean + suffix;
}

bool make_parent_dirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool write_file_atomic(const std::string& path, const std::string& text) {
  PartFile f(path.c_str(), "w");
  return f.fp() && fwrite(text.data(), 1, text.size(), f.fp()) == text.size() && f.commit();
}

bool write_coordinates(const std::string& path, const std::vector<Pick>& picks, const std::string& comment) {
  StarTable t;
  t.labels = {"rlnCoordinateX", "rlnCoordinateY", "rlnClassNumber", "rlnAutopickFigureOfMerit", "rlnAnglePsi"};
  for (const Pick& p : picks)
    t.rows.push_back({std::to_string(std::lround(p.x)), std::to_string(std::lround(p.y)), std::to_string(p.cls),
                      fmt("%.6f", p.score), fmt("%.6f", p.psi)});
  return make_parent_dirs(path) && write_table(path, "# version 30001\n# " + comment + "\n", t);
}

bool write_node_files(const std::string& job, const std::string& star,
                      const std::vector<std::pair<std::string, std::string>>& coords, const std::string& label,
                      std::string& why) {
  StarTable list;
  list.name = "coordinate_files";
  list.labels = {"rlnMicrographName", "rlnMicrographCoordinates"};
  for (const auto& c : coords) list.rows.push_back({c.first, c.second});
  StarTable nodes;
  nodes.name = "output_nodes";
  // Type 2 (coordinates) is RELION 3.1's; the label is what 4 and 5 read.
  nodes.labels = {"rlnPipeLineNodeName", "rlnPipeLineNodeType", "rlnPipeLineNodeTypeLabel"};
  nodes.rows = {{job + "coords_suffix_autopick.star", "2", label}, {job + "autopick.star", "2", label}};
  const std::string files[] = {"coords_suffix_autopick.star", "autopick.star", "RELION_OUTPUT_NODES.star"};
  const bool ok[] = {write_file_atomic(job + files[0], star + "\n"),
                     write_table(job + files[1], "# version 30001\n", list),
                     write_table(job + files[2], "# version 30001\n", nodes)};
  for (int i = 0; i < 3; i++)
    if (!ok[i]) return why = "cannot write " + job + files[i], false;
  return true;
}

bool write_micrographs_star(const std::string& path, const std::vector<std::pair<std::string, double>>& mics,
                            double voltage, double cs, double q0) {
  StarTable optics, list;
  optics.name = "optics";
  optics.labels = {"rlnOpticsGroupName", "rlnOpticsGroup", "rlnMicrographPixelSize", "rlnVoltage",
                   "rlnSphericalAberration", "rlnAmplitudeContrast"};
  list.name = "micrographs";
  list.labels = {"rlnMicrographName", "rlnOpticsGroup"};
  std::vector<double> groups;
  for (const auto& m : mics) {
    size_t g = 0;
    while (g < groups.size() && groups[g] != m.second) g++;
    if (g == groups.size()) {
      groups.push_back(m.second);
      optics.rows.push_back({"opticsGroup" + std::to_string(g + 1), std::to_string(g + 1), fmt("%.6f", m.second),
                             fmt("%g", voltage), fmt("%g", cs), fmt("%g", q0)});
    }
    list.rows.push_back({m.first, std::to_string(g + 1)});
  }
  PartFile f(path.c_str(), "w");
  return f.fp() && fputs("# version 30001\n", f.fp()) >= 0 && star_write(f.fp(), optics) &&
         star_write(f.fp(), list) && f.commit();
}

std::string coords_type_label(const std::string& dir) {
  // Not a file there (a FIFO would wait for ever): read as no pipeline.
  std::string s;
  const char* kind = "";
  gvex_read_regular(dir + "default_pipeline.star", s, &kind);
  const bool five = s.find("# version 5") != std::string::npos || s.find("GroupMetadata") != std::string::npos ||
                    s.find("MicrographCoordsGroup") != std::string::npos;
  const bool four = s.find("_rlnPipeLineProcessTypeLabel") != std::string::npos ||
                    s.find("_rlnPipeLineNodeTypeLabel") != std::string::npos;
  return four && !five ? "MicrographsCoords.star.relion.autopick" : "MicrographCoordsGroup.star.relion.autopick";
}
