// The spectrum store of the scan.
#include <cstring>

#include "match/scan_state.h"

StoredTemplate* SpectrumStore::find_or_add(const std::vector<float>& pixels, int tnx, int tny,
                                           const std::vector<float>& angles, unsigned long spec_n) {
  for (auto& t : entries_)
    if (t->tnx == tnx && t->tny == tny && t->angles == angles && t->pixels.size() == pixels.size() &&
        memcmp(t->pixels.data(), pixels.data(), pixels.size() * sizeof(float)) == 0)  // bits: NaN and -0 too
      return t.get();
  const unsigned long spec_bytes = spec_n * sizeof(float2);
  const unsigned long room = (budget_ - used_) / spec_bytes;
  if (room == 0) return nullptr;
  const int cap = room < angles.size() ? (int)room : (int)angles.size();
  std::unique_ptr<StoredTemplate> t(new StoredTemplate);
  t->tnx = tnx;
  t->tny = tny;
  t->pixels = pixels;
  t->angles = angles;
  t->capacity = cap;
  t->slab.reset(new DeviceArray<float2>((unsigned long)cap * spec_n));
  used_ += (unsigned long)cap * spec_bytes;
  entries_.push_back(std::move(t));
  return entries_.back().get();
}
