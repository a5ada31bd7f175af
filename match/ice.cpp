// Ice and contamination detection, excluded coordinates, usable-area mask.
#include "match/ice.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "common/errors.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/local_stats.h"
#include "gpu/pool.h"
#include "io/boxfile.h"
#include "io/mrcfile.h"
#include "match/write_image.h"
#include "match/peaks.h"

namespace {

const char* const gvex_module = "vexmatch56";

void check_cell(const char* func, int nx, int ny, int c) {
  if (c >= 1 && nx >= 1 && ny >= 1) return;
  char why[160];
  snprintf(why, sizeof why, "grid cell of %d pixels on a %d x %d image; the cell must be at least 1 pixel", c, nx, ny);
  gvex_fatal(func, gvex_module, __LINE__, why);
}

}  // namespace

void hcuda_find_sigma_grids(float* lave, float* lsigma, unsigned int* grid, float* cell_ave, float* cell_sigma, int nx,
                            int ny, int c, float lave_min, float lave_max, float lsigma_cutoff) {
  check_cell("hcuda_find_sigma_grids", nx, ny, c);
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const float* d_ave = lave;
  const float* d_sig = lsigma;
  unsigned int* d_grid = grid;
  float* d_cave = cell_ave;
  float* d_csig = cell_sigma;
  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    cuda_find_sigma_grids(d_ave, d_sig, d_grid, d_cave, d_csig, nx, ny, gnx, c, lave_min, lave_max, lsigma_cutoff, gx,
                          gy);
  });
}

int hcuda_2d_ice_detect(const float* mic, int nx, int ny, int2 origin, unsigned int* grid, const char* name,
                        const IceSettings& s) {
  const int c = s.cell;
  check_cell("hcuda_2d_ice_detect", nx, ny, c);
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const unsigned long n = (unsigned long)nx * ny, ng = (unsigned long)gnx * gny;

  PooledArray<float> lsigma(n), lave(n), cell_ave(ng), cell_sigma(ng);
  hcuda_2d_local_ave_sigma_softR_mpad(lave.get(), lsigma.get(), mic, nx, ny, s.lave_r, s.lsigma_r, s.edge);
  hcuda_find_sigma_grids(lave.get(), lsigma.get(), grid, cell_ave.get(), cell_sigma.get(), nx, ny, c, s.lave_min,
                         s.lave_max, s.lsigma_cutoff);

  std::vector<unsigned int> h_grid(ng);
  std::vector<float> h_ave(ng), h_sigma(ng);
  memcpy_D2H(h_grid.data(), grid, ng * sizeof(unsigned int));
  memcpy_D2H(h_ave.data(), cell_ave.get(), ng * sizeof(float));
  memcpy_D2H(h_sigma.data(), cell_sigma.get(), ng * sizeof(float));

  char out[GVEX_NAME_LEN];
  if (s.write_rejected) {
    set_outname_by_suffix(out, name, "_rejected.box");
    output_ice_coord(out, h_grid.data(), h_ave.data(), h_sigma.data(), nx, ny, origin, c, s.shrink, 2);
    set_outname_by_suffix(out, name, "_rejected.star");
    output_ice_coord(out, h_grid.data(), h_ave.data(), h_sigma.data(), nx, ny, origin, c, s.shrink, 1);
  }
  if (s.write_bg) {
    set_outname_by_suffix(out, name, "_bg.mrc");
    mrcf_write_xyz_ddata(out, lave.get(), nx, ny, 1);
  }
  if (s.write_lsigma) {
    set_outname_by_suffix(out, name, "_lsigma.mrc");
    mrcf_write_xyz_ddata(out, lsigma.get(), nx, ny, 1);
  }
  return 0;
}

int add_excluded_coords_to_ice(unsigned int* grid, int nx, int ny, int c, PTCL_BOX* boxes, int n, int shrink) {
  if (n <= 0) return 0;
  check_cell("add_excluded_coords_to_ice", nx, ny, c);
  if (shrink < 1) GVEX_FAIL("shrink factor must be at least 1");
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const unsigned long ng = (unsigned long)gnx * gny;
  // In record order on the host, so that a later particle in a cell wins.
  std::vector<unsigned int> h(ng);
  memcpy_D2H(h.data(), grid, ng * sizeof(unsigned int));
  for (int k = 0; k < n; k++) {
    const long long cx = (long long)boxes[k].x + boxes[k].bx / 2;
    const long long cy = (long long)boxes[k].y + boxes[k].by / 2;
    const long long px = cx / shrink, py = cy / shrink;
    if (cx < 0 || cy < 0 || px >= nx || py >= ny) continue;  // not on the working image
    h[(py / c) * gnx + px / c] = (unsigned int)(py * nx + px);
  }
  memcpy_H2D(grid, h.data(), ng * sizeof(unsigned int));
  return 0;
}

int add_excluded_boxf_to_ice(unsigned int* grid, int nx, int ny, int c, char* path, int shrink) {
  if (is_str_null(path) || access(path, R_OK) != 0) return 0;
  check_cell("add_excluded_boxf_to_ice", nx, ny, c);
  const int ng = gvex_grid_size(nx, c) * gvex_grid_size(ny, c);
  std::vector<PTCL_BOX> boxes(ng);
  const int n = read_all_ptcl_boxes(boxes.data(), ng, path);
  printf("%8d particles in file %s excluded from auto-picking \n", n, path);
  return add_excluded_coords_to_ice(grid, nx, ny, c, boxes.data(), n, shrink);
}

void hcuda_2d_generate_mask_by_coords(float* mask, const float* src, int nx, int ny, int c, unsigned int* grid, int v) {
  check_cell("hcuda_2d_generate_mask_by_coords", nx, ny, c);
  const int gnx = gvex_grid_size(nx, c), gny = gvex_grid_size(ny, c);
  const float on = (float)v, off = (float)(1 - v);
  float* d_mask = mask;
  const unsigned int* d_grid = grid;
  launch_2d(GVEX_SITE, gnx, gny, GVEX_LAMBDA(int gx, int gy) {
    const float value = d_grid[gy * gnx + gx] ? on : off;
    const int x0 = gx * c, y0 = gy * c;
    const int x1 = x0 + c < nx ? x0 + c : nx;
    const int y1 = y0 + c < ny ? y0 + c : ny;
    for (int y = y0; y < y1; y++)
      for (int x = x0; x < x1; x++) d_mask[(long)y * nx + x] = value;
  });
}
