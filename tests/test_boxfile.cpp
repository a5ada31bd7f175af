// Coordinate files: .box and .star reading, the STAR header, and the exact
// layouts of the coordinate writers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "io/boxfile.h"
#include "support/in_child.h"
#include "support/run.h"

namespace {

std::vector<PTCL_BOX> read_boxes(const std::string& path, int max = 16) {
  std::vector<PTCL_BOX> b(max > 0 ? max : 1);
  const int n = read_all_ptcl_boxes(b.data(), max, path.c_str());
  b.resize(n);
  return b;
}

// The picker's STAR header followed by rows.
std::string picker_star(const std::string& rows) {
  return "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
         "_rlnAutopickFigureOfMerit #5\n" +
         rows;
}

void expect_fatal_line(const ChildOutcome& c, const std::string& prefix, const std::string& reason) {
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.out.compare(0, prefix.size(), prefix), 0) << c.out;
  EXPECT_NE(c.out.find(reason), std::string::npos) << c.out;
}

TEST(BoxRead, WordCountsSelectTheColumns) {
  TempDir dir;
  const std::string f = dir.file("a.box");
  write_text_file(f,
                  "10 20 64 64 0.75 3 12.5\n"  // 7 words
                  "\n"
                  "   \t \r\n"
                  "11\t21 64 64 0.5 2\n"           // 6 words
                  "12 22 64 64 0.25\n"             // 5 words
                  "13 22 32 32\n"                  // plain EMAN
                  "14 24 16 16 0.1 4 -7.25 99 98\n");  // extra words ignored
  const std::vector<PTCL_BOX> b = read_boxes(f);
  ASSERT_EQ(b.size(), 5u);
  EXPECT_EQ(b[0].x, 10);
  EXPECT_EQ(b[0].y, 20);
  EXPECT_EQ(b[0].bx, 64);
  EXPECT_EQ(b[0].by, 64);
  EXPECT_FLOAT_EQ(b[0].cc, 0.75f);
  EXPECT_EQ(b[0].cls, 3);
  EXPECT_EQ(b[0].psi, 12.5f);  // fractions kept from .box
  EXPECT_EQ(b[1].cls, 2);
  EXPECT_EQ(b[1].psi, 0.0f);
  EXPECT_EQ(b[2].cc, 0.25f);
  EXPECT_EQ(b[2].cls, 0);
  EXPECT_EQ(b[3].bx, 32);
  EXPECT_EQ(b[3].cc, 0.0f);
  EXPECT_EQ(b[4].psi, -7.25f);
  EXPECT_EQ(get_ptcl_number_from_boxf(f.c_str()), 2);  // lines of seven words or more

  // The record count stops at max; max <= 0 reads nothing.
  EXPECT_EQ(read_boxes(f, 2).size(), 2u);
  EXPECT_EQ(read_boxes(f, 0).size(), 0u);
  EXPECT_EQ(read_boxes(f, -3).size(), 0u);

  for (const char* bad : {"5\n", "5 6\n", "1 2 3\n"}) {
    write_text_file(dir.file("bad.box"), std::string("1 2 3 4\n") + bad);
    ChildOutcome c = run_in_child([&] { read_boxes(dir.file("bad.box")); });
    expect_fatal_line(c, "Error in function read_all_ptcl_boxes(), file boxfile on line ",
                      ": unrecognized box format! Exit now!\n");
  }
}

TEST(BoxRead, MalformedNumbersAndLongLines) {
  TempDir dir;
  // Numbers parse as far as they go; nothing else is a number.
  write_text_file(dir.file("m.box"),
                  "12abc x 3.9 -4 1e99999 99999999999 junk\n");
  std::vector<PTCL_BOX> b = read_boxes(dir.file("m.box"));
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].x, 12);
  EXPECT_EQ(b[0].y, 0);
  EXPECT_EQ(b[0].bx, 3);
  EXPECT_EQ(b[0].by, -4);
  EXPECT_TRUE(std::isinf(b[0].cc));
  EXPECT_EQ(b[0].cls, 2147483647);
  EXPECT_EQ(b[0].psi, 0.0f);

  // One line far beyond 1024 bytes is one record, not several.
  const std::string pad(3000, ' ');
  write_text_file(dir.file("long.box"), "1 2 3 4" + pad + "0.5 6 7.5" + pad + "8 9 10 11\n5 6 7 8\n");
  b = read_boxes(dir.file("long.box"));
  ASSERT_EQ(b.size(), 2u);
  EXPECT_EQ(b[0].cc, 0.5f);
  EXPECT_EQ(b[0].psi, 7.5f);
  EXPECT_EQ(b[1].x, 5);
  write_text_file(dir.file("long.star"), picker_star("100 200 " + pad + "30 1 0.5" + pad + "\n7 8 9 1 0.1\n"));
  b = read_boxes(dir.file("long.star"));
  ASSERT_EQ(b.size(), 2u);
  EXPECT_EQ(b[0].x, 100);
  EXPECT_EQ(b[0].cc, 0.5f);
  EXPECT_EQ(b[1].x, 7);
}

TEST(BoxRead, UnknownSuffixWarnsAndReadsNothing) {
  TempDir dir;
  write_text_file(dir.file("a.txt"), "1 2 3 4\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(read_boxes(dir.file("a.txt")).size(), 0u);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.compare(0, 64, "Warning in function read_all_ptcl_boxes(), file boxfile on line "), 0) << out;
  EXPECT_NE(out.find(": unrecognized box file format, only EMAN .box and Relion .star file are supported now.!\n"),
            std::string::npos);
  EXPECT_EQ(get_boxf_suffixf("a.star"), 1);
  EXPECT_EQ(get_boxf_suffixf("a.box"), 2);
  EXPECT_EQ(get_boxf_suffixf("box"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.boxx"), 0);

  ChildOutcome c = run_in_child([&] { read_boxes(dir.file("none.box")); });
  expect_fatal_line(c, "Cannot open file " + dir.file("none.box") + ". Permission denied or wrong file name.\n",
                    "Error in function read_all_ptcl_boxes(), file boxfile on line ");
}

TEST(StarRead, PickerRowsReadWithWholeDegreePsi) {
  TempDir dir;
  const std::string f = dir.file("a.star");
  write_text_file(f, picker_star("1234.7 567.2 12.5 3 0.41\n\n1 2 3\n5 6 -7.9 1 0.2 extra\n"));
  const std::vector<PTCL_BOX> b = read_boxes(f);
  ASSERT_EQ(b.size(), 2u);  // the short row is skipped
  EXPECT_EQ(b[0].x, 1234);
  EXPECT_EQ(b[0].y, 567);
  EXPECT_EQ(b[0].bx, 0);
  EXPECT_EQ(b[0].by, 0);
  EXPECT_EQ(b[0].psi, 12.0f);
  EXPECT_EQ(b[0].cls, 3);
  EXPECT_FLOAT_EQ(b[0].cc, 0.41f);
  EXPECT_EQ(b[1].psi, -7.0f);

  // Only the coordinate columns: the rest stay zero.
  write_text_file(dir.file("xy.star"), "data_\nloop_\n_rlnCoordinateY #2\n_rlnCoordinateX #1\n10 20\n");
  const std::vector<PTCL_BOX> xy = read_boxes(dir.file("xy.star"));
  ASSERT_EQ(xy.size(), 1u);
  EXPECT_EQ(xy[0].x, 10);
  EXPECT_EQ(xy[0].y, 20);
  EXPECT_EQ(xy[0].cc, 0.0f);
}

TEST(StarRead, HeaderEndsAtAnUnknownLabel) {
  TempDir dir;
  const std::string f = dir.file("u.star");
  write_text_file(f,
                  "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnNotALabel #3\n_rlnAnglePsi #4\n"
                  "10 20 5 30\n");
  StarHead* h = star_head_new();
  EXPECT_EQ(starf_read_head(f.c_str(), h), 2);
  EXPECT_STREQ(h->label[1], "_rlnCoordinateY");
  EXPECT_EQ(h->col[1], 2);
  ParticleInfoIndex* ix = particle_info_index_new();
  set_info_index_from_star_head(h, ix);
  EXPECT_EQ(ix->CoordinateX, 1);
  EXPECT_EQ(ix->AnglePsi, 0);
  free(ix);
  free(h);
  // The label lines after the header are not particles; psi is not mapped.
  const std::vector<PTCL_BOX> b = read_boxes(f);
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].x, 10);
  EXPECT_EQ(b[0].psi, 0.0f);

  // star_set_pointer leaves the stream at data line n.
  FILE* fp = fopen(f.c_str(), "r");
  EXPECT_EQ(star_set_pointer(fp, 2), 0);
  char line[64];
  ASSERT_NE(fgets(line, sizeof line, fp), nullptr);
  EXPECT_STREQ(line, "10 20 5 30\n");
  fclose(fp);
}

TEST(StarRead, FilesWithoutUsableCoordinatesAreRejected) {
  TempDir dir;
  struct Case {
    const char* text;
    const char* reason;
  };
  const Case cases[] = {
      {"loop_\n_rlnCoordinateX #1\n_rlnAnglePsi #2\n1 2\n", " has no _rlnCoordinateY column! Exit now!"},
      {"loop_\n_rlnCoordinateY #1\n1\n", " has no _rlnCoordinateX column! Exit now!"},
      {"1 2 3\n", " has no _rlnCoordinateX column"},
      {"loop_\n_rlnCoordinateX #1\n_rlnCoordinateY #9\n1 2\n", " gives _rlnCoordinateY column 9 but has only 2 labels"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.text);
    const std::string f = dir.file("bad.star");
    write_text_file(f, k.text);
    ChildOutcome c = run_in_child([&] { read_boxes(f); });
    expect_fatal_line(c, "Error in function read_all_ptcl_boxes(), file boxfile on line ",
                      "STAR file " + f + k.reason);
  }
}

TEST(BoxWrite, RecordListsAndHeaders) {
  TempDir dir;
  std::vector<PTCL_BOX> b(3, one_new_ptcl_box());
  b[0] = {1, 2, 64, 64, 0.5f, 3, 45.0f, 0};
  b[2] = {-5, 7, 32, 16, 0.125f, -1, -2.5f, 0};  // b[1] has no box: skipped
  EXPECT_EQ(fprint_all_ptcl_boxes(dir.file("o.box").c_str(), b.data(), 3), 2);
  EXPECT_EQ(read_text_file(dir.file("o.box")),
            "1       2       64      64      0.500000        3       45.000000\n"
            "-5      7       32      16      0.125000        -1      -2.500000\n");
  const std::vector<PTCL_BOX> back = read_boxes(dir.file("o.box"));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[1].cls, -1);
  EXPECT_EQ(back[1].psi, -2.5f);

  FILE* fp = fopen(dir.file("h.star").c_str(), "w+");
  fputs("old text that is longer than every header written over it ............................", fp);
  output_starbox_head(fp);
  fclose(fp);
  // Written from the start of the file, over what was there.
  const std::string head =
      "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
      "_rlnAutopickFigureOfMerit #5\n";
  EXPECT_EQ(read_text_file(dir.file("h.star")).substr(0, head.size()), head);
  fp = fopen(dir.file("g.star").c_str(), "w+");
  gvexmatch_output_star_head(fp);
  fclose(fp);
  EXPECT_EQ(read_text_file(dir.file("g.star")),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnClassNumber #3\n_rlnAnglePsi #4\n"
            "_rlnAutopickFigureOfMerit #5\n");

  ChildOutcome c = run_in_child([&] { fprint_all_ptcl_boxes(dir.file("x/y.box").c_str(), b.data(), 3); });
  expect_fatal_line(c, "Cannot open file " + dir.file("x/y.box") + ". strike any key exit!\n",
                    "Error in function fprint_all_ptcl_boxes(), file boxfile on line ");
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
  const std::vector<PTCL_BOX> back = read_boxes(dir.file("t.box"));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[1].psi, 355.0f);

  // STAR form: centres, angle in the class column and template in psi's.
  EXPECT_EQ(output_vexmatch_star_one_temp(dir.file("t.star").c_str(), peaks, cc, psi, 2, 7, nx, ny, box), 2);
  EXPECT_EQ(read_text_file(dir.file("t.star")),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnClassNumber #3\n_rlnAnglePsi #4\n"
            "_rlnAutopickFigureOfMerit #5\n"
            "6       6       2.500000\t2       \t0.250   \n"
            "14      10      355.000000\t2       \t0.500   \n");
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
  grid[1] = 15 * nx + 12;  // inside
  grid[5] = 5 * nx + 20;   // y == c/2: not strictly inside
  grid[7] = 24 * nx + 34;  // inside
  grid[11] = 24 * nx + 35; // x == nx - c/2: outside
  int2 origin;
  origin.x = 3;
  origin.y = 100;
  output_ice_coord(dir.file("r.box").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 2);
  EXPECT_EQ(read_text_file(dir.file("r.box")),
            "31      43      40      40      \t0.500000\t3.000000\n"
            "119     79      40      40      \t3.500000\t9.000000\n");
  output_ice_coord(dir.file("r.star").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 1);
  EXPECT_EQ(read_text_file(dir.file("r.star")),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
            "51      63      \n"
            "139     99      \n");
  const std::vector<PTCL_BOX> back = read_boxes(dir.file("r.star"));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[1].y, 99);

  ChildOutcome r = run_in_child([&] {
    output_ice_coord(dir.file("no/r.box").c_str(), grid.data(), ave.data(), sig.data(), nx, ny, origin, c, 4, 2);
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Cannot write to file " + dir.file("no/r.box") +
                       ". Permission denied or no space left!\n"
                       "Error in function output_ice_coord(), file vexmatch56 on line 1607: open file failed.! Exit "
                       "now!\n");
}

}  // namespace
