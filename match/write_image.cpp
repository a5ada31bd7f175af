#include "match/write_image.h"

#include <vector>

#include "gpu/device.h"
#include "io/mrcfile.h"

int mrcf_write_xyz_ddata(const char* name, const float* d_data, int nx, int ny, int nz) {
  const unsigned long n = nx > 0 && ny > 0 && nz > 0 ? (unsigned long)nx * ny * nz : 0;
  std::vector<float> host(n > 0 ? n : 1);
  if (n > 0) gvex_check_copy(memcpy_D2H(host.data(), d_data, n * sizeof(float)), __FILE__, __LINE__);
  return mrcf_write_xyz_data_as(name, host.data(), nx, ny, nz, "mrcf_write_xyz_ddata");
}
