// RGB pictures and their PNG files (libpng).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

struct Picture {
  int w = 0, h = 0;
  std::vector<uint8_t> rgb;  // w * h * 3, rows top to bottom
  Picture(int w_, int h_) : w(w_), h(h_), rgb((size_t)w_ * h_ * 3, 0) {}
  // Blends colour (r, g, b) into pixel (x, y) with weight a in [0, 1];
  // pixels outside the picture are ignored.
  void blend(int x, int y, const uint8_t c[3], double a);
};

// Writes the picture as PNG under "<path>.part", then renames it; false
// when anything failed (nothing is left behind then).
bool write_png(const std::string& path, const Picture& p);
