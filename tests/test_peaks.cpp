// Peak finding on the cell grid and the merge of candidate files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "match/box_filter.h"
#include "match/peaks.h"

namespace {

// One template's maps on the device plus the host results of find+filter.
struct Picks {
  std::vector<unsigned int> index;
  std::vector<float> score, angle;
};

Picks run_peaks(const std::vector<float>& ccmax, const std::vector<float>& psi, int nx, int ny, int c, float cutoff,
                const std::vector<unsigned int>& excluded = {}) {
  const unsigned long n = (unsigned long)nx * ny;
  DeviceArray<float> d_cc(n), d_psi(n);
  memcpy_H2D(d_cc.get(), ccmax.data(), n * sizeof(float));
  memcpy_H2D(d_psi.get(), psi.data(), n * sizeof(float));
  DeviceArray<unsigned int> d_ex(excluded.empty() ? 1 : excluded.size());
  if (!excluded.empty()) memcpy_H2D(d_ex.get(), excluded.data(), excluded.size() * sizeof(unsigned int));
  const int ng = gvex_grid_size(nx, c) * gvex_grid_size(ny, c);
  Picks p{std::vector<unsigned int>(ng, 77u), std::vector<float>(ng, -5.0f), std::vector<float>(ng, -5.0f)};
  gpu_find_filter_ccmax_psi_grids_exclusive(d_cc.get(), d_psi.get(), p.index.data(), p.score.data(), p.angle.data(),
                                            cutoff, nx, ny, c, d_ex.get(), (unsigned int)excluded.size());
  return p;
}

unsigned int at(int x, int y, int nx) { return (unsigned int)(y * nx + x); }

TEST(PeakGrid, CellSizesFollowTheMinimumDistance) {
  // 300 A at 1.34 A/px shrunk by 4: cells of 39 px, 27 a side on 1024 px.
  const int c = (int)(300.0f * 1.4142135f / (2 * 4 * 1.34f));
  EXPECT_EQ(c, 39);
  EXPECT_EQ(gvex_grid_size(1024, c), 27);
  EXPECT_EQ(1024 - 26 * c, 10);
}

TEST(PeakFind, BestPixelPerCellWithItsAngle) {
  const int nx = 40, ny = 30, c = 10;
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  for (int i = 0; i < nx * ny; i++) psi[i] = (float)(i % 360);
  // Cell (1,0): a clear maximum. Cell (3,2): two equal maxima, first wins.
  cc[at(11, 2, nx)] = 0.9f;
  cc[at(36, 23, nx)] = 0.5f;
  cc[at(38, 27, nx)] = 0.5f;
  // Cell (0,2): the maximum is the cell's first pixel -> no candidate.
  cc[at(0, 20, nx)] = 0.8f;
  // Cell (2,1): a NaN never wins over a real value.
  cc[at(21, 11, nx)] = std::numeric_limits<float>::quiet_NaN();
  cc[at(22, 12, nx)] = 0.4f;
  Picks p = run_peaks(cc, psi, nx, ny, c, -1.0f);
  const int gnx = 4;
  EXPECT_EQ(p.index[0 * gnx + 1], at(11, 2, nx));
  EXPECT_FLOAT_EQ(p.score[0 * gnx + 1], 0.9f);
  EXPECT_FLOAT_EQ(p.angle[0 * gnx + 1], psi[at(11, 2, nx)]);
  EXPECT_EQ(p.index[2 * gnx + 3], at(36, 23, nx));
  EXPECT_EQ(p.index[2 * gnx + 0], 0u);
  EXPECT_FLOAT_EQ(p.score[2 * gnx + 0], 0.8f);
  EXPECT_EQ(p.index[1 * gnx + 2], at(22, 12, nx));
  EXPECT_FLOAT_EQ(p.angle[1 * gnx + 2], psi[at(22, 12, nx)]);
  // A flat cell keeps its first value as score and has no candidate.
  EXPECT_EQ(p.index[1 * gnx + 0], 0u);
  EXPECT_FLOAT_EQ(p.score[1 * gnx + 0], 0.0f);
}

TEST(PeakFind, AngleIsReadAtTheScoreIndexAsStored) {
  // The angle map is not re-centred: whatever psi holds at the score's own
  // index is reported, not the value a quadrant swap would bring there.
  const int nx = 32, ny = 32, c = 8;
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 1.0f);
  cc[at(5, 6, nx)] = 1.0f;
  psi[at(5, 6, nx)] = 35.0f;
  psi[at(5 + 16, 6 + 16, nx)] = 120.0f;  // where the swapped layout would look
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f);
  EXPECT_EQ(p.index[0], at(5, 6, nx));
  EXPECT_FLOAT_EQ(p.angle[0], 35.0f);
}

TEST(PeakFilter, CutoffEqualityIsKept) {
  const int nx = 60, ny = 20, c = 20;
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  cc[at(10, 10, nx)] = 0.25f;                         // equal to the cutoff
  cc[at(50, 10, nx)] = std::nextafter(0.25f, 0.0f);   // just below
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.25f);
  EXPECT_EQ(p.index[0], at(10, 10, nx));
  EXPECT_EQ(p.index[2], 0u);
}

TEST(PeakFilter, NeighbourSuppressionIsStrictAndOrderFree) {
  const int nx = 60, ny = 20, c = 10;  // 6 x 2 cells, distance limit 2*c*c = 200
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  // Equal scores 5 px apart in cells (0,0) and (1,0): both survive.
  cc[at(7, 5, nx)] = 0.6f;
  cc[at(12, 5, nx)] = 0.6f;
  // A chain in cells (3,0), (4,0), (5,0): 0.3 < 0.4 < 0.5, each 8 px from the
  // next. The middle one falls to the right one; the left one still falls to
  // the middle one as found, whatever order the cells are visited in.
  cc[at(37, 5, nx)] = 0.3f;
  cc[at(45, 5, nx)] = 0.4f;
  cc[at(53, 5, nx)] = 0.5f;
  // A weaker candidate far from the stronger one survives: cell (2,1)
  // at (21,18) vs cell (1,0) at (12,5): distance^2 = 81+169 > 200.
  cc[at(21, 18, nx)] = 0.2f;
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f);
  EXPECT_EQ(p.index[0], at(7, 5, nx));
  EXPECT_EQ(p.index[1], at(12, 5, nx));
  EXPECT_EQ(p.index[3], 0u);
  EXPECT_EQ(p.index[4], 0u);
  EXPECT_EQ(p.index[5], at(53, 5, nx));
  EXPECT_EQ(p.index[6 + 2], at(21, 18, nx));
}

TEST(PeakFilter, ExclusionsIncludingTheOriginCorner) {
  const int nx = 64, ny = 64, c = 16;  // limit 512
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  cc[at(14, 14, nx)] = 0.9f;  // 14^2+14^2 = 392 from the origin
  cc[at(40, 40, nx)] = 0.9f;
  cc[at(40, 8, nx)] = 0.9f;
  // Without a list nothing is excluded.
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f);
  EXPECT_EQ(p.index[0], at(14, 14, nx));
  // A zero entry stands for pixel (0, 0) and removes the near-corner pick.
  p = run_peaks(cc, psi, nx, ny, c, 0.1f, {0u, at(50, 50, nx)});
  EXPECT_EQ(p.index[0], 0u);
  EXPECT_EQ(p.index[2 * 4 + 2], 0u);        // (40,40) within reach of (50,50): 200 < 512
  EXPECT_EQ(p.index[0 * 4 + 2], at(40, 8, nx));  // 1600+64 from the origin, far from (50,50)
  // Exactly at the limit is not a conflict: (40,8) vs (56,24): 256+256 = 512.
  p = run_peaks(cc, psi, nx, ny, c, 0.1f, {at(56, 24, nx)});
  EXPECT_EQ(p.index[0 * 4 + 2], at(40, 8, nx));
}

// ---- merge ----

std::string tmp_path(const std::string& name) {
  return std::string(::testing::TempDir()) + "gvex_peaks_" + name;
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

std::string run_merge(const std::string& candidates, int format, float score_limit = 0.0f, float scale = 4.0f,
                      int2 origin = {0, 0}, const std::string& excluded = "NULL", int n = 200, int box = 64) {
  std::string in = tmp_path("in_nonunique.box"), out = tmp_path(format == 1 ? "out.star" : "out.box");
  write_file(in, candidates);
  std::vector<char> a(in.begin(), in.end()), b(excluded.begin(), excluded.end()), c(out.begin(), out.end());
  a.push_back(0);
  b.push_back(0);
  c.push_back(0);
  // min_dist 20 working px -> merge cells of 14 px.
  EXPECT_EQ(box_filter(n, n, 20.0f, score_limit, scale, box, box, origin, a.data(), b.data(), c.data(), format), 0);
  return read_file(out);
}

// Candidates as the per-template writer leaves them: corner, box 16, score,
// template, angle (working pixels); 15 x 15 merge cells of 14 px.
const char* kCandidates =
    "42      42      16      16      0.500000\t1       \t10.000  \n"  // centre (50,50), cell (3,3)
    "44      42      16      16      0.700000\t2       \t20.000  \n"  // (52,50) same cell, better
    "100     92      16      16      0.400000\t1       \t30.000  \n"  // (108,100), cell (7,7)
    "105     92      16      16      0.400000\t3       \t40.000  \n"  // (113,100), cell (8,7), equal
    "this line is not a candidate\n"
    "1 2 3\n"
    "126     126     8       8       0.900000\t1\n"              // six numbers: skipped
    "126     126     8       8       0.900000\t1       \tabc\n"  // not a number: skipped
    "\n"
    "142     62      16      16      0.300000\t1       \t50.000  \n"  // (150,70), cell (10,5)
    "2       2       16      16      0.900000\t1       \t60.000  \n"  // (10,10): outer ring
    "1000    1000    16      16      0.900000\t1       \t60.000  \n"  // outside the image
    "152     152     16      16      -0.10000\t1       \t70.000  \n";  // (160,160): score <= 0

TEST(BoxFilter, BoxLinesExact) {
  std::string out = run_merge(kCandidates, 2, 0.0f, 4.0f, {3, 5});
  // (52,50) beats (50,50) in its cell. (108,100) and (113,100) are equal
  // close neighbours: equality suppresses in the merge, so the first falls
  // and the second, whose left neighbour now stands cleared, stays.
  EXPECT_EQ(out,
            "179     173     64      64      0.700000\t2       20.000000\n"
            "571     253     64      64      0.300000\t1       50.000000\n"
            "423     373     64      64      0.400000\t3       40.000000\n");
}

TEST(BoxFilter, StarLinesExactWithSwappedColumns) {
  std::string out = run_merge(kCandidates, 1, 0.35f, 4.0f, {3, 5});
  EXPECT_EQ(out,
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
            "_rlnAutopickFigureOfMerit #5\n"
            "211     205     20.000000\t2       0.700000\n"
            "455     405     40.000000\t3       0.400000\n");
}

TEST(BoxFilter, OuterRingNeverSurvives) {
  // Lone candidates: three in ring cells, one inside; 8 x 8 cells of 14 px.
  const char* text =
      "47 5 4 4 0.9 1 0\n"     // centre (49,7), cell (3,0)
      "103 103 4 4 0.9 1 0\n"  // (105,105), cell (7,7)
      "5 61 4 4 0.9 1 0\n"     // (7,63), cell (0,4)
      "61 61 4 4 0.5 1 0\n";   // (63,63), cell (4,4)
  std::string out = run_merge(text, 2, 0.0f, 1.0f, {0, 0}, "NULL", 112, 4);
  EXPECT_EQ(out, "61      61      4       4       0.500000\t1       0.000000\n");
}

TEST(BoxFilter, ExcludedFileRemovesNearbyPicks) {
  std::string ex = tmp_path("excluded.box");
  // A particle centred at (210, 200), 26 squared px from the pick at (211, 205).
  write_file(ex, "180     170     60      60\n");
  std::string out = run_merge(kCandidates, 2, 0.0f, 4.0f, {3, 5}, ex);
  EXPECT_EQ(out,
            "571     253     64      64      0.300000\t1       50.000000\n"
            "423     373     64      64      0.400000\t3       40.000000\n");
  // A name that does not exist is skipped.
  out = run_merge(kCandidates, 2, 0.0f, 4.0f, {3, 5}, tmp_path("no_such_file.box"));
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3);
}

TEST(BoxFilterDeath, UnwritableOutputIsFatal) {
  std::string in = tmp_path("in2_nonunique.box");
  write_file(in, kCandidates);
  std::vector<char> a(in.begin(), in.end());
  a.push_back(0);
  char ex[] = "NULL", out[] = "/nonexistent_dir/x_vexmatch.box";
  EXPECT_EXIT(
      {
        dup2(2, 1);
        box_filter(200, 200, 20.0f, 0.0f, 4.0f, 64, 64, {0, 0}, a.data(), ex, out, 2);
      },
      ::testing::ExitedWithCode(1), "Cannot write to file /nonexistent_dir/x_vexmatch.box");
}

TEST(BoxFilterDeath, UnreadableInputIsFatal) {
  char in[] = "/nonexistent_dir/x_nonunique.box", ex[] = "NULL";
  std::string out = tmp_path("never.box");
  std::vector<char> o(out.begin(), out.end());
  o.push_back(0);
  EXPECT_EXIT(
      {
        dup2(2, 1);
        box_filter(100, 100, 20.0f, 0.0f, 1.0f, 16, 16, {0, 0}, in, ex, o.data(), 2);
      },
      ::testing::ExitedWithCode(1),
      "Cannot open file /nonexistent_dir/x_nonunique.box. Permission denied or wrong file name.\n"
      "Error in function box_filter\\(\\), file boxfile on line 331: open file failed.! Exit now!");
}

}  // namespace
