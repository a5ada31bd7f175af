// Ownership of C resources, so that a failure thrown through a reader closes
// its file and frees its buffers.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <memory>

struct GvexFileCloser {
  void operator()(FILE* fp) const {
    if (fp) fclose(fp);
  }
};
using OwnedFile = std::unique_ptr<FILE, GvexFileCloser>;

struct GvexFree {
  void operator()(void* p) const { free(p); }
};
template <class T>
using Owned = std::unique_ptr<T, GvexFree>;
