// Small helpers shared by the file modules: fatal lines with a formatted
// reason, and the name of the file behind an open stream for messages.
#pragma once
#include <cstddef>
#include <cstdio>

// The standard fatal line with a printf-formatted reason; exit status 1.
[[noreturn]] void io_fatalf(const char* func, const char* module, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The path of the file that fp reads or writes, or "(unnamed stream)" when
// the system cannot tell. buf holds len bytes.
const char* io_stream_name(FILE* fp, char* buf, size_t len);

// "Cannot write to file %s. Permission denied or no space left!\n" and the
// fatal line with "write file failed.": a write that did not complete.
[[noreturn]] void io_write_failed(const char* name, const char* func, const char* module, int line);
