// The picking session: the per-run preparation and the stages every
// micrograph goes through, in their fixed order; the stages themselves live
// in gpu/, io/ and match/.
#include "picker/session.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/host_image.h"
#include "common/atomic_file.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "common/stop_point.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "gpu/cuda_fft.h"
#include "gpu/img_filter.h"
#include "gpu/local_stats.h"
#include "gpu/pool.h"
#include "gpu/math_utils.h"
#include "gpu/reduce.h"
#include "gpu/resample.h"
#include "io/boxfile.h"
#include "io/extract.h"
#include "io/io_messages.h"
#include "match/box_filter.h"
#include "match/ice.h"
#include "match/peaks.h"
#include "match/scan.h"
#include "match/templates.h"
#include "match/write_image.h"
#include "picker/params.h"
#include "picker/prefetch.h"
#include "picker/timer.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "gvexmatch56";

namespace {

// Removes the named partial files unless the commit took them.
struct PartialFiles {
  std::vector<std::string> names;
  ~PartialFiles() {
    for (const std::string& n : names) unlink(n.c_str());  // a folder of that name is not ours
  }
};

// "FR": the file exists and is readable.
bool file_readable(const char* name) { return access(name, F_OK) == 0 && access(name, R_OK) == 0; }

void ruler(char c, int n) {
  for (int i = 0; i < n; i++) putchar(c);
  putchar('\n');
}

std::string outname(const std::string& mic, const char* suffix) {
  char name[GVEX_NAME_LEN];
  set_outname_by_suffix(name, mic.c_str(), suffix);
  return name;
}

}  // namespace

struct PickSession::Impl {
  explicit Impl(const PickSettings& settings) : s(settings) {}
  const PickSettings s;
  std::string first_mic;
  MRC_HEAD ref{};
  MRC_HEAD mic_head{};            // the micrograph being picked
  int nx = 0, ny = 0;             // raw micrograph size (the reference)
  int ext = 0;                    // square, even working size
  int gx = 0, gy = 0;             // exclusion grid
  int tnx = 0, tny = 0, tnz = 0;  // template stack

  // Host staging, page-locked on a GPU.
  HostBuffer<float> h_raw, h_shrunk, h_ccmax;
  bool shrunk_ready = false;  // h_shrunk already holds h_raw shrunk (read ahead)
  std::unique_ptr<DeviceArray<float>> d_T, d_mic, d_mask, d_ccmax, d_psi, d_decoy;
  std::string decoy_candidates;  // the decoys' "_nonunique.box" lines, kept in memory
  std::unique_ptr<DeviceArray<unsigned int>> d_grid;
  std::vector<PTCL_BOX> excluded;  // gx * gy records
  int n_excluded = 0;
  std::vector<unsigned int> peak_index;
  std::vector<float> peak_score, peak_angle;
  std::unique_ptr<ScanWorkspace> ws;
  std::unique_ptr<MicPrefetch> ahead;
  PickSession::CommitName extra_name;  // a companion's file in each commit (none when empty)
  PickSession::CommitWrite extra_write;

  void working_sizes();
  void prepare_templates();
  void prepare_buffers(int sharers);
  void read(const std::string& mic, const std::string& next, struct MicNames& names);
  void normalise(const std::string& mic, PickResult& r);
  void scan_templates(FILE* nonunique, PickResult& r);
  void decoy_peaks(int t, float* decoy);
  void merge_and_commit(const std::string& mic, const struct MicNames& names, PickResult& r);
  void pick(const std::string& mic, const std::string& next, PickResult& r);
  void write_working_image(const std::string& mic, const char* suffix, const float* d_img, int nz);
};

PickSession::PickSession(const PickSettings& settings) : d_(new Impl(settings)) {}
PickSession::~PickSession() {
  d_.reset();
  // The plans, disc spectra and pooled blocks were made for this session's
  // sizes: a program that goes on (another session, a long-lived job) gets
  // their memory back.
  gvex_fft_plan_cache_clear();
  gvex_local_stats_cache_clear();
  gvex_pool_clear();
}

void PickSession::Impl::working_sizes() {
  const int big = nx > ny ? nx : ny;
  ext = 2 * (big / (2 * s.shrink));
  if (ext < 2) {
    char why[GVEX_NAME_LEN + 160];
    snprintf(why, sizeof why, "micrograph %s of %d x %d pixels is too small for the shrink factor %d of --speed",
             first_mic.c_str(), nx, ny, s.shrink);
    gvex_fatal("gvexmatch_working_sizes", gvex_module, __LINE__, why);
  }
  // Band-passes and local statistics work on a mirror-padded copy of twice
  // the working size, which must stay below the launcher's 2^31 elements.
  if (ext > GVEX_MAX_WORKING) {
    char why[GVEX_NAME_LEN + 200];
    snprintf(why, sizeof why,
             "micrograph %s of %d x %d pixels gives a working size of %d pixels at --speed %d, more than the %d "
             "pixels a working image may have (raise --speed)",
             first_mic.c_str(), nx, ny, ext, s.opt.speed, GVEX_MAX_WORKING);
    gvex_fatal("gvexmatch_working_sizes", gvex_module, __LINE__, why);
  }
  gx = gy = (int)(((long)ext + s.cell - 1) / s.cell);  // cell may be near INT_MAX
}

// Templates: one synthetic disc scanned at a single angle, or the stack,
// normalised and inverted on the device.
void PickSession::Impl::prepare_templates() {
  const PickOptions& o = s.opt;
  std::vector<char> path(o.templates.begin(), o.templates.end());
  path.push_back(0);
  if (s.auto_template) path.assign({'N', 'U', 'L', 'L', 0});
  Owned<float> owned_stack(get_or_create_template_data(tnx, tny, tnz, path.data(), s.template_r, o.apixT, o.apixM,
                                                       s.shrink, o.center1_ratio));
  if (tnx > ext || tny > ext) {
    char why[256];
    snprintf(why, sizeof why, "templates of %d x %d working pixels do not fit the %d x %d working micrograph", tnx,
             tny, ext, ext);
    gvex_fatal("gvexmatch_prepare_run", gvex_module, __LINE__, why);
  }
  if (tnx < 1 || tny < 1 || tnz < 1)
    gvex_fatal("gvexmatch_prepare_run", gvex_module, __LINE__,
               "the template is empty at the working pixel size (raise --diameter or lower --speed)");
  d_T.reset(new DeviceArray<float>((unsigned long)tnx * tny * tnz));
  hcuda_upload_templates(d_T->get(), owned_stack.get(), tnx, tny, tnz, o.T_norm_type, s.template_r, o.center1_ratio,
                         o.dont_invertT);
}

void PickSession::Impl::prepare_buffers(int sharers) {
  const unsigned long n2 = (unsigned long)ext * ext;
  h_raw.reset((unsigned long)nx * ny);
  h_shrunk.reset(n2);
  if (s.opt.write_ccmax_mic) h_ccmax.reset(n2 * tnz);
  d_mic.reset(new DeviceArray<float>(n2, true));
  d_mask.reset(new DeviceArray<float>(n2, true));
  d_ccmax.reset(new DeviceArray<float>(n2, true));
  d_psi.reset(new DeviceArray<float>(n2, true));
  if (s.opt.decoys) d_decoy.reset(new DeviceArray<float>(n2, true));
  const unsigned long cells = (unsigned long)gx * gy;
  d_grid.reset(new DeviceArray<unsigned int>(cells, true));
  excluded.assign(cells, PTCL_BOX{});
  peak_index.assign(cells, 0);
  peak_score.assign(cells, 0.0f);
  peak_angle.assign(cells, 0.0f);
  // The store and the scan's batch share what this process may use of the
  // memory left: the store half of it, the batch half of the rest (the
  // first micrograph still needs room for its temporaries). Both are fixed
  // here for the whole session.
  if (sharers < 1) sharers = 1;
  const unsigned long available = gvex_memory_available();
  const unsigned long store = gvex_scan_store_budget(available, sharers);
  int batch = 0;
  if (gvex_on_gpu()) {
    const unsigned long share = available / (unsigned long)sharers;
    const int n_angles = (int)get_rotation_angles((float)s.opt.ang_start, s.opt.ang_end, s.scan_step).size();
    batch = gvex_scan_batch(ext, ext, n_angles, share > store ? (share - store) / 2 : 0);
  }
  ws.reset(new ScanWorkspace(store, batch));
}

void PickSession::prepare(const MRC_HEAD& reference, const std::string& reference_name, int sharers,
                          const std::string& first) {
  Impl& d = *d_;
  d.ref = reference;
  d.first_mic = reference_name;
  d.nx = reference.nx;
  d.ny = reference.ny;
  d.working_sizes();
  // On a GPU the host cores are idle but for the read-ahead: half of them shrink.
  const int read_threads = gvex_on_gpu() ? (gvex_host_threads() + 1) / 2 : 1;
  try {
    d.ahead.reset(new MicPrefetch(reference, d.s.shrink, d.ext, read_threads, d.s.opt.read_float16));
    if (!first.empty()) d.ahead->start(first);
    d.prepare_templates();
    d.prepare_buffers(sharers);
  } catch (const std::bad_alloc&) {
    throw gvex_out_of_memory("gvexmatch_prepare_run", gvex_module, __LINE__,
                             "preparing for micrographs of " + std::to_string(d.nx) + " x " + std::to_string(d.ny) +
                                 " pixels like " + reference_name);
  }
}

bool PickSession::looks_finished(const std::string& mic) const {
  if (!d_->s.opt.do_unfinished) return false;
  try {
    return file_readable(outname(mic, "_vexmatch.box").c_str()) ||
           file_readable(outname(mic, "_vexmatch.star").c_str());
  } catch (const GvexFailure&) {  // a name too long to derive is its own turn's failure
    return false;
  }
}

std::vector<int> PickSession::blind_templates() const {
  const unsigned long n = (unsigned long)d_->tnx * d_->tny;
  std::vector<float> T(n * d_->tnz);
  gvex_check_copy(memcpy_D2H(T.data(), d_->d_T->get(), T.size() * sizeof(float)), __FILE__, __LINE__);
  std::vector<int> blind;
  for (int t = 0; t < d_->tnz; t++) {
    const float* p = T.data() + n * t;
    bool finite = true, alike = true;
    double energy = 0;
    for (unsigned long i = 0; i < n; i++) {
      finite = finite && std::isfinite(p[i]);
      alike = alike && p[i] == p[0];
      energy += (double)p[i] * p[i];
    }
    // The scan's single-precision sums overflow or underflow far short of
    // these (a disc template lost its picks from 1e33 up and below 1e-39).
    if (!finite || alike || !(energy >= 1e-30 && energy <= 1e30)) blind.push_back(t + 1);
  }
  return blind;
}

int PickSession::template_count() const { return d_->tnz; }

void PickSession::also_commit(CommitName name, CommitWrite write) {
  d_->extra_name = std::move(name);
  d_->extra_write = std::move(write);
}

PickResult PickSession::pick(const std::string& mic, const std::string& next) {
  PickResult r;
  const int depth = gvex_timer_depth();
  try {
    d_->pick(mic, next, r);
  } catch (const GvexFailure& f) {
    r.outcome = PickResult::Outcome::failed;
    r.failure = f;
  } catch (const std::bad_alloc&) {
    r.outcome = PickResult::Outcome::failed;
    r.failure = gvex_out_of_memory("gvexmatch_pick_micrograph", gvex_module, __LINE__, "while picking " + mic);
  }
  // The stages a failed micrograph left open are closed without a line.
  if (r.outcome == PickResult::Outcome::failed) gvex_timer_truncate(depth);
  return r;
}

// The names of one micrograph's files, derived (and refused when too long)
// before anything is touched.
struct MicNames {
  std::string box, star, nonunique, excluded, commit, particles, extra;
};

static MicNames mic_names(const PickSettings& s, const std::string& mic, const PickSession::CommitName& extra) {
  MicNames n;
  n.box = outname(mic, "_vexmatch.box");
  n.star = outname(mic, "_vexmatch.star");
  char nonunique[GVEX_NAME_LEN];
  set_name_shrinked_box(nonunique, mic.c_str(), s.shrink);
  n.nonunique = nonunique;
  n.excluded = s.opt.exclusive_picking ? outname(mic, s.opt.excluded_suffix.c_str()) : "NULL";
  // Derived as the others but without their length bound, so that any name
  // whose coordinate files fit also gets its marker.
  n.commit = n.box.substr(0, n.box.size() - strlen("_vexmatch.box")) + "_vexmatch.commit";
  if (s.opt.extract_raw) n.particles = outname(mic, "_particles.mrcs");
  if (extra) n.extra = extra(mic);
  return n;
}

// What an unfinished commit of this micrograph would leave.
static std::vector<std::string> committed(const MicNames& n) {
  std::vector<std::string> files = {n.box, n.star};
  if (!n.particles.empty()) files.push_back(n.particles);
  if (!n.extra.empty()) files.push_back(n.extra);
  return files;
}

// The micrograph's pixels into h_raw (and h_shrunk when read ahead), the
// next micrograph's read started, and the user's exclusions.
void PickSession::Impl::read(const std::string& mic, const std::string& next, MicNames& names) {
  const char* kind = "";
  OwnedFile fmic(gvex_open_regular(mic.c_str(), &kind));
  if (!fmic && *kind) gvex_not_a_file("micrograph", mic.c_str(), kind, "main", "gvexmatch56", 187);
  if (!fmic) gvex_open_read_failed(mic.c_str(), "main", "gvexmatch56", 187);
  MRC_HEAD& head = mic_head;
  mrc_read_head(fmic.get(), &head);
  check_mrc_head_sizes_two(mic.c_str(), first_mic.c_str(), &head, &ref);
  printf("Reading File %s ...\n", mic.c_str());
  shrunk_ready = ahead && ahead->take(mic, fmic.get(), head, h_raw, h_shrunk);
  if (!shrunk_ready) mrc_read_slice(fmic.get(), &head, 0, 'z', h_raw.data(), s.opt.read_float16);
  fmic.reset();
  if (ahead && !next.empty()) ahead->start(next);

  if (!is_str_null(names.excluded.c_str()) && file_readable(names.excluded.c_str())) {
    n_excluded = read_all_ptcl_boxes(excluded.data(), (int)excluded.size(), names.excluded.c_str());
    printf("%8d particles in file %s excluded from auto-picking \n", n_excluded, names.excluded.c_str());
  } else {
    names.excluded = "NULL";
    n_excluded = 0;
  }
}

void PickSession::Impl::pick(const std::string& mic, const std::string& next, PickResult& r) {
  decoy_candidates.clear();  // what a failed micrograph left
  gvex_timer_push();
  printf("\n");
  ruler('-', 129);
  // A line break in a name would make every file of ours beside it
  // ambiguous to the tools that read lists of names.
  if (mic.find('\n') != std::string::npos || mic.find('\r') != std::string::npos)
    gvex_fatal("gvexmatch_pick_micrograph", gvex_module, __LINE__,
               "the micrograph name holds a line break, which the names of its output files cannot carry");
  MicNames names = mic_names(s, mic, extra_name);
  // Another run picking this micrograph finishes it first.
  const InputLock lock(mic.c_str());
  // What a killed run left of an unfinished commit is undone first.
  gvex_undo_commit(names.commit, committed(names));
  gvex_test_stop_point("micrograph");
  if (s.opt.do_unfinished && (file_readable(names.box.c_str()) || file_readable(names.star.c_str()))) {
    printf("Micrograph %s has already been processed. Automatically skipped.\n", mic.c_str());
    // The timer started above stays on the stack for a skipped micrograph.
    r.outcome = PickResult::Outcome::skipped;
    return;
  }
  // Made at once, under its own name (the merge reads it back), but new:
  // never through a link left at that name.
  OwnedFile fnon(gvex_create_new(names.nonunique.c_str(), "w+"));
  if (!fnon) gvex_open_write_failed(names.nonunique.c_str(), "main", "gvexmatch56", 185);
  read(mic, next, names);
  if (s.opt.keep_pixels) {
    r.head = mic_head;
    r.pixels.assign(h_raw.data(), h_raw.data() + (size_t)nx * ny);
  }
  r.times.reading = gvex_timer_pop("READING");
  gvex_timer_push();
  normalise(mic, r);
  r.times.normalization = gvex_timer_pop("NORMALIZATION");
  gvex_timer_push();
  scan_templates(fnon.get(), r);
  if (s.opt.write_ccmax_mic) mrcf_write_xyz_data(outname(mic, "_ccmax.mrc").c_str(), h_ccmax.data(), ext, ext, tnz);
  if (fclose(fnon.release()) != 0)
    gvex_open_write_failed(names.nonunique.c_str(), "gvexmatch_pick_micrograph", "gvexmatch56", __LINE__);
  merge_and_commit(mic, names, r);
  printf("File %s finished.\n", mic.c_str());
  gvex_test_stop_point("picked");
  r.times.picking = gvex_timer_pop("PICKING");
  r.outcome = PickResult::Outcome::finished;
}

// Diagnostic image of the working size beside the micrograph.
void PickSession::Impl::write_working_image(const std::string& mic, const char* suffix, const float* d_img, int nz) {
  mrcf_write_xyz_ddata(outname(mic, suffix).c_str(), d_img, ext, ext, nz);
}

// Shrink, pre-filter, ice and exclusions, band-pass, the usable-area mask
// and the normalisation under it.
void PickSession::Impl::normalise(const std::string& mic, PickResult& r) {
  const PickOptions& o = s.opt;
  const unsigned long n2 = (unsigned long)ext * ext;
  float* mic_d = d_mic->get();
  unsigned int* grid = d_grid->get();
  const float apix = o.apixM * s.shrink;
  const int2 origin = {0, 0};
  printf("Normalizing the micrograph %s ...\n", mic.c_str());
  const bool shrunk = shrunk_ready;
  shrunk_ready = false;
  if (!shrunk) cpu_2d_meanshrink_extended_even_square(h_shrunk.data(), h_raw.data(), nx, ny, s.shrink);
  gvex_check_copy(memcpy_H2D(mic_d, h_shrunk.data(), n2 * sizeof(float)), __FILE__, __LINE__);
  if (o.do_pre_filter)  // low-pass at the shrunk image's Nyquist limit; pre_lp plays no part
    hcuda_2d_bandpass_softR_mpad_inplace(mic_d, ext, apix, 2.0f * o.apixM * s.shrink, o.pre_hp, 8.0f);
  if (o.write_pref_mic) write_working_image(mic, "_pref.mrc", mic_d, 1);
  hcuda_normz_inplace(mic_d, n2, 1.0f, 0.0f);

  hcuda_empty(grid, (unsigned long)gx * gy * sizeof(unsigned int));
  if (o.detect_ice) {
    IceSettings ice;
    ice.cell = s.cell;
    ice.shrink = s.shrink;
    ice.lsigma_r = s.lsigma_r;
    ice.lave_r = s.lave_r;
    ice.edge = o.local_edge;
    ice.lave_min = o.lave_min;
    ice.lave_max = o.lave_max;
    ice.lsigma_cutoff = o.lsigma_cutoff;
    ice.write_rejected = o.write_rejected_box;
    ice.write_bg = o.write_bg_mic;
    ice.write_lsigma = o.write_lsigma_mic;
    hcuda_2d_ice_detect(mic_d, ext, ext, origin, grid, mic.c_str(), ice);
  }
  if (o.mask_excluded && n_excluded > 0)
    add_excluded_coords_to_ice(grid, ext, ext, s.cell, excluded.data(), n_excluded, s.shrink);
  if (!o.global_excluded_box.empty()) {
    std::vector<char> box(o.global_excluded_box.begin(), o.global_excluded_box.end());
    box.push_back(0);
    add_excluded_boxf_to_ice(grid, ext, ext, s.cell, box.data(), s.shrink);
  }
  if (o.do_bandpass) hcuda_2d_bandpass_guas_mpad_inplace(mic_d, ext, apix, o.lp, o.hp);
  hcuda_normz_inplace(mic_d, n2, 1.0f, 0.0f);
  hcuda_2d_generate_mask_by_coords(d_mask->get(), mic_d, ext, ext, s.cell, grid, 0);
  if (o.write_mic_mask) write_working_image(mic, "_mask.mrc", d_mask->get(), 1);
  hcuda_norm_withmask_inplace(mic_d, d_mask->get(), n2, 1.0f, 0.0f);
  if (o.write_bgfree_mic) write_working_image(mic, "_bgfree.mrc", mic_d, 1);

  // What the mask left out, for the result.
  std::vector<unsigned int> cells((size_t)gx * gy);
  gvex_check_copy(memcpy_D2H(cells.data(), grid, cells.size() * sizeof(unsigned int)), __FILE__, __LINE__);
  r.rejected_cells = 0;
  for (unsigned int c : cells) r.rejected_cells += c != 0;
  r.masked_fraction = 1.0 - (double)hcuda_fast_sum(d_mask->get(), n2) / (double)n2;
  r.usable_pixels = (double)nx * ny * (1.0 - r.masked_fraction);
}

// Every template's scan and peaks; the candidates go to the
// "_nonunique.box" file.
void PickSession::Impl::scan_templates(FILE* nonunique, PickResult& r) {
  const PickOptions& o = s.opt;
  const unsigned long n2 = (unsigned long)ext * ext, cells = (unsigned long)gx * gy;
  const int box = o.boxsize / s.shrink;
  for (int t = 0; t < tnz; t++) {
    printf("Template %03d\n", t + 1);
    float* d_t = d_T->get() + (unsigned long)t * tnx * tny;
    float* decoy = d_decoy ? d_decoy->get() : nullptr;
    vexmatch_ccmax_psi_by_one_template(d_mic->get(), d_mask->get(), d_ccmax->get(), d_psi->get(), 1, ext, ext, d_t,
                                       tnx, tny, s.template_r, (float)o.ang_start, o.ang_end, s.scan_step, ws.get(),
                                       decoy);
    gpu_find_filter_ccmax_psi_grids_exclusive(d_ccmax->get(), d_psi->get(), peak_index.data(), peak_score.data(),
                                              peak_angle.data(), o.cc_cutoff, ext, ext, s.cell, d_grid->get(),
                                              (unsigned int)cells);
    r.candidates += output_vexmatch_coord_one_temp(nonunique, peak_index.data(), peak_score.data(),
                                                   peak_angle.data(), t + 1, (int)cells, ext, ext, box);
    if (decoy) decoy_peaks(t, decoy);
    if (o.write_ccmax_mic)
      gvex_check_copy(memcpy_D2H(h_ccmax.data() + n2 * t, d_ccmax->get(), n2 * sizeof(float)), __FILE__, __LINE__);
  }
}

// The decoy map's grid maxima, found and filtered as the real ones, as
// candidate lines in memory (their angles mean nothing).
void PickSession::Impl::decoy_peaks(int t, float* decoy) {
  const unsigned long cells = (unsigned long)gx * gy;
  gpu_find_filter_ccmax_psi_grids_exclusive(decoy, d_psi->get(), peak_index.data(), peak_score.data(),
                                            peak_angle.data(), s.opt.cc_cutoff, ext, ext, s.cell, d_grid->get(),
                                            (unsigned int)cells);
  char* text = nullptr;
  size_t len = 0;
  FILE* fp = open_memstream(&text, &len);
  if (!fp) throw std::bad_alloc();
  output_vexmatch_coord_one_temp(fp, peak_index.data(), peak_score.data(), peak_angle.data(), t + 1, (int)cells, ext,
                                 ext, s.opt.boxsize / s.shrink);
  fclose(fp);
  decoy_candidates.append(text, len);
  free(text);
}

// Merge all templates' candidates into the final picks, in micrograph
// pixels, and commit the coordinate files together.
void PickSession::Impl::merge_and_commit(const std::string& mic, const MicNames& names, PickResult& r) {
  const PickOptions& o = s.opt;
  // The merge sees only the shrunk micrograph itself: for a non-square one
  // the rest of the square is a mirror image, and its picks would lie
  // outside the micrograph.
  const int mx = hd_even_shrink_size(nx, s.shrink), my = hd_even_shrink_size(ny, s.shrink);
  // Both coordinate files are complete before either becomes final, and the
  // commit stays open until the particles cut at them are written too, so
  // --do_unfinished never takes a half-done micrograph as finished.
  const std::string box_tmp = gvex_part_name(names.box.c_str()), star_tmp = gvex_part_name(names.star.c_str());
  PartialFiles partial{{box_tmp, star_tmp}};
  std::vector<std::string> finals{names.box};
  r.picks = box_filter(mx, my, s.min_dist_px, o.cc_cutoff, (float)s.shrink, o.boxsize, o.boxsize, int2{0, 0},
                       names.nonunique.c_str(), names.excluded.c_str(), box_tmp.c_str(), 2);
  if (d_decoy) {
    r.decoys = merge_candidate_text(decoy_candidates, mx, my, s.min_dist_px, o.cc_cutoff, (float)s.shrink, o.boxsize,
                                    o.boxsize, int2{0, 0}, names.excluded.c_str());
    decoy_candidates.clear();
  }
  if (o.write_star) {
    write_merged_picks(star_tmp.c_str(), r.picks, true);
    finals.push_back(names.star);
  }
  gvex_test_stop_point("merged");
  const std::string failed = gvex_commit_together(finals, names.commit);
  if (!failed.empty()) io_write_failed(failed.c_str(), "gvexmatch_pick_micrograph", gvex_module, __LINE__);
  partial.names.clear();
  gvex_test_stop_point("committed");
  if (o.extract_raw) {
    // A refused extraction leaves the micrograph unpicked, as a kill would.
    try {
      mrcf_x2d_extract_ptcls_from_micrograph(mic.c_str(), names.box.c_str(), o.boxsize, 0);
    } catch (const GvexFailure&) {
      gvex_undo_commit(names.commit, committed(names));
      throw;
    }
  }
  if (!names.extra.empty() && !extra_write(r, names.extra)) {
    gvex_undo_commit(names.commit, committed(names));
    io_write_failed(names.extra.c_str(), "gvexmatch_pick_micrograph", gvex_module, __LINE__);
  }
  gvex_end_commit(names.commit);
}
