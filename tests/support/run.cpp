#include "support/run.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string slurp(FILE* f) {
  std::string s;
  rewind(f);
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) s.append(buf, n);
  fclose(f);
  return s;
}

}  // namespace

// The child writes into two unnamed temporary files, read back once it ends:
// no pipe can fill up, whatever the child prints.
RunResult run_argv(const std::vector<std::string>& argv, const RunOptions& opt) {
  RunResult r;
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  if (argv.empty() || !out || !err) return r;
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(fileno(out), 1);
    dup2(fileno(err), 2);
    if (!opt.cwd.empty() && chdir(opt.cwd.c_str()) != 0) _exit(126);
    execvp(args[0], args.data());
    _exit(127);
  }
  int st = 0;
  for (int waited_ms = 0; pid > 0 && waitpid(pid, &st, WNOHANG) == 0; waited_ms += 5) {
    if (waited_ms > opt.timeout_s * 1000) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      r.timed_out = true;
      break;
    }
    usleep(5000);
  }
  r.out = slurp(out);
  r.err = slurp(err);
  if (pid > 0 && !r.timed_out) {
    if (WIFEXITED(st)) r.status = WEXITSTATUS(st);
    if (WIFSIGNALED(st)) r.signal = WTERMSIG(st);
  }
  return r;
}

RunResult run_shell(const std::string& command, const RunOptions& opt) {
  return run_argv({"/bin/sh", "-c", command}, opt);
}

// A relocated build (the GPU bundle) names its root, which holds the build
// tree's layout and the test data, in GVEX_TEST_BUILD_DIR; otherwise the
// paths this build was configured with.
static std::string relocated(const char* sub, const std::string& fallback) {
  const char* v = getenv("GVEX_TEST_BUILD_DIR");
  return v && *v ? std::string(v) + sub : fallback;
}

std::string gvex_bin() { return relocated("/gvexmatch", GVEX_BIN); }
std::string gvex_tools_dir() { return relocated("/tools", GVEX_TOOLS_DIR); }
std::string gvex_relion_bin() { return relocated("/relion/gvexmatch_relion", GVEX_RELION_BIN); }
std::string gvex_source_dir() { return relocated("", GVEX_SOURCE_DIR); }

std::string gvex_report_bin() {
  const std::string bin = GVEX_BIN;
  return relocated("/report/gvexreport", bin.substr(0, bin.rfind('/')) + "/report/gvexreport");
}

std::string gvex_foreign_bin() {
#ifdef GVEX_FOREIGN_BIN
  return relocated("/gvexmatch_foreign", GVEX_FOREIGN_BIN);
#else
  return relocated("/gvexmatch_foreign", "");
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
