// Run driver after the parameter echo.
#pragma once

struct GVexMatch_Para;

// The whole program: options, run, summary. Failures are thrown to the
// caller (main prints them and exits with their status).
int gvexmatch_main(int argc, char** argv);

// True when the micrograph's "_vexmatch.box" or "_vexmatch.star" exists and
// is readable: --do_unfinished then skips it.
bool is_file_vexmatch_done(const char* box_name, const char* star_name);

// Finds the reference micrograph, prepares templates and buffers, and picks
// every micrograph in command-line order. prog names the program for the
// help shown when no micrograph is readable. Returns 0 or ends the process.
int gvexmatch_run(GVexMatch_Para* p, const char* prog);

// "All %d files finished successfully:" and the list of names.
void gvexmatch_summary(GVexMatch_Para* p);
