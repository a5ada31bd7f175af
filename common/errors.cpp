#include "common/errors.h"

#include <cstdio>
#include <cstring>

void gvex_throw(std::string text, int status, bool to_stderr) {
  GvexFailure f;
  f.text = std::move(text);
  f.status = status;
  f.to_stderr = to_stderr;
  throw f;
}

int gvex_report_failure(const GvexFailure& f) {
  fflush(stdout);
  FILE* out = f.to_stderr ? stderr : stdout;
  fputs(f.text.c_str(), out);
  fflush(out);
  return f.status;
}

std::string gvex_fatal_line(const char* func, const char* module, int line, const char* why) {
  const int n = snprintf(nullptr, 0, "Error in function %s(), file %s on line %d: %s! Exit now!\n", func, module, line, why);
  std::string s((size_t)n, '\0');
  snprintf(&s[0], (size_t)n + 1, "Error in function %s(), file %s on line %d: %s! Exit now!\n", func, module, line, why);
  return s;
}

void gvex_fatal(const char* func, const char* module, int line, const char* why) {
  gvex_throw(gvex_fatal_line(func, module, line, why));
}

int gvex_warning(const char* func, const char* module, int line, const char* why) {
  printf("Warning in function %s(), file %s on line %d: %s!\n", func, module, line, why);
  fflush(stdout);
  return -1;
}

void gvex_open_read_failed(const char* name, const char* func, const char* module, int line) {
  gvex_throw("Cannot open file " + std::string(name) + ". Permission denied or wrong file name.\n" +
             gvex_fatal_line(func, module, line, "open file failed."));
}

void gvex_open_write_failed(const char* name, const char* func, const char* module, int line) {
  gvex_throw("Cannot write to file " + std::string(name) + ". Permission denied or no space left!\n" +
             gvex_fatal_line(func, module, line, "open file failed."));
}

std::string gvex_module_name(const char* path) {
  const char* base = strrchr(path, '/');
  base = base ? base + 1 : path;
  const char* dot = strchr(base, '.');
  return dot ? std::string(base, dot) : std::string(base);
}

static thread_local unsigned long g_last_request = 0;

void gvex_note_request(unsigned long bytes) { g_last_request = bytes; }
unsigned long gvex_last_request() { return g_last_request; }

GvexFailure gvex_out_of_memory(const char* func, const char* module, int line, const std::string& during) {
  const std::string why =
      "out of memory " + during + " (" + std::to_string(gvex_last_request()) + " bytes asked for)";
  GvexFailure f;
  f.text = gvex_fatal_line(func, module, line, why.c_str());
  f.status = 1;
  return f;
}

std::string gvex_failure_line(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '\033') {  // highlighting: ESC [ ... m
      while (i < text.size() && text[i] != 'm') i++;
      continue;
    }
    const char c = text[i] == '\n' || text[i] == '\t' ? ' ' : text[i];
    if (c == ' ' && (out.empty() || out.back() == ' ')) continue;
    out += c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}
