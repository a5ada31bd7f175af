// Template stack: synthesis, reading and rescaling, normalisation, angles.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "support/capture.h"
#include "io/mrcfile.h"
#include "match/templates.h"
#include "support/match_fixtures.h"
#include "support/run.h"

namespace {

TEST(SyntheticTemplate, SizeIsFourTimesTheTruncatedRadiusAndTheEdgeIsSoft) {
  int nx = -1, ny = -1, nz = -1;
  free(create_template_data(nx, ny, nz, 0.9f, 0.05f));
  EXPECT_EQ(nx, 0);
  EXPECT_EQ(ny, 0);
  float* t = create_template_data(nx, ny, nz, 30.7f, 0.05f);
  ASSERT_EQ(nx, 120);
  ASSERT_EQ(ny, 120);
  // Centre (59.5, 59.5): flat core, Gaussian edge (sigma a third of 0.95 R)
  // beyond 0.05 R, nothing beyond R.
  const float R = 30.7f, a = R * 0.05f, sigma = 0.95f * R / 3;
  const float d = std::sqrt(20.5f * 20.5f + 0.25f) - a;  // pixel (80, 59)
  EXPECT_EQ(t[59 * 120 + 59], 1.0f);
  EXPECT_NEAR(t[59 * 120 + 80], std::exp(-d * d / (2 * sigma * sigma)), 1e-6);
  EXPECT_EQ(t[80 * 120 + 59], t[59 * 120 + 80]);
  EXPECT_EQ(t[59 * 120 + 91], 0.0f);  // 31.5 px out
  free(t);
  for (const char* name : {"NULL", "NoNe"}) {
    std::vector<char> p = cstr(name);
    free(get_or_create_template_data(nx, ny, nz, p.data(), 10.2f, 1.0f, 2.0f, 4, 0.05f));
    EXPECT_EQ(nx, 40) << name;
  }
}

TEST(TemplateFile, ResampledOnlyWhenPixelSizesDifferAMissingFileIsFatal) {
  // A 2-slice 100 x 100 stack: slice 0 constant 3, slice 1 a ramp in x.
  std::vector<float> data(2 * 100 * 100);
  for (int i = 0; i < 100 * 100; i++) data[i] = 3.0f, data[10000 + i] = (float)(i % 100) * 0.5f;
  TempDir dir;
  std::vector<char> path = cstr(dir.file("t.mrcs"));
  mrcf_write_xyz_data(path.data(), data.data(), 100, 100, 2);
  int nx, ny, nz;
  float* t = get_or_create_template_data(nx, ny, nz, path.data(), 10.0f, 0.67f, 1.34f, 4, 0.05f);
  ASSERT_EQ(nx, 12);  // k = 0.5: 50 x 50, shrunk by 4 to 12 x 12
  ASSERT_EQ(ny * nz, 12 * 2);
  for (int i = 0; i < 144; i++) ASSERT_EQ(t[i], 3.0f) << i;
  EXPECT_LT(t[144 + 6 * 12 + 2], t[144 + 6 * 12 + 9]);
  free(t);
  t = get_or_create_template_data(nx, ny, nz, path.data(), 10.0f, 1.34f, 1.34f, 1, 0.05f);
  ASSERT_EQ(nx, 100);
  ASSERT_EQ(ny * nz, 200);
  EXPECT_EQ(memcmp(t, data.data(), data.size() * sizeof(float)), 0);
  free(t);
  // A last-bit difference in the pixel size resamples: 100 * k truncates to 99.
  free(get_or_create_template_data(nx, ny, nz, path.data(), 10.0f, 1.34f, 1.3400001f, 1, 0.05f));
  EXPECT_EQ(nx, 99);

  std::vector<char> missing = cstr(dir.file("missing.mrcs"));
  EXPECT_FAILS(get_or_create_template_data(nx, ny, nz, missing.data(), 10.0f, 1.0f, 1.0f, 1, 0.05f),
      "Cannot open file .*missing.mrcs. Permission denied or wrong file name.\n"
      "Error in function get_template_data\\(\\), file vexmatch56 on line 689: open file failed.! Exit now!");
}

TEST(TemplateNorm, Type2SubtractsTheDiscSumOverTheWholeSlice) {
  const int n = 16;
  std::vector<float> s(n * n);
  auto inside = [](int i) {
    const float dx = i % n - 7.5f, dy = i / n - 7.5f;
    return dx * dx + dy * dy <= 25.0f;
  };
  int count = 0;
  for (int i = 0; i < n * n; i++) {
    count += inside(i);
    s[i] = inside(i) ? 1.0f : 9.0f;  // outside values are zeroed first
  }
  EXPECT_EQ(rmask_subtract_background(s.data(), 5.0f, n, n), 0);
  const float m = (float)count / (n * n);
  for (int i = 0; i < n * n; i++) ASSERT_FLOAT_EQ(s[i], inside(i) ? 1.0f - m : -m) << i;
}

TEST(TemplateNorm, UploadNormalisesEachSliceThenInverts) {
  const int n = 12, nz = 2, np = n * n;
  std::vector<float> stack(np * nz);
  for (int i = 0; i < np * nz; i++) stack[i] = (float)((i * 37) % 11) + (i >= np ? 10.0f : 0.0f);
  Dev<float> d(stack.size());
  hcuda_upload_templates(d.get(), stack.data(), n, n, nz, 1, 4.0f, 0.05f, 0);  // type 1: minus the slice mean
  std::vector<float> got = d.host();
  for (int z = 0; z < nz; z++) {
    double mean = 0;
    for (int i = 0; i < np; i++) mean += stack[z * np + i] / (double)np;
    for (int i = 0; i < np; i++) ASSERT_NEAR(got[z * np + i], mean - stack[z * np + i], 1e-5) << z << "," << i;
  }
  hcuda_upload_templates(d.get(), stack.data(), n, n, nz, 4, 4.0f, 0.05f, 1);
  EXPECT_EQ(d.host(), stack);
}

TEST(RotationAngles, FloatStepsBelowTheEnd) {
  std::vector<float> a = get_rotation_angles(0.0f, 359.0f, 5.0f);
  ASSERT_EQ(a.size(), 72u);
  EXPECT_EQ(a.back(), 355.0f);
  EXPECT_EQ(get_rotation_angles(0.0f, 359.0f, 360.0f), std::vector<float>{0.0f});
  EXPECT_TRUE(get_rotation_angles(10.0f, 5.0f, 1.0f).empty());
  // Steps accumulate in float: 0.1 steps give the float sums, not multiples.
  a = get_rotation_angles(0.0f, 359.0f, 0.1f);
  float acc = 0.0f;
  for (size_t k = 0; k < a.size(); k++, acc += 0.1f) ASSERT_EQ(a[k], acc) << k;
  for (float step : {0.0f, -5.0f, NAN})
    EXPECT_FAILS(get_rotation_angles(0.0f, 359.0f, step), "");
}

}  // namespace
