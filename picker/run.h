// Run driver after the parameter echo.
#pragma once

struct GVexMatch_Para;
struct GVexRun;
struct MRC_HEAD;
class MicPrefetch;

// The whole program: options, run, summary. Failures are thrown to the
// caller (main prints them and exits with their status).
int gvexmatch_main(int argc, char** argv);

// True when the micrograph's "_vexmatch.box" or "_vexmatch.star" exists and
// is readable: --do_unfinished then skips it.
bool is_file_vexmatch_done(const char* box_name, const char* star_name);

// The header of the first readable micrograph, which fixes the sizes of the
// run (warnings for the names before it); release with mrc_delete_head.
MRC_HEAD* gvexmatch_reference(GVexMatch_Para* p, const char* prog);

// Micrograph i of the list, start to "File %s finished.", or the skip line
// of --do_unfinished (then false). A failure is thrown to the caller. With
// ahead, the pixels come from its read when it has micrograph i, and the
// next micrograph to be picked is read on its thread meanwhile.
bool gvexmatch_process_one(GVexRun& run, const MRC_HEAD& ref, int i, MicPrefetch* ahead = nullptr);

// Finds the reference micrograph, prepares templates and buffers, and picks
// every micrograph in command-line order. prog names the program for the
// help shown when no micrograph is readable. Returns 0 or ends the process.
int gvexmatch_run(GVexMatch_Para* p, const char* prog);

// "All %d files finished successfully:" and the list of names.
void gvexmatch_summary(GVexMatch_Para* p);
