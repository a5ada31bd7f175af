// MRC image files: readers of every mode, the writers and the headers they
// write, size checks, and the fatal paths for headers that cannot describe
// their file. An independent reader checks written files in mrc_validate.py.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/host_image.h"
#include "common/owned.h"
#include "io/mrcfile.h"
#include "picker/prefetch.h"
#include "support/capture.h"
#include "support/run.h"

namespace {

MRC_HEAD make_head(int nx, int ny, int nz, int mode) {
  MRC_HEAD* h = mrc_new_head();
  mrc_set_head_xyz_mode(h, nx, ny, nz, mode);
  MRC_HEAD copy = *h;
  mrc_delete_head(h);
  return copy;
}

// Writes a header and raw data bytes as they are.
void write_raw(const std::string& path, const MRC_HEAD& head, const void* data, size_t bytes) {
  FILE* fp = fopen(path.c_str(), "wb");
  fwrite(&head, 1024, 1, fp);
  if (bytes) fwrite(data, 1, bytes, fp);
  fclose(fp);
}

template <class T>
void write_mode(const std::string& path, int nx, int ny, int nz, int mode, const std::vector<T>& v) {
  write_raw(path, make_head(nx, ny, nz, mode), v.data(), v.size() * sizeof(T));
}

std::vector<float> ramp(int n, float offset) {
  std::vector<float> v(n);
  for (int i = 0; i < n; i++) v[i] = (float)i * 0.5f + offset;
  return v;
}

// Status 1 and the fatal line of func naming the reason.
void expect_fatal(const Captured& r, const std::string& func, const std::string& reason) {
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("Error in function " + func + "(), file mrcfile on line "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(reason), std::string::npos) << r.out;
}

// Section z of a file, through the stream reader the picker uses.
std::vector<float> section(const std::string& f, int z) {
  FILE* fp = fopen(f.c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(fp, &h);
  std::vector<float> v((size_t)h.nx * h.ny);
  mrc_read_slice(fp, &h, z, 'z', v.data());
  fclose(fp);
  return v;
}

void section16(const std::string& f) {
  OwnedFile fp(fopen(f.c_str(), "r"));
  MRC_HEAD h;
  mrc_read_head(fp.get(), &h);
  std::vector<float> v((size_t)h.nx * h.ny);
  mrc_read_slice(fp.get(), &h, 0, 'z', v.data(), true);
}

// Every readable mode: slices along z, y and x, and the whole-file reader.
TEST(MrcRead, EveryReadableModeRoundTrips) {
  TempDir dir;
  const int nx = 3, ny = 2, nz = 2, n = nx * ny * nz;
  const std::vector<uint8_t> v0 = {0, 1, 2, 3, 4, 255, 10, 11, 12, 13, 14, 15};
  const std::vector<int16_t> v1 = {-1, 1, 2, 3, 4, -32768, 10, 11, 12, 13, 14, 32767};
  const std::vector<float> v2 = ramp(n, -2.25f);
  const std::vector<uint16_t> v6 = {65535, 1, 2, 3, 4, 40000, 10, 11, 12, 13, 14, 15};
  write_mode(dir.file("0.mrc"), nx, ny, nz, 0, v0);
  write_mode(dir.file("1.mrc"), nx, ny, nz, 1, v1);
  write_mode(dir.file("2.mrc"), nx, ny, nz, 2, v2);
  write_mode(dir.file("6.mrc"), nx, ny, nz, 6, v6);
  std::vector<float> e6s;  // mode 6 read whole is signed: 65535 is -1
  for (uint16_t u : v6) e6s.push_back((float)(int16_t)u);
  const struct {
    const char* file;
    std::vector<float> by_slice, whole;
  } cases[] = {{"0.mrc", {v0.begin(), v0.end()}, {v0.begin(), v0.end()}},
               {"1.mrc", {v1.begin(), v1.end()}, {v1.begin(), v1.end()}},
               {"2.mrc", v2, v2},
               {"6.mrc", {v6.begin(), v6.end()}, e6s}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string f = dir.file(c.file);
    const std::vector<float>& s = c.by_slice;
    for (int z = 0; z < nz; z++)
      EXPECT_EQ(section(f, z), std::vector<float>(&s[z * nx * ny], &s[(z + 1) * nx * ny]));
    float* all = get_mrcf_data_all(f.c_str());
    EXPECT_EQ(std::vector<float>(all, all + n), c.whole);
    free(all);

    // Row 1 of every section, and column 2 of every row.
    FILE* fp = fopen(f.c_str(), "r");
    MRC_HEAD h;
    ASSERT_EQ(mrc_read_head(fp, &h), 0);
    float y1[nx * nz], x2[ny * nz];
    EXPECT_EQ(mrc_read_slice(fp, &h, 1, 'Y', y1), 0);
    EXPECT_EQ(mrc_read_slice(fp, &h, 2, 'x', x2), 0);
    for (int i = 0; i < nx * nz; i++) EXPECT_EQ(y1[i], s[i / nx * nx * ny + nx + i % nx]);
    for (int i = 0; i < ny * nz; i++) EXPECT_EQ(x2[i], s[i * nx + 2]);
    fclose(fp);
  }
}

// Mode 12 (IEEE half floats) only for a reader that asks: normal, subnormal,
// signed zero, the largest half, infinity; the read-ahead takes it likewise.
// Without asking, the mode stays unreadable and the output untouched.
TEST(MrcRead, Float16OnlyWhenAsked) {
  TempDir dir;
  const std::vector<uint16_t> halves = {0x3C00, 0xC000, 0x3555, 0x0001, 0x03FF, 0x8000, 0x7BFF, 0x7C00, 0x0000};
  const std::vector<float> want = {1.0f, -2.0f, 0.333251953125f, 5.9604644775390625e-8f, 6.097555160522461e-5f,
                                   -0.0f, 65504.0f, INFINITY, 0.0f};
  const std::string f = dir.file("h.mrc");
  write_mode(f, 3, 3, 1, 12, halves);
  EXPECT_FALSE(mrc_mode_is_readable(12));
  EXPECT_TRUE(mrc_mode_is_readable(12, true));
  FILE* fp = fopen(f.c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(fp, &h);
  std::vector<float> out(9, 7.0f);
  mrc_read_slice(fp, &h, 0, 'z', out.data());
  EXPECT_EQ(out, std::vector<float>(9, 7.0f));
  mrc_read_slice(fp, &h, 0, 'z', out.data(), true);
  EXPECT_EQ(out, want);
  EXPECT_TRUE(std::signbit(out[5]));
  float column[3];
  mrc_read_slice(fp, &h, 1, 'x', column, true);  // 2-byte strides along x
  EXPECT_EQ(std::vector<float>(column, column + 3), std::vector<float>({-2.0f, 6.097555160522461e-5f, INFINITY}));
  fclose(fp);
  const MRC_HEAD ref = make_head(3, 3, 1, 12);
  MicPrefetch plain(ref, 1, 2), f16(ref, 1, 2, 1, true);
  for (MicPrefetch* ahead : {&plain, &f16}) {
    HostBuffer<float> r(9), s(4);
    OwnedFile in(fopen(f.c_str(), "r"));
    MRC_HEAD got;
    mrc_read_head(in.get(), &got);
    ahead->start(f);
    EXPECT_EQ(ahead->take(f, in.get(), got, r, s), ahead == &f16);
  }
  // A file too short for its half floats says so.
  write_mode(dir.file("short.mrc"), 3, 3, 1, 12, std::vector<uint16_t>(5, 0));
  expect_fatal(capture_run([&] { section16(dir.file("short.mrc")); }), "mrc_read_slice",
               "is too short for image 0 of 3 x 3 half floats");
}

TEST(MrcRead, ExactSizeCheck) {
  TempDir dir;
  // Extended header: the exact size check fails, slices still start at 1024,
  // the whole reader ends the run.
  const std::string ext = dir.file("ext.mrc");
  MRC_HEAD h = make_head(2, 2, 1, 2);
  h.nsymbt = 8;
  const std::vector<float> v = {9, 8, 7, 6, 0, 0};
  write_raw(ext, h, v.data(), 24);
  FILE* fp = fopen(ext.c_str(), "r");
  MRC_HEAD r;
  mrc_read_head(fp, &r);
  const std::string out = stdout_of([&] { EXPECT_EQ(mrc_check_fsize(fp, &r), -1); });
  EXPECT_EQ(out.rfind("File size 1048  4 xyz 16Warning in function mrc_check_fsize(), file mrcfile on line ", 0), 0u)
      << out;
  EXPECT_NE(out.find(": File size error!\n"), std::string::npos);
  float s[4];
  mrc_read_slice(fp, &r, 0, 'z', s);
  EXPECT_EQ(s[0], 9.0f);
  fclose(fp);
  expect_fatal(capture_run([&] { free(get_mrcf_data_all(ext.c_str())); }), "get_mrcf_data_all",
               ": File size error! Exit now!\n");
}

// Images beyond the stack, and a header from elsewhere that does not fit the
// stream, end with the image named.
TEST(MrcRead, ReadsBeyondTheFileAreFatal) {
  TempDir dir;
  const std::string f = dir.file("two.mrcs");
  write_mode(f, 2, 2, 2, 2, ramp(8, 0.0f));
  std::vector<float> out(16);
  MRC_HEAD two;
  mrcf_read_head(f.c_str(), &two);
  expect_fatal(capture_run([&] { mrc_read_slice(fopen(f.c_str(), "r"), &two, 2, 'z', out.data()); }),
               "mrc_read_slice", "file " + f + " has no plane 2 along z (it holds 2)");
  MRC_HEAD h = make_head(4, 4, 1, 2);  // 64 bytes, the file holds 32
  expect_fatal(capture_run([&] { mrc_read_slice(fopen(f.c_str(), "r"), &h, 0, 'z', out.data()); }), "mrc_read_slice",
               f + " is too short for image 0 of 4 x 4 floats");
}

TEST(MrcRead, DifferentSizesPrintTheTableAndExit) {
  const MRC_HEAD a = make_head(4096, 4096, 1, 2);
  const MRC_HEAD b = make_head(4096, 3710, 1, 6), c = make_head(4096, 4096, 1, 1);
  EXPECT_EQ(check_mrc_head_sizes_two("a.mrc", "a2.mrc", &a, &a), 0);
  Captured r = capture_run([&] { check_mrc_head_sizes_two("b.mrc", "a.mrc", &b, &a); });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "Micrograph \033[1mb.mrc\033[m has a different size or format from  \033[1ma.mrc\033[m.\n"
            "Check if all the micrographs are the same sizes and format? \n "
            "      Nx      Ny      Nz      Mode             File:\n"
            "      4096    3710    1       Unsigned Short      b.mrc\n"
            "      4096    4096    1       Float               a.mrc\n");
  EXPECT_EQ(capture_run([&] { check_mrc_head_sizes_two("a.mrc", "c.mrc", &a, &c); }).status, 1);  // mode only
}

// The picker's read-ahead hands over the pixels and working image of the
// micrograph it read, once, and only while that file is unchanged; bad or
// missing files are left to the run's own read, silently.
TEST(MrcRead, ReadAheadServesOnlyTheUnchangedFileItRead) {
  TempDir dir;
  const MRC_HEAD ref = make_head(12, 10, 1, 2);
  const std::string a = dir.file("a.mrc"), b = dir.file("b.mrc");
  write_mode(a, 12, 10, 1, 2, ramp(120, -3.0f));
  write_mode(dir.file("short.mrc"), 12, 10, 1, 2, ramp(100, 0.0f));
  write_mode(dir.file("other.mrc"), 10, 12, 1, 2, ramp(120, 0.0f));
  std::vector<float> raw = section(a, 0), shrunk(36);
  cpu_2d_meanshrink_extended_even_square(shrunk.data(), raw.data(), 12, 10, 2);
  MicPrefetch ahead(ref, 2, 6);
  HostBuffer<float> r(120), s(36);
  auto take = [&](const std::string& name) {
    OwnedFile fp(fopen(a.c_str(), "r"));
    MRC_HEAD h;
    mrc_read_head(fp.get(), &h);
    return ahead.take(name, fp.get(), h, r, s);
  };
  const std::string said = stdout_of([&] {
    ahead.start(a);
    ASSERT_TRUE(take(a));
    EXPECT_EQ(std::vector<float>(r.data(), r.data() + 120), raw);
    EXPECT_EQ(std::vector<float>(s.data(), s.data() + 36), shrunk);
    EXPECT_FALSE(take(a));  // once
    ahead.start(a);
    EXPECT_FALSE(take(b));  // another micrograph's turn: the read is kept for a
    EXPECT_TRUE(take(a));
    for (const char* bad : {"none.mrc", "short.mrc", "other.mrc"}) {
      ahead.start(dir.file(bad));
      EXPECT_FALSE(take(dir.file(bad))) << bad;
    }
    ahead.start(a);
    ahead.wait();
    write_mode(b, 12, 10, 1, 2, ramp(120, -3.0f));  // the same bytes in another file
    rename(b.c_str(), a.c_str());
    EXPECT_FALSE(take(a));
  });
  EXPECT_EQ(said, "");  // failures included: they show here
}

// What the writers write is checked by mrc_validate.py; here, what they refuse.
TEST(MrcWrite, Refusals) {
  TempDir dir;
  const std::vector<float> v = {3, 1, 2, 6};
  MRC_HEAD* h = mrc_new_head();
  mrc_set_head_xyz(h, 2, 2, 1);
  // An unstamped header is written all the same, after a warning.
  memset(h->map, 0, 4);
  FILE* fp = fopen(dir.file("u.mrc").c_str(), "w+");
  EXPECT_NE(stdout_of([&] { mrc_write_head_data(fp, h, v.data()); }).find(": MRC format problem! Check file format!\n"),
            std::string::npos);
  fclose(fp);

  mrc_delete_head(h);

  const std::string nowhere = dir.file("no/such/dir.mrc");
  Captured c = capture_run([&] { mrcf_write_xyz_data(nowhere.c_str(), v.data(), 2, 2, 1); });
  expect_fatal(c, "mrcf_write_xyz_data", "open file failed.! Exit now!\n");
  EXPECT_EQ(c.out.rfind("Cannot write to file " + nowhere + ". Permission denied or no space left!\n", 0), 0u);
}

}  // namespace
