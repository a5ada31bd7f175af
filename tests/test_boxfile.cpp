// Coordinate files: .box and .star reading, the STAR header and its label
// table, and the exact layouts of the coordinate writers.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "io/boxfile.h"
#include "io/star_keywords.h"
#include "support/capture.h"
#include "support/run.h"

namespace {

// Records read from a file, each as "x y bx by cc cls psi".
std::vector<std::string> read_boxes(const std::string& path, int max = 16) {
  std::vector<PTCL_BOX> b(max > 0 ? max : 1);
  const int n = read_all_ptcl_boxes(b.data(), max, path.c_str());
  std::vector<std::string> s;
  char line[128];
  for (int i = 0; i < n; i++) {
    snprintf(line, sizeof line, "%d %d %d %d %g %d %g", b[i].x, b[i].y, b[i].bx, b[i].by, b[i].cc, b[i].cls, b[i].psi);
    s.push_back(line);
  }
  return s;
}

using Lines = std::vector<std::string>;

const std::string kPickerStarHead =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
    "_rlnAutopickFigureOfMerit #5\n";

void expect_fatal_line(const Captured& c, const std::string& prefix, const std::string& reason) {
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.out.rfind(prefix, 0), 0u) << c.out;
  EXPECT_NE(c.out.find(reason), std::string::npos) << c.out;
}

const char kReadFatal[] = "Error in function read_all_ptcl_boxes(), file boxfile on line ";

// Each file's text and the records read from it.
TEST(BoxRead, FilesAndTheirRecords) {
  TempDir dir;
  const std::string pad(3000, ' ');
  const struct {
    const char* name;
    std::string text;
    Lines records;
  } cases[] = {
      // .box: the word count selects the columns; blank lines are skipped,
      // words past seven ignored.
      {"a.box",
       "10 20 64 64 0.75 3 12.5\n\n   \t \r\n11\t21 64 64 0.5 2\n12 22 64 64 0.25\n13 22 32 32\n"
       "14 24 16 16 0.1 4 -7.25 99 98\n",
       {"10 20 64 64 0.75 3 12.5", "11 21 64 64 0.5 2 0", "12 22 64 64 0.25 0 0", "13 22 32 32 0 0 0",
        "14 24 16 16 0.1 4 -7.25"}},
      // Numbers parse as far as they go; nothing else is a number.
      {"m.box", "12abc x 3.9 -4 1e99999 99999999999 junk\n", {"12 0 3 -4 inf 2147483647 0"}},
      // One line far beyond 1024 bytes is one record, not several.
      {"long.box",
       "1 2 3 4" + pad + "0.5 6 7.5" + pad + "8 9 10 11\n5 6 7 8\n",
       {"1 2 3 4 0.5 6 7.5", "5 6 7 8 0 0 0"}},
      {"long.star",
       kPickerStarHead + "100 200 " + pad + "30 1 0.5" + pad + "\n7 8 9 1 0.1\n",
       {"100 200 0 0 0.5 1 30", "7 8 0 0 0.1 1 9"}},
      // STAR: coordinates and psi lose their fractions; short rows are skipped.
      {"a.star",
       kPickerStarHead + "1234.7 567.2 12.5 3 0.41\n\n1 2 3\n5 6 -7.9 1 0.2 extra\n",
       {"1234 567 0 0 0.41 3 12", "5 6 0 0 0.2 1 -7"}},
      {"xy.star", "data_\nloop_\n_rlnCoordinateY #2\n_rlnCoordinateX #1\n10 20\n", {"10 20 0 0 0 0 0"}},
      // The header ends at an unknown label: the label lines after it are no
      // particles, and psi is not mapped.
      {"u.star",
       "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnNotALabel #3\n_rlnAnglePsi #4\n10 20 5 30\n",
       {"10 20 0 0 0 0 0"}},
  };
  for (const auto& c : cases) {
    write_text_file(dir.file(c.name), c.text);
    EXPECT_EQ(read_boxes(dir.file(c.name)), c.records) << c.name;
  }
  // The record count stops at max; max <= 0 reads nothing.
  const std::string f = dir.file("a.box");
  EXPECT_EQ(read_boxes(f, 2).size(), 2u);
  EXPECT_EQ(read_boxes(f, 0).size() + read_boxes(f, -3).size(), 0u);
}

// .box lines of one to three words, and STAR files without usable
// coordinate columns, end the run.
TEST(BoxRead, UnusableFilesAreFatal) {
  TempDir dir;
  const std::string box = dir.file("bad.box"), star = dir.file("bad.star");
  const struct {
    std::string file, text, reason;
  } cases[] = {
      {box, "1 2 3 4\n5\n", ": unrecognized box format! Exit now!\n"},
      {box, "5 6\n", ": unrecognized box format! Exit now!\n"},
      {box, "1 2 3\n", ": unrecognized box format! Exit now!\n"},
      {star, "loop_\n_rlnCoordinateX #1\n_rlnAnglePsi #2\n1 2\n", star + " has no _rlnCoordinateY column! Exit now!"},
      {star, "loop_\n_rlnCoordinateY #1\n1\n", star + " has no _rlnCoordinateX column! Exit now!"},
      {star, "1 2 3\n", star + " has no _rlnCoordinateX column"},
      {star, "loop_\n_rlnCoordinateX #1\n_rlnCoordinateY #9\n1 2\n",
       " gives _rlnCoordinateY column 9 but has only 2 labels"},
  };
  for (const auto& k : cases) {
    write_text_file(k.file, k.text);
    expect_fatal_line(capture_run([&] { read_boxes(k.file); }), kReadFatal, k.reason);
  }
}

// Per-template lists: a box of 10 (h = 5) in a 20 x 16 image is written only
// for 5 < x < 15 and 5 < y < 11.
TEST(BoxWrite, PerTemplateListsKeepStrictBounds) {
  TempDir dir;
  const int nx = 20, ny = 16, box = 10;
  const unsigned int peaks[] = {0, 6 * nx + 5, 6 * nx + 6, 10 * nx + 14, 11 * nx + 14, 6 * nx + 15, 5 * nx + 8};
  const float cc[] = {9, 0.1f, 0.25f, 0.5f, 0.6f, 0.7f, 0.8f};
  const float psi[] = {9, 1, 2.5f, 355.0f, 4, 5, 6};
  FILE* fp = fopen(dir.file("t.box").c_str(), "w+");
  EXPECT_EQ(output_vexmatch_coord_one_temp(fp, peaks, cc, psi, 2, 7, nx, ny, box), 2);
  fclose(fp);
  EXPECT_EQ(read_text_file(dir.file("t.box")),
            "1       1       10      10      0.250000\t2       \t2.500   \n"
            "9       5       10      10      0.500000\t2       \t355.000 \n");
}

// Rejected cells: 40 x 30 shrunk pixels, cells of 10 (4 x 3 cells), shrink 4,
// origin (3, 100): both coordinates take origin.x.
TEST(BoxWrite, RejectedCellsUseTheOriginXForBoth) {
  TempDir dir;
  const int nx = 40, ny = 30, c = 10;
  std::vector<unsigned int> grid(12, 0);
  std::vector<float> ave(12), sig(12);
  for (int i = 0; i < 12; i++) {
    ave[i] = 0.5f * i;
    sig[i] = 2.0f + i;
  }
  grid[1] = 15 * nx + 12;   // inside
  grid[5] = 5 * nx + 20;    // y == c/2: not strictly inside
  grid[7] = 24 * nx + 34;   // inside
  grid[11] = 24 * nx + 35;  // x == nx - c/2: outside
  int2 origin;
  origin.x = 3;
  origin.y = 100;
  output_ice_coord(dir.file("r.box").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 2);
  EXPECT_EQ(read_text_file(dir.file("r.box")),
            "31      43      40      40      \t0.500000\t3.000000\n"
            "119     79      40      40      \t3.500000\t9.000000\n");
  output_ice_coord(dir.file("r.star").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 1);
  EXPECT_EQ(read_text_file(dir.file("r.star")),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n51      63      \n139     99      \n");

  Captured r = capture_run([&] {
    output_ice_coord(dir.file("no/r.box").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 2);
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Cannot write to file " + dir.file("no/r.box") +
                       ". Permission denied or no space left!\n"
                       "Error in function output_ice_coord(), file vexmatch56 on line 1607: open file failed.! Exit "
                       "now!\n");
}

// The known-label table: a fingerprint of all 228 labels in order catches a
// dropped, added, renamed or swapped label; matching is exact.
TEST(StarKeywords, TheLabelTable) {
  EXPECT_EQ(STAR_HEAD_KEYWORD_COUNT, 228);
  EXPECT_EQ(sizeof(STAR_HEAD_KEYWORDS), 229u * 256u);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[STAR_HEAD_KEYWORD_COUNT], "");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[31], "_rlnCoordinateX");
  uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a over "label\n" lines
  for (int i = 0; i < STAR_HEAD_KEYWORD_COUNT; ++i)
    for (const char* c = STAR_HEAD_KEYWORDS[i];; c++) {
      h = (h ^ (unsigned char)(*c ? *c : '\n')) * 0x100000001b3ull;
      if (!*c) break;
    }
  EXPECT_EQ(h, 0xbb5c80de3ae98f31ull);

  for (const char* k : {"_rlnCoordinateX", "_rlnAnglePsi", "_rlnAutopickFigureOfMerit", "_rlnDataDimensionality"})
    EXPECT_TRUE(is_star_head_keyword(k)) << k;
  for (const char* k : {"", "_rlncoordinatex", "rlnCoordinateX", "_rlnCoordinate", "_rlnCoordinateXY",
                        "_rlnCoordinateX ", " _rlnCoordinateX", "_rln", "data_"})
    EXPECT_FALSE(is_star_head_keyword(k)) << '"' << k << '"';
  EXPECT_FALSE(is_star_head_keyword(nullptr));
}

}  // namespace
