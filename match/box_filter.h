// Merge of all templates' candidates of one micrograph into the final pick
// file.
#pragma once
#include <string>
#include <vector>

#include "common/hd.h"
#include "io/picks.h"

// Reads the per-template candidate file in_file (working pixels), keeps the
// best candidate per merge cell of trunc(1.4142135*min_dist/2) pixels,
// suppresses candidates beaten or equalled by a close neighbour cell, drops
// those below score_limit or near a position of excluded_file (micrograph
// pixels; skipped when not named or not readable), and writes out_file in
// micrograph pixels (working pixels * scale + origin): format 1 the STAR
// form, any other value the box form. Returns the picks it wrote.
std::vector<Pick> box_filter(int nx, int ny, float min_dist, float score_limit, float scale, int box_x, int box_y,
                             int2 origin, const char* in_file, const char* excluded_file, const char* out_file,
                             int format);

// The same merge of candidates held in memory (the lines a candidate file
// holds), without writing anything.
std::vector<Pick> merge_candidate_text(const std::string& candidates, int nx, int ny, float min_dist,
                                       float score_limit, float scale, int box_x, int box_y, int2 origin,
                                       const char* excluded_file);

// Writes picks as box_filter does: STAR form when star, box form otherwise;
// a failed write is fatal, naming out_file.
void write_merged_picks(const char* out_file, const std::vector<Pick>& picks, bool star);
