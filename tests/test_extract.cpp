// Particle extraction: re-centring, cut-outs at the border, movie order, the
// stack written beside the micrograph, and refusals of unusable box sizes.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "io/boxfile.h"
#include "io/extract.h"
#include "io/mrcfile.h"
#include "support/in_child.h"
#include "support/run.h"

namespace {

// Pixel (x, y) of frame z holds x + 100 y + 10000 z.
std::vector<float> ramp(int nx, int ny, int nz) {
  std::vector<float> v((size_t)nx * ny * nz);
  for (int z = 0; z < nz; z++)
    for (int y = 0; y < ny; y++)
      for (int x = 0; x < nx; x++) v[((size_t)z * ny + y) * nx + x] = (float)(x + 100 * y + 10000 * z);
  return v;
}

float ramp_at(int x, int y, int z, int nx, int ny) {
  return (x < 0 || y < 0 || x >= nx || y >= ny) ? 0.0f : (float)(x + 100 * y + 10000 * z);
}

PTCL_BOX rec(int x, int y, int bx, int by) {
  PTCL_BOX b = one_new_ptcl_box();
  b.x = x;
  b.y = y;
  b.bx = bx;
  b.by = by;
  return b;
}

TEST(Extract, ResizeKeepsTheCentre) {
  std::vector<PTCL_BOX> b = {rec(100, 50, 360, 360), rec(0, 0, 361, 300), rec(7, 7, 10, 10)};
  resize_ptcl_boxes(b.data(), 3, 400);
  EXPECT_EQ(b[0].x, 80);  // -20 in x and y
  EXPECT_EQ(b[0].y, 30);
  EXPECT_EQ(b[1].x, -19);  // (361 - 400) / 2 truncates toward zero
  EXPECT_EQ(b[1].y, -50);
  EXPECT_EQ(b[1].bx, 400);
  EXPECT_EQ(b[1].by, 400);
  resize_ptcl_boxes(b.data() + 2, 1, 5);
  EXPECT_EQ(b[2].x, 9);  // (10 - 5) / 2 = 2
}

TEST(Extract, CutOutsAtTheBorderAndMovieOrder) {
  const int nx = 12, ny = 9, bx = 4, by = 3;
  const std::vector<float> mic = ramp(nx, ny, 2);
  const std::vector<PTCL_BOX> b = {rec(-2, 7, bx, by), rec(3, 2, bx, by), rec(50, 50, bx, by)};
  std::vector<float> out(3 * bx * by, -1.0f);
  cpu_x2d_extract_ptcls_from_micrograph(out.data(), bx, by, 3, mic.data(), nx, ny, b.data());
  for (int i = 0; i < 3; i++)
    for (int y = 0; y < by; y++)
      for (int x = 0; x < bx; x++)
        EXPECT_EQ(out[(i * by + y) * bx + x], ramp_at(b[i].x + x, b[i].y + y, 0, nx, ny)) << i << " " << x << " " << y;

  // Movie: all frames of particle 0, then of particle 1.
  std::vector<float> mov(2 * 2 * bx * by, -1.0f);
  cpu_x2d_extract_ptcls_from_movie(mov.data(), bx, by, 2, 2, mic.data(), nx, ny, b.data());
  for (int i = 0; i < 2; i++)
    for (int z = 0; z < 2; z++)
      for (int y = 0; y < by; y++)
        for (int x = 0; x < bx; x++)
          EXPECT_EQ(mov[(((i * 2 + z) * by) + y) * bx + x], ramp_at(b[i].x + x, b[i].y + y, z, nx, ny));
}

class ExtractFiles : public testing::Test {
 protected:
  TempDir dir;
  std::string mic(int nz, const char* name = "m.mrc") {
    const std::string f = dir.file(name);
    const std::vector<float> v = ramp(40, 30, nz);
    mrcf_write_xyz_data(f.c_str(), v.data(), 40, 30, nz);
    return f;
  }
  std::string picks(const std::string& text, const char* name = "m_vexmatch.box") {
    write_text_file(dir.file(name), text);
    return dir.file(name);
  }
};

TEST_F(ExtractFiles, StackBesideTheMicrograph) {
  const std::string m = mic(1);
  const std::string p = picks("2 3 6 6 0.5 1 10.0\n30 25 6 6 0.4 1 0.0\n");
  EXPECT_EQ(mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), p.c_str(), 8, 0), 0);
  MRC_HEAD h;
  std::vector<float> s(2 * 8 * 8);
  ASSERT_EQ(get_mrcf_head_data(dir.file("m_particles.mrcs").c_str(), &h, s.data()), 0);
  EXPECT_EQ(h.nx, 8);
  EXPECT_EQ(h.ny, 8);
  EXPECT_EQ(h.nz, 2);
  // Corner (2, 3) with box 6 re-centred on 8 is (1, 2); (30, 25) is (29, 24).
  EXPECT_EQ(s[0], ramp_at(1, 2, 0, 40, 30));
  EXPECT_EQ(s[64 + 7 * 8 + 7], 0.0f);  // (36, 31) lies below the micrograph
  EXPECT_EQ(s[64 + 5 * 8 + 7], ramp_at(36, 29, 0, 40, 30));

  // Inverted contrast, and the file's own box size.
  float* inv = get_mrcf_data_ptcls(m.c_str(), p.c_str(), 0, 1);
  EXPECT_EQ(inv[0], -ramp_at(2, 3, 0, 40, 30));
  EXPECT_EQ(inv[36 + 4 * 6 + 5], -ramp_at(35, 29, 0, 40, 30));
  free(inv);
}

TEST_F(ExtractFiles, MovieStackIsParticleMajor) {
  const std::string m = mic(3, "mov.mrcs");
  const std::string p = picks("4 4 2 2\n10 20 2 2\n", "mov.box");
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), p.c_str(), 0, 0);
  MRC_HEAD h;
  std::vector<float> s(6 * 4);
  ASSERT_EQ(get_mrcf_head_data(dir.file("mov_particles.mrcs").c_str(), &h, s.data()), 0);
  EXPECT_EQ(h.nz, 6);
  for (int i = 0; i < 2; i++)
    for (int z = 0; z < 3; z++) EXPECT_EQ(s[(i * 3 + z) * 4], ramp_at(i ? 10 : 4, i ? 20 : 4, z, 40, 30));
}

TEST_F(ExtractFiles, EmptyAndOverlongPickLists) {
  const std::string m = mic(1);
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), picks("").c_str(), 16, 0);
  // A stack of no sections: just the header (which our readers refuse, as
  // they refuse any image without pixels).
  MRC_HEAD h;
  FILE* fp = fopen(dir.file("m_particles.mrcs").c_str(), "r");
  ASSERT_EQ(fread(&h, 1024, 1, fp), 1u);
  EXPECT_EQ(get_file_size(fp), 1024);
  fclose(fp);
  EXPECT_EQ(h.nx, 16);
  EXPECT_EQ(h.ny, 16);
  EXPECT_EQ(h.nz, 0);
  EXPECT_EQ(h.mode, 2);

  std::string many;
  for (int i = 0; i < GVEX_MAX_EXTRACT_PTCLS + 5; i++) many += std::to_string(i % 40) + " 1 1 1\n";
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), picks(many).c_str(), 0, 0);
  mrcf_read_head(dir.file("m_particles.mrcs").c_str(), &h);
  EXPECT_EQ(h.nz, GVEX_MAX_EXTRACT_PTCLS);
}

TEST_F(ExtractFiles, UnusableBoxSizesAreRefused) {
  const std::string m = mic(1);
  struct Case {
    std::string picks;
    int newsize;
    std::string reason;
  };
  const std::string star = "loop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n5 5\n";
  const Case cases[] = {
      {"1 1 -64 64\n", 0, "particle box -64 x 64 in "},
      {"1 1 64 2000000000\n", 0, "particle box 64 x 2000000000 in "},
      {"1 1 64 64\n", -8, "particle box size -8 for "},
      {"1 1 64 64\n", 1 << 30, "particle box size 1073741824 for "},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.picks);
    const std::string p = picks(k.picks);
    ChildOutcome c = run_in_child([&] { mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), p.c_str(), k.newsize, 0); });
    EXPECT_EQ(c.status, 1);
    EXPECT_NE(c.out.find("Error in function mrcf_x2d_extract_ptcls_from_micrograph(), file process2d_mrc on line "),
              std::string::npos)
        << c.out;
    EXPECT_NE(c.out.find(k.reason), std::string::npos) << c.out;
  }
  // STAR picks carry no box: a size must be given.
  const std::string ps = picks(star, "m.star");
  ChildOutcome c = run_in_child([&] { mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), ps.c_str(), 0, 0); });
  EXPECT_NE(c.out.find("particle box 0 x 0 in " + ps), std::string::npos) << c.out;
  mrcf_x2d_extract_ptcls_from_micrograph(m.c_str(), ps.c_str(), 4, 0);
  float* s = get_mrcf_data_sliceN(dir.file("m_particles.mrcs").c_str(), 0);
  EXPECT_EQ(s[0], ramp_at(3, 3, 0, 40, 30));  // centre (5, 5), box 4
  free(s);

  // A micrograph with an extended header fails the exact size check.
  MRC_HEAD* h = get_mrcf_head(m.c_str());
  h->nsymbt = 4;
  FILE* fp = fopen(dir.file("ext.mrc").c_str(), "w");
  fwrite(h, 1024, 1, fp);
  const std::vector<float> v = ramp(40, 30, 2);
  fwrite(v.data(), 4, 40 * 30 + 1, fp);
  fclose(fp);
  mrc_delete_head(h);
  c = run_in_child([&] { mrcf_x2d_extract_ptcls_from_micrograph(dir.file("ext.mrc").c_str(), ps.c_str(), 4, 0); });
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.out.find(": File size error! Exit now!\n"), std::string::npos) << c.out;
}

}  // namespace
