// Peak finding and filtering on the cell grid (kernel bodies in peaks.h).
#include "match/peaks.h"

#include <cstdio>

#include "common/errors.h"
#include "gpu/device.h"
#include "gpu/launch.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "peaks";

void gpu_find_filter_ccmax_psi_grids_exclusive(float* ccmax, float* psi, unsigned int* peak_index, float* peak_score,
                                               float* peak_angle, float cc_cutoff, int nx, int ny, int c,
                                               unsigned int* excluded, unsigned int n_excluded) {
  if (c < 1 || nx < 1 || ny < 1) {
    char why[160];
    snprintf(why, sizeof why, "grid cell of %d pixels on a %d x %d map; the cell must be at least 1 pixel", c, nx,
             ny);
    GVEX_FAIL(why);
  }
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const unsigned long ng = (unsigned long)gnx * gny;
  DeviceArray<unsigned int> found(ng), index(ng);
  DeviceArray<float> score(ng), angle(ng, true);
  unsigned int* d_found = found.get();
  unsigned int* d_index = index.get();
  float* d_score = score.get();
  float* d_angle = angle.get();
  const float* d_ccmax = ccmax;
  const float* d_psi = psi;
  const unsigned int* d_excl = excluded;

  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    cuda_find_ccmax_psi_grids(d_ccmax, d_psi, d_found, d_score, d_angle, nx, ny, gnx, gny, c, gx, gy);
  });
  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    cuda_filter_ccmax_psi_grids_exclusive(d_found, d_index, d_score, cc_cutoff, nx, gnx, gny, c, d_excl, n_excluded,
                                          gx, gy);
  });

  memcpy_D2H(peak_index, d_index, ng * sizeof(unsigned int));
  memcpy_D2H(peak_score, d_score, ng * sizeof(float));
  memcpy_D2H(peak_angle, d_angle, ng * sizeof(float));
}
