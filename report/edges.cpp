#include "report/edges.h"

#include <algorithm>
#include <cmath>

namespace {

// The micrograph in blocks of bin x bin pixels (means), about 8 blocks a
// particle radius: the slope of an edge survives, single-pixel noise not.
struct Binned {
  int bin = 1, nx = 0, ny = 0;
  std::vector<double> v;
};

Binned bin_image(const std::vector<float>& pixels, int nx, int ny, int bin) {
  Binned b;
  b.bin = bin, b.nx = nx / bin, b.ny = ny / bin;
  b.v.assign((size_t)b.nx * b.ny, 0.0);
  for (int y = 0; y < b.ny * bin; y++)
    for (int x = 0; x < b.nx * bin; x++) b.v[(size_t)(y / bin) * b.nx + x / bin] += pixels[(size_t)y * nx + x];
  for (double& s : b.v) s /= (double)bin * bin;
  return b;
}

// Steepness of the plane fitted (least squares) to the annulus around the
// block nearest (x, y), clipped to the micrograph; 0 with too few blocks.
double slope_at(const Binned& b, double x, double y, double r) {
  const int cx = (int)std::lround(x / b.bin), cy = (int)std::lround(y / b.bin);
  const int reach = (int)std::ceil(3 * r);
  double n = 0, sx = 0, sy = 0, sv = 0, sxx = 0, syy = 0, sxy = 0, sxv = 0, syv = 0;
  for (int dy = -reach; dy <= reach; dy++) {
    const int yy = cy + dy;
    if (yy < 0 || yy >= b.ny) continue;
    for (int dx = -reach; dx <= reach; dx++) {
      const int xx = cx + dx;
      const double d = std::hypot((double)dx, (double)dy);
      if (xx < 0 || xx >= b.nx || d < 1.5 * r || d > 3 * r) continue;
      const double v = b.v[(size_t)yy * b.nx + xx];
      n += 1, sx += dx, sy += dy, sv += v;
      sxx += (double)dx * dx, syy += (double)dy * dy, sxy += (double)dx * dy, sxv += dx * v, syv += dy * v;
    }
  }
  if (n < 4) return 0;
  // Centred sums: the plane's offset drops out of its two slopes.
  const double cxx = sxx - sx * sx / n, cyy = syy - sy * sy / n, cxy = sxy - sx * sy / n;
  const double cxv = sxv - sx * sv / n, cyv = syv - sy * sv / n;
  const double det = cxx * cyy - cxy * cxy;
  if (!(det > 0)) return 0;
  return std::hypot((cyy * cxv - cxy * cyv) / det, (cxx * cyv - cxy * cxv) / det);
}

}  // namespace

std::vector<char> edge_picks(const std::vector<float>& pixels, int nx, int ny, double radius,
                             const std::vector<Pick>& picks, const std::vector<Pick>& decoys,
                             std::vector<char>* decoys_on_edge) {
  std::vector<char> edge(picks.size(), 0);
  if (decoys_on_edge) decoys_on_edge->assign(decoys.size(), 0);
  // A particle wider than the micrograph leaves no annulus to measure.
  if (!(radius >= 1) || !(radius <= std::max(nx, ny)) || nx <= 0 || ny <= 0 || pixels.size() < (size_t)nx * ny ||
      picks.empty())
    return edge;
  const int bin = std::max(1, (int)std::lround(radius / 8));
  const Binned b = bin_image(pixels, nx, ny, bin);
  const double r = radius / bin;
  std::vector<double> slope, decoy_slope, all;
  for (const Pick& p : picks) slope.push_back(slope_at(b, p.x, p.y, r));
  for (const Pick& p : decoys) decoy_slope.push_back(slope_at(b, p.x, p.y, r));
  for (const std::vector<double>* v : {&slope, &decoy_slope})
    for (double s : *v)
      if (std::isfinite(s)) all.push_back(s);
  if (all.empty()) return edge;
  // The median as the middle element (the upper one of an even count):
  // one rule whatever the count, and no averaging of two.
  std::nth_element(all.begin(), all.begin() + all.size() / 2, all.end());
  const double median = all[all.size() / 2];
  if (!(median > 0)) return edge;
  for (size_t i = 0; i < picks.size(); i++) edge[i] = slope[i] > kEdgeGradient * median;
  if (decoys_on_edge)
    for (size_t i = 0; i < decoys.size(); i++) (*decoys_on_edge)[i] = decoy_slope[i] > kEdgeGradient * median;
  return edge;
}
