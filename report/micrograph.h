// What gvexreport knows of one micrograph: its header and pixels, the picks
// gvexmatch wrote beside it, the rejected cells, and what it warns about.
#pragma once
#include <string>
#include <vector>

#include "io/picks.h"
#include "picker/settings.h"

struct Micrograph {
  std::string name;                  // as given
  int nx = 0, ny = 0, nz = 0, mode = 2, nsymbt = 0;
  double header_apix = 0;            // cell length / sampling; 0 when unset
  std::vector<float> pixels;         // first section
  long nonfinite = 0;                // NaN and infinite pixels
  bool picks_found = false;
  std::vector<Pick> picks;
  std::vector<Cell> rejected;
  double masked = 0;                 // fraction of the micrograph in rejected cells
  double cutoff = 0;                 // suggested cut-off of this micrograph
  std::vector<std::string> warnings;
};

// Name beside the micrograph: its ".mrc"/".mrcs" ending replaced by suffix.
std::string beside(const std::string& mic, const std::string& suffix);

// Reads the header and first section; a file that cannot be read throws
// GvexFailure with a message naming it.
void read_micrograph(Micrograph& m);

// The report's view of the run: pixel size and diameter as gvexmatch took
// them, and what gvexmatch derives from them.
struct Settings {
  double apix = 1.34, diameter = 400;
  bool apix_given = false;
  PickSettings pick;  // derive() of the two
};
Settings report_settings(double apix, double diameter, bool apix_given);

// The warnings a user needs about this micrograph and its picks.
void add_warnings(Micrograph& m, const Settings& s);

// The picks at or above the cut-off as gvexmatch writes them: "_vexmatch.box"
// and "_vexmatch.star" forms, committed together (neither is replaced
// unless both are). "" on success, else the name that could not be written.
std::string write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path);
