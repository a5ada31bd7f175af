// Writes one MRC file through each of our writers into the folder given as
// the only argument, and a manifest line per file for mrc_validate.py:
//   <file> <nx> <ny> <nz> <ramp offset or "any">
// Ramp files hold x + 100*y + 10000*z + offset at pixel (x, y) of section z.
#include <cstdio>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "io/extract.h"
#include "io/mrcfile.h"

namespace {

std::string g_dir;
FILE* g_manifest = nullptr;

std::vector<float> ramp(int nx, int ny, int nz, float offset) {
  std::vector<float> v((size_t)nx * ny * nz);
  for (int z = 0; z < nz; z++)
    for (int y = 0; y < ny; y++)
      for (int x = 0; x < nx; x++) v[((size_t)z * ny + y) * nx + x] = (float)(x + 100 * y + 10000 * z) + offset;
  return v;
}

std::string path(const char* name) { return g_dir + "/" + name; }

void note(const char* name, int nx, int ny, int nz, const char* kind) {
  fprintf(g_manifest, "%s %d %d %d %s\n", name, nx, ny, nz, kind);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
    return 2;
  }
  g_dir = argv[1];
  g_manifest = fopen(path("manifest.txt").c_str(), "w");
  if (!g_manifest) {
    fprintf(stderr, "cannot write the manifest in %s\n", argv[1]);
    return 2;
  }
  printf("%s", gvex_device_activate(0));

  // Host data, one image of odd sizes and a stack.
  std::vector<float> a = ramp(37, 23, 1, 0.25f);
  mrcf_write_xyz_data(path("host_image.mrc").c_str(), a.data(), 37, 23, 1);
  note("host_image.mrc", 37, 23, 1, "0.25");
  std::vector<float> s = ramp(16, 12, 5, -3.5f);
  mrcf_write_xyz_data(path("host_stack.mrcs").c_str(), s.data(), 16, 12, 5);
  note("host_stack.mrcs", 16, 12, 5, "-3.5");

  // Device data, one image and a stack with a caller's header.
  {
    std::vector<float> d = ramp(20, 30, 1, 1.0f);
    DeviceArray<float> d_img(d.size());
    memcpy_H2D(d_img.get(), d.data(), d.size() * sizeof(float));
    mrcf_write_xyz_ddata(path("device_image.mrc").c_str(), d_img.get(), 20, 30, 1);
    note("device_image.mrc", 20, 30, 1, "1");

    std::vector<float> ds = ramp(8, 8, 4, 2.0f);
    DeviceArray<float> d_stack(ds.size());
    memcpy_H2D(d_stack.get(), ds.data(), ds.size() * sizeof(float));
    MRC_HEAD* head = mrc_new_head();
    mrc_set_head_xyz_mode(head, 8, 8, 4, 2);
    head->xorigin = 12.0f;
    mrcf_write_head_ddata(path("device_stack.mrcs").c_str(), head, d_stack.get());
    mrc_delete_head(head);
    note("device_stack.mrcs", 8, 8, 4, "2");
  }

  // Caller's header with stale statistics, host data.
  {
    std::vector<float> h = ramp(10, 6, 2, -100.0f);
    MRC_HEAD* head = mrc_new_head();
    mrc_set_head_xyz_mmm(head, 10, 6, 2, 5.0f, -5.0f, 0.0f);
    mrcf_write_head_data(path("head_stack.mrcs").c_str(), head, h.data());
    mrc_delete_head(head);
    note("head_stack.mrcs", 10, 6, 2, "-100");
  }

  // Particle stacks: some picks, and an empty picks file.
  {
    std::vector<float> mic = ramp(64, 48, 1, 0.0f);
    const std::string mic_name = path("mic.mrc");
    mrcf_write_xyz_data(mic_name.c_str(), mic.data(), 64, 48, 1);
    note("mic.mrc", 64, 48, 1, "0");
    const std::string box_name = path("mic.box");
    FILE* fp = fopen(box_name.c_str(), "w");
    fprintf(fp, "4 6 16 16 0.5 1 10.0\n-5 30 16 16 0.4 1 0.0\n50 40 16 16 0.3 1 0.0\n");
    fclose(fp);
    mrcf_x2d_extract_ptcls_from_micrograph(mic_name.c_str(), box_name.c_str(), 20, 0);
    note("mic_particles.mrcs", 20, 20, 3, "any");

    const std::string empty_mic = path("empty.mrc");
    mrcf_write_xyz_data(empty_mic.c_str(), mic.data(), 64, 48, 1);
    note("empty.mrc", 64, 48, 1, "0");
    const std::string empty_box = path("empty.box");
    fp = fopen(empty_box.c_str(), "w");
    fclose(fp);
    mrcf_x2d_extract_ptcls_from_micrograph(empty_mic.c_str(), empty_box.c_str(), 24, 0);
    note("empty_particles.mrcs", 24, 24, 0, "any");
  }
  fclose(g_manifest);
  return 0;
}
