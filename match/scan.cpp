// Correlation scan of one template over all rotations.
#include "match/scan.h"
#include "match/scan_host.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "common/errors.h"
#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "gpu/launch.h"
#include "gpu/math_utils.h"
#include "gpu/reduce.h"
#include "gpu/resample.h"
#include "match/templates.h"

namespace {
const char* const gvex_module = "vexmatch56";
}

// One template's stored spectra, recognised by its pixel values.
struct StoredTemplate {
  int tnx, tny;
  std::vector<float> pixels;
  std::unordered_map<uint32_t, std::unique_ptr<DeviceArray<float2>>> by_angle;  // angle bits -> spectrum
};

struct ScanWorkspace::Impl {
  Impl(int nx_, int ny_)
      : nx(nx_), ny(ny_), nxh(nx_ / 2 + 1), spec_n((unsigned long)(nx_ / 2 + 1) * ny_),
        pad((unsigned long)nx_ * ny_), cc((unsigned long)nx_ * ny_), M(spec_n), F(spec_n), P(spec_n) {}
  int nx, ny, nxh;
  unsigned long spec_n;
  DeviceArray<float> pad, cc;  // zero-padded rotated template; one correlation map
  DeviceArray<float2> M, F, P;  // micrograph, template (when not stored) and product spectra
  std::unique_ptr<DeviceArray<float>> rot;  // rotated template, grown on demand
  std::vector<std::unique_ptr<StoredTemplate>> store;
  std::vector<float> probe;  // host copy of the template being scanned

  float* rot_buffer(unsigned long n) {
    if (!rot || rot->size() < n) rot.reset(new DeviceArray<float>(n));
    return rot->get();
  }
};

ScanWorkspace::ScanWorkspace(unsigned long spectrum_budget_bytes) : budget_(spectrum_budget_bytes) {}

unsigned long gvex_scan_store_budget(unsigned long available, int sharers) {
  const unsigned long share = available / 2 / (unsigned long)(sharers > 0 ? sharers : 1);
  return share < (8UL << 30) ? share : (8UL << 30);
}
ScanWorkspace::~ScanWorkspace() = default;

ScanWorkspace::Impl& ScanWorkspace::impl(int nx, int ny) {
  if (!impl_ || impl_->nx != nx || impl_->ny != ny) {
    // Spectra belong to one working size.
    impl_.reset();
    used_ = 0;
    impl_.reset(new Impl(nx, ny));
  }
  return *impl_;
}

int ScanWorkspace::cached_spectra() const {
  int n = 0;
  if (impl_)
    for (auto& t : impl_->store) n += (int)t->by_angle.size();
  return n;
}

bool ScanWorkspace::reserve_spectrum(unsigned long bytes) {
  if (used_ + bytes > budget_) return false;
  used_ += bytes;
  return true;
}

// P = M * conj(F) / s over the half spectrum, as hcuda_c2d_multconj_norm.
void scan_multconj_norm(const float2* M, const float2* F, float2* P, int nxh, int ny, float s) {
  if (!gvex_on_gpu() && scan_host_multconj(M, F, P, (long)nxh * ny, s)) return;
  hcuda_c2d_multconj_norm(M, F, P, nxh, ny, s);
}

void hcuda_update_ccmax_2d(float* ccmax, float* cc, int nx, int ny) {
  float* m = ccmax;
  const float* c = cc;
  if (!gvex_on_gpu() && scan_host_update(m, c, (long)nx * ny)) return;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) { cuda_update_ccmax(m, c, (long)y * nx + x); });
}

void hcuda_update_ccmax_psi_2d(float* ccmax, float* cc, float* psi, float ang, int nx, int ny) {
  float* m = ccmax;
  float* a = psi;
  const float* c = cc;
  if (!gvex_on_gpu() && scan_host_update_psi(m, c, a, ang, (long)nx * ny)) return;
  launch_2d(GVEX_SITE, nx, ny, GVEX_LAMBDA(int x, int y) { cuda_update_ccmax_psi(m, c, a, ang, (long)y * nx + x); });
}

// Centre swap followed by division by s, in one pass; even sizes only (the
// swap pairs every element exactly once there).
void hcuda_2d_swap_divide_inplace(float* d_p, int nx, int ny, float s) {
  float* p = d_p;
  const int hx = nx / 2, hy = ny / 2;
  launch_2d(GVEX_SITE, nx, hy, GVEX_LAMBDA(int x, int y) {
    const long i = (long)y * nx + x;
    const long j = (long)((y + hy) % ny) * nx + (x + hx) % nx;
    const float a = p[i], b = p[j];
    p[i] = b / s;
    p[j] = a / s;
  });
}

int vexmatch_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int use_psi, int nx, int ny,
                                       float* T, int tnx, int tny, float R, float ang_start, float ang_end,
                                       float ang_step, ScanWorkspace* ws) {
  if (nx < 1 || ny < 1 || tnx < 1 || tny < 1 || tnx > nx || tny > ny) {
    char why[200];
    snprintf(why, sizeof why, "template of %d x %d pixels cannot be scanned over a %d x %d working micrograph", tnx,
             tny, nx, ny);
    GVEX_FAIL(why);
  }
  const std::vector<float> angles = get_rotation_angles(ang_start, ang_end, ang_step);
  std::unique_ptr<ScanWorkspace> own;
  if (!ws) {
    own.reset(new ScanWorkspace(0));
    ws = own.get();
  }
  ScanWorkspace::Impl& w = ws->impl(nx, ny);
  FftPlan2d& plan = gvex_fft_plan(nx, ny);
  const unsigned long n = (unsigned long)nx * ny, tn = (unsigned long)tnx * tny;
  const unsigned long spec_bytes = w.spec_n * sizeof(float2);

  // Find this template among the stored ones by its pixel values.
  StoredTemplate* stored = nullptr;
  if (ws->spectrum_budget() > 0) {
    w.probe.resize(tn);
    memcpy_D2H(w.probe.data(), T, tn * sizeof(float));
    for (auto& t : w.store)
      if (t->tnx == tnx && t->tny == tny && memcmp(t->pixels.data(), w.probe.data(), tn * sizeof(float)) == 0) {
        stored = t.get();
        break;
      }
    if (!stored && ws->spectrum_bytes() + spec_bytes <= ws->spectrum_budget()) {
      w.store.emplace_back(new StoredTemplate{tnx, tny, w.probe, {}});
      stored = w.store.back().get();
    }
  }

  plan.r2c(mic, w.M.get());
  hcuda_memset_float(ccmax, -INFINITY, n);
  bool pad_clear = false;
  const float norm = (float)(nx * ny);
  const bool with_psi = use_psi && psi;

  for (float ang : angles) {
    printf(".");
    fflush(stdout);
    const float2* F = nullptr;
    uint32_t key;
    memcpy(&key, &ang, sizeof key);
    if (stored) {
      auto it = stored->by_angle.find(key);
      if (it != stored->by_angle.end()) F = it->second->get();
    }
    if (!F) {
      // Rotate about the template's centre and paste into the middle of the
      // cleared image; every paste covers the same region, so the zeros
      // around it need clearing only once.
      if (!pad_clear) {
        hcuda_2d_empty(w.pad.get(), nx, ny);
        pad_clear = true;
      }
      float* rot = w.rot_buffer(tn);
      hcuda_2d_rotate(T, rot, tnx, tny, ang);
      hcuda_x2d_cp_small_to_large_center(w.pad.get(), rot, nx, ny, tnx, tny);
      float2* dst = w.F.get();
      if (stored && ws->reserve_spectrum(spec_bytes)) {
        auto* spectrum = new DeviceArray<float2>(w.spec_n);
        stored->by_angle[key].reset(spectrum);
        dst = spectrum->get();
      }
      plan.r2c(w.pad.get(), dst);
      F = dst;
    }
    scan_multconj_norm(w.M.get(), F, w.P.get(), w.nxh, ny, norm);
    plan.c2r(w.P.get(), w.cc.get());
    if (with_psi)
      hcuda_update_ccmax_psi_2d(ccmax, w.cc.get(), psi, ang, nx, ny);
    else
      hcuda_update_ccmax_2d(ccmax, w.cc.get(), nx, ny);
  }
  printf("\n");

  // Template norm times the expected micrograph norm under a disc of radius
  // R, the mean square taken over the usable area only.
  const float A = R * R * 3.1415927f;
  const float s_mic = hcuda_fast_sumsqr_withmask(mic, mask, n);
  const float s_t = hcuda_fast_sumsqr(T, tn);
  const float s_mask = hcuda_fast_sum(mask, n);
  const float D = sqrtf(s_t * s_mic * A / s_mask);

  // Only ccmax is re-centred: psi keeps the zero-shift-at-origin layout.
  if (nx % 2 == 0 && ny % 2 == 0) {
    hcuda_2d_swap_divide_inplace(ccmax, nx, ny, D);
  } else {
    hcuda_2d_swap_ccf_inplace(ccmax, nx, ny);
    hcuda_2d_divide_inplace(ccmax, nx, ny, D);
  }
  return 0;
}
