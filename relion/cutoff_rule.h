// The automatic cut-off of a job that picks while micrographs arrive: each
// micrograph is cut when it is picked, knowing only the micrographs picked
// before it. One place, so that a better rule can take its place.
#pragma once
#include <vector>

// Micrographs before this one whose scores take part (the most recent):
// enough for the run's typical scores, and a bounded cost per micrograph.
constexpr int kCutoffWindow = 200;

// The cut-off of a micrograph with these scores (every grid maximum), given
// those of the micrographs picked before it (empty for the first).
double auto_cutoff(const std::vector<double>& scores, const std::vector<double>& earlier);

// The cut-off over every score of the job, shown on its page.
double job_cutoff(const std::vector<double>& all);
