#include "common/redirect.h"

#include <fcntl.h>
#include <unistd.h>

StdoutRedirect::StdoutRedirect(FILE* to, bool on) {
  if (!on) return;
  fflush(stdout);
  saved_ = dup(1);
  if (to) {
    fflush(to);
    dup2(fileno(to), 1);
  } else {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      close(null);
    }
  }
}

StdoutRedirect::~StdoutRedirect() {
  if (saved_ < 0) return;
  fflush(stdout);
  dup2(saved_, 1);
  close(saved_);
}
