// Inside the scan (match/scan*.cpp only): the workspace's state, the
// spectrum store and the two strategies that run the angles.
#pragma once
#include <memory>
#include <vector>

#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "match/scan.h"
#include "match/scan_fused_host.h"

// Images per run of the batched FFT plan for an angle list of this length
// (at most 8, within the launcher's limit at this size, and whole quanta
// start where cuFFT takes them): every angle of a scan passes through a
// plan of this many images whatever the batch size, so the bits do not
// depend on the memory at hand.
int scan_quantum(int nx, int ny, int n_angles);

// One template's stored spectra: the first `capacity` angles of its angle
// list, in one slab, filled in angle order. Recognised by the template's
// pixel values and the angle list.
struct StoredTemplate {
  int tnx = 0, tny = 0;
  std::vector<float> pixels, angles;
  int capacity = 0, filled = 0;
  std::unique_ptr<DeviceArray<float2>> slab;
  float2* slot(int a, unsigned long spec_n) const { return slab->get() + (unsigned long)a * spec_n; }
};

// Rotated-template spectra kept across micrographs within a byte budget.
class SpectrumStore {
 public:
  explicit SpectrumStore(unsigned long budget) : budget_(budget) {}
  // The template's entry (found by its pixels and angles), or a new one
  // holding as many of its angles as the budget has room for; null when
  // the budget is spent.
  StoredTemplate* find_or_add(const std::vector<float>& pixels, int tnx, int tny, const std::vector<float>& angles,
                              unsigned long spec_n);
  bool enabled() const { return budget_ > 0; }

 private:
  unsigned long budget_, used_ = 0;
  std::vector<std::unique_ptr<StoredTemplate>> entries_;
};

// What one scan call works with.
struct ScanCall {
  const float* T;
  int tnx, tny;
  const std::vector<float>* angles;
  StoredTemplate* stored;  // null: nothing stored for this template
  float norm;              // nx * ny
  float* ccmax;
  float* psi;              // null: no angle map
  float* decoy;            // null: no decoy map
};

// The workspace's state for one working size: the micrograph's spectrum,
// the store, and each strategy's buffers (made when first used).
struct ScanState {
  ScanState(int nx_, int ny_, unsigned long budget)
      : nx(nx_), ny(ny_), spec_n((unsigned long)(nx_ / 2 + 1) * ny_), M(spec_n), store(budget) {}
  int nx, ny;
  unsigned long spec_n;
  DeviceArray<float2> M;
  SpectrumStore store;
  std::vector<float> probe;  // host copy of the template being scanned

  // Host: one angle at a time through the fused stages.
  std::unique_ptr<FusedScanHost> fused;
  std::unique_ptr<DeviceArray<float>> rot;
  // Batches: padded templates, their spectra, the products, the maps, and
  // the angles with their cosines and sines.
  int batch = 0, quantum = 0;
  std::unique_ptr<DeviceArray<float>> pad, cc, trig;
  std::unique_ptr<DeviceArray<float2>> F, P;
  std::unique_ptr<FftPlanBatch> plans;
};

// The angles of one scan through the host's fused stages (even sizes).
void scan_fused(ScanState& w, const ScanCall& c);
// The same in batches of launches (every back end, every size); batch is
// the workspace's fixed batch size.
void scan_batched(ScanState& w, const ScanCall& c, int batch);
