// The option parser and value checks: the input is the command line, its
// words separated by NUL bytes.
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "gpu/device.h"
#include "picker/startup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words{"gvexmatch"};
  words.emplace_back();
  for (size_t i = 0; i < size; i++) {
    if (data[i] == 0)
      words.emplace_back();
    else
      words.back() += (char)data[i];
  }
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  const int argc = (int)words.size();
  fuzz::refused_or_done([&] {
    gvexmatch_start(argc, argv.data(), [](int& gid) { return check_and_set_gid(gid) == 0; });
  });
  return 0;
}
