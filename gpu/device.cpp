// Device layer: dispatch between the CUDA back end (gpu/device.cu) and the
// host back end implemented here.
#include "gpu/device.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "common/errors.h"
#include "gpu/device_cuda.h"
#include "gpu/launch.h"
#include "gpu/pool.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "cuda_general";

static bool g_on_gpu = false;

bool gvex_on_gpu() { return g_on_gpu; }

void gvex_device_use_host() {
  gvex_pool_clear();  // its blocks are freed by the back end that made them
  g_on_gpu = false;
}

int gvex_host_threads() {
#if defined(_OPENMP)
  return omp_get_max_threads();
#else
  return 1;
#endif
}

// The host back end presents itself as one device, id 0.
static int host_count() { return 1; }
static bool host_props(int id, int& major, int& minor) {
  if (id != 0) return false;
  major = 1;
  minor = 0;
  return true;
}

int gvex_select_gid(int& gid, int (*count)(), bool (*props)(int, int&, int&)) {
  int major = 0, minor = 0;
  if (props(gid, major, minor)) return 0;
  int n = count();
  if (n <= 0) {
    printf("Warning: no GPU device found!\n");
    return -1;
  }
  int best_major = 0, best_minor = 0;
  for (int id = 0; id < n; id++) {
    if (!props(id, major, minor)) continue;
    if (major > best_major || (major == best_major && minor > best_minor)) {
      best_major = major;
      best_minor = minor;
      gid = id;
    }
  }
  return props(gid, major, minor) ? 0 : -1;
}

unsigned long gvex_memory_available() {
#if defined(GVEX_WITH_CUDA)
  if (g_on_gpu) {
    unsigned long free_b = 0, total_b = 0;
    const char* err = nullptr;
    return gvex_cuda::mem_info(free_b, total_b, &err) == 0 ? free_b : 0;
  }
#endif
  unsigned long avail = 0;
  if (FILE* fp = fopen("/proc/meminfo", "r")) {
    char key[64];
    unsigned long kb = 0;
    while (fscanf(fp, "%63s %lu kB", key, &kb) == 2)
      if (!strcmp(key, "MemAvailable:")) avail = kb * 1024UL;
    fclose(fp);
  }
  return avail;
}

int gvex_device_count() {
#if defined(GVEX_WITH_CUDA)
  return gvex_cuda::device_count();
#else
  return 0;
#endif
}

int check_and_set_gid(int& gid) {
#if defined(GVEX_WITH_CUDA)
  if (gvex_cuda::device_count() > 0) return gvex_select_gid(gid, gvex_cuda::device_count, gvex_cuda::device_props);
#endif
  return gvex_select_gid(gid, host_count, host_props);
}

#if defined(GVEX_WITH_CUDA)
// A kernel launched through the launcher must really run: a fill of one
// value read back. Catches what the static checks cannot (a driver that
// accepts the code but runs nothing). Returns null when it ran.
static const char* launch_round_trip() {
  float* d = nullptr;
  if (gvex_cuda::malloc_bytes((void**)&d, sizeof(float)) != 0) return "no device memory could be had";
  float back = 0.0f;
  const char* problem = nullptr;
  try {
    hcuda_memset_float(d, 1234.5f, 1);
    if (gvex_cuda::copy(&back, d, sizeof back, 2) != 0 || back != 1234.5f) problem = "a test kernel did not run";
  } catch (const GvexFailure&) {
    problem = "a test kernel failed";
  }
  gvex_cuda::free_bytes(d);
  return problem;
}
#endif

const char* gvex_device_activate(int gid) {
  static char line[768];
  gvex_pool_clear();
  char why[600] = "no GPU answered";
#if defined(GVEX_WITH_CUDA)
  int major = 0, minor = 0;
  if (gvex_cuda::device_count() > 0 && gvex_cuda::device_props(gid, major, minor)) {
    // A GPU this binary cannot run its kernels on would turn every launch
    // into a no-op and the run into garbage: it counts as no usable GPU.
    const char* problem = gvex_cuda::usable(gid);
    if (!problem) {
      g_on_gpu = true;
      problem = launch_round_trip();
    }
    if (!problem) {
      snprintf(line, sizeof line, "Running on GPU %d: %s (compute capability %d.%d)\n", gid,
               gvex_cuda::device_name(gid), major, minor);
      return line;
    }
    g_on_gpu = false;
    gvex_pool_clear();
    snprintf(why, sizeof why, "GPU %d, %s (compute capability %d.%d), cannot be used: %s", gid,
             gvex_cuda::device_name(gid), major, minor, problem);
  }
#endif
  g_on_gpu = false;
  // Every core: a dynamic team (OMP_DYNAMIC=true) sizes itself by the load
  // average, which the run's own threads raise, so on a quiet two-core
  // machine it shrinks to one thread. The MPI companion divides the cores
  // among the ranks of a machine itself.
  snprintf(line, sizeof line, "Running on the host back end (%s), %d thread(s)\n", why, gvex_host_threads());
  return line;
}

// ---- memory ----

// Large host arrays (the spectrum store holds hundreds of megabytes) are
// mapped with transparent huge pages: first touching them then costs a
// fault per 2 MiB instead of per 4 KiB, which on virtual machines is most
// of what filling the store costs. Mapped pages arrive zeroed.
static const unsigned long HUGE_FROM = 4UL << 20, HUGE_PAGE = 2UL << 20;
static std::mutex g_mapped_lock;
static std::unordered_map<void*, unsigned long>& mapped() {
  static auto* m = new std::unordered_map<void*, unsigned long>;  // outlives static destructors
  return *m;
}

static void* map_huge(unsigned long bytes) {
  const unsigned long len = (bytes + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
  if (len < bytes) return nullptr;
  char* raw = (char*)mmap(nullptr, len + HUGE_PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  // Trim to a 2 MiB-aligned region so that every page of it can be huge.
  char* q = (char*)(((unsigned long)raw + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1));
  if (q > raw) munmap(raw, q - raw);
  if (raw + len + HUGE_PAGE > q + len) munmap(q + len, raw + len + HUGE_PAGE - (q + len));
#if defined(MADV_HUGEPAGE)
  madvise(q, len, MADV_HUGEPAGE);
#endif
  std::lock_guard<std::mutex> g(g_mapped_lock);
  mapped()[q] = len;
  return q;
}

// True when p was mapped (and is now unmapped).
static bool unmap_huge(void* p) {
  unsigned long len;
  {
    std::lock_guard<std::mutex> g(g_mapped_lock);
    auto it = mapped().find(p);
    if (it == mapped().end()) return false;
    len = it->second;
    mapped().erase(it);
  }
  munmap(p, len);
  return true;
}

static int host_alloc(void** p, unsigned long bytes) {
  if (bytes >= HUGE_FROM) {
    *p = map_huge(bytes);
    return *p ? 0 : 2;
  }
  // Zero-filled and aligned for the FFT library's vector loads.
  void* q = nullptr;
  unsigned long rounded = (bytes + 63) & ~63UL;
  if (rounded < bytes || posix_memalign(&q, 64, rounded ? rounded : 64) != 0) {
    *p = nullptr;
    return 2;  // the platform's "out of memory" code
  }
  memset(q, 0, rounded ? rounded : 64);
  *p = q;
  return 0;
}

int gvex_device_alloc(void** p, unsigned long bytes) {
  gvex_note_request(bytes);
#if defined(GVEX_WITH_CUDA)
  if (g_on_gpu) return gvex_cuda::malloc_bytes(p, bytes);
#endif
  return host_alloc(p, bytes);
}

int safe_cudaMalloc(void** p, unsigned long bytes) {
  if (gvex_device_alloc(p, bytes) != 0) GVEX_FAIL("Device memory allocation failed");
  return 0;
}

int safe_cudaMalloc_empty(void** p, unsigned long bytes) {
  if (gvex_device_alloc(p, bytes) != 0)
    GVEX_FAIL("Device memory allocation failed");
  hcuda_empty(*p, bytes);
  return 0;
}

void hcuda_free(void* p) {
  if (!p) return;
#if defined(GVEX_WITH_CUDA)
  if (g_on_gpu) {
    gvex_cuda::free_bytes(p);
    return;
  }
#endif
  if (!unmap_huge(p)) free(p);
}

// Staging memory is allocated here and released with free(), apart from
// host_alloc, which serves the device arrays.
bool gvex_host_alloc(void** p, unsigned long bytes, bool* pinned) {
  *pinned = false;
#if defined(GVEX_WITH_CUDA)
  // Without page-locked memory left, plain memory still works, only slower.
  if (g_on_gpu && gvex_cuda::host_alloc(p, bytes) == 0) {
    memset(*p, 0, bytes);
    *pinned = true;
    return true;
  }
#endif
  const unsigned long rounded = (bytes + 63) & ~63UL;
  if (rounded < bytes || posix_memalign(p, 64, rounded ? rounded : 64) != 0) {
    *p = nullptr;
    return false;
  }
  memset(*p, 0, rounded ? rounded : 64);
  return true;
}

void gvex_host_free(void* p, bool pinned) {
  if (!p) return;
#if defined(GVEX_WITH_CUDA)
  if (pinned) {
    gvex_cuda::host_free(p);
    return;
  }
#endif
  (void)pinned;
  free(p);
}

static int device_copy(void* dst, const void* src, unsigned long bytes, int kind) {
#if defined(GVEX_WITH_CUDA)
  if (g_on_gpu) return gvex_cuda::copy(dst, src, bytes, kind);
#endif
  (void)kind;
  if (bytes && dst != src) memmove(dst, src, bytes);
  return 0;
}

int memcpy_H2D(void* dst, const void* src, unsigned long bytes) { return device_copy(dst, src, bytes, 1); }
int memcpy_D2H(void* dst, const void* src, unsigned long bytes) { return device_copy(dst, src, bytes, 2); }
int memcpy_D2D(void* dst, const void* src, unsigned long bytes) { return device_copy(dst, src, bytes, 3); }

// ---- fills ----

void hcuda_empty(void* p, unsigned long bytes) {
  // One byte per thread, so a slab past the launcher's 2^31 elements is
  // cleared a gigabyte at a time rather than in part.
  const unsigned long chunk = 1UL << 30;
  unsigned char* b = static_cast<unsigned char*>(p);
  unsigned long done = 0;
  do {
    const unsigned long n = bytes - done < chunk ? bytes - done : chunk;
    unsigned char* c = b + done;
    launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { c[i] = 0; });
    done += n;
  } while (done < bytes);
}

void hcuda_memset_float(float* p, float value, unsigned long n) {
  launch_1d(GVEX_SITE, n, GVEX_LAMBDA(int i) { p[i] = value; });
}

// ---- checks ----

void gvex_device_error(const char* text, int line, const char* source_path) {
  char buf[512];
  snprintf(buf, sizeof buf, "Error %s at line %d in file %s\n", text, line, gvex_module_name(source_path).c_str());
  gvex_throw(buf, 1, true);
}

void gvex_launch_too_large(const char* source_path, int line, unsigned long nx, unsigned long ny) {
  char text[160];
  snprintf(text, sizeof text, "launch of %lu x %lu elements past the launcher's limit", nx, ny);
  gvex_device_error(text, line, source_path);
}

#if defined(GVEX_WITH_CUDA)
void gvex_check_kernel(const char* source_path, int line) {
  if (g_on_gpu) {
    const char* err = gvex_cuda::sync_error();
    if (err) gvex_device_error(err, line, source_path);
  }
}
#endif

void gvex_check_copy(int code, const char* source_path, int line) {
  if (code == 0) return;
#if defined(GVEX_WITH_CUDA)
  if (g_on_gpu) gvex_device_error(gvex_cuda::error_text(code), line, source_path);
#endif
  gvex_device_error("copy failed", line, source_path);
}

void gvex_check_fft(int result, const char* source_path, int line) {
  if (result != 0) gvex_device_error(cuFFT_GetErrorString(result), line, source_path);
}

const char* cuFFT_GetErrorString(int result) {
  // Indexed by the cuFFT result codes 0..15.
  static const char* const texts[] = {
      "CUFFT_SUCCESS, cuFFT operation was successful",
      "CUFFT_INVALID_PLAN, cuFFT was passed an invalid plan handle",
      "CUFFT_ALLOC_FAILED, cuFFT failed to allocate GPU or CPU memory",
      "CUFFT_INVALID_TYPE",
      "CUFFT_INVALID_VALUE, An invalid pointer or parameter has been specified",
      "CUFFT_INTERNAL_ERROR, Driver or internal cuFFT library error",
      "CUFFT_EXEC_FAILED, Failed to execute an FFT on the GPU",
      "CUFFT_SETUP_FAILED, The cuFFT library failed to initialize",
      "CUFFT_INVALID_SIZE, User specified an invalid transform size",
      "CUFFT_UNALIGNED_DATA",
      "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call",
      "CUFFT_INVALID_DEVICE, Execution of a plan was on different GPU than plan creation",
      "CUFFT_PARSE_ERROR,  Internal plan database error",
      "CUFFT_NO_WORKSPACE, No workspace has been provided prior to plan execution",
      "CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.",
      "CUFFT_LICENSE_ERROR, Used in previous versions.",
  };
  if (result < 0 || result >= (int)(sizeof texts / sizeof texts[0])) return "Unkown error";
  return texts[result];
}
