// Background read of the next micrograph (see prefetch.h).
#include "picker/prefetch.h"

#include <cstring>
#include <system_error>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "common/host_image.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "gpu/resample.h"

MicPrefetch::MicPrefetch(const MRC_HEAD& ref, int shrink, int ext, int threads, bool float16)
    : ref_(ref),
      shrink_(shrink),
      threads_(threads > 0 ? threads : 1),
      float16_(float16),
      raw_((unsigned long)ref.nx * ref.ny),
      shrunk_((unsigned long)ext * ext) {}

MicPrefetch::~MicPrefetch() { wait(); }

void MicPrefetch::wait() {
  if (thread_.joinable()) thread_.join();
}

void MicPrefetch::start(const std::string& path) {
  if (pending_ && path_ == path) return;  // read or being read, not yet taken
  wait();
  pending_ = true;
  ok_ = false;
  try {
    path_ = path;
    thread_ = std::thread(&MicPrefetch::read_now, this);
  } catch (const std::exception&) {  // no thread (or no memory): the run reads it itself
    pending_ = false;
  }
}

static bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

void MicPrefetch::read_now() {
#if defined(_OPENMP)
  // Background work: the shrink's loops take only the cores the picking
  // leaves free (on the host back end none: it stays on this thread).
  omp_set_num_threads(threads_);
#endif
  if (shrink_ < 1) return;  // the shrink would complain, and that is the run's to say
  try {
    const char* kind = "";
    OwnedFile fp(gvex_open_regular(path_.c_str(), &kind));  // never waits on a FIFO
    struct stat before, after;
    if (!fp || fstat(fileno(fp.get()), &before) != 0) return;
    // The readers only throw here: what they would say is the run's to say.
    mrc_read_head(fp.get(), &head_);
    if (head_.nx != ref_.nx || head_.ny != ref_.ny || head_.nz != ref_.nz || head_.mode != ref_.mode ||
        !mrc_mode_is_readable(head_.mode, float16_))
      return;
    mrc_read_slice(fp.get(), &head_, 0, 'z', raw_.data(), float16_);
    if (fstat(fileno(fp.get()), &after) != 0 || !same_file(before, after)) return;
    cpu_2d_meanshrink_extended_even_square(shrunk_.data(), raw_.data(), ref_.nx, ref_.ny, shrink_);
    st_ = after;
    ok_ = true;
  } catch (...) {
    ok_ = false;
  }
}

bool MicPrefetch::take(const std::string& path, FILE* fp, const MRC_HEAD& head, HostBuffer<float>& raw,
                       HostBuffer<float>& shrunk) {
  if (!pending_ || path_ != path) return false;  // another micrograph's read stays for its turn
  wait();
  const bool ok = ok_;
  ok_ = false;
  pending_ = false;
  struct stat now;
  if (!ok || fstat(fileno(fp), &now) != 0 || !same_file(now, st_) || memcmp(&head, &head_, sizeof head) != 0)
    return false;
  if (raw.size() != raw_.size() || shrunk.size() != shrunk_.size()) return false;
  raw.swap(raw_);
  shrunk.swap(shrunk_);
  return true;
}
