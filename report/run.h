// A run of micrographs as the report reads it: each micrograph's inputs,
// from the files beside it or from the picking session's result, its
// pictures, and the cut of them all. gvexreport and the MPI companion share
// it, so that both cut a run alike to the byte.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "picker/session.h"
#include "report/micrograph.h"

// A folder made when missing; false (errno set) when it cannot be, or
// something else holds the name.
bool make_dir(const std::string& dir);

// The picture of micrograph k of the run: its number and a short, plain
// form of its name.
std::string picture_name(size_t k, const std::string& mic);

// The header and pixels of m; a micrograph that cannot be read throws
// GvexFailure (status 1, to standard error) whose first line starts with prog.
void read_pixels(Micrograph& m, const std::string& prog);

// The rejected cells beside m, its masked fraction and usable area.
void read_rejected(Micrograph& m);

// m read whole from its files: pixels, the picks file of suffix (boxsize:
// the box of STAR picks), the rejected cells, and the decoys file of suffix
// when there is one (read_decoys).
void read_inputs(Micrograph& m, const std::string& suffix, int boxsize, const Settings& s, const std::string& prog);

// The decoys of a picks file live beside it, so that a run resumed with
// --do_unfinished, or a report without --pick, cuts as the run that picked:
// "_vexmatch.star" (or ".box") -> "NAME_vexmatch_decoys.star".
std::string decoys_path(const std::string& mic, const std::string& suffix);

// The prepared session's templates that can match nothing, in a line:
// "" when every one can. none: no template can, so that every micrograph
// would come back without picks, and look finished (the run is refused).
std::string blind_templates_line(const PickSession& session, const PickSettings& s, bool* none);

// The same for a program that picks a run: refused (status 1, prog
// named) when no template can match, else a warning printed when say.
void check_templates(const PickSession& session, const PickSettings& s, const std::string& prog, bool say);

// Each micrograph the session picks gets its decoys file in the same commit
// as its picks files (a run killed in between leaves neither): its decoys
// and usable area, bound to its picks by their count and a checksum of them
// as written.
void commit_decoys(PickSession& session, const std::string& suffix);

// The decoys at path into m (read after its pixels and picks), with the
// flags on strong edges: nothing when there is no such file; a warning, and
// nothing, when it is damaged or belongs to other picks (picked again since).
void read_decoys(Micrograph& m, const std::string& path, const Settings& s);

// m as the session picked it (with keep_pixels): its pixels, moved out of
// r, its rejected cells, the picks and decoys as their files hold them, and
// which of them lie on strong edges.
void take_picked(Micrograph& m, PickResult& r, const Settings& s);

// m's pictures written into the folder out (none when out is empty) under
// picture_name(k, m.name), which is returned; its pixels are then let go.
// "" when they cannot be written.
std::string write_pictures(Micrograph& m, size_t k, const Settings& s, const std::string& out);

// Each micrograph's cut-off (fixed when finite) with the run's pooled one,
// its warnings, both printed; with apply the kept picks written beside it
// as NAME_vexmatch_auto.box and .star. "" on success, else the file that
// could not be written.
std::string cut_run(std::vector<Micrograph>& mics, const Settings& s, double pooled, double fixed, bool apply);

// What the page's slider adds to the command it prints, to read the picks
// files (of suffix) again as this run read or wrote them.
std::string apply_words(const Settings& s, int boxsize, const std::string& suffix);

// The whole run's end: the pooled cut-off, cut_run, the page and
// summary.star into out (none when out is empty) with the pictures, then
// the lines "suggested --cc_cutoff X" and "report: OUT/index.html". ""
// on success, else what could not be done ("cannot write ...").
std::string cut_and_report(std::vector<Micrograph>& mics, const std::vector<std::string>& pictures, const Settings& s,
                           int boxsize, const std::string& suffix, double fixed, bool apply, const std::string& out);
