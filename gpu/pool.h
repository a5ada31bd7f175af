// Run-long cache of device blocks for the temporaries of reductions,
// normalisations, local statistics, ice detection and peak finding. Every
// micrograph asks for the same few sizes again, so a freed block is kept
// under its byte size and handed back on the next request of that size:
// after the first micrograph the loop neither allocates nor frees (on the
// GPU, no cudaMalloc/cudaFree and the synchronisation they imply; on the
// host, no fresh pages to fault in).
//
// A pooled block's contents are undefined when it is handed out; callers
// that need zeros say so. Blocks belong to the back end that made them:
// gvex_pool_clear() frees them all, and switching back ends clears the pool
// first. Like the rest of the device layer, it is driven from one thread.
#pragma once
#include "gpu/device.h"

// A block of exactly bytes bytes, reused when one of that size is free.
// Fails like safe_cudaMalloc when the memory cannot be had even after the
// idle blocks are released.
void* gvex_pool_take(unsigned long bytes);
// Back to the pool (null is fine); bytes must be the size it was taken with.
void gvex_pool_give(void* p, unsigned long bytes);
// Frees every idle block on the active back end.
void gvex_pool_clear();

// Owns one pooled device array for a scope; device pointers start d_.
template <class T>
class PooledArray {
 public:
  explicit PooledArray(unsigned long n, bool zero = false)
      : d_(static_cast<T*>(gvex_pool_take(n * sizeof(T)))), n_(n) {
    if (zero) hcuda_empty(d_, n * sizeof(T));
  }
  ~PooledArray() { gvex_pool_give(d_, n_ * sizeof(T)); }
  PooledArray(const PooledArray&) = delete;
  PooledArray& operator=(const PooledArray&) = delete;
  T* get() const { return d_; }
  unsigned long size() const { return n_; }

 private:
  T* d_;
  unsigned long n_;
};
