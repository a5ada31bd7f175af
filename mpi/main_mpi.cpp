// gvexmatch_mpi: the picker over Open MPI. Rank 0 hands out micrographs one
// at a time as ranks ask for work (micrographs differ in cost); each worker
// runs the same pipeline as gvexmatch and writes the same files. The only
// traffic is the work queue: an index out, a short result back.
#include <fcntl.h>
#include <mpi.h>
#include <unistd.h>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/errors.h"
#include "common/owned.h"
#include "common/redirect.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "io/mrcfile.h"
#include "mpi/progress.h"
#include "picker/help.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"

namespace {

enum Tag { TAG_RESULT = 1, TAG_WORK = 2 };
constexpr int kStop = -1;

// What a worker sends back: the micrograph it finished (-1 for the first
// request), how it ended, and the first line of a failure.
struct Result {
  int index = -1;
  int outcome = OUTCOME_DONE;
  int picks = 0;
  double seconds = 0.0;
  char reason[512] = {0};
};

void usage(const char* prog) {
  printf("Usage: mpirun -n K %s [gvexmatch options] MICROGRAPH...\n\n"
         "Picks the micrographs with the options and outputs of gvexmatch, spread over K MPI ranks: rank 0\n"
         "hands out micrographs, the other ranks pick them (with K = 1 rank 0 picks alone). Each rank uses\n"
         "GPU (--gid + local rank) mod (GPUs on its node), or the host with its share of the node's cores.\n"
         "A micrograph that cannot be picked is reported and skipped; the run then ends with status 1.\n"
         "On the host, FFT plans come from the FFTW wisdom of --fftw_wisdom FILE (written by gvexmatch_tune),\n"
         "else of the file GVEX_FFTW_WISDOM names (none: estimated plans), else FFTW's system wisdom.\n\n"
         "gvexmatch's options:\n",
         prog);
  gvexmatch_help(prog);
}

// Picks micrograph i and says how it went.
Result pick_one(PickSession& session, const GVexMatch_Para& p, int i, int rank) {
  Result r;
  r.index = i;
  const double t0 = gvex_wall_seconds();
  PickResult picked;
  {
    StdoutRedirect quiet;
    picked = session.pick(p.mic_files[i]);
  }
  r.seconds = gvex_wall_seconds() - t0;
  switch (picked.outcome) {
    case PickResult::Outcome::finished:
      r.outcome = OUTCOME_DONE;
      r.picks = (int)picked.picks.size();
      break;
    case PickResult::Outcome::skipped:
      r.outcome = OUTCOME_SKIPPED;
      break;
    case PickResult::Outcome::failed:
      r.outcome = OUTCOME_FAILED;
      snprintf(r.reason, sizeof r.reason, "rank %d: %s", rank, gvex_failure_reason(picked.failure.text).c_str());
      break;
  }
  return r;
}

// Rank 0 with other ranks: the queue.
void hand_out(int ranks, Progress& progress) {
  int next = 0, working = ranks - 1;
  while (working > 0) {
    Result r;
    MPI_Status st;
    // A blocking receive spins on a core; rank 0 has nothing else to do, so
    // it looks now and then and leaves the cores to the pickers.
    for (int waiting = 0; !waiting;) {
      MPI_Iprobe(MPI_ANY_SOURCE, TAG_RESULT, MPI_COMM_WORLD, &waiting, MPI_STATUS_IGNORE);
      if (!waiting) usleep(2000);
    }
    MPI_Recv(&r, sizeof r, MPI_BYTE, MPI_ANY_SOURCE, TAG_RESULT, MPI_COMM_WORLD, &st);
    if (r.index >= 0) progress.finished(r.index, r.outcome, r.picks, r.seconds, r.reason);
    // A name listed twice is picked once: two ranks would only race for it.
    while (next < progress.total() && progress.listed_before(next)) {
      progress.finished(next, OUTCOME_SKIPPED, 0, 0.0, "listed before");
      next++;
    }
    int work = next < progress.total() ? next++ : kStop;
    if (work == kStop) working--;
    MPI_Send(&work, 1, MPI_INT, st.MPI_SOURCE, TAG_WORK, MPI_COMM_WORLD);
  }
}

void work(PickSession& session, const GVexMatch_Para& p, int rank) {
  Result r;
  for (;;) {
    MPI_Send(&r, sizeof r, MPI_BYTE, 0, TAG_RESULT, MPI_COMM_WORLD);
    int i = kStop;
    MPI_Recv(&i, 1, MPI_INT, 0, TAG_WORK, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
    if (i == kStop) return;
    r = pick_one(session, p, i, rank);
  }
}

int run_mpi(int argc, char** argv, int rank, int ranks, int local_rank, int local_ranks) {
  const char* prog = argv[0];
  const std::string wisdom = gvex_take_wisdom_option(argc, argv);
  if (argc < 2 || is_keywd_help(argv[1])) {
    if (rank == 0) usage(prog);
    return argc < 2 ? 2 : 0;
  }
  ParaPtr p(nullptr, gvexmatch_delete_parameters);
  Reference ref;
  {
    // The option echo and the reference micrograph's warnings, once.
    StdoutRedirect quiet(nullptr, rank != 0);
    gvex_timer_push();
    p = gvexmatch_start(argc, argv, [](int& gid) { return check_and_set_gid(gid) == 0; });
    const int gpus = gvex_device_count();
#if defined(_OPENMP)
    if (gpus == 0) omp_set_num_threads(std::max(1, omp_get_num_procs() / local_ranks));
#endif
    fputs(gvex_device_activate(gpus > 0 ? (p->gid + local_rank) % gpus : p->gid), stdout);
    if (!gvex_on_gpu()) fputs(gvex_companion_wisdom(wisdom).c_str(), stdout);
    // A damaged micrograph is reported at its turn; the next one serves.
    ref = gvexmatch_reference(*p, prog, true);
  }
  Progress progress(p->mic_files, p->n_mic);
  PickSession session(derive(options_from_record(*p)));
  // The processes sharing this rank's memory: on the host every rank of the
  // node, on a GPU the ranks of the node that were given the same GPU.
  int sharers = local_ranks;
  if (gvex_on_gpu()) {
    const int gpus = gvex_device_count(), mine = local_rank % gpus;
    sharers = (local_ranks - mine + gpus - 1) / gpus;
  }
  // Every rank prepares, so that a refused template ends all of them with
  // the same lines; a rank that fails alone (a broken GPU) ends the others too.
  int ok = 1, all_ok = 1;
  GvexFailure failure;
  try {
    StdoutRedirect quiet;
    session.prepare(ref.head, ref.name, sharers);
  } catch (const GvexFailure& f) {
    ok = 0;
    failure = f;
  }
  MPI_Allreduce(&ok, &all_ok, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  if (!ok) throw failure;
  if (!all_ok) gvex_throw("Another rank could not prepare the run; its messages went to its own output.\n");
  if (ranks == 1) {
    for (int i = 0; i < p->n_mic; i++) {
      if (progress.listed_before(i)) {
        progress.finished(i, OUTCOME_SKIPPED, 0, 0.0, "listed before");
        continue;
      }
      const Result r = pick_one(session, *p, i, rank);
      progress.finished(i, r.outcome, r.picks, r.seconds, r.reason);
    }
  } else if (rank == 0) {
    hand_out(ranks, progress);
  } else {
    work(session, *p, rank);
  }
  return rank == 0 ? progress.summary() : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // A file-size limit fails the write that meets it instead of killing the rank.
  signal(SIGXFSZ, SIG_IGN);
  MPI_Init(&argc, &argv);
  int rank = 0, ranks = 1, local_rank = 0, local_ranks = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &ranks);
  MPI_Comm node;
  MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, rank, MPI_INFO_NULL, &node);
  MPI_Comm_rank(node, &local_rank);
  MPI_Comm_size(node, &local_ranks);
  MPI_Comm_free(&node);
  int status = 0;
  try {
    status = run_mpi(argc, argv, rank, ranks, local_rank, local_ranks);
  } catch (const GvexFailure& f) {
    // Every rank parses the same words and reads the same reference, so a
    // refusal before the queue starts ends all of them alike; rank 0 says why.
    if (rank == 0) gvex_report_failure(f);
    // An unknown option is a usage error for this program.
    status = f.status == 0 ? 2 : f.status;
  }
  fflush(stdout);
  MPI_Finalize();
  return status;
}
