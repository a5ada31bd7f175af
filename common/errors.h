// The one failure path. Every refused input and failed operation throws a
// GvexFailure carrying exactly the lines the program prints before it ends;
// main() prints them and returns the status. Library callers that want to go
// on (fuzz targets, tests, companions) catch it in-process.
#pragma once
#include <exception>
#include <new>
#include <string>

struct GvexFailure : std::exception {
  std::string text;        // what the program prints, newlines included
  int status = 1;          // exit status of the program
  bool to_stderr = false;  // device failures go to standard error
  const char* what() const noexcept override { return text.c_str(); }
};

[[noreturn]] void gvex_throw(std::string text, int status = 1, bool to_stderr = false);

// A failure's text as one line for a companion's own messages: the
// terminal highlighting dropped, lines and runs of blanks joined.
std::string gvex_failure_line(const std::string& text);

// Prints a failure where it belongs and returns its exit status.
int gvex_report_failure(const GvexFailure& f);

// The size of the last large allocation asked for, for the message that
// says memory ran out (allocators note it before asking).
void gvex_note_request(unsigned long bytes);
unsigned long gvex_last_request();
// "Error in function %s(), file %s on line %d: out of memory <while> (N
// bytes asked for)! Exit now!\n", status 1.
GvexFailure gvex_out_of_memory(const char* func, const char* module, int line, const std::string& during);

// Runs a program body, turning a failure into its printed lines and status;
// memory that runs out where no caller said what it was for still ends
// with a line and status 1, not an abort.
template <class F>
int gvex_run_main(F&& body) {
  try {
    return body();
  } catch (const GvexFailure& f) {
    return gvex_report_failure(f);
  } catch (const std::bad_alloc&) {
    return gvex_report_failure(gvex_out_of_memory("main", "gvexmatch56", 0, "in the run"));
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
