// Particle extraction: cut the picked particles out of a micrograph (or of
// every frame of a movie) into one MRC stack beside it.
#pragma once
#include "common/records.h"

// Most particle records taken from one coordinate file.
constexpr int GVEX_MAX_EXTRACT_PTCLS = 10240;
// Largest particle box side accepted from a coordinate file or a caller.
constexpr int GVEX_MAX_EXTRACT_BOX = 16384;

// Writes <micrograph without .mrc/.mrcs>_particles.mrcs; newsize 0 keeps the
// boxes of the file. Returns 0.
int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic_name, const char* box_name, int newsize, int invert);
// All particle images (particle-major for a movie); caller frees.
float* get_mrcf_data_ptcls(const char* mic_name, const char* box_name, int newsize, int invert);
// Re-centres n records on square boxes of the given size.
void resize_ptcl_boxes(PTCL_BOX* boxes, int n, int size);
// Image i of out is the bx x by window whose corner is record i; pixels
// outside the micrograph are 0.
void cpu_x2d_extract_ptcls_from_micrograph(float* out, int bx, int by, int n, const float* mic, int nx, int ny,
                                           const PTCL_BOX* boxes);
// The same for nz frames: all frames of particle 0, then of particle 1, ...
void cpu_x2d_extract_ptcls_from_movie(float* out, int bx, int by, int nz, int n, const float* movie, int nx, int ny,
                                      const PTCL_BOX* boxes);
