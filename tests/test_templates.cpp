// Template stack: synthesis, reading and rescaling, normalisation, angles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "io/mrcfile.h"
#include "match/templates.h"
#include "support/run.h"

namespace {

std::vector<char> cstr(const std::string& s) {
  std::vector<char> v(s.begin(), s.end());
  v.push_back(0);
  return v;
}

TEST(SyntheticTemplate, SizeIsFourTimesTheTruncatedRadius) {
  int nx = -1, ny = -1, nz = -1;
  float* t = create_template_data(nx, ny, nz, 0.9f, 0.05f);
  EXPECT_EQ(nx, 0);
  EXPECT_EQ(ny, 0);
  EXPECT_EQ(nz, 1);
  destroy_template_data(t);

  t = create_template_data(nx, ny, nz, 30.7f, 0.05f);
  ASSERT_EQ(nx, 120);
  ASSERT_EQ(ny, 120);
  EXPECT_EQ(nz, 1);
  // Centre at (59.5, 59.5): flat core, Gaussian edge reaching exp(-4.5) at
  // R, nothing beyond R.
  const float R = 30.7f, a = R * 0.05f, w = 0.95f * R, sigma = w / 3;
  EXPECT_EQ(t[59 * 120 + 59], 1.0f);
  const float d = 20.5f;  // pixel (80, 59): dx = 20.5, dy = 0.5
  const float dd = std::sqrt(d * d + 0.25f);
  EXPECT_NEAR(t[59 * 120 + 80], std::exp(-(dd - a) * (dd - a) / (2 * sigma * sigma)), 1e-6);
  EXPECT_EQ(t[59 * 120 + 91], 0.0f);  // 31.5 px from the centre
  EXPECT_EQ(t[0], 0.0f);
  for (int y = 0; y < 120; y++)
    for (int x = 0; x < 120; x++) EXPECT_EQ(t[y * 120 + x], t[x * 120 + y]);
  destroy_template_data(t);
}

TEST(SyntheticTemplate, NullOrNoneInAnyCaseSynthesises) {
  for (const char* name : {"NULL", "none", "NoNe", "null"}) {
    std::vector<char> p = cstr(name);
    int nx, ny, nz;
    float* t = get_or_create_template_data(nx, ny, nz, p.data(), 10.2f, 1.0f, 2.0f, 4, 0.05f);
    EXPECT_EQ(nx, 40) << name;
    EXPECT_EQ(nz, 1) << name;
    destroy_template_data(t);
  }
}

class TemplateFile : public ::testing::Test {
 protected:
  // A 2-slice 100 x 100 stack: slice 0 constant 3, slice 1 a ramp.
  void SetUp() override {
    data.resize(2 * 100 * 100);
    for (int i = 0; i < 100 * 100; i++) {
      data[i] = 3.0f;
      data[10000 + i] = (float)(i % 100) * 0.5f;
    }
    path = dir.file("t.mrcs");
    mrcf_write_xyz_data(path.c_str(), data.data(), 100, 100, 2);
  }
  TempDir dir;
  std::string path;
  std::vector<float> data;
};

TEST_F(TemplateFile, ScaledThenShrunk) {
  std::vector<char> p = cstr(path);
  int nx, ny, nz;
  // k = 0.5: 50 x 50, then shrink 4 drops the remainder: 12 x 12.
  float* t = get_or_create_template_data(nx, ny, nz, p.data(), 10.0f, 0.67f, 1.34f, 4, 0.05f);
  EXPECT_EQ(nx, 12);
  EXPECT_EQ(ny, 12);
  EXPECT_EQ(nz, 2);
  for (int i = 0; i < 144; i++) ASSERT_EQ(t[i], 3.0f) << i;
  // The ramp keeps rising from left to right in slice 1.
  EXPECT_LT(t[144 + 6 * 12 + 2], t[144 + 6 * 12 + 9]);
  destroy_template_data(t);
}

TEST_F(TemplateFile, EqualPixelSizesSkipResampling) {
  std::vector<char> p = cstr(path);
  int nx, ny, nz;
  float* t = get_or_create_template_data(nx, ny, nz, p.data(), 10.0f, 1.34f, 1.34f, 1, 0.05f);
  ASSERT_EQ(nx, 100);
  ASSERT_EQ(ny, 100);
  ASSERT_EQ(nz, 2);
  EXPECT_EQ(memcmp(t, data.data(), data.size() * sizeof(float)), 0);
  destroy_template_data(t);
  // A last-bit difference in the pixel size resamples: 100 * k truncates to 99.
  t = get_or_create_template_data(nx, ny, nz, p.data(), 10.0f, 1.34f, 1.3400001f, 1, 0.05f);
  EXPECT_EQ(nx, 99);
  EXPECT_EQ(ny, 99);
  destroy_template_data(t);
}

TEST_F(TemplateFile, BadFilesEndWithALineNamingThem) {
  // Messages go to standard output; the death-test child sends it to stderr.
  const std::string missing = dir.file("missing.mrcs");
  std::vector<char> m = cstr(missing);
  int nx, ny, nz;
  EXPECT_EXIT(
      {
        dup2(2, 1);
        get_template_data(nx, ny, nz, m.data());
      },
      ::testing::ExitedWithCode(1),
      "Cannot open file .*missing.mrcs. Permission denied or wrong file name.\n"
      "Error in function get_template_data\\(\\), file vexmatch56 on line 689: open file failed.! Exit now!");

  // A mode that has no float reading (4: complex float) is refused.
  std::vector<char> bad = cstr(dir.file("complex.mrcs"));
  {
    MRC_HEAD* h = mrc_new_head();
    mrc_set_head_xyz_mode(h, 4, 4, 1, 4);
    FILE* fp = fopen(bad.data(), "w");
    fwrite(h, 1024, 1, fp);
    std::vector<char> zeros(4 * 4 * 8, 0);
    fwrite(zeros.data(), 1, zeros.size(), fp);
    fclose(fp);
    mrc_delete_head(h);
  }
  EXPECT_EXIT(
      {
        dup2(2, 1);
        get_template_data(nx, ny, nz, bad.data());
      },
      ::testing::ExitedWithCode(1), "get_template_data.*complex.mrcs");
}

TEST(TemplateNorm, Type2SubtractsTheDiscSumOverTheWholeSlice) {
  const int n = 16;
  const float R = 5.0f;
  std::vector<float> s(n * n);
  int inside = 0;
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) {
      const float dx = x - 7.5f, dy = y - 7.5f;
      const bool in = dx * dx + dy * dy <= R * R;
      inside += in;
      // Outside values are arbitrary: they are zeroed first.
      s[y * n + x] = in ? 1.0f : 9.0f;
    }
  EXPECT_EQ(rmask_subtract_background(s.data(), R, n, n), 0);
  const float m = (float)inside / (n * n);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) {
      const float dx = x - 7.5f, dy = y - 7.5f;
      const float want = dx * dx + dy * dy <= R * R ? 1.0f - m : -m;
      ASSERT_FLOAT_EQ(s[y * n + x], want) << x << "," << y;
    }
}

TEST(TemplateNorm, TypesOneThreeAndOthers) {
  const int n = 12;
  std::vector<float> base(n * n);
  for (int i = 0; i < n * n; i++) base[i] = (float)((i * 37) % 11) - 2.0f;

  std::vector<float> s = base;
  cpu_2d_template_norm_inplace(s.data(), n, n, 1, 4.0f, 0.05f);
  double sum = 0;
  for (float v : s) sum += v;
  EXPECT_NEAR(sum, 0.0, 1e-4);

  s = base;
  cpu_2d_template_norm_inplace(s.data(), n, n, 3, 4.0f, 0.05f);
  EXPECT_EQ(s[0], 0.0f);  // the corner lies outside the soft disc
  EXPECT_NE(s[6 * n + 6], base[6 * n + 6]);

  s = base;
  cpu_2d_template_norm_inplace(s.data(), n, n, 4, 4.0f, 0.05f);
  EXPECT_EQ(s, base);
}

TEST(TemplateUpload, NormalisedPerSliceThenInverted) {
  const int n = 8, nz = 2;
  std::vector<float> stack(n * n * nz);
  for (int i = 0; i < n * n * nz; i++) stack[i] = (float)(i % 7) + (i >= n * n ? 10.0f : 0.0f);
  DeviceArray<float> d(n * n * nz);
  hcuda_upload_templates(d.get(), stack.data(), n, n, nz, 1, 3.0f, 0.05f, 0);
  std::vector<float> got(n * n * nz);
  memcpy_D2H(got.data(), d.get(), got.size() * sizeof(float));
  for (int z = 0; z < nz; z++) {
    std::vector<float> slice(stack.begin() + z * n * n, stack.begin() + (z + 1) * n * n);
    cpu_2d_template_norm_inplace(slice.data(), n, n, 1, 3.0f, 0.05f);
    for (int i = 0; i < n * n; i++) ASSERT_EQ(got[z * n * n + i], -slice[i]);
  }
  hcuda_upload_templates(d.get(), stack.data(), n, n, nz, 4, 3.0f, 0.05f, 1);
  memcpy_D2H(got.data(), d.get(), got.size() * sizeof(float));
  EXPECT_EQ(got, stack);
}

TEST(RotationAngles, FloatStepsBelowTheEnd) {
  std::vector<float> a = get_rotation_angles(0.0f, 359.0f, 5.0f);
  ASSERT_EQ(a.size(), 72u);
  EXPECT_EQ(a.front(), 0.0f);
  EXPECT_EQ(a.back(), 355.0f);
  EXPECT_EQ(get_rotation_angles(0.0f, 359.0f, 360.0f), std::vector<float>{0.0f});
  EXPECT_TRUE(get_rotation_angles(10.0f, 5.0f, 1.0f).empty());
  // Float accumulation: 0.1 steps give the float sums, not multiples.
  a = get_rotation_angles(0.0f, 359.0f, 0.1f);
  float acc = 0.0f;
  for (size_t k = 0; k < a.size(); k++, acc = acc + 0.1f) ASSERT_EQ(a[k], acc);
}

TEST(RotationAnglesDeath, StepsThatCannotAdvanceAreFatal) {
  EXPECT_EXIT(get_rotation_angles(0.0f, 359.0f, 0.0f), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(get_rotation_angles(0.0f, 359.0f, -5.0f), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(get_rotation_angles(0.0f, 359.0f, NAN), ::testing::ExitedWithCode(1), "");
}

}  // namespace
