// Hard stops: a run killed at any moment and resumed with --do_unfinished
// ends with the same files as a run never stopped, and a file-size limit is
// a clean write failure that leaves no partial file.
#include "support/e2e.h"

namespace {

using namespace e2e;

const char* const kMics[] = {"a.mrc", "b.mrc", "c.mrc"};
const std::string kOptions = " --diameter 120 --write_mic_mask 1 --extract_raw 1 a.mrc b.mrc c.mrc";

struct Batch {
  TempDir dir;
  Batch() {
    for (int i = 0; i < 3; i++) EXPECT_TRUE(make_mic(dir.path(), kMics[i], 512, 512, 20 + i));
  }
  RunResult run(const std::string& prefix, const std::string& more = "") {
    return run_shell(prefix + " " + gvex_bin() + kOptions + more, RunOptions{dir.path(), 120});
  }
};

TEST(HardStops, KilledAnywhereAndResumedGivesTheSameFiles) {
  Batch whole;
  expect_end(whole.run(""), 0, whole.dir.path());
  const auto want = files_of(whole.dir.path());
  // point:n kills the run the n-th time it passes point; "commit" comes
  // before each rename of a commit, so commit:2 falls between the .box and
  // the .star of the first micrograph.
  const char* const moments[] = {"micrograph:2", "merged:1", "commit:1",  "commit:2", "committed:1",
                                 "micrograph:3", "merged:2", "commit:4", "committed:3", "merged:3"};
  for (const char* at : moments) {
    SCOPED_TRACE(at);
    Batch b;
    const RunResult killed = b.run(std::string("GVEX_TEST_STOP_AT=") + at);
    EXPECT_NE(killed.status, 0) << killed.out;
    expect_end(b.run("", " --do_unfinished 1"), 0, b.dir.path());
    const auto got = files_of(b.dir.path());
    ASSERT_EQ(got.size(), want.size());
    for (const auto& [name, bytes] : want) EXPECT_TRUE(got.count(name) && got.at(name) == bytes) << name;
  }
}

TEST(HardStops, FileSizeLimitIsAWriteFailure) {
  Batch b;
  // The 128 x 128 mask image (65 kB) is the first file over the limit.
  const RunResult r = b.run("prlimit --fsize=40000");
  expect_end(r, 1, b.dir.path());
  EXPECT_TRUE(contains(r.out, "Cannot write to file a_mask.mrc. Permission denied or no space left!\n"
                              "Error in function mrcf_write_xyz_ddata(), file mrcfile on line "))
      << r.out;
  expect_end(b.run(""), 0, b.dir.path());
  Batch whole;
  expect_end(whole.run(""), 0, whole.dir.path());
  EXPECT_EQ(files_of(b.dir.path()), files_of(whole.dir.path()));
}

}  // namespace
