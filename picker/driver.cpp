// Run driver (placeholder until the command-line front end lands).
#include <cstdio>

#include "gpu/device.h"

int gvexmatch_main(int argc, char** argv) {
  int gid = 0;
  check_and_set_gid(gid);
  fputs(gvex_device_activate(gid), stdout);
  return 0;
}
