// The start every program that takes gvexmatch's command line shares:
// parsing, the GPU choice, the advice, the echo and the value checks, then
// the reference micrograph that fixes the sizes of the run.
#pragma once
#include <memory>
#include <string>

#include "io/mrcfile.h"
#include "picker/params.h"
#include "picker/settings.h"

using ParaPtr = std::unique_ptr<GVexMatch_Para, void (*)(GVexMatch_Para*)>;

// Parses argv (help exits and refusals end through the failure path),
// lets choose_gpu settle the GPU id in the record (false: none usable, a
// help exit), prints the advice and the echo, and checks the values.
ParaPtr gvexmatch_start(int argc, char** argv, bool (*choose_gpu)(int& gid));

// The companions' FFTW wisdom (gvexmatch itself always estimates its plans:
// same input, same output, whatever the machine holds): the file given
// (option), else the one GVEX_FFTW_WISDOM names ("none": no wisdom), else
// FFTW's system wisdom when there is one. Returns the line that says which;
// a named file that cannot be read is fatal, naming it.
std::string gvex_companion_wisdom(const std::string& option);

// Takes "--fftw_wisdom FILE" out of a companion's argv (argc shrinks) and
// returns FILE, or "" when absent.
std::string gvex_take_wisdom_option(int& argc, char** argv);

// The first readable micrograph of the record's list (warnings for the
// names before it); its header fixes the sizes of the run. None readable
// is a help exit naming prog; a mode that cannot be read is fatal. With
// skip_damaged, a micrograph whose header cannot be read is passed over
// (its own turn reports it) and the next one is tried; when every one is
// damaged, the first one's failure ends the run.
struct Reference {
  MRC_HEAD head{};
  std::string name;
};
Reference gvexmatch_reference(const GVexMatch_Para& p, const char* prog, bool skip_damaged = false);
