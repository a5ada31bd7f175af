// The scan in batches of launches: one rotates and pastes a batch of
// angles, batched transforms take the batch both ways, one forms the
// products and one folds the batch into the running maximum. What a GPU
// runs; on the host, the odd sizes the fused stages do not take.
#include <cmath>
#include <cstdio>

#include "gpu/launch.h"
#include "gpu/resample.h"
#include "match/scan_host.h"
#include "match/scan_state.h"

namespace {

// Rotations of the template by the batch's angles, each pasted into the
// middle of its own cleared image (the rotation of hcuda_2d_rotate), one
// launch for the batch. trig holds cos and sin per angle, taken on the host.
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
// angle wins only when strictly greater, as a per-angle loop would.
void fold_batch(float* ccmax, float* psi, float* decoy, const float* cc, const float* angles, int nb,
                unsigned long n) {
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) {
    for (int k = 0; k < nb; k++) {
      if (psi)
        cuda_update_ccmax_psi(ccmax, cc + (unsigned long)k * n, psi, angles[k], i);
      else
        cuda_update_ccmax(ccmax, cc + (unsigned long)k * n, i);
      if (decoy) cuda_update_decoy(decoy, cc + (unsigned long)k * n, i);
    }
  });
}

// Buffers for batches of b angles and plans of q images, made once.
void make_batch(ScanState& w, int b, int q) {
  if (w.batch == b && w.quantum == q) return;
  w.batch = b;
  w.quantum = q;
  // Zeroed, so that a quantum's images past the batch's last angle hold
  // defined values when the plan transforms them too.
  const unsigned long n = (unsigned long)w.nx * w.ny;
  w.pad.reset(new DeviceArray<float>((unsigned long)b * n, true));
  w.cc.reset(new DeviceArray<float>((unsigned long)b * n, true));
  w.F.reset(new DeviceArray<float2>((unsigned long)b * w.spec_n, true));
  w.P.reset(new DeviceArray<float2>((unsigned long)b * w.spec_n, true));
  w.trig.reset(new DeviceArray<float>(3UL * b, true));
  w.plans.reset(new FftPlanBatch(w.nx, w.ny, q));
}

}  // namespace

void scan_batched(ScanState& w, const ScanCall& c, int batch) {
  const std::vector<float>& angles = *c.angles;
  const int na = (int)angles.size(), nx = w.nx, ny = w.ny;
  const unsigned long n = (unsigned long)nx * ny, spec_bytes = w.spec_n * sizeof(float2);
  StoredTemplate* stored = c.stored;
  const int capacity = stored ? stored->capacity : 0;
  // On a GPU the plan runs whole quanta, so a batch holds whole quanta and
  // the last batch's tail transforms images it does not use.
  const int q = scan_quantum(nx, ny, na);
  const int b = batch < na ? batch : na;
  make_batch(w, gvex_on_gpu() ? (b + q - 1) / q * q : b, q);
  bool pad_clear = false;  // every paste covers the same region of its image
  std::vector<float> trig(3 * w.batch);
  // Every batch lies wholly inside the stored angles or wholly outside, so
  // its spectra are consecutive in one array.
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
      F = stored->slot(a, w.spec_n);
    } else {
      if (!pad_clear) {
        hcuda_empty(w.pad->get(), (unsigned long)w.batch * n * sizeof(float));
        pad_clear = true;
      }
      rotate_paste_batch(w.pad->get(), c.T, w.trig->get(), nb, nx, ny, c.tnx, c.tny);
      w.plans->r2c(w.pad->get(), w.F->get(), nb);
      if (a < capacity) {
        gvex_check_copy(memcpy_D2D(stored->slot(a, w.spec_n), w.F->get(), (unsigned long)nb * spec_bytes), __FILE__,
                        __LINE__);
        stored->filled = end;
      }
    }
    multconj_batch(w.M.get(), F, w.P->get(), nb, w.spec_n, c.norm);
    w.plans->c2r(w.P->get(), w.cc->get(), nb);
    fold_batch(c.ccmax, c.psi, c.decoy, w.cc->get(), w.trig->get() + 2 * w.batch, nb, n);
    a = end;
  }
}
