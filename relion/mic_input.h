// The micrographs a job picks, from what --in_mics names: a micrographs
// STAR file of RELION 3.1 to 5 (data_optics and data_micrographs) or 3.0
// (one table), a text list of names, a glob, or MRC files themselves.
#pragma once
#include <string>
#include <vector>

struct MicEntry {
  std::string name;  // exactly as the input gives it (RELION matches on it)
  double apix = 0;   // A per pixel; 0 when the input does not say
};

struct MicInput {
  std::vector<MicEntry> mics;
  std::string star;  // the micrographs STAR file when the input is one
};

// Reads every input in turn (names repeated across inputs are kept once).
// False, with why naming the file and the place, when an input cannot be
// read or is not a micrograph list.
bool read_mic_input(const std::vector<std::string>& inputs, MicInput& out, std::string& why);

// The micrographs of one parsed STAR text (exposed for the tests of each
// RELION layout): false with why for a text that holds none.
bool mics_from_star(const std::string& text, std::vector<MicEntry>& mics, std::string& why);
