// What the job keeps of each picked micrograph, one STAR file per
// micrograph under <job>/records/. A record is written last, after the
// micrograph's coordinate file and picture, so a micrograph counts as done
// exactly when its record exists: a run killed at any moment leaves either
// a record or nothing that a rerun would not write again the same way.
#pragma once
#include <string>
#include <vector>

#include "io/picks.h"

struct MicRecord {
  std::string mic;          // as the input names it
  long sequence = 0;        // 1 for the job's first micrograph, and so on
  int nx = 0, ny = 0;
  double apix = 0;
  double cutoff = 0;        // picks scoring at least this are kept...
  int edge_box = 0;         // ...unless a box this wide around them leaves the micrograph
  double masked = 0;        // share of the micrograph the mask left out
  std::string coords;       // the coordinate file RELION reads
  std::string picture;      // relative to the job folder
  std::vector<Pick> picks;  // every grid maximum kept by the merge
  std::vector<Cell> rejected;
  std::vector<std::string> warnings;
  // For a cut over the whole job (--cutoff run), what it reads again: the
  // decoys of the same scan, a flag per pick and per decoy on a strong
  // edge, and the area the mask left in. picks then holds the picks on
  // edges too, and drop_edges says whether the cut leaves them out.
  bool pooled = false;
  bool drop_edges = false;
  std::vector<char> on_edge;
  std::vector<Pick> decoys;
  std::vector<char> decoy_on_edge;
  double usable_pixels = 0;
  // How that cut was chosen, for the page.
  std::string rule, why;
  long decoys_above = -1;
};

// The picks kept at the record's cut-off and edge box, less those on strong
// edges where the cut leaves them out.
std::vector<Pick> kept_picks(const MicRecord& r);

bool record_write(const std::string& path, const MicRecord& r);

// False with why naming the file for a record that cannot be read (one a
// crash cannot leave behind: records are renamed into place whole).
bool record_read(const std::string& path, MicRecord& r, std::string& why);

// Every record under dir, by sequence; unreadable ones are named in bad.
std::vector<MicRecord> records_in(const std::string& dir, std::vector<std::string>& bad);
