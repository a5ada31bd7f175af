// The next micrograph's pixels, read (and shrunk to the working image) on a
// host thread while the current one is picked. It only produces pixels: it
// prints nothing and fails nowhere. The run still opens, checks and
// announces every micrograph itself at the usual moment, and reads the file
// the usual way whenever a prefetch cannot be used, so every message, exit
// status and output stays what it was.
#pragma once
#include <sys/stat.h>

#include <string>
#include <thread>

#include "gpu/device.h"
#include "io/mrcfile.h"

class MicPrefetch {
 public:
  // Micrographs of the reference's size and mode, shrunk by shrink (>= 1;
  // anything else is left to the run) to the ext x ext working image.
  // threads: host threads the shrink may use (the cores the picking of the
  // current micrograph leaves free). float16: mode 12 is read too.
  MicPrefetch(const MRC_HEAD& ref, int shrink, int ext, int threads = 1, bool float16 = false);
  ~MicPrefetch();  // waits for a read in flight
  MicPrefetch(const MicPrefetch&) = delete;
  MicPrefetch& operator=(const MicPrefetch&) = delete;

  // Starts reading plane 0 of path, once any earlier read has ended;
  // nothing when that read was this one and is not yet taken. Without a
  // thread to run it on, nothing is read.
  void start(const std::string& path);

  // For micrograph path, waits for its read (another micrograph's read is
  // left alone, for that one's turn). True when there was one, it
  // succeeded, and fp (open on that micrograph, its header in head) is still
  // the file that was read: same device, inode, size, modification and
  // change times, same header. raw and shrunk (nx*ny and ext*ext) then
  // trade places with the prefetched buffers. Each read is taken once.
  bool take(const std::string& path, FILE* fp, const MRC_HEAD& head, HostBuffer<float>& raw,
            HostBuffer<float>& shrunk);

  // Returns once no read is in flight.
  void wait();

 private:
  void read_now();  // the thread's body

  MRC_HEAD ref_;
  int shrink_;
  [[maybe_unused]] int threads_;  // the read's OpenMP threads (OpenMP builds)
  bool float16_;
  HostBuffer<float> raw_, shrunk_;
  std::thread thread_;
  // Set before the thread starts or by the thread; read after the join.
  bool pending_ = false;  // a read of path_ not yet taken
  std::string path_;
  bool ok_ = false;
  MRC_HEAD head_;
  struct stat st_;
};
