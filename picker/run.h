// gvexmatch's driver: options, the session over every micrograph in
// command-line order, the summary.
#pragma once

struct GVexMatch_Para;

// The whole program: options, run, summary. Failures are thrown to the
// caller (main prints them and exits with their status).
int gvexmatch_main(int argc, char** argv);

// Finds the reference micrograph, prepares the session and picks every
// micrograph in command-line order; the first failure ends the run (thrown).
// prog names the program for the help shown when no micrograph is readable.
void gvexmatch_run(const GVexMatch_Para& p, const char* prog);

// "All %d files finished successfully:" and the list of names.
void gvexmatch_summary(const GVexMatch_Para& p);
