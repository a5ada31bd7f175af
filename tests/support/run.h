// Runs a command as a child process and captures what it prints, for
// end-to-end tests of the built program.
#pragma once
#include <string>
#include <vector>

struct RunResult {
  std::string out;        // everything written to standard output
  std::string err;        // everything written to standard error
  int status = -1;        // exit status when the child exited normally
  int signal = 0;         // the signal that ended it, 0 when it exited
  bool timed_out = false; // killed after the time limit
  bool exited() const { return signal == 0 && !timed_out && status >= 0; }
};

struct RunOptions {
  std::string cwd;         // working directory of the child; empty: inherit
  double timeout_s = 300;  // the child is killed after this many seconds
};

// Executes argv[0] with the given arguments (no shell; argv[0] is looked up
// in PATH when it has no '/').
RunResult run_argv(const std::vector<std::string>& argv, const RunOptions& opt = RunOptions());

// Runs a command line through /bin/sh -c.
RunResult run_shell(const std::string& command, const RunOptions& opt = RunOptions());

// Paths of the built programs and of the source tree's test data; a
// relocated build (the GPU bundle) names its root in GVEX_TEST_BUILD_DIR.
std::string gvex_bin();
std::string gvex_tools_dir();
std::string gvex_relion_bin();  // the RELION External-job companion
std::string gvex_source_dir();
std::string gvex_report_bin();
// The picker whose launcher is built for other architectures only (empty
// when this build has none).
std::string gvex_foreign_bin();

// A fresh empty directory under the system's temporary folder, removed with
// everything in it when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Small file helpers for tests.
bool write_text_file(const std::string& path, const std::string& text);
std::string read_text_file(const std::string& path);  // empty when unreadable
bool file_exists(const std::string& path);
