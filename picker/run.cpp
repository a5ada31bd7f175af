// gvexmatch's driver: one batch of micrographs, start to summary.
#include "picker/run.h"

#include <cstdio>
#include <string>

#include "common/strutil.h"
#include "gpu/device.h"
#include "picker/help.h"
#include "picker/params.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"

namespace {

void ruler(char c, int n) {
  for (int i = 0; i < n; i++) putchar(c);
  putchar('\n');
}

bool choose_gpu(int& gid) { return check_and_set_gid(gid) == 0; }

// The first micrograph from i on that --do_unfinished will not skip, or "".
std::string next_to_pick(const PickSession& s, const GVexMatch_Para& p, int i) {
  for (; i < p.n_mic; i++)
    if (!s.looks_finished(p.mic_files[i])) return p.mic_files[i];
  return "";
}

}  // namespace

int gvexmatch_main(int argc, char** argv) {
  const char* prog = argc > 0 && argv[0] ? argv[0] : "gvexmatch";
  gvex_timer_push();  // run total
  gvex_timer_push();  // preparation
  if (argc < 2) {
    gvexmatch_help(prog);
    return 0;
  }
  if (is_keywd_help(argv[1])) {
    gvexmatch_help_full(prog);
    return 0;
  }
  ParaPtr para = gvexmatch_start(argc, argv, choose_gpu);
  fputs(gvex_device_activate(para->gid), stdout);
  gvexmatch_run(*para, prog);
  gvexmatch_summary(*para);
  para.reset();
  gvex_timer_pop("TOTAL");
  ruler('#', 129);
  printf("\n");
  gvexmatch_put_one_random_tip();
  return 0;
}

void gvexmatch_run(const GVexMatch_Para& p, const char* prog) {
  const Reference ref = gvexmatch_reference(p, prog);
  PickSession session(derive(options_from_record(p)));
  session.prepare(ref.head, ref.name, 1, next_to_pick(session, p, 0));
  gvex_timer_pop("PREPARATION");
  for (int i = 0; i < p.n_mic; i++) {
    PickResult r = session.pick(p.mic_files[i], next_to_pick(session, p, i + 1));
    if (r.outcome == PickResult::Outcome::failed) throw r.failure;
  }
}

void gvexmatch_summary(const GVexMatch_Para& p) {
  ruler('#', 129);
  printf("All %d files finished successfully:\n", p.n_mic);
  for (int i = 0; i < p.n_mic; i++) printf("        %s\n", p.mic_files[i]);
}
