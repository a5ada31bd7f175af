// The merge of a micrograph's candidate file into its pick files, with the
// same bytes also read as the exclusion list.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "match/box_filter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string in = fuzz::write_scratch(data, size, "_nonunique.box");
  std::string ex = fuzz::write_scratch(data, size, "_excluded.box");
  std::string none = "NULL";
  for (int format : {1, 2}) {
    std::string out = fuzz::scratch(format == 1 ? "_out.star" : "_out.box");
    fuzz::refused_or_done([&] {
      box_filter(300, 200, 20.0f, 0.1f, 4.0f, 64, 64, {3, 5}, &in[0], format == 1 ? &ex[0] : &none[0], &out[0], format);
    });
  }
  return 0;
}
