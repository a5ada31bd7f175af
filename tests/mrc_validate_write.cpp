// Writes MRC files through each of our writers (host and device data,
// images and stacks, particle stacks) into the folder given as the only
// argument, with a line per file in manifest.txt for mrc_validate.py:
//   <file> <nx> <ny> <nz> <ramp offset, or "any">
// Ramp files hold x + 100*y + 10000*z + offset at pixel (x, y) of section z.
#include <cstdio>
#include <string>
#include <vector>

#include "gpu/device.h"
#include "io/extract.h"
#include "io/mrcfile.h"
#include "match/write_image.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string dir = argv[1];
  auto path = [&](const char* name) { return dir + "/" + name; };
  FILE* manifest = fopen(path("manifest.txt").c_str(), "w");
  if (!manifest) return 2;
  gvex_device_activate(0);

  // from_device: the data are copied to the device first.
  auto write = [&](const char* name, int nx, int ny, int nz, float offset, bool from_device) {
    std::vector<float> v((size_t)nx * ny * nz);
    for (size_t i = 0; i < v.size(); i++)
      v[i] = (float)(i % nx + 100 * (i / nx % ny) + 10000 * (i / nx / ny)) + offset;
    DeviceArray<float> d(v.size());
    memcpy_H2D(d.get(), v.data(), v.size() * sizeof(float));
    if (from_device)
      mrcf_write_xyz_ddata(path(name).c_str(), d.get(), nx, ny, nz);
    else
      mrcf_write_xyz_data(path(name).c_str(), v.data(), nx, ny, nz);
    fprintf(manifest, "%s %d %d %d %g\n", name, nx, ny, nz, offset);
  };
  write("host_image.mrc", 37, 23, 1, 0.25f, false);
  write("host_stack.mrcs", 16, 12, 5, -3.5f, false);
  write("device_image.mrc", 20, 30, 1, 1.0f, true);
  write("device_stack.mrcs", 8, 8, 4, 2.0f, true);
  write("head_stack.mrcs", 10, 6, 2, -100.0f, false);

  // Particle stacks: three picks, one past the border, and no picks.
  write("mic.mrc", 64, 48, 1, 0.0f, false);
  write("empty.mrc", 64, 48, 1, 0.0f, false);
  FILE* fp = fopen(path("mic.box").c_str(), "w");
  fprintf(fp, "4 6 16 16 0.5 1 10.0\n-5 30 16 16 0.4 1 0.0\n50 40 16 16 0.3 1 0.0\n");
  fclose(fp);
  fclose(fopen(path("empty.box").c_str(), "w"));
  mrcf_x2d_extract_ptcls_from_micrograph(path("mic.mrc").c_str(), path("mic.box").c_str(), 20, 0);
  mrcf_x2d_extract_ptcls_from_micrograph(path("empty.mrc").c_str(), path("empty.box").c_str(), 24, 0);
  fprintf(manifest, "mic_particles.mrcs 20 20 3 any\nempty_particles.mrcs 24 24 0 any\n");
  fclose(manifest);
  return 0;
}
