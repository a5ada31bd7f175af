// Ice, contamination and exclusion masks on the grid of cells. The
// exclusion grid holds per cell the pixel index y*nx + x of the position
// that condemned it, 0 for a clean cell.
#pragma once
#include "common/hd.h"
#include "common/records.h"


// Per-cell kernel body: the cell's first pixel sets the starting record
// (cell_sigma, cell_ave) and a later pixel becomes the new record when
// (sigma > record and sigma > lsigma_cutoff) or (ave < record and ave <
// lave_min) or (ave > record and ave > lave_max); both record values move
// together. grid[g] is the index of the last record, 0 when there was none.
GVEX_HD inline void cuda_find_sigma_grids(const float* lave, const float* lsigma, unsigned int* grid,
                                          float* cell_ave, float* cell_sigma, int nx, int ny, int gnx, int c,
                                          float lave_min, float lave_max, float lsigma_cutoff, int gx, int gy) {
  const int g = gy * gnx + gx;
  const int x0 = gx * c, y0 = gy * c;
  const int x1 = x0 + c < nx ? x0 + c : nx;
  const int y1 = y0 + c < ny ? y0 + c : ny;
  const unsigned int i0 = (unsigned int)y0 * (unsigned int)nx + (unsigned int)x0;
  float cs = lsigma[i0], ca = lave[i0];
  unsigned int idx = 0;
  for (int y = y0; y < y1; y++) {
    for (int x = x0; x < x1; x++) {
      const unsigned int i = (unsigned int)y * (unsigned int)nx + (unsigned int)x;
      const float s = lsigma[i], a = lave[i];
      if ((s > cs && s > lsigma_cutoff) || (a < ca && a < lave_min) || (a > ca && a > lave_max)) {
        cs = s;
        ca = a;
        idx = i;
      }
    }
  }
  grid[g] = idx;
  cell_ave[g] = ca;
  cell_sigma[g] = cs;
}

// Device arrays throughout: lave, lsigma (nx x ny), grid, cell_ave,
// cell_sigma (one entry per cell of c pixels).
void hcuda_find_sigma_grids(float* lave, float* lsigma, unsigned int* grid, float* cell_ave, float* cell_sigma, int nx,
                            int ny, int c, float lave_min, float lave_max, float lsigma_cutoff);

// What ice detection needs, in working pixels.
struct IceSettings {
  int cell = 0;            // grid cell size
  int shrink = 1;          // working pixels per micrograph pixel, for the rejected files
  float lsigma_r = 0.0f;   // radius of the local-sigma window
  float lave_r = 0.0f;     // radius of the local-average window
  float edge = 0.0f;       // soft edge of both windows
  float lave_min = 0.0f, lave_max = 0.0f, lsigma_cutoff = 0.0f;  // relative cutoffs
  bool write_rejected = false, write_bg = false, write_lsigma = false;
};

// Marks the cells of the device grid whose local standard deviation or local
// average is abnormal. mic is the z-normalised working image (device). With
// write_rejected the condemned positions go to name's "_rejected.box" and
// "_rejected.star"; with write_bg / write_lsigma the local maps go to
// "_bg.mrc" / "_lsigma.mrc". Returns 0.
int hcuda_2d_ice_detect(const float* mic, int nx, int ny, int2 origin, unsigned int* grid, const char* name,
                        const IceSettings& s);

// Marks the cell of each record's centre (micrograph pixels, shrunk by
// integer division) in the device grid; a later record overwrites an earlier
// one in the same cell. Centres outside the working image are ignored.
// Returns 0.
int add_excluded_coords_to_ice(unsigned int* grid, int nx, int ny, int c, PTCL_BOX* boxes, int n, int shrink);

// The same for the records of a coordinate file (.box or .star), read when
// the file is named and readable (else nothing happens). Returns 0.
int add_excluded_boxf_to_ice(unsigned int* grid, int nx, int ny, int c, char* path, int shrink);

// Usable-area mask: every pixel of a cell with a non-zero grid entry becomes
// v, every other pixel 1 - v. src is not read.
void hcuda_2d_generate_mask_by_coords(float* mask, const float* src, int nx, int ny, int c, unsigned int* grid, int v);
