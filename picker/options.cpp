// The option table: one row per option drives parsing, defaults, the two
// echoes, the valid-option list and the help rows.
#include "picker/options.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/strutil.h"
#include "picker/params.h"

namespace {

#define F(field) offsetof(GVexMatch_Para, field)
#define NO_FIELD ((size_t)-1)

// Rows in the order of the record echo. help: position in the help (0: not
// shown); listed: position in the valid-option list (0: not listed), under
// the spelling `list_as` when it differs from the name. OPT_LISTED rows are
// spellings that only the valid-option list knows (the parser refuses them).
const OptionRow k_rows[] = {
    // name             kind        field                   default  typed   record  label  group          help hval  help text                                                                    listed list_as
    {"T",               OPT_TEXT,  F(T),                    0,     "%s",   "%s",   nullptr, GROUP_BASIC,  3, "NONE", "template stack (MRC, white particles); NONE: a Gaussian disc is generated", 2, nullptr},
    {"apixM",           OPT_FLOAT, F(apixM),                1.34,  "%.3f", "%.3f", nullptr, GROUP_BASIC,  1, "1.34", "pixel size of the micrographs, Å", 1, nullptr},
    {"diameter",        OPT_FLOAT, F(diameter),             400,   "%.2f", "%.2f", nullptr, GROUP_BASIC,  2, "400",  "particle diameter, Å (the longest dimension)", 3, nullptr},
    {"apixT",           OPT_FLOAT, F(apixT),                1.34,  "%.3f", "%.3f", nullptr, GROUP_BASIC,  4, "1.34", "pixel size of the templates, Å; the same as --apixM when not set", 0, nullptr},
    {"ang_step",        OPT_FLOAT, F(ang_step),             5,     "%.2f", "%.2f", nullptr, GROUP_ADDITIONAL, 5, "5", "in-plane rotation step of the templates, degrees; invalid for auto-templates", 4, nullptr},
    {"speed",           OPT_INT,   F(speed),                2,     "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 6, "2", "speed level 0..4: micrographs are shrunk by 1, 2, 4, 6 or 8", 5, nullptr},
    {"boxsize",         OPT_INT,   F(boxsize),              128,   "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 7, "128", "box size of the picked particles, micrograph pixels", 6, nullptr},
    {"min_dist",        OPT_FLOAT, F(min_dist),             300,   "%.2f", "%.2f", nullptr, GROUP_ADDITIONAL, 8, "300", "minimum distance between two picked particles, Å", 7, nullptr},
    {"cc_cutoff",       OPT_FLOAT, F(cc_cutoff),            0.15,  "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 9, "0.1", "cross-correlation cutoff; lower values give more picks", 8, nullptr},
    {"lsigma_D",        OPT_FLOAT, F(lsigma_D),             100,   "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 10, "200", "window diameter of the local sigma, Å", 0, nullptr},
    {"lsigma_cutoff",   OPT_FLOAT, F(lsigma_cutoff),        1.3,   "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 11, "1.3", "local sigma cutoff (relative) for carbon, ice and contamination", 9, nullptr},
    {"lave_D",          OPT_FLOAT, F(lave_D),               400,   "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 12, "400", "window diameter of the local average, Å", 0, nullptr},
    {"lave_max",        OPT_FLOAT, F(lave_max),             1.0,   "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 13, "2.0", "upper cutoff of the local average (relative)", 10, nullptr},
    {"lave_min",        OPT_FLOAT, F(lave_min),             -1.0,  "%.3f", "%.3f", nullptr, GROUP_ADDITIONAL, 14, "-1.0", "lower cutoff of the local average (relative)", 11, nullptr},
    {"lp",              OPT_FLOAT, F(lp),                   40,    "%.3f", "%.2f", nullptr, GROUP_ADDITIONAL, 15, "30", "low-pass of the band-pass filter, Å", 13, nullptr},
    {"hp",              OPT_FLOAT, F(hp),                   1000,  "%.3f", "%.2f", nullptr, GROUP_ADDITIONAL, 16, "1000", "high-pass of the band-pass filter, Å", 14, nullptr},
    {"do_pre_filter",   OPT_FLAG,  F(do_pre_filter),        0,     "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 17, "", "pre-filter the micrographs before ice detection", 18, nullptr},
    {"pre_lp",          OPT_FLOAT, F(pre_lp),               8,     "%.3f", "%.2f", nullptr, GROUP_ADDITIONAL, 18, "8.0", "low-pass of the pre-filter, Å", 0, nullptr},
    {"pre_hp",          OPT_FLOAT, F(pre_hp),               1000,  "%.3f", "%.2f", nullptr, GROUP_ADDITIONAL, 19, "1000", "high-pass of the pre-filter, Å", 17, nullptr},
    {"detect_ice",      OPT_FLAG,  F(detect_ice),           1,     "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 20, "1", "detect and reject ice, carbon and contamination", 0, nullptr},
    {"T_norm_type",     OPT_INT,   F(T_norm_type),          1,     "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 21, "1", "template normalisation: 1 mean, 2 background, 3 soft mask", 0, nullptr},
    {"do_bandpass",     OPT_FLAG,  F(do_bandpass),          1,     "%d",   "%d",   nullptr, GROUP_ADDITIONAL, 22, "1", "band-pass the micrographs before matching", 0, nullptr},
    {"do_ctf",          OPT_FLAG,  F(do_ctf),               0,     "%d",   "%d",   nullptr, GROUP_CTF, 23, "", "estimate the CTF of each micrograph", 19, nullptr},
    {"do_local_ctf",    OPT_FLAG,  F(do_local_ctf),         0,     "%d",   "%d",   "--local_ctf", GROUP_CTF, 24, "", "estimate the CTF locally, per particle", 20, nullptr},
    {"kV",              OPT_FLOAT, F(kV),                   300,   "%.2f", "%.2f", nullptr, GROUP_CTF, 25, "300", "accelerating voltage, kV", 21, "kv"},
    {"cs",              OPT_FLOAT, F(cs),                   2.7,   "%.2f", "%.2f", nullptr, GROUP_CTF, 26, "2.7", "spherical aberration, mm", 22, nullptr},
    {"ac",              OPT_FLOAT, F(ac),                   0.1,   "%.2f", "%.2f", nullptr, GROUP_CTF, 27, "0.1", "amplitude contrast", 23, nullptr},
    {"write_ccmax_mic", OPT_FLAG,  F(write_ccmax_mic),      0,     "%d",   "%d",   nullptr, GROUP_IO, 28, "", "write the best cross-correlation maps (_ccmax.mrc)", 24, nullptr},
    {"write_pf_mic",    OPT_FLAG,  F(write_pf_mic),         0,     "%d",   "%d",   nullptr, GROUP_IO, 29, "", "write the phase-flipped micrographs", 25, nullptr},
    {"write_pref_mic",  OPT_FLAG,  F(write_pref_mic),       0,     "%d",   "%d",   nullptr, GROUP_IO, 30, "", "write the pre-filted micrographs (_pref.mrc)", 0, nullptr},
    {"write_bg_mic",    OPT_FLAG,  F(write_bg_mic),         0,     "%d",   "%d",   nullptr, GROUP_IO, 31, "", "write the background of the micrographs", 26, nullptr},
    {"write_bgfree_mic", OPT_FLAG, F(write_bgfree_mic),     0,     "%d",   "%d",   nullptr, GROUP_IO, 32, "", "write the background-free micrographs (_bgfree.mrc)", 27, nullptr},
    {"write_lsigma_mic", OPT_FLAG, F(write_lsigma_mic),     0,     "%d",   "%d",   nullptr, GROUP_IO, 33, "", "write the local sigma maps", 28, nullptr},
    {"write_mic_mask",  OPT_FLAG,  F(write_mic_mask),       0,     "%d",   "%d",   nullptr, GROUP_IO, 34, "", "write the masks of the rejected areas (_mask.mrc)", 29, nullptr},
    {"write_rejected_box", OPT_RECORD, F(write_rejected_box), 1,   "%d",   "%d",   nullptr, GROUP_IO, 0, "", "", 32, nullptr},
    {"write_star",      OPT_FLAG,  F(write_star),           1,     "%d",   "%d",   nullptr, GROUP_IO, 0, "", "", 33, nullptr},
    {"exclusive_picking", OPT_FLAG, F(exclusive_picking),   0,     "%d",   "%d",   nullptr, GROUP_IO, 35, "", "leave out the coordinates found with --excluded_suffix", 34, nullptr},
    {"excluded_suffix", OPT_TEXT,  F(excluded_suffix),      0,     "%s",   "%s",   nullptr, GROUP_IO, 36, "", "suffix of the coordinate files to exclude, e.g. _manual.star", 35, nullptr},
    {"mask_excluded",   OPT_FLAG,  F(mask_excluded),        0,     "%d",   "%d",   nullptr, GROUP_IO, 37, "", "also mask the excluded coordinates out of the micrographs", 36, nullptr},
    {"global_excluded_box", OPT_TEXT, F(global_excluded_box), 0,   "%s",   "%s",   nullptr, GROUP_IO, 38, "NONE", "coordinate file excluded from every micrograph", 37, nullptr},
    {"do_unfinished",   OPT_FLAG,  F(do_unfinished),        0,     "%d",   "%d",   nullptr, GROUP_IO, 39, "", "process unfinished micrographs only; finished ones nerve be taken again", 0, nullptr},
    {"dont_invertT",    OPT_FLAG,  F(dont_invertT),         0,     "%d",   "%d",   nullptr, GROUP_IO, 40, "", "do not invert the contrast of the templates", 15, nullptr},
    {"extract_raw",     OPT_FLAG,  F(extract_raw),          0,     "%d",   "%d",   nullptr, GROUP_IO, 41, "", "extract the picked particles from the raw micrographs (_particles.mrcs)", 30, nullptr},
    {"extract_pf",      OPT_FLAG,  F(extract_pf),           0,     "%d",   "%d",   nullptr, GROUP_IO, 42, "", "extract the picked particles from the phase-flipped micrographs", 31, nullptr},
    {"gid",             OPT_INT,   F(gid),                  0,     "%d",   "%d",   nullptr, GROUP_IO, 43, "0", "GPU id", 38, nullptr},
    // Parsed and echoed as typed, but not part of the record echo.
    {"update_T",        OPT_FLAG,  F(update_T),             0,     "%d",   nullptr, nullptr, GROUP_NONE, 0, "", "", 0, nullptr},
    {"center1_ratio",   OPT_FLOAT, F(center1_ratio),        0.05,  "%.3f", nullptr, nullptr, GROUP_NONE, 0, "", "", 0, nullptr},
    // Older spellings the valid-option list still shows.
    {"lcutoff_D",       OPT_LISTED, NO_FIELD,               0,     nullptr, nullptr, nullptr, GROUP_NONE, 0, "", "", 12, nullptr},
    {"per_lp",          OPT_LISTED, NO_FIELD,               0,     nullptr, nullptr, nullptr, GROUP_NONE, 0, "", "", 16, nullptr},
};
#undef F

constexpr int kRows = (int)(sizeof k_rows / sizeof k_rows[0]);

std::string label_of(const OptionRow& r) { return r.label ? r.label : std::string("--") + r.name; }

void put_value(FILE* fp, const OptionRow& r, const char* fmt, const void* v) {
  fprintf(fp, "       %-20s ", label_of(r).c_str());
  if (r.kind == OPT_FLOAT)
    fprintf(fp, fmt, *(const float*)v);
  else if (r.kind == OPT_TEXT)
    fprintf(fp, fmt, *(const char* const*)v ? *(const char* const*)v : "");
  else
    fprintf(fp, fmt, *(const int*)v);
  fputc('\n', fp);
}

const char* const k_group_echo[] = {"", "Basic options:  \n", "Additional options:  \n", "CTF options: \n",
                                    "I/O options:  \n"};
const char* const k_group_help[] = {
    "", "Basic options:    default values,    description:  ",
    "Additional options(not suggested, only try to optimize in difficult cases), default values and description:  ",
    "CTF options(not effective in this verion): ", "I/O options:  "};

}  // namespace

const OptionRow* gvex_options(int& n) {
  n = kRows;
  return k_rows;
}

const OptionRow* gvex_find_option(const char* word) {
  for (const OptionRow& r : k_rows)
    if (r.kind <= OPT_FLAG && keywd_cmp(word, r.name)) return &r;
  return nullptr;
}

void gvex_option_defaults(GVexMatch_Para* p) {
  char* base = reinterpret_cast<char*>(p);
  for (const OptionRow& r : k_rows) {
    if (r.field == NO_FIELD) continue;
    if (r.kind == OPT_FLOAT)
      *reinterpret_cast<float*>(base + r.field) = (float)r.def;
    else if (r.kind == OPT_TEXT)
      strcpy(*reinterpret_cast<char**>(base + r.field), "NULL");
    else
      *reinterpret_cast<int*>(base + r.field) = (int)r.def;
  }
}

void gvex_echo_typed(FILE* fp, int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    const OptionRow* r = gvex_find_option(argv[i]);
    if (!r) continue;
    if (r->kind == OPT_FLAG) {
      int v = 0;
      get_bool_keyword(argc, argv, v, i);
      put_value(fp, *r, r->typed, &v);
      continue;
    }
    if (i + 1 >= argc) break;  // the parser refuses this; nothing to re-read
    const char* value = argv[++i];
    const float f = (float)atof(value);
    const int d = atoi(value);
    put_value(fp, *r, r->typed, r->kind == OPT_FLOAT ? (const void*)&f : r->kind == OPT_INT ? (const void*)&d : &value);
  }
}

void gvex_echo_record(FILE* fp, const GVexMatch_Para* p) {
  const char* base = reinterpret_cast<const char*>(p);
  for (int g = GROUP_BASIC; g <= GROUP_IO; g++) {
    fputs(k_group_echo[g], fp);
    for (const OptionRow& r : k_rows)
      if (r.group == g && r.record) put_value(fp, r, r.record, base + r.field);
  }
}

std::string gvex_valid_options_list() {
  std::string s;
  for (int pos = 1;; pos++) {
    const OptionRow* hit = nullptr;
    for (const OptionRow& r : k_rows)
      if (r.listed == pos) hit = &r;
    if (!hit) return s;
    s += std::string("--") + (hit->list_as ? hit->list_as : hit->name) + "\t ";
  }
}

void gvex_put_help_rows() {
  for (int g = GROUP_BASIC; g <= GROUP_IO; g++) {
    printf("%s\n", k_group_help[g]);
    for (int pos = 1; pos <= kRows; pos++)
      for (const OptionRow& r : k_rows)
        if (r.help == pos && r.group == g)
          printf("    %-24s%-10s%s\n", ("--" + std::string(r.name)).c_str(), r.help_value, r.help_text);
    printf("\n");
  }
}
