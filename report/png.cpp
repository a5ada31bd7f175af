#include "report/png.h"

#include <png.h>

#include <cmath>
#include <csetjmp>

#include "common/atomic_file.h"

void Picture::blend(int x, int y, const uint8_t c[3], double a) {
  if (x < 0 || y < 0 || x >= w || y >= h) return;
  uint8_t* p = &rgb[((size_t)y * w + x) * 3];
  for (int k = 0; k < 3; k++) p[k] = (uint8_t)std::lround(p[k] * (1 - a) + c[k] * a);
}

void Picture::ring(double cx, double cy, double radius, double thickness, const uint8_t c[3]) {
  if (!std::isfinite(cx) || !std::isfinite(cy) || !(radius >= 0) || !std::isfinite(radius)) return;
  // Only the rows of the picture, and in each only the two runs the ring
  // crosses: the cost is the ring's visible length, never its area.
  const double outer = radius + thickness, inner = std::max(0.0, radius - thickness);
  const double y0 = std::max(0.0, std::floor(cy - outer)), y1 = std::min((double)h - 1, std::ceil(cy + outer));
  for (double yd = y0; yd <= y1; yd++) {
    const double dy = yd - cy;
    if (dy * dy > outer * outer) continue;
    const double xo = std::sqrt(outer * outer - dy * dy);
    const double xi = dy * dy < inner * inner ? std::sqrt(inner * inner - dy * dy) : 0.0;
    for (int side = -1; side <= 1; side += 2) {
      const double a = cx + side * xi, b = cx + side * xo;
      const double lo = std::max(0.0, std::floor(std::min(a, b))), hi = std::min((double)w - 1, std::ceil(std::max(a, b)));
      for (double xd = lo; xd <= hi; xd++) {
        const double d = std::fabs(std::hypot(xd - cx, dy) - radius);
        if (d < thickness) blend((int)xd, (int)yd, c, d < thickness - 1 ? 1.0 : thickness - d);
      }
    }
  }
}

bool write_png(const std::string& path, const Picture& p) {
  PartFile file(path.c_str(), "wb");
  if (!file.fp()) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {  // libpng reports its errors here
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file.fp());
  png_set_IHDR(png, info, p.w, p.h, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < p.h; y++) png_write_row(png, const_cast<png_bytep>(&p.rgb[(size_t)y * p.w * 3]));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return file.commit();
}
