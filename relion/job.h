// One run of a picking job: the micrographs not yet picked, picked in input
// order (or, with --follow, as they arrive), their files written while the
// next one is picked, and the job's node files and report at the end.
#pragma once
#include <cstdio>
#include <string>

#include "relion/job_options.h"

// Runs the job; log receives the progress lines. Returns the exit status
// (JobStatus) and, unless it is a success, why. busy: another run holds
// the job folder, and this one left it as it was.
int run_job(const JobOptions& o, FILE* log, std::string& why, bool& busy);

// SIGTERM (a cancelled queue job) and SIGINT end the job as RELION's abort
// file does; a second signal ends it at once. A SIGINT ignored at start
// (a background job of a shell) stays ignored.
void stop_job_on_signals();
