// Standard output sent elsewhere for a scope: the picking session prints
// gvexmatch's lines, which a companion quiets (to /dev/null) or keeps in a
// log of its own.
#pragma once
#include <cstdio>

class StdoutRedirect {
 public:
  // to: where standard output goes; null for /dev/null. on = false: nothing
  // is redirected (a rank that prints).
  explicit StdoutRedirect(FILE* to = nullptr, bool on = true);
  ~StdoutRedirect();
  StdoutRedirect(const StdoutRedirect&) = delete;
  StdoutRedirect& operator=(const StdoutRedirect&) = delete;

 private:
  int saved_ = -1;
};
