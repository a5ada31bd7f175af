// Example-data generator: writes a deterministic synthetic micrograph with
// dark soft-edged particles at known centres, a smooth background, noise
// and one contamination blob, and scores a pick file against the truth.
//
//   gvex_makemic make OUT.mrc [--nx N] [--ny N] [--apix A] [--diameter D]
//                [--seed S] [--noise SIGMA] [--density F] [--mode 0|1|2|6] [--no-blob]
//       writes OUT.mrc and OUT_truth.txt (one "x y" centre per line)
//   gvex_makemic score PICKS.box TRUTH.txt RADIUS
//       prints how many planted particles have a pick within RADIUS pixels
//   gvex_makemic f1 RADIUS CUT PICKS.box TRUTH.txt [PICKS.box TRUTH.txt ...]
//       F1 of a set's picks at or above CUT, and the best F1 of any cut-off
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "io/mrcfile.h"
#include "tools/rng.h"

namespace {

struct Options {
  int nx = 2048, ny = 2048, mode = 2;
  double apix = 1.34, diameter = 300.0, noise = 2.0, density = 0.8;
  uint64_t seed = 1;
  bool blob = true;
};

[[noreturn]] void usage() {
  fprintf(stderr,
          "usage: gvex_makemic make OUT.mrc [--nx N] [--ny N] [--apix A] [--diameter D] [--seed S]\n"
          "                    [--noise SIGMA] [--density F] [--mode 0|1|2|6] [--no-blob]\n"
          "       gvex_makemic score PICKS.box TRUTH.txt RADIUS\n"
          "       gvex_makemic f1 RADIUS CUT PICKS.box TRUTH.txt [PICKS.box TRUTH.txt ...]\n");
  exit(2);
}

const char* value_of(int argc, char** argv, int& i) {
  if (i + 1 >= argc) {
    fprintf(stderr, "gvex_makemic: option %s needs a value\n", argv[i]);
    exit(2);
  }
  return argv[++i];
}

// Writes the image in the requested pixel mode; modes other than 2 are
// scaled into the integer range so that the picture survives.
void write_mrc(const char* name, const std::vector<float>& img, int nx, int ny, int mode) {
  FILE* fp = fopen(name, "wb");
  if (!fp) {
    fprintf(stderr, "gvex_makemic: cannot write %s\n", name);
    exit(1);
  }
  MRC_HEAD* head = mrc_new_head();
  mrc_set_head_xyz_mode(head, nx, ny, 1, 2);
  if (mode == 2) {
    mrc_write_head_data(fp, head, img.data());
  } else {
    std::vector<float> conv(img.size());
    for (size_t i = 0; i < img.size(); i++) {
      double v = img[i];
      if (mode == 0) v = std::fmin(255.0, std::fmax(0.0, std::round(128.0 + 20.0 * v)));
      if (mode == 1) v = std::fmin(32767.0, std::fmax(-32768.0, std::round(1000.0 * v)));
      if (mode == 6) v = std::fmin(65535.0, std::fmax(0.0, std::round(20000.0 + 2000.0 * v)));
      conv[i] = (float)v;
    }
    mrc_set_head_mode(head, mode);
    mrc_set_head_mmm_from_data(head, conv.data(), conv.size());
    mrc_write_head(fp, head);
    for (float v : conv) {
      if (mode == 0) {
        uint8_t b = (uint8_t)v;
        fwrite(&b, 1, 1, fp);
      } else if (mode == 1) {
        int16_t s = (int16_t)v;
        fwrite(&s, 2, 1, fp);
      } else {
        uint16_t u = (uint16_t)v;
        fwrite(&u, 2, 1, fp);
      }
    }
  }
  mrc_delete_head(head);
  if (fclose(fp) != 0) {
    fprintf(stderr, "gvex_makemic: cannot write %s\n", name);
    exit(1);
  }
}

Options parse_make(int argc, char** argv) {
  Options o;
  for (int i = 3; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--nx") o.nx = atoi(value_of(argc, argv, i));
    else if (a == "--ny") o.ny = atoi(value_of(argc, argv, i));
    else if (a == "--apix") o.apix = atof(value_of(argc, argv, i));
    else if (a == "--diameter") o.diameter = atof(value_of(argc, argv, i));
    else if (a == "--seed") o.seed = strtoull(value_of(argc, argv, i), nullptr, 10);
    else if (a == "--noise") o.noise = atof(value_of(argc, argv, i));
    else if (a == "--mode") o.mode = atoi(value_of(argc, argv, i));
    else if (a == "--density") o.density = atof(value_of(argc, argv, i));
    else if (a == "--no-blob") o.blob = false;
    else usage();
  }
  return o;
}

// NAME_truth.txt beside NAME.mrc: one "x y" centre a line.
int write_truth(const char* out, const std::vector<std::pair<int, int>>& centres, std::string* name) {
  std::string& truth = *name;
  truth = out;
  size_t dot = truth.rfind('.');
  if (dot != std::string::npos) truth.resize(dot);
  truth += "_truth.txt";
  FILE* fp = fopen(truth.c_str(), "w");
  if (!fp) {
    fprintf(stderr, "gvex_makemic: cannot write %s\n", truth.c_str());
    return 1;
  }
  for (auto& c : centres) fprintf(fp, "%d %d\n", c.first, c.second);
  if (fclose(fp) != 0) {
    fprintf(stderr, "gvex_makemic: cannot write %s\n", truth.c_str());
    return 1;
  }
  return 0;
}

int make(int argc, char** argv) {
  if (argc < 3) usage();
  const char* out = argv[2];
  const Options o = parse_make(argc, argv);
  if (o.nx < 64 || o.ny < 64 || o.nx > 16384 || o.ny > 16384 || o.apix <= 0 || o.diameter <= 0 ||
      (o.mode != 0 && o.mode != 1 && o.mode != 2 && o.mode != 6)) {
    fprintf(stderr, "gvex_makemic: sizes must be 64..16384, apix and diameter positive, mode 0, 1, 2 or 6\n");
    return 2;
  }
  const int nx = o.nx, ny = o.ny;
  const double R = o.diameter / (2.0 * o.apix);  // particle radius, pixels
  Rng rng(o.seed);

  // Contamination: a large dark textured blob in the upper-left quadrant.
  const double bx = 0.28 * nx, by = 0.3 * ny, br = std::fmax(3.0 * R, 0.08 * std::fmin(nx, ny));

  // Particle centres on a jittered grid, clear of the border and the blob.
  std::vector<std::pair<int, int>> centres;
  const double step = 2.8 * R, margin = 1.6 * R;
  for (double y = margin; y < ny - margin; y += step)
    for (double x = margin; x < nx - margin; x += step) {
      double jx = x + (rng.uniform() - 0.5) * 0.5 * R, jy = y + (rng.uniform() - 0.5) * 0.5 * R;
      if (jx < margin || jy < margin || jx > nx - margin || jy > ny - margin) continue;
      if (o.blob && std::hypot(jx - bx, jy - by) < br + 2.0 * R) continue;
      if (rng.uniform() >= o.density) continue;  // leave some gaps
      centres.push_back({(int)std::lround(jx), (int)std::lround(jy)});
    }

  std::vector<float> img((size_t)nx * ny);
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      double bg = 0.6 * std::cos(6.283185307179586 * x / (1.7 * nx)) + 0.4 * std::sin(6.283185307179586 * y / (1.3 * ny));
      img[(size_t)y * nx + x] = (float)(bg + o.noise * rng.normal());
    }
  auto paint = [&](double cx, double cy, double radius, double amp, double edge) {
    int x0 = std::max(0, (int)(cx - radius - edge - 1)), x1 = std::min(nx - 1, (int)(cx + radius + edge + 1));
    int y0 = std::max(0, (int)(cy - radius - edge - 1)), y1 = std::min(ny - 1, (int)(cy + radius + edge + 1));
    for (int y = y0; y <= y1; y++)
      for (int x = x0; x <= x1; x++) {
        double r = std::hypot(x - cx, y - cy);
        double w = r <= radius ? 1.0 : r < radius + edge ? 0.5 + 0.5 * std::cos(3.141592653589793 * (r - radius) / edge) : 0.0;
        img[(size_t)y * nx + x] -= (float)(amp * w);
      }
  };
  for (auto& c : centres) paint(c.first, c.second, 0.8 * R, 2.0, 0.2 * R);
  if (o.blob) {
    paint(bx, by, br, 8.0, 0.3 * br);
    for (int k = 0; k < 40; k++) {  // texture: small very dark specks raise the local sigma
      double a = rng.uniform() * 6.283185307179586, d = rng.uniform() * br;
      paint(bx + d * std::cos(a), by + d * std::sin(a), 0.15 * br, 6.0 * (rng.uniform() - 0.3), 0.05 * br);
    }
  }
  write_mrc(out, img, nx, ny, o.mode);

  std::string truth;
  if (write_truth(out, centres, &truth) != 0) return 1;
  printf("wrote %s (%d x %d, mode %d) with %zu particles of radius %.1f px; centres in %s\n", out, nx, ny,
         o.mode, centres.size(), R, truth.c_str());
  return 0;
}

int score(int argc, char** argv) {
  if (argc != 5) usage();
  const double radius = atof(argv[4]);
  std::vector<std::pair<double, double>> picks, truth;
  char line[4096];
  FILE* fp = fopen(argv[2], "r");
  if (!fp) {
    fprintf(stderr, "gvex_makemic: cannot read %s\n", argv[2]);
    return 1;
  }
  while (fgets(line, sizeof line, fp)) {
    double x, y, w, h;
    if (sscanf(line, "%lf %lf %lf %lf", &x, &y, &w, &h) == 4) picks.push_back({x + (int)w / 2, y + (int)h / 2});
  }
  fclose(fp);
  fp = fopen(argv[3], "r");
  if (!fp) {
    fprintf(stderr, "gvex_makemic: cannot read %s\n", argv[3]);
    return 1;
  }
  while (fgets(line, sizeof line, fp)) {
    double x, y;
    if (sscanf(line, "%lf %lf", &x, &y) == 2) truth.push_back({x, y});
  }
  fclose(fp);
  int found = 0, stray = 0;
  for (auto& t : truth) {
    for (auto& p : picks)
      if (std::hypot(p.first - t.first, p.second - t.second) <= radius) {
        found++;
        break;
      }
  }
  for (auto& p : picks) {
    bool near = false;
    for (auto& t : truth) near = near || std::hypot(p.first - t.first, p.second - t.second) <= radius;
    stray += !near;
  }
  printf("found %d of %d planted particles; %zu picks, %d of them near no planted particle\n", found,
         (int)truth.size(), picks.size(), stray);
  return 0;
}

}  // namespace

// A set's picks (centre and score) and planted centres, pair by pair.
struct Scored {
  std::vector<std::array<double, 3>> picks;
  std::vector<std::pair<double, double>> truth;
};

bool load_scored(const char* picks, const char* truth, double radius, Scored& s) {
  std::ifstream p(picks), t(truth);
  if (!p || !t) return false;
  for (std::string line; std::getline(p, line);) {
    double x, y, w, h, cc;
    if (sscanf(line.c_str(), "%lf %lf %lf %lf %lf", &x, &y, &w, &h, &cc) == 5)
      s.picks.push_back({x + (int)w / 2, y + (int)h / 2, cc});
  }
  for (double x, y; t >> x >> y;) s.truth.push_back({x, y});
  (void)radius;
  return true;
}

// F1 of the picks at or above cut over every pair of the set.
double set_f1(const std::vector<Scored>& set, double radius, double cut) {
  long picks = 0, good = 0, found = 0, planted = 0;
  for (const Scored& s : set) {
    planted += (long)s.truth.size();
    for (const auto& p : s.picks) {
      if (p[2] < cut) continue;
      picks++;
      for (const auto& t : s.truth)
        if (std::hypot(p[0] - t.first, p[1] - t.second) <= radius) {
          good++;
          break;
        }
    }
    for (const auto& t : s.truth)
      for (const auto& p : s.picks)
        if (p[2] >= cut && std::hypot(p[0] - t.first, p[1] - t.second) <= radius) {
          found++;
          break;
        }
  }
  const double prec = picks ? (double)good / picks : 0, rec = planted ? (double)found / planted : 0;
  return prec + rec > 0 ? 2 * prec * rec / (prec + rec) : 0;
}

// gvex_makemic f1 RADIUS CUT PICKS TRUTH [PICKS TRUTH ...]: the set's F1 at
// CUT and the best F1 any single cut-off reaches.
int f1(int argc, char** argv) {
  if (argc < 6 || argc % 2) usage();
  const double radius = atof(argv[2]), cut = atof(argv[3]);
  std::vector<Scored> set(1);
  std::vector<double> cuts;
  for (int i = 4; i + 1 < argc; i += 2, set.emplace_back())
    if (!load_scored(argv[i], argv[i + 1], radius, set.back())) {
      fprintf(stderr, "gvex_makemic: cannot read %s or %s\n", argv[i], argv[i + 1]);
      return 1;
    }
  for (const Scored& s : set)
    for (const auto& p : s.picks) cuts.push_back(p[2]);
  double best = 0, at = 0;
  for (double c : cuts) {
    const double f = set_f1(set, radius, c);
    if (f > best) best = f, at = c;
  }
  printf("F1 %.4f at %g, best %.4f at %g\n", set_f1(set, radius, cut), cut, best, at);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 2) usage();
  if (!strcmp(argv[1], "make")) return make(argc, argv);
  if (!strcmp(argv[1], "score")) return score(argc, argv);
  if (!strcmp(argv[1], "f1")) return f1(argc, argv);
  usage();
}
