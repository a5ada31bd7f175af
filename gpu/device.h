// Device layer: device choice, memory, copies, fills and the uniform checks.
// Two back ends stand behind these functions: the CUDA runtime when a GPU
// answers, otherwise the host, where "device" arrays are host memory. Both
// are synchronous and end the process on failure with the same messages.
#pragma once
#include <new>

#include "common/errors.h"
#include <utility>

// ---- device choice ----
// Keep a requested id whose properties can be read, else pick the lowest id
// of the highest compute capability. 0 on success, -1 when none answers.
int check_and_set_gid(int& gid);

// The selection rule itself, over any device table (tests give fakes):
// count() says how many devices exist, props(id, major, minor) is true when
// the properties of id can be read.
int gvex_select_gid(int& gid, int (*count)(), bool (*props)(int id, int& major, int& minor));

// Make gid current. With a CUDA build and a GPU that answers, work goes to
// the GPU; otherwise to the host back end. Returns the one line that says
// which ("Running on ...\n"), for the caller to print.
const char* gvex_device_activate(int gid);

// Memory the active back end can still give, in bytes: the GPU's free
// memory, or the host's MemAvailable; 0 when it cannot be told.
unsigned long gvex_memory_available();

// GPUs that answer; 0 on a host-only build or machine.
int gvex_device_count();

// True when the CUDA back end is the active one.
bool gvex_on_gpu();

// Back to the host back end (the conformance test runs each operation on
// both back ends in one process). Arrays must be freed on the back end that
// made them, and plan caches cleared, before switching; the block pool
// (gpu/pool.h) is cleared here and on activation.
void gvex_device_use_host();

// Number of host threads used by the host back end's loops.
int gvex_host_threads();

// ---- memory ----
int safe_cudaMalloc(void** p, unsigned long bytes);
int safe_cudaMalloc_empty(void** p, unsigned long bytes);
// The allocation itself, without the failure: the platform's code, 0 on success.
int gvex_device_alloc(void** p, unsigned long bytes);
void hcuda_free(void* p);                             // release a device array (null is fine)

// Host staging memory for uploads and downloads, zero-filled: page-locked
// when the CUDA back end is active (its copies then skip the driver's
// bounce buffer), else plain 64-byte aligned memory. pinned says which, for
// the matching free. Returns false when no memory could be had.
bool gvex_host_alloc(void** p, unsigned long bytes, bool* pinned);
void gvex_host_free(void* p, bool pinned);

// Synchronous copies; the platform's error code is returned unchecked.
int memcpy_H2D(void* dst, const void* src, unsigned long bytes);
int memcpy_D2H(void* dst, const void* src, unsigned long bytes);
int memcpy_D2D(void* dst, const void* src, unsigned long bytes);

// ---- fills ----
void hcuda_empty(void* p, unsigned long bytes);  // counts bytes
void hcuda_memset_float(float* p, float value, unsigned long n);

// ---- checks ----
#if defined(GVEX_WITH_CUDA)
// Synchronise and end the process on a pending device error:
// "Error %s at line %d in file %s\n" on stderr, exit status 1.
void gvex_check_kernel(const char* source_path, int line);
#endif
// A copy's platform code checked the same way (for copies whose failure
// would leave garbage behind).
void gvex_check_copy(int code, const char* source_path, int line);
// Same line with a given platform text (used by both back ends' checks).
[[noreturn]] void gvex_device_error(const char* text, int line, const char* source_path);
// Check a cuFFT (or host FFT) result code the same way.
void gvex_check_fft(int result, const char* source_path, int line);
// Fixed text of a cuFFT result code; "Unkown error" for anything else.
const char* cuFFT_GetErrorString(int result);

// Owns one device array; frees it on scope exit. Device pointers start d_.
template <class T>
class DeviceArray {
 public:
  explicit DeviceArray(unsigned long n, bool zero = false) : n_(n) {
    void* p = nullptr;
    if (zero)
      safe_cudaMalloc_empty(&p, n * sizeof(T));
    else
      safe_cudaMalloc(&p, n * sizeof(T));
    d_ = static_cast<T*>(p);
  }
  ~DeviceArray() { hcuda_free(d_); }
  DeviceArray(const DeviceArray&) = delete;
  DeviceArray& operator=(const DeviceArray&) = delete;
  T* get() const { return d_; }
  unsigned long size() const { return n_; }

 private:
  T* d_ = nullptr;
  unsigned long n_ = 0;
};

// Owns one host staging array (see gvex_host_alloc); movable, not copyable.
template <class T>
class HostBuffer {
 public:
  HostBuffer() = default;
  explicit HostBuffer(unsigned long n) { reset(n); }
  ~HostBuffer() { gvex_host_free(p_, pinned_); }
  HostBuffer(HostBuffer&& o) noexcept { swap(o); }
  HostBuffer& operator=(HostBuffer&& o) noexcept {
    swap(o);
    return *this;
  }
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;

  // n zeros in place of the old contents.
  void reset(unsigned long n) {
    HostBuffer fresh;
    void* p = nullptr;
    gvex_note_request(n > ~0UL / sizeof(T) ? ~0UL : n * sizeof(T));
    if (n > ~0UL / sizeof(T) || !gvex_host_alloc(&p, n * sizeof(T), &fresh.pinned_)) throw std::bad_alloc();
    fresh.p_ = static_cast<T*>(p);
    fresh.n_ = n;
    swap(fresh);
  }
  void swap(HostBuffer& o) noexcept {
    std::swap(p_, o.p_);
    std::swap(n_, o.n_);
    std::swap(pinned_, o.pinned_);
  }
  T* data() const { return p_; }
  unsigned long size() const { return n_; }
  bool pinned() const { return pinned_; }

 private:
  T* p_ = nullptr;
  unsigned long n_ = 0;
  bool pinned_ = false;
};
