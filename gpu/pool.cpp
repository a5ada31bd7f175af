// Device block pool: idle blocks by byte size.
#include "gpu/pool.h"

#include <unordered_map>
#include <vector>

namespace {
using IdleBlocks = std::unordered_map<unsigned long, std::vector<void*>>;
// Never destroyed: at exit the blocks may be device memory whose runtime is
// already gone; the process releases them.
IdleBlocks& idle() {
  static IdleBlocks* blocks = new IdleBlocks;
  return *blocks;
}
}  // namespace

void* gvex_pool_take(unsigned long bytes) {
  std::vector<void*>& same = idle()[bytes];
  if (!same.empty()) {
    void* p = same.back();
    same.pop_back();
    return p;
  }
  void* p = nullptr;
  if (gvex_device_alloc(&p, bytes) == 0) return p;
  // Idle blocks of other sizes may be what is missing.
  gvex_pool_clear();
  safe_cudaMalloc(&p, bytes);
  return p;
}

void gvex_pool_give(void* p, unsigned long bytes) {
  if (!p) return;
  try {
    idle()[bytes].push_back(p);
  } catch (...) {  // no room to remember it: a destructor must not throw
    hcuda_free(p);
  }
}

void gvex_pool_clear() {
  for (auto& size_blocks : idle())
    for (void* p : size_blocks.second) hcuda_free(p);
  idle().clear();
}
