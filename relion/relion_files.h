// The files RELION reads from a picking job, for RELION 3.1, 4 and 5 at
// once: a coordinate STAR file per micrograph, coords_suffix_autopick.star
// (3.1: coordinate files found by directory and suffix), autopick.star
// (4 and 5: a table of micrograph and coordinate file) and
// RELION_OUTPUT_NODES.star, which tells the pipeliner what the job made.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "io/picks.h"

// The part of a micrograph's name RELION keeps for the files a job derives
// from it: what follows the first "jobNNN" folder ("MotionCorr/job002/Movies/a.mrc"
// -> "Movies/a.mrc"); the whole name when it holds none.
std::string relion_post_name(const std::string& mic);

// Where the job's file for a micrograph goes: job + its kept part without
// the extension + suffix, as RELION 3.1 looks for coordinates. Empty, with
// why set, when that would lie outside the job folder ("..").
std::string job_file_for(const std::string& job, const std::string& mic, const std::string& suffix,
                         std::string& why);

// The picks (centres in micrograph pixels) in RELION's coordinate layout,
// with comment put before the table (RELION skips it). False when it could
// not be written; nothing half-written is left.
bool write_coordinates(const std::string& path, const std::vector<Pick>& picks, const std::string& comment);

// The node files of a job that picked these micrographs (name as the input
// gave it, coordinate file). star: the micrographs STAR file RELION 3.1's
// extraction reads the names from. label: the 4/5 node type of the
// coordinates (coords_type_label). False names the file in why.
bool write_node_files(const std::string& job, const std::string& star,
                      const std::vector<std::pair<std::string, std::string>>& coords, const std::string& label,
                      std::string& why);

// The node type label RELION running in project folder dir expects for
// picked coordinates: RELION 4 calls them "MicrographsCoords", 5
// "MicrographCoordsGroup"; told apart by the project's default_pipeline.star
// (5's newest name when there is none to tell, which 3.1 ignores).
std::string coords_type_label(const std::string& dir);

// A micrographs STAR file in RELION 3.1's layout for micrographs given
// without one (name, pixel size): one optics group per pixel size.
bool write_micrographs_star(const std::string& path, const std::vector<std::pair<std::string, double>>& mics,
                            double voltage, double cs, double q0);

// Writes text to path through a partial file; false when anything failed.
bool write_file_atomic(const std::string& path, const std::string& text);

// Makes the folders of path (everything before its last '/'); false on failure.
bool make_parent_dirs(const std::string& path);
