#include "support/in_child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

ChildOutcome run_in_child(const std::function<void()>& fn) {
  ChildOutcome r;
  fflush(stdout);
  fflush(stderr);
  int p[2];
  if (pipe(p) != 0) return r;
  const pid_t pid = fork();
  if (pid < 0) {
    close(p[0]);
    close(p[1]);
    return r;
  }
  if (pid == 0) {
    close(p[0]);
    dup2(p[1], 1);
    dup2(p[1], 2);
    close(p[1]);
    fn();
    fflush(stdout);
    fflush(stderr);
    _exit(0);
  }
  close(p[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(p[0], buf, sizeof buf)) > 0) r.out.append(buf, (size_t)n);
  close(p[0]);
  int st = 0;
  if (waitpid(pid, &st, 0) == pid && WIFEXITED(st)) {
    r.exited = true;
    r.status = WEXITSTATUS(st);
  }
  return r;
}
