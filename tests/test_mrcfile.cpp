// MRC image files: header layout and defaults, readers of every mode, the
// writers, size checks, and the fatal paths for headers that cannot
// describe their file.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/records.h"
#include "gpu/device.h"
#include "io/mrcfile.h"
#include "support/in_child.h"
#include "support/run.h"

namespace {

// A header as our constructor makes it, with the given sizes and mode.
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
  ASSERT_NE(fp, nullptr);
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

long get_file_size_of(const std::string& path) {
  FILE* fp = fopen(path.c_str(), "r");
  if (!fp) return -1;
  const long n = get_file_size(fp);
  fclose(fp);
  return n;
}

bool starts_with(const std::string& s, const std::string& p) { return s.compare(0, p.size(), p) == 0; }

// The fatal line of func with the given reason, up to the line number.
void expect_fatal(const ChildOutcome& r, const std::string& func, const std::string& module,
                  const std::string& reason_part) {
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  const std::string head = "Error in function " + func + "(), file " + module + " on line ";
  EXPECT_NE(r.out.find(head), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(reason_part), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("! Exit now!\n"), std::string::npos) << r.out;
}

TEST(MrcHead, ConstructorDefaultsAndStamp) {
  MRC_HEAD* h = mrc_new_head();
  const unsigned char* b = reinterpret_cast<const unsigned char*>(h);
  EXPECT_EQ(h->nx, 1);
  EXPECT_EQ(h->ny, 1);
  EXPECT_EQ(h->nz, 1);
  EXPECT_EQ(h->mode, 2);
  EXPECT_EQ(h->mx, 1);
  EXPECT_EQ(h->mz, 1);
  EXPECT_EQ(h->zlen, 1.0f);
  EXPECT_EQ(h->gamma, 90.0f);
  EXPECT_EQ(h->mapc * 100 + h->mapr * 10 + h->maps, 123);
  EXPECT_EQ(h->amin, 0.0f);
  EXPECT_EQ(h->amax, 255.0f);
  EXPECT_EQ(h->amean, 128.0f);
  EXPECT_EQ(h->ispg, 1);
  EXPECT_EQ(h->creatid, 1000);
  EXPECT_EQ(memcmp(b + 208, "MAP DA\0\0", 8), 0);
  // Bytes the constructor does not set are zeros.
  for (int i = 98; i < 196; i++) EXPECT_EQ(b[i], 0) << "byte " << i;
  for (int i = 216; i < 1024; i++) EXPECT_EQ(b[i], 0) << "byte " << i;
  mrc_delete_head(h);
}

TEST(MrcHead, SettersAndShapeChecks) {
  MRC_HEAD h = make_head(1, 1, 1, 2);
  mrc_set_head_xyz_mmm(&h, 6, 4, 2, 9.0f, -3.0f, 1.5f);  // min > max: swapped
  EXPECT_EQ(h.amin, -3.0f);
  EXPECT_EQ(h.amax, 9.0f);
  EXPECT_EQ(h.amean, 1.5f);
  EXPECT_EQ(mrc_check_even_size(&h), 0);
  EXPECT_FALSE(is_mrc_square(&h));
  mrc_set_head_xyz(&h, 5, 5, 5);
  EXPECT_EQ(mrc_check_even_size(&h), -1);
  EXPECT_TRUE(is_mrc_square(&h));
  EXPECT_TRUE(is_mrc_cube(&h));
  const float d[4] = {2.0f, -1.0f, 7.0f, 0.0f};
  mrc_set_head_mmm_from_data(&h, d, 4);
  EXPECT_EQ(h.amax, 7.0f);
  EXPECT_EQ(h.amin, -1.0f);
  EXPECT_EQ(h.amean, 2.0f);

  EXPECT_EQ(mrc_check_head(&h), 0);
  h.map[1] = 'X';
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_check_head(&h), -1);
  EXPECT_EQ(mrc_check_head(nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n"
            "Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n");
}

TEST(MrcModes, NamesSizesAndReadability) {
  EXPECT_STREQ(mrc_mode_name(0), "Byte");
  EXPECT_STREQ(mrc_mode_name(6), "Unsigned Short");
  EXPECT_STREQ(mrc_mode_name(21), "Complex Float (Amp, Rad)");
  EXPECT_STREQ(mrc_mode_name(5), "Unknown");
  const int modes[] = {0, 1, 2, 3, 4, 6, 16, 20, 21, 22};
  const int sizes[] = {1, 2, 4, 4, 8, 2, 0, 8, 8, 8};
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(mrc_mode_element_size(modes[i]), sizes[i]) << modes[i];
    EXPECT_EQ(mrc_mode_is_readable(modes[i]), modes[i] <= 2 || modes[i] == 6) << modes[i];
  }
}

// Every readable mode: slices along z, y and x, the whole-file readers and
// the double and byte outputs.
TEST(MrcRead, EveryReadableModeRoundTrips) {
  TempDir dir;
  const int nx = 3, ny = 2, nz = 2;
  const std::string f0 = dir.file("m0.mrc"), f1 = dir.file("m1.mrc"), f2 = dir.file("m2.mrc"),
                    f6 = dir.file("m6.mrc");
  std::vector<uint8_t> v0 = {0, 1, 2, 3, 4, 255, 10, 11, 12, 13, 14, 15};
  std::vector<int16_t> v1 = {-1, 1, 2, 3, 4, -32768, 10, 11, 12, 13, 14, 32767};
  std::vector<float> v2 = ramp(12, -2.25f);
  std::vector<uint16_t> v6 = {65535, 1, 2, 3, 4, 40000, 10, 11, 12, 13, 14, 15};
  write_mode(f0, nx, ny, nz, 0, v0);
  write_mode(f1, nx, ny, nz, 1, v1);
  write_mode(f2, nx, ny, nz, 2, v2);
  write_mode(f6, nx, ny, nz, 6, v6);

  auto expect_as = [&](const std::string& f, const std::vector<float>& slice_vals,
                       const std::vector<float>& all_vals) {
    SCOPED_TRACE(f);
    for (int z = 0; z < nz; z++) {
      float* s = get_mrcf_data_sliceN(f.c_str(), z);
      for (int i = 0; i < nx * ny; i++) EXPECT_EQ(s[i], slice_vals[z * nx * ny + i]) << z << " " << i;
      free(s);
    }
    float* a = get_mrcf_data_all(f.c_str());
    for (int i = 0; i < nx * ny * nz; i++) EXPECT_EQ(a[i], all_vals[i]) << i;
    free(a);

    FILE* fp = fopen(f.c_str(), "r");
    MRC_HEAD h;
    ASSERT_EQ(mrc_read_head(fp, &h), 0);
    // Row 1 of every section, then column 2 of every row of every section.
    float y1[nx * nz], x2[ny * nz];
    EXPECT_EQ(mrc_read_slice(fp, &h, 1, 'Y', y1), 0);
    for (int z = 0; z < nz; z++)
      for (int i = 0; i < nx; i++) EXPECT_EQ(y1[nx * z + i], slice_vals[z * nx * ny + nx + i]);
    EXPECT_EQ(mrc_read_slice(fp, &h, 2, 'x', x2), 0);
    for (int i = 0; i < ny * nz; i++) EXPECT_EQ(x2[i], slice_vals[i * nx + 2]);
    double d[nx * ny];
    EXPECT_EQ(mrc_read_slice_double(fp, &h, 1, 'z', d), 0);
    for (int i = 0; i < nx * ny; i++) EXPECT_EQ(d[i], (double)slice_vals[nx * ny + i]);
    // Another letter reads nothing.
    float untouched[nx * ny];
    for (float& u : untouched) u = 42.0f;
    EXPECT_EQ(mrc_read_slice(fp, &h, 0, 'w', untouched), 0);
    for (float u : untouched) EXPECT_EQ(u, 42.0f);
    fclose(fp);
  };
  std::vector<float> e0(v0.begin(), v0.end());
  std::vector<float> e1(v1.begin(), v1.end());
  std::vector<float> e6u(v6.begin(), v6.end());
  std::vector<float> e6s;
  for (uint16_t u : v6) e6s.push_back((float)(int16_t)u);
  expect_as(f0, e0, e0);  // 0xFF is 255
  expect_as(f1, e1, e1);  // 0xFFFF is -1
  expect_as(f2, v2, v2);
  // Mode 6: unsigned by slice (65535), signed when read whole (-1).
  expect_as(f6, e6u, e6s);
  EXPECT_EQ(e6u[0], 65535.0f);
  EXPECT_EQ(e6s[0], -1.0f);

  // Byte output: integers keep their low byte, floats are clamped.
  FILE* fp = fopen(f2.c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(fp, &h);
  unsigned char b[nx * ny];
  mrc_read_slice_byte(fp, &h, 0, 'z', b);
  EXPECT_EQ(b[0], 0);  // -2.25
  EXPECT_EQ(b[5], 0);  // 0.25
  fclose(fp);
}

TEST(MrcRead, UnstampedHeaderIsStampedInMemory) {
  TempDir dir;
  MRC_HEAD h = make_head(2, 2, 1, 2);
  memset(h.map, 0, 8);
  const std::vector<float> v = {1, 2, 3, 4};
  write_raw(dir.file("old.mrc"), h, v.data(), 16);
  EXPECT_EQ(mrcf_check_head(dir.file("old.mrc").c_str()), -1);
  MRC_HEAD r;
  mrcf_read_head(dir.file("old.mrc").c_str(), &r);
  EXPECT_EQ(memcmp(r.map, "MAP DA\0\0", 8), 0);
  float* d = get_mrcf_data_sliceN(dir.file("old.mrc").c_str(), 0);
  EXPECT_EQ(d[3], 4.0f);
  free(d);
}

TEST(MrcRead, SizeCheckAndUnreadableModes) {
  TempDir dir;
  // Extended header: the exact size check fails, slices still start at 1024.
  MRC_HEAD h = make_head(2, 2, 1, 2);
  h.nsymbt = 8;
  std::vector<float> v = {9, 8, 7, 6, 0, 0};
  write_raw(dir.file("ext.mrc"), h, v.data(), 24);
  FILE* fp = fopen(dir.file("ext.mrc").c_str(), "r");
  MRC_HEAD r;
  mrc_read_head(fp, &r);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_check_fsize(fp, &r), -1);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(starts_with(out, "File size 1048  4 xyz 16Warning in function mrc_check_fsize(), file mrcfile on line "))
      << out;
  EXPECT_NE(out.find(": File size error!\n"), std::string::npos);
  float s[4];
  mrc_read_slice(fp, &r, 0, 'z', s);
  EXPECT_EQ(s[0], 9.0f);
  fclose(fp);
  ChildOutcome c = run_in_child([&] { free(get_mrcf_data_all(dir.file("ext.mrc").c_str())); });
  expect_fatal(c, "get_mrcf_data_all", "mrcfile", ": File size error! Exit now!\n");

  // Complex modes pass the size check; the whole reader warns and leaves
  // the output alone, and so does the slice reader.
  std::vector<float> c4(2 * 2 * 2, 1.0f);
  write_mode(dir.file("c4.mrc"), 2, 2, 1, 4, c4);
  fp = fopen(dir.file("c4.mrc").c_str(), "r");
  mrc_read_head(fp, &r);
  EXPECT_EQ(mrc_check_fsize(fp, &r), 0);
  float out4[4] = {5, 5, 5, 5};
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_read_all(fp, &r, out4), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("file mrcfile on line"), std::string::npos);
  EXPECT_EQ(mrc_read_slice(fp, &r, 0, 'z', out4), 0);
  for (float x : out4) EXPECT_EQ(x, 5.0f);
  fclose(fp);

  // A mode without a known size fails the size check with its own warning.
  write_mode(dir.file("m16.mrc"), 2, 2, 1, 16, std::vector<uint8_t>(12, 1));
  fp = fopen(dir.file("m16.mrc").c_str(), "r");
  mrc_read_head(fp, &r);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_check_fsize(fp, &r), -1);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(": File type unknown!\n"), std::string::npos);
  fclose(fp);
  EXPECT_STREQ(mrcf_get_head_mode(dir.file("m16.mrc").c_str()), "RGB");
}

// Headers that cannot describe their file end the run with the file named.
TEST(MrcRead, ImpossibleHeadersAreFatal) {
  TempDir dir;
  const std::vector<float> four = {1, 2, 3, 4};
  struct Case {
    const char* file;
    int nx, ny, nz, mode;
    size_t data_bytes;
    const char* reason;
  };
  const Case cases[] = {
      {"zero.mrc", 0, 2, 1, 2, 16, "has the invalid image size 0 x 2 x 1"},
      {"negative.mrc", 2, -2, 1, 2, 16, "has the invalid image size 2 x -2 x 1"},
      {"overflow.mrc", 2147483647, 2147483647, 2147483647, 2, 16, "has the impossible image size"},
      {"short.mrc", 4096, 4096, 1, 2, 16, "is too short for its header: 4096 x 4096 x 1 floats need 67108864"},
      {"stack.mrc", 2, 2, 3, 2, 16, "is too short for its header: 2 x 2 x 3 floats"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.file);
    const std::string f = dir.file(k.file);
    write_raw(f, make_head(k.nx, k.ny, k.nz, k.mode), four.data(), k.data_bytes);
    ChildOutcome c = run_in_child([&] { free(get_mrcf_data_sliceN(f.c_str(), 0)); });
    expect_fatal(c, "get_mrcf_data_sliceN", "mrcfile", "file " + f + " " + k.reason);
    // The stream reader names the file as well.
    c = run_in_child([&] {
      FILE* fp = fopen(f.c_str(), "r");
      MRC_HEAD h;
      mrc_read_head(fp, &h);
    });
    expect_fatal(c, "mrc_read_head", "mrcfile", f);
  }

  // Big-endian files are refused rather than read as nonsense.
  MRC_HEAD be = make_head(2, 2, 1, 2);
  be.machst[0] = be.machst[1] = 0x11;
  write_raw(dir.file("big.mrc"), be, four.data(), 16);
  ChildOutcome c = run_in_child([&] { get_mrcf_head(dir.file("big.mrc").c_str()); });
  expect_fatal(c, "get_mrcf_head", "mrcfile", "file " + dir.file("big.mrc") + " is stored in big-endian byte order");

  // Less than a header.
  write_text_file(dir.file("tiny.mrc"), "MAP");
  c = run_in_child([&] { get_mrcf_head(dir.file("tiny.mrc").c_str()); });
  expect_fatal(c, "get_mrcf_head", "mrcfile", "is too short for an MRC header of 1024 bytes");

  // A missing file.
  c = run_in_child([&] { get_mrcf_head(dir.file("none.mrc").c_str()); });
  EXPECT_TRUE(starts_with(c.out, "Cannot open file " + dir.file("none.mrc") +
                                     ". Permission denied or wrong file name.\nError in function get_mrcf_head()"));
  EXPECT_EQ(c.status, 1);
}

// A header from elsewhere that does not fit the stream, and images beyond
// the stack, end with the image named.
TEST(MrcRead, SliceBeyondTheFileIsFatal) {
  TempDir dir;
  const std::string f = dir.file("two.mrcs");
  write_mode(f, 2, 2, 2, 2, ramp(8, 0.0f));
  ChildOutcome c = run_in_child([&] { free(get_mrcf_data_sliceN(f.c_str(), 2)); });
  expect_fatal(c, "get_mrcf_data_sliceN", "mrcfile", "file " + f + " has no plane 2 along z (it holds 2)");
  c = run_in_child([&] {
    FILE* fp = fopen(f.c_str(), "r");
    MRC_HEAD h = make_head(4, 4, 1, 2);  // 64 bytes, the file holds 32
    std::vector<float> out(16);
    mrc_read_slice(fp, &h, 0, 'z', out.data());
  });
  expect_fatal(c, "mrc_read_slice", "mrcfile", f + " is too short for image 0 of 4 x 4 floats");
  c = run_in_child([&] {
    FILE* fp = fopen(f.c_str(), "r");
    MRC_HEAD h = make_head(2, 2, 4, 2);
    std::vector<float> out(16);
    mrc_read_all_nocheck(fp, &h, out.data());
  });
  expect_fatal(c, "mrc_read_all_nocheck", "mrcfile", f + " is too short for 2 x 2 x 4 floats");
}

TEST(MrcRead, CheckedReadersAndDimensionKeys) {
  TempDir dir;
  const std::string f = dir.file("a.mrcs");
  write_mode(f, 4, 3, 2, 2, ramp(24, 1.0f));
  std::vector<float> out(24, -7.0f);
  EXPECT_EQ(mrcf_read_data_check_xy(f.c_str(), out.data(), 3, 4), -1);
  EXPECT_EQ(out[0], -7.0f);
  EXPECT_EQ(mrcf_read_data_check_xyz(f.c_str(), out.data(), 4, 3, 3), -1);
  EXPECT_EQ(out[0], -7.0f);
  MRC_HEAD h;
  EXPECT_EQ(mrcf_read_head_data_check_xyz(f.c_str(), &h, out.data(), 4, 3, 2), 0);
  EXPECT_EQ(out[23], 12.5f);
  EXPECT_EQ(h.nz, 2);

  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "X"), 4);
  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "z"), 2);
  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "yX"), 12);
  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "ZY"), 6);
  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "xyz"), 24);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_mrcf_dim_size(f.c_str(), "w"), 0);
  const std::string out2 = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(starts_with(out2, "Error in function get_mrcf_dim_size(), file mrcfile on line ")) << out2;
  EXPECT_NE(out2.find(": unrecognized dimension keywords w !\n"
                      "valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n"),
            std::string::npos);
}

TEST(MrcRead, DifferentSizesPrintTheTableAndExit) {
  const MRC_HEAD a = make_head(4096, 4096, 1, 2);
  MRC_HEAD b = make_head(4096, 3710, 1, 6);
  EXPECT_EQ(check_mrc_head_sizes_two("a.mrc", "a2.mrc", &a, &a), 0);
  ChildOutcome c = run_in_child([&] { check_mrc_head_sizes_two("b.mrc", "a.mrc", &b, &a); });
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.out,
            "Micrograph \033[1mb.mrc\033[m has a different size or format from  \033[1ma.mrc\033[m.\n"
            "Check if all the micrographs are the same sizes and format? \n "
            "      Nx      Ny      Nz      Mode             File:\n"
            "      4096    3710    1       Unsigned Short      b.mrc\n"
            "      4096    4096    1       Float               a.mrc\n");
  b = a;
  b.mode = 1;
  c = run_in_child([&] { check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b); });
  EXPECT_EQ(c.status, 1);
}

// Written files: mode 2, default cell and axes, stamp, statistics of the data.
TEST(MrcWrite, HostAndDeviceWritersRoundTrip) {
  TempDir dir;
  const int nx = 5, ny = 3, nz = 2;
  std::vector<float> v = ramp(nx * ny * nz, -4.0f);
  const std::string fh = dir.file("host.mrcs"), fd = dir.file("device.mrcs");
  mrcf_write_xyz_data(fh.c_str(), v.data(), nx, ny, nz);
  gvex_device_activate(0);
  DeviceArray<float> d(v.size());
  memcpy_H2D(d.get(), v.data(), v.size() * sizeof(float));
  mrcf_write_xyz_ddata(fd.c_str(), d.get(), nx, ny, nz);

  for (const std::string& f : {fh, fd}) {
    SCOPED_TRACE(f);
    MRC_HEAD h;
    std::vector<float> back(v.size());
    ASSERT_EQ(get_mrcf_head_data(f.c_str(), &h, back.data()), 0);
    EXPECT_EQ(back, v);
    EXPECT_EQ(h.nx, nx);
    EXPECT_EQ(h.ny, ny);
    EXPECT_EQ(h.nz, nz);
    EXPECT_EQ(h.mode, 2);
    EXPECT_EQ(h.xlen, 1.0f);
    EXPECT_EQ(h.ylen, 1.0f);
    EXPECT_EQ(h.zlen, 1.0f);
    EXPECT_EQ(h.alpha, 90.0f);
    EXPECT_EQ(h.beta, 90.0f);
    EXPECT_EQ(h.gamma, 90.0f);
    EXPECT_EQ(h.mapc * 100 + h.mapr * 10 + h.maps, 123);
    EXPECT_EQ(memcmp(h.map, "MAP DA\0\0", 8), 0);
    EXPECT_EQ(h.amin, -4.0f);
    EXPECT_EQ(h.amax, 10.5f);
    EXPECT_EQ(h.amean, 3.25f);
    EXPECT_EQ(h.rms, 0.0f);
    float rms;  // where other MRC readers look for it
    memcpy(&rms, reinterpret_cast<const char*>(&h) + 216, 4);
    EXPECT_NEAR(rms, 4.32772f, 1e-4f);  // 0.5 * sqrt((30 * 30 - 1) / 12)
    EXPECT_EQ(get_file_size_of(f), 1024 + 4 * nx * ny * nz);
  }
}

TEST(MrcWrite, CallerHeadersAndRefusals) {
  TempDir dir;
  const std::vector<float> v = {3, 1, 2, 6};
  MRC_HEAD* h = mrc_new_head();
  mrc_set_head_xyz_mmm(h, 2, 2, 1, 0.0f, 1.0f, 0.5f);
  h->xorigin = 7.0f;
  mrcf_write_head_data(dir.file("h.mrc").c_str(), h, v.data());
  MRC_HEAD r;
  mrcf_read_head(dir.file("h.mrc").c_str(), &r);
  EXPECT_EQ(r.xorigin, 7.0f);
  EXPECT_EQ(r.amax, 6.0f);  // recomputed
  EXPECT_EQ(r.amean, 3.0f);

  // An unstamped header is written all the same, after a warning.
  memset(h->map, 0, 4);
  FILE* fp = fopen(dir.file("u.mrc").c_str(), "w+");
  testing::internal::CaptureStdout();
  mrc_write_head_data(fp, h, v.data());
  EXPECT_NE(testing::internal::GetCapturedStdout().find(": MRC format problem! Check file format!\n"),
            std::string::npos);
  fclose(fp);

  // Only mode 2 is written.
  mrc_set_head_stmp(h);
  h->mode = 1;
  ChildOutcome c = run_in_child([&] { mrcf_write_head_data(dir.file("m1.mrc").c_str(), h, v.data()); });
  expect_fatal(c, "mrcf_write_head_data", "mrcfile",
               ": mrc_write_head_alldata() does not support writing float data to other MRC format.! Exit now!");
  c = run_in_child([&] { mrc_write_head_ddata(stdout, h, v.data()); });
  expect_fatal(c, "mrc_write_head_ddata", "mrcfile", "does not support writing float data");
  mrc_delete_head(h);

  c = run_in_child([&] { mrcf_write_xyz_data(dir.file("no/such/dir.mrc").c_str(), v.data(), 2, 2, 1); });
  EXPECT_TRUE(starts_with(c.out, "Cannot write to file " + dir.file("no/such/dir.mrc") +
                                     ". Permission denied or no space left!\nError in function mrcf_write_xyz_data()"))
      << c.out;
  EXPECT_NE(c.out.find("open file failed.! Exit now!\n"), std::string::npos);
  EXPECT_EQ(c.status, 1);
}

TEST(MrcNames, SuffixesAndOutputNames) {
  EXPECT_EQ(get_micrograph_suffixn("a.mrc"), 4);
  EXPECT_EQ(get_micrograph_suffixn("a.mrcs"), 5);
  EXPECT_EQ(get_micrograph_suffixn(".mrc"), 4);
  EXPECT_EQ(get_micrograph_suffixn("amrc"), 0);
  EXPECT_EQ(get_micrograph_suffixn("mrc"), 0);
  EXPECT_EQ(get_micrograph_suffixn("a.MRC"), 0);
  char out[GVEX_NAME_LEN];
  set_outname_by_suffix(out, "Micrographs/m01.mrc", "_vexmatch.box");
  EXPECT_STREQ(out, "Micrographs/m01_vexmatch.box");
  set_outname_by_suffix(out, "m.mrcs", "_particles.mrcs");
  EXPECT_STREQ(out, "m_particles.mrcs");
  set_outname_by_suffix(out, "m.tif", "_x");
  EXPECT_STREQ(out, "m.tif_x");
  // Names that fit exactly, and one byte too long.
  std::string in(1000, 'a');
  in += ".mrc";
  set_outname_by_suffix(out, in.c_str(), std::string(23, 's').c_str());
  EXPECT_EQ(strlen(out), 1023u);
  ChildOutcome c = run_in_child([&] { set_outname_by_suffix(out, in.c_str(), std::string(24, 's').c_str()); });
  expect_fatal(c, "set_outname_by_suffix", "mrcfile", "the output name for file " + in);
}

TEST(MrcSquare, SizesOriginsAndClippedReads) {
  EXPECT_EQ(get_max_square_even_size(4097, 4096), 4096);
  EXPECT_EQ(get_max_square_even_size(3711, 5000), 3710);
  int2 o = get_max_square_clip_origin(4096, 3710);
  EXPECT_EQ(o.x, 193);
  EXPECT_EQ(o.y, 0);
  o = get_max_square_clip_origin(10, 15);
  EXPECT_EQ(o.x, 0);
  EXPECT_EQ(o.y, 2);
  EXPECT_EQ(get_max_extended_square_even_size(4096, 3710, 4), 1024);
  EXPECT_EQ(get_max_extended_square_even_size(1000, 3710, 4), 926);

  TempDir dir;
  const std::string f = dir.file("sq.mrc");
  write_mode(f, 4, 3, 1, 2, ramp(12, 0.0f));
  FILE* fp = fopen(f.c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(fp, &h);
  float out[4];
  int2 origin;
  origin.x = 2;
  origin.y = 1;
  mrc_read_square_even(fp, &h, out, 2, origin);
  EXPECT_EQ(out[0], 3.0f);  // pixel (2, 1)
  EXPECT_EQ(out[3], 5.5f);  // pixel (3, 2)
  origin.x = 3;
  mrc_read_square_even_extend(fp, &h, out, 2, origin);
  EXPECT_EQ(out[1], 0.0f);  // outside: no padding
  fclose(fp);
  ChildOutcome c = run_in_child([&] {
    FILE* g = fopen(f.c_str(), "r");
    float big[16];
    mrc_read_square_even_extend(g, &h, big, 4, origin);
  });
  expect_fatal(c, "mrc_read_square_even_extend", "mrcfile", ": Can not read micrograph. File Size issue! Exit now!");
}

}  // namespace
