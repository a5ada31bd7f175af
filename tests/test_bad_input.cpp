// Bad input given to the whole program: unreadable or unworkable
// micrographs, outputs that cannot be written, over-long names, malformed
// exclusion files, option values that cannot work and unusable templates.
// Each run must end with a clear message and the stated status; never with
// a signal, a hang or a report on standard error (where the sanitizers
// write). Micrographs finished before the bad one keep their picks.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/e2e.h"

using namespace e2e;

namespace {

// A good 1024 x 1024 micrograph and the picks of a run on it alone, made once.
struct Good {
  std::string bytes, box, star;
};

const Good& good() {
  static const Good g = [] {
    TempDir dir;
    make_mic(dir.path(), "good.mrc", 1024, 1024, 2);
    gvex_in(dir.path(), {"good.mrc"});
    return Good{read_text_file(dir.file("good.mrc")), read_text_file(dir.file("good_vexmatch.box")),
                read_text_file(dir.file("good_vexmatch.star"))};
  }();
  return g;
}

// A folder holding good.mrc.
struct Work : TempDir {
  Work() {
    EXPECT_FALSE(good().box.empty());
    write_text_file(file("good.mrc"), good().bytes);
  }

  // Runs gvexmatch here: it ends cleanly with the status and prints the
  // message; a failure ends with the fatal line (or the size table of a
  // micrograph unlike the first).
  RunResult run(const std::vector<std::string>& args, int status, const std::string& message) const {
    RunResult r = gvex_in(path(), args);
    expect_end(r, status, path());
    EXPECT_TRUE(contains(r.out, message)) << "expected: " << message << "\ngot:\n" << r.out.substr(r.out.size() / 2);
    const std::string last = last_line(r.out);
    if (status == 1 && !contains(r.out, "has a different size or format from")) {
      EXPECT_TRUE(last.rfind("Error in function ", 0) == 0 && contains(last, "! Exit now!")) << last;
    }
    return r;
  }

  void expect_good_intact() const {
    EXPECT_EQ(read_text_file(file("good_vexmatch.box")), good().box);
    EXPECT_EQ(read_text_file(file("good_vexmatch.star")), good().star);
  }

  // The micrograph bad ends a run alone with the message, and ends a run
  // after good.mrc as well, whose picks are then those of a run without it.
  void expect_refused(const std::string& bad, const std::string& message) const {
    run({bad}, 1, message);
    RunResult r = run({"good.mrc", bad}, 1, bad);
    EXPECT_TRUE(contains(r.out, "File good.mrc finished.\n"));
    EXPECT_FALSE(file_exists(file(bad.substr(0, bad.size() - 4) + "_vexmatch.box")));
    expect_good_intact();
  }
};

std::string with_word(std::string bytes, size_t offset, int32_t v) {
  memcpy(&bytes[offset], &v, 4);
  return bytes;
}

TEST(BadInput, MicrographsThatCannotBeWorked) {
  const std::string g = good().bytes;
  std::string big_endian = g;
  big_endian[212] = big_endian[213] = 0x11;
  // good.mrc's header and pixels cut to nx x ny.
  auto sized = [&](int nx, int ny) { return with_word(with_word(g.substr(0, 1024 + 4 * nx * ny), 0, nx), 4, ny); };
  const std::pair<std::string, const char*> cases[] = {
      {"", "is too short for an MRC header of 1024 bytes"},
      {g.substr(0, 1024 + 1000), "floats need 4194304 data bytes, the file holds 1000"},
      {with_word(g, 0, 0), "has the invalid image size 0 x 1024 x 1"},
      {with_word(with_word(g, 0, INT_MAX), 4, INT_MAX), "has the impossible image size"},
      {with_word(with_word(g, 0, 70000), 4, 70000), "floats need 19600000000 data bytes"},
      {with_word(g, 12, 3), "which cannot be read; modes 0, 1, 2 and 6 can"},
      {with_word(g, 12, 4), "is too short for its header"},
      {big_endian, "is stored in big-endian byte order"},
      // Readable, but no working image can be made of them.
      {sized(1024, 256), "Make sure: Ny/2 < Nx < 2Ny"},
      {sized(2, 2), "micrograph bad.mrc of 2 x 2 pixels is too small for the shrink factor 4 of --speed"},
      {sized(64, 64), "do not fit the 16 x 16 working micrograph"},
  };
  for (const auto& [bytes, message] : cases) {
    SCOPED_TRACE(message);
    Work w;
    write_text_file(w.file("bad.mrc"), bytes);
    w.expect_refused("bad.mrc", message);
  }
  // A folder, and a path over 1024 bytes whose output names cannot be formed.
  Work w;
  ASSERT_EQ(mkdir(w.file("dir.mrc").c_str(), 0755), 0);
  w.expect_refused("dir.mrc", "dir.mrc");
  std::string path;
  for (int k = 0; k < 6; k++) {
    path += std::string(k < 5 ? 200 : 30, 'd') + "/";
    ASSERT_EQ(mkdir(w.file(path).c_str(), 0755), 0);
  }
  path += "m.mrc";
  write_text_file(w.file(path), good().bytes);
  w.expect_refused(path, "would be longer than 1023 characters");
}

// Constant, all-NaN and partly infinite pixels: no picks and no garbage.
TEST(BadInput, DegeneratePixelsGiveNoPicks) {
  const std::string head = good().bytes.substr(0, 1024), zeros(good().bytes.size() - 1024, '\0');
  std::string inf = good().bytes;
  const float infinity = INFINITY;
  for (size_t i = 1024; i < inf.size(); i += 8) memcpy(&inf[i], &infinity, 4);
  for (const std::string& bytes : {head + zeros, head + std::string(zeros.size(), '\xff'), inf}) {
    Work w;
    write_text_file(w.file("d.mrc"), bytes);
    w.run({"d.mrc"}, 0, "File d.mrc finished.");
    EXPECT_EQ(read_text_file(w.file("d_vexmatch.box")), "");
  }
}

TEST(BadInput, OutputNameTakenByAFolder) {
  for (std::string name : {"good_nonunique.box", "good_vexmatch.box", "good_vexmatch.star", "good_rejected.box",
                           "good_ccmax.mrc", "good_particles.mrcs"}) {
    SCOPED_TRACE(name);
    Work w;
    ASSERT_EQ(mkdir(w.file(name).c_str(), 0755), 0);
    RunResult r = w.run({"--write_ccmax_mic", "--extract_raw", "good.mrc"}, 1,
                        "Cannot write to file " + name + ". Permission denied or no space left!\n");
    EXPECT_FALSE(contains(r.out, "finished successfully"));
  }
}

TEST(BadInput, PermissionsDenied) {
  if (geteuid() == 0) GTEST_SKIP() << "running as root: permissions do not bite";
  Work w;
  write_text_file(w.file("locked.mrc"), good().bytes);
  ASSERT_EQ(chmod(w.file("locked.mrc").c_str(), 0), 0);
  w.expect_refused("locked.mrc", "the micrograph locked.mrc are NOT readable! Automatically ignored!");
  ASSERT_EQ(mkdir(w.file("ro").c_str(), 0755), 0);
  write_text_file(w.file("ro/m.mrc"), good().bytes);
  ASSERT_EQ(chmod(w.file("ro").c_str(), 0555), 0);
  w.run({"ro/m.mrc"}, 1, "Cannot write to file ro/m_nonunique.box. Permission denied or no space left!\n");
  chmod(w.file("ro").c_str(), 0755);
}

// Exclusion lists read for the micrograph (and marked in its mask) and as
// the global list: malformed ones are refused; odd ones, and positions at
// the ends of the number range (whose distances must not overflow), name
// nothing near a pick and leave the picks as they are.
TEST(BadInput, ExcludedCoordinateFiles) {
  std::string words;
  for (int i = 0; i < 600; i++) words += "1 ";
  const char* ok = "finished successfully";
  const struct {
    const char* suffix;
    std::string text;
    int status;
    const char* message;
  } cases[] = {
      {".box", "10 20 30 40\n\n5\n", 1, "unrecognized box format! Exit now!"},
      {".box", std::string("\x01\x02\x03\xff\x00\x7f 9\n", 9), 1, "unrecognized box format!"},
      {".star", "\ndata_\n\nloop_\n_rlnCoordinateY #1\n_rlnAnglePsi #2\n100 200\n", 1, "has no _rlnCoordinateX column"},
      {".star", "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #7\n1 2\n", 1, "_rlnCoordinateY column 7"},
      {".box", "", 0, ok},
      {".txt", "1 2 3 4\n", 0, "unrecognized box file format"},
      {".box", words + "\n9000 9000 50 50 " + std::string(2000, '9') + "\nabc def ghi jkl\nnan inf 1e99 -1e99 x\n", 0,
       ok},
      {".box",
       "-2147483648 -2147483648 -2147483648 -2147483648\n2147483647 2147483647 2147483647 2147483647\n"
       "-2147483648 2147483647 2147483647 -2147483648 nan 2147483647 inf\n",
       0, ok},
      {".star",
       "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n-1e300 1e300\n2147483648 -2147483649\nnan inf\n", 0,
       ok},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    Work w;
    write_text_file(w.file(std::string("good_ex") + c.suffix), c.text);
    w.run({"--exclusive_picking", "--excluded_suffix", std::string("_ex") + c.suffix, "--mask_excluded", "good.mrc"},
          c.status, c.message);
    if (c.status == 0) w.expect_good_intact();
    write_text_file(w.file(std::string("all") + c.suffix), c.text);
    w.run({"--global_excluded_box", std::string("all") + c.suffix, "good.mrc"}, c.status, c.message);
    if (c.status == 0) w.expect_good_intact();
  }
  // A global list that is not there is passed over; one that names
  // good.mrc's first pick takes it away, as does the micrograph's own list.
  Work w;
  w.run({"--global_excluded_box", "nothere.box", "good.mrc"}, 0, ok);
  w.expect_good_intact();
  const std::string first = good().box.substr(0, good().box.find('\n') + 1);
  write_text_file(w.file("good_ex.box"), first);
  for (std::vector<std::string> args : {std::vector<std::string>{"--global_excluded_box", "good_ex.box", "good.mrc"},
                                        {"--exclusive_picking", "--excluded_suffix", "_ex.box", "good.mrc"}}) {
    w.run(args, 0, ok);
    const std::string box = read_text_file(w.file("good_vexmatch.box"));
    EXPECT_FALSE(box.empty() || contains(box, first)) << box;
  }
}

// Option values that no run can use, found out at the first micrograph's
// size, with the templates, or at the extraction; then odd but workable ones.
TEST(BadInput, OptionValues) {
  const std::pair<std::vector<std::string>, const char*> refused[] = {
      {{"--diameter", "1e30"}, "option --diameter 1e+30 gives a minimum distance larger than any micrograph"},
      {{"--min_dist", "1e12"}, "option --min_dist 1e+12 gives a minimum distance larger than any micrograph"},
      {{"--min_dist", "inf"}, "option --min_dist inf gives a minimum distance larger than any micrograph"},
      {{"--diameter", "1e-30"}, "gives a minimum distance whose picking grid cell is below one working pixel"},
      {{"--T", "nope.mrcs"}, "Cannot open file nope.mrcs. Permission denied or wrong file name.\n"},
      {{"--T", "good.mrc", "--apixT", "3"}, "templates of 573 x 573 working pixels do not fit the 256 x 256 working"},
      {{"--T", "good.mrc", "--apixT", "1e30"}, "templates of good.mrc (1024 x 1024) scaled by apixT/apixM"},
      {{"--T", "good.mrc", "--apixT", "1e-30"}, "templates of good.mrc (1024 x 1024) scaled by apixT/apixM"},
      {{"--boxsize", "100000", "--extract_raw"}, "particle box size 100000"},
  };
  for (auto [args, message] : refused) {
    SCOPED_TRACE(message);
    args.push_back("good.mrc");
    Work w;
    w.run(args, 1, message);
    // Only the extraction comes after the first micrograph's picking.
    EXPECT_EQ(file_exists(w.file("good_nonunique.box")), args[0] == "--boxsize");
  }
  for (std::vector<std::string> args : {std::vector<std::string>{"--lp", "0", "--hp", "0"},
                                        {"--cc_cutoff", "nan"},
                                        {"--lsigma_D", "1e30"},
                                        {"--lave_D", "-5"},
                                        {"--min_dist", "1e5"}}) {
    SCOPED_TRACE(args[0] + " " + args[1]);
    args.push_back("good.mrc");
    Work().run(args, 0, "finished successfully");
  }
}

}  // namespace
