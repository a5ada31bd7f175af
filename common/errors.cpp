#include "common/errors.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

void gvex_fatal(const char* func, const char* module, int line, const char* why) {
  printf("Error in function %s(), file %s on line %d: %s! Exit now!\n", func, module, line, why);
  fflush(stdout);
  exit(1);
}

int gvex_warning(const char* func, const char* module, int line, const char* why) {
  printf("Warning in function %s(), file %s on line %d: %s!\n", func, module, line, why);
  fflush(stdout);
  return -1;
}

void gvex_open_read_failed(const char* name, const char* func, const char* module, int line) {
  printf("Cannot open file %s. Permission denied or wrong file name.\n", name);
  gvex_fatal(func, module, line, "open file failed.");
}

void gvex_open_write_failed(const char* name, const char* func, const char* module, int line) {
  printf("Cannot write to file %s. Permission denied or no space left!\n", name);
  gvex_fatal(func, module, line, "open file failed.");
}

const char* gvex_module_of(const char* path, char* buf, int len) {
  const char* base = strrchr(path, '/');
  base = base ? base + 1 : path;
  int n = 0;
  while (base[n] && base[n] != '.' && n < len - 1) {
    buf[n] = base[n];
    n++;
  }
  buf[n] = 0;
  return buf;
}
