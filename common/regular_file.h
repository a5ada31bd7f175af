// Input files are read only when they are files: opening a FIFO would wait
// for a writer for ever, a device would never end, a folder holds no data.
// These refuse them without blocking and before anything is read or
// allocated from what they would hand out.
#pragma once
#include <cstdio>
#include <string>

// Opens path for reading (links are followed) when it is a regular file.
// Otherwise null, with *kind "a folder", "a FIFO", "a device" or "a socket",
// or "" when the open itself failed (errno set).
FILE* gvex_open_regular(const char* path, const char** kind);

// What stands at path when it is there and not a regular file ("a FIFO",
// "a folder"...); "" for a file, or nothing there.
const char* gvex_not_a_file_kind(const char* path);

// The whole of path into text when it is a regular file. Otherwise false,
// with *kind as gvex_open_regular gives it ("" when it could not be opened
// or read).
bool gvex_read_regular(const std::string& path, std::string& text, const char** kind);

// The fatal line for such an input: "<what> <path> is <kind>, not a file: it
// cannot be read" from func of module at line.
[[noreturn]] void gvex_not_a_file(const char* what, const char* path, const char* kind, const char* func,
                                  const char* module, int line);

// Holds an exclusive advisory lock (flock) on an input file for its scope,
// waiting while another process holds it: two runs on one folder then take
// turns on a micrograph instead of undoing each other's outputs. Without a
// lock to be had (not a file, a file system without locks) it holds nothing.
class InputLock {
 public:
  explicit InputLock(const char* path);
  ~InputLock();
  InputLock(const InputLock&) = delete;
  InputLock& operator=(const InputLock&) = delete;

 private:
  int fd_ = -1;
};

// Where a file's neighbours go: its folder resolved (links, "./", "a/../")
// and its own name. Two names with one place share every file written
// beside them, as "m.mrc" and "./m.mrc" do.
std::string gvex_place_of(const std::string& path);
