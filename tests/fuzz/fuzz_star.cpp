// STAR tables (micrograph lists, node and coordinate files): the parser,
// and what the writer makes of what it parsed must parse back the same.
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "io/star_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<StarTable> blocks;
  std::string why;
  if (!star_parse(std::string((const char*)data, size), blocks, why)) return 0;
  for (const StarTable& t : blocks) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    const bool written = star_write(fp, t);
    fclose(fp);
    std::vector<StarTable> again;
    if (written && (!star_parse(std::string(buf, len), again, why) || again.size() != 1 ||
                    again[0].labels != t.labels || again[0].rows != t.rows))
      __builtin_trap();  // the writer wrote what the reader reads otherwise
    free(buf);
  }
  return 0;
}
