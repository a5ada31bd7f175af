// What gvexreport knows of one micrograph: its header and pixels, the picks
// gvexmatch wrote beside it, the rejected cells, and what it warns about.
#pragma once
#include <string>
#include <vector>

struct Pick {
  double x = 0, y = 0;  // centre, micrograph pixels
  double score = 0, psi = 0;
  int cls = 1, w = 0, h = 0;
};

struct Cell {
  int x = 0, y = 0, w = 0, h = 0;  // corner and size, micrograph pixels
};

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

// Picks from a gvexmatch .star (centres) or .box (corners) file; false when
// the file cannot be read. box is the box size given to STAR picks.
bool read_picks(const std::string& path, int box, std::vector<Pick>& picks);

// Cells of "_rejected.box"; none when the file is absent.
std::vector<Cell> read_rejected(const std::string& path);

struct Settings {
  double apix = 1.34, diameter = 400;
  bool apix_given = false;
};

// The warnings a user needs about this micrograph and its picks.
void add_warnings(Micrograph& m, const Settings& s);

// The picks at or above the cut-off as gvexmatch writes them: "_vexmatch.box"
// and "_vexmatch.star" forms. False when a file could not be written.
bool write_kept(const Micrograph& m, const std::string& box_path, const std::string& star_path);
