// Shared by the fuzz targets: the input goes to a scratch file (the readers
// take file names), the program's chatter to /dev/null, and a refused input
// is caught here, as main would catch it, so the target goes on.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "common/errors.h"

namespace fuzz {

// A scratch path of this process with the given ending, in memory where
// the machine has /dev/shm: rewriting a file on disk per input slows a
// target many times over.
// The scratch files are removed when the target ends.
inline std::set<std::string>& scratch_files() {
  static std::set<std::string>* files = new std::set<std::string>;
  return *files;
}

// GVEX_FUZZ_SCRATCH names the folder when set (tools/fuzz.sh gives each run
// its own, so leftovers of a killed run elsewhere are not counted as ours).
inline std::string scratch_dir() {
  const char* set = getenv("GVEX_FUZZ_SCRATCH");
  if (set && *set) return set;
  return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
}

inline std::string scratch(const char* ending) {
  static const std::string dir = scratch_dir();
  static const bool registered = atexit([] {
    for (const std::string& f : scratch_files()) unlink(f.c_str());
  }) == 0;
  (void)registered;
  const std::string path = dir + "/gvex_fuzz_" + std::to_string(getpid()) + ending;
  scratch_files().insert(path);
  return path;
}

inline std::string write_scratch(const uint8_t* data, size_t size, const char* ending) {
  const std::string path = scratch(ending);
  FILE* fp = fopen(path.c_str(), "wb");
  if (fp) {
    if (size) fwrite(data, 1, size, fp);
    fclose(fp);
  }
  return path;
}

// Runs f; a refusal through the failure path is an expected outcome.
template <class F>
void refused_or_done(F&& f) {
  try {
    f();
  } catch (const GvexFailure&) {
  }
}

}  // namespace fuzz

// libFuzzer's start-up hook, the same for every target; each target is one
// file, so it is defined once per program.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, 1);
  return 0;
}
