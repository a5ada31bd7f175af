#include "common/strutil.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

bool keywd_cmp(const char* arg, const char* name) {
  if (!arg || !name || arg[0] != '-') return false;
  const char* word = arg[1] == '-' ? arg + 2 : arg + 1;
  return strcasecmp(word, name) == 0;
}

bool is_keywd_help(const char* arg) { return keywd_cmp(arg, "h") || keywd_cmp(arg, "help"); }

bool is_str_null(const char* s) {
  if (!s || s[0] == 0 || s[0] == '\n') return true;
  return strcasecmp(s, "NULL") == 0 || strcasecmp(s, "NONE") == 0;
}

void get_bool_keyword(int argc, char** argv, int& value, int& i) {
  if (i + 1 >= argc) {
    value = 1;
    return;
  }
  const unsigned char c = (unsigned char)argv[i + 1][0];
  if (c == '-' || isalpha(c)) {
    value = 1;
    return;
  }
  i++;
  value = atoi(argv[i]) != 0 ? 1 : 0;
}

bool str_copy_fits(char* dst, const char* src, size_t cap) {
  size_t n = strlen(src);
  bool fits = n < cap;
  if (!fits) n = cap - 1;
  memcpy(dst, src, n);
  dst[n] = 0;
  return fits;
}

bool starts_with(const std::string& s, const std::string& start) { return s.compare(0, start.size(), start) == 0; }

bool ends_with(const std::string& s, const std::string& end) {
  return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}
