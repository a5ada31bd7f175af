// Ice and contamination cells, excluded coordinates and the usable-area mask.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "gpu/math_utils.h"
#include "match/ice.h"
#include "match/peaks.h"
#include "picker/params.h"
#include "support/run.h"

namespace {

template <class T>
std::vector<T> to_host(const T* d, size_t n) {
  std::vector<T> h(n);
  memcpy_D2H(h.data(), d, n * sizeof(T));
  return h;
}

template <class T>
void to_device(T* d, const std::vector<T>& h) {
  memcpy_H2D(d, h.data(), h.size() * sizeof(T));
}

struct CellRecords {
  std::vector<unsigned int> grid;
  std::vector<float> ave, sigma;
};

CellRecords find_cells(const std::vector<float>& lave, const std::vector<float>& lsigma, int nx, int ny, int c) {
  const size_t n = lave.size(), ng = (size_t)gvex_grid_size(nx, c) * gvex_grid_size(ny, c);
  DeviceArray<float> d_ave(n), d_sig(n), c_ave(ng), c_sig(ng);
  DeviceArray<unsigned int> grid(ng);
  to_device(d_ave.get(), lave);
  to_device(d_sig.get(), lsigma);
  hcuda_find_sigma_grids(d_ave.get(), d_sig.get(), grid.get(), c_ave.get(), c_sig.get(), nx, ny, c, -1.0f, 1.0f, 1.3f);
  return {to_host(grid.get(), ng), to_host(c_ave.get(), ng), to_host(c_sig.get(), ng)};
}

TEST(IceCells, RecordsInteractAndTheFirstPixelNeverCondemns) {
  const int nx = 20, ny = 10, c = 10;  // two cells side by side
  std::vector<float> ave(nx * ny, 0.0f), sig(nx * ny, 0.5f);
  // Cell 0: a first pixel far beyond every cutoff stays alone: clean.
  sig[0] = 5.0f;
  ave[0] = 4.0f;
  // Cell 1: sigma 2.0 sets the record (ave 0.5 goes with it); then a bright
  // pixel of lower sigma takes the record through the average criterion and
  // lowers the recorded sigma to 1.5; so a later sigma of 1.8 condemns again.
  sig[2 * nx + 12] = 2.0f;
  ave[2 * nx + 12] = 0.5f;
  sig[4 * nx + 15] = 1.5f;
  ave[4 * nx + 15] = 1.2f;
  sig[7 * nx + 11] = 1.8f;
  ave[7 * nx + 11] = 1.0f;
  CellRecords r = find_cells(ave, sig, nx, ny, c);
  EXPECT_EQ(r.grid[0], 0u);
  EXPECT_EQ(r.sigma[0], 5.0f);
  EXPECT_EQ(r.ave[0], 4.0f);
  EXPECT_EQ(r.grid[1], (unsigned)(7 * nx + 11));
  EXPECT_EQ(r.sigma[1], 1.8f);
  EXPECT_EQ(r.ave[1], 1.0f);
}

TEST(IceCells, DarkAreasAndNarrowLastCells) {
  const int nx = 25, ny = 25, c = 10;  // 3 x 3 cells, the last ones 5 px wide
  std::vector<float> ave(nx * ny, 0.0f), sig(nx * ny, 0.5f);
  ave[22 * nx + 23] = -1.5f;   // cell (2,2)
  ave[3 * nx + 4] = -1.0f;     // cell (0,0): equal to lave_min is not below it
  sig[13 * nx + 14] = 1.3f;    // cell (1,1): equal to the cutoff is not above it
  CellRecords r = find_cells(ave, sig, nx, ny, c);
  for (int g = 0; g < 8; g++) EXPECT_EQ(r.grid[g], 0u) << g;
  EXPECT_EQ(r.grid[8], (unsigned)(22 * nx + 23));
  EXPECT_EQ(r.ave[8], -1.5f);
}

TEST(ExcludedCoords, LaterRecordWinsAndOffImageIsIgnored) {
  const int nx = 64, ny = 48, c = 16, gnx = 4, ng = 12;
  DeviceArray<unsigned int> grid(ng, true);
  std::vector<PTCL_BOX> b(5, PTCL_BOX{});
  // Micrograph pixels, shrink 2: centres (40+8, 20+8)/2 = (24, 14) -> cell (1,0),
  // then (60+4, 2+4)/2 = (32, 3) -> cell (2,0); a STAR-style centre
  // (50, 10)/2 = (25, 5) again in cell (1,0), later, so it stays.
  b[0] = PTCL_BOX{40, 20, 16, 16, 0, 0, 0, 0};
  b[1] = PTCL_BOX{60, 2, 8, 8, 0, 0, 0, 0};
  b[2] = PTCL_BOX{50, 10, 0, 0, 0, 0, 0, 0};
  b[3] = PTCL_BOX{-30, 10, 16, 16, 0, 0, 0, 0};  // centre left of the image
  b[4] = PTCL_BOX{200, 90, 0, 0, 0, 0, 0, 0};    // (100, 45): beyond nx
  EXPECT_EQ(add_excluded_coords_to_ice(grid.get(), nx, ny, c, b.data(), 5, 2), 0);
  std::vector<unsigned int> g = to_host(grid.get(), ng);
  std::vector<unsigned int> want(ng, 0u);
  want[0 * gnx + 1] = 5 * nx + 25;
  want[0 * gnx + 2] = 3 * nx + 32;
  EXPECT_EQ(g, want);
}

TEST(ExcludedCoords, FromAFileWhenItCanBeRead) {
  TempDir dir;
  const std::string box = dir.file("ex.box");
  write_text_file(box, "40 20 16 16\n60 2 8 8\n");
  const int nx = 64, ny = 48, c = 16, ng = 12;
  DeviceArray<unsigned int> grid(ng, true);
  std::vector<char> p(box.begin(), box.end());
  p.push_back(0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(add_excluded_boxf_to_ice(grid.get(), nx, ny, c, p.data(), 2), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "       2 particles in file " + box + " excluded from auto-picking \n");
  std::vector<unsigned int> g = to_host(grid.get(), ng);
  EXPECT_EQ(g[1], (unsigned)(14 * nx + 24));
  EXPECT_EQ(g[2], (unsigned)(3 * nx + 32));

  // Absent or unnamed files change nothing and say nothing.
  std::string absent = dir.file("absent.box");
  std::vector<char> a(absent.begin(), absent.end());
  a.push_back(0);
  char null_name[] = "NULL";
  DeviceArray<unsigned int> clean(ng, true);
  testing::internal::CaptureStdout();
  add_excluded_boxf_to_ice(clean.get(), nx, ny, c, a.data(), 2);
  add_excluded_boxf_to_ice(clean.get(), nx, ny, c, null_name, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(to_host(clean.get(), ng), std::vector<unsigned int>(ng, 0u));
}

TEST(UsableMask, CellGranularity) {
  const int nx = 25, ny = 20, c = 10;  // 3 x 2 cells
  DeviceArray<unsigned int> grid(6, true);
  std::vector<unsigned int> g(6, 0u);
  g[2] = 7 * nx + 21;  // cell (2,0), a narrow one
  g[3] = 15 * nx + 3;  // cell (0,1)
  to_device(grid.get(), g);
  DeviceArray<float> mask(nx * ny);
  hcuda_2d_generate_mask_by_coords(mask.get(), nullptr, nx, ny, c, grid.get(), 0);
  std::vector<float> m = to_host(mask.get(), nx * ny);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const bool bad = (x >= 20 && y < 10) || (x < 10 && y >= 10);
      ASSERT_EQ(m[y * nx + x], bad ? 0.0f : 1.0f) << x << "," << y;
    }
  hcuda_2d_generate_mask_by_coords(mask.get(), nullptr, nx, ny, c, grid.get(), 1);
  m = to_host(mask.get(), nx * ny);
  EXPECT_EQ(m[0], 0.0f);
  EXPECT_EQ(m[5 * nx + 22], 1.0f);
}

// A 128 x 128 noise image with a high-variance blob and a dark patch,
// z-normalised as the pipeline does before ice detection.
class IceDetect : public ::testing::Test {
 protected:
  static constexpr int N = 128;
  void SetUp() override {
    p = new GVexMatch_Para;
    gvexmatch_init_parameters(1, p);
    p->apixM = 1.0f;
    p->shrink = 1;
    p->min_dist = 22.7f;  // cells of 16 px, 8 x 8
    p->min_dist_px = 22.7f;
    p->lsigma_r = 6.0f;
    p->lave_r = 8.0f;
    p->write_rejected_box = 0;
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    img.resize(N * N);
    for (int y = 0; y < N; y++)
      for (int x = 0; x < N; x++) {
        float v = noise(rng);
        const float dx = x - 40.0f, dy = y - 40.0f;
        if (dx * dx + dy * dy < 100.0f) v *= 5.0f;  // contamination-like blob
        if (x >= 96 && y >= 96) v = v * 0.3f - 4.0f;  // thick, dark area
        img[y * N + x] = v;
      }
  }
  void TearDown() override { gvexmatch_delete_parameters(p); }

  std::vector<unsigned int> detect(const std::string& name) {
    DeviceArray<float> mic(N * N);
    to_device(mic.get(), img);
    hcuda_normz_inplace(mic.get(), N * N, 1.0f, 0.0f);
    DeviceArray<unsigned int> grid(64, true);
    EXPECT_EQ(hcuda_2d_ice_detect(mic.get(), N, N, int2{2, 9}, grid.get(), name.c_str(), p), 0);
    DeviceArray<float> mask(N * N);
    hcuda_2d_generate_mask_by_coords(mask.get(), mic.get(), N, N, 16, grid.get(), 0);
    mask_h = to_host(mask.get(), N * N);
    return to_host(grid.get(), 64);
  }

  GVexMatch_Para* p = nullptr;
  std::vector<float> img, mask_h;
};

TEST_F(IceDetect, BlobAndDarkAreaAreCondemnedCleanAreasStayOne) {
  TempDir dir;
  p->write_rejected_box = 1;
  p->write_bg_mic = 1;
  p->write_lsigma_mic = 1;
  const std::string mic = dir.file("m.mrc");
  std::vector<unsigned int> g = detect(mic);
  EXPECT_NE(g[2 * 8 + 2], 0u);  // the blob's own cell
  EXPECT_NE(g[7 * 8 + 7], 0u);  // inside the dark area
  EXPECT_NE(g[6 * 8 + 7], 0u);
  // Cells far from both are clean, and so is every pixel of them in the mask.
  for (int gy = 0; gy < 8; gy++)
    for (int gx = 0; gx < 8; gx++) {
      const bool near_blob = gx <= 4 && gy <= 4;
      const bool near_dark = gx >= 5 && gy >= 5;
      const int cell = gy * 8 + gx;
      if (!near_blob && !near_dark) {
        EXPECT_EQ(g[cell], 0u) << gx << "," << gy;
      }
      for (int y = gy * 16; y < gy * 16 + 16; y++)
        for (int x = gx * 16; x < gx * 16 + 16; x++)
          ASSERT_EQ(mask_h[y * N + x], g[cell] ? 0.0f : 1.0f) << x << "," << y;
      // A condemning position lies inside its own cell.
      if (g[cell]) {
        EXPECT_EQ((int)(g[cell] % N) / 16, gx);
        EXPECT_EQ((int)(g[cell] / N) / 16, gy);
      }
    }
  EXPECT_TRUE(file_exists(dir.file("m_rejected.box")));
  const std::string star = read_text_file(dir.file("m_rejected.star"));
  EXPECT_EQ(star.rfind("\ndata_\n", 0), 0u);
  EXPECT_FALSE(read_text_file(dir.file("m_rejected.box")).empty());
  EXPECT_EQ(read_text_file(dir.file("m_bg.mrc")).size(), 1024u + N * N * 4);
  EXPECT_EQ(read_text_file(dir.file("m_lsigma.mrc")).size(), 1024u + N * N * 4);
  EXPECT_FALSE(file_exists(dir.file("m_mask.mrc")));
}

TEST_F(IceDetect, PlainNoiseLeavesEverythingUsable) {
  std::mt19937 rng(11);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  for (float& v : img) v = noise(rng);
  TempDir dir;
  std::vector<unsigned int> g = detect(dir.file("clean.mrc"));
  EXPECT_EQ(g, std::vector<unsigned int>(64, 0u));
  for (float v : mask_h) ASSERT_EQ(v, 1.0f);
  // Nothing asked for, nothing written.
  EXPECT_FALSE(file_exists(dir.file("clean_rejected.box")));
  EXPECT_FALSE(file_exists(dir.file("clean_bg.mrc")));
}

}  // namespace
