// Progress of a gvexmatch_mpi run as rank 0 reports it: one line per
// finished micrograph, then a summary.
//   [i/N] NAME picks P  S.S s  ETA h:mm:ss
//   [i/N] NAME skipped (finished before)
//   [i/N] NAME FAILED: reason
#pragma once
#include <string>
#include <vector>

enum Outcome { OUTCOME_DONE, OUTCOME_SKIPPED, OUTCOME_FAILED };

class Progress {
 public:
  Progress(char** names, int n);
  int total() const { return (int)names_.size(); }
  // True when micrograph i's name came earlier in the list.
  bool listed_before(int i) const;
  void finished(int index, int outcome, int picks, double seconds, const char* reason);
  // The summary and the failed micrographs; returns the exit status.
  int summary() const;

 private:
  std::vector<std::string> names_;
  std::vector<bool> repeated_;
  std::vector<std::string> failed_;
  int done_ = 0, skipped_ = 0, reported_ = 0;
  long picks_ = 0;
  double start_;
};

// One line from the printed text of a failure: lines joined, highlighting dropped.
std::string gvex_failure_reason(const std::string& text);

