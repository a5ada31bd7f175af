#include "common/regular_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "common/errors.h"

namespace {

const char* kind_of(mode_t m) {
  if (S_ISDIR(m)) return "a folder";
  if (S_ISFIFO(m)) return "a FIFO";
  if (S_ISCHR(m) || S_ISBLK(m)) return "a device";
  if (S_ISSOCK(m)) return "a socket";
  return "not a regular file";
}

// A descriptor for reading, without waiting on a FIFO or a terminal.
int open_nonblocking(const char* path) { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }

}  // namespace

FILE* gvex_open_regular(const char* path, const char** kind) {
  *kind = "";
  const int fd = open_nonblocking(path);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fstat(fd, &st) == 0) *kind = kind_of(st.st_mode);
    close(fd);
    errno = EINVAL;
    return nullptr;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  FILE* fp = fdopen(fd, "r");
  if (!fp) close(fd);
  return fp;
}

const char* gvex_not_a_file_kind(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && !S_ISREG(st.st_mode) ? kind_of(st.st_mode) : "";
}

bool gvex_read_regular(const std::string& path, std::string& text, const char** kind) {
  text.clear();
  FILE* fp = gvex_open_regular(path.c_str(), kind);
  if (!fp) return false;
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof buf, fp)) > 0;) text.append(buf, n);
  const bool ok = !ferror(fp);
  fclose(fp);
  return ok;
}

void gvex_not_a_file(const char* what, const char* path, const char* kind, const char* func, const char* module,
                     int line) {
  const std::string why = std::string(what) + " " + path + " is " + kind + ", not a file: it cannot be read";
  gvex_fatal(func, module, line, why.c_str());
}

InputLock::InputLock(const char* path) {
  fd_ = open_nonblocking(path);
  if (fd_ < 0) return;
  struct stat st;
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd_);
    fd_ = -1;
    return;
  }
  while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
  }
}

InputLock::~InputLock() {
  if (fd_ >= 0) close(fd_);  // releases the lock
}

std::string gvex_place_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  char* real = realpath(dir.c_str(), nullptr);
  const std::string place = (real ? std::string(real) : dir) + "/" + path.substr(slash + 1);
  free(real);
  return place;
}
