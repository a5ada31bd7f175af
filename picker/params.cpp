// Options, defaults and the parameter echo.
#include "picker/params.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <strings.h>

#include "common/errors.h"
#include "common/records.h"
#include "common/strutil.h"
#include "picker/help.h"
#include "picker/options.h"
#include "picker/settings.h"

// Module name in this unit's failure lines.
static const char* const gvex_module = "vexmatch56";

namespace {

int index_of(const OptionRow* r) {
  int n = 0;
  return (int)(r - gvex_options(n));
}

char* text_field(GVexMatch_Para* p, const OptionRow& o) {
  return *reinterpret_cast<char**>(reinterpret_cast<char*>(p) + o.field);
}

[[noreturn]] void unknown_option(const char* word) {
  char line[GVEX_NAME_LEN + 256];
  snprintf(line, sizeof line,
           GVEX_CRIT_ON "CRITICAL ERROR:" GVEX_CRIT_OFF
                        "in function %s(), file %s on line %d. Failed to recognize option: " GVEX_CRIT_ON
                        "%s!" GVEX_CRIT_OFF " Exit now. Check your input please.\n\n",
           "gvexmatch_get_parameters", gvex_module, 977, word);
  // Status 0: an unknown option is not treated as an error.
  gvex_throw(line + gvexmatch_valid_options_text(), 0);
}

char* new_text_buffer(const char* init) {
  char* b = (char*)calloc(GVEX_NAME_LEN, 1);
  if (!b) gvex_fatal("gvexmatch_init_parameters", gvex_module, __LINE__, "out of host memory");
  strcpy(b, init);
  return b;
}

}  // namespace

void gvexmatch_init_parameters(int argc, GVexMatch_Para* p) {
  p->mic_files = (char**)calloc(argc > 0 ? argc : 1, sizeof(char*));
  if (!p->mic_files) GVEX_FAIL("out of host memory");
  p->T = new_text_buffer("NULL");
  p->excluded_suffix = new_text_buffer("NULL");
  p->global_excluded_box = new_text_buffer("NULL");
  gvex_option_defaults(p);
  p->shrink = 4;
  p->n_mic = 0;
  p->local_edge = 8.0f;
  p->template_r_scale = 1.3f;
  p->aux_ratio = 1.2f;
  p->auto_template = 1;
  p->ang_start = 0;
  p->ang_end = 359.0f;
  p->min_dist_given = 0;
  record_derived_values(p, derive(options_from_record(*p)));
}

void gvexmatch_speed2shrink(int& speed, int& shrink) {
  static const int k_shrink[5] = {1, 2, 4, 6, 8};
  if (speed < 0 || speed > 4)
    gvex_fatal("gvexmatch_speed2shrink", gvex_module, 896, "speed level must belong to {0,1,2,3,4}");
  shrink = k_shrink[speed];
}

ParsedOptions gvexmatch_parse_options(int argc, char** argv, GVexMatch_Para* p) {
  int n_rows = 0;
  gvex_options(n_rows);
  std::vector<bool> seen_v(n_rows, false);
  auto seen = [&](const char* name) { return (bool)seen_v[index_of(gvex_find_option(("--" + std::string(name)).c_str()))]; };
  for (int i = 1; i < argc; i++) {
    const char* word = argv[i];
    const OptionRow* o = gvex_find_option(word);
    if (!o) {
      if (word[0] == '-') unknown_option(word);
      p->mic_files[p->n_mic++] = argv[i];
      continue;
    }
    seen_v[index_of(o)] = true;
    char* field = reinterpret_cast<char*>(p) + o->field;
    if (o->kind == OPT_FLAG) {
      get_bool_keyword(argc, argv, *reinterpret_cast<int*>(field), i);
      continue;
    }
    if (i + 1 >= argc) {
      char why[128];
      snprintf(why, sizeof why, "option --%s needs a value", o->name);
      gvex_fatal("gvexmatch_get_parameters", gvex_module, 119, why);
    }
    const char* value = argv[++i];
    if (o->kind == OPT_FLOAT) {
      *reinterpret_cast<float*>(field) = (float)atof(value);
    } else if (o->kind == OPT_INT) {
      *reinterpret_cast<int*>(field) = atoi(value);
      // Resolved at once, so no other option can change the outcome.
      if (field == reinterpret_cast<char*>(&p->speed)) gvexmatch_speed2shrink(p->speed, p->shrink);
    } else if (!str_copy_fits(text_field(p, *o), value, GVEX_NAME_LEN)) {
      char why[128];
      snprintf(why, sizeof why, "the value of option --%s is longer than %d characters", o->name, GVEX_NAME_LEN - 1);
      gvex_fatal("gvexmatch_get_parameters", gvex_module, 131, why);
    }
  }

  if (strcasecmp(p->T, "NULL") != 0 && strcasecmp(p->T, "NONE") != 0) p->auto_template = 0;

  // Defaults that follow the particle size, unless the user set them.
  PickOptions o = options_from_record(*p);
  o.min_dist_given = seen("min_dist");
  o.boxsize_given = seen("boxsize");
  o.lsigma_D_given = seen("lsigma_D");
  o.lave_D_given = seen("lave_D");
  p->min_dist_given = o.min_dist_given ? 1 : 0;
  record_derived_values(p, derive(o));

  if (p->n_mic == 0) gvexmatch_help_exit(argv[0], "No valid files to be processed.");
  ParsedOptions parsed;
  parsed.diameter = seen("diameter");
  parsed.T = seen("T");
  parsed.apixM = seen("apixM");
  parsed.apixT = seen("apixT");
  return parsed;
}

void gvexmatch_advise(const ParsedOptions& seen, GVexMatch_Para* p) {
  if (!seen.diameter)
    printf("Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n");
  if (!seen.T)
    printf("Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be "
           "used. This is fine for 'spherical particles' like virus or ribosome. Do use templates for "
           "non-spherical particles.\n");
  if (!seen.apixM)
    printf("Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be "
           "1.34Å by default.\n");
  if (!seen.apixT) {
    printf("Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the "
           "same as micrographs by default.\n");
    p->apixT = p->apixM;
  }
}

// ---- echo ----

void gvexmatch_fput_parameters(int argc, char** argv, GVexMatch_Para* p, FILE* fp) {
  fprintf(fp, "%s\n", std::string(99, '*').c_str());
  fprintf(fp, "User input parameters:\n");
  gvex_echo_typed(fp, argc, argv);
  fprintf(fp, "All parameters to be used:\n");
  gvex_echo_record(fp, p);
  fprintf(fp, "\n\n");
  fprintf(fp, "All %d files to be used:\n", p->n_mic);
  for (int i = 0; i < p->n_mic; i++) fprintf(fp, "        %s\n", p->mic_files[i]);
}

std::string gvexmatch_valid_options_text() {
  return std::string(130, '-') + "\nAll valid options:\n" + gvex_valid_options_list() + "\n" + std::string(128, '-') +
         "\n";
}

// ---- value checks ----

// The line numbers of these messages are fixed texts: scripts match them.
[[noreturn]] static void bad_value(int line, const char* fmt, const char* option, double v) {
  char why[256];
  snprintf(why, sizeof why, fmt, option, v);
  gvex_fatal("gvexmatch_check_values", gvex_module, line, why);
}

int gvexmatch_check_values(const GVexMatch_Para* p) {
  if (!(p->apixM > 0.0f) || p->apixM == (float)INFINITY)
    bad_value(199, "option %s must be a positive pixel size, not %g", "--apixM", p->apixM);
  if (!(p->diameter > 0.0f))
    bad_value(201, "option %s must be a positive particle diameter, not %g", "--diameter", p->diameter);
  // min_dist either came from the user or follows the diameter.
  const bool own = p->min_dist_given != 0;
  const char* md_option = own ? "--min_dist" : "--diameter";
  const double md_value = own ? p->min_dist : p->diameter;
  const int cell = derive(options_from_record(*p)).cell;
  if (cell < 1)
    bad_value(208, own ? "option %s %g leaves a picking grid cell below one working pixel"
                            : "option %s %g gives a minimum distance whose picking grid cell is below one working pixel",
              md_option, md_value);
  // No working image is wider than GVEX_MAX_CELL pixels (arrays stay below
  // 2^31 elements), and squared distances of such cells must fit 64 bits.
  if (cell > GVEX_MAX_CELL)
    bad_value(214, "option %s %g gives a minimum distance larger than any micrograph", md_option, md_value);
  if (!p->auto_template) {
    // With the synthetic template a single orientation is scanned, so the
    // step only matters for a template file.
    const float s = p->ang_step;
    if (!(s > 0.0f) || 359.0f + s == 359.0f || (double)(p->ang_end - p->ang_start) / s > 36000.0)
      bad_value(220, "option %s %g must be a positive step that scans at most 36000 angles", "--ang_step", s);
    if (!(p->apixT > 0.0f) || p->apixT == (float)INFINITY)
      bad_value(222, "option %s must be a positive pixel size, not %g", "--apixT", p->apixT);
  }
  if (p->extract_raw && p->boxsize <= 0)
    bad_value(225, "option %s must be positive to extract particles, not %g", "--boxsize", p->boxsize);
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
    GVEX_FAIL("micrograph name too long for a 1024-byte file name");
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
