// Output files are written under "<name>.part" beside the final name and
// renamed into place once complete, so that a run killed at any moment never
// leaves a final file that looks finished, and a file of an earlier run is
// replaced only by a complete new one. Every file is created new: never
// through a symbolic link someone left at its name, so that a run in a
// shared folder writes only its own files.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

std::string gvex_part_name(const char* name);

// Creates path as a new file for writing (mode "w" or "w+"), never through
// a link: a link or plain file already at path is removed first (the entry,
// not what a link points to); anything else there (a folder, a FIFO) is left
// alone and the call fails. Null on failure, with errno set.
FILE* gvex_create_new(const char* path, const char* mode);

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

// Several finished "<name>.part" files renamed into place as one commit. An
// empty marker file is made first and stays until the caller's last output
// is final (gvex_end_commit), so that a run killed in between is undone by
// gvex_undo_commit before anyone looks for the files. Returns "" on success;
// otherwise the name that could not be written, after removing every file
// of this commit (partial or renamed) and the marker.
std::string gvex_commit_together(const std::vector<std::string>& names, const std::string& marker);
void gvex_end_commit(const std::string& marker);

// When the marker of an unfinished commit exists: removes the commit's
// files (names, derived by the caller from what it commits, never read from
// the marker), their partial files, and the marker. Only files and links
// are removed, never a folder. Nothing happens without a marker.
void gvex_undo_commit(const std::string& marker, const std::vector<std::string>& names);
