// Run driver: one batch of micrographs, start to summary.
#include <cstdio>
#include <memory>

#include "common/strutil.h"
#include "gpu/device.h"
#include "picker/help.h"
#include "picker/params.h"
#include "picker/run.h"
#include "picker/timer.h"

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

  // Owned so that a failure unwinding through here frees it too.
  std::unique_ptr<GVexMatch_Para, void (*)(GVexMatch_Para*)> owned(new GVexMatch_Para(), gvexmatch_delete_parameters);
  GVexMatch_Para* para = owned.get();
  gvexmatch_init_parameters(argc, para);
  gvexmatch_get_parameters(argc, argv, para);  // ends the run on bad input
  gvexmatch_fput_parameters(argc, argv, para, stdout);
  gvexmatch_check_values(para);
  fputs(gvex_device_activate(para->gid), stdout);

  gvexmatch_run(para, prog);

  gvexmatch_summary(para);
  owned.reset();
  gvex_timer_pop("TOTAL");
  for (int i = 0; i < 129; i++) putchar('#');
  printf("\n\n");
  gvexmatch_put_one_random_tip();
  return 0;
}
