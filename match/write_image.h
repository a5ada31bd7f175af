// The stages' diagnostic images: a device image copied to the host and
// written as a mode-2 MRC file (io/ takes host arrays only).
#pragma once

int mrcf_write_xyz_ddata(const char* name, const float* d_data, int nx, int ny, int nz);
