// The picker's final coordinate files, one reader and one writer for every
// program: "_vexmatch.box" (EMAN corner form with score, template and angle
// columns) and "_vexmatch.star" (RELION centre form), and the rejected-cell
// lists beside them.
#pragma once
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

// One pick: its centre in micrograph pixels, the box around it, the score,
// the template (class) and the in-plane angle.
struct Pick {
  double x = 0, y = 0;
  int w = 0, h = 0;
  float score = 0;
  int cls = 1;
  float psi = 0;
};

// A rejected grid cell of "_rejected.box": corner and size, micrograph pixels.
struct Cell {
  long x = 0, y = 0, w = 0, h = 0;
};

// Writes the picks in the ".box" form ("%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f":
// corner x y, box w h, score, template, angle) or, with star, the header
// and ".star" lines ("%-8d%-8d%-8.6f\t%-8d%-8.6f": centre x y, angle,
// template, score). Centres are rounded to whole pixels. A finite cut (STAR
// only: RELION skips '#' lines there, but not in ".box" files) is recorded
// as the line "# cut-off X: ..." before the rows, X the picks were cut at.
// False when a write failed.
bool picks_write(FILE* fp, const std::vector<Pick>& picks, bool star, double cut = NAN);

// A pick is kept at a cut-off when its score is at least the cut-off as a
// score (a float, as the score read from its text is), so that the score
// written as a cut-off keeps its own pick.
inline bool pick_kept(const Pick& p, double cut) { return p.score >= (float)cut; }
// The shortest of "%.4f", "%.6f", "%.9g" that reads back to the same score.
std::string cut_text(double cut);

// What a reader made of a file.
struct PicksRead {
  bool opened = false;   // the file could be read at all
  long refused = 0;      // lines of numbers refused: not finite, or out of range
  long first_refused = 0;  // 1-based line number of the first refused line
  const char* why = "";    // what was wrong with it
  double cut = NAN;      // the cut-off a "# cut-off X" line records; NaN when none does
  const char* not_a_file = "";  // "a FIFO", "a folder"...: what stands at the name instead, unread
};

// Coordinates beyond this many pixels, in either direction, are refused:
// no detector is that large, and they would overflow the integers of every
// downstream format.
constexpr double PICKS_MAX_COORD = 1e7;
// Scores are normalised correlations, a few units at most; beyond this a
// line is damaged.
constexpr double PICKS_MAX_SCORE = 1e6;

// Reads a ".star" (centres; box is given to each pick) or ".box" (corners)
// picks file written by the picker or a compatible program; lines that are
// not picks (headers, blanks) are passed over, damaged ones are counted in
// the result.
PicksRead picks_read(const std::string& path, int box, std::vector<Pick>& picks);

// The same for the text of such a file, in its ".star" (star) or ".box" form.
PicksRead picks_parse(const std::string& text, bool star, int box, std::vector<Pick>& picks);

// The cells of a "_rejected.box" file (none when it is absent); damaged
// lines are counted as in picks_read.
PicksRead rejected_read(const std::string& path, std::vector<Cell>& cells);
