// Start-up shared by gvexmatch and its companions. The line numbers in its
// messages are those of earlier releases: users' scripts match them.
#include "picker/startup.h"

#include <unistd.h>

#include <cstdio>

#include "common/errors.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "gpu/cuda_fft.h"
#include "common/records.h"
#include "picker/help.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "gvexmatch56";

ParaPtr gvexmatch_start(int argc, char** argv, bool (*choose_gpu)(int& gid)) {
  ParaPtr p(new GVexMatch_Para(), gvexmatch_delete_parameters);
  gvexmatch_init_parameters(argc, p.get());
  const ParsedOptions seen = gvexmatch_parse_options(argc, argv, p.get());
  if (!choose_gpu(p->gid)) gvexmatch_help_exit(argv[0], "Failed to find any usable GPU device!");
  gvexmatch_advise(seen, p.get());
  gvexmatch_fput_parameters(argc, argv, p.get(), stdout);
  gvexmatch_check_values(p.get());
  return p;
}

std::string gvex_companion_wisdom(const std::string& option) {
  const char* env = getenv("GVEX_FFTW_WISDOM");
  const std::string named = !option.empty() ? option : env && *env ? env : "";
  std::string why;
  if (named == "none") return "FFT plans: estimated (GVEX_FFTW_WISDOM=none)\n";
  if (named.empty())
    return "FFT plans: " + (gvex_fft_plans_from_wisdom("", why) ? gvex_fft_plans_text() : "estimated, " + why) + "\n";
  if (!gvex_fft_plans_from_wisdom(named, why)) gvex_fatal("gvex_companion_wisdom", gvex_module, __LINE__, why.c_str());
  return "FFT plans: " + gvex_fft_plans_text() + "\n";
}

std::string gvex_take_wisdom_option(int& argc, char** argv) {
  std::string file;
  int out = 1;
  for (int i = 1; i < argc; i++) {
    if (std::string(argv[i]) == "--fftw_wisdom" && i + 1 < argc) {
      file = argv[++i];
      continue;
    }
    argv[out++] = argv[i];
  }
  argc = out;
  argv[argc] = nullptr;
  return file;
}

Reference gvexmatch_reference(const GVexMatch_Para& p, const char* prog, bool skip_damaged) {
  GvexFailure damaged;  // with skip_damaged, the first micrograph passed over
  for (int i = 0; i < p.n_mic; i++) {
    const char* name = p.mic_files[i];
    if (access(name, F_OK) != 0) {
      printf(GVEX_CRIT_ON "Warning in function %s(), file %s on line %d: the micrograph %s does NOT exsit! "
                          "Automatically ignored!" GVEX_CRIT_OFF "\n\n",
             "check_access_openf_1st", "gvexmatch56", 46, name);
      continue;
    }
    if (access(name, R_OK) != 0) {
      printf(GVEX_CRIT_ON "Warning in function %s(), file %s on line %d: the micrograph %s are NOT readable! "
                          "Automatically ignored!" GVEX_CRIT_OFF "\n\n",
             "check_access_openf_1st", "gvexmatch56", 52, name);
      continue;
    }
    printf("Opening %s for initial test and preperation .......\n", name);
    Reference ref;
    ref.name = name;
    try {
      const char* kind = "";
      OwnedFile fp(gvex_open_regular(name, &kind));
      if (!fp && *kind) gvex_not_a_file("micrograph", name, kind, "check_access_openf_1st", "gvexmatch56", 57);
      if (!fp) gvex_open_read_failed(name, "check_access_openf_1st", "gvexmatch56", 57);
      mrc_read_head(fp.get(), &ref.head);
      if (!mrc_mode_is_readable(ref.head.mode)) {
        char why[GVEX_NAME_LEN + 128];
        snprintf(why, sizeof why, "the pixels of %s are of mode %d (%s), which cannot be read; modes 0, 1, 2 and 6 can",
                 name, ref.head.mode, mrc_get_head_mode(&ref.head));
        gvex_fatal("gvexmatch_reference", gvex_module, 72, why);
      }
    } catch (const GvexFailure& f) {
      if (!skip_damaged) throw;
      if (damaged.text.empty()) damaged = f;
      continue;
    }
    return ref;
  }
  // Every micrograph damaged: the first one's reason, not the usage.
  if (!damaged.text.empty()) throw damaged;
  gvexmatch_help_exit(prog, "No valid files to be processed.");
}
