#include "common/atomic_file.h"

#include "common/stop_point.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

std::string gvex_part_name(const char* name) { return std::string(name) + ".part"; }

PartFile::PartFile(const char* name, const char* mode) : name_(name), part_(gvex_part_name(name)) {
  fp_ = fopen(part_.c_str(), mode);
}

PartFile::~PartFile() {
  if (done_) return;
  if (fp_) fclose(fp_);
  remove(part_.c_str());
}

bool PartFile::close() {
  if (!fp_) return false;
  const bool bad = ferror(fp_) != 0;
  const bool closed = fclose(fp_) == 0;
  fp_ = nullptr;
  if (bad || !closed) {
    remove(part_.c_str());
    done_ = true;
    return false;
  }
  return true;
}

bool PartFile::commit() {
  if (!close()) return false;
  done_ = true;
  if (rename(part_.c_str(), name_.c_str()) != 0) {
    remove(part_.c_str());
    return false;
  }
  return true;
}

std::string gvex_commit_together(const std::vector<std::string>& names, const std::string& marker) {
  PartFile m(marker.c_str(), "w");
  bool ok = m.fp() != nullptr;
  for (const std::string& n : names)
    if (ok) ok = fprintf(m.fp(), "%s\n", n.c_str()) > 0;
  if (!ok || !m.commit()) {
    for (const std::string& n : names) remove(gvex_part_name(n.c_str()).c_str());
    return marker;
  }
  for (const std::string& n : names) {
    gvex_test_stop_point("commit");
    if (rename(gvex_part_name(n.c_str()).c_str(), n.c_str()) != 0) {
      gvex_undo_commit(marker);
      return n;
    }
  }
  return "";
}

void gvex_end_commit(const std::string& marker) { remove(marker.c_str()); }

void gvex_undo_commit(const std::string& marker) {
  FILE* fp = fopen(marker.c_str(), "r");
  if (!fp) return;
  char* line = nullptr;
  size_t cap = 0;
  ssize_t len;
  while ((len = getline(&line, &cap, fp)) > 0) {
    if (line[len - 1] == '\n') line[len - 1] = '\0';
    // Only plain files: a folder of that name is the user's, never ours.
    struct stat st;
    if (stat(line, &st) == 0 && S_ISREG(st.st_mode)) remove(line);
    remove(gvex_part_name(line).c_str());
  }
  free(line);
  fclose(fp);
  remove(marker.c_str());
}
