// Bad input of every kind given to the whole program: broken MRC files,
// unwritable outputs, over-long names, malformed coordinate files, option
// values that cannot work and unusable templates. Each run must end with a
// clear message on standard output and the stated exit status; never with a
// signal, a hang, a report on standard error (where the sanitizers write) or
// output that looks fine. Micrographs finished before the bad one keep
// outputs identical to a run without it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/e2e.h"
#include "support/run.h"

using namespace e2e;

namespace {

// A good 512 x 512 micrograph and the outputs of a run on it alone, made once.
struct Good {
  std::string bytes;
  std::string box, star;
};

const Good& good() {
  static Good g = [] {
    Good r;
    TempDir dir;
    if (!make_mic(dir.path(), "good.mrc", {"--nx", "512", "--ny", "512", "--diameter", "120", "--seed", "2"})) return r;
    r.bytes = read_text_file(dir.file("good.mrc"));
    RunResult run = gvex_in(dir.path(), {"--diameter", "120", "good.mrc"});
    if (run.exited() && run.status == 0) {
      r.box = read_text_file(dir.file("good_vexmatch.box"));
      r.star = read_text_file(dir.file("good_vexmatch.star"));
    }
    return r;
  }();
  return g;
}

// A folder holding good.mrc.
struct Work {
  TempDir dir;
  Work() {
    EXPECT_FALSE(good().bytes.empty());
    EXPECT_FALSE(good().box.empty());
    write_text_file(dir.file("good.mrc"), good().bytes);
  }
  std::string file(const std::string& n) const { return dir.file(n); }
  const std::string& path() const { return dir.path(); }
  RunResult run(std::vector<std::string> args) const {
    args.insert(args.begin(), {"--diameter", "120"});
    return gvex_in(dir.path(), args, 60);
  }
};

// The run ended by itself with the status, printed what, and left no
// half-written file behind. A failure ends with the fatal line, except the
// size table of a micrograph unlike the first, which is its own ending.
void expect_clean_end(const RunResult& r, int status, const std::string& what, const Work& w) {
  const bool fatal_line = !contains(what, "has a different size or format from");
  ASSERT_FALSE(r.timed_out) << "hang\n" << r.out;
  ASSERT_EQ(r.signal, 0) << "killed by signal " << r.signal << "\n" << r.out << r.err;
  EXPECT_EQ(r.status, status) << r.out;
  EXPECT_EQ(r.err, "") << "nothing goes to standard error";
  EXPECT_TRUE(contains(r.out, what)) << "expected: " << what << "\ngot:\n" << r.out.substr(r.out.size() > 3000 ? r.out.size() - 3000 : 0);
  if (status == 1 && fatal_line) {
    const std::string last = last_line(r.out);
    EXPECT_EQ(last.rfind("Error in function ", 0), 0u) << last;
    EXPECT_TRUE(ends_with(last, "! Exit now!")) << last;
  }
  EXPECT_EQ(part_files(w.path()), std::vector<std::string>{});
}

// good.mrc's picks are those of the solo run.
void expect_good_intact(const Work& w) {
  EXPECT_EQ(read_text_file(w.file("good_vexmatch.box")), good().box);
  EXPECT_EQ(read_text_file(w.file("good_vexmatch.star")), good().star);
}

std::string with_word(std::string bytes, size_t offset, int32_t v) {
  memcpy(&bytes[offset], &v, 4);
  return bytes;
}

std::string with_short(std::string bytes, size_t offset, int16_t v) {
  memcpy(&bytes[offset], &v, 2);
  return bytes;
}

// ---- broken MRC files ----

struct BrokenMrc {
  const char* name;
  std::string bytes;
  const char* alone;   // the message when it is the only micrograph
  const char* second;  // the message when it follows good.mrc
};

std::vector<BrokenMrc> broken_mrcs() {
  const std::string g = good().bytes;
  std::string be = g;
  be[212] = 0x11;
  be[213] = 0x11;
  const char* table = "has a different size or format from  \033[1mgood.mrc\033[m.";
  const char* unreadable_mode = "which cannot be read; modes 0, 1, 2 and 6 can";
  return {
      {"empty", "", "is too short for an MRC header of 1024 bytes", "is too short for an MRC header of 1024 bytes"},
      {"short header", g.substr(0, 500), "is too short for an MRC header of 1024 bytes",
       "is too short for an MRC header of 1024 bytes"},
      {"truncated pixels", g.substr(0, 1024 + 1000), "floats need 1048576 data bytes, the file holds 1000",
       "floats need 1048576 data bytes, the file holds 1000"},
      {"nx 0", with_word(g, 0, 0), "has the invalid image size 0 x 512 x 1", "has the invalid image size 0 x 512 x 1"},
      {"ny negative", with_word(g, 4, -5), "has the invalid image size 512 x -5 x 1",
       "has the invalid image size 512 x -5 x 1"},
      {"nz 0", with_word(g, 8, 0), "has the invalid image size 512 x 512 x 0", "has the invalid image size 512 x 512 x 0"},
      {"nx*ny overflows", with_word(with_word(g, 0, INT_MAX), 4, INT_MAX), "has the impossible image size",
       "has the impossible image size"},
      {"huge sizes", with_word(with_word(g, 0, 70000), 4, 70000), "floats need 19600000000 data bytes",
       "floats need 19600000000 data bytes"},
      {"mode 3", with_word(g, 12, 3), unreadable_mode, table},
      {"mode 4", with_word(g, 12, 4), "is too short for its header", "is too short for its header"},
      {"mode 16", with_word(g, 12, 16), unreadable_mode, table},
      {"mode 20", with_word(g, 12, 20), "is too short for its header", "is too short for its header"},
      {"mode 99", with_word(g, 12, 99), unreadable_mode, table},
      {"big-endian stamp", be, "is stored in big-endian byte order", "is stored in big-endian byte order"},
  };
}

TEST(BadInput, BrokenMrcFilesAlone) {
  for (const BrokenMrc& b : broken_mrcs()) {
    SCOPED_TRACE(b.name);
    Work w;
    write_text_file(w.file("bad.mrc"), b.bytes);
    RunResult r = w.run({"bad.mrc"});
    expect_clean_end(r, 1, b.alone, w);
    EXPECT_TRUE(contains(r.out, "bad.mrc"));
  }
}

TEST(BadInput, BrokenMrcFilesAfterAGoodOne) {
  for (const BrokenMrc& b : broken_mrcs()) {
    SCOPED_TRACE(b.name);
    Work w;
    write_text_file(w.file("bad.mrc"), b.bytes);
    RunResult r = w.run({"good.mrc", "bad.mrc"});
    expect_clean_end(r, 1, b.second, w);
    if (!strcmp(b.second, b.alone)) {
      EXPECT_FALSE(contains(r.out, "has a different size or format from"));
    } else {
      EXPECT_TRUE(ends_with(r.out, "      512     512     1       Float               good.mrc\n"));
    }
    EXPECT_TRUE(contains(r.out, "File good.mrc finished.\n"));
    EXPECT_TRUE(file_exists(w.file("bad_nonunique.box")));
    EXPECT_FALSE(file_exists(w.file("bad_vexmatch.box")));
    expect_good_intact(w);
  }
}

TEST(BadInput, DirectoryAsMicrograph) {
  Work w;
  ASSERT_EQ(mkdir(w.file("dir.mrc").c_str(), 0755), 0);
  expect_clean_end(w.run({"dir.mrc"}), 1, "dir.mrc", w);
  RunResult r = w.run({"good.mrc", "dir.mrc"});
  expect_clean_end(r, 1, "dir.mrc", w);
  expect_good_intact(w);
}

TEST(BadInput, ExtendedHeaderIsNotSkipped) {
  // nsymbt > 0 but the pixels right after the 1024 header bytes: read as they are.
  Work w;
  write_text_file(w.file("ext.mrc"), with_short(good().bytes, 90, 1024));
  expect_clean_end(w.run({"ext.mrc"}), 0, "File ext.mrc finished.", w);
  EXPECT_EQ(read_text_file(w.file("ext_vexmatch.box")), good().box);

  // A real extended header: the run reads from byte 1024 all the same and
  // finishes; the exact-size check of the extraction refuses the file.
  std::string g = with_short(good().bytes, 90, 4096);
  write_text_file(w.file("ext2.mrc"), g.substr(0, 1024) + std::string(4096, '\x7f') + g.substr(1024));
  expect_clean_end(w.run({"ext2.mrc"}), 0, "File ext2.mrc finished.", w);
  RunResult r = w.run({"--extract_raw", "ext2.mrc"});
  expect_clean_end(r, 1, "File size error! Exit now!", w);
}

TEST(BadInput, MicrographShapesThatCannotBeWorked) {
  Work w;
  // One side at least twice the other: the square fill cannot mirror it.
  ASSERT_TRUE(make_mic(w.path(), "wide.mrc", {"--nx", "1024", "--ny", "256", "--diameter", "120"}));
  expect_clean_end(w.run({"wide.mrc"}), 1, "Make sure: Ny/2 < Nx < 2Ny", w);
  // Smaller than the shrink factor, and smaller than the template.
  std::string tiny = with_word(with_word(good().bytes.substr(0, 1024 + 4 * 2 * 2), 0, 2), 4, 2);
  write_text_file(w.file("tiny.mrc"), tiny);
  expect_clean_end(w.run({"tiny.mrc"}), 1, "the micrograph is too small for the shrink factor of --speed", w);
  std::string small = with_word(with_word(good().bytes.substr(0, 1024 + 4 * 64 * 64), 0, 64), 4, 64);
  write_text_file(w.file("small.mrc"), small);
  expect_clean_end(w.run({"small.mrc"}), 1, "do not fit the 16 x 16 working micrograph", w);
}

TEST(BadInput, DegeneratePixelsGiveNoPicks) {
  // Constant, all-NaN and partly infinite images: no picks, no garbage.
  const std::string head = good().bytes.substr(0, 1024);
  const size_t n = 512 * 512;
  auto image = [&](float v, size_t count) {
    std::string b = head;
    for (size_t i = 0; i < n; i++) {
      const float x = i < count ? v : (float)(i % 7);
      b.append(reinterpret_cast<const char*>(&x), 4);
    }
    return b;
  };
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"const.mrc", image(3.0f, n)}, {"nan.mrc", image(NAN, n)}, {"inf.mrc", image(INFINITY, n / 2)}};
  for (auto& c : cases) {
    SCOPED_TRACE(c.first);
    Work w;
    write_text_file(w.file(c.first), c.second);
    expect_clean_end(w.run({c.first}), 0, "finished successfully", w);
    EXPECT_EQ(read_text_file(w.file(stem(c.first) + "_vexmatch.box")), "");
  }
}

// ---- outputs that cannot be written ----

TEST(BadInput, OutputNameTakenByAFolder) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"good_nonunique.box", "Error in function main(), file gvexmatch56 on line 185: open file failed.! Exit now!"},
      {"good_vexmatch.box", "Cannot write to file good_vexmatch.box. Permission denied or no space left!\n"},
      {"good_vexmatch.star", "Cannot write to file good_vexmatch.star. Permission denied or no space left!\n"},
      {"good_rejected.box", "Cannot write to file good_rejected.box. Permission denied or no space left!\n"},
      {"good_pref.mrc", "Cannot write to file good_pref.mrc. Permission denied or no space left!\n"},
      {"good_ccmax.mrc", "Cannot write to file good_ccmax.mrc. Permission denied or no space left!\n"},
      {"good_particles.mrcs", "Cannot write to file good_particles.mrcs. Permission denied or no space left!\n"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.first);
    Work w;
    ASSERT_EQ(mkdir(w.file(c.first).c_str(), 0755), 0);
    RunResult r = w.run({"--write_pref_mic", "--write_ccmax_mic", "--extract_raw", "good.mrc"});
    expect_clean_end(r, 1, c.second, w);
    EXPECT_FALSE(contains(r.out, "finished successfully"));
  }
}

TEST(BadInput, PermissionsDenied) {
  if (geteuid() == 0) GTEST_SKIP() << "running as root: permissions do not bite";
  Work w;
  write_text_file(w.file("locked.mrc"), good().bytes);
  ASSERT_EQ(chmod(w.file("locked.mrc").c_str(), 0), 0);
  RunResult r = w.run({"good.mrc", "locked.mrc"});
  expect_clean_end(r, 1, "Cannot open file locked.mrc. Permission denied or wrong file name.\n", w);
  expect_good_intact(w);
  r = w.run({"locked.mrc"});
  expect_clean_end(r, 1, "the micrograph locked.mrc are NOT readable! Automatically ignored!", w);

  const std::string ro = w.file("ro");
  ASSERT_EQ(mkdir(ro.c_str(), 0755), 0);
  write_text_file(ro + "/m.mrc", good().bytes);
  ASSERT_EQ(chmod(ro.c_str(), 0555), 0);
  r = w.run({"ro/m.mrc"});
  expect_clean_end(r, 1, "Cannot write to file ro/m_nonunique.box. Permission denied or no space left!\n", w);
  chmod(ro.c_str(), 0755);
}

// ---- names ----

TEST(BadInput, OverLongNames) {
  Work w;
  // An existing micrograph whose path is over 1024 bytes: its output names
  // cannot be formed.
  std::string deep = w.path();
  std::string rel;
  for (int k = 0; k < 5; k++) {
    rel += std::string(200, 'd') + "/";
    ASSERT_EQ(mkdir((deep + "/" + rel).c_str(), 0755), 0);
  }
  rel += std::string(30, 'e');
  ASSERT_EQ(mkdir((deep + "/" + rel).c_str(), 0755), 0);
  const std::string long_mic = rel + "/m.mrc";
  ASSERT_GT(long_mic.size(), 1024u);
  write_text_file(w.file(long_mic), good().bytes);
  expect_clean_end(w.run({long_mic}), 1, "would be longer than 1023 characters", w);
  RunResult r = w.run({"good.mrc", long_mic});
  expect_clean_end(r, 1, "would be longer than 1023 characters", w);
  expect_good_intact(w);

  // A name component too long for the file system is a name that does not exist.
  const std::string huge_name = std::string(300, 'k') + ".mrc";
  r = w.run({huge_name});
  expect_clean_end(r, 1, "No valid files to be processed.", w);
  EXPECT_TRUE(contains(r.out, "does NOT exsit! Automatically ignored!"));

  // Text options longer than their 1024-byte buffers.
  for (const char* opt : {"--T", "--excluded_suffix", "--global_excluded_box"}) {
    SCOPED_TRACE(opt);
    r = w.run({opt, std::string(1100, 'x'), "good.mrc"});
    expect_clean_end(r, 1, std::string("the value of option ") + opt + " is longer than 1023 characters", w);
  }
}

// ---- coordinate files to exclude ----

struct CoordCase {
  const char* name;
  const char* file;  // suffix of the file beside good.mrc
  std::string text;
  int status;
  const char* message;
};

std::vector<CoordCase> coord_cases() {
  std::string long_words;
  for (int i = 0; i < 600; i++) long_words += "1 ";
  const std::string long_number = "100 100 50 50 " + std::string(2000, '9') + "\n";
  const char* ok = "finished successfully";
  return {
      {"three words", "_ex.box", "10 20 30\n", 1, "unrecognized box format! Exit now!"},
      {"one word after good lines", "_ex.box", "10 20 30 40\n\n5\n", 1, "unrecognized box format! Exit now!"},
      {"star without x", "_ex.star", "\ndata_\n\nloop_\n_rlnCoordinateY #1\n_rlnAnglePsi #2\n100 200\n", 1,
       "has no _rlnCoordinateX column"},
      {"star without y", "_ex.star", "\ndata_\n\nloop_\n_rlnCoordinateX #1\n100\n", 1,
       "has no _rlnCoordinateY column"},
      {"star column beyond its labels", "_ex.star", "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #7\n1 2\n",
       1, "_rlnCoordinateY column 7"},
      {"binary junk", "_ex.box", std::string("\x01\x02\x03\xff\x00\x7f 9\n", 9), 1, "unrecognized box format!"},
      {"line of 600 words", "_ex.box", long_words + "\n", 0, ok},
      {"number of 2000 digits", "_ex.box", long_number, 0, ok},
      {"garbage numbers", "_ex.box", "abc def ghi jkl\nnan inf 1e99 -1e99 xyz\n99999999999999999999 -9999999999999 5 5\n",
       0, ok},
      {"empty file", "_ex.box", "", 0, ok},
      {"unknown suffix", "_ex.txt", "1 2 3 4\n", 0, "unrecognized box file format"},
  };
}

// Each malformed file, read as a per-micrograph exclusion list (and marked
// in the mask) and as the global one.
TEST(BadInput, ExcludedCoordinateFiles) {
  for (const CoordCase& c : coord_cases()) {
    SCOPED_TRACE(c.name);
    Work w;
    write_text_file(w.file(std::string("good") + c.file), c.text);
    RunResult r = w.run({"--exclusive_picking", "--excluded_suffix", c.file, "--mask_excluded", "good.mrc"});
    expect_clean_end(r, c.status, c.message, w);
    if (c.status == 0) EXPECT_TRUE(file_exists(w.file("good_vexmatch.box")));
    Work g;
    const std::string name = std::string("global") + c.file;
    write_text_file(g.file(name), c.text);
    expect_clean_end(g.run({"--global_excluded_box", name, "good.mrc"}), c.status, c.message, g);
  }
  // A global file that is not there is passed over.
  Work w;
  expect_clean_end(w.run({"--global_excluded_box", "nothere.box", "good.mrc"}), 0, "finished successfully", w);
  expect_good_intact(w);
}

// Coordinates at the ends of the int range: distances to them must be
// computed without overflow (a sanitizer build reports any).
TEST(BadInput, ExtremeExcludedCoordinates) {
  const std::vector<std::pair<const char*, std::string>> files = {
      {"_ex.box",
       "-2147483648 -2147483648 -2147483648 -2147483648\n2147483647 2147483647 2147483647 2147483647\n"
       "-2147483648 2147483647 2147483647 -2147483648 nan 2147483647 inf\n"},
      {"_ex.star",
       "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n-1e300 -1e300\n1e300 1e300\n"
       "2147483648 -2147483649\nnan inf\n"},
  };
  for (auto& f : files) {
    SCOPED_TRACE(f.first);
    for (bool mask : {false, true}) {
      SCOPED_TRACE(mask ? "with --mask_excluded" : "without --mask_excluded");
      Work w;
      write_text_file(w.file(std::string("good") + f.first), f.second);
      std::vector<std::string> args = {"--exclusive_picking", "--excluded_suffix", f.first};
      if (mask) args.push_back("--mask_excluded");
      args.push_back("good.mrc");
      expect_clean_end(w.run(args), 0, "finished successfully", w);
      // Nothing is near those positions: the picks are those of a plain run.
      expect_good_intact(w);
    }
    Work w;
    const std::string name = std::string("global") + f.first;
    write_text_file(w.file(name), f.second);
    expect_clean_end(w.run({"--global_excluded_box", name, "good.mrc"}), 0, "finished successfully", w);
    expect_good_intact(w);
  }
}

// ---- options ----

TEST(BadInput, OptionValues) {
  struct Case {
    std::vector<std::string> args;
    const char* message;
  };
  const std::vector<Case> cases = {
      {{"good.mrc", "--apixM"}, "option --apixM needs a value"},
      {{"good.mrc", "--excluded_suffix"}, "option --excluded_suffix needs a value"},
      {{"good.mrc", "--global_excluded_box"}, "option --global_excluded_box needs a value"},
      {{"--apixM", "0", "good.mrc"}, "option --apixM must be a positive pixel size, not 0"},
      {{"--apixM", "-1", "good.mrc"}, "option --apixM must be a positive pixel size, not -1"},
      {{"--apixM", "nan", "good.mrc"}, "option --apixM must be a positive pixel size"},
      {{"--apixM", "inf", "good.mrc"}, "option --apixM must be a positive pixel size"},
      {{"--min_dist", "0.001", "good.mrc"}, "option --min_dist 0.001 leaves a picking grid cell below one working pixel"},
      {{"--diameter", "1e-30", "good.mrc"}, "gives a minimum distance whose picking grid cell is below one working pixel"},
      {{"--diameter", "1e30", "good.mrc"}, "option --diameter 1e+30 gives a minimum distance larger than any micrograph"},
      {{"--T", "good.mrc", "--ang_step", "0", "good.mrc"}, "option --ang_step 0 must be a positive step"},
      {{"--T", "good.mrc", "--ang_step", "-5", "good.mrc"}, "option --ang_step -5 must be a positive step"},
      {{"--T", "good.mrc", "--ang_step", "1e-30", "good.mrc"}, "option --ang_step 1e-30 must be a positive step"},
      {{"--T", "good.mrc", "--apixT", "1e-30", "good.mrc"}, "templates of good.mrc"},
      {{"--T", "good.mrc", "--apixT", "1e30", "good.mrc"}, "templates of good.mrc"},
      {{"--boxsize", "0", "--extract_raw", "good.mrc"}, "option --boxsize must be positive to extract particles, not 0"},
      {{"--boxsize", "-4", "--extract_raw", "good.mrc"}, "option --boxsize must be positive to extract particles"},
      {{"--boxsize", "100000", "--extract_raw", "good.mrc"}, "particle box size 100000"},
      {{"--speed", "9", "good.mrc"}, "speed level must belong to {0,1,2,3,4}"},
  };
  for (const Case& c : cases) {
    std::string words;
    for (auto& a : c.args) words += a + " ";
    SCOPED_TRACE(words);
    Work w;
    expect_clean_end(w.run(c.args), 1, c.message, w);
  }
  // Values that are odd but workable end normally.
  const std::vector<std::vector<std::string>> workable = {
      {"--lsigma_D", "0"},   {"--lsigma_D", "1e30"}, {"--lave_D", "-5"}, {"--lp", "0"},
      {"--lp", "0", "--hp", "0"}, {"--lp", "-1"}, {"--cc_cutoff", "nan"}, {"--boxsize", "-5"},
      {"--do_pre_filter", "--pre_hp", "0"}, {"--T_norm_type", "3", "--center1_ratio", "5"}};
  for (auto args : workable) {
    std::string words;
    for (auto& a : args) words += a + " ";
    SCOPED_TRACE(words);
    Work w;
    args.push_back("good.mrc");
    expect_clean_end(w.run(args), 0, "finished successfully", w);
  }
}

// A minimum distance far beyond the micrograph makes one grid cell larger
// than the image, up to the int range: the run may refuse it or pick with
// that one cell, but must end cleanly.
TEST(BadInput, MinimumDistanceBeyondTheMicrograph) {
  for (const char* d : {"1e5", "1e9", "1e12", "1e30", "inf"}) {
    SCOPED_TRACE(std::string("--min_dist ") + d);
    Work w;
    RunResult r = w.run({"--min_dist", d, "good.mrc"});
    ASSERT_TRUE(r.exited()) << "signal " << r.signal << (r.timed_out ? " (timed out)" : "");
    EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status;
    expect_clean_end(r, r.status, r.status == 0 ? "finished successfully" : "--min_dist", w);
  }
}

// ---- templates ----

TEST(BadInput, Templates) {
  Work w;
  RunResult r = w.run({"--T", "nope.mrcs", "good.mrc"});
  expect_clean_end(r, 1,
                   "Cannot open file nope.mrcs. Permission denied or wrong file name.\n"
                   "Error in function get_template_data(), file vexmatch56 on line 689: open file failed.! Exit now!\n",
                   w);
  EXPECT_FALSE(file_exists(w.file("good_nonunique.box"))) << "the run ends before the first micrograph";

  // A template larger than the working micrograph.
  ASSERT_TRUE(make_mic(w.path(), "big.mrc", {"--nx", "1024", "--ny", "1024", "--diameter", "120"}));
  r = w.run({"--T", "big.mrc", "good.mrc"});
  expect_clean_end(r, 1, "do not fit the 128 x 128 working micrograph", w);

  const std::string g = good().bytes;
  const std::vector<std::pair<std::string, const char*>> broken = {
      {"", "is too short for an MRC header of 1024 bytes"},
      {g.substr(0, 1024 + 4000), "is too short for its header"},
      {with_word(g, 12, 3), "has a pixel mode that cannot be read"},
      {with_word(g, 8, 0), "has the invalid image size 512 x 512 x 0"},
      {with_word(with_word(g, 0, INT_MAX), 4, INT_MAX), "has the impossible image size"},
  };
  for (auto& b : broken) {
    SCOPED_TRACE(b.second);
    write_text_file(w.file("t.mrcs"), b.first);
    expect_clean_end(w.run({"--T", "t.mrcs", "good.mrc"}), 1, b.second, w);
  }
}

}  // namespace
