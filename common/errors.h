// The system's uniform failure lines. Every fatal path prints one line and
// ends the process with status 1; warnings print and let the caller return -1.
#pragma once

// "Error in function %s(), file %s on line %d: %s! Exit now!\n", exit(1).
[[noreturn]] void gvex_fatal(const char* func, const char* module, int line, const char* why);

// "Warning in function %s(), file %s on line %d: %s!\n"; returns -1.
int gvex_warning(const char* func, const char* module, int line, const char* why);

// "Cannot open file %s. Permission denied or wrong file name.\n" + fatal "open file failed."
[[noreturn]] void gvex_open_read_failed(const char* name, const char* func, const char* module, int line);

// "Cannot write to file %s. Permission denied or no space left!\n" + fatal "open file failed."
[[noreturn]] void gvex_open_write_failed(const char* name, const char* func, const char* module, int line);

// Module name of a source path: "/a/b/mrcfile.cpp" -> "mrcfile".
const char* gvex_module_of(const char* path, char* buf, int len);

// ANSI highlighting of critical warnings.
#define GVEX_CRIT_ON "\033[41m\033[1m\033[5m"
#define GVEX_CRIT_OFF "\033[m"
#define GVEX_BOLD "\033[1m"
