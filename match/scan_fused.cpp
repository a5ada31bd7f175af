// The host's scan: one angle at a time through the fused stages
// (match/scan_fused_host.h), the template rotated by the shared launch.
#include <cstdio>

#include "gpu/resample.h"
#include "match/scan_state.h"

void scan_fused(ScanState& w, const ScanCall& c) {
  const std::vector<float>& angles = *c.angles;
  const int na = (int)angles.size();
  const unsigned long tn = (unsigned long)c.tnx * c.tny;
  StoredTemplate* stored = c.stored;
  const int capacity = stored ? stored->capacity : 0;
  if (!w.fused) w.fused.reset(new FusedScanHost(w.nx, w.ny));
  for (int a = 0; a < na; a++) {
    printf(".");
    fflush(stdout);
    if (a < capacity && a < stored->filled) {
      w.fused->fold(w.M.get(), stored->slot(a, w.spec_n), nullptr, c.norm, c.ccmax, c.psi, angles[a], c.decoy);
      continue;
    }
    if (!w.rot || w.rot->size() < tn) w.rot.reset(new DeviceArray<float>(tn));
    hcuda_2d_rotate(c.T, w.rot->get(), c.tnx, c.tny, angles[a]);
    w.fused->paste(w.rot->get(), c.tnx, c.tny, (w.nx - c.tnx) / 2, (w.ny - c.tny) / 2);
    w.fused->fold(w.M.get(), nullptr, a < capacity ? stored->slot(a, w.spec_n) : nullptr, c.norm, c.ccmax, c.psi,
                  angles[a], c.decoy);
    if (a < capacity) stored->filled = a + 1;
  }
}
