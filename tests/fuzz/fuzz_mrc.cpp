// MRC header and pixels, as the run reads a micrograph (header, size and mode
// checks, first section, float16 included) and a template stack (every section).
#include <memory>
#include <vector>

#include "fuzz_support.h"
#include "io/mrcfile.h"
#include "match/templates.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = fuzz::write_scratch(data, size, ".mrc");
  fuzz::refused_or_done([&] {
    std::unique_ptr<MRC_HEAD, void (*)(MRC_HEAD*)> head(get_mrcf_head(path.c_str()), mrc_delete_head);
    // Float16 (mode 12) as the RELION companion reads it.
    if (!mrc_mode_is_readable(head->mode, true) || (long)head->nx * head->ny > (1L << 24)) return;
    std::unique_ptr<FILE, int (*)(FILE*)> fp(fopen(path.c_str(), "r"), fclose);
    MRC_HEAD h;
    mrc_read_head(fp.get(), &h);
    std::vector<float> pixels((size_t)h.nx * h.ny);
    mrc_read_slice(fp.get(), &h, 0, 'z', pixels.data(), true);
  });
  fuzz::refused_or_done([&] {
    int nx = 0, ny = 0, nz = 0;
    free(get_or_create_template_data(nx, ny, nz, &path[0], 6.0f, 1.0f, 1.0f, 1, 0.05f));
  });
  return 0;
}
