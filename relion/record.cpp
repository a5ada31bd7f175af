#include "relion/record.h"

#include <ftw.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/atomic_file.h"
#include "io/star_table.h"

namespace {

// Floats as "%.9g" and doubles as "%.17g" come back with the same bits, so
// a cut-off chosen from recorded scores is the one chosen in memory.
std::string g9(double v) {
  char b[40];
  snprintf(b, sizeof b, "%.9g", v);
  return b;
}
std::string g17(double v) {
  char b[40];
  snprintf(b, sizeof b, "%.17g", v);
  return b;
}

const char* const kPairs[] = {"rlnMicrographName", "gvexSequence", "gvexWidth", "gvexHeight",
                              "rlnMicrographPixelSize", "gvexCutoff", "gvexEdgeBox", "gvexMaskedFraction",
                              "rlnMicrographCoordinates", "gvexPicture"};

// A number as record_write writes it: the whole text, within [lo, hi]
// (never NaN), so that it converts to its field's type without overflow.
bool number(const std::string& s, double& v, double lo, double hi) {
  char* end = nullptr;
  v = strtod(s.c_str(), &end);
  return !s.empty() && !*end && v >= lo && v <= hi;
}

constexpr double kCoord = PICKS_MAX_COORD, kScore = PICKS_MAX_SCORE;

// A pick's centre and score (the first three of a row).
bool pick_numbers(const std::vector<std::string>& row, double* n) {
  return number(row[0], n[0], -kCoord, kCoord) && number(row[1], n[1], -kCoord, kCoord) &&
         number(row[2], n[2], -kScore, kScore);
}

// The blocks a record of a job cut as a run adds: the area, the edge step,
// how its cut was chosen (a job cut over the whole job chooses again), a
// flag per pick and the decoys with theirs.
bool pooled_read(const std::vector<StarTable>& blocks, MicRecord& r) {
  const StarTable &run = blocks[4], &edges = blocks[5], &decoys = blocks[6];
  double v[3];
  if (run.rows.size() != 1 || (run.rows[0].size() != 2 && run.rows[0].size() != 5) ||
      !number(run.rows[0][0], v[0], 0, 1e15) || !number(run.rows[0][1], v[1], 0, 1) ||
      edges.rows.size() != r.picks.size())
    return false;
  if (run.rows[0].size() == 5) {
    if (!number(run.rows[0][4], v[2], -1, 1e15)) return false;
    r.rule = run.rows[0][2], r.why = run.rows[0][3], r.decoys_above = (long)v[2];
  }
  r.pooled = true;
  r.usable_pixels = v[0];
  r.drop_edges = v[1] != 0;
  for (const auto& row : edges.rows) {
    if (row.size() != 1 || (row[0] != "0" && row[0] != "1")) return false;
    r.on_edge.push_back(row[0] == "1");
  }
  for (const auto& row : decoys.rows) {
    double n[3];
    if (row.size() != 4 || (row[3] != "0" && row[3] != "1") || !pick_numbers(row, n)) return false;
    Pick p;
    p.x = n[0], p.y = n[1], p.score = (float)n[2];
    r.decoys.push_back(p);
    r.decoy_on_edge.push_back(row[3] == "1");
  }
  return true;
}

}  // namespace

std::vector<Pick> kept_picks(const MicRecord& r) {
  std::vector<Pick> kept;
  const double half = r.edge_box / 2.0;
  for (size_t i = 0; i < r.picks.size(); i++) {
    const Pick& p = r.picks[i];
    if (r.drop_edges && i < r.on_edge.size() && r.on_edge[i]) continue;
    if (p.score >= r.cutoff &&
        (r.edge_box <= 0 || (p.x - half >= 0 && p.y - half >= 0 && p.x + half <= r.nx && p.y + half <= r.ny)))
      kept.push_back(p);
  }
  return kept;
}

bool record_write(const std::string& path, const MicRecord& r) {
  StarTable head, warn, picks, cells;
  head.name = "micrograph";
  head.loop = false;
  head.labels.assign(std::begin(kPairs), std::end(kPairs));
  head.rows = {{r.mic, std::to_string(r.sequence), std::to_string(r.nx), std::to_string(r.ny), g17(r.apix),
                g17(r.cutoff), std::to_string(r.edge_box), g17(r.masked), r.coords, r.picture}};
  warn.name = "warnings";
  warn.labels = {"gvexWarning"};
  for (const std::string& w : r.warnings) warn.rows.push_back({w});
  picks.name = "picks";
  picks.labels = {"rlnCoordinateX", "rlnCoordinateY", "rlnAutopickFigureOfMerit", "rlnClassNumber", "rlnAnglePsi",
                  "gvexBoxSize"};
  for (const Pick& p : r.picks)
    picks.rows.push_back({g17(p.x), g17(p.y), g9(p.score), std::to_string(p.cls), g9(p.psi), std::to_string(p.w)});
  cells.name = "rejected";
  cells.labels = {"gvexCellX", "gvexCellY", "gvexCellWidth", "gvexCellHeight"};
  for (const Cell& c : r.rejected)
    cells.rows.push_back({std::to_string(c.x), std::to_string(c.y), std::to_string(c.w), std::to_string(c.h)});
  PartFile f(path.c_str(), "w");
  if (!f.fp() || fputs("# gvexmatch_relion: one picked micrograph\n", f.fp()) < 0 || !star_write(f.fp(), head) ||
      !star_write(f.fp(), warn) || !star_write(f.fp(), picks) || !star_write(f.fp(), cells))
    return false;
  if (r.pooled) {
    StarTable run, edges, decoys;
    run.name = "pooled";
    run.loop = false;
    run.labels = {"gvexUsablePixels", "gvexDropEdges", "gvexRule", "gvexWhy", "gvexDecoysAbove"};
    auto quotable = [](std::string s) {  // one line, never both quotes
      std::replace(s.begin(), s.end(), '"', '\'');
      std::replace(s.begin(), s.end(), '\n', ' ');
      std::replace(s.begin(), s.end(), '\r', ' ');
      return s;
    };
    run.rows = {{g17(r.usable_pixels), r.drop_edges ? "1" : "0", quotable(r.rule), quotable(r.why),
                 std::to_string(r.decoys_above)}};
    edges.name = "pick_edges";
    edges.labels = {"gvexOnEdge"};
    for (size_t i = 0; i < r.picks.size(); i++)
      edges.rows.push_back({i < r.on_edge.size() && r.on_edge[i] ? "1" : "0"});
    decoys.name = "decoys";
    decoys.labels = {"rlnCoordinateX", "rlnCoordinateY", "rlnAutopickFigureOfMerit", "gvexOnEdge"};
    for (size_t i = 0; i < r.decoys.size(); i++) {
      const Pick& p = r.decoys[i];
      decoys.rows.push_back({g17(p.x), g17(p.y), g9(p.score),
                             i < r.decoy_on_edge.size() && r.decoy_on_edge[i] ? "1" : "0"});
    }
    if (!star_write(f.fp(), run) || !star_write(f.fp(), edges) || !star_write(f.fp(), decoys)) return false;
  }
  return f.commit();
}

bool record_read(const std::string& path, MicRecord& r, std::string& why) {
  std::vector<StarTable> blocks;
  if (!star_read_file(path, blocks, why)) return false;
  why = path + " is not a complete record";
  if ((blocks.size() != 4 && blocks.size() != 7) || blocks[0].rows.size() != 1 ||
      blocks[0].labels.size() != std::size(kPairs))
    return false;
  const std::vector<std::string>& h = blocks[0].rows[0];
  // After the name: sequence, width, height, pixel size, cut-off, edge box, masked share.
  static const double lo[8] = {0, 0, 0, 0, 0, -kScore, 0, 0};
  static const double hi[8] = {0, 1e15, kCoord, kCoord, 1e6, kScore, kCoord, 1};
  double v[8];
  for (int i = 1; i < 8; i++)
    if (!number(h[i], v[i], lo[i], hi[i])) return false;
  r.mic = h[0];
  r.sequence = (long)v[1], r.nx = (int)v[2], r.ny = (int)v[3], r.apix = v[4], r.cutoff = v[5];
  r.edge_box = (int)v[6], r.masked = v[7];
  r.coords = h[8];
  r.picture = h[9];
  for (const auto& row : blocks[1].rows) r.warnings.push_back(row[0]);
  for (const auto& row : blocks[2].rows) {
    double n[6];
    if (row.size() != 6 || !pick_numbers(row, n) || !number(row[3], n[3], -1e9, 1e9) ||
        !number(row[4], n[4], -1e6, 1e6) || !number(row[5], n[5], 0, kCoord))
      return false;
    Pick p;
    p.x = n[0], p.y = n[1], p.score = (float)n[2], p.cls = (int)n[3], p.psi = (float)n[4], p.w = p.h = (int)n[5];
    r.picks.push_back(p);
  }
  for (const auto& row : blocks[3].rows) {
    double n[4];
    if (row.size() != 4) return false;
    for (int i = 0; i < 4; i++)
      if (!number(row[i], n[i], -kCoord, kCoord)) return false;
    r.rejected.push_back(Cell{(long)n[0], (long)n[1], (long)n[2], (long)n[3]});
  }
  if (blocks.size() == 7 && !pooled_read(blocks, r)) return false;
  why.clear();
  return true;
}

namespace {
std::vector<std::string>* g_found = nullptr;  // nftw takes no context
int collect(const char* path, const struct stat*, int type, struct FTW*) {
  const size_t n = strlen(path);
  if (type == FTW_F && n > 5 && strcmp(path + n - 5, ".star") == 0) g_found->push_back(path);
  return 0;
}
}  // namespace

std::vector<MicRecord> records_in(const std::string& dir, std::vector<std::string>& bad) {
  std::vector<std::string> found;
  g_found = &found;
  nftw(dir.c_str(), collect, 16, FTW_PHYS);
  g_found = nullptr;
  std::vector<MicRecord> out;
  for (const std::string& path : found) {
    MicRecord r;
    std::string why;
    if (record_read(path, r, why)) out.push_back(r);
    else bad.push_back(why);
  }
  std::sort(out.begin(), out.end(), [](const MicRecord& a, const MicRecord& b) { return a.sequence < b.sequence; });
  return out;
}
