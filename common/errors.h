// The one failure path. Every refused input and failed operation throws a
// GvexFailure carrying exactly the lines the program prints before it ends;
// main() prints them and returns the status. Library callers that want to go
// on (fuzz targets, tests, companions) catch it in-process.
#pragma once
#include <exception>
#include <string>

struct GvexFailure : std::exception {
  std::string text;        // what the program prints, newlines included
  int status = 1;          // exit status of the program
  bool to_stderr = false;  // device failures go to standard error
  const char* what() const noexcept override { return text.c_str(); }
};

[[noreturn]] void gvex_throw(std::string text, int status = 1, bool to_stderr = false);

// Prints a failure where it belongs and returns its exit status.
int gvex_report_failure(const GvexFailure& f);

// Runs a program body, turning a failure into its printed lines and status.
template <class F>
int gvex_run_main(F&& body) {
  try {
    return body();
  } catch (const GvexFailure& f) {
    return gvex_report_failure(f);
  }
}

// "Error in function %s(), file %s on line %d: %s! Exit now!\n", status 1.
std::string gvex_fatal_line(const char* func, const char* module, int line, const char* why);
[[noreturn]] void gvex_fatal(const char* func, const char* module, int line, const char* why);
// The same with the function and line of the call site filled in; each
// source file names its module once as `gvex_module`.
#define GVEX_FAIL(why) gvex_fatal(__func__, gvex_module, __LINE__, (why))

// "Warning in function %s(), file %s on line %d: %s!\n"; returns -1.
int gvex_warning(const char* func, const char* module, int line, const char* why);

// "Cannot open file %s. Permission denied or wrong file name.\n" + fatal "open file failed."
[[noreturn]] void gvex_open_read_failed(const char* name, const char* func, const char* module, int line);

// "Cannot write to file %s. Permission denied or no space left!\n" + fatal "open file failed."
[[noreturn]] void gvex_open_write_failed(const char* name, const char* func, const char* module, int line);

// Module name of a source path: "/a/b/mrcfile.cpp" -> "mrcfile".
std::string gvex_module_name(const char* path);

// ANSI highlighting of critical warnings.
#define GVEX_CRIT_ON "\033[41m\033[1m\033[5m"
#define GVEX_CRIT_OFF "\033[m"
#define GVEX_BOLD "\033[1m"
