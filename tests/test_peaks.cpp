// Peak finding on the cell grid and the merge of candidate files.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "support/capture.h"
#include "gpu/pool.h"
#include "match/box_filter.h"
#include "match/peaks.h"
#include "support/match_fixtures.h"
#include "support/run.h"

namespace {

// One template's maps through find + filter; the host results per cell.
struct Picks {
  std::vector<unsigned int> index;
  std::vector<float> score, angle;
};

Picks run_peaks(const std::vector<float>& cc, const std::vector<float>& psi, int nx, int ny, int c, float cutoff,
                const std::vector<unsigned int>& excluded = {}) {
  Dev<float> d_cc(cc), d_psi(psi);
  Dev<unsigned int> d_ex(excluded);
  const int ng = gvex_grid_size(nx, c) * gvex_grid_size(ny, c);
  Picks p{std::vector<unsigned int>(ng, 77u), std::vector<float>(ng, -5.0f), std::vector<float>(ng, -5.0f)};
  gpu_find_filter_ccmax_psi_grids_exclusive(d_cc.get(), d_psi.get(), p.index.data(), p.score.data(), p.angle.data(),
                                            cutoff, nx, ny, c, d_ex.get(), (unsigned int)excluded.size());
  return p;
}

unsigned int at(int x, int y, int nx) { return (unsigned int)(y * nx + x); }

TEST(PeakFind, BestPixelPerCellItsAngleAndTheCutoff) {
  const int nx = 40, ny = 30, c = 10, gnx = 4;
  // Every psi value differs, so an angle read anywhere but at the score's
  // own index (a quadrant-swapped one, say) shows.
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny);
  for (int i = 0; i < nx * ny; i++) psi[i] = 0.25f * i;
  cc[at(11, 2, nx)] = 0.9f;                                      // cell (1,0): a clear maximum
  cc[at(36, 23, nx)] = cc[at(38, 27, nx)] = 0.5f;                // cell (3,2): equal maxima, the first wins
  cc[at(0, 20, nx)] = 0.8f;                                      // cell (0,2): its first pixel: dropped
  cc[at(21, 11, nx)] = std::numeric_limits<float>::quiet_NaN();  // cell (2,1): NaN never wins
  cc[at(22, 12, nx)] = 0.4f;                                     // ... and 0.4 equals the cutoff: kept
  cc[at(2, 17, nx)] = std::nextafter(0.4f, 0.0f);                // cell (0,1): just below: dropped
  cc[at(19, 29, nx)] = 0.7f;                                     // cell (1,2): its last row and column
  {  // the pool hands out used blocks: dirty those of the grid's size
    PooledArray<float> a(12), b(12), d(12), e(12);
    for (float* q : {a.get(), b.get(), d.get(), e.get()}) hcuda_memset_float(q, NAN, 12);
  }
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.4f);
  std::vector<unsigned int> want(12, 0u);
  want[0 * gnx + 1] = at(11, 2, nx);
  want[2 * gnx + 3] = at(36, 23, nx);
  want[1 * gnx + 2] = at(22, 12, nx);
  want[2 * gnx + 1] = at(19, 29, nx);
  EXPECT_EQ(p.index, want);
  for (int g : {1, 6, 9, 11}) {
    EXPECT_EQ(p.score[g], cc[want[g]]) << g;
    EXPECT_EQ(p.angle[g], psi[want[g]]) << g;
  }
  for (int g : {0, 2, 3, 5, 7, 8, 10}) EXPECT_EQ(p.angle[g], 0.0f) << g;  // no better pixel: never written
}

// An interior cell reads exactly its own rows and columns: its maximum on
// its last row or column is found, and a larger value just past it (the
// next cell's first row or column) is not taken for it.
TEST(PeakFind, InteriorCellBoundsAreExact) {
  const int nx = 50, ny = 50, c = 10, gnx = 5;
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  cc[at(23, 29, nx)] = 0.5f;  // cell (2,2): its last row
  cc[at(24, 30, nx)] = 0.9f;  // cell (2,3): its first row, just below
  cc[at(19, 13, nx)] = 0.5f;  // cell (1,1): its last column
  cc[at(20, 14, nx)] = 0.9f;  // cell (2,1): its first column, just right
  const Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f);
  EXPECT_EQ(p.score[2 * gnx + 2], 0.5f);
  EXPECT_EQ(p.score[1 * gnx + 1], 0.5f);
  EXPECT_EQ(p.score[3 * gnx + 2], 0.9f);
  EXPECT_EQ(p.score[1 * gnx + 2], 0.9f);
}

TEST(PeakFilter, NeighbourSuppressionIsStrictAndOrderFree) {
  const int nx = 60, ny = 20, c = 10;  // 6 x 2 cells, conflict below 2*c*c = 200
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  // Equal scores 5 px apart in cells (0,0) and (1,0): both survive.
  cc[at(7, 5, nx)] = cc[at(12, 5, nx)] = 0.6f;
  // A chain in cells (3,0), (4,0), (5,0): 0.3 < 0.4 < 0.5, each 8 px from the
  // next. The middle one falls to the right one; the left one still falls to
  // the middle one as found, whatever order the cells are visited in.
  cc[at(37, 5, nx)] = 0.3f;
  cc[at(45, 5, nx)] = 0.4f;
  cc[at(53, 5, nx)] = 0.5f;
  // Weaker but far from (12,5): 81 + 169 > 200, it survives.
  cc[at(21, 18, nx)] = 0.2f;
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f);
  std::vector<unsigned int> want(12, 0u);
  want[0] = at(7, 5, nx);
  want[1] = at(12, 5, nx);
  want[5] = at(53, 5, nx);
  want[6 + 2] = at(21, 18, nx);
  EXPECT_EQ(p.index, want);
}

TEST(PeakFilter, ExclusionsIncludingTheOriginCorner) {
  const int nx = 64, ny = 64, c = 16;  // conflict below 512
  std::vector<float> cc(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  cc[at(14, 14, nx)] = cc[at(40, 40, nx)] = cc[at(40, 8, nx)] = 0.9f;
  EXPECT_EQ(run_peaks(cc, psi, nx, ny, c, 0.1f).index[0], at(14, 14, nx));
  // A zero entry stands for pixel (0,0): 392 from (14,14) removes it; (40,40)
  // is 200 from (50,50); (40,8) is far from both.
  Picks p = run_peaks(cc, psi, nx, ny, c, 0.1f, {0u, at(50, 50, nx)});
  EXPECT_EQ(p.index[0], 0u);
  EXPECT_EQ(p.index[2 * 4 + 2], 0u);
  EXPECT_EQ(p.index[2], at(40, 8, nx));
  // Exactly at the limit is no conflict: (40,8) vs (56,24) is 256 + 256.
  EXPECT_EQ(run_peaks(cc, psi, nx, ny, c, 0.1f, {at(56, 24, nx)}).index[2], at(40, 8, nx));
}

// ---- merge ----

class BoxFilter : public ::testing::Test {
 protected:
  // min_dist 20 working px: merge cells of 14 px.
  std::string merge(const std::string& candidates, int format, float score_limit = 0.0f, float scale = 4.0f,
                    int2 origin = {3, 5}, const std::string& excluded = "NULL", int n = 200, int box = 64) {
    write_text_file(dir.file("in_nonunique.box"), candidates);
    std::vector<char> in = cstr(dir.file("in_nonunique.box")), ex = cstr(excluded), out = cstr(dir.file("out"));
    const std::vector<Pick> picks =
        box_filter(n, n, 20.0f, score_limit, scale, box, box, origin, in.data(), ex.data(), out.data(), format);
    const std::string text = read_text_file(out.data());
    // What it returns is what it wrote.
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    EXPECT_EQ(picks.size(), format == 1 ? lines - 9 : lines);
    return text;
  }
  TempDir dir;
};

// Candidates as the per-template writer leaves them: corner, box 16, score,
// template, angle (working pixels).
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
    "142     62      16      16      0.300000\t1       \t50.000  \n"   // (150,70), cell (10,5)
    "2       2       16      16      0.900000\t1       \t60.000  \n"   // (10,10): outer ring
    "1000    1000    16      16      0.900000\t1       \t60.000  \n"   // outside the image
    "152     152     16      16      -0.10000\t1       \t70.000  \n";  // (160,160): score <= 0

TEST_F(BoxFilter, BoxAndStarLinesExact) {
  // (52,50) beats (50,50) in its cell. (108,100) and (113,100) are equal
  // close neighbours: equality suppresses in the merge, so the first falls
  // and the second, whose left neighbour now stands cleared, stays.
  EXPECT_EQ(merge(kCandidates, 2),
            "179     173     64      64      0.700000\t2       20.000000\n"
            "571     253     64      64      0.300000\t1       50.000000\n"
            "423     373     64      64      0.400000\t3       40.000000\n");
  // The STAR form: centres, angle and template swapped, score last; the
  // score limit 0.35 removes 0.3.
  EXPECT_EQ(merge(kCandidates, 1, 0.35f),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
            "_rlnAutopickFigureOfMerit #5\n"
            "211     205     20.000000\t2       0.700000\n"
            "455     405     40.000000\t3       0.400000\n");
}

// Diagonal neighbours closer than the cell's diagonal conflict: (50,50)
// and (63,59) lie 250 squared pixels apart, between c^2 = 196 and 2c^2 =
// 392 with merge cells of 14 pixels; the weaker one falls.
TEST_F(BoxFilter, NeighboursWithinTheCellDiagonalConflict) {
  const std::string two =
      "42      42      16      16      0.500000\t1       \t10.000  \n"   // centre (50,50), cell (3,3)
      "55      51      16      16      0.400000\t1       \t20.000  \n";  // centre (63,59), cell (4,4)
  EXPECT_EQ(merge(two, 2), "171     173     64      64      0.500000\t1       10.000000\n");
}

TEST_F(BoxFilter, ExcludedFileRemovesNearbyPicks) {
  // A particle centred at (210,200), 26 squared px from the pick at (211,205).
  write_text_file(dir.file("ex.box"), "180     170     60      60\n");
  EXPECT_EQ(merge(kCandidates, 2, 0.0f, 4.0f, {3, 5}, dir.file("ex.box")),
            "571     253     64      64      0.300000\t1       50.000000\n"
            "423     373     64      64      0.400000\t3       40.000000\n");
}

}  // namespace
