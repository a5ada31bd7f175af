#include "mpi/progress.h"

#include <cstdio>
#include <fstream>
#include <set>

#include "common/errors.h"
#include "common/records.h"
#include "common/regular_file.h"
#include "io/mrcfile.h"
#include "picker/timer.h"

Progress::Progress(char** names, int n) : names_(names, names + n), repeated_(n, false), start_(gvex_wall_seconds()) {
  std::set<std::string> seen;
  // Other spellings of one micrograph would write the same files.
  for (int i = 0; i < n; i++) repeated_[i] = !seen.insert(gvex_place_of(names_[i])).second;
}

bool Progress::listed_before(int i) const { return repeated_[i]; }

static std::string clock_text(double s) {
  const long t = s > 0 ? (long)(s + 0.5) : 0;
  char buf[32];
  snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60);
  return buf;
}

void Progress::finished(int index, int outcome, int picks, double seconds, const char* reason) {
  reported_++;
  const char* name = names_[index].c_str();
  if (outcome == OUTCOME_FAILED) {
    failed_.push_back(names_[index] + ": " + reason);
    printf("[%d/%d] %s FAILED: %s\n", reported_, total(), name, reason);
  } else if (outcome == OUTCOME_SKIPPED) {
    skipped_++;
    printf("[%d/%d] %s skipped (%s)\n", reported_, total(), name, reason && *reason ? reason : "finished before");
  } else {
    done_++;
    picks_ += picks;
    const double elapsed = gvex_wall_seconds() - start_;
    const double eta = elapsed / reported_ * (total() - reported_);
    printf("[%d/%d] %s picks %d  %.1f s  ETA %s\n", reported_, total(), name, picks, seconds, clock_text(eta).c_str());
  }
  fflush(stdout);
}

int Progress::summary() const {
  const double wall = gvex_wall_seconds() - start_;
  printf("Summary: %d micrographs, %d picked, %d skipped, %d failed, %ld picks, wall %s, %.0f micrographs per hour\n",
         total(), done_, skipped_, (int)failed_.size(), picks_, clock_text(wall).c_str(),
         wall > 0 ? done_ * 3600.0 / wall : 0.0);
  if (failed_.empty()) return 0;
  printf("Failed micrographs:\n");
  for (const std::string& f : failed_) printf("    %s\n", f.c_str());
  return 1;
}

std::string gvex_failure_reason(const std::string& text) {
  const std::string out = gvex_failure_line(text);
  return out.size() > 480 ? out.substr(0, 477) + "..." : out;
}

