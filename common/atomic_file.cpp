#include "common/atomic_file.h"

#include <cstdio>

std::string gvex_part_name(const char* name) { return std::string(name) + ".part"; }

FILE* gvex_fopen_part(const char* name, const char* mode) { return fopen(gvex_part_name(name).c_str(), mode); }

int gvex_commit_part(FILE* fp, const char* name) {
  const std::string part = gvex_part_name(name);
  const bool bad = ferror(fp) != 0;
  if (fclose(fp) != 0 || bad || rename(part.c_str(), name) != 0) {
    remove(part.c_str());
    return -1;
  }
  return 0;
}
