#include "io/io_messages.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "common/errors.h"

void io_fatalf(const char* func, const char* module, int line, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list copy;
  va_copy(copy, ap);
  const int len = vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::vector<char> why(len > 0 ? (size_t)len + 1 : 1, '\0');
  if (len > 0) vsnprintf(why.data(), why.size(), fmt, ap);
  va_end(ap);
  gvex_fatal(func, module, line, why.data());
}

const char* io_stream_name(FILE* fp, char* buf, size_t len) {
  const char* unknown = "(unnamed stream)";
  if (fp && len > 1) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fileno(fp));
    const ssize_t n = readlink(link, buf, len - 1);
    if (n > 0) {
      buf[n] = '\0';
      return buf;
    }
  }
  return unknown;
}

void io_write_failed(const char* name, const char* func, const char* module, int line) {
  gvex_throw("Cannot write to file " + std::string(name) + ". Permission denied or no space left!\n" +
             gvex_fatal_line(func, module, line, "write file failed."));
}
