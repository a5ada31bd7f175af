// Hostile inputs and a busy shared folder: links planted at our output
// names, a trusted-looking commit marker, names with line breaks, FIFOs and
// folders where files belong, two runs on one folder, memory that runs out,
// stacks of absurd shape, and damaged pick files given to gvexreport.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "io/mrcfile.h"
#include "support/e2e.h"

namespace {

using namespace e2e;

bool is_link(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

RunResult report_in(const std::string& dir, const std::string& args, double timeout = 60) {
  return run_shell(gvex_report_bin() + " " + args, RunOptions{dir, timeout});
}

// Links at every name a run writes through (the partial files, the
// candidate file, the final files) and a marker listing someone else's
// file: the run writes only its own files and removes nothing of anyone's.
TEST(Hostile, LinksAndMarkersLeftAtOurNamesTouchNothingElse) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 512, 512, 3));
  ASSERT_TRUE(make_mic(dir.path(), "n.mrc", 512, 512, 4));
  ASSERT_TRUE(write_text_file(dir.file("victim.txt"), "precious\n"));
  for (const char* name : {"m_vexmatch.box.part", "m_vexmatch.star.part", "m_nonunique.box", "m_vexmatch.box"})
    ASSERT_EQ(symlink(dir.file("victim.txt").c_str(), dir.file(name).c_str()), 0) << name;
  ASSERT_TRUE(write_text_file(dir.file("n_vexmatch.commit"), dir.file("victim.txt") + "\nvictim.txt\n"));
  const RunResult r = gvex_in(dir.path(), {"m.mrc", "n.mrc"});
  expect_end(r, 0, dir.path());
  EXPECT_EQ(read_text_file(dir.file("victim.txt")), "precious\n");
  for (const char* name : {"m_vexmatch.box", "m_vexmatch.star", "m_nonunique.box"}) {
    EXPECT_FALSE(is_link(dir.file(name))) << name;
    EXPECT_NE(read_text_file(dir.file(name)), "precious\n") << name;
  }
  EXPECT_FALSE(file_exists(dir.file("n_vexmatch.commit")));
  EXPECT_TRUE(file_exists(dir.file("n_vexmatch.box")));

  // The report's page and --apply's pair, through links too.
  for (const char* name : {"rep/index.html.part", "m_vexmatch_auto.box.part", "m_vexmatch_auto.star"}) {
    mkdir(dir.file("rep").c_str(), 0777);
    ASSERT_EQ(symlink(dir.file("victim.txt").c_str(), dir.file(name).c_str()), 0) << name;
  }
  const RunResult rep = report_in(dir.path(), "--out rep --apixM 1.34 --diameter 120 --apply m.mrc");
  EXPECT_EQ(rep.status, 0) << rep.out << rep.err;
  EXPECT_EQ(read_text_file(dir.file("victim.txt")), "precious\n");
  EXPECT_FALSE(is_link(dir.file("m_vexmatch_auto.star")));
}

// Names and files the run must refuse, each with a line naming it and
// status 1, never a wait: a FIFO (also after a micrograph that failed, while
// the next one is read ahead), a folder, a line break in a name.
TEST(Hostile, FifosFoldersAndLineBreaksAreRefusedByName) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "a.mrc", 512, 512, 1));
  ASSERT_TRUE(make_mic(dir.path(), "b.mrc", 512, 384, 2));  // another size: fails
  ASSERT_EQ(mkfifo(dir.file("fifo.mrc").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(dir.file("folder.mrc").c_str(), 0755), 0);
  ASSERT_TRUE(write_text_file(dir.file("victim.txt"), "precious\n"));
  struct Case {
    std::vector<std::string> args;
    std::string said;
  };
  const Case cases[] = {
      {{"fifo.mrc"}, "micrograph fifo.mrc is a FIFO, not a file: it cannot be read! Exit now!\n"},
      {{"a.mrc", "b.mrc", "fifo.mrc"}, "has a different size or format from"},
      {{"a.mrc", "fifo.mrc"}, "micrograph fifo.mrc is a FIFO, not a file"},
      {{"folder.mrc"}, "micrograph folder.mrc is a folder, not a file"},
      {{"a.mrc", "--T", "fifo.mrc"}, "template stack fifo.mrc is a FIFO, not a file"},
      {{"a.mrc", "x\nvictim.txt"}, "the micrograph name holds a line break"},
  };
  for (const Case& c : cases) {
    const RunResult r = gvex_in(dir.path(), c.args);
    EXPECT_FALSE(r.timed_out) << c.said;
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_TRUE(contains(r.out + r.err, c.said)) << r.out << r.err;
  }
  EXPECT_EQ(read_text_file(dir.file("victim.txt")), "precious\n");
  const RunResult rep = report_in(dir.path(), "--out rep fifo.mrc", 30);
  EXPECT_FALSE(rep.timed_out);
  EXPECT_EQ(rep.status, 1);
  EXPECT_TRUE(contains(rep.err, "micrograph fifo.mrc is a FIFO, not a file")) << rep.err;

  // Beside a micrograph the report reads picks, rejected cells and decoys:
  // what stands there instead of a file is named, not waited on.
  for (const char* m : {"c.mrc", "d.mrc"}) ASSERT_TRUE(make_mic(dir.path(), m, 512, 512, 4));
  expect_end(gvex_in(dir.path(), {"--cc_cutoff", "0", "d.mrc"}), 0, dir.path());
  for (const char* f : {"c_vexmatch.star", "c_rejected.box", "d_vexmatch_decoys.star"})
    ASSERT_EQ(mkfifo(dir.file(f).c_str(), 0644), 0);
  const RunResult beside = report_in(dir.path(), "--out rep2 c.mrc d.mrc", 30);
  EXPECT_FALSE(beside.timed_out);
  EXPECT_EQ(beside.status, 0) << beside.err;
  for (const char* said : {"c.mrc: c_vexmatch.star is a FIFO, not a file: not read",
                           "c.mrc: c_rejected.box is a FIFO, not a file",
                           "d.mrc: decoys file d_vexmatch_decoys.star is a FIFO"})
    EXPECT_TRUE(contains(beside.out, said)) << beside.out;
}

// Something in the way of an output that is not ours to remove (a folder
// at a partial name, or at the particle stack's name) ends the run with the
// write failure naming it; the folder stays, and no half-done micrograph is
// left to look finished.
TEST(Hostile, FoldersInTheWayStayAndLeaveNothingHalfDone) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 512, 512, 3));
  ASSERT_EQ(mkdir(dir.file("m_vexmatch.box.part").c_str(), 0755), 0);
  RunResult r = gvex_in(dir.path(), {"m.mrc"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.out, "Cannot write to file m_vexmatch.box.part.")) << r.out;
  struct stat st;
  EXPECT_TRUE(stat(dir.file("m_vexmatch.box.part").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  rmdir(dir.file("m_vexmatch.box.part").c_str());

  ASSERT_EQ(mkdir(dir.file("m_particles.mrcs.part").c_str(), 0755), 0);
  r = gvex_in(dir.path(), {"--extract_raw", "--boxsize", "64", "m.mrc"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.out, "m_particles.mrcs")) << r.out;
  for (const char* left : {"m_vexmatch.commit", "m_vexmatch.box", "m_vexmatch.star"})
    EXPECT_FALSE(file_exists(dir.file(left))) << left;
}

// A micrograph another process is working on (it holds its lock) is left
// alone until that process is done: no undo of its half-committed files.
TEST(Hostile, AMicrographAnotherRunHoldsIsLeftAloneUntilReleased) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 384, 384, 1));
  // The other run, mid-commit: its marker and a finished file.
  ASSERT_TRUE(write_text_file(dir.file("m_vexmatch.commit"), ""));
  ASSERT_TRUE(write_text_file(dir.file("m_vexmatch.box"), "theirs\n"));
  const int fd = open(dir.file("m.mrc").c_str(), O_RDONLY | O_CLOEXEC);  // not for the child to hold
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  RunResult r;
  std::thread t([&] { r = gvex_in(dir.path(), {"m.mrc"}); });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch.box")), "theirs\n");
  EXPECT_TRUE(file_exists(dir.file("m_vexmatch.commit")));
  ASSERT_TRUE(write_text_file(dir.file("m_vexmatch.box"), "theirs, finished\n"));
  unlink(dir.file("m_vexmatch.commit").c_str());
  close(fd);  // their run ends
  t.join();
  expect_end(r, 0, dir.path());
  EXPECT_NE(read_text_file(dir.file("m_vexmatch.box")), "theirs, finished\n");  // picked anew, after them
}

// Two runs on one folder take turns on each micrograph: both end well, and
// every output is there and is what one run alone writes.
TEST(Hostile, TwoRunsOnOneFolderNeverUndoEachOther) {
  TempDir alone, shared;
  const std::vector<std::string> mics = {"a.mrc", "b.mrc", "c.mrc"};
  for (size_t i = 0; i < mics.size(); i++)
    for (const TempDir* d : {&alone, &shared}) ASSERT_TRUE(make_mic(d->path(), mics[i], 384, 384, (int)i + 1));
  expect_end(gvex_in(alone.path(), mics), 0, alone.path());
  for (int trial = 0; trial < 8; trial++) {
    RunResult r1, r2;
    std::thread t([&] { r1 = gvex_in(shared.path(), mics); });
    r2 = gvex_in(shared.path(), {"c.mrc", "b.mrc", "a.mrc"});
    t.join();
    EXPECT_EQ(r1.status, 0) << trial << r1.out;
    EXPECT_EQ(r2.status, 0) << trial << r2.out;
    for (const std::string& m : mics)
      for (const char* suffix : {"_vexmatch.box", "_vexmatch.star"}) {
        const std::string name = m.substr(0, 1) + suffix;
        EXPECT_EQ(read_text_file(shared.file(name)), read_text_file(alone.file(name))) << trial << " " << name;
      }
    EXPECT_FALSE(file_exists(shared.file("a_vexmatch.commit")));
  }
}

// The longest usable micrograph names work: every output name fits the
// 1024-byte buffers, and the commit's marker never shortens that limit.
TEST(Hostile, TheLongestUsableNamesArePicked) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 384, 384, 1));
  // Folders of 200 characters make a path whose stem leaves exactly room for
  // "_vexmatch.star" and "_nonunique.box" in 1023 bytes.
  std::string rel;
  while (dir.path().size() + 1 + rel.size() + 200 < 1023 - 14 - 4 - 20) {
    rel += std::string(200, 'd') + "/";
    ASSERT_EQ(mkdir(dir.file(rel).c_str(), 0755), 0);
  }
  const size_t stem = 1023 - 14 - (dir.path().size() + 1 + rel.size());
  const std::string name = rel + std::string(stem, 'm') + ".mrc";
  ASSERT_EQ(link(dir.file("m.mrc").c_str(), dir.file(name).c_str()), 0);
  const RunResult r = gvex_in(dir.path(), {dir.file(name)});
  EXPECT_EQ(r.status, 0) << r.out.substr(r.out.size() > 600 ? r.out.size() - 600 : 0);
  EXPECT_TRUE(file_exists(dir.file(rel + std::string(stem, 'm') + "_vexmatch.star")));
  EXPECT_FALSE(file_exists(dir.file(rel + std::string(stem, 'm') + "_vexmatch.commit")));
}

// Memory that runs out ends with a line that says so and how much was asked
// for, status 1; an absurd template stack is refused before it is read.
TEST(Hostile, ExhaustedMemoryAndAbsurdStacksEndWithALine) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "big.mrc", 4096, 4096, 5));
#if !defined(__SANITIZE_ADDRESS__)  // an address-space limit leaves AddressSanitizer no room for its shadow
  const RunResult r = run_shell("ulimit -v 250000; " + gvex_bin() + " --diameter 120 --speed 0 big.mrc",
                                RunOptions{dir.path(), 120});
  ASSERT_TRUE(r.exited()) << "signal " << r.signal << "\n" << r.out << r.err;
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_TRUE(contains(r.out, "out of memory ")) << r.out;
  EXPECT_TRUE(contains(r.out, " bytes asked for)! Exit now!")) << r.out;
#endif

  // Four million 1 x 1 templates: the header alone says they cannot be shrunk.
  std::string stack(1024, '\0');
  const int32_t dims[4] = {1, 1, 4000000, 2};
  memcpy(&stack[0], dims, sizeof dims);
  memcpy(&stack[208], "MAP DA\0\0", 8);
  stack.resize(1024 + 4 * 4000000UL, '\0');
  ASSERT_TRUE(write_text_file(dir.file("tiny.mrcs"), stack));
  const auto t0 = std::chrono::steady_clock::now();
  const RunResult t = gvex_in(dir.path(), {"--T", "tiny.mrcs", "--apixT", "1.34", "--apixM", "1.34", "big.mrc"});
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_EQ(t.status, 1);
  EXPECT_TRUE(contains(t.out, "cannot be shrunk by 4")) << t.out;
  EXPECT_LT(seconds, 20.0);
}

// Templates that can match nothing (a pixel not a number, every pixel
// alike, values beyond single precision's sums) are named; with no other template the run is refused, where it
// would come back without picks and look finished.
TEST(Hostile, TemplatesThatCanMatchNothingAreNamed) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 512, 512, 3));
  const int n = 64;
  std::vector<float> disc(n * n), flat(n * n, 3.0f);
  for (int i = 0; i < n * n; i++) disc[i] = std::exp(-(std::pow(i % n - 31.5, 2) + std::pow(i / n - 31.5, 2)) / 288);
  std::vector<float> holed = disc;
  holed[650] = NAN;
  std::vector<float> mixed = disc, blind = holed;
  mixed.insert(mixed.end(), holed.begin(), holed.end());
  mixed.insert(mixed.end(), flat.begin(), flat.end());
  for (float v : disc) mixed.push_back(v * 1e16f);  // its squares' sums overflow
  blind.insert(blind.end(), flat.begin(), flat.end());
  ASSERT_EQ(mrcf_write_xyz_data(dir.file("mixed.mrcs").c_str(), mixed.data(), n, n, 4), 0);
  ASSERT_EQ(mrcf_write_xyz_data(dir.file("blind.mrcs").c_str(), blind.data(), n, n, 2), 0);
  const RunResult some = report_in(dir.path(), "--out a --pick --diameter 120 --T mixed.mrcs m.mrc");
  EXPECT_EQ(some.status, 0) << some.err;
  EXPECT_TRUE(contains(some.out, "warning: templates 2, 3, 4 of mixed.mrcs can match nothing")) << some.out;
  const RunResult none = report_in(dir.path(), "--out b --pick --diameter 120 --T blind.mrcs m.mrc");
  EXPECT_EQ(none.status, 1);
  EXPECT_TRUE(contains(none.err, "gvexreport: no template of blind.mrcs can match anything")) << none.err;
  EXPECT_FALSE(file_exists(dir.file("b/index.html")));
}

// gvexreport on damaged and hostile pick files: extreme and non-finite
// numbers are refused line by line with a warning, huge cells and particles
// cost nothing, long and odd names give pictures that load, a file-size limit
// is a write error, and --apply commits its pair together.
TEST(Hostile, ReportTakesDamagedPicksAndOddNames) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 512, 512, 3));
  expect_end(gvex_in(dir.path(), {"--cc_cutoff", "0", "m.mrc"}), 0, dir.path());
  std::string box = read_text_file(dir.file("m_vexmatch.box"));
  box += "100 100 20 20 1e308 1 0\n100 100 20 20 -1e308 1 0\n1e18 5 20 20 0.5 1 0\n7 7 20 20 nan 1 0\n";
  ASSERT_TRUE(write_text_file(dir.file("m_vexmatch.box"), box));
  ASSERT_TRUE(write_text_file(dir.file("m_rejected.box"), "0 0 2000000000 2000000000\n-5 -5 100 100\n"));
  const auto t0 = std::chrono::steady_clock::now();
  RunResult r = report_in(dir.path(), "--out rep --apixM 1.34 --diameter 100000 --suffix _vexmatch.box --apply m.mrc");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 20.0);
  EXPECT_TRUE(contains(r.out, "4 damaged line(s) of m_vexmatch.box skipped")) << r.out;
  EXPECT_TRUE(contains(r.out, "1 damaged line(s) of m_rejected.box skipped")) << r.out;

  // A hundred thousand picks with particles of 1e5 A: linear, and clipped.
  std::string many;
  for (int i = 0; i < 100000; i++) many += std::to_string(i % 500) + " " + std::to_string(i / 200) + " 20 20 0.5 1 0\n";
  ASSERT_TRUE(write_text_file(dir.file("m_many.box"), many));
  const auto t1 = std::chrono::steady_clock::now();
  r = report_in(dir.path(), "--out repm --apixM 1.34 --diameter 100000 --suffix _many.box m.mrc");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count(), 30.0);

  // A name of 200 characters with #, % and ? in it.
  const std::string odd = std::string(180, 'x') + "#1%20?a b.mrc";
  ASSERT_EQ(link(dir.file("m.mrc").c_str(), dir.file(odd).c_str()), 0);
  r = report_in(dir.path(), "--out rep2 'm.mrc' '" + odd + "'");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(file_exists(dir.file("rep2/2_" + std::string(60, 'x') + ".png")));
  const std::string summary = read_text_file(dir.file("rep2/summary.star"));
  EXPECT_TRUE(contains(summary, "\n\"" + odd + "\" ")) << summary;

  // A file-size limit: a write error naming a file, status 1, nothing partial.
  r = run_shell("ulimit -f 20; " + gvex_report_bin() + " --out rep3 m.mrc", RunOptions{dir.path(), 60});
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_TRUE(contains(r.err, "gvexreport: cannot write")) << r.err;
  EXPECT_EQ(run_shell("find . -name '*.part' | wc -l", RunOptions{dir.path(), 10}).out, "0\n");

  // --apply with the STAR file's name taken: neither file is replaced.
  const std::string kept_box = read_text_file(dir.file("m_vexmatch_auto.box"));
  ASSERT_EQ(mkdir(dir.file("m_vexmatch_auto.star.part").c_str(), 0755), 0);
  ASSERT_TRUE(write_text_file(dir.file("m_vexmatch.box"), read_text_file(dir.file("m_vexmatch.box")) + "5 5 20 20 9 1 0\n"));
  r = report_in(dir.path(), "--out rep4 --suffix _vexmatch.box --apply m.mrc");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "cannot write m_vexmatch_auto.star")) << r.err;
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch_auto.box")), kept_box);
}

}  // namespace
