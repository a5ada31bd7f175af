// What gvexreport knows of one micrograph: its header and pixels, the picks
// gvexmatch wrote beside it (or the session gave, with their decoys), the
// rejected cells, how its cut-off was chosen, and what it warns about.
#pragma once
#include <cmath>
#include <string>
#include <vector>

#include "io/mrcfile.h"
#include "io/picks.h"
#include "report/cutoff.h"
#include "picker/settings.h"

// How a micrograph's cut-off was chosen, in words and figures for the page
// and the output.
struct CutoffChoice {
  // One word: fixed, crowded, sparse, no-excess (decoys); already-cut,
  // kept-whole, split, all-kept, none-kept (scores alone); no-picks.
  std::string rule;
  std::string why;          // one sentence
  double crowding = 0;      // share of the usable area under particles (decoy rules)
  double particles = 0;     // particles among the picks, as the decoys estimate them
  long decoys_above = -1;   // decoys at or above the cut-off, less those on edges left out (-1: no decoys)
  long edge_dropped = 0;    // picks at or above the cut-off left out as on strong edges
};

struct Micrograph {
  std::string name;                  // as given
  int nx = 0, ny = 0, nz = 0, mode = 2, nsymbt = 0;
  double header_apix = 0;            // cell length / sampling; 0 when unset
  std::vector<float> pixels;         // first section
  long nonfinite = 0;                // NaN and infinite pixels
  long outlying = 0;                 // pixels beyond kOutlying sd of the rest...
  double outlying_share = 0;         // ...and their share of the micrograph's variance
  bool picks_found = false;
  bool unfinished = false;           // its picking was interrupted: its picks are not read
  std::vector<Pick> picks;
  std::vector<Cell> rejected;
  double masked = 0;                 // fraction of the micrograph in rejected cells
  // The picks of the same templates with their contrast inverted, from the
  // same scan (gvexreport --pick): they match no particle, so they show how
  // noise and the specimen's edges score on this micrograph.
  bool decoys_found = false;
  std::vector<Pick> decoys;
  double usable_pixels = 0;          // area the mask leaves in, micrograph pixels
  double cut_before = NAN;           // the picks were already cut at this score
  bool cut_recorded = false;         // ... as the picks file records (else its lowest score shows it)
  double cutoff = 0;                 // suggested cut-off of this micrograph
  // One flag per pick: on a strong edge (edge_picks), set while the pixels
  // and the decoys are in hand. The sparse rule leaves those picks out.
  std::vector<char> on_edge;
  std::vector<char> decoy_on_edge;   // the same for each decoy
  bool drop_edges = false;           // the cut-off's rule leaves the picks on edges out
  CutoffChoice choice;               // how it was chosen
  std::vector<std::string> warnings;
};

// Decoys are there for every score the micrograph has: a micrograph without
// a picks file has none to want them for, and does not make a run's
// cut-offs come from the scores alone.
inline bool decoys_for_all(const Micrograph& m) { return m.decoys_found || !m.picks_found; }

// Name beside the micrograph: its ".mrc"/".mrcs" ending replaced by suffix.
std::string beside(const std::string& mic, const std::string& suffix);

// Reads the header and first section (float16 refused, as gvexmatch
// refuses it); a file that cannot be read throws GvexFailure with a message
// naming it.
void read_micrograph(Micrograph& m);

// The same from a header and first section already read (nx * ny pixels).
void take_micrograph(Micrograph& m, const MRC_HEAD& h, std::vector<float> pixels);

// The picks of path into m (boxsize: the box of STAR picks), and the cut
// they already had: the one the file records (for a ".box" file, the STAR
// file of the same name), else the one their scores show.
PicksRead read_picks(Micrograph& m, const std::string& path, int boxsize);

// The report's view of the run: pixel size and diameter as gvexmatch took
// them, and what gvexmatch derives from them.
struct Settings {
  double apix = 1.34, diameter = 400;
  bool apix_given = false;
  PickSettings pick;  // derive() of the two
};
Settings report_settings(double apix, double diameter, bool apix_given);

// The run's cut-off each micrograph's is weighed with (run_null_model over
// the micrographs with picks and decoys, its sparse cut from the pool off
// strong edges), and the weight it has against one micrograph.
struct RunCut {
  DecoyCutoff d;
  double weight = 0;    // the pool's evidence squared over its micrographs
  int micrographs = 0;  // pooled
  std::vector<double> decoys;  // the pooled decoy scores, sorted (unlike_the_rest)
};
RunCut run_cut(const std::vector<Micrograph>& mics, const Settings& s);

// Chooses m's cut-off: fixed (finite) when given; else with decoys the null
// model (null_model_cutoff, which takes run_sparse, the run's sparse cut),
// weighed with run's cut where there is one (two micrographs or more, and a
// cut there) and its decoys score like the rest's (unlike_the_rest), each
// weighted by the square of its evidence (a lower run's cut moves a sparse
// micrograph's only where its picks between the two outnumber its decoys);
// else, for picks already cut, that cut; else the split of the scores
// against the run's pooled cut-off (choose_cutoff).
void decide_cutoff(Micrograph& m, const Settings& s, double pooled, double fixed = NAN,
                   SparseCut run_sparse = SparseCut(), const RunCut& run = RunCut());

// The sparse cut of the picks and decoys, off strong edges, of the run's
// micrographs with decoys that the null model reads as sparse (sparse_cut).
SparseCut run_sparse_cut(const std::vector<Micrograph>& mics, const Settings& s);

// The run's cut-off for a fixed --cc_cutoff: the null model over all
// micrographs' picks and decoys when every micrograph has decoys, else the
// pooled split of the picks not cut before, never below a cut the picks
// already had.
double run_cutoff(const std::vector<Micrograph>& mics, const Settings& s);

// The scores of picks (or decoys), as doubles.
std::vector<double> scores_of(const std::vector<Pick>& picks);
long count_kept(const std::vector<Pick>& picks, double cut);

// Whether m keeps its pick i: at or above its cut-off, and not on an edge
// its rule leaves out; and how many it keeps.
bool kept_in(const Micrograph& m, size_t i);
long count_kept(const Micrograph& m);

// Whether decoys above m's cut-off lie on edges whose picks it leaves out,
// and so are not counted in decoys_above.
bool decoys_left_out(const Micrograph& m);

// The warnings a user needs about this micrograph and its picks: those
// about its file (add_file_warnings: header, pixels, no picks file), then,
// when its picks were found, those about the picks its cut-off keeps
// (add_kept_warnings), which change with the cut-off.
void add_warnings(Micrograph& m, const Settings& s);
void add_file_warnings(Micrograph& m, const Settings& s);
void add_kept_warnings(Micrograph& m, const Settings& s);

// Warnings about the run, added to each micrograph they concern: templates
// of the wrong contrast show as decoys that outscore the picks over all
// micrographs with decoys together (templates are the run's; on one sparse
// or empty micrograph the counts are too small to tell chance apart).
void add_run_warnings(std::vector<Micrograph>& mics);

// The picks at or above the cut-off as gvexmatch writes them: "_vexmatch.box"
// and "_vexmatch.star" forms, committed together (neither is replaced
// unless both are); the STAR file records the cut-off. "" on success, else
// the name that could not be written.
std::string write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path);
