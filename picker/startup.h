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

// The first readable micrograph of the record's list (warnings for the
// names before it); its header fixes the sizes of the run. None readable
// is a help exit naming prog; a mode that cannot be read is fatal. With
// skip_damaged, a micrograph whose header cannot be read is passed over
// (its own turn reports it) and the next one is tried.
struct Reference {
  MRC_HEAD head{};
  std::string name;
};
Reference gvexmatch_reference(const GVexMatch_Para& p, const char* prog, bool skip_damaged = false);
