// Runs a piece of code in a forked child and captures what it prints and how
// it ends, so that tests can check the exact fatal lines and exit statuses
// of library functions that end the process.
#pragma once
#include <functional>
#include <string>

struct ChildOutcome {
  bool exited = false;  // ended through exit(), not a signal
  int status = -1;      // exit status when exited
  std::string out;      // standard output and standard error together
};

// fn runs in the child; returning from it counts as exit status 0.
ChildOutcome run_in_child(const std::function<void()>& fn);
