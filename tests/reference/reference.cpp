#include "reference/reference.h"

#include <cmath>

namespace ref {

std::vector<std::complex<double>> dft_r2c(const float* in, int nx, int ny) {
  const int nxh = nx / 2 + 1;
  const double two_pi = 2.0 * M_PI;
  std::vector<std::complex<double>> out((size_t)nxh * ny);
  for (int ky = 0; ky < ny; ky++)
    for (int kx = 0; kx < nxh; kx++) {
      std::complex<double> s = 0.0;
      for (int y = 0; y < ny; y++)
        for (int x = 0; x < nx; x++) {
          // Reduce the phase exactly in integers before the trigonometry.
          const double ph = two_pi * ((double)((long)kx * x % nx) / nx + (double)((long)ky * y % ny) / ny);
          s += (double)in[y * nx + x] * std::complex<double>(std::cos(ph), -std::sin(ph));
        }
      out[(size_t)ky * nxh + kx] = s;
    }
  return out;
}

std::vector<double> circular_xcorr(const float* m, const float* t, int nx, int ny) {
  std::vector<double> out((size_t)nx * ny);
  for (int sy = 0; sy < ny; sy++)
    for (int sx = 0; sx < nx; sx++) {
      double s = 0.0;
      for (int y = 0; y < ny; y++)
        for (int x = 0; x < nx; x++)
          s += (double)m[((y + sy) % ny) * nx + (x + sx) % nx] * (double)t[y * nx + x];
      out[(size_t)sy * nx + sx] = s;
    }
  return out;
}

std::vector<float> mirror_pad(const float* in, int nx, int ny) {
  const int NX = 2 * nx, NY = 2 * ny;
  std::vector<float> out((size_t)NX * NY);
  for (int Y = 0; Y < NY; Y++)
    for (int X = 0; X < NX; X++) {
      const int x = X < nx ? X : NX - 1 - X;
      const int y = Y < ny ? Y : NY - 1 - Y;
      out[(size_t)Y * NX + X] = in[y * nx + x];
    }
  return out;
}

std::vector<double> local_mean(const float* img, const float* mask, int NX, int NY, int nx, int ny) {
  double msum = 0.0;
  for (int i = 0; i < NX * NY; i++) msum += mask[i];
  std::vector<double> out((size_t)nx * ny);
  for (int Y = 0; Y < ny; Y++)
    for (int X = 0; X < nx; X++) {
      double s = 0.0;
      for (int py = 0; py < NY; py++)
        for (int px = 0; px < NX; px++) {
          const double w = mask[py * NX + px];
          if (w == 0.0) continue;
          const int ix = ((X + px - NX / 2) % NX + NX) % NX;
          const int iy = ((Y + py - NY / 2) % NY + NY) % NY;
          s += w * (double)img[iy * NX + ix];
        }
      out[(size_t)Y * nx + X] = s / msum;
    }
  return out;
}

double abs_sum(const float* p, int n) {
  double s = 0.0;
  for (int i = 0; i < n; i++) s += std::fabs((double)p[i]);
  return s;
}

}  // namespace ref
