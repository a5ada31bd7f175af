// gvexmatch: fully automatic particle picking.
#include "common/errors.h"
#include "picker/run.h"

int main(int argc, char** argv) {
  return gvex_run_main([&] { return gvexmatch_main(argc, argv); });
}
