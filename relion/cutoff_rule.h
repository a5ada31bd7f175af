// The automatic cut-offs of a job that picks while micrographs arrive.
// auto: each micrograph is cut when it is picked, from its own picks and
// decoys alone, without the run's cuts that gvexreport lends (the run's
// sparse cut, the whole run's cut weighed in). recent: each micrograph is
// cut when it is picked, as the last of one run made of it and the
// micrographs picked just before it (at most 63, so that a cut's cost stays
// bounded in a long job); its cut depends on the order of arrival but never
// changes once written. run: every micrograph is cut again, as often as the
// job writes its node files, with all the job's micrographs as one run,
// exactly as gvexreport --pick cuts them; its files change as the job grows,
// and depend only on which micrographs it holds.
#pragma once
#include <vector>

#include "picker/session.h"
#include "relion/record.h"

// The cut-off of one picked micrograph (its result holds every grid maximum
// and the decoys of the same scan) for particles of diameter A at apix A.
// On a sparse micrograph whose pixels are at hand (nx x ny; none: empty),
// the picks at or above it that lie on strong edges are taken out of picks
// (a copy of the result's), and edge_dropped says how many.
double auto_cutoff(const PickResult& r, double diameter, double apix, const std::vector<float>& pixels, int nx,
                   int ny, std::vector<Pick>& picks, long& edge_dropped);

// Fills rec for a cut as a run (recent_cutoff, run_cutoffs): every pick and
// decoy of the result, their flags on strong edges (none without pixels),
// the usable area.
void pool_record(MicRecord& rec, const PickResult& r, double diameter, const std::vector<float>& pixels, int nx,
                 int ny);

// Each pooled record's cut-off and edge step from all the pooled records
// as one run of particles of diameter A (records not pooled keep theirs);
// the same cuts whatever the records' order.
void run_cutoffs(std::vector<MicRecord>& records, double diameter);

// The cut-off of r (pooled, not yet among before) as one run with the most
// recent pooled records of before (in the job's order), at most `most` of
// them; their cuts stay as they were. Returns how many were taken.
int recent_cutoff(std::vector<MicRecord>& before, MicRecord& r, int most, double diameter);

// The one line the job's page draws over every score of the job; NaN (none
// to suggest) when the job has no picks.
double job_cutoff(const std::vector<double>& all);
