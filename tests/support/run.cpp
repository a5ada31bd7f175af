#include "support/run.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

double now_s() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

void close_fd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

}  // namespace

RunResult run_argv(const std::vector<std::string>& argv, const RunOptions& opt) {
  RunResult r;
  if (argv.empty()) return r;
  int out_p[2], err_p[2], in_p[2];
  if (pipe(out_p) != 0) return r;
  if (pipe(err_p) != 0) {
    close(out_p[0]);
    close(out_p[1]);
    return r;
  }
  if (pipe(in_p) != 0) {
    close(out_p[0]);
    close(out_p[1]);
    close(err_p[0]);
    close(err_p[1]);
    return r;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  // A child that exits before reading its input must not kill the test.
  signal(SIGPIPE, SIG_IGN);
  pid_t pid = fork();
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(in_p[0], 0);
    dup2(out_p[1], 1);
    dup2(err_p[1], 2);
    close(in_p[0]);
    close(in_p[1]);
    close(out_p[0]);
    close(out_p[1]);
    close(err_p[0]);
    close(err_p[1]);
    if (!opt.cwd.empty() && chdir(opt.cwd.c_str()) != 0) _exit(126);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(in_p[0]);
  close(out_p[1]);
  close(err_p[1]);
  int fd_in = in_p[1], fd_out = out_p[0], fd_err = err_p[0];
  if (pid < 0) {
    close_fd(fd_in);
    close_fd(fd_out);
    close_fd(fd_err);
    return r;
  }
  // Feed the input without blocking; a child that does not read it must not
  // stall the test.
  fcntl(fd_in, F_SETFL, O_NONBLOCK);
  size_t fed = 0;
  if (opt.input.empty()) close_fd(fd_in);

  const double deadline = now_s() + opt.timeout_s;
  char buf[65536];
  while (fd_out >= 0 || fd_err >= 0) {
    struct pollfd fds[3];
    int n = 0, i_out = -1, i_err = -1, i_in = -1;
    if (fd_out >= 0) fds[i_out = n++] = {fd_out, POLLIN, 0};
    if (fd_err >= 0) fds[i_err = n++] = {fd_err, POLLIN, 0};
    if (fd_in >= 0) fds[i_in = n++] = {fd_in, POLLOUT, 0};
    double left = deadline - now_s();
    if (left <= 0) {
      kill(pid, SIGKILL);
      r.timed_out = true;
      break;
    }
    int rc = poll(fds, n, (int)(left * 1000) + 1);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0) break;
    auto drain = [&](int idx, int& fd, std::string& into) {
      if (idx < 0 || !(fds[idx].revents & (POLLIN | POLLHUP | POLLERR))) return;
      ssize_t got = read(fd, buf, sizeof buf);
      if (got > 0)
        into.append(buf, (size_t)got);
      else if (got == 0 || errno != EINTR)
        close_fd(fd);
    };
    drain(i_out, fd_out, r.out);
    drain(i_err, fd_err, r.err);
    if (i_in >= 0 && (fds[i_in].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t put = write(fd_in, opt.input.data() + fed, opt.input.size() - fed);
      if (put > 0) fed += (size_t)put;
      if (put < 0 && errno != EAGAIN && errno != EINTR) close_fd(fd_in);
      if (fed >= opt.input.size()) close_fd(fd_in);
    }
  }
  close_fd(fd_in);
  close_fd(fd_out);
  close_fd(fd_err);

  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(st))
    r.status = WEXITSTATUS(st);
  else if (WIFSIGNALED(st))
    r.signal = WTERMSIG(st);
  return r;
}

RunResult run_shell(const std::string& command, const RunOptions& opt) {
  return run_argv({"/bin/sh", "-c", command}, opt);
}

std::string gvex_bin() {
#ifdef GVEX_BIN
  return GVEX_BIN;
#else
  return "gvexmatch";
#endif
}

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/gvex_test_XXXXXX";
  std::vector<char> name(templ.begin(), templ.end());
  name.push_back(0);
  if (mkdtemp(name.data())) path_ = name.data();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  run_argv({"rm", "-rf", path_});
}

bool write_text_file(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
  return (bool)f;
}

std::string read_text_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}
