// Template stack: reading, synthesis, rescaling, per-slice normalisation.
#include "match/templates.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/host_image.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "common/records.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "common/hm_math.h"
#include "gpu/local_stats.h"
#include "gpu/math_utils.h"
#include "gpu/resample.h"
#include "io/mrcfile.h"

namespace {

const char* const gvex_module = "vexmatch56";

// Largest template side accepted; far beyond any working micrograph.
constexpr long MAX_TEMPLATE_SIDE = 1L << 16;
constexpr long MAX_TEMPLATE_PIXELS = 1L << 31;

// The fatal line of a template file that cannot be used as it stands.
[[noreturn]] void refuse_template_file(const char* path, int line, const char* what, const MRC_HEAD& head) {
  char why[GVEX_NAME_LEN + 256];
  snprintf(why, sizeof why, "template file %s %s (mode %d, %d x %d x %d)", path, what, head.mode, head.nx, head.ny,
           head.nz);
  gvex_fatal("get_template_data", gvex_module, line, why);
}

float* alloc_stack(long n) {
  // At least one byte so that a 0 x 0 template is still a valid array.
  float* p = static_cast<float*>(malloc(n > 0 ? (size_t)n * sizeof(float) : 1));
  if (!p) GVEX_FAIL("host memory allocation failed");
  return p;
}

}  // namespace

// Refusals of sizes that scaling by k and shrinking by shrink cannot take,
// made from the header alone (a stack of millions of tiny templates is
// refused before its pixels are read).
static void check_scaled_sizes(const char* path, int nx, int ny, float k, int shrink) {
  float fx = (float)nx, fy = (float)ny;
  if (k != 1.0f) {
    fx = (float)nx * k, fy = (float)ny * k;
    if (!(fx >= 1.0f && fy >= 1.0f && fx <= (float)MAX_TEMPLATE_SIDE && fy <= (float)MAX_TEMPLATE_SIDE)) {
      char why[GVEX_NAME_LEN + 200];
      snprintf(why, sizeof why, "templates of %s (%d x %d) scaled by apixT/apixM = %g would be %g x %g pixels", path,
               nx, ny, k, fx, fy);
      gvex_fatal("get_or_create_template_data", gvex_module, __LINE__, why);
    }
    fx = (float)hd_scaled_size(nx, k), fy = (float)hd_scaled_size(ny, k);
  }
  if (shrink != 1 && (shrink < 1 || (int)fx / shrink < 1 || (int)fy / shrink < 1)) {
    char why[GVEX_NAME_LEN + 200];
    snprintf(why, sizeof why, "templates of %s (%d x %d at the micrograph pixel size) cannot be shrunk by %d", path,
             (int)fx, (int)fy, shrink);
    gvex_fatal("get_or_create_template_data", gvex_module, __LINE__, why);
  }
}

// The stack's pixels, sized from its header (refused, naming the file,
// when unreadable, of a mode that cannot be read or of sizes that do not fit
// the file or what k and shrink make of them). Release with free().
static float* read_template_stack(int& nx, int& ny, int& nz, char* path, float k, int shrink) {
  const char* kind = "";
  OwnedFile file(gvex_open_regular(path, &kind));
  FILE* fp = file.get();
  if (!fp && *kind) gvex_not_a_file("template stack", path, kind, "get_template_data", gvex_module, 689);
  if (!fp) gvex_open_read_failed(path, "get_template_data", gvex_module, 689);
  MRC_HEAD head;
  mrc_read_head(fp, &head);
  if (!mrc_mode_is_readable(head.mode))
    refuse_template_file(path, __LINE__, "has a pixel mode that cannot be read; modes 0, 1, 2 and 6 can", head);
  const long lx = head.nx, ly = head.ny, lz = head.nz;
  if (lx < 1 || ly < 1 || lz < 1 || lx > MAX_TEMPLATE_SIDE || ly > MAX_TEMPLATE_SIDE || lx * ly * lz > MAX_TEMPLATE_PIXELS)
    refuse_template_file(path, __LINE__, "declares unusable sizes", head);
  if (get_file_size(fp) < 1024 + lx * ly * lz * mrc_mode_element_size(head.mode))
    refuse_template_file(path, __LINE__, "is shorter than the pixels its header declares", head);
  check_scaled_sizes(path, head.nx, head.ny, k, shrink);
  nx = head.nx;
  ny = head.ny;
  nz = head.nz;
  Owned<float> data(alloc_stack(lx * ly * lz));
  mrc_read_stack(fp, &head, data.get());
  return data.release();
}

float* create_template_data(int& nx, int& ny, int& nz, float R, float c) {
  if (!(R >= 0.0f) || R > (float)(MAX_TEMPLATE_SIDE / 4)) {
    char why[160];
    snprintf(why, sizeof why, "template radius %g working pixels cannot make a template", R);
    GVEX_FAIL(why);
  }
  const int n = 4 * (int)R;
  nx = ny = n;
  nz = 1;
  float* data = alloc_stack((long)n * n);
  if (n > 0) {
    const float centre = (float)(n - 1) / 2.0f;
    const float a = R * c, w = (1.0f - c) * R;
    cpu_2d_generate_rmask_soft(data, n, n, centre, centre, a, w);
  }
  return data;
}

float* get_or_create_template_data(int& nx, int& ny, int& nz, char* path, float R, float apixT, float apixM,
                                   int shrink, float c) {
  if (is_str_null(path)) return create_template_data(nx, ny, nz, R, c);

  const float k = apixT / apixM;
  float* data = read_template_stack(nx, ny, nz, path, k, shrink);
  if (k != 1.0f) {
    const float fx = (float)nx * k, fy = (float)ny * k;
    if (!(fx >= 1.0f && fy >= 1.0f && fx <= (float)MAX_TEMPLATE_SIDE && fy <= (float)MAX_TEMPLATE_SIDE)) {
      free(data);
      char why[GVEX_NAME_LEN + 200];
      snprintf(why, sizeof why, "templates of %s (%d x %d) scaled by apixT/apixM = %g would be %g x %g pixels", path,
               nx, ny, k, fx, fy);
      GVEX_FAIL(why);
    }
    const int sx = hd_scaled_size(nx, k), sy = hd_scaled_size(ny, k);
    float* scaled = alloc_stack((long)sx * sy * nz);
    gpu_2ds_scale(scaled, data, nx, ny, nz, k);
    free(data);
    data = scaled;
    nx = sx;
    ny = sy;
  }
  if (shrink != 1) {
    if (shrink < 1 || nx / shrink < 1 || ny / shrink < 1) {
      free(data);
      char why[GVEX_NAME_LEN + 200];
      snprintf(why, sizeof why, "templates of %s (%d x %d at the micrograph pixel size) cannot be shrunk by %d", path,
               nx, ny, shrink);
      GVEX_FAIL(why);
    }
    const int sx = nx / shrink, sy = ny / shrink;
    float* shrunk = alloc_stack((long)sx * sy * nz);
    cpu_2ds_meanshrink(shrunk, data, nx, ny, nz, shrink);
    free(data);
    data = shrunk;
    nx = sx;
    ny = sy;
  }
  return data;
}


int rmask_subtract_background(float* data, float R, int nx, int ny) {
  const float cx = (float)(nx - 1) / 2.0f, cy = (float)(ny - 1) / 2.0f;
  const float r2 = R * R;
  double sum = 0.0;
  for (int y = 0; y < ny; y++) {
    for (int x = 0; x < nx; x++) {
      const float dx = (float)x - cx, dy = (float)y - cy;
      float& v = data[(long)y * nx + x];
      if (dx * dx + dy * dy <= r2)
        sum += v;
      else
        v = 0.0f;
    }
  }
  // Divided by the whole slice on purpose: the outside ends at minus this.
  const long n = (long)nx * ny;
  if (n > 0) hm_sub_inplace(data, (unsigned long)n, (float)(sum / (double)n));
  return 0;
}

void cpu_2d_template_norm_inplace(float* slice, int nx, int ny, int type, float R, float c) {
  const unsigned long n = (unsigned long)nx * ny;
  if (n == 0) return;
  switch (type) {
    case 1:
      hm_submean_inplace(slice, n);
      break;
    case 2:
      rmask_subtract_background(slice, R, nx, ny);
      break;
    case 3:
      cpu_2d_normz_withRmask_applymask_inplace(slice, nx, ny, (float)(nx - 1) / 2.0f, (float)(ny - 1) / 2.0f,
                                               R * (1.0f - c), R * c);
      break;
    default:
      break;
  }
}

void hcuda_upload_templates(float* d_stack, const float* stack, int nx, int ny, int nz, int type, float R, float c,
                            int dont_invert) {
  const unsigned long n = (unsigned long)nx * ny;
  float* slice = alloc_stack((long)n);
  for (int t = 0; t < nz; t++) {
    memcpy(slice, stack + t * n, n * sizeof(float));
    cpu_2d_template_norm_inplace(slice, nx, ny, type, R, c);
    memcpy_H2D(d_stack + t * n, slice, n * sizeof(float));
  }
  free(slice);
  if (!dont_invert) hcuda_invert_inplace(d_stack, n * (unsigned long)nz);
}

std::vector<float> get_rotation_angles(float start, float end, float step) {
  std::vector<float> angles;
  for (float ang = start; ang < end; ang = ang + step) {
    if (!(ang + step > ang)) {
      char why[160];
      snprintf(why, sizeof why, "rotation step %g degrees cannot advance the angle %g towards %g", step, ang, end);
      GVEX_FAIL(why);
    }
    angles.push_back(ang);
  }
  return angles;
}
