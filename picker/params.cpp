// Options, defaults and the parameter echo.
#include "picker/params.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

#include "common/errors.h"
#include "common/records.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "picker/help.h"

// Module name in this unit's failure lines.
static const char* const kModule = "vexmatch56";

namespace {

enum OptKind { OPT_TEXT, OPT_FLOAT, OPT_INT, OPT_FLAG };

struct OptDesc {
  const char* name;   // matched by keywd_cmp
  OptKind kind;
  size_t offset;      // field in GVexMatch_Para
  const char* label;  // name in the echo
  const char* fmt;    // echo format of the value
};

#define GVEX_OPT(name, kind, field, label, fmt) {name, kind, offsetof(GVexMatch_Para, field), label, fmt}

// Parser order: the first name that matches wins.
const OptDesc k_options[] = {
    GVEX_OPT("T", OPT_TEXT, T, "--T", "%s"),
    GVEX_OPT("apixM", OPT_FLOAT, apixM, "--apixM", "%.3f"),
    GVEX_OPT("apixT", OPT_FLOAT, apixT, "--apixT", "%.3f"),
    GVEX_OPT("diameter", OPT_FLOAT, diameter, "--diameter", "%.2f"),
    GVEX_OPT("ang_step", OPT_FLOAT, ang_step, "--ang_step", "%.2f"),
    GVEX_OPT("speed", OPT_INT, speed, "--speed", "%d"),
    GVEX_OPT("boxsize", OPT_INT, boxsize, "--boxsize", "%d"),
    GVEX_OPT("min_dist", OPT_FLOAT, min_dist, "--min_dist", "%.2f"),
    GVEX_OPT("update_T", OPT_FLAG, update_T, "--update_T", "%d"),
    GVEX_OPT("cc_cutoff", OPT_FLOAT, cc_cutoff, "--cc_cutoff", "%.3f"),
    GVEX_OPT("lsigma_cutoff", OPT_FLOAT, lsigma_cutoff, "--lsigma_cutoff", "%.3f"),
    GVEX_OPT("lave_max", OPT_FLOAT, lave_max, "--lave_max", "%.3f"),
    GVEX_OPT("lave_min", OPT_FLOAT, lave_min, "--lave_min", "%.3f"),
    GVEX_OPT("lsigma_D", OPT_FLOAT, lsigma_D, "--lsigma_D", "%.3f"),
    GVEX_OPT("lave_D", OPT_FLOAT, lave_D, "--lave_D", "%.3f"),
    GVEX_OPT("lp", OPT_FLOAT, lp, "--lp", "%.3f"),
    GVEX_OPT("hp", OPT_FLOAT, hp, "--hp", "%.3f"),
    GVEX_OPT("pre_lp", OPT_FLOAT, pre_lp, "--pre_lp", "%.3f"),
    GVEX_OPT("pre_hp", OPT_FLOAT, pre_hp, "--pre_hp", "%.3f"),
    GVEX_OPT("do_pre_filter", OPT_FLAG, do_pre_filter, "--do_pre_filter", "%d"),
    GVEX_OPT("dont_invertT", OPT_FLAG, dont_invertT, "--dont_invertT", "%d"),
    GVEX_OPT("detect_ice", OPT_FLAG, detect_ice, "--detect_ice", "%d"),
    GVEX_OPT("T_norm_type", OPT_INT, T_norm_type, "--T_norm_type", "%d"),
    GVEX_OPT("center1_ratio", OPT_FLOAT, center1_ratio, "--center1_ratio", "%.3f"),
    GVEX_OPT("do_bandpass", OPT_FLAG, do_bandpass, "--do_bandpass", "%d"),
    GVEX_OPT("do_ctf", OPT_FLAG, do_ctf, "--do_ctf", "%d"),
    GVEX_OPT("do_local_ctf", OPT_FLAG, do_local_ctf, "--local_ctf", "%d"),
    GVEX_OPT("kv", OPT_FLOAT, kV, "--kV", "%.2f"),
    GVEX_OPT("cs", OPT_FLOAT, cs, "--cs", "%.2f"),
    GVEX_OPT("ac", OPT_FLOAT, ac, "--ac", "%.2f"),
    GVEX_OPT("write_ccmax_mic", OPT_FLAG, write_ccmax_mic, "--write_ccmax_mic", "%d"),
    GVEX_OPT("write_pf_mic", OPT_FLAG, write_pf_mic, "--write_pf_mic", "%d"),
    GVEX_OPT("write_pref_mic", OPT_FLAG, write_pref_mic, "--write_pref_mic", "%d"),
    GVEX_OPT("write_bg_mic", OPT_FLAG, write_bg_mic, "--write_bg_mic", "%d"),
    GVEX_OPT("write_bgfree_mic", OPT_FLAG, write_bgfree_mic, "--write_bgfree_mic", "%d"),
    GVEX_OPT("write_lsigma_mic", OPT_FLAG, write_lsigma_mic, "--write_lsigma_mic", "%d"),
    GVEX_OPT("write_mic_mask", OPT_FLAG, write_mic_mask, "--write_mic_mask", "%d"),
    GVEX_OPT("write_star", OPT_FLAG, write_star, "--write_star", "%d"),
    GVEX_OPT("do_unfinished", OPT_FLAG, do_unfinished, "--do_unfinished", "%d"),
    GVEX_OPT("exclusive_picking", OPT_FLAG, exclusive_picking, "--exclusive_picking", "%d"),
    GVEX_OPT("mask_excluded", OPT_FLAG, mask_excluded, "--mask_excluded", "%d"),
    GVEX_OPT("excluded_suffix", OPT_TEXT, excluded_suffix, "--excluded_suffix", "%s"),
    GVEX_OPT("global_excluded_box", OPT_TEXT, global_excluded_box, "--global_excluded_box", "%s"),
    GVEX_OPT("extract_raw", OPT_FLAG, extract_raw, "--extract_raw", "%d"),
    GVEX_OPT("extract_pf", OPT_FLAG, extract_pf, "--extract_pf", "%d"),
    GVEX_OPT("gid", OPT_INT, gid, "--gid", "%d"),
};
#undef GVEX_OPT

constexpr int kNumOptions = (int)(sizeof k_options / sizeof k_options[0]);
static_assert(kNumOptions == 46, "the parser knows 46 options");

int find_option(const char* word) {
  for (int k = 0; k < kNumOptions; k++)
    if (keywd_cmp(word, k_options[k].name)) return k;
  return -1;
}

float& float_field(GVexMatch_Para* p, const OptDesc& o) {
  return *reinterpret_cast<float*>(reinterpret_cast<char*>(p) + o.offset);
}
int& int_field(GVexMatch_Para* p, const OptDesc& o) {
  return *reinterpret_cast<int*>(reinterpret_cast<char*>(p) + o.offset);
}
char* text_field(GVexMatch_Para* p, const OptDesc& o) {
  return *reinterpret_cast<char**>(reinterpret_cast<char*>(p) + o.offset);
}

bool given(const bool* seen, const char* name) {
  for (int k = 0; k < kNumOptions; k++)
    if (strcmp(k_options[k].name, name) == 0) return seen[k];
  return false;
}

// (int) of a double that may not fit: NaN gives 0, out of range saturates.
int trunc_to_int(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT_MAX;
  if (v <= -2147483648.0) return INT_MIN;
  return (int)v;
}

void compute_derived_fields(GVexMatch_Para* p) {
  const float s = (float)p->shrink;
  p->min_dist_px = p->min_dist / (s * p->apixM);
  p->template_r = p->template_r_scale * p->diameter / (s * 2 * p->apixM);
  p->lsigma_r = p->lsigma_D / (s * 2 * p->apixM);
  p->lave_r = p->lave_D / (s * 2 * p->apixM);
}

[[noreturn]] void unknown_option(const char* word) {
  char line[GVEX_NAME_LEN + 256];
  snprintf(line, sizeof line,
           GVEX_CRIT_ON "CRITICAL ERROR:" GVEX_CRIT_OFF
                        "in function %s(), file %s on line %d. Failed to recognize option: " GVEX_CRIT_ON
                        "%s!" GVEX_CRIT_OFF " Exit now. Check your input please.\n\n",
           "gvexmatch_get_parameters", kModule, 977, word);
  // Status 0: an unknown option is not treated as an error.
  gvex_throw(line + gvexmatch_valid_options_text(), 0);
}

char* new_text_buffer(const char* init) {
  char* b = (char*)calloc(GVEX_NAME_LEN, 1);
  if (!b) gvex_fatal("gvexmatch_init_parameters", kModule, __LINE__, "out of host memory");
  strcpy(b, init);
  return b;
}

}  // namespace

void gvexmatch_init_parameters(int argc, GVexMatch_Para* p) {
  p->mic_files = (char**)calloc(argc > 0 ? argc : 1, sizeof(char*));
  if (!p->mic_files) gvex_fatal("gvexmatch_init_parameters", kModule, __LINE__, "out of host memory");
  p->T = new_text_buffer("NULL");
  p->dont_invertT = 0;
  p->apixM = 1.34f;
  p->apixT = 1.34f;
  p->diameter = 400.0f;
  p->min_dist = 300.0f;
  p->boxsize = 128;
  p->shrink = 4;
  p->speed = 2;
  p->ang_step = 5.0f;
  p->update_T = 0;
  p->cc_cutoff = 0.15f;
  p->lp = 40.0f;
  p->hp = 1000.0f;
  p->pre_lp = 8.0f;
  p->pre_hp = 1000.0f;
  p->T_norm_type = 1;
  p->center1_ratio = 0.05f;
  p->do_bandpass = 1;
  p->do_ctf = 0;
  p->do_local_ctf = 0;
  p->kV = 300.0f;
  p->cs = 2.7f;
  p->ac = 0.1f;
  p->lave_max = 1.0f;
  p->lave_min = -1.0f;
  p->lsigma_cutoff = 1.3f;
  p->lsigma_D = 100.0f;
  p->lave_D = 400.0f;
  p->write_ccmax_mic = 0;
  p->do_pre_filter = 0;
  p->detect_ice = 1;
  p->write_pref_mic = 0;
  p->write_pf_mic = 0;
  p->write_bg_mic = 0;
  p->write_bgfree_mic = 0;
  p->write_lsigma_mic = 0;
  p->write_mic_mask = 0;
  p->do_unfinished = 0;
  p->excluded_suffix = new_text_buffer("NULL");
  p->exclusive_picking = 0;
  p->mask_excluded = 0;
  p->global_excluded_box = new_text_buffer("NULL");
  p->write_rejected_box = 1;
  p->write_star = 1;
  p->extract_raw = 0;
  p->extract_pf = 0;
  p->gid = 0;
  p->n_mic = 0;
  p->local_edge = 8.0f;
  p->template_r_scale = 1.3f;
  p->aux_ratio = 1.2f;
  p->auto_template = 1;
  p->ang_start = 0;
  p->ang_end = 359.0f;
  p->first_mic = nullptr;
  p->min_dist_given = 0;
  compute_derived_fields(p);
}

void gvexmatch_speed2shrink(int& speed, int& shrink) {
  static const int k_shrink[5] = {1, 2, 4, 6, 8};
  if (speed < 0 || speed > 4)
    gvex_fatal("gvexmatch_speed2shrink", kModule, 896, "speed level must belong to {0,1,2,3,4}");
  shrink = k_shrink[speed];
}

int gvexmatch_get_parameters(int argc, char** argv, GVexMatch_Para* p) {
  bool seen[kNumOptions] = {};
  for (int i = 1; i < argc; i++) {
    const char* word = argv[i];
    const int k = find_option(word);
    if (k < 0) {
      if (word[0] == '-') unknown_option(word);
      p->mic_files[p->n_mic++] = argv[i];
      continue;
    }
    const OptDesc& o = k_options[k];
    seen[k] = true;
    if (o.kind == OPT_FLAG) {
      get_bool_keyword(argc, argv, int_field(p, o), i);
      continue;
    }
    if (i + 1 >= argc) {
      char why[128];
      snprintf(why, sizeof why, "option %s needs a value", o.label);
      gvex_fatal("gvexmatch_get_parameters", kModule, __LINE__, why);
    }
    const char* value = argv[++i];
    switch (o.kind) {
      case OPT_FLOAT:
        float_field(p, o) = (float)atof(value);
        break;
      case OPT_INT:
        int_field(p, o) = atoi(value);
        // Resolved at once, so no other option can change the outcome.
        if (&int_field(p, o) == &p->speed) gvexmatch_speed2shrink(p->speed, p->shrink);
        break;
      default:
        if (!str_copy_fits(text_field(p, o), value, GVEX_NAME_LEN)) {
          char why[128];
          snprintf(why, sizeof why, "the value of option %s is longer than %d characters", o.label,
                   GVEX_NAME_LEN - 1);
          gvex_fatal("gvexmatch_get_parameters", kModule, __LINE__, why);
        }
        break;
    }
  }

  if (strcasecmp(p->T, "NULL") != 0 && strcasecmp(p->T, "NONE") != 0) p->auto_template = 0;

  // Defaults that follow the particle size, unless the user set them.
  const double d = p->diameter;
  p->min_dist_given = given(seen, "min_dist") ? 1 : 0;
  if (!given(seen, "min_dist")) p->min_dist = (float)(0.8 * d);
  if (!given(seen, "boxsize")) p->boxsize = 2 * (trunc_to_int(d * 1.33 / (double)p->apixM) / 2);
  if (!given(seen, "lsigma_D")) p->lsigma_D = (float)(0.5 * d + 100);
  if (!given(seen, "lave_D")) p->lave_D = (float)(0.3 * d + 200);
  compute_derived_fields(p);

  if (p->n_mic == 0) gvexmatch_help_exit(argv[0], "No valid files to be processed.");
  if (check_and_set_gid(p->gid) == -1) gvexmatch_help_exit(argv[0], "Failed to find any usable GPU device!");

  if (!given(seen, "diameter"))
    printf("Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n");
  if (!given(seen, "T"))
    printf("Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be "
           "used. This is fine for 'spherical particles' like virus or ribosome. Do use templates for "
           "non-spherical particles.\n");
  if (!given(seen, "apixM"))
    printf("Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be "
           "1.34Å by default.\n");
  if (!given(seen, "apixT")) {
    printf("Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the "
           "same as micrographs by default.\n");
    p->apixT = p->apixM;
  }
  return 0;
}

// ---- echo ----

static void put_row(FILE* fp, const char* label) { fprintf(fp, "       %-20s ", label); }
static void put_f(FILE* fp, const char* label, const char* fmt, float v) {
  put_row(fp, label);
  fprintf(fp, fmt, v);
  fputc('\n', fp);
}
static void put_d(FILE* fp, const char* label, int v) {
  put_row(fp, label);
  fprintf(fp, "%d\n", v);
}
static void put_s(FILE* fp, const char* label, const char* v) {
  put_row(fp, label);
  fprintf(fp, "%s\n", v ? v : "");
}

void gvexmatch_fput_parameters(int argc, char** argv, GVexMatch_Para* p, FILE* fp) {
  fprintf(fp, "%s\n", std::string(99, '*').c_str());
  fprintf(fp, "User input parameters:\n");
  for (int i = 1; i < argc; i++) {
    const int k = find_option(argv[i]);
    if (k < 0) continue;
    const OptDesc& o = k_options[k];
    if (o.kind == OPT_FLAG) {
      int v = 0;
      get_bool_keyword(argc, argv, v, i);
      put_d(fp, o.label, v);
      continue;
    }
    if (i + 1 >= argc) break;  // the parser refuses this; nothing to re-read
    const char* value = argv[++i];
    if (o.kind == OPT_FLOAT)
      put_f(fp, o.label, o.fmt, (float)atof(value));
    else if (o.kind == OPT_INT)
      put_d(fp, o.label, atoi(value));
    else
      put_s(fp, o.label, value);
  }

  fprintf(fp, "All parameters to be used:\n");
  fprintf(fp, "Basic options:  \n");
  put_s(fp, "--T", p->T);
  put_f(fp, "--apixM", "%.3f", p->apixM);
  put_f(fp, "--diameter", "%.2f", p->diameter);
  put_f(fp, "--apixT", "%.3f", p->apixT);

  fprintf(fp, "Additional options:  \n");
  put_f(fp, "--ang_step", "%.2f", p->ang_step);
  put_d(fp, "--speed", p->speed);
  put_d(fp, "--boxsize", p->boxsize);
  put_f(fp, "--min_dist", "%.2f", p->min_dist);
  put_f(fp, "--cc_cutoff", "%.3f", p->cc_cutoff);
  put_f(fp, "--lsigma_D", "%.3f", p->lsigma_D);
  put_f(fp, "--lsigma_cutoff", "%.3f", p->lsigma_cutoff);
  put_f(fp, "--lave_D", "%.3f", p->lave_D);
  put_f(fp, "--lave_max", "%.3f", p->lave_max);
  put_f(fp, "--lave_min", "%.3f", p->lave_min);
  put_f(fp, "--lp", "%.2f", p->lp);
  put_f(fp, "--hp", "%.2f", p->hp);
  put_d(fp, "--do_pre_filter", p->do_pre_filter);
  put_f(fp, "--pre_lp", "%.2f", p->pre_lp);
  put_f(fp, "--pre_hp", "%.2f", p->pre_hp);
  put_d(fp, "--detect_ice", p->detect_ice);
  put_d(fp, "--T_norm_type", p->T_norm_type);
  put_d(fp, "--do_bandpass", p->do_bandpass);

  fprintf(fp, "CTF options: \n");
  put_d(fp, "--do_ctf", p->do_ctf);
  put_d(fp, "--local_ctf", p->do_local_ctf);
  put_f(fp, "--kV", "%.2f", p->kV);
  put_f(fp, "--cs", "%.2f", p->cs);
  put_f(fp, "--ac", "%.2f", p->ac);

  fprintf(fp, "I/O options:  \n");
  put_d(fp, "--write_ccmax_mic", p->write_ccmax_mic);
  put_d(fp, "--write_pf_mic", p->write_pf_mic);
  put_d(fp, "--write_pref_mic", p->write_pref_mic);
  put_d(fp, "--write_bg_mic", p->write_bg_mic);
  put_d(fp, "--write_bgfree_mic", p->write_bgfree_mic);
  put_d(fp, "--write_lsigma_mic", p->write_lsigma_mic);
  put_d(fp, "--write_mic_mask", p->write_mic_mask);
  put_d(fp, "--write_rejected_box", p->write_rejected_box);
  put_d(fp, "--write_star", p->write_star);
  put_d(fp, "--exclusive_picking", p->exclusive_picking);
  put_s(fp, "--excluded_suffix", p->excluded_suffix);
  put_d(fp, "--mask_excluded", p->mask_excluded);
  put_s(fp, "--global_excluded_box", p->global_excluded_box);
  put_d(fp, "--do_unfinished", p->do_unfinished);
  put_d(fp, "--dont_invertT", p->dont_invertT);
  put_d(fp, "--extract_raw", p->extract_raw);
  put_d(fp, "--extract_pf", p->extract_pf);
  put_d(fp, "--gid", p->gid);

  fprintf(fp, "\n\n");
  fprintf(fp, "All %d files to be used:\n", p->n_mic);
  for (int i = 0; i < p->n_mic; i++) fprintf(fp, "        %s\n", p->mic_files[i]);
}

std::string gvexmatch_valid_options_text() {
  // Deliberately not the parser's list (older spellings included).
  static const char* const k_valid[] = {
      "apixM",          "T",                  "diameter",         "ang_step",          "speed",
      "boxsize",        "min_dist",           "cc_cutoff",        "lsigma_cutoff",     "lave_max",
      "lave_min",       "lcutoff_D",          "lp",               "hp",                "dont_invertT",
      "per_lp",         "pre_hp",             "do_pre_filter",    "do_ctf",            "do_local_ctf",
      "kv",             "cs",                 "ac",               "write_ccmax_mic",   "write_pf_mic",
      "write_bg_mic",   "write_bgfree_mic",   "write_lsigma_mic", "write_mic_mask",    "extract_raw",
      "extract_pf",     "write_rejected_box", "write_star",       "exclusive_picking", "excluded_suffix",
      "mask_excluded",  "global_excluded_box", "gid"};
  static_assert(sizeof k_valid / sizeof k_valid[0] == 38, "38 listed options");
  std::string s = std::string(130, '-') + "\nAll valid options:\n";
  for (const char* name : k_valid) s += std::string("--") + name + "\t ";
  return s + "\n" + std::string(128, '-') + "\n";
}

// ---- value checks ----

int gvexmatch_grid_cell(const GVexMatch_Para* p) {
  const float c = p->min_dist * 1.4142135f / (2 * p->shrink * p->apixM);
  return trunc_to_int(c);
}

[[noreturn]] static void bad_value(int line, const char* fmt, const char* option, double v) {
  char why[256];
  snprintf(why, sizeof why, fmt, option, v);
  gvex_fatal("gvexmatch_check_values", kModule, line, why);
}

int gvexmatch_check_values(const GVexMatch_Para* p) {
  if (!(p->apixM > 0.0f) || p->apixM == (float)INFINITY)
    bad_value(__LINE__, "option %s must be a positive pixel size, not %g", "--apixM", p->apixM);
  if (!(p->diameter > 0.0f))
    bad_value(__LINE__, "option %s must be a positive particle diameter, not %g", "--diameter", p->diameter);
  // min_dist either came from the user or follows the diameter.
  const bool own = p->min_dist_given != 0;
  const char* md_option = own ? "--min_dist" : "--diameter";
  const double md_value = own ? p->min_dist : p->diameter;
  const int cell = gvexmatch_grid_cell(p);
  if (cell < 1)
    bad_value(__LINE__, own ? "option %s %g leaves a picking grid cell below one working pixel"
                            : "option %s %g gives a minimum distance whose picking grid cell is below one working pixel",
              md_option, md_value);
  // No working image is wider than GVEX_MAX_CELL pixels (arrays stay below
  // 2^31 elements), and squared distances of such cells must fit 64 bits.
  if (cell > GVEX_MAX_CELL)
    bad_value(__LINE__, "option %s %g gives a minimum distance larger than any micrograph", md_option, md_value);
  if (!p->auto_template) {
    // With the synthetic template a single orientation is scanned, so the
    // step only matters for a template file.
    const float s = p->ang_step;
    if (!(s > 0.0f) || 359.0f + s == 359.0f || (double)(p->ang_end - p->ang_start) / s > 36000.0)
      bad_value(__LINE__, "option %s %g must be a positive step that scans at most 36000 angles", "--ang_step", s);
    if (!(p->apixT > 0.0f) || p->apixT == (float)INFINITY)
      bad_value(__LINE__, "option %s must be a positive pixel size, not %g", "--apixT", p->apixT);
  }
  if (p->extract_raw && p->boxsize <= 0)
    bad_value(__LINE__, "option %s must be positive to extract particles, not %g", "--boxsize", p->boxsize);
  return 0;
}

// ---- names and release ----

void set_name_shrinked_box(char* out, const char* mic, int shrink) {
  (void)shrink;  // the name is the same at every shrink factor
  static const char k_suffix[] = "_nonunique.box";
  memset(out, 0, GVEX_NAME_LEN);
  // The suffix is the last '.' of the file name itself, never of a folder.
  const char* slash = strrchr(mic, '/');
  const char* base = slash ? slash + 1 : mic;
  const char* dot = strrchr(base, '.');
  const size_t keep = dot ? (size_t)(dot - mic) : strlen(mic);
  if (keep + sizeof k_suffix > (size_t)GVEX_NAME_LEN)
    gvex_fatal("set_name_shrinked_box", kModule, __LINE__, "micrograph name too long for a 1024-byte file name");
  memcpy(out, mic, keep);
  memcpy(out + keep, k_suffix, sizeof k_suffix);
}

void gvexmatch_delete_parameters(GVexMatch_Para* p) {
  if (!p) return;
  free(p->mic_files);
  free(p->T);
  free(p->excluded_suffix);
  free(p->global_excluded_box);
  delete p;
}
