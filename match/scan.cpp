// Correlation scan of one template over all rotations: the entry, which
// finds the template's stored spectra, hands the angles to the host's fused
// stages or to the batched launches, and normalises the running maximum.
#include "match/scan.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/errors.h"
#include "gpu/launch.h"
#include "gpu/math_utils.h"
#include "gpu/reduce.h"
#include "gpu/resample.h"
#include "match/scan_state.h"
#include "match/templates.h"

namespace {
const char* const gvex_module = "vexmatch56";
// Images per run of the batched FFT plan, and the most angles a batch holds
// (beyond that launches are already long enough to hide their start).
constexpr int SCAN_QUANTUM = 8;
constexpr int SCAN_BATCH_MAX = 32;

// Centre swap followed by division by s, in one pass; even sizes only (the
// swap pairs every element exactly once there).
void swap_divide_inplace(float* d_p, int nx, int ny, float s) {
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

}  // namespace

ScanWorkspace::ScanWorkspace(unsigned long spectrum_budget_bytes, int batch)
    : budget_(spectrum_budget_bytes), batch_(batch > 0 ? batch : 0) {}
ScanWorkspace::~ScanWorkspace() = default;

ScanState& ScanWorkspace::state(int nx, int ny) {
  // Spectra belong to one working size.
  if (!state_ || state_->nx != nx || state_->ny != ny) {
    state_.reset();
    state_.reset(new ScanState(nx, ny, budget_));
  }
  return *state_;
}

unsigned long gvex_scan_store_budget(unsigned long available, int sharers) {
  const unsigned long share = available / 2 / (unsigned long)(sharers > 0 ? sharers : 1);
  return share < (8UL << 30) ? share : (8UL << 30);
}

int scan_quantum(int nx, int ny, int n_angles) {
  // A batch's product is one launch: a quantum of spectra stays below the
  // launcher's limit.
  const unsigned long half_n = (unsigned long)(nx / 2 + 1) * ny;
  const unsigned long cap = GVEX_LAUNCH_MAX_1D / half_n;
  long q = n_angles < SCAN_QUANTUM ? n_angles : SCAN_QUANTUM;
  if ((unsigned long)q > cap) q = (long)cap;
  if (q < 1) q = 1;
  // Each quantum's first image must sit where cuFFT takes it: at odd sizes
  // that means a few more images per quantum.
  while ((unsigned long)q * nx * ny * sizeof(float) % GVEX_FFT_ALIGN != 0 ||
         (unsigned long)q * half_n * sizeof(float2) % GVEX_FFT_ALIGN != 0)
    q++;
  return (int)q;
}

int gvex_scan_batch(int nx, int ny, int n_angles, unsigned long bytes) {
  const unsigned long half_n = (unsigned long)(nx / 2 + 1) * ny;
  // Per angle: the padded template and its map (reals), its spectrum and
  // the product (complex), and about as much again for cuFFT's work areas.
  const unsigned long per_angle = 2UL * nx * ny * sizeof(float) + 4UL * half_n * sizeof(float2);
  const int q = scan_quantum(nx, ny, n_angles);
  unsigned long b = bytes / per_angle;
  if (b > (unsigned long)SCAN_BATCH_MAX) b = SCAN_BATCH_MAX;
  // The product is one launch over the batch: below the launcher's limit.
  const unsigned long launch_cap = GVEX_LAUNCH_MAX_1D / half_n;
  if (b > launch_cap) b = launch_cap;
  const unsigned long whole = (unsigned long)(n_angles + q - 1) / q * q;
  if (b > whole) b = whole;
  b = b / q * q;
  return b < (unsigned long)q ? q : (int)b;
}

int vexmatch_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int use_psi, int nx, int ny,
                                       float* T, int tnx, int tny, float R, float ang_start, float ang_end,
                                       float ang_step, ScanWorkspace* ws, float* decoy) {
  if (nx < 1 || ny < 1 || tnx < 1 || tny < 1 || tnx > nx || tny > ny) {
    char why[200];
    snprintf(why, sizeof why, "template of %d x %d pixels cannot be scanned over a %d x %d working micrograph", tnx,
             tny, nx, ny);
    GVEX_FAIL(why);
  }
  const std::vector<float> angles = get_rotation_angles(ang_start, ang_end, ang_step);
  ScanWorkspace own(0);
  if (!ws) ws = &own;
  ScanState& w = ws->state(nx, ny);
  const unsigned long n = (unsigned long)nx * ny, tn = (unsigned long)tnx * tny;

  ScanCall c{T, tnx, tny, &angles, nullptr, (float)(nx * ny), ccmax, use_psi && psi ? psi : nullptr, decoy};
  if (w.store.enabled()) {
    w.probe.resize(tn);
    gvex_check_copy(memcpy_D2H(w.probe.data(), T, tn * sizeof(float)), __FILE__, __LINE__);
    c.stored = w.store.find_or_add(w.probe, tnx, tny, angles, w.spec_n);
  }
  gvex_fft_plan(nx, ny).r2c(mic, w.M.get());
  hcuda_memset_float(ccmax, -INFINITY, n);
  if (decoy) hcuda_memset_float(decoy, -INFINITY, n);
  if (!gvex_on_gpu() && nx % 2 == 0 && ny % 2 == 0) {
    scan_fused(w, c);
  } else {
    // Without a batch size of its own the workspace takes what a quarter of
    // the free memory holds, once.
    if (ws->batch_ == 0)
      ws->batch_ = gvex_on_gpu() ? gvex_scan_batch(nx, ny, (int)angles.size(), gvex_memory_available() / 4) : 1;
    scan_batched(w, c, ws->batch_);
  }
  printf("\n");

  // Template norm times the expected micrograph norm under a disc of radius
  // R, the mean square taken over the usable area only.
  const float A = R * R * 3.1415927f;
  const float s_mic = hcuda_fast_sumsqr_withmask(mic, mask, n);
  const float s_t = hcuda_fast_sumsqr(T, tn);
  const float s_mask = hcuda_fast_sum(mask, n);
  const float D = sqrtf(s_t * s_mic * A / s_mask);

  // Only ccmax (and the decoy map) are re-centred: psi keeps the
  // zero-shift-at-origin layout.
  for (float* map : {ccmax, decoy}) {
    if (!map) continue;
    if (nx % 2 == 0 && ny % 2 == 0) {
      swap_divide_inplace(map, nx, ny, D);
    } else {
      hcuda_2d_swap_ccf_inplace(map, nx, ny);
      hcuda_2d_divide_inplace(map, nx, ny, D);
    }
  }
  return 0;
}
