// The automatic cut-off of a job that picks while micrographs arrive: each
// micrograph is cut when it is picked, from its own picks and decoys. The
// run's sparse cut that gvexreport lends to sparse micrographs (taken
// without evidence of their own, weighed in with it) is not used: borrowed
// from the micrographs picked before, it would make a micrograph's picks
// depend on the order of arrival. One place, so that a better rule can take
// its place.
#pragma once
#include <vector>

#include "picker/session.h"

// The cut-off of one picked micrograph (its result holds every grid maximum
// and the decoys of the same scan) for particles of diameter A at apix A.
// On a sparse micrograph whose pixels are at hand (nx x ny; none: empty),
// the picks at or above it that lie on strong edges are taken out of picks
// (a copy of the result's), and edge_dropped says how many.
double auto_cutoff(const PickResult& r, double diameter, double apix, const std::vector<float>& pixels, int nx,
                   int ny, std::vector<Pick>& picks, long& edge_dropped);

// The one line the job's page draws over every score of the job.
double job_cutoff(const std::vector<double>& all);
