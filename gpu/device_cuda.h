// CUDA twins of the device layer (gpu/device.cu); called only from
// gpu/device.cpp when the CUDA back end is active.
#pragma once
#if defined(GVEX_WITH_CUDA)
namespace gvex_cuda {
int device_count();                                // 0 when no GPU answers
bool device_props(int id, int& major, int& minor);  // properties readable
void set_device(int id);
const char* device_name(int id);
int malloc_bytes(void** p, unsigned long bytes);  // platform error code
void free_bytes(void* p);
int copy(void* dst, const void* src, unsigned long bytes, int kind);  // 1 H2D, 2 D2H, 3 D2D
int mem_info(unsigned long& free_b, unsigned long& total_b, const char** err);
const char* sync_error();  // null when the device is fine
}  // namespace gvex_cuda
#endif
