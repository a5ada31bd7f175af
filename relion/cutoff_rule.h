// The automatic cut-off of a job that picks while micrographs arrive: each
// micrograph is cut when it is picked, from its own picks and decoys. One
// place, so that a better rule can take its place.
#pragma once
#include <vector>

#include "picker/session.h"

// The cut-off of one picked micrograph (its result holds every grid maximum
// and the decoys of the same scan) for particles of diameter A at apix A.
double auto_cutoff(const PickResult& r, double diameter, double apix);

// The one line the job's page draws over every score of the job.
double job_cutoff(const std::vector<double>& all);
