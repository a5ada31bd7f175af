#include "picker/timer.h"

#include <cstdio>
#include <sys/time.h>

#include "common/errors.h"

static double g_start[GVEX_TIMER_DEPTH];
static int g_depth = 0;
static bool g_full_reported = false;

double gvex_wall_seconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return (double)tv.tv_sec + (double)tv.tv_usec / 1000000.0;
}

void gvex_timer_push() {
  double now = gvex_wall_seconds();
  if (g_depth < GVEX_TIMER_DEPTH) {
    g_start[g_depth++] = now;
    return;
  }
  // Full: keeping the newest start on top preserves what a later pop is
  // meant to measure (time since the most recent start).
  if (!g_full_reported) {
    g_full_reported = true;
    gvex_warning("gvex_timer_push", "timer", __LINE__,
                 "stage timer stack is full (1000 entries), the newest start time replaces the top entry");
  }
  g_start[g_depth - 1] = now;
}

double gvex_timer_pop(const char* stage) {
  if (g_depth <= 0) {
    char why[160];
    snprintf(why, sizeof why, "stage timer stack is empty, no time for stage %.64s", stage ? stage : "");
    gvex_warning("gvex_timer_pop", "timer", __LINE__, why);
    return -1.0;
  }
  double dt = gvex_wall_seconds() - g_start[--g_depth];
  printf(">>>>>>TIME<<<<<<%32s: %fs\n", stage ? stage : "", dt);
  return dt;
}

int gvex_timer_depth() { return g_depth; }

void gvex_timer_truncate(int depth) {
  if (depth < 0) depth = 0;
  if (depth < g_depth) g_depth = depth;
  if (g_depth == 0) g_full_reported = false;
}
