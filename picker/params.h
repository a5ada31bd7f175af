// The run's parameter record: filled with defaults, overwritten from the
// command line, echoed, then handed read-only to every stage.
#pragma once
#include <cstdio>
#include <string>

struct GVexMatch_Para {
  char** mic_files = nullptr;  // argc slots; entries point into argv
  char* T = nullptr;           // 1024 bytes: template stack file, "NULL" for none
  int dont_invertT;            // 0: templates are contrast-inverted before use
  float apixM;                 // micrograph pixel size, A
  float apixT;                 // template pixel size, A
  float diameter;              // particle diameter, A
  float min_dist;              // minimum distance between picks, A
  int boxsize;                 // output box, raw micrograph pixels
  int shrink;                  // down-sampling factor, from speed
  int speed;                   // 0..4
  float ang_step;              // in-plane rotation step, degrees
  int update_T;                // accepted and echoed only
  float cc_cutoff;             // cross-correlation acceptance threshold
  float lp;                    // main band-pass low-pass, A
  float hp;                    // main band-pass high-pass, A
  float pre_lp;                // pre-filter low-pass, A (echoed, no effect)
  float pre_hp;                // pre-filter high-pass, A
  int T_norm_type;             // template normalisation 1, 2 or 3
  float center1_ratio;         // ring-width ratio of normalisation type 3
  int do_bandpass;
  int do_ctf;                  // accepted and echoed only
  int do_local_ctf;            // accepted and echoed only
  float kV;                    // echoed only
  float cs;                    // echoed only
  float ac;                    // echoed only
  float lave_max;              // upper local-average cutoff (relative)
  float lave_min;              // lower local-average cutoff (relative)
  float lsigma_cutoff;         // local-sigma cutoff (relative)
  float lsigma_D;              // local-sigma window diameter, A
  float lave_D;                // local-average window diameter, A
  int write_ccmax_mic;
  int do_pre_filter;
  int detect_ice;
  int write_pref_mic;
  int write_pf_mic;            // accepted and echoed only
  int write_bg_mic;
  int write_bgfree_mic;
  int write_lsigma_mic;
  int write_mic_mask;
  int do_unfinished;           // skip micrographs whose outputs exist
  char* excluded_suffix = nullptr;  // 1024 bytes
  int exclusive_picking;
  int mask_excluded;
  char* global_excluded_box = nullptr;  // 1024 bytes
  int write_rejected_box;      // echoed; no option sets it
  int write_star;
  int extract_raw;
  int extract_pf;              // accepted and echoed only
  int gid;                     // GPU index
  int n_mic;                   // entries in mic_files
  float local_edge;            // soft edge of the local-statistics disc, shrunk px
  float template_r_scale;      // factor in template_r
  float aux_ratio;             // constant, unused by the picker
  int auto_template;           // 1: synthetic template; 0 when T names a file
  int ang_start;               // first rotation angle, degrees
  float ang_end;               // rotation angles stay below this, degrees
  float template_r;            // derived: particle radius * scale, shrunk px
  float min_dist_px;           // derived: min_dist in shrunk px
  float lsigma_r;              // derived: lsigma_D radius in shrunk px
  float lave_r;                // derived: lave_D radius in shrunk px
  int min_dist_given;          // 1 when --min_dist was on the command line
};

// Allocates mic_files (argc slots) and the three text buffers, writes every
// default and the derived fields computed from them.
void gvexmatch_init_parameters(int argc, GVexMatch_Para* p);

// Which options left at their defaults deserve the advisory lines.
struct ParsedOptions {
  bool diameter = false, T = false, apixM = false, apixT = false;  // given on the command line
};

// Scans argv into p and applies the derived defaults; no micrograph name is
// a help exit. Returns what the advice needs, or ends through the failure path.
ParsedOptions gvexmatch_parse_options(int argc, char** argv, GVexMatch_Para* p);

// The advisory "Waring:" lines for options left at their defaults; an
// unset --apixT then takes --apixM.
void gvexmatch_advise(const ParsedOptions& seen, GVexMatch_Para* p);

// speed 0..4 -> shrink 1, 2, 4, 6, 8; any other speed is fatal.
void gvexmatch_speed2shrink(int& speed, int& shrink);

// Echo: the options as typed, then the whole record and the file list.
void gvexmatch_fput_parameters(int argc, char** argv, GVexMatch_Para* p, FILE* fp);

// The option list printed before the unknown-option exit.
std::string gvexmatch_valid_options_text();

// Rejects values that would divide by zero or never end (fatal, naming the
// option). Returns 0 when all is well.
int gvexmatch_check_values(const GVexMatch_Para* p);

// Largest grid cell accepted: the side of the largest square working image.
constexpr int GVEX_MAX_CELL = 46340;
// Largest working size: its mirror-padded double (band-passes, local
// statistics) stays below 2^31 elements.
constexpr int GVEX_MAX_WORKING = 23170;

// out (1024 bytes) = mic without its suffix + "_nonunique.box". shrink does
// not enter the name. A name that would not fit is fatal.
void set_name_shrinked_box(char* out, const char* mic, int shrink);

// Releases the buffers init allocated and the record itself (from new).
void gvexmatch_delete_parameters(GVexMatch_Para* p);
