// gvexmatch_tune: measures exactly the FFT plans a host run with the given
// options makes on micrographs like the one given, and writes them as FFTW
// wisdom for the companions to plan from (gvexmatch_mpi --fftw_wisdom, or
// GVEX_FFTW_WISDOM). The micrograph is picked once in a scratch folder;
// nothing is written beside it.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/errors.h"
#include "common/redirect.h"
#include "gpu/cuda_fft.h"
#include "gpu/device.h"
#include "picker/session.h"
#include "picker/startup.h"
#include "picker/timer.h"

namespace {

const char* const kUsage =
    "Usage: gvexmatch_tune WISDOM_FILE [gvexmatch options] MICROGRAPH\n"
    "\n"
    "Picks MICROGRAPH once on the host with gvexmatch's options, measuring every FFT plan that run makes,\n"
    "and writes the plans as FFTW wisdom to WISDOM_FILE (added to what the file already holds; runs into\n"
    "one folder take turns). Companions then plan from it without timing anything: gvexmatch_mpi\n"
    "--fftw_wisdom WISDOM_FILE, or the variable GVEX_FFTW_WISDOM. The same wisdom gives the same picks;\n"
    "wisdom for other sizes or options is not used.\n"
    "Tune on the machine that picks: measured plans suit the processor they were measured on.\n";

// A scratch folder holding a link to the micrograph, removed with it.
struct Scratch {
  std::string dir, link;
  explicit Scratch(const std::string& mic) {
    char tmpl[] = "/tmp/gvexmatch_tune_XXXXXX";
    if (!mkdtemp(tmpl)) gvex_throw("gvexmatch_tune: cannot make a scratch folder in /tmp\n", 1, true);
    dir = tmpl;
    char* real = realpath(mic.c_str(), nullptr);
    const std::string target = real ? real : mic;
    free(real);
    link = dir + "/" + mic.substr(mic.rfind('/') + 1);
    if (symlink(target.c_str(), link.c_str()) != 0)
      gvex_throw("gvexmatch_tune: cannot link " + mic + " into " + dir + "\n", 1, true);
  }
  ~Scratch() {
    const std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "gvexmatch_tune: could not remove %s\n", dir.c_str());
  }
};

// Two runs on one wisdom file each read it, add their plans and write it
// back: the second waits for the first, whose plans it would otherwise
// lose. The lock is the file's folder's, which must be there to write in.
struct WisdomLock {
  int fd = -1;
  explicit WisdomLock(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) gvex_throw("gvexmatch_tune: cannot write " + path + ": " + strerror(errno) + "\n", 1, true);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      fprintf(stderr, "gvexmatch_tune: waiting for another gvexmatch_tune writing into %s\n", dir.c_str());
      flock(fd, LOCK_EX);
    }
  }
  ~WisdomLock() { close(fd); }
  WisdomLock(const WisdomLock&) = delete;
  WisdomLock& operator=(const WisdomLock&) = delete;
};

int run(int argc, char** argv) {
  bool help = argc < 2;
  for (int i = 1; i < argc; i++) help = help || !strcmp(argv[i], "--help") || !strcmp(argv[i], "-h");
  if (help) {
    fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  const std::string wisdom = argv[1];
  if (wisdom[0] == '-')
    gvex_throw("gvexmatch_tune: the first word names the wisdom file, not the option " + wisdom + "\n" +
                   std::string(kUsage), 2, true);
  if (argc < 3) gvex_throw("gvexmatch_tune: no micrograph given\n" + std::string(kUsage), 2, true);
  // gvexmatch's command line: the program name, then everything after the wisdom file.
  std::vector<char*> args(argv + 1, argv + argc);
  args[0] = argv[0];
  args.push_back(nullptr);
  int n = argc - 1;
  gvex_device_use_host();  // wisdom is the host back end's
  const WisdomLock lock(wisdom);
  std::string why;
  if (!gvex_fft_plans_measured(wisdom, why)) gvex_throw("gvexmatch_tune: " + why + "\n", 1, true);
  const double t0 = gvex_wall_seconds();
  PickResult r;
  {
    StdoutRedirect quiet;  // the picker's own lines
    ParaPtr p(nullptr, gvexmatch_delete_parameters);
    try {
      p = gvexmatch_start(n, args.data(), [](int& gid) { return check_and_set_gid(gid) == 0; });
    } catch (const GvexFailure& f) {
      // gvexmatch calls an unknown option no error (status 0); here it is one.
      if (f.status == 0) gvex_throw("gvexmatch_tune: " + f.text, 2, true);
      throw;
    }
    const Reference ref = gvexmatch_reference(*p, argv[0]);
    Scratch scratch(ref.name);
    PickSession session(derive(options_from_record(*p)));
    session.prepare(ref.head, scratch.link);
    r = session.pick(scratch.link);
  }
  if (r.outcome == PickResult::Outcome::failed) throw r.failure;
  if (!gvex_fft_write_wisdom(wisdom)) gvex_throw("gvexmatch_tune: cannot write " + wisdom + "\n", 1, true);
  printf("measured the FFT plans of a run on micrographs like this one in %.1f s; wisdom written to %s\n",
         gvex_wall_seconds() - t0, wisdom.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGXFSZ, SIG_IGN);
  return gvex_run_main([&] { return run(argc, argv); });
}
