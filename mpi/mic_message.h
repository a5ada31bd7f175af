// A micrograph as the report reads it (report/micrograph.h), packed into
// bytes for the trip from the rank that picked it to rank 0, which cuts the
// whole run. Its pixels stay behind: only the figures the cut and the page
// read travel.
#pragma once
#include <string>
#include <vector>

#include "report/micrograph.h"

std::vector<char> pack_micrograph(const Micrograph& m, const std::string& picture);

// False for bytes that are not a whole packed micrograph, or whose figures
// no picking rank would send (coordinates or scores out of range, flags
// that do not match the picks).
bool unpack_micrograph(const std::vector<char>& bytes, Micrograph& m, std::string& picture);
