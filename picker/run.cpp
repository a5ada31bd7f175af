// Run driver after the parameter echo: reference micrograph, preparation,
// the loop over micrographs in command-line order, and the summary.
#include "picker/run.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/stop_point.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "io/boxfile.h"
#include "io/mrcfile.h"
#include "picker/help.h"
#include "picker/params.h"
#include "picker/pipeline.h"
#include "picker/prefetch.h"
#include "picker/timer.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "gvexmatch56";

static void ruler(char c, int n) {
  for (int i = 0; i < n; i++) putchar(c);
  putchar('\n');
}

// "FR": the file exists and is readable.
static bool file_readable(const char* name) { return access(name, F_OK) == 0 && access(name, R_OK) == 0; }

bool is_file_vexmatch_done(const char* box_name, const char* star_name) {
  return file_readable(box_name) || file_readable(star_name);
}

// The first readable micrograph fixes the sizes of the whole run; missing
// or unreadable names are only warned about here.
static MRC_HEAD* check_access_openf_1st(GVexMatch_Para* p, const char* prog) {
  for (int i = 0; i < p->n_mic; i++) {
    const char* name = p->mic_files[i];
    if (access(name, F_OK) != 0) {
      printf(GVEX_CRIT_ON "Warning in function %s(), file %s on line %d: the micrograph %s does NOT exsit! "
                          "Automatically ignored!" GVEX_CRIT_OFF "\n\n",
             "check_access_openf_1st", "gvexmatch56", __LINE__, name);
      continue;
    }
    if (access(name, R_OK) != 0) {
      printf(GVEX_CRIT_ON "Warning in function %s(), file %s on line %d: the micrograph %s are NOT readable! "
                          "Automatically ignored!" GVEX_CRIT_OFF "\n\n",
             "check_access_openf_1st", "gvexmatch56", __LINE__, name);
      continue;
    }
    printf("Opening %s for initial test and preperation .......\n", name);
    OwnedFile fp(fopen(name, "r"));
    if (!fp) gvex_open_read_failed(name, "check_access_openf_1st", "gvexmatch56", __LINE__);
    p->first_mic = p->mic_files[i];
    Owned<MRC_HEAD> head(mrc_new_head());
    mrc_read_head(fp.get(), head.get());
    return head.release();
  }
  gvexmatch_help_exit(prog, "No valid files to be processed.");
}

MRC_HEAD* gvexmatch_reference(GVexMatch_Para* p, const char* prog) {
  Owned<MRC_HEAD> ref(check_access_openf_1st(p, prog));
  if (!mrc_mode_is_readable(ref->mode)) {
    char why[GVEX_NAME_LEN + 128];
    snprintf(why, sizeof why, "the pixels of %s are of mode %d (%s), which cannot be read; modes 0, 1, 2 and 6 can",
             p->first_mic, ref->mode, mrc_get_head_mode(ref.get()));
    GVEX_FAIL(why);
  }
  return ref.release();
}

// Whether --do_unfinished will skip micrograph i, as far as can be told now
// (a name too long to derive is its own turn's failure).
static bool looks_finished(const GVexMatch_Para* p, int i) {
  if (!p->do_unfinished) return false;
  char box_name[GVEX_NAME_LEN], star_name[GVEX_NAME_LEN];
  try {
    set_outname_by_suffix(box_name, p->mic_files[i], "_vexmatch.box");
    set_outname_by_suffix(star_name, p->mic_files[i], "_vexmatch.star");
  } catch (const GvexFailure&) {
    return false;
  }
  return is_file_vexmatch_done(box_name, star_name);
}

// Starts reading the first micrograph from i on that will not be skipped.
static void read_ahead(MicPrefetch& ahead, const GVexMatch_Para* p, int i) {
  while (i < p->n_mic && looks_finished(p, i)) i++;
  if (i < p->n_mic) ahead.start(i, p->mic_files[i]);
}

bool gvexmatch_process_one(GVexRun& run, const MRC_HEAD& ref, int i, MicPrefetch* ahead) {
  GVexMatch_Para* p = run.p;
  const char* mic = p->mic_files[i];
  gvex_timer_push();
  printf("\n");
  ruler('-', 129);

  char nonunique[GVEX_NAME_LEN], box_name[GVEX_NAME_LEN], star_name[GVEX_NAME_LEN], excluded[GVEX_NAME_LEN];
  set_outname_by_suffix(box_name, mic, "_vexmatch.box");
  set_outname_by_suffix(star_name, mic, "_vexmatch.star");
  set_name_shrinked_box(nonunique, mic, p->shrink);
  if (p->exclusive_picking)
    set_outname_by_suffix(excluded, mic, p->excluded_suffix);
  else
    snprintf(excluded, sizeof excluded, "NULL");

  // What a killed run left of an unfinished commit is undone first.
  gvex_undo_commit(gvexmatch_commit_marker(mic));
  gvex_test_stop_point("micrograph");
  // The timer started above stays on the stack for a skipped micrograph.
  if (p->do_unfinished && is_file_vexmatch_done(box_name, star_name)) {
    printf("Micrograph %s has already been processed. Automatically skipped.\n", mic);
    return false;
  }

  OwnedFile fnon(fopen(nonunique, "w+"));
  if (!fnon) gvex_open_write_failed(nonunique, "main", "gvexmatch56", 185);
  OwnedFile fmic(fopen(mic, "r"));
  if (!fmic) gvex_open_read_failed(mic, "main", "gvexmatch56", 187);
  MRC_HEAD head;
  mrc_read_head(fmic.get(), &head);
  check_mrc_head_sizes_two(mic, p->first_mic, &head, &ref);
  printf("Reading File %s ...\n", mic);
  run.shrunk_ready = ahead && ahead->take(i, fmic.get(), head, run.h_raw, run.h_shrunk);
  if (!run.shrunk_ready) mrc_read_slice(fmic.get(), &head, 0, 'z', run.h_raw.data());
  fmic.reset();
  if (ahead) read_ahead(*ahead, p, i + 1);

  if (!is_str_null(excluded) && file_readable(excluded)) {
    run.n_excluded = read_all_ptcl_boxes(run.excluded.data(), (int)run.excluded.size(), excluded);
    printf("%8d particles in file %s excluded from auto-picking \n", run.n_excluded, excluded);
  } else {
    snprintf(excluded, sizeof excluded, "NULL");
    run.n_excluded = 0;
  }
  gvex_timer_pop("READING");
  gvex_timer_push();
  gvexmatch_pick_micrograph(run, mic, fnon.release(), nonunique, excluded);
  return true;
}

int gvexmatch_run(GVexMatch_Para* p, const char* prog) {
  Owned<MRC_HEAD> ref(gvexmatch_reference(p, prog));
  GVexRun run;
  run.p = p;
  gvexmatch_working_sizes(run, ref->nx, ref->ny);
  // Its thread ends with the scope, on every way out of the run.
  // On a GPU the host cores are idle but for this read: half of them shrink.
  const int read_threads = gvex_on_gpu() ? (gvex_host_threads() + 1) / 2 : 1;
  MicPrefetch ahead(*ref, p->shrink, run.ext, read_threads);
  read_ahead(ahead, p, 0);  // the first micrograph, while the templates are prepared
  gvexmatch_prepare_run(run);
  gvex_timer_pop("PREPARATION");
  for (int i = 0; i < p->n_mic; i++) gvexmatch_process_one(run, *ref, i, &ahead);
  return 0;
}

void gvexmatch_summary(GVexMatch_Para* p) {
  ruler('#', 129);
  printf("All %d files finished successfully:\n", p->n_mic);
  for (int i = 0; i < p->n_mic; i++) printf("        %s\n", p->mic_files[i]);
}
