// Output files are written under "<name>.part" beside the final name and
// renamed into place once complete, so that a run killed at any moment never
// leaves a final file that looks finished, and a file of an earlier run is
// replaced only by a complete new one.
#pragma once
#include <cstdio>
#include <string>

std::string gvex_part_name(const char* name);

// Opens "<name>.part" with the given mode; null when it cannot be created.
FILE* gvex_fopen_part(const char* name, const char* mode);

// Closes the stream and renames "<name>.part" to name. Returns 0, or -1 after
// removing the partial file when anything failed (write error, full disk,
// rename refused).
int gvex_commit_part(FILE* fp, const char* name);
