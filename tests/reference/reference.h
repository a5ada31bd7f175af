// Slow, exact references for the Fourier-space code, computed in double by
// the textbook formulas. Sizes are meant to stay small (up to 64 x 64).
#pragma once
#include <complex>
#include <vector>

namespace ref {

// Direct 2-D DFT of a real nx x ny image, exponent sign -1, unnormalised,
// returned as the half spectrum: ny rows of nx/2+1 values, natural order.
std::vector<std::complex<double>> dft_r2c(const float* in, int nx, int ny);

// Circular cross-correlation with the zero shift at (0, 0):
// out(sx, sy) = sum over p of m((p + s) mod size) * t(p).
std::vector<double> circular_xcorr(const float* m, const float* t, int nx, int ny);

// 2nx x 2ny mirror extension: even about both centre lines.
std::vector<float> mirror_pad(const float* in, int nx, int ny);

// Weighted window mean on a periodic NX x NY image: the window is the whole
// mask, mask pixel p weighting img((X, Y) + p - (NX/2, NY/2)) with wrap,
// divided by the mask's sum. Returned for the top-left nx x ny pixels.
std::vector<double> local_mean(const float* img, const float* mask, int NX, int NY, int nx, int ny);

// Sum of |x| over n values (scale for float tolerances).
double abs_sum(const float* p, int n);

}  // namespace ref
