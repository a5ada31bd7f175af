// A template stack through its reading, rescaling to the micrograph's
// pixel size and shrinking, as the run prepares its templates.
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "match/templates.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = fuzz::write_scratch(data, size, ".mrcs");
  for (const float k : {1.0f, 0.77f, 1.6f})
    for (const int shrink : {1, 2, 4})
      fuzz::refused_or_done([&] {
        int nx = 0, ny = 0, nz = 0;
        free(get_or_create_template_data(nx, ny, nz, &path[0], 6.0f, k, 1.0f, shrink, 0.05f));
      });
  return 0;
}
