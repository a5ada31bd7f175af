// Correlation scan: for one template, the best normalised cross-correlation
// over all in-plane rotations at every pixel of the working micrograph
// (ccmax, re-centred) and the rotation that gave it (psi, left in the
// zero-shift-at-origin layout).
#pragma once
#include <memory>
#include <vector>

#include "common/hd.h"

// Default bound on the device memory kept for rotated-template spectra.
constexpr unsigned long GVEX_SCAN_CACHE_DEFAULT = 2UL << 30;

// Store budget for a run: half the memory the back end has left, shared by
// the processes on one machine, at most 8 GiB (beyond that a store holds
// more angles than any scan needs).
unsigned long gvex_scan_store_budget(unsigned long available, int sharers);

// Angles per batch of the GPU's batched scan, fixed for a run: as many as
// `bytes` hold (four images per angle, and about as much again for cuFFT's
// work areas), at most 32, in whole quanta of the batched FFT plan (at
// least one), and within the launcher's limit. A run computes it once from
// the memory left after the store, divided by the processes sharing the GPU.
int gvex_scan_batch(int nx, int ny, int n_angles, unsigned long bytes);
// Images per run of the batched FFT plan for an angle list of this length
// (at most 8, and within the launcher's limit at this size):
// every angle of a scan passes through a plan of this many images, whatever
// the batch size, so the bits do not depend on the memory at hand.
int gvex_scan_quantum(int nx, int ny, int n_angles);

// Buffers of the scan for one working size, made once per run and handed to
// every scan call, and a bounded store of rotated-template spectra that
// survives from one micrograph to the next: such a spectrum depends only on
// the template's pixels, the angle and the working size. Each template gets
// one slab holding the spectra of the first angles of its list that the
// budget has room for; templates are recognised by their pixel values and
// angle list, so the store never serves a stale spectrum. Angles beyond
// the slab are simply recomputed.
class ScanWorkspace {
 public:
  // batch: angles per batch of the batched path (gvex_scan_batch), 0 to
  // let the first scan choose from the memory free then.
  explicit ScanWorkspace(unsigned long spectrum_budget_bytes = GVEX_SCAN_CACHE_DEFAULT, int batch = 0);
  ~ScanWorkspace();
  ScanWorkspace(const ScanWorkspace&) = delete;
  ScanWorkspace& operator=(const ScanWorkspace&) = delete;

  unsigned long spectrum_budget() const { return budget_; }
  unsigned long spectrum_bytes() const { return used_; }  // held now
  int cached_spectra() const;
  void clear_spectra();

  // How the scan runs: on the host back end the fused stages (the default)
  // or the batched launches every back end has; angles per batch, 0 for the
  // back end's own choice (one on the host, what memory allows on a GPU).
  // Both give the same bits; tests compare them.
  void set_path(bool host_fused, int batch) {
    fused_ = host_fused;
    batch_ = batch;
  }
  bool host_fused() const { return fused_; }
  int batch() const { return batch_; }
  void fix_batch(int batch) { batch_ = batch; }

  // Internal to the scan: buffers for an nx x ny image (made anew, and the
  // store emptied, when the size changes) and the byte budget.
  struct Impl;
  Impl& impl(int nx, int ny);
  bool reserve_spectrum(unsigned long bytes);

 private:
  unsigned long budget_, used_ = 0;
  bool fused_ = true;
  int batch_ = 0;
  std::unique_ptr<Impl> impl_;
};

// Fills ccmax (and psi when use_psi is non-zero and psi is given) for
// template T (tnx x tny, device) over the angles from ang_start while below
// ang_end in steps of ang_step. mic and mask are nx x ny device images.
// Prints one dot per angle and a newline. Returns 0. A template larger than
// the image, or empty, is fatal. Without a workspace a temporary one
// without spectrum store is used.
int vexmatch_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int use_psi, int nx, int ny,
                                       float* T, int tnx, int tny, float R, float ang_start, float ang_end,
                                       float ang_step, ScanWorkspace* ws = nullptr);

// Running maximum: ccmax[i] = cc[i] (and psi[i] = ang) where cc[i] >
// ccmax[i]; equal values and NaN change nothing.
void hcuda_update_ccmax_2d(float* ccmax, float* cc, int nx, int ny);
void hcuda_update_ccmax_psi_2d(float* ccmax, float* cc, float* psi, float ang, int nx, int ny);

// P = M * conj(F) / s over an nxh x ny half spectrum: the same bits as
// hcuda_c2d_multconj_norm, with a faster loop on the host back end.
void scan_multconj_norm(const float2* M, const float2* F, float2* P, int nxh, int ny, float s);

// Centre swap and division by s in one pass, for even nx and ny: the same
// bits as the swap followed by the division.
void hcuda_2d_swap_divide_inplace(float* d_p, int nx, int ny, float s);
