// Runs library code in-process and captures what it prints and how it ends:
// a failure is caught as the program's main would catch it, so tests check
// the exact lines and status without a child process.
#pragma once
#include <functional>
#include <string>

struct Captured {
  int status = 0;       // the failure's exit status; 0 when fn returned
  bool failed = false;  // fn ended through the failure path
  std::string out;      // standard output and standard error together
};

Captured capture_run(const std::function<void()>& fn);

#include <regex>

#include <gtest/gtest.h>

// stmt must end through the failure path with the given status, printing
// text in which the regular expression is found.
#define EXPECT_FAILS_WITH(status_, stmt, pattern_)                                  \
  do {                                                                          \
    const Captured c_ = capture_run([&] { stmt; });                             \
    EXPECT_TRUE(c_.failed) << #stmt;                                            \
    EXPECT_EQ(c_.status, (status_)) << #stmt;                                   \
    EXPECT_TRUE(std::regex_search(c_.out, std::regex(pattern_))) << c_.out;        \
  } while (0)
#define EXPECT_FAILS(stmt, pattern_) EXPECT_FAILS_WITH(1, stmt, pattern_)

// What f prints on standard output, for code that warns and goes on.
template <class F>
std::string stdout_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}
