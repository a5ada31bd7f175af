#include "common/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/stop_point.h"

std::string gvex_part_name(const char* name) { return std::string(name) + ".part"; }

namespace {

// Removes a file or link at path; a folder or anything else stays.
bool remove_entry(const char* path) {
  struct stat st;
  if (lstat(path, &st) != 0) return errno == ENOENT;
  if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) return false;
  return unlink(path) == 0 || errno == ENOENT;
}

}  // namespace

FILE* gvex_create_new(const char* path, const char* mode) {
  const bool rw = strchr(mode, '+') != nullptr;
  const int flags = (rw ? O_RDWR : O_WRONLY) | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = open(path, flags, 0666);
  // What an earlier run (or someone else) left there goes, once; a second
  // collision means someone is racing us for the name: give up.
  if (fd < 0 && errno == EEXIST) {
    if (!remove_entry(path)) {
      errno = EEXIST;
      return nullptr;
    }
    fd = open(path, flags, 0666);
  }
  if (fd < 0) return nullptr;
  FILE* fp = fdopen(fd, rw ? "w+" : "w");
  if (!fp) {
    const int e = errno;
    close(fd);
    unlink(path);
    errno = e;
  }
  return fp;
}

PartFile::PartFile(const char* name, const char* mode) : name_(name), part_(gvex_part_name(name)) {
  fp_ = gvex_create_new(part_.c_str(), mode);
  if (!fp_) done_ = true;  // nothing of ours to remove
}

PartFile::~PartFile() {
  if (done_) return;
  if (fp_) fclose(fp_);
  unlink(part_.c_str());
}

bool PartFile::close() {
  if (!fp_) return false;
  const bool bad = ferror(fp_) != 0;
  const bool closed = fclose(fp_) == 0;
  fp_ = nullptr;
  if (bad || !closed) {
    unlink(part_.c_str());
    done_ = true;
    return false;
  }
  return true;
}

bool PartFile::commit() {
  if (!close()) return false;
  done_ = true;
  // rename replaces a link at the final name, never what it points to.
  if (rename(part_.c_str(), name_.c_str()) != 0) {
    unlink(part_.c_str());
    return false;
  }
  return true;
}

std::string gvex_commit_together(const std::vector<std::string>& names, const std::string& marker) {
  PartFile m(marker.c_str(), "w");
  if (!m.fp() || !m.commit()) {
    for (const std::string& n : names) unlink(gvex_part_name(n.c_str()).c_str());
    return marker;
  }
  for (const std::string& n : names) {
    gvex_test_stop_point("commit");
    if (rename(gvex_part_name(n.c_str()).c_str(), n.c_str()) != 0) {
      gvex_undo_commit(marker, names);
      return n;
    }
  }
  return "";
}

void gvex_end_commit(const std::string& marker) { remove_entry(marker.c_str()); }

void gvex_undo_commit(const std::string& marker, const std::vector<std::string>& names) {
  struct stat st;
  if (lstat(marker.c_str(), &st) != 0) return;
  for (const std::string& n : names) {
    remove_entry(n.c_str());
    remove_entry(gvex_part_name(n.c_str()).c_str());
  }
  remove_entry(marker.c_str());
}
