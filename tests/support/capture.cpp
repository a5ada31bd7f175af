#include "support/capture.h"

#include <unistd.h>

#include <cstdio>

#include "common/errors.h"

Captured capture_run(const std::function<void()>& fn) {
  Captured r;
  fflush(stdout);
  fflush(stderr);
  FILE* sink = tmpfile();
  if (!sink) return r;
  const int out_fd = dup(1), err_fd = dup(2);
  dup2(fileno(sink), 1);
  dup2(fileno(sink), 2);
  try {
    fn();
  } catch (const GvexFailure& f) {
    r.failed = true;
    r.status = gvex_report_failure(f);
  }
  fflush(stdout);
  fflush(stderr);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  close(out_fd);
  close(err_fd);
  rewind(sink);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, sink)) > 0) r.out.append(buf, n);
  fclose(sink);
  return r;
}
