// Banner, help, tips and notices. The help shows its own default values,
// which are not everywhere the record's; the record is what runs.
#include "picker/help.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/time.h>

#include "common/errors.h"

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

const char* const k_notices[2] = {
    "\033[1m Contact\033[m: questions and bug reports: see README.md in the source tree.",
    "\033[1m Discussion\033[m: share experience and ask for help in the project's issue tracker.",
};

struct HelpRow {
  const char* option;
  const char* value;
  const char* text;
};

const HelpRow k_basic[] = {
    {"--apixM", "1.34", "pixel size of the micrographs, Å"},
    {"--diameter", "400", "particle diameter, Å (the longest dimension)"},
    {"--T", "NONE", "template stack (MRC, white particles); NONE: a Gaussian disc is generated"},
    {"--apixT", "1.34", "pixel size of the templates, Å; the same as --apixM when not set"},
};

const HelpRow k_additional[] = {
    {"--ang_step", "5", "in-plane rotation step of the templates, degrees"},
    {"--speed", "2", "speed level 0..4: micrographs are shrunk by 1, 2, 4, 6 or 8"},
    {"--boxsize", "128", "box size of the picked particles, micrograph pixels"},
    {"--min_dist", "300", "minimum distance between two picked particles, Å"},
    {"--cc_cutoff", "0.1", "cross-correlation cutoff; lower values give more picks"},
    {"--lsigma_D", "200", "window diameter of the local sigma, Å"},
    {"--lsigma_cutoff", "1.3", "local sigma cutoff (relative) for carbon, ice and contamination"},
    {"--lave_D", "400", "window diameter of the local average, Å"},
    {"--lave_max", "2.0", "upper cutoff of the local average (relative)"},
    {"--lave_min", "-1.0", "lower cutoff of the local average (relative)"},
    {"--lp", "30", "low-pass of the band-pass filter, Å"},
    {"--hp", "1000", "high-pass of the band-pass filter, Å"},
    {"--do_pre_filter", "", "pre-filter the micrographs before ice detection"},
    {"--pre_lp", "8.0", "low-pass of the pre-filter, Å"},
    {"--pre_hp", "1000", "high-pass of the pre-filter, Å"},
    {"--detect_ice", "1", "detect and reject ice, carbon and contamination"},
    {"--T_norm_type", "1", "template normalisation: 1 mean, 2 background, 3 soft mask"},
    {"--do_bandpass", "1", "band-pass the micrographs before matching"},
};

const HelpRow k_ctf[] = {
    {"--do_ctf", "", "estimate the CTF of each micrograph"},
    {"--do_local_ctf", "", "estimate the CTF locally, per particle"},
    {"--kV", "300", "accelerating voltage, kV"},
    {"--cs", "2.7", "spherical aberration, mm"},
    {"--ac", "0.1", "amplitude contrast"},
};

const HelpRow k_io[] = {
    {"--write_ccmax_mic", "", "write the best cross-correlation maps (_ccmax.mrc)"},
    {"--write_pf_mic", "", "write the phase-flipped micrographs"},
    {"--write_pref_mic", "", "write the pre-filted micrographs (_pref.mrc)"},
    {"--write_bg_mic", "", "write the background of the micrographs"},
    {"--write_bgfree_mic", "", "write the background-free micrographs (_bgfree.mrc)"},
    {"--write_lsigma_mic", "", "write the local sigma maps"},
    {"--write_mic_mask", "", "write the masks of the rejected areas (_mask.mrc)"},
    {"--exclusive_picking", "", "leave out the coordinates found with --excluded_suffix"},
    {"--excluded_suffix", "", "suffix of the coordinate files to exclude, e.g. _manual.star"},
    {"--mask_excluded", "", "also mask the excluded coordinates out of the micrographs"},
    {"--global_excluded_box", "NONE", "coordinate file excluded from every micrograph"},
    {"--do_unfinished", "", "process unfinished micrographs only; finished ones nerve be taken again"},
    {"--dont_invertT", "", "do not invert the contrast of the templates"},
    {"--extract_raw", "", "extract the picked particles from the raw micrographs (_particles.mrcs)"},
    {"--extract_pf", "", "extract the picked particles from the phase-flipped micrographs"},
    {"--gid", "0", "GPU id"},
};

void put_rows(const char* title, const HelpRow* rows, int n) {
  printf("%s\n", title);
  for (int i = 0; i < n; i++) printf("    %-24s%-10s%s\n", rows[i].option, rows[i].value, rows[i].text);
  printf("\n");
}

void put_ruler(char c, int n) { printf("%s\n", std::string(n, c).c_str()); }

}  // namespace

#define GVEX_COUNT(a) ((int)(sizeof(a) / sizeof((a)[0])))

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
  put_rows("Basic options:    default values,    description:  ", k_basic, GVEX_COUNT(k_basic));
  put_rows("Additional options(not suggested, only try to optimize in difficult cases), default values and "
           "description:  ",
           k_additional, GVEX_COUNT(k_additional));
  put_rows("CTF options(not effective in this verion): ", k_ctf, GVEX_COUNT(k_ctf));
  put_rows("I/O options:  ", k_io, GVEX_COUNT(k_io));
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

const char* gvexmatch_tip_text(int i) { return i >= 0 && i < GVEX_N_TIPS ? k_tips[i] : nullptr; }

void gvexmatch_put_ad() {
  put_ruler('-', 127);
  for (const char* note : k_notices) printf("%s\n", note);
  put_ruler('-', 127);
}

void gvexmatch_virus_help(const char* prog) {
  gvexmatch_put_info(prog);
  printf("Usage:\n");
  printf("         %s [options] <micrographs>  \n\n", prog);
  printf("Examples:\n");
  printf("    %s --apixM 1.34 --diameter 700 Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.34 --diameter 700 --shrink 8 Micrographs/*.mrc\n", prog);
  printf("    %s --apixM 1.34 --diameter 300 --T templates.mrcs Micrographs/*.mrc\n", prog);
  printf("\nOptions:\n");
  static const HelpRow k_rows[] = {
      {"--apixM", "1.34", "pixel size of the micrographs, Å"},
      {"--diameter", "400", "particle diameter, Å"},
      {"--T", "NONE", "template stack; NONE: a Gaussian disc is generated"},
      {"--shrink", "4", "down-sampling factor of the micrographs"},
      {"--cc_cutoff", "0.1", "cross-correlation cutoff"},
  };
  put_rows("Basic options:    default values,    description:  ", k_rows, GVEX_COUNT(k_rows));
  printf("Note: particles must be black in the micrographs, and user templates white.\n\n");
}

void gvexmatch_virus_help_full(const char* prog) {
  gvexmatch_virus_help(prog);
  gvexmatch_put_all_tips();
}
