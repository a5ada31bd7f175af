// Host-only image arithmetic on host arrays: block-mean shrinking, the
// square mirror extension, cutting windows, and the continuous soft disc.
// The device layer's images are in gpu/.
#pragma once

// Output sizes of the even square shrink.
inline int hd_even_shrink_size(int n, int f) { return (n / (2 * f)) * 2; }

// Block mean by f to (nx/f) x (ny/f); f = 1 copies, f < 1 prints an error
// line and leaves out untouched (the run goes on).
void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int f);

// The same for nz stacked images.
void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int f);

// Block mean by f to nxo = (nx/(2f))*2 by nyo = (ny/(2f))*2, written with
// row stride S = max(nxo, nyo) into an S x S buffer and mirror-filled.
void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int f);

// Fill the square max(nx, ny) buffer holding an nx x ny image by mirroring
// about its last row (wide) or last column (tall); fatal when one side is at
// least twice the other.
void cpu_2d_extend_to_square_mirror_inplace(float* p, int nx, int ny);

// Host window with top-left corner (x0, y0) of large; zeros outside large.
void cpu_x2d_extract_small_from_large(float* small, int nx, int ny, const float* large, int NX, int NY, int x0,
                                      int y0);

// Soft disc with centre (cx, cy), inner radius r and edge width w: 1 inside
// r, 0 beyond r + w, a continuous Gaussian edge of sigma w/3 between.
void cpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float w);

// Host: normalise p to zero mean and unit deviation under the host soft
// disc (double arithmetic), then multiply it by the disc. An empty disc
// warns and yields NaN or infinities.
void cpu_2d_normz_withRmask_applymask_inplace(float* p, int nx, int ny, float cx, float cy, float r, float w);
