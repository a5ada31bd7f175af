// gvexmatch_mpi: the picker over Open MPI. Rank 0 hands out micrographs one
// at a time as ranks ask for work (micrographs differ in cost); each worker
// runs the same pipeline as gvexmatch and writes the same files. The only
// traffic is the work queue: an index out, a short result back. With an
// automatic cut-off each finished micrograph's picks and decoys come back
// too, and rank 0 cuts the run as one, as gvexreport --pick does.
#include <fcntl.h>
#include <mpi.h>
#include <unistd.h>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cmath>
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
#include "io/star_table.h"
#include "mpi/mic_message.h"
#include "mpi/progress.h"
#include "picker/help.h"
#include "picker/options.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"
#include "report/run.h"

namespace {

enum Tag { TAG_RESULT = 1, TAG_WORK = 2, TAG_MICROGRAPH = 3 };
constexpr int kStop = -1;

// What a worker sends back: the micrograph it finished (-1 for the first
// request), how it ended, and the first line of a failure.
struct Result {
  int index = -1;
  int outcome = OUTCOME_DONE;
  int picks = 0;
  double seconds = 0.0;
  long long bytes = 0;  // the packed micrograph that follows (automatic cut-off)
  char reason[512] = {0};
};

// The automatic cut-off: every grid maximum kept with the decoys of the
// same scan, the run cut as one at the end.
struct AutoCut {
  bool on = false, apply = false, apix_given = false;
  std::string report;  // the page's folder ("": none)
  Settings set;        // the report's view of the run
  std::string suffix;  // the picks files beside each micrograph
  std::vector<Micrograph> mics;  // by index; those with picks found are cut
  std::vector<std::string> pictures;

  // The report's view of a run of n micrographs picked with these options.
  void start(const PickOptions& opt, const PickSettings& settings, int n) {
    set = report_settings(opt.apixM, opt.diameter, apix_given);
    set.pick = settings;
    suffix = opt.write_star ? "_vexmatch.star" : "_vexmatch.box";
    mics.resize(n);
    pictures.resize(n);
  }
};

[[noreturn]] void usage_error(const std::string& why) {
  gvex_throw("gvexmatch_mpi: " + why + " (gvexmatch_mpi --help lists the options)\n", 2, true);
}

// Takes --auto_cutoff and --report DIR out of the words; with either, the
// picker keeps every grid maximum (--cc_cutoff 0 first, and refused later).
std::vector<std::string> take_cut_options(int argc, char** argv, AutoCut& cut) {
  std::vector<std::string> words = {argv[0]};
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--auto_cutoff") {
      cut.apply = true;
    } else if (a == "--report") {
      // "--report --apixM": the folder was left out, and the option would be eaten as its name.
      if (i + 1 >= argc || !*argv[i + 1] || starts_with(argv[i + 1], "--"))
        usage_error("--report needs a folder" + std::string(i + 1 < argc && *argv[i + 1] ? ", not the option " : "") +
                    (i + 1 < argc ? argv[i + 1] : ""));
      cut.report = argv[++i];
    } else {
      words.push_back(a);
    }
  }
  cut.on = cut.apply || !cut.report.empty();
  if (!cut.on) return words;
  for (size_t i = 1; i < words.size(); i++) {
    const OptionRow* row = gvex_find_option(words[i].c_str());
    if (row && std::string(row->name) == "cc_cutoff")
      usage_error("--auto_cutoff and --report keep every grid maximum (--cc_cutoff 0) and choose the cut-off "
                  "themselves");
    if (row && std::string(row->name) == "apixM") cut.apix_given = true;
  }
  words.insert(words.begin() + 1, {"--cc_cutoff", "0"});
  return words;
}

void usage(const char* prog) {
  printf("Usage: mpirun -n K %s [--auto_cutoff] [--report DIR] [gvexmatch options] MICROGRAPH...\n\n"
         "Picks the micrographs with the options and outputs of gvexmatch, spread over K MPI ranks: rank 0\n"
         "hands out micrographs, the other ranks pick them (with K = 1 rank 0 picks alone). Each rank uses\n"
         "GPU (--gid + local rank) mod (GPUs on its node), or the host with its share of the node's cores.\n"
         "A micrograph that cannot be picked is reported and skipped; the run then ends with status 1.\n"
         "On the host, FFT plans come from the FFTW wisdom of --fftw_wisdom FILE (written by gvexmatch_tune),\n"
         "else of the file GVEX_FFTW_WISDOM names (none: estimated plans), else FFTW's system wisdom.\n\n"
         "Automatic cut-off (as gvexreport --pick): gvexmatch's files then keep every grid maximum\n"
         "(--cc_cutoff 0, refused here), the same scan gives decoys, and once every micrograph is picked\n"
         "rank 0 chooses a cut-off per micrograph with the whole run as gvexreport does. The decoys are\n"
         "written beside each micrograph (NAME_vexmatch_decoys.star), so that a run resumed with\n"
         "--do_unfinished 1 cuts as one that ran through.\n"
         "  --auto_cutoff  write NAME_vexmatch_auto.box and .star beside each micrograph with the kept\n"
         "                 picks (the STAR file records the cut-off), byte for byte gvexreport --pick --apply's\n"
         "  --report DIR   write gvexreport's page into DIR (made when missing): DIR/index.html\n\n"
         "gvexmatch's options:\n",
         prog);
  gvexmatch_help(prog);
}

// What the cut needs of micrograph i, picked (its decoys committed beside
// it with its picks), or skipped as finished before (its picks and decoys files):
// r fails when it cannot be had.
void take_for_cut(PickResult& picked, const AutoCut& cut, int i, int rank, Result& r, Micrograph& m,
                  std::string& picture) {
  try {
    if (picked.outcome == PickResult::Outcome::finished) {
      take_picked(m, picked, cut.set);
    } else {
      read_inputs(m, cut.suffix, cut.set.pick.opt.boxsize, cut.set, "gvexmatch_mpi");
    }
    picture = write_pictures(m, (size_t)i, cut.set, cut.report);
    if (picture.empty()) gvex_throw("cannot write " + cut.report + "/" + picture_name(i, m.name) + "\n");
  } catch (const GvexFailure& f) {
    r.outcome = OUTCOME_FAILED;
    snprintf(r.reason, sizeof r.reason, "rank %d: %s", rank, gvex_failure_reason(f.text).c_str());
  }
}

// Picks micrograph i and says how it went; with the automatic cut-off, m
// gets what the cut needs of it.
Result pick_one(PickSession& session, const GVexMatch_Para& p, int i, int rank, const AutoCut& cut,
                Micrograph& m, std::string& picture) {
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
  m.name = p.mic_files[i];
  if (cut.on && r.outcome != OUTCOME_FAILED) take_for_cut(picked, cut, i, rank, r, m, picture);
  return r;
}

void keep_for_cut(AutoCut& cut, int i, Micrograph&& m, std::string&& picture) {
  cut.mics[i] = std::move(m);
  cut.pictures[i] = std::move(picture);
}

// Rank 0 with other ranks: the queue.
void hand_out(int ranks, Progress& progress, AutoCut& cut) {
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
    if (r.bytes > 0) {
      std::vector<char> bytes((size_t)r.bytes);
      MPI_Recv(bytes.data(), (int)r.bytes, MPI_BYTE, st.MPI_SOURCE, TAG_MICROGRAPH, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
      Micrograph m;
      std::string picture;
      if (unpack_micrograph(bytes, m, picture)) {
        keep_for_cut(cut, r.index, std::move(m), std::move(picture));
      } else {
        r.outcome = OUTCOME_FAILED;
        snprintf(r.reason, sizeof r.reason, "rank %d: its picks came back damaged", st.MPI_SOURCE);
      }
    }
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

void work(PickSession& session, const GVexMatch_Para& p, int rank, const AutoCut& cut) {
  Result r;
  std::vector<char> bytes;
  for (;;) {
    // One message holds at most 2^31 - 1 bytes: a micrograph that would
    // need more (tens of millions of grid maxima) fails.
    if (!bytes.empty() && bytes.size() > 0x7fffffffu) {
      r.outcome = OUTCOME_FAILED;
      snprintf(r.reason, sizeof r.reason, "rank %d: too many picks to send back", rank);
      bytes.clear();
    }
    r.bytes = (long long)bytes.size();
    MPI_Send(&r, sizeof r, MPI_BYTE, 0, TAG_RESULT, MPI_COMM_WORLD);
    if (!bytes.empty()) MPI_Send(bytes.data(), (int)bytes.size(), MPI_BYTE, 0, TAG_MICROGRAPH, MPI_COMM_WORLD);
    int i = kStop;
    MPI_Recv(&i, 1, MPI_INT, 0, TAG_WORK, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
    if (i == kStop) return;
    Micrograph m;
    std::string picture;
    r = pick_one(session, p, i, rank, cut, m, picture);
    bytes.clear();
    if (cut.on && r.outcome != OUTCOME_FAILED) bytes = pack_micrograph(m, picture);
  }
}

// Rank 0 alone (-n 1): every micrograph in turn.
void pick_alone(PickSession& session, const GVexMatch_Para& p, Progress& progress, AutoCut& cut) {
  for (int i = 0; i < p.n_mic; i++) {
    if (progress.listed_before(i)) {
      progress.finished(i, OUTCOME_SKIPPED, 0, 0.0, "listed before");
      continue;
    }
    Micrograph m;
    std::string picture;
    const Result r = pick_one(session, p, i, 0, cut, m, picture);
    if (cut.on && r.outcome != OUTCOME_FAILED) keep_for_cut(cut, i, std::move(m), std::move(picture));
    progress.finished(i, r.outcome, r.picks, r.seconds, r.reason);
  }
}

// Rank 0, the run picked: its micrographs cut as one, the kept picks
// written beside them, the page. Returns the exit status.
int cut_the_run(AutoCut& cut, int status) {
  std::vector<Micrograph> mics;
  std::vector<std::string> pictures;
  for (size_t i = 0; i < cut.mics.size(); i++) {
    if (!cut.mics[i].picks_found) continue;
    mics.push_back(std::move(cut.mics[i]));
    pictures.push_back(cut.pictures[i]);
  }
  // A cut-off chosen from nothing would read as a finding.
  if (mics.empty()) {
    printf("no micrograph was picked: no cut-off to suggest%s\n", cut.report.empty() ? "" : ", and no page written");
    return status;
  }
  const bool decoys = std::all_of(mics.begin(), mics.end(), [](const Micrograph& m) { return m.decoys_found; });
  if (!decoys)
    printf("note: micrographs picked before without a decoys file beside them have their cut-offs from the "
           "scores alone, which are less reliable\n");
  const std::string failed =
      cut_and_report(mics, pictures, cut.set, cut.set.pick.opt.boxsize, cut.suffix, NAN, cut.apply, cut.report);
  if (!failed.empty()) {
    fflush(stdout);
    fprintf(stderr, "gvexmatch_mpi: %s\n", failed.c_str());
    return 1;
  }
  return status;
}

// Every rank prepares, so that a refused template ends all of them with
// the same lines; a rank that fails alone (a broken GPU) ends the others too.
void prepare_everywhere(PickSession& session, const PickSettings& settings, const Reference& ref,
                        const std::string& report, int rank, int local_rank, int local_ranks) {
  // The processes sharing this rank's memory: on the host every rank of the
  // node, on a GPU the ranks of the node that were given the same GPU.
  int sharers = local_ranks;
  if (gvex_on_gpu()) {
    const int gpus = gvex_device_count(), mine = local_rank % gpus;
    sharers = (local_ranks - mine + gpus - 1) / gpus;
  }
  int ok = 1, all_ok = 1;
  GvexFailure failure;
  try {
    if (rank == 0 && !report.empty() && !make_dir(report))
      gvex_throw("gvexmatch_mpi: cannot make the report folder " + report + ": " + strerror(errno) + "\n", 1, true);
    StdoutRedirect quiet;
    session.prepare(ref.head, ref.name, sharers);
  } catch (const GvexFailure& f) {
    ok = 0;
    failure = f;
  }
  MPI_Allreduce(&ok, &all_ok, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  if (!ok) throw failure;
  if (!all_ok) gvex_throw("Another rank could not prepare the run; its messages went to its own output.\n");
  // Every rank prepared the same templates, so each refuses alike.
  check_templates(session, settings, "gvexmatch_mpi", rank == 0);
}

int run_mpi(int argc, char** argv, int rank, int ranks, int local_rank, int local_ranks) {
  const char* prog = argv[0];
  const std::string wisdom = gvex_take_wisdom_option(argc, argv);
  if (argc < 2 || is_keywd_help(argv[1])) {
    if (rank == 0) usage(prog);
    return argc < 2 ? 2 : 0;
  }
  AutoCut cut;
  std::vector<std::string> words = take_cut_options(argc, argv, cut);
  std::vector<char*> word_ptrs;
  for (std::string& w : words) word_ptrs.push_back(&w[0]);
  word_ptrs.push_back(nullptr);
  ParaPtr p(nullptr, gvexmatch_delete_parameters);
  Reference ref;
  {
    // The option echo and the reference micrograph's warnings, once.
    StdoutRedirect quiet(nullptr, rank != 0);
    gvex_timer_push();
    p = gvexmatch_start((int)words.size(), word_ptrs.data(), [](int& gid) { return check_and_set_gid(gid) == 0; });
    const int gpus = gvex_device_count();
#if defined(_OPENMP)
    if (gpus == 0) omp_set_num_threads(std::max(1, omp_get_num_procs() / local_ranks));
#endif
    fputs(gvex_device_activate(gpus > 0 ? (p->gid + local_rank) % gpus : p->gid), stdout);
    if (!gvex_on_gpu()) fputs(gvex_companion_wisdom(wisdom).c_str(), stdout);
    // A damaged micrograph is reported at its turn; the next one serves.
    ref = gvexmatch_reference(*p, prog, true);
  }
  // Refused before any work: a name the report's summary cannot carry.
  for (int i = 0; i < p->n_mic && !cut.report.empty(); i++) {
    const std::string name = p->mic_files[i];
    std::string quoted;
    if (!star_quote(name, quoted))
      gvex_throw("gvexmatch_mpi: the micrograph name " + name +
                     " holds a line break or both kinds of quote, which the report's summary cannot carry\n",
                 2, true);
  }
  Progress progress(p->mic_files, p->n_mic);
  PickOptions opt = options_from_record(*p);
  opt.decoys = cut.on;
  opt.keep_pixels = cut.on;
  const PickSettings settings = derive(opt);
  PickSession session(settings);
  if (cut.on) {
    cut.start(opt, settings, p->n_mic);
    commit_decoys(session, cut.suffix);
  }
  prepare_everywhere(session, settings, ref, cut.report, rank, local_rank, local_ranks);
  if (ranks == 1) {
    pick_alone(session, *p, progress, cut);
  } else if (rank == 0) {
    hand_out(ranks, progress, cut);
  } else {
    work(session, *p, rank, cut);
  }
  if (rank != 0) return 0;
  const int status = progress.summary();
  return cut.on ? cut_the_run(cut, status) : status;
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
