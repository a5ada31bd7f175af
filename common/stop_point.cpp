#include "common/stop_point.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

void gvex_test_stop_point(const char* point) {
  static const char* const want = getenv("GVEX_TEST_STOP_AT");
  static int passes = 0;
  if (!want) return;
  const char* colon = strrchr(want, ':');
  const size_t len = colon ? (size_t)(colon - want) : strlen(want);
  if (strlen(point) != len || strncmp(point, want, len) != 0) return;
  if (++passes >= (colon ? atoi(colon + 1) : 1)) kill(getpid(), SIGKILL);
}
