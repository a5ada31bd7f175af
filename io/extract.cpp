#include "io/extract.h"

#include <climits>
#include <cstdlib>
#include <vector>

#include "common/host_image.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/hm_math.h"
#include "io/boxfile.h"
#include "io/io_messages.h"
#include "io/mrcfile.h"

namespace {

const char* const gvex_module = "process2d_mrc";

// Largest particle stack held in memory, in floats.
constexpr long MAX_STACK_FLOATS = 1L << 31;

struct Picks {
  std::vector<PTCL_BOX> boxes = std::vector<PTCL_BOX>(GVEX_MAX_EXTRACT_PTCLS);
  int n = 0, bx = 0, by = 0;
};

// Reads the records, re-centres them and fixes the particle size from the
// first one. Sizes that could not be cut end the run here, before anything
// is allocated from them.
void load_picks(Picks& p, const char* box_name, int newsize, const char* func) {
  if (newsize < 0 || newsize > GVEX_MAX_EXTRACT_BOX)
    io_fatalf(func, gvex_module, __LINE__, "particle box size %d for %s is outside 0..%d", newsize, box_name,
              GVEX_MAX_EXTRACT_BOX);
  p.n = read_all_ptcl_boxes(p.boxes.data(), GVEX_MAX_EXTRACT_PTCLS, box_name);
  if (newsize != 0) resize_ptcl_boxes(p.boxes.data(), p.n, newsize);
  p.bx = p.boxes[0].bx;
  p.by = p.boxes[0].by;
  // No picks: a stack of no sections at the requested size.
  if (p.n == 0) {
    p.bx = p.by = newsize;
    return;
  }
  if (p.bx <= 0 || p.by <= 0 || p.bx > GVEX_MAX_EXTRACT_BOX || p.by > GVEX_MAX_EXTRACT_BOX)
    io_fatalf(func, gvex_module, __LINE__, "particle box %d x %d in %s cannot be cut (sides must be 1..%d)", p.bx, p.by,
              box_name, GVEX_MAX_EXTRACT_BOX);
}

int clamp_int(long v) { return v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : (int)v); }

}  // namespace

void resize_ptcl_boxes(PTCL_BOX* boxes, int n, int size) {
  for (int i = 0; i < n; i++) {
    PTCL_BOX& b = boxes[i];
    b.x = clamp_int((long)b.x + ((long)b.bx - size) / 2);
    b.y = clamp_int((long)b.y + ((long)b.by - size) / 2);
    b.bx = b.by = size;
  }
}

void cpu_x2d_extract_ptcls_from_micrograph(float* out, int bx, int by, int n, const float* mic, int nx, int ny,
                                           const PTCL_BOX* boxes) {
  const long img = (long)bx * by;
  for (int i = 0; i < n; i++)
    cpu_x2d_extract_small_from_large(out + img * i, bx, by, mic, nx, ny, boxes[i].x, boxes[i].y);
}

void cpu_x2d_extract_ptcls_from_movie(float* out, int bx, int by, int nz, int n, const float* movie, int nx, int ny,
                                      const PTCL_BOX* boxes) {
  const long img = (long)bx * by, frame = (long)nx * ny;
  for (int i = 0; i < n; i++)
    for (int z = 0; z < nz; z++)
      cpu_x2d_extract_small_from_large(out + img * ((long)i * nz + z), bx, by, movie + frame * z, nx, ny, boxes[i].x,
                                       boxes[i].y);
}

float* get_mrcf_data_ptcls(const char* mic_name, const char* box_name, int newsize, int invert) {
  const char* func = "get_mrcf_data_ptcls";
  Owned<float> mic_owned(get_mrcf_data_all(mic_name));
  Owned<MRC_HEAD> head_owned(get_mrcf_head(mic_name));
  const float* mic = mic_owned.get();
  const MRC_HEAD* head = head_owned.get();
  Picks p;
  load_picks(p, box_name, newsize, func);
  const int nz = head->nz;
  if (nz < 1) gvex_fatal(func, gvex_module, __LINE__, "Micrograph or movie size error");
  const long total = (long)p.n * nz * p.bx * p.by;
  if ((long)p.n * nz > INT_MAX || total > MAX_STACK_FLOATS)
    io_fatalf(func, gvex_module, __LINE__, "%d particles of %d x %d x %d from %s are too many to hold", p.n, p.bx, p.by,
              nz, mic_name);
  Owned<float> owned((float*)calloc(total > 0 ? (size_t)total : 1, sizeof(float)));
  float* out = owned.get();
  if (!out) io_fatalf(func, gvex_module, __LINE__, "cannot allocate %ld floats for the particles of %s", total, mic_name);
  if (nz == 1)
    cpu_x2d_extract_ptcls_from_micrograph(out, p.bx, p.by, p.n, mic, head->nx, head->ny, p.boxes.data());
  else
    cpu_x2d_extract_ptcls_from_movie(out, p.bx, p.by, nz, p.n, mic, head->nx, head->ny, p.boxes.data());
  if (invert) hm_invert_inplace(out, (unsigned long)total);
  return owned.release();
}

int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic_name, const char* box_name, int newsize, int invert) {
  Picks p;
  load_picks(p, box_name, newsize, "mrcf_x2d_extract_ptcls_from_micrograph");
  const long nz = get_mrcf_dim_size(mic_name, "z");
  Owned<float> data(get_mrcf_data_ptcls(mic_name, box_name, newsize, invert));
  char out_name[GVEX_NAME_LEN];
  set_outname_by_suffix(out_name, mic_name, "_particles.mrcs");
  mrcf_write_xyz_data(out_name, data.get(), p.bx, p.by, (int)(nz * p.n));
  return 0;
}
