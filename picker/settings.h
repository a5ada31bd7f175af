// What one picking session does: the user's choices, typed, and every value
// derived from them, computed once by derive(). Programs fill PickOptions
// from their own command lines (gvexmatch's through its parameter record)
// and hand the derived settings to a PickSession, which never changes them.
#pragma once
#include <string>

struct GVexMatch_Para;

struct PickOptions {
  // Micrograph and particle.
  float apixM = 1.34f, diameter = 400.0f;
  int speed = 2;
  // Values that follow the diameter unless given.
  float min_dist = 0;
  bool min_dist_given = false;
  int boxsize = 0;
  bool boxsize_given = false;
  float lsigma_D = 0, lave_D = 0;
  bool lsigma_D_given = false, lave_D_given = false;
  float apixT = 0;  // the micrograph's unless given
  bool apixT_given = false;
  // Templates: the stack file when template_file, else the synthetic disc.
  bool template_file = false;
  std::string templates;
  float ang_step = 5.0f;
  int ang_start = 0;
  float ang_end = 359.0f;
  int T_norm_type = 1;
  float center1_ratio = 0;
  bool dont_invertT = false;
  float template_r_scale = 1.3f;
  // Filters and masks.
  bool do_pre_filter = false, do_bandpass = true, detect_ice = true;
  float pre_hp = 0, lp = 0, hp = 0;
  float lsigma_cutoff = 0, lave_min = 0, lave_max = 0, local_edge = 8.0f;
  // Picking and exclusion.
  float cc_cutoff = 0.15f;
  bool exclusive_picking = false, mask_excluded = false;
  std::string excluded_suffix;      // as given ("NULL" by default)
  std::string global_excluded_box;  // empty: none
  // The null model's decoys: the grid maxima and merged picks the templates
  // with their contrast the other way would give, from the same scan
  // (companions that choose a cut-off; gvexmatch never asks).
  bool decoys = false;
  // The result carries the micrograph's header and first section as the
  // session read them (companions that draw or weigh the micrograph then
  // need not read it again, nor see a file changed since).
  bool keep_pixels = false;
  // Outputs beside each micrograph.
  bool write_star = true, write_rejected_box = false, write_ccmax_mic = false, write_pref_mic = false,
       write_bg_mic = false, write_bgfree_mic = false, write_lsigma_mic = false, write_mic_mask = false,
       extract_raw = false, do_unfinished = false;
  // Micrographs of MRC mode 12 (float16) are read; gvexmatch's command line
  // never sets it, so gvexmatch keeps refusing them.
  bool read_float16 = false;
};

struct PickSettings {
  PickOptions opt;          // with the diameter-following values filled in
  int shrink = 4;           // from speed
  bool auto_template = true;
  float scan_step = 5.0f;   // the synthetic disc is scanned at one angle
  float template_r = 0;     // particle radius * scale, working pixels
  float min_dist_px = 0;    // min_dist in working pixels
  float lsigma_r = 0, lave_r = 0;  // window radii, working pixels
  int cell = 0;             // exclusion-grid cell, working pixels
};

// The options at gvexmatch's defaults (its option table's).
PickOptions pick_defaults();

// Every derived value; a speed outside 0..4 is fatal (as gvexmatch says).
PickSettings derive(const PickOptions& o);

// gvexmatch's parsed record as options (its texts "NULL"/"NONE" mean none),
// and the derived values written back into the record, which echoes them.
PickOptions options_from_record(const GVexMatch_Para& p);
void record_derived_values(GVexMatch_Para* p, const PickSettings& s);
