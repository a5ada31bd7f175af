// gvexmatch_relion: the picker as a RELION External job. RELION starts it
// from the project folder with the job folder (--o), the input micrographs
// (--in_mics), the threads (--j) and the job's own "--LABEL VALUE"
// parameters, and learns how it ended from the RELION_JOB_EXIT_* file it
// leaves in the job folder; the exit status says the same to a script.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "common/errors.h"
#include "relion/job.h"
#include "relion/job_options.h"

namespace {

void touch(const std::string& path) {
  if (FILE* f = fopen(path.c_str(), "w")) fclose(f);
}

bool is_dir(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The exit file RELION waits for, and the reason on standard error (run.err).
int finish(const std::string& job, int status, const std::string& why) {
  if (status != kSuccess) fprintf(stderr, "gvexmatch_relion: %s: %s\n", status == kAborted ? "ABORTED" : "ERROR", why.c_str());
  if (job.empty() || !is_dir(job)) return status;
  if (status == kAborted) {
    remove((job + "RELION_JOB_ABORT_NOW").c_str());
    touch(job + "RELION_JOB_EXIT_ABORTED");
  } else {
    touch(job + (status == kSuccess ? "RELION_JOB_EXIT_SUCCESS" : "RELION_JOB_EXIT_FAILURE"));
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // A file-size limit fails the write that meets it instead of killing the job.
  signal(SIGXFSZ, SIG_IGN);
  const std::vector<std::string> words(argv + 1, argv + argc);
  JobOptions o;
  std::string why;
  const bool ok = parse_job_options(words, o, why);
  if (o.help) {
    fputs(job_usage(argv[0]).c_str(), stdout);
    return kSuccess;
  }
  if (words.empty()) {
    fputs(job_usage(argv[0]).c_str(), stderr);
    return kUsage;
  }
  if (!ok) return finish(o.out, kUsage, why + " (see --help)");
  // Our lines go to standard output (RELION's run.out); the picking
  // pipeline's own, meant for gvexmatch's users, go nowhere.
  fflush(stdout);
  FILE* log = fdopen(dup(1), "w");
  const int null = open("/dev/null", O_WRONLY);
  if (!log || null < 0) return finish(o.out, kFailure, "cannot set up the output");
  dup2(null, 1);
  close(null);
  stop_job_on_signals();
  int status = kFailure;
  bool busy = false;
  try {
    status = run_job(o, log, why, busy);
  } catch (const GvexFailure& f) {
    why = f.text;
  } catch (const std::exception& e) {
    why = e.what();
  }
  fclose(log);
  while (!why.empty() && why.back() == '\n') why.pop_back();
  // The exit file of a folder another run holds would be that run's.
  return finish(busy ? "" : o.out, status, why);
}
