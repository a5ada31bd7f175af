// Banner, help, tips and notices. The help shows its own default values,
// which are not everywhere the record's; the record is what runs.
#include "picker/help.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/time.h>

#include "common/errors.h"
#include "picker/options.h"

namespace {

const char* const kVersion = "v0.56";
const char* const kDate = "2017-07-30";

const char* const k_tips[GVEX_N_TIPS] = {
    "\033[1m Tips\033[m: Run gvexmatch from your project folder, outside the micrograph directory "
    "(e.g. gvexmatch Micrographs/*.mrc): the coordinate files then carry the paths that downstream "
    "programs expect.",
    "\033[1m Tips\033[m: Pick on micrographs before CTF correction (the motion-corrected sums, not "
    "phase-flipped or CTF-filtered ones).",
    "\033[1m Tips\033[m: Templates are expected as white particles on a dark background and are inverted "
    "to match the dark particles of the micrographs; if your templates are already dark, add --dont_invertT.",
    "\033[1m Tips\033[m: --speed 0..4 shrinks the micrographs by 1, 2, 4, 6 or 8; use a lower level for "
    "small particles or large pixels, a higher one for large particles.",
    "\033[1m Tips\033[m: --lsigma_cutoff decides how much carbon, ice and contamination is rejected: lower "
    "it (e.g. 1.1) when such areas are picked, raise it when good areas are lost.",
    "\033[1m Tips\033[m: --lp --hp set the band-pass used before matching; a low-pass of about a quarter "
    "of the particle diameter is a good start, and --hp should stay well above the diameter.",
    "\033[1m Tips\033[m: --exclusive_picking with --excluded_suffix (e.g. _manual.star) leaves out the "
    "particles already listed beside each micrograph, so that a second round picks only new ones.",
    "\033[1m Manual\033[m: a brief manual is at https://gvexmatch.example.org/manual.html",
    "\033[1m Enjoy\033[m: happy picking!",
};

void put_ruler(char c, int n) { printf("%s\n", std::string(n, c).c_str()); }

}  // namespace

void gvexmatch_put_info(const char* prog) {
  put_ruler('*', 99);
  printf("Version:       %s %s, updated on %s\n", prog, kVersion, kDate);
  printf("Author:        the gvexmatch developers\n");
  printf("Contact:       see README.md in the source tree\n");
  printf("Description:   This is a GPU accelerated program for fully automatic particle picking.\n");
  printf("Note:          Still under development, to be released soon ...\n");
  put_ruler('*', 99);
}

void gvexmatch_help(const char* prog) {
  gvexmatch_put_info(prog);
  printf("Usage:\n");
  printf("         %s [options] <micrographs>  \n\n", prog);
  printf("Options:\n");
  gvex_put_help_rows();
  printf("Examples:\n");
  printf("    %s --apixM 1.34 --diameter 300 Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.34 --diameter 200 --T templates.mrcs --apixT 2.68 Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.0 --diameter 160 --speed 1 --cc_cutoff 0.2 Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.34 --diameter 300 --do_unfinished Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.34 --diameter 300 --exclusive_picking --excluded_suffix _manual.star Micrographs/*.mrc\n",
         prog);
  printf("\n    %-34sprint this help and all usage tips of Gvexmach\n\n", "--help");
}

void gvexmatch_help_full(const char* prog) {
  gvexmatch_help(prog);
  gvexmatch_put_all_tips();
}

void gvexmatch_help_exit(const char* prog, const char* why) {
  gvexmatch_help(prog);
  gvex_fatal("gvexmatch_help_exit", "vexmatch56", 1322, why);
}

void gvexmatch_put_all_tips() {
  put_ruler('-', 127);
  for (const char* tip : k_tips) printf("%s\n", tip);
  put_ruler('-', 127);
}

void gvexmatch_put_tip_for_seed(long seconds) {
  srand((unsigned int)seconds);
  const int r = rand();
  put_ruler('-', 127);
  printf("%s", k_tips[r % GVEX_N_TIPS]);
  put_ruler('-', 127);
}

void gvexmatch_put_one_random_tip() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  gvexmatch_put_tip_for_seed((long)tv.tv_sec);
}
