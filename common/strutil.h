// Small string helpers for option words and file names.
#pragma once
#include <cstddef>
#include <string>

// True when arg is "-name" or "--name", compared without regard to case.
bool keywd_cmp(const char* arg, const char* name);

// True for -h, --h, -help, --help (any case).
bool is_keywd_help(const char* arg);

// True for "NULL" or "NONE" (any case), an empty string, a null pointer and
// a string that begins with a newline: all mean "no file".
bool is_str_null(const char* s);

// Reads a flag option at argv[i]. The flag becomes 1 without consuming
// anything when it is the last word or the next word begins with '-' or a
// letter; otherwise the next word is consumed (i advances) and the flag is
// atoi(word) != 0. So a following name that starts with a digit, '.' or '/'
// is taken as the flag's value; callers rely on this being kept.
void get_bool_keyword(int argc, char** argv, int& value, int& i);

// Copies src into dst of capacity cap (cap >= 1) with a terminating zero.
// Returns false, leaving a truncated copy, when src does not fit.
bool str_copy_fits(char* dst, const char* src, size_t cap);

// True when s starts with start, or ends with end.
bool starts_with(const std::string& s, const std::string& start);
bool ends_with(const std::string& s, const std::string& end);
