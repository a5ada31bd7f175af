// Templates: read from an MRC stack and brought to the working pixel size,
// or synthesised as a soft bright disc; normalised per slice; rotation
// angles of the scan.
#pragma once
#include <vector>

// A soft disc of outer radius R: flat core of radius R*c, Gaussian edge of
// width (1-c)*R (sigma a third of it), on an n x n square with
// n = 4*trunc(R); nz = 1. R = 0.9 gives a 0 x 0 template.
float* create_template_data(int& nx, int& ny, int& nz, float R, float c);

// The stack at working pixel size: synthetic when path is "NULL"/"NONE"
// (any case) or empty, else read, rescaled by apixT/apixM (only when that
// ratio differs from 1) and block-averaged by shrink. nx, ny, nz are set to
// the final sizes.
float* get_or_create_template_data(int& nx, int& ny, int& nz, char* path, float R, float apixT, float apixM,
                                   int shrink, float c);

// Normalisation type 2 of one slice, in place: pixels outside the disc of
// radius R about the centre are zeroed, then the in-disc sum divided by the
// whole slice's pixel count is subtracted everywhere. Returns 0.
int rmask_subtract_background(float* data, float R, int nx, int ny);

// Normalises one host slice by type: 1 subtracts its mean, 2 is
// rmask_subtract_background, 3 z-normalises under a soft disc of inner
// radius R*(1-c) and edge R*c and applies the disc; anything else leaves the
// slice as it is.
void cpu_2d_template_norm_inplace(float* slice, int nx, int ny, int type, float R, float c);

// Fills the device stack d_stack (nx*ny*nz floats) from the host stack:
// each slice normalised on a host copy by type, then, unless dont_invert,
// the whole device stack negated.
void hcuda_upload_templates(float* d_stack, const float* stack, int nx, int ny, int nz, int type, float R, float c,
                            int dont_invert);

// Rotation angles of the scan: from start, while below end, adding step in
// float each time. step 5 over [0, 359) gives 72 angles, 360 gives one. A
// step that cannot advance the angle (zero, negative, NaN, too small) is
// fatal.
std::vector<float> get_rotation_angles(float start, float end, float step);
