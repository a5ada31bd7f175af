// Per-micrograph picking pipeline: strings the stages together in their
// fixed order; the stages themselves live in gpu/, io/ and match/.
#include "picker/pipeline.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/stop_point.h"
#include "common/strutil.h"
#include "gpu/img_filter.h"
#include "gpu/math_utils.h"
#include "gpu/resample.h"
#include "io/boxfile.h"
#include "io/extract.h"
#include "io/io_messages.h"
#include "io/mrcfile.h"
#include "match/box_filter.h"
#include "match/ice.h"
#include "match/peaks.h"
#include "match/templates.h"
#include "picker/params.h"
#include "picker/timer.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "gvexmatch56";

namespace {

// Removes the named partial files unless the commit took them.
struct PartialFiles {
  std::vector<std::string> names;
  ~PartialFiles() {
    for (const std::string& n : names) remove(n.c_str());
  }
};

}  // namespace

void gvexmatch_working_sizes(GVexRun& run, int nx, int ny) {
  GVexMatch_Para* p = run.p;
  run.nx = nx;
  run.ny = ny;
  const int big = nx > ny ? nx : ny;
  run.ext = 2 * (big / (2 * p->shrink));
  run.cell = gvexmatch_grid_cell(p);
  if (run.ext < 2) {
    char why[GVEX_NAME_LEN + 160];
    snprintf(why, sizeof why, "micrograph %s of %d x %d pixels is too small for the shrink factor %d of --speed",
             p->first_mic ? p->first_mic : "(none)", nx, ny, p->shrink);
    GVEX_FAIL(why);
  }
  // Band-passes and local statistics work on a mirror-padded copy of twice
  // the working size, which must stay below the launcher's 2^31 elements.
  if (run.ext > GVEX_MAX_WORKING) {
    char why[GVEX_NAME_LEN + 200];
    snprintf(why, sizeof why,
             "micrograph %s of %d x %d pixels gives a working size of %d pixels at --speed %d, more than the %d "
             "pixels a working image may have (raise --speed)",
             p->first_mic ? p->first_mic : "(none)", nx, ny, run.ext, p->speed, GVEX_MAX_WORKING);
    GVEX_FAIL(why);
  }
  run.gx = run.gy = (int)(((long)run.ext + run.cell - 1) / run.cell);  // cell may be near INT_MAX
}

void gvexmatch_prepare_run(GVexRun& run) {
  GVexMatch_Para* p = run.p;
  const unsigned long n2 = (unsigned long)run.ext * run.ext;

  // Templates: one synthetic disc scanned at a single angle, or the stack.
  if (p->auto_template) p->ang_step = 360.0f;
  Owned<float> owned_stack(get_or_create_template_data(run.tnx, run.tny, run.tnz, p->T, p->template_r, p->apixT,
                                                       p->apixM, p->shrink, p->center1_ratio));
  float* stack = owned_stack.get();
  if (run.tnx > run.ext || run.tny > run.ext) {
    char why[256];
    snprintf(why, sizeof why, "templates of %d x %d working pixels do not fit the %d x %d working micrograph", run.tnx,
             run.tny, run.ext, run.ext);
    GVEX_FAIL(why);
  }
  if (run.tnx < 1 || run.tny < 1 || run.tnz < 1)
    GVEX_FAIL("the template is empty at the working pixel size (raise --diameter or lower --speed)");
  const unsigned long tn = (unsigned long)run.tnx * run.tny * run.tnz;
  run.d_T.reset(new DeviceArray<float>(tn));
  hcuda_upload_templates(run.d_T->get(), stack, run.tnx, run.tny, run.tnz, p->T_norm_type, p->template_r,
                         p->center1_ratio, p->dont_invertT);
  owned_stack.reset();

  run.h_raw.reset((unsigned long)run.nx * run.ny);
  run.h_shrunk.reset(n2);
  if (p->write_ccmax_mic) run.h_ccmax.reset(n2 * run.tnz);
  run.d_mic.reset(new DeviceArray<float>(n2, true));
  run.d_mask.reset(new DeviceArray<float>(n2, true));
  run.d_ccmax.reset(new DeviceArray<float>(n2, true));
  run.d_psi.reset(new DeviceArray<float>(n2, true));
  const unsigned long cells = (unsigned long)run.gx * run.gy;
  run.d_grid.reset(new DeviceArray<unsigned int>(cells, true));
  run.excluded.assign(cells, PTCL_BOX{});
  run.peak_index.assign(cells, 0);
  run.peak_score.assign(cells, 0.0f);
  run.peak_angle.assign(cells, 0.0f);
  // The store and the scan's batch share what this process may use of the
  // memory left: the store half of it, the batch half of the rest (the
  // first micrograph still needs room for its temporaries). Both are fixed
  // here for the whole run.
  const unsigned long available = gvex_memory_available();
  const unsigned long store = gvex_scan_store_budget(available, run.store_sharers);
  int batch = 0;
  if (gvex_on_gpu()) {
    const unsigned long share = available / (unsigned long)(run.store_sharers > 0 ? run.store_sharers : 1);
    const int n_angles = (int)get_rotation_angles((float)p->ang_start, p->ang_end, p->ang_step).size();
    batch = gvex_scan_batch(run.ext, run.ext, n_angles, share > store ? (share - store) / 2 : 0);
  }
  run.ws.reset(new ScanWorkspace(store, batch));
}

// Diagnostic image of the working size beside the micrograph.
static void write_working_image(const char* mic, const char* suffix, const float* d_img, int ext, int nz) {
  char name[GVEX_NAME_LEN];
  set_outname_by_suffix(name, mic, suffix);
  mrcf_write_xyz_ddata(name, d_img, ext, ext, nz);
}

void gvexmatch_pick_micrograph(GVexRun& run, const char* mic, FILE* nonunique, const char* nonunique_name,
                               const char* excluded_name) {
  GVexMatch_Para* p = run.p;
  const int ext = run.ext;
  const unsigned long n2 = (unsigned long)ext * ext;
  float* d_mic = run.d_mic->get();
  float* d_mask = run.d_mask->get();
  unsigned int* d_grid = run.d_grid->get();
  const float apix = p->apixM * p->shrink;
  const int2 origin = {0, 0};

  OwnedFile owned_nonunique(nonunique);  // closed below, or by a failure unwinding
  printf("Normalizing the micrograph %s ...\n", mic);
  const bool shrunk = run.shrunk_ready;
  run.shrunk_ready = false;
  if (!shrunk) cpu_2d_meanshrink_extended_even_square(run.h_shrunk.data(), run.h_raw.data(), run.nx, run.ny, p->shrink);
  memcpy_H2D(d_mic, run.h_shrunk.data(), n2 * sizeof(float));
  if (p->do_pre_filter)  // low-pass at the shrunk image's Nyquist limit; pre_lp plays no part
    hcuda_2d_bandpass_softR_mpad_inplace(d_mic, ext, apix, 2.0f * p->apixM * p->shrink, p->pre_hp, 8.0f);
  if (p->write_pref_mic) write_working_image(mic, "_pref.mrc", d_mic, ext, 1);
  hcuda_normz_inplace(d_mic, n2, 1.0f, 0.0f);

  hcuda_empty(d_grid, (unsigned long)run.gx * run.gy * sizeof(unsigned int));
  if (p->detect_ice) {
    IceSettings ice;
    ice.cell = run.cell;
    ice.shrink = p->shrink;
    ice.lsigma_r = p->lsigma_r;
    ice.lave_r = p->lave_r;
    ice.edge = p->local_edge;
    ice.lave_min = p->lave_min;
    ice.lave_max = p->lave_max;
    ice.lsigma_cutoff = p->lsigma_cutoff;
    ice.write_rejected = p->write_rejected_box != 0;
    ice.write_bg = p->write_bg_mic != 0;
    ice.write_lsigma = p->write_lsigma_mic != 0;
    hcuda_2d_ice_detect(d_mic, ext, ext, origin, d_grid, mic, ice);
  }
  if (p->mask_excluded && run.n_excluded > 0)
    add_excluded_coords_to_ice(d_grid, ext, ext, run.cell, run.excluded.data(), run.n_excluded, p->shrink);
  if (!is_str_null(p->global_excluded_box))
    add_excluded_boxf_to_ice(d_grid, ext, ext, run.cell, p->global_excluded_box, p->shrink);
  if (p->do_bandpass) hcuda_2d_bandpass_guas_mpad_inplace(d_mic, ext, apix, p->lp, p->hp);
  hcuda_normz_inplace(d_mic, n2, 1.0f, 0.0f);
  hcuda_2d_generate_mask_by_coords(d_mask, d_mic, ext, ext, run.cell, d_grid, 0);
  if (p->write_mic_mask) write_working_image(mic, "_mask.mrc", d_mask, ext, 1);
  hcuda_norm_withmask_inplace(d_mic, d_mask, n2, 1.0f, 0.0f);
  if (p->write_bgfree_mic) write_working_image(mic, "_bgfree.mrc", d_mic, ext, 1);
  gvex_timer_pop("NORMALIZATION");
  gvex_timer_push();

  const unsigned long cells = (unsigned long)run.gx * run.gy;
  const int box = p->boxsize / p->shrink;
  for (int t = 0; t < run.tnz; t++) {
    printf("Template %03d\n", t + 1);
    float* d_t = run.d_T->get() + (unsigned long)t * run.tnx * run.tny;
    vexmatch_ccmax_psi_by_one_template(d_mic, d_mask, run.d_ccmax->get(), run.d_psi->get(), 1, ext, ext, d_t,
                                       run.tnx, run.tny, p->template_r, (float)p->ang_start, p->ang_end, p->ang_step,
                                       run.ws.get());
    gpu_find_filter_ccmax_psi_grids_exclusive(run.d_ccmax->get(), run.d_psi->get(), run.peak_index.data(),
                                              run.peak_score.data(), run.peak_angle.data(), p->cc_cutoff, ext, ext,
                                              run.cell, d_grid, (unsigned int)cells);
    output_vexmatch_coord_one_temp(nonunique, run.peak_index.data(), run.peak_score.data(), run.peak_angle.data(),
                                   t + 1, (int)cells, ext, ext, box);
    if (p->write_ccmax_mic) memcpy_D2H(run.h_ccmax.data() + n2 * t, run.d_ccmax->get(), n2 * sizeof(float));
  }
  if (p->write_ccmax_mic) {
    char name[GVEX_NAME_LEN];
    set_outname_by_suffix(name, mic, "_ccmax.mrc");
    mrcf_write_xyz_data(name, run.h_ccmax.data(), ext, ext, run.tnz);
  }
  if (fclose(owned_nonunique.release()) != 0) gvex_open_write_failed(nonunique_name, "gvexmatch_pick_micrograph", "gvexmatch56", __LINE__);

  // Merge all templates' candidates into the final picks, in micrograph pixels.
  // The merge sees only the shrunk micrograph itself: for a non-square one
  // the rest of the square is a mirror image, and its picks would lie
  // outside the micrograph.
  const int mx = hd_even_shrink_size(run.nx, p->shrink), my = hd_even_shrink_size(run.ny, p->shrink);
  char box_name[GVEX_NAME_LEN], star_name[GVEX_NAME_LEN], in_name[GVEX_NAME_LEN], ex_name[GVEX_NAME_LEN];
  set_outname_by_suffix(box_name, mic, "_vexmatch.box");
  set_outname_by_suffix(star_name, mic, "_vexmatch.star");
  snprintf(in_name, sizeof in_name, "%s", nonunique_name);
  snprintf(ex_name, sizeof ex_name, "%s", excluded_name);
  // Both coordinate files are complete before either becomes final, and the
  // commit stays open until the particles cut at them are written too, so
  // --do_unfinished never takes a half-done micrograph as finished.
  const std::string box_tmp = gvex_part_name(box_name), star_tmp = gvex_part_name(star_name);
  PartialFiles partial{{box_tmp, star_tmp}};
  std::vector<std::string> finals{box_name};
  std::vector<char> out(box_tmp.begin(), box_tmp.end() + 1);
  box_filter(mx, my, p->min_dist_px, p->cc_cutoff, (float)p->shrink, p->boxsize, p->boxsize, origin, in_name, ex_name,
             out.data(), 2);
  if (p->write_star) {
    out.assign(star_tmp.begin(), star_tmp.end() + 1);
    box_filter(mx, my, p->min_dist_px, p->cc_cutoff, (float)p->shrink, p->boxsize, p->boxsize, origin, in_name,
               ex_name, out.data(), 1);
    finals.push_back(star_name);
  }
  gvex_test_stop_point("merged");
  const std::string marker = gvexmatch_commit_marker(mic);
  const std::string failed = gvex_commit_together(finals, marker);
  if (!failed.empty()) io_write_failed(failed.c_str(), "gvexmatch_pick_micrograph", gvex_module, __LINE__);
  partial.names.clear();
  gvex_test_stop_point("committed");
  if (p->extract_raw) mrcf_x2d_extract_ptcls_from_micrograph(mic, box_name, p->boxsize, 0);
  gvex_end_commit(marker);

  printf("File %s finished.\n", mic);
  gvex_timer_pop("PICKING");
}

std::string gvexmatch_commit_marker(const char* mic) {
  char name[GVEX_NAME_LEN];
  set_outname_by_suffix(name, mic, "_vexmatch.commit");
  return name;
}
