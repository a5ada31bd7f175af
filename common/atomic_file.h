// Output files are written under "<name>.part" beside the final name and
// renamed into place once complete, so that a run killed at any moment never
// leaves a final file that looks finished, and a file of an earlier run is
// replaced only by a complete new one.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

std::string gvex_part_name(const char* name);

// One file written under "<name>.part". commit() closes it and renames it to
// name; an object that goes away uncommitted (a failure unwinding through
// its writer) removes the partial file.
class PartFile {
 public:
  PartFile(const char* name, const char* mode);
  ~PartFile();
  PartFile(const PartFile&) = delete;
  PartFile& operator=(const PartFile&) = delete;
  FILE* fp() const { return fp_; }  // null when the file could not be created
  // Closes the stream; false when any write or the close failed (the
  // partial file is then removed).
  bool close();
  // close() and the rename; false, with nothing left behind, on any failure.
  bool commit();

 private:
  std::string name_, part_;
  FILE* fp_ = nullptr;
  bool done_ = false;
};

// Several finished "<name>.part" files renamed into place as one commit. A
// marker listing them is made first and stays until the caller's last
// output is final (gvex_end_commit), so that a run killed in between is
// undone by gvex_undo_commit before anyone looks for the files. Returns ""
// on success; otherwise the name that could not be written, after removing
// every file of this commit (partial or renamed) and the marker.
std::string gvex_commit_together(const std::vector<std::string>& names, const std::string& marker);
void gvex_end_commit(const std::string& marker);

// Removes what an unfinished commit left (its files, their partial files and
// the marker); nothing happens without a marker.
void gvex_undo_commit(const std::string& marker);
