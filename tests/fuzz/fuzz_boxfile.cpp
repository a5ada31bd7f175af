// Exclusion coordinate files, read as .box and as .star.
#include <vector>

#include "common/records.h"
#include "fuzz_support.h"
#include "io/boxfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<PTCL_BOX> boxes(512);
  for (const char* ending : {".box", ".star"}) {
    const std::string path = fuzz::write_scratch(data, size, ending);
    fuzz::refused_or_done([&] { read_all_ptcl_boxes(boxes.data(), (int)boxes.size(), path.c_str()); });
  }
  return 0;
}
