// Correlation scan of one template over all rotations.
#include "match/scan.h"
#include "match/scan_fused_host.h"
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
// Images per run of the batched FFT plan, and the most angles a batch holds
// (beyond that launches are already long enough to hide their start).
constexpr int SCAN_QUANTUM = 8;
constexpr int SCAN_BATCH_MAX = 32;
}

// One template's stored spectra: the first `capacity` angles of its angle
// list, in one slab, filled in angle order. Recognised by the template's
// pixel values and the angle list.
struct StoredTemplate {
  int tnx, tny;
  std::vector<float> pixels, angles;
  int capacity = 0, filled = 0;
  std::unique_ptr<DeviceArray<float2>> slab;
};

struct ScanWorkspace::Impl {
  Impl(int nx_, int ny_)
      : nx(nx_), ny(ny_), nxh(nx_ / 2 + 1), spec_n((unsigned long)(nx_ / 2 + 1) * ny_), M(spec_n) {}
  int nx, ny, nxh;
  unsigned long spec_n;
  DeviceArray<float2> M;  // the micrograph's spectrum
  std::vector<std::unique_ptr<StoredTemplate>> store;
  std::vector<float> probe;  // host copy of the template being scanned
  std::unique_ptr<FusedScanHost> fused;  // host back end
  // Batched path: a batch of padded templates, their spectra, the products
  // and the correlation maps, and the angles with their cosines and sines.
  // Made once: the batch size is fixed for the workspace.
  int batch = 0, quantum = 0;
  std::unique_ptr<DeviceArray<float>> pad, cc, trig;
  std::unique_ptr<DeviceArray<float2>> F, P;
  std::unique_ptr<FftPlanBatch> plans;
  std::unique_ptr<DeviceArray<float>> rot;  // fused path: one rotated template

  void make_batch(int b, int q) {
    if (batch == b && quantum == q) return;
    batch = b;
    quantum = q;
    // Zeroed, so that a quantum's images past the batch's last angle hold
    // defined values when the plan transforms them too.
    pad.reset(new DeviceArray<float>((unsigned long)b * nx * ny, true));
    cc.reset(new DeviceArray<float>((unsigned long)b * nx * ny, true));
    F.reset(new DeviceArray<float2>((unsigned long)b * spec_n, true));
    P.reset(new DeviceArray<float2>((unsigned long)b * spec_n, true));
    trig.reset(new DeviceArray<float>(3UL * b, true));
    plans.reset(new FftPlanBatch(nx, ny, q));
  }
};

ScanWorkspace::ScanWorkspace(unsigned long spectrum_budget_bytes, int batch)
    : budget_(spectrum_budget_bytes), batch_(batch > 0 ? batch : 0) {}

unsigned long gvex_scan_store_budget(unsigned long available, int sharers) {
  const unsigned long share = available / 2 / (unsigned long)(sharers > 0 ? sharers : 1);
  return share < (8UL << 30) ? share : (8UL << 30);
}

int gvex_scan_quantum(int nx, int ny, int n_angles) {
  // A batch's product is one launch: a quantum of spectra stays below the
  // launcher's limit.
  const unsigned long cap = GVEX_LAUNCH_MAX_1D / ((unsigned long)(nx / 2 + 1) * ny);
  long q = n_angles < SCAN_QUANTUM ? n_angles : SCAN_QUANTUM;
  if ((unsigned long)q > cap) q = (long)cap;
  if (q < 1) q = 1;
  // Each quantum's first image must sit where cuFFT takes it: at odd sizes
  // that means a few more images per quantum.
  const unsigned long spec = (unsigned long)(nx / 2 + 1) * ny;
  while ((unsigned long)q * nx * ny * sizeof(float) % GVEX_FFT_ALIGN != 0 ||
         (unsigned long)q * spec * sizeof(float2) % GVEX_FFT_ALIGN != 0)
    q++;
  return (int)q;
}

int gvex_scan_batch(int nx, int ny, int n_angles, unsigned long bytes) {
  const unsigned long spec = (unsigned long)(nx / 2 + 1) * ny;
  // Per angle: the padded template and its map (reals), its spectrum and
  // the product (complex), and about as much again for cuFFT's work areas.
  const unsigned long per_angle = 2UL * nx * ny * sizeof(float) + 4UL * spec * sizeof(float2);
  const int q = gvex_scan_quantum(nx, ny, n_angles);
  unsigned long b = bytes / per_angle;
  if (b > (unsigned long)SCAN_BATCH_MAX) b = SCAN_BATCH_MAX;
  // The product is one launch over the batch: below the launcher's limit.
  const unsigned long launch_cap = GVEX_LAUNCH_MAX_1D / spec;
  if (b > launch_cap) b = launch_cap;
  const unsigned long whole = (unsigned long)(n_angles + q - 1) / q * q;
  if (b > whole) b = whole;
  b = b / q * q;
  return b < (unsigned long)q ? q : (int)b;
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
    for (auto& t : impl_->store) n += t->filled;
  return n;
}

bool ScanWorkspace::reserve_spectrum(unsigned long bytes) {
  if (used_ + bytes > budget_) return false;
  used_ += bytes;
  return true;
}

void ScanWorkspace::clear_spectra() {
  if (impl_) impl_->store.clear();
  used_ = 0;
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

namespace {

// Rotations of the template by the batch's angles, each pasted into the
// middle of its own cleared image: the arithmetic of hcuda_2d_rotate and
// hcuda_x2d_cp_small_to_large_center, one launch for the batch. trig holds
// cos and sin per angle, taken on the host.
void rotate_paste_batch(float* pad, const float* T, const float* trig, int nb, int nx, int ny, int tnx, int tny) {
  const int ox = (nx - tnx) / 2, oy = (ny - tny) / 2;
  launch_2d(GVEX_SITE, tnx, tny * nb, GVEX_LAMBDA(int x, int yk) {
    const int k = yk / tny, y = yk - k * tny;
    const float v = hd_2d_rotated(T, tnx, tny, trig[2 * k], trig[2 * k + 1], x, y);
    pad[(long)k * nx * ny + ((long)y + oy) * nx + x + ox] = v;
  });
}

// P_k = M * conj(F_k) / s for the batch.
void multconj_batch(const float2* M, const float2* F, float2* P, int nb, unsigned long spec_n, float s) {
  launch_1d(GVEX_SITE, (unsigned long)nb * spec_n, GVEX_LAMBDA(int i) {
    P[i] = cuda_multconj_norm(M[(unsigned long)i % spec_n], F[i], s);
  });
}

// The batch's maps folded into the running maximum in angle order: a later
// angle wins only when strictly greater, as in the per-angle loop.
void fold_batch(float* ccmax, float* psi, const float* cc, const float* angles, int nb, unsigned long n) {
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) {
    for (int k = 0; k < nb; k++) {
      if (psi)
        cuda_update_ccmax_psi(ccmax, cc + (unsigned long)k * n, psi, angles[k], i);
      else
        cuda_update_ccmax(ccmax, cc + (unsigned long)k * n, i);
    }
  });
}

}  // namespace

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
  const int na = (int)angles.size();
  std::unique_ptr<ScanWorkspace> own;
  if (!ws) {
    own.reset(new ScanWorkspace(0));
    ws = own.get();
  }
  ScanWorkspace::Impl& w = ws->impl(nx, ny);
  const unsigned long n = (unsigned long)nx * ny, tn = (unsigned long)tnx * tny;
  const unsigned long spec_bytes = w.spec_n * sizeof(float2);

  // Find this template among the stored ones by its pixels and angles;
  // a new one gets a slab of as many angles as the budget has room for.
  StoredTemplate* stored = nullptr;
  if (ws->spectrum_budget() > 0) {
    w.probe.resize(tn);
    gvex_check_copy(memcpy_D2H(w.probe.data(), T, tn * sizeof(float)), __FILE__, __LINE__);
    for (auto& t : w.store)
      if (t->tnx == tnx && t->tny == tny && t->angles == angles &&
          memcmp(t->pixels.data(), w.probe.data(), tn * sizeof(float)) == 0) {
        stored = t.get();
        break;
      }
    const unsigned long room = (ws->spectrum_budget() - ws->spectrum_bytes()) / spec_bytes;
    if (!stored && room > 0) {
      const int cap = room < (unsigned long)na ? (int)room : na;
      w.store.emplace_back(new StoredTemplate{tnx, tny, w.probe, angles, cap, 0, nullptr});
      stored = w.store.back().get();
      stored->slab.reset(new DeviceArray<float2>((unsigned long)cap * w.spec_n));
      ws->reserve_spectrum((unsigned long)cap * spec_bytes);
    }
  }
  const int capacity = stored ? stored->capacity : 0;
  auto slot = [&](int a) { return stored->slab->get() + (unsigned long)a * w.spec_n; };

  gvex_fft_plan(nx, ny).r2c(mic, w.M.get());
  hcuda_memset_float(ccmax, -INFINITY, n);
  const float norm = (float)(nx * ny);
  float* psi_out = use_psi && psi ? psi : nullptr;

  if (!gvex_on_gpu() && ws->host_fused() && nx % 2 == 0 && ny % 2 == 0) {
    // Host: one angle at a time through the fused stages.
    if (!w.fused) w.fused.reset(new FusedScanHost(nx, ny));
    for (int a = 0; a < na; a++) {
      printf(".");
      fflush(stdout);
      if (a < capacity && a < stored->filled) {
        w.fused->fold(w.M.get(), slot(a), nullptr, norm, ccmax, psi_out, angles[a]);
        continue;
      }
      if (!w.rot || w.rot->size() < tn) w.rot.reset(new DeviceArray<float>(tn));
      hcuda_2d_rotate(T, w.rot->get(), tnx, tny, angles[a]);
      w.fused->paste(w.rot->get(), tnx, tny, (nx - tnx) / 2, (ny - tny) / 2);
      w.fused->fold(w.M.get(), nullptr, a < capacity ? slot(a) : nullptr, norm, ccmax, psi_out, angles[a]);
      if (a < capacity) stored->filled = a + 1;
    }
  } else {
    // Batches of angles: every batch lies wholly inside the stored angles
    // or wholly outside, so its spectra are consecutive in one array. The
    // batch size is fixed for the workspace; on a GPU its plan runs whole
    // quanta, so the last batch's tail transforms images it does not use.
    if (ws->batch() == 0)
      ws->fix_batch(gvex_on_gpu() ? gvex_scan_batch(nx, ny, na, gvex_memory_available() / 4) : 1);
    const int q = gvex_scan_quantum(nx, ny, na);
    const int b = ws->batch() < na ? ws->batch() : na;
    w.make_batch(gvex_on_gpu() ? (b + q - 1) / q * q : b, q);
    bool pad_clear = false;  // every paste covers the same region of its image
    std::vector<float> trig(3 * w.batch);
    for (int a = 0; a < na;) {
      int end = a + w.batch < na ? a + w.batch : na;
      if (stored && a < stored->filled && end > stored->filled) end = stored->filled;
      if (a < capacity && end > capacity) end = capacity;
      const int nb = end - a;
      for (int k = 0; k < nb; k++) printf(".");
      fflush(stdout);
      for (int k = 0; k < nb; k++) {
        const float rad = angles[a + k] * 0.017453292f;
        trig[2 * k] = cosf(rad);
        trig[2 * k + 1] = sinf(rad);
        trig[2 * w.batch + k] = angles[a + k];
      }
      gvex_check_copy(memcpy_H2D(w.trig->get(), trig.data(), trig.size() * sizeof(float)), __FILE__, __LINE__);
      const float2* F = w.F->get();
      if (stored && a < stored->filled) {
        F = slot(a);
      } else {
        if (!pad_clear) {
          hcuda_empty(w.pad->get(), (unsigned long)w.batch * n * sizeof(float));
          pad_clear = true;
        }
        rotate_paste_batch(w.pad->get(), T, w.trig->get(), nb, nx, ny, tnx, tny);
        w.plans->r2c(w.pad->get(), w.F->get(), nb);
        if (a < capacity) {
          gvex_check_copy(memcpy_D2D(slot(a), w.F->get(), (unsigned long)nb * spec_bytes), __FILE__, __LINE__);
          stored->filled = end;
        }
      }
      multconj_batch(w.M.get(), F, w.P->get(), nb, w.spec_n, norm);
      w.plans->c2r(w.P->get(), w.cc->get(), nb);
      fold_batch(ccmax, psi_out, w.cc->get(), w.trig->get() + 2 * w.batch, nb, n);
      a = end;
    }
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
