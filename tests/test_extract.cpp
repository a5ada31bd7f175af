// Particle extraction: re-centring, cut-outs at the border, movie order, the
// stack written beside the micrograph, and refusals of unusable box sizes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "io/extract.h"
#include "io/mrcfile.h"
#include "support/capture.h"
#include "support/run.h"

namespace {

const int kNx = 40, kNy = 30;

// Pixel (x, y) of frame z holds x + 100 y + 10000 z; outside the image, 0.
float ramp_at(int x, int y, int z, int nx = kNx, int ny = kNy) {
  return (x < 0 || y < 0 || x >= nx || y >= ny) ? 0.0f : (float)(x + 100 * y + 10000 * z);
}

std::vector<float> ramp(int nx, int ny, int nz) {
  std::vector<float> v;
  for (int i = 0; i < nx * ny * nz; i++) v.push_back(ramp_at(i % nx, i / nx % ny, i / nx / ny, nx, ny));
  return v;
}

PTCL_BOX rec(int x, int y, int bx, int by) { return {x, y, bx, by, 0.0f, 0, 0.0f, 0}; }

TEST(Extract, CutOutsAtTheBorder) {
  const int nx = 12, ny = 9, bx = 4, by = 3;
  const std::vector<float> mic = ramp(nx, ny, 1);
  const std::vector<PTCL_BOX> b = {rec(-2, 7, bx, by), rec(3, 2, bx, by), rec(50, 50, bx, by)};
  std::vector<float> out(3 * bx * by, -1.0f);
  cpu_x2d_extract_ptcls_from_micrograph(out.data(), bx, by, 3, mic.data(), nx, ny, b.data());
  for (int i = 0; i < 3 * bx * by; i++) {
    const PTCL_BOX& p = b[i / (bx * by)];
    EXPECT_EQ(out[i], ramp_at(p.x + i % bx, p.y + i / bx % by, 0, nx, ny)) << i;
  }
}

class ExtractFiles : public testing::Test {
 protected:
  TempDir dir;
  std::string mic(int nz, const char* name = "m.mrc") {
    const std::vector<float> v = ramp(kNx, kNy, nz);
    mrcf_write_xyz_data(dir.file(name).c_str(), v.data(), kNx, kNy, nz);
    return dir.file(name);
  }
  std::string picks(const std::string& text, const char* name = "m_vexmatch.box") {
    write_text_file(dir.file(name), text);
    return dir.file(name);
  }
  std::vector<float> stack(const char* name, int expect_n, int expect_box) {
    MRC_HEAD h;
    mrcf_read_head(dir.file(name).c_str(), &h);
    EXPECT_TRUE(h.nx == expect_box && h.ny == expect_box && h.nz == expect_n && h.mode == 2);
    float* all = get_mrcf_data_all(dir.file(name).c_str());
    std::vector<float> s(all, all + (size_t)h.nx * h.ny * h.nz);
    free(all);
    return s;
  }
};

TEST_F(ExtractFiles, StackBesideTheMicrograph) {
  const std::string m = mic(1);
  const std::string p = picks("2 3 6 6 0.5 1 10.0\n30 25 6 6 0.4 1 0.0\n");
  EXPECT_EQ(mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), p.c_str(), 8, 0), 0);
  const std::vector<float> s = stack("m_particles.mrcs", 2, 8);
  // Corner (2, 3) with box 6 re-centred on 8 is (1, 2); (30, 25) is (29, 24).
  EXPECT_EQ(s[0], ramp_at(1, 2, 0));
  EXPECT_EQ(s[64 + 5 * 8 + 7], ramp_at(36, 29, 0));
  EXPECT_EQ(s[64 + 7 * 8 + 7], 0.0f);  // (36, 31) lies below the micrograph

  // Inverted contrast, and the file's own box size.
  float* inv = get_mrcf_data_ptcls(m.c_str(), p.c_str(), 0, 1);
  EXPECT_EQ(inv[0], -ramp_at(2, 3, 0));
  EXPECT_EQ(inv[36 + 4 * 6 + 5], -ramp_at(35, 29, 0));
  free(inv);
}

TEST_F(ExtractFiles, EmptyAndOverlongPickLists) {
  const std::string m = mic(1);
  // No picks: a stack of no sections, just the header (which our readers
  // refuse, as they refuse any image without pixels).
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), picks("").c_str(), 16, 0);
  const std::string empty = read_text_file(dir.file("m_particles.mrcs"));
  ASSERT_EQ(empty.size(), 1024u);
  MRC_HEAD h;
  memcpy(&h, empty.data(), 1024);
  EXPECT_TRUE(h.nx == 16 && h.ny == 16 && h.nz == 0 && h.mode == 2);

  std::string many;
  for (int i = 0; i < GVEX_MAX_EXTRACT_PTCLS + 5; i++) many += std::to_string(i % 40) + " 1 1 1\n";
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), picks(many).c_str(), 0, 0);
  stack("m_particles.mrcs", GVEX_MAX_EXTRACT_PTCLS, 1);
}

TEST_F(ExtractFiles, UnusableBoxSizesAreRefused) {
  const std::string m = mic(1);
  const std::string star = picks("loop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n5 5\n", "m.star");
  const struct {
    std::string picks;
    int newsize;
    std::string reason;
  } cases[] = {
      {"1 1 -64 64\n", 0, "particle box -64 x 64 in "}, {"1 1 64 2000000000\n", 0, "particle box 64 x 2000000000 in "},
      {"1 1 64 64\n", -8, "particle box size -8 for "}, {"1 1 64 64\n", 1 << 30, "particle box size 1073741824 for "},
      {"", 0, "particle box 0 x 0 in " + star},  // STAR picks carry no box: a size must be given
  };
  for (const auto& k : cases) {
    const std::string p = k.picks.empty() ? star : picks(k.picks);
    Captured c = capture_run([&] { mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), p.c_str(), k.newsize, 0); });
    EXPECT_EQ(c.status, 1);
    EXPECT_NE(c.out.find("Error in function mrcf_x2d_extract_ptcls_from_micrograph(), file process2d_mrc on line "),
              std::string::npos)
        << c.out;
    EXPECT_NE(c.out.find(k.reason), std::string::npos) << c.out;
  }
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), star.c_str(), 4, 0);
  EXPECT_EQ(stack("m_particles.mrcs", 1, 4)[0], ramp_at(3, 3, 0));  // centre (5, 5), box 4
}

}  // namespace
