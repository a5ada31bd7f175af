// gvex_realmic: realistic test micrographs with known particle centres.
//
// A protein-like density (Gaussian atoms in a few irregular domains) is
// projected at random orientations, the projections pass through a CTF with
// the rest of the specimen (carbon film, contamination, ice), and noise of a
// chosen SNR is added. Everything follows from the seeds through our own
// generator, so a set can be rebuilt exactly.
#include <fftw3.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "io/mrcfile.h"
#include "tools/rng.h"

namespace {

constexpr double kPi = 3.141592653589793;

const char* const kUsage =
    "Usage: gvex_realmic OUT.mrc [options]\n"
    "\n"
    "Writes a realistic micrograph OUT.mrc (mode 2) and OUT_truth.txt (one 'x y' particle centre per\n"
    "line, micrograph pixels). Particles are projections of one protein-like density (Gaussian atoms\n"
    "in irregular domains) at uniformly random 3-D orientations; a CTF is applied to the whole image;\n"
    "the ice has a thickness gradient, a carbon film edge and contamination blobs. Particles are dark\n"
    "on a lighter background, as in real micrographs. The same seeds give the same files.\n"
    "\n"
    "Options (defaults in brackets):\n"
    "  --nx N, --ny N          size in pixels [4096 x 4096]\n"
    "  --apix A                pixel size, A [1.06]\n"
    "  --diameter D            longest dimension of the particle, A [150]\n"
    "  --seed S                layout, orientations, defocus and noise [1]\n"
    "  --protein-seed S        the 3-D density; give micrographs and templates of one set the same [1]\n"
    "  --atoms N               Gaussian atoms of the density [5000]\n"
    "  --domains K             domains of the density, 1..6 [3]\n"
    "  --density F             fraction of the ice covered by particle discs, 0..0.6 [0.25]\n"
    "  --snr S                 signal-to-noise ratio: the variance of the noise-free particle image\n"
    "                          about the image mean, over the particle discs and where the ice has its\n"
    "                          mean thickness, divided by the variance of all the noise [0.05]\n"
    "  --ice-noise F           fraction of the noise variance that is structural (CTF-filtered) [0.3]\n"
    "  --defocus LO HI         mean defocus drawn from LO..HI, um [0.8 3.0]\n"
    "  --astigmatism X         largest difference of the two defoci, um [0.1]\n"
    "  --kv V, --cs C, --ac Q  voltage kV, spherical aberration mm, amplitude contrast [300 2.7 0.1]\n"
    "  --bfactor B             envelope exp(-B k^2 / 4), A^2 [60]\n"
    "  --ice-gradient G        relative intensity change across the ice [0.25]\n"
    "  --carbon F              fraction of the image under carbon film, 0 for none [0.15]\n"
    "  --carbon-step S         relative intensity step onto the carbon: positive brighter, negative\n"
    "                          darker [0.15]\n"
    "  --contamination N       dark contamination blobs per 4096^2 pixels, a third of them large [6]\n"
    "  --templates OUT.mrcs N  also write N projections of the density (white on black, no CTF, at\n"
    "                          --apix, centred on the particle centre), like 2-D class averages\n"
    "  --help                  this text\n"
    "\n"
    "Exit status 0 on success, 1 when a file cannot be written, 2 for a wrong command line.\n";

[[noreturn]] void usage_error(const std::string& why) {
  fprintf(stderr, "gvex_realmic: %s\n(gvex_realmic --help lists the options)\n", why.c_str());
  exit(2);
}

struct Vec3 {
  double x, y, z;
};
using Mat3 = double[3][3];

// Uniform random rotation (unit quaternion from three uniforms).
void random_rotation(Rng& rng, Mat3 m) {
  const double u1 = rng.uniform(), u2 = rng.uniform(), u3 = rng.uniform();
  const double a = std::sqrt(1 - u1), b = std::sqrt(u1);
  const double w = a * std::sin(2 * kPi * u2), x = a * std::cos(2 * kPi * u2);
  const double y = b * std::sin(2 * kPi * u3), z = b * std::cos(2 * kPi * u3);
  const double r[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                          {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                          {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}};
  memcpy(m, r, sizeof r);
}

Vec3 apply(const Mat3 m, const Vec3& v) {
  return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z, m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
          m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
}

struct Options {
  std::string out, templates;
  int nx = 4096, ny = 4096, n_templates = 0, atoms = 5000, domains = 3;
  double apix = 1.06, diameter = 150, density = 0.25, snr = 0.05, ice_noise = 0.3;
  double df_lo = 0.8, df_hi = 3.0, astig = 0.1, kv = 300, cs = 2.7, ac = 0.1, bfactor = 60;
  double ice_gradient = 0.25, carbon = 0.15, carbon_step = 0.15, contamination = 6;
  uint64_t seed = 1, protein_seed = 1;
};

double number(const std::string& opt, const char* v, double lo, double hi) {
  char* end = nullptr;
  errno = 0;
  const double d = strtod(v, &end);
  if (end == v || *end || errno || !std::isfinite(d) || d < lo || d > hi) {
    char why[300];
    snprintf(why, sizeof why, "%s needs a number from %g to %g, not '%s'", opt.c_str(), lo, hi, v);
    usage_error(why);
  }
  return d;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usage_error(a + " needs a value");
      return argv[++i];
    };
    auto seed = [&]() {
      const char* v = value();
      char* end = nullptr;
      errno = 0;
      const unsigned long long s = strtoull(v, &end, 10);
      if (end == v || *end || errno || v[0] == '-') usage_error(a + " needs a whole number, not '" + v + "'");
      return (uint64_t)s;
    };
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      exit(0);
    } else if (a == "--nx") o.nx = (int)number(a, value(), 256, 16384);
    else if (a == "--ny") o.ny = (int)number(a, value(), 256, 16384);
    else if (a == "--apix") o.apix = number(a, value(), 0.1, 20);
    else if (a == "--diameter") o.diameter = number(a, value(), 20, 2000);
    else if (a == "--seed") o.seed = seed();
    else if (a == "--protein-seed") o.protein_seed = seed();
    else if (a == "--atoms") o.atoms = (int)number(a, value(), 100, 100000);
    else if (a == "--domains") o.domains = (int)number(a, value(), 1, 6);
    else if (a == "--density") o.density = number(a, value(), 0, 0.6);
    else if (a == "--snr") o.snr = number(a, value(), 1e-4, 1e4);
    else if (a == "--ice-noise") o.ice_noise = number(a, value(), 0, 1);
    else if (a == "--defocus") {
      o.df_lo = number(a, value(), 0.05, 10);
      o.df_hi = number(a, value(), o.df_lo, 10);
    } else if (a == "--astigmatism") o.astig = number(a, value(), 0, 2);
    else if (a == "--kv") o.kv = number(a, value(), 60, 1000);
    else if (a == "--cs") o.cs = number(a, value(), 0, 10);
    else if (a == "--ac") o.ac = number(a, value(), 0, 0.5);
    else if (a == "--bfactor") o.bfactor = number(a, value(), 0, 1000);
    else if (a == "--ice-gradient") o.ice_gradient = number(a, value(), 0, 1);
    else if (a == "--carbon") o.carbon = number(a, value(), 0, 0.9);
    else if (a == "--carbon-step") o.carbon_step = number(a, value(), -0.9, 2);
    else if (a == "--contamination") o.contamination = number(a, value(), 0, 100);
    else if (a == "--templates") {
      o.templates = value();
      o.n_templates = (int)number(a, value(), 1, 1000);
    } else if (a.size() > 1 && a[0] == '-') usage_error("unknown option " + a);
    else if (o.out.empty()) o.out = a;
    else usage_error("one output file only, not also " + a);
  }
  if (o.out.empty()) usage_error("no output file given");
  if (o.diameter / o.apix < 8) usage_error("the particle must span at least 8 pixels (--diameter / --apix)");
  if (o.diameter / o.apix > 0.5 * std::min(o.nx, o.ny)) usage_error("the particle is larger than half the image");
  return o;
}

// ---- the density ----

// Atoms in K overlapping ellipsoidal domains with bumpy surfaces, centred
// on their mean and scaled to the requested longest dimension.
std::vector<Vec3> make_protein(uint64_t seed, int n_atoms, int n_domains, double diameter) {
  Rng rng(seed * 7919 + 17);
  struct Domain {
    Vec3 centre, axes;
    Mat3 rot;
    Vec3 bump_dir[6];
    double bump[6], volume;
  };
  std::vector<Domain> d(n_domains);
  for (int k = 0; k < n_domains; k++) {
    Domain& m = d[k];
    const double size = k == 0 ? 1.0 : rng.range(0.55, 0.9);
    m.axes = {size, size * rng.range(0.6, 0.95), size * rng.range(0.45, 0.8)};
    random_rotation(rng, m.rot);
    for (int b = 0; b < 6; b++) {
      Mat3 r;
      random_rotation(rng, r);
      m.bump_dir[b] = {r[0][2], r[1][2], r[2][2]};
      m.bump[b] = rng.range(-0.25, 0.3);
    }
    m.volume = m.axes.x * m.axes.y * m.axes.z;
    if (k == 0) {
      m.centre = {0, 0, 0};
    } else {  // touching an earlier domain, part buried in it
      const Domain& p = d[(size_t)(rng.uniform() * k)];
      Mat3 r;
      random_rotation(rng, r);
      const double reach = 0.7 * (p.axes.x + m.axes.x) * 0.5 + 0.2;
      m.centre = {p.centre.x + reach * r[0][0], p.centre.y + reach * r[1][0], p.centre.z + reach * r[2][0]};
    }
  }
  double total = 0;
  for (auto& m : d) total += m.volume;
  std::vector<Vec3> atoms;
  atoms.reserve(n_atoms);
  while ((int)atoms.size() < n_atoms) {
    double pick = rng.uniform() * total;
    size_t k = 0;
    while (k + 1 < d.size() && pick > d[k].volume) pick -= d[k++].volume;
    const Domain& m = d[k];
    const Vec3 p = {rng.range(-1, 1), rng.range(-1, 1), rng.range(-1, 1)};
    const double r = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z);
    if (r > 1.4 || r < 1e-9) continue;
    double limit = 1;
    for (int b = 0; b < 6; b++) {
      const double c = (p.x * m.bump_dir[b].x + p.y * m.bump_dir[b].y + p.z * m.bump_dir[b].z) / r;
      limit += m.bump[b] * std::exp((c - 1) / 0.08);
    }
    if (r > limit) continue;
    const Vec3 q = apply(m.rot, {p.x * m.axes.x, p.y * m.axes.y, p.z * m.axes.z});
    atoms.push_back({q.x + m.centre.x, q.y + m.centre.y, q.z + m.centre.z});
  }
  Vec3 mean = {0, 0, 0};
  for (auto& a : atoms) mean.x += a.x, mean.y += a.y, mean.z += a.z;
  mean = {mean.x / n_atoms, mean.y / n_atoms, mean.z / n_atoms};
  double longest = 0;
  for (auto& a : atoms) a = {a.x - mean.x, a.y - mean.y, a.z - mean.z};
  for (size_t i = 0; i < atoms.size(); i++)
    for (size_t j = i + 1; j < atoms.size(); j++) {
      const double dx = atoms[i].x - atoms[j].x, dy = atoms[i].y - atoms[j].y, dz = atoms[i].z - atoms[j].z;
      longest = std::max(longest, dx * dx + dy * dy + dz * dz);
    }
  // Atoms are blurred by about 2 A: their centres span a little less.
  const double scale = (diameter - 4.0) / std::sqrt(longest);
  for (auto& a : atoms) a = {a.x * scale, a.y * scale, a.z * scale};
  return atoms;
}

constexpr double kAtomSigma = 2.0;  // A

// ---- images ----

struct Image {
  int nx = 0, ny = 0;
  std::vector<float> v;
  Image(int x, int y) : nx(x), ny(y), v((size_t)x * y, 0.0f) {}
  float& at(int x, int y) { return v[(size_t)y * nx + x]; }
  void deposit(double x, double y, double w) {  // bilinear
    const int x0 = (int)std::floor(x), y0 = (int)std::floor(y);
    const double fx = x - x0, fy = y - y0;
    if (x0 < 0 || y0 < 0 || x0 + 1 >= nx || y0 + 1 >= ny) return;
    at(x0, y0) += (float)(w * (1 - fx) * (1 - fy));
    at(x0 + 1, y0) += (float)(w * fx * (1 - fy));
    at(x0, y0 + 1) += (float)(w * (1 - fx) * fy);
    at(x0 + 1, y0 + 1) += (float)(w * fx * fy);
  }
};

// The mean of h^2 over the whole spectrum of an nx x ny image: the factor
// by which filtering with h changes the variance of white noise.
template <class H>
double filter_power(int nx, int ny, double apix, H h) {
  double power = 0;
  for (int j = 0; j < ny; j++)
    for (int i = 0; i < nx; i++) {
      const double f = h((i <= nx / 2 ? i : i - nx) / (nx * apix), (j <= ny / 2 ? j : j - ny) / (ny * apix));
      power += f * f;
    }
  return power / ((double)nx * ny);
}

// Filters img in Fourier space by h(kx, ky), spatial frequencies in 1/A.
template <class H>
void fourier_filter(Image& img, double apix, H h) {
  const int nx = img.nx, ny = img.ny, nxh = nx / 2 + 1;
  fftwf_complex* spectrum = fftwf_alloc_complex((size_t)nxh * ny);
  fftwf_plan fwd = fftwf_plan_dft_r2c_2d(ny, nx, img.v.data(), spectrum, FFTW_ESTIMATE);
  fftwf_plan inv = fftwf_plan_dft_c2r_2d(ny, nx, spectrum, img.v.data(), FFTW_ESTIMATE);
  fftwf_execute(fwd);
  const float norm = 1.0f / ((float)nx * ny);
  for (int j = 0; j < ny; j++) {
    const double ky = (j <= ny / 2 ? j : j - ny) / (ny * apix);
    for (int i = 0; i < nxh; i++) {
      const double f = h(i / (nx * apix), ky);
      spectrum[(size_t)j * nxh + i][0] *= (float)f * norm;
      spectrum[(size_t)j * nxh + i][1] *= (float)f * norm;
    }
  }
  fftwf_execute(inv);
  fftwf_destroy_plan(fwd);
  fftwf_destroy_plan(inv);
  fftwf_free(spectrum);
}

struct Ctf {
  double lambda, cs, ac, df1, df2, angle, bfactor;
  // Weak phase and amplitude object: positive density comes out dark at
  // low frequency (underfocus, defoci in A).
  double operator()(double kx, double ky) const {
    const double k2 = kx * kx + ky * ky;
    const double a = std::atan2(ky, kx);
    const double df = 0.5 * (df1 + df2 + (df1 - df2) * std::cos(2 * (a - angle)));
    const double chi = kPi * lambda * df * k2 - 0.5 * kPi * cs * lambda * lambda * lambda * k2 * k2;
    return -(std::sqrt(1 - ac * ac) * std::sin(chi) + ac * std::cos(chi)) * std::exp(-bfactor * k2 / 4);
  }
};

double electron_wavelength(double kv) {  // A, relativistic
  const double v = kv * 1000;
  return 12.2643 / std::sqrt(v * (1 + 0.978466e-6 * v));
}

void write_mrc(const std::string& name, const std::vector<float>& data, int nx, int ny, int nz, double apix) {
  PartFile file(name.c_str(), "w+");
  if (!file.fp()) {
    fprintf(stderr, "gvex_realmic: cannot write %s: %s\n", name.c_str(), strerror(errno));
    exit(1);
  }
  MRC_HEAD* head = mrc_new_head();
  mrc_set_head_xyz_mode(head, nx, ny, nz, 2);
  head->mx = nx, head->my = ny, head->mz = nz;
  head->xlen = (float)(nx * apix), head->ylen = (float)(ny * apix), head->zlen = (float)(nz * apix);
  mrc_write_head_data(file.fp(), head, data.data());
  mrc_delete_head(head);
  if (!file.commit()) {
    fprintf(stderr, "gvex_realmic: cannot write %s\n", name.c_str());
    exit(1);
  }
}

void write_templates(const Options& o, const std::vector<Vec3>& atoms) {
  const int box = 2 * (int)std::ceil(0.75 * o.diameter / o.apix);
  std::vector<float> stack;
  Rng rng(o.protein_seed * 104729 + 3);
  const double s = kAtomSigma / o.apix, reach = 3 * s;
  for (int t = 0; t < o.n_templates; t++) {
    Mat3 r;
    random_rotation(rng, r);
    std::vector<float> img((size_t)box * box, 0.0f);
    for (const Vec3& a : atoms) {
      const Vec3 p = apply(r, a);
      const double cx = box / 2 + p.x / o.apix, cy = box / 2 + p.y / o.apix;
      for (int y = std::max(0, (int)(cy - reach)); y <= std::min(box - 1, (int)(cy + reach) + 1); y++)
        for (int x = std::max(0, (int)(cx - reach)); x <= std::min(box - 1, (int)(cx + reach) + 1); x++)
          img[(size_t)y * box + x] += (float)std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (2 * s * s));
    }
    stack.insert(stack.end(), img.begin(), img.end());
  }
  write_mrc(o.templates, stack, box, box, o.n_templates, o.apix);
}

// Mean square about the image mean over discs of radius r about the
// centres (image coordinates; the image starts at ox, oy in img).
double disc_mean_square(Image& img, const std::vector<std::pair<double, double>>& centres, double r, int ox, int oy,
                        int nx, int ny) {
  double mean = 0, ms = 0;
  long n = 0;
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) mean += img.at(ox + x, oy + y);
  mean /= (double)nx * ny;
  for (const auto& c : centres)
    for (int y = (int)(c.second - r); y <= (int)(c.second + r); y++)
      for (int x = (int)(c.first - r); x <= (int)(c.first + r); x++)
        if (x >= 0 && y >= 0 && x < nx && y < ny && std::hypot(x - c.first, y - c.second) <= r) {
          const double v = img.at(ox + x, oy + y) - mean;
          ms += v * v, n++;
        }
  return n ? ms / n : 0;
}

Ctf draw_ctf(const Options& o, Rng& rng) {
  Ctf ctf;
  ctf.lambda = electron_wavelength(o.kv);
  ctf.cs = o.cs * 1e7;
  ctf.ac = o.ac;
  ctf.bfactor = o.bfactor;
  const double df = rng.range(o.df_lo, o.df_hi), astig = rng.range(0, o.astig);
  ctf.df1 = (df + 0.5 * astig) * 1e4;
  ctf.df2 = (df - 0.5 * astig) * 1e4;
  ctf.angle = rng.range(0, kPi);
  return ctf;
}

// Carbon outside a large hole whose edge arcs across the image.
struct Carbon {
  bool present = false;
  double hole_r = 0, hole_x = 0, hole_y = 0;

  Carbon(const Options& o, Rng& rng) {
    hole_r = 1.5 * std::max(o.nx, o.ny);
    const double dir = rng.range(0, 2 * kPi);
    hole_x = 0.5 * o.nx, hole_y = 0.5 * o.ny;
    present = o.carbon > 0;
    if (!present) return;
    // Bisect the shift of the hole's centre that leaves the wanted share under carbon.
    double lo = -hole_r, hi = hole_r + std::hypot(o.nx, o.ny);
    for (int it = 0; it < 40; it++) {
      const double mid = 0.5 * (lo + hi), cx = 0.5 * o.nx - mid * std::cos(dir), cy = 0.5 * o.ny - mid * std::sin(dir);
      int out = 0;
      for (int j = 0; j < 64; j++)
        for (int i = 0; i < 64; i++) out += std::hypot((i + 0.5) * o.nx / 64 - cx, (j + 0.5) * o.ny / 64 - cy) > hole_r;
      (out / 4096.0 < o.carbon ? lo : hi) = mid;
    }
    hole_x -= lo * std::cos(dir), hole_y -= lo * std::sin(dir);
  }

  // 0 in the hole, 1 on carbon, a 2-px soft edge.
  double at(double x, double y) const {
    if (!present) return 0.0;
    const double e = std::hypot(x - hole_x, y - hole_y) - hole_r;
    return e <= -1 ? 0.0 : e >= 1 ? 1.0 : 0.5 + 0.5 * std::sin(0.5 * kPi * e);
  }
};

// Contamination: dark irregular blobs, a third of them large; each large
// one is a cluster of lobes of their own darkness, which gives texture.
struct Blob {
  double x, y, r, depth, harm[4][2];

  double at(double px, double py) const {  // 1 inside, soft 3-px rim
    const double a = std::atan2(py - y, px - x);
    double rr = r;
    for (int k = 0; k < 4; k++) rr *= 1 + harm[k][0] * std::cos((k + 2) * a + harm[k][1]);
    const double e = std::hypot(px - x, py - y) - rr;
    return e <= -1.5 ? 1.0 : e >= 1.5 ? 0.0 : 0.5 - 0.5 * std::sin(kPi * e / 3);
  }
};

std::vector<Blob> draw_blobs(long n_blobs, const Options& o, double R, Rng& rng) {
  std::vector<Blob> blobs;
  auto add_blob = [&](double x, double y, double r) {
    Blob c;
    c.x = x, c.y = y, c.r = r, c.depth = rng.range(0.5, 1.2);
    for (auto& h : c.harm) h[0] = rng.range(-0.12, 0.12), h[1] = rng.range(0, 2 * kPi);
    blobs.push_back(c);
  };
  for (long b = 0; b < n_blobs; b++) {
    const double x = rng.range(0, o.nx), y = rng.range(0, o.ny);
    if (b % 3) {
      add_blob(x, y, rng.range(0.4, 1.2) * R);
      continue;
    }
    const double r = rng.range(1.5, 4.0) * R;
    add_blob(x, y, r);
    for (int k = 0, lobes = 2 + (int)(3 * rng.uniform()); k < lobes; k++) {
      const double a = rng.range(0, 2 * kPi), d = rng.range(0.3, 0.9) * r;
      add_blob(x + d * std::cos(a), y + d * std::sin(a), rng.range(0.25, 0.6) * r);
    }
  }
  return blobs;
}

using Centres = std::vector<std::pair<double, double>>;

// Random sequential placement in the hole, clear of the blobs, centres at
// least 0.8 diameters apart (touching, hardly overlapping).
Centres place_particles(const Options& o, double R, const Carbon& carbon, const std::vector<Blob>& blobs, Rng& rng) {
  Centres centres;
  const double hole_area = (1 - o.carbon) * o.nx * (double)o.ny;
  const long wanted = std::lround(o.density * hole_area / (kPi * R * R));
  const double dmin = 1.6 * R;
  std::vector<std::vector<int>> grid;
  const int cell = (int)std::ceil(dmin), gx = o.nx / cell + 1, gy = o.ny / cell + 1;
  grid.resize((size_t)gx * gy);
  for (long tries = 0; (long)centres.size() < wanted && tries < 200 * wanted; tries++) {
    const double x = rng.range(R, o.nx - R), y = rng.range(R, o.ny - R);
    if (carbon.at(x, y) > 0) continue;
    bool clear = true;
    for (const Blob& c : blobs) clear = clear && std::hypot(x - c.x, y - c.y) > 1.3 * c.r + R;
    const int cx = (int)(x / cell), cy = (int)(y / cell);
    for (int j = std::max(0, cy - 1); clear && j <= std::min(gy - 1, cy + 1); j++)
      for (int i = std::max(0, cx - 1); clear && i <= std::min(gx - 1, cx + 1); i++)
        for (int k : grid[(size_t)j * gx + i])
          clear = clear && std::hypot(x - centres[k].first, y - centres[k].second) >= dmin;
    if (!clear) continue;
    grid[(size_t)cy * gx + cx].push_back((int)centres.size());
    centres.push_back({x, y});
  }
  return centres;
}

// One particle: the atoms at a random orientation, deposited about (x, y).
void project(Image& img, Rng& r, double x, double y, const std::vector<Vec3>& atoms, double apix) {
  Mat3 m;
  random_rotation(r, m);
  for (const Vec3& a : atoms) {
    const Vec3 p = apply(m, a);
    img.deposit(x + p.x / apix, y + p.y / apix, 1.0);
  }
}

// The layout of one micrograph: its padded frame and what lies in it.
struct Scene {
  double R;       // particle radius, px
  int pad, px, py, ox, oy;
  Ctf ctf;
  Carbon carbon;
  long n_blobs;
  std::vector<Blob> blobs;
  Centres centres;

  Scene(const Options& o, Rng& rng)
      : R(0.5 * o.diameter / o.apix),
        // Padding keeps the CTF's delocalisation from wrapping round the edges.
        pad(192),
        px((o.nx + 2 * pad + 63) / 64 * 64),
        py((o.ny + 2 * pad + 63) / 64 * 64),
        ox((px - o.nx) / 2),
        oy((py - o.ny) / 2),
        ctf(draw_ctf(o, rng)),
        carbon(o, rng),
        n_blobs(std::lround(o.contamination * o.nx * (double)o.ny / (4096.0 * 4096.0))),
        blobs(draw_blobs(n_blobs, o, R, rng)),
        centres(place_particles(o, R, carbon, blobs, rng)) {}
};

// The particles' image: atoms deposited, blurred by their Gaussian, through
// the CTF; gain scales it to an rms contrast over the discs of 3 % of the
// background. An empty micrograph takes the gain of a few projections on
// their own, for the contamination's contrast.
Image particle_image(const Options& o, const Scene& sc, const std::vector<Vec3>& atoms, Rng& rng, double contrast,
                     double* gain) {
  const double blur = 2 * kPi * kPi * kAtomSigma * kAtomSigma;
  const Ctf& ctf = sc.ctf;
  auto particle_filter = [&](double kx, double ky) { return ctf(kx, ky) * std::exp(-blur * (kx * kx + ky * ky)); };
  Image part(sc.px, sc.py);
  for (const auto& c : sc.centres) project(part, rng, sc.ox + c.first, sc.oy + c.second, atoms, o.apix);
  fourier_filter(part, o.apix, particle_filter);
  const double ms = disc_mean_square(part, sc.centres, sc.R, sc.ox, sc.oy, o.nx, o.ny);
  *gain = ms > 0 ? contrast / std::sqrt(ms) : 0;
  if (sc.centres.empty()) {
    Rng probe_rng(o.protein_seed * 31 + 7);
    const int pad = sc.pad, box = ((int)(4 * sc.R) + 2 * pad + 63) / 64 * 64;
    const Centres at = {{0.5 * box - pad, 0.5 * box - pad}};
    double sum = 0;
    for (int k = 0; k < 4; k++) {
      Image probe(box, box);
      project(probe, probe_rng, 0.5 * box, 0.5 * box, atoms, o.apix);
      fourier_filter(probe, o.apix, particle_filter);
      sum += disc_mean_square(probe, at, sc.R, pad, pad, box - 2 * pad, box - 2 * pad);
    }
    *gain = sum > 0 ? contrast / std::sqrt(sum / 4) : 0;
  }
  return part;
}

// Everything else that scatters, through the same CTF: the structural noise
// of the ice, the carbon's texture (twice the particles' contrast) and the
// contamination, three times as dense as a particle's mean column, whose
// edges ring. absorb receives the contamination's thickness (padded frame).
Image scatter_image(const Options& o, const Scene& sc, double column, double contrast, double sigma_noise, Rng& rng,
                    std::vector<float>& absorb) {
  const int px = sc.px, py = sc.py, ox = sc.ox, oy = sc.oy;
  const double power = filter_power(px, py, o.apix, sc.ctf);
  const double ice_sd = std::sqrt(o.ice_noise) * sigma_noise, carbon_sd = 2 * contrast;
  absorb.assign((size_t)px * py, 0.0f);
  for (const Blob& c : sc.blobs) {
    const double reach = 1.6 * c.r + 3;
    for (int y = std::max(0, (int)(oy + c.y - reach)); y < std::min(py, (int)(oy + c.y + reach) + 1); y++)
      for (int x = std::max(0, (int)(ox + c.x - reach)); x < std::min(px, (int)(ox + c.x + reach) + 1); x++)
        absorb[(size_t)y * px + x] += (float)(c.depth * c.at(x - ox, y - oy));
  }
  Image rest(px, py);
  for (int y = 0; y < py; y++)
    for (int x = 0; x < px; x++) {
      const double c = sc.carbon.at(x - ox, y - oy);
      rest.at(x, y) = (float)((ice_sd + c * carbon_sd) * rng.normal() / std::sqrt(power) +
                              3 * column * absorb[(size_t)y * px + x]);
    }
  fourier_filter(rest, o.apix, sc.ctf);
  return rest;
}

// The recorded intensity: the ice's thickness (a ramp and two slow waves;
// thicker ice is darker) and the contamination absorb, the carbon steps,
// the phase contrast modulates, and shot noise is added.
std::vector<float> compose(const Options& o, const Scene& sc, Image& part, Image& rest, double gain,
                           const std::vector<float>& absorb, double sigma_noise, Rng& rng) {
  const double ramp = rng.range(0, 2 * kPi);
  double wave[2][4];
  for (auto& w : wave) w[0] = rng.range(0.3, 1.2), w[1] = rng.range(0, 2 * kPi), w[2] = rng.range(0, 2 * kPi), w[3] = rng.range(0.3, 0.7);
  std::vector<float> img((size_t)o.nx * o.ny);
  const double diag = std::hypot(o.nx, o.ny);
  const int ox = sc.ox, oy = sc.oy;
  for (int y = 0; y < o.ny; y++)
    for (int x = 0; x < o.nx; x++) {
      double t = ((x - 0.5 * o.nx) * std::cos(ramp) + (y - 0.5 * o.ny) * std::sin(ramp)) / diag;
      for (auto& w : wave)
        t += 0.25 * w[3] * std::sin(2 * kPi * w[0] * (x * std::cos(w[1]) + y * std::sin(w[1])) / diag + w[2]);
      const double c = sc.carbon.at(x, y);
      const double a = o.ice_gradient * t + absorb[(size_t)(y + oy) * sc.px + x + ox];
      double bright = std::exp(-a) * (1 + o.carbon_step * c);
      const double phase = gain * part.at(ox + x, oy + y) + rest.at(ox + x, oy + y);
      img[(size_t)y * o.nx + x] =
          (float)(bright * (1 + phase) + std::sqrt(bright) * std::sqrt(1 - o.ice_noise) * sigma_noise * rng.normal());
    }
  return img;
}

// OUT_truth.txt beside OUT.mrc; false when it could not be written.
bool write_truth(const Options& o, const Centres& centres, std::string* name) {
  std::string& truth = *name;
  truth = o.out;
  const size_t dot = truth.rfind('.');
  if (dot != std::string::npos && truth.find('/', dot) == std::string::npos) truth.resize(dot);
  truth += "_truth.txt";
  PartFile tf(truth.c_str(), "w");
  if (!tf.fp()) {
    fprintf(stderr, "gvex_realmic: cannot write %s: %s\n", truth.c_str(), strerror(errno));
    return false;
  }
  for (const auto& c : centres) fprintf(tf.fp(), "%.1f %.1f\n", c.first, c.second);
  if (!tf.commit()) {
    fprintf(stderr, "gvex_realmic: cannot write %s\n", truth.c_str());
    return false;
  }
  return true;
}

int run(const Options& o) {
  Rng rng(o.seed);
  const std::vector<Vec3> atoms = make_protein(o.protein_seed, o.atoms, o.domains, o.diameter);
  if (o.n_templates > 0) write_templates(o, atoms);
  const Scene sc(o, rng);
  // The particles' rms contrast over their discs is 3 % of the background;
  // the noise follows from the SNR.
  const double contrast = 0.03, sigma_noise = contrast / std::sqrt(o.snr);
  double gain = 0;
  Image part = particle_image(o, sc, atoms, rng, contrast, &gain);
  const double column = gain * atoms.size() / (kPi * sc.R * sc.R);
  std::vector<float> absorb;
  Image rest = scatter_image(o, sc, column, contrast, sigma_noise, rng, absorb);
  write_mrc(o.out, compose(o, sc, part, rest, gain, absorb, sigma_noise, rng), o.nx, o.ny, 1, o.apix);
  std::string truth;
  if (!write_truth(o, sc.centres, &truth)) return 1;
  printf("wrote %s: %d x %d px of %.3f A, %zu particles of %.0f A (radius %.1f px), defocus %.2f/%.2f um, "
         "SNR %g, %ld blobs, carbon %.0f%%; centres in %s\n",
         o.out.c_str(), o.nx, o.ny, o.apix, sc.centres.size(), o.diameter, sc.R, sc.ctf.df1 / 1e4, sc.ctf.df2 / 1e4,
         o.snr, sc.n_blobs, 100 * o.carbon, truth.c_str());
  if (o.n_templates > 0) printf("wrote %d templates to %s\n", o.n_templates, o.templates.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  return gvex_run_main([&] { return run(o); });
}
