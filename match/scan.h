// Correlation scan: for one template, the best normalised cross-correlation
// over all in-plane rotations at every pixel of the working micrograph
// (ccmax, re-centred) and the rotation that gave it (psi, left in the
// zero-shift-at-origin layout).
//
// On the host, even sizes go through fused stages one angle at a time; on
// a GPU (and at odd sizes) angles go in batches of launches. Rotated
// template spectra are kept across micrographs in a bounded store. Both
// live inside match/ (match/scan_state.h).
#pragma once
#include <memory>

#include "common/hd.h"

struct ScanState;

// Default bound on the memory kept for rotated-template spectra.
constexpr unsigned long GVEX_SCAN_CACHE_DEFAULT = 2UL << 30;

// Store budget for a run: half the memory the back end has left, shared by
// the processes on one machine, at most 8 GiB (beyond that a store holds
// more angles than any scan needs).
unsigned long gvex_scan_store_budget(unsigned long available, int sharers);

// Angles per batch of the batched scan, fixed for a run: as many as
// `bytes` hold (four images per angle, and about as much again for cuFFT's
// work areas), at most 32, in whole quanta of the batched FFT plan (at
// least one), and within the launcher's limit. A run computes it once from
// the memory left after the store, divided by the processes sharing the GPU.
int gvex_scan_batch(int nx, int ny, int n_angles, unsigned long bytes);

// What the scan keeps from one call to the next for one working size: the
// spectrum store (within spectrum_budget_bytes) and each strategy's
// buffers. batch: angles per batch of the batched launches (see
// gvex_scan_batch), 0 to let the first scan choose from the memory free
// then. The bits do not depend on either.
class ScanWorkspace {
 public:
  explicit ScanWorkspace(unsigned long spectrum_budget_bytes = GVEX_SCAN_CACHE_DEFAULT, int batch = 0);
  ~ScanWorkspace();
  ScanWorkspace(const ScanWorkspace&) = delete;
  ScanWorkspace& operator=(const ScanWorkspace&) = delete;

 private:
  friend int vexmatch_ccmax_psi_by_one_template(float*, float*, float*, float*, int, int, int, float*, int, int, float,
                                                float, float, float, ScanWorkspace*, float*);
  ScanState& state(int nx, int ny);  // made anew, store emptied, when the size changes
  unsigned long budget_;
  int batch_;
  std::unique_ptr<ScanState> state_;
};

// Fills ccmax (and psi when use_psi is non-zero and psi is given) for
// template T (tnx x tny, device) over the angles from ang_start while below
// ang_end in steps of ang_step. mic and mask are nx x ny device images.
// Prints one dot per angle and a newline. Returns 0. A template larger than
// the image, or empty, is fatal. Without a workspace a temporary one
// without spectrum store is used. When decoy is given it gets, at no more
// than a comparison per pixel and angle, the map the same template with its
// contrast the other way gives (bit for bit): the scores of a null model.
int vexmatch_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int use_psi, int nx, int ny,
                                       float* T, int tnx, int tny, float R, float ang_start, float ang_end,
                                       float ang_step, ScanWorkspace* ws = nullptr, float* decoy = nullptr);
