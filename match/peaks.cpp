// Peak finding and filtering on the cell grid (kernel bodies in peaks.h).
#include "match/peaks.h"

#include <cstdio>
#include <vector>

#include "common/errors.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/pool.h"

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
  PooledArray<unsigned int> found(ng), index(ng);
  // A cell whose best pixel is its first keeps angle 0: the find step does
  // not write it.
  PooledArray<float> score(ng), angle(ng, true);
  unsigned int* d_found = found.get();
  unsigned int* d_index = index.get();
  float* d_score = score.get();
  float* d_angle = angle.get();
  const float* d_ccmax = ccmax;
  const float* d_psi = psi;
  // Excluded positions by the cell their pixel lies in (an empty grid
  // entry is pixel 0, the origin corner, as everywhere else).
  std::vector<unsigned int> ex(n_excluded), start(ng + 2, 0), items(n_excluded);
  if (n_excluded) memcpy_D2H(ex.data(), excluded, n_excluded * sizeof(unsigned int));
  auto bucket = [&](unsigned int e) {
    const unsigned int x = e % (unsigned int)nx, y = e / (unsigned int)nx;
    return y / (unsigned int)c < (unsigned int)gny ? (y / c) * gnx + x / c : (unsigned int)ng;
  };
  for (unsigned int e : ex) start[bucket(e) + 1]++;
  for (unsigned long b = 0; b <= ng; b++) start[b + 1] += start[b];
  std::vector<unsigned int> fill(start.begin(), start.end() - 1);
  for (unsigned int e : ex) items[fill[bucket(e)]++] = e;
  PooledArray<unsigned int> ex_start(ng + 2), ex_items(n_excluded ? n_excluded : 1);
  memcpy_H2D(ex_start.get(), start.data(), (ng + 2) * sizeof(unsigned int));
  if (n_excluded) memcpy_H2D(ex_items.get(), items.data(), n_excluded * sizeof(unsigned int));
  const unsigned int* d_start = ex_start.get();
  const unsigned int* d_items = ex_items.get();

  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    cuda_find_ccmax_psi_grids(d_ccmax, d_psi, d_found, d_score, d_angle, nx, ny, gnx, gny, c, gx, gy);
  });
  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    cuda_filter_ccmax_psi_grids_exclusive(d_found, d_index, d_score, cc_cutoff, nx, gnx, gny, c, d_start, d_items,
                                          gx, gy);
  });

  memcpy_D2H(peak_index, d_index, ng * sizeof(unsigned int));
  memcpy_D2H(peak_score, d_score, ng * sizeof(float));
  memcpy_D2H(peak_angle, d_angle, ng * sizeof(float));
}
