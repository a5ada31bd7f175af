// Ice and contamination cells, excluded coordinates and the usable-area mask.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gpu/math_utils.h"
#include "match/ice.h"
#include "support/capture.h"
#include "support/match_fixtures.h"
#include "support/run.h"

namespace {

TEST(IceCells, RecordsTheFirstPixelRuleAndTheMaskOfNarrowCells) {
  const int nx = 25, ny = 25, c = 10;  // 3 x 3 cells, the last ones 5 px wide
  std::vector<float> ave(nx * ny, 0.0f), sig(nx * ny, 0.5f);
  auto set = [&](int x, int y, float s, float a) {
    sig[y * nx + x] = s;
    ave[y * nx + x] = a;
  };
  // Cell (0,1): a first pixel beyond every cutoff only starts the record;
  // an average equal to lave_min is not below it.
  set(0, 10, 5.0f, 4.0f);
  set(4, 13, 0.5f, -1.0f);
  // Cell (1,0): sigma 2.0 takes the record (ave 0.5 with it); a bright pixel
  // of lower sigma takes it through the average, lowering the recorded sigma
  // to 1.5, so a later sigma of 1.8 condemns again.
  set(12, 2, 2.0f, 0.5f);
  set(15, 4, 1.5f, 1.2f);
  set(11, 7, 1.8f, 1.0f);
  set(14, 13, 1.3f, 0.0f);   // cell (1,1): equal to the sigma cutoff is not above it
  set(23, 22, 0.5f, -1.5f);  // cell (2,2): dark
  const int ng = 9;
  Dev<float> d_ave(ave), d_sig(sig), c_ave(ng), c_sig(ng);
  Dev<unsigned int> grid(ng);
  hcuda_find_sigma_grids(d_ave.get(), d_sig.get(), grid.get(), c_ave.get(), c_sig.get(), nx, ny, c, -1.0f, 1.0f, 1.3f);
  std::vector<unsigned int> want(ng, 0u);
  want[1] = 7 * nx + 11;
  want[8] = 22 * nx + 23;
  EXPECT_EQ(grid.host(), want);
  const std::vector<float> ca = c_ave.host(), cs = c_sig.host();
  EXPECT_EQ(cs[3], 5.0f);
  EXPECT_EQ(ca[3], 4.0f);
  EXPECT_EQ(cs[1], 1.8f);
  EXPECT_EQ(ca[1], 1.0f);
  EXPECT_EQ(ca[8], -1.5f);

  // Every pixel of a condemned cell, narrow or not, is 0 in the mask.
  Dev<float> mask(nx * ny);
  hcuda_2d_generate_mask_by_coords(mask.get(), nullptr, nx, ny, c, grid.get(), 0);
  const std::vector<float> m = mask.host();
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const bool bad = (x >= 10 && x < 20 && y < 10) || (x >= 20 && y >= 20);
      ASSERT_EQ(m[y * nx + x], bad ? 0.0f : 1.0f) << x << "," << y;
    }
}

TEST(ExcludedCoords, LaterRecordInACellWinsOffImageIsIgnored) {
  const int nx = 64, ny = 48, c = 16, ng = 12;  // 4 x 3 cells
  // Micrograph pixels, shrink 2: corner + half box, halved. (40,20) box 16
  // -> (24,14) in cell (1,0); (60,2) box 8 -> (32,3) in cell (2,0); a
  // STAR-style centre (51,11) -> (25,5) again in cell (1,0), later: it stays.
  std::vector<PTCL_BOX> b = {{40, 20, 16, 16, 0, 0, 0, 0},
                             {60, 2, 8, 8, 0, 0, 0, 0},
                             {51, 11, 0, 0, 0, 0, 0, 0},
                             {-30, 10, 16, 16, 0, 0, 0, 0},  // centre left of the image
                             {200, 90, 0, 0, 0, 0, 0, 0}};   // (100,45): beyond nx
  Dev<unsigned int> grid(ng, true);
  EXPECT_EQ(add_excluded_coords_to_ice(grid.get(), nx, ny, c, b.data(), (int)b.size(), 2), 0);
  std::vector<unsigned int> want(ng, 0u);
  want[1] = 5 * nx + 25;
  want[2] = 3 * nx + 32;
  EXPECT_EQ(grid.host(), want);

  // The same from a file, which is announced.
  TempDir dir;
  const std::string box = dir.file("ex.box");
  write_text_file(box, "40 20 16 16\n60 2 8 8\n51 11 0 0\n");
  std::vector<char> path = cstr(box);
  Dev<unsigned int> from_file(ng, true);
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(add_excluded_boxf_to_ice(from_file.get(), nx, ny, c, path.data(), 2), 0); }),
            "       3 particles in file " + box + " excluded from auto-picking \n");
  EXPECT_EQ(from_file.host(), want);
}

// A z-normalised 128 x 128 noise image with a high-variance blob about
// (40,40) and a dark square from (96,96): their cells are condemned, cells
// far from both stay clean, and the mask follows the cells pixel for pixel.
TEST(IceDetect, BlobAndDarkAreaAreCondemnedCleanAreasStayOne) {
  const int N = 128, g = 8;  // cells of 16 px
  IceSettings ice;
  ice.cell = 16;
  ice.lsigma_r = 6.0f;
  ice.lave_r = 8.0f;
  ice.edge = 8.0f;
  ice.lave_min = -1.0f;
  ice.lave_max = 1.0f;
  ice.lsigma_cutoff = 1.3f;
  ice.write_rejected = true;
  std::vector<float> img = uniform(N * N, 7);
  for (int i = 0; i < N * N; i++) {
    const int x = i % N, y = i / N;
    if ((x - 40) * (x - 40) + (y - 40) * (y - 40) < 100) img[i] *= 5.0f;
    if (x >= 96 && y >= 96) img[i] = img[i] * 0.3f - 4.0f;
  }
  Dev<float> mic(img), mask(N * N);
  Dev<unsigned int> grid(g * g, true);
  hcuda_normz_inplace(mic.get(), N * N, 1.0f, 0.0f);
  TempDir dir;
  EXPECT_EQ(hcuda_2d_ice_detect(mic.get(), N, N, int2{2, 9}, grid.get(), dir.file("m.mrc").c_str(), ice), 0);
  hcuda_2d_generate_mask_by_coords(mask.get(), mic.get(), N, N, 16, grid.get(), 0);
  const std::vector<unsigned int> cells = grid.host();
  const std::vector<float> m = mask.host();
  EXPECT_NE(cells[2 * g + 2], 0u);  // the blob's own cell
  EXPECT_NE(cells[7 * g + 7], 0u);  // inside the dark area
  EXPECT_NE(cells[6 * g + 7], 0u);
  for (int gy = 0; gy < g; gy++)
    for (int gx = 0; gx < g; gx++) {
      const unsigned int v = cells[gy * g + gx];
      if ((gx > 4 || gy > 4) && (gx < 5 || gy < 5)) {
        EXPECT_EQ(v, 0u) << gx << "," << gy;
      }
      for (int y = gy * 16; y < gy * 16 + 16; y++)
        for (int x = gx * 16; x < gx * 16 + 16; x++) ASSERT_EQ(m[y * N + x], v ? 0.0f : 1.0f) << x << "," << y;
    }
}

}  // namespace
