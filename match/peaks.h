// Peak finding on the grid of cells: each cell offers its best score as a
// candidate, which survives only if it reaches the cutoff, keeps its
// distance from every excluded position and is not beaten by a close
// candidate in one of the eight neighbouring cells.
#pragma once
#include "common/hd.h"

// Cells of size c a side over an nx x ny map; the last row and column may be
// narrower.
inline int gvex_grid_size(int n, int c) { return (n + c - 1) / c; }

// Two positions conflict when their squared distance is below 2*c*c.
GVEX_HD inline bool hd_too_close(unsigned int a, unsigned int b, int nx, long long lim2) {
  long long dx = (long long)(a % (unsigned int)nx) - (long long)(b % (unsigned int)nx);
  long long dy = (long long)(a / (unsigned int)nx) - (long long)(b / (unsigned int)nx);
  return dx * dx + dy * dy < lim2;
}

// The eight neighbours of cell (gx, gy) in the fixed order above, below,
// left, right, above-left, above-right, below-left, below-right. Where a
// neighbour would fall off the grid the offset in that direction is 0, so
// the cell stands in for the missing neighbour.
GVEX_HD inline void hd_grid_neighbours(int gx, int gy, int gnx, int gny, int nb[8]) {
  const int g = gy * gnx + gx;
  const int up = gy < gny - 1 ? gnx : 0;
  const int dn = gy > 0 ? gnx : 0;
  const int lf = gx > 0 ? 1 : 0;
  const int rt = gx < gnx - 1 ? 1 : 0;
  nb[0] = g + up;
  nb[1] = g - dn;
  nb[2] = g - lf;
  nb[3] = g + rt;
  nb[4] = g + up - lf;
  nb[5] = g + up + rt;
  nb[6] = g - dn - lf;
  nb[7] = g - dn + rt;
}

// Find step for cell (gx, gy): the first strictly greatest ccmax value in
// row-major order; peak_index stays 0 when that is the cell's first pixel
// (the cell is then dropped, its angle not written).
GVEX_HD inline void cuda_find_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* peak_index,
                                              float* peak_score, float* peak_angle, int nx, int ny, int gnx,
                                              int gny, int c, int gx, int gy) {
  const int g = gy * gnx + gx;
  const int x0 = gx * c, y0 = gy * c;
  const int x1 = x0 + c < nx ? x0 + c : nx;
  const int y1 = y0 + c < ny ? y0 + c : ny;
  float best = ccmax[(long)y0 * nx + x0];
  unsigned int idx = 0;
  for (int y = y0; y < y1; y++) {
    for (int x = x0; x < x1; x++) {
      const unsigned int i = (unsigned int)y * (unsigned int)nx + (unsigned int)x;
      if (ccmax[i] > best) {
        best = ccmax[i];
        idx = i;
        peak_angle[g] = psi[i];
      }
    }
  }
  peak_score[g] = best;
  peak_index[g] = idx;
}

// Filter step for cell (gx, gy). found is the find step's peak_index as it
// stood before any filtering: every neighbour test reads it, so the outcome
// does not depend on which cells were already rejected. The verdict lands in
// peak_index[g] (0 = rejected).
//
// Excluded positions come bucketed by the cell their pixel lies in (CSR:
// bucket b holds items[start[b]] .. items[start[b+1]-1], the last bucket
// those beyond the grid): a position closer than c*sqrt(2) lies at most two
// cells away, so the 5 x 5 cells about the candidate and the last bucket
// decide exactly what testing every position would.
GVEX_HD inline void cuda_filter_ccmax_psi_grids_exclusive(const unsigned int* found, unsigned int* peak_index,
                                                          const float* peak_score, float cc_cutoff, int nx,
                                                          int gnx, int gny, int c, const unsigned int* start,
                                                          const unsigned int* items, int gx, int gy) {
  const int g = gy * gnx + gx;
  const unsigned int p = found[g];
  const float s = peak_score[g];
  if (s < cc_cutoff) {
    peak_index[g] = 0;
    return;
  }
  const long long lim2 = 2LL * c * c;
  unsigned int keep = p;
  auto test_bucket = [&](int b) {
    for (unsigned int k = start[b]; k < start[b + 1] && keep; k++)
      if (hd_too_close(p, items[k], nx, lim2)) keep = 0;
  };
  for (int by = gy - 2; by <= gy + 2; by++)
    for (int bx = gx - 2; bx <= gx + 2; bx++)
      if (bx >= 0 && bx < gnx && by >= 0 && by < gny) test_bucket(by * gnx + bx);
  test_bucket(gnx * gny);
  if (keep) {
    int nb[8];
    hd_grid_neighbours(gx, gy, gnx, gny, nb);
    for (int k = 0; k < 8; k++) {
      const int n = nb[k];
      if (hd_too_close(p, found[n], nx, lim2) && s < peak_score[n]) {
        keep = 0;
        break;
      }
    }
  }
  peak_index[g] = keep;
}

// Find and filter one template's maps. ccmax, psi and excluded are device
// arrays; peak_index, peak_score and peak_angle are host arrays of
// gnx*gny entries (cells whose index is 0 hold no candidate).
void gpu_find_filter_ccmax_psi_grids_exclusive(float* ccmax, float* psi, unsigned int* peak_index, float* peak_score,
                                               float* peak_angle, float cc_cutoff, int nx, int ny, int c,
                                               unsigned int* excluded, unsigned int n_excluded);
