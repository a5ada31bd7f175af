// gvexmatch: fully automatic particle picking.
#include <csignal>

#include "common/errors.h"
#include "picker/run.h"

int main(int argc, char** argv) {
  // A file-size limit then fails the write that meets it, with the message
  // of the write path, instead of killing the process silently.
  signal(SIGXFSZ, SIG_IGN);
  return gvex_run_main([&] { return gvexmatch_main(argc, argv); });
}
