// The command line of gvexmatch_relion: what RELION's External job passes
// (--o, --in_mics, --j and the job's own "--LABEL VALUE" parameters), and
// the same words typed by hand.
#pragma once
#include <string>
#include <vector>

// How the job cuts each micrograph: from its own picks and decoys alone
// (auto); when it is picked, as one run with up to kRecentBefore micrographs
// picked just before it (recent, the default: its files never change once
// written, and a few dozen micrographs prove what one cannot); again and
// again with all the job's as one run (run); at a given score.
enum class JobCut { kAlone, kRecent, kRun, kGiven };
constexpr int kRecentBefore = 63;

inline bool cut_automatic(JobCut c) { return c != JobCut::kGiven; }

struct JobOptions {
  std::string out;                  // job folder, ending in '/'
  std::vector<std::string> inputs;  // --in_mics and names after the options
  int threads = 0;                  // 0: every core
  double diameter = 0;              // A; required
  std::string templates;            // empty: the synthetic disc
  double apix_templates = 0;        // 0: the micrographs'
  double angle_step = 5;
  int speed = 2;
  JobCut cut = JobCut::kRecent;
  double cutoff = 0;                // JobCut::kGiven's score
  int gpu = -1;                     // -1: the best GPU that answers
  int extract_box = 0;              // 0: keep picks near the edge
  double apix = 0;                  // 0: from the input
  // The optics of the micrographs.star written for a glob or list (RELION
  // 3.1's extraction reads them): kV, mm, fraction.
  double voltage = 300, cs = 2.7, q0 = 0.1;
  bool follow = false;
  double follow_idle = 0;           // seconds; 0: no end for lack of news
  double settle = 3;                // seconds a file must hold still
  bool help = false;
};

// Exit statuses, also in --help.
enum JobStatus { kSuccess = 0, kFailure = 1, kUsage = 2, kAborted = 3 };

// Parses the words after the program name. A refusal (unknown label,
// missing or bad value, no --o) fills why with a message naming the word;
// out is set as far as it was read, so the caller can still mark the job.
bool parse_job_options(const std::vector<std::string>& words, JobOptions& o, std::string& why);

// The --help text.
std::string job_usage(const char* prog);

// The settings that decide the picks, one "label value" per line: a job
// continued with other settings would mix two kinds of picks.
std::vector<std::pair<std::string, std::string>> picking_settings(const JobOptions& o);
