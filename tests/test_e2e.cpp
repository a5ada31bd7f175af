// Whole-program runs of gvexmatch on synthetic micrographs with known
// particle centres: where the picks land, which files appear and what they
// hold, resumption, and how a batch ends when one of its names is bad.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "io/mrcfile.h"
#include "support/e2e.h"

using namespace e2e;

namespace {

// The stage names of the ">>>>>>TIME<<<<<<" lines whose name is
// right-aligned in 32 columns and followed by its seconds.
std::string stages(const std::string& out) {
  static const std::regex line(R"(>>>>>>TIME<<<<<<( *)([A-Z]+): [0-9]+\.[0-9]{6}s)");
  std::string names;
  for (std::sregex_iterator m(out.begin(), out.end(), line), end; m != end; ++m)
    names += m->length(1) + m->length(2) == 32 ? m->str(2) + " " : "? ";
  return names;
}
const char kOneMicrograph[] = "PREPARATION READING NORMALIZATION PICKING TOTAL ";

// Two soft-edged white discs of the planted particles' size drawn at pixel
// size apix (dark with amp -1), written by the library's writer as a user
// would give them with --T.
void write_particle_templates(const std::string& path, double apix, float amp = 1) {
  const double r = 120.0 / (2 * apix), edge = 0.2 * r;
  const int n = 2 * (int)std::lround(1.07 * r);
  std::vector<float> data;
  for (double disc : {0.8 * r, 0.7 * r})
    for (int y = 0; y < n; y++)
      for (int x = 0; x < n; x++) {
        const double d = std::hypot(x - (n - 1) / 2.0, y - (n - 1) / 2.0);
        data.push_back(amp * (d <= disc ? 1.0 : d < disc + edge ? 0.5 + 0.5 * std::cos(M_PI * (d - disc) / edge) : 0));
      }
  mrcf_write_xyz_data(path.c_str(), data.data(), n, n, 2);
}

TEST(E2e, PicksThePlantedParticlesAndNotTheContamination) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 1024, 1024, 3));
  RunResult r = gvex_in(dir.path(), {"--apixM", "1.34", "m.mrc"});
  expect_end(r, 0, dir.path());
  EXPECT_EQ(stages(r.out), kOneMicrograph);
  size_t at = 0;
  for (const char* step : {"Opening m.mrc for initial test and preperation .......\n", "\nReading File m.mrc ...\n",
                           "\nNormalizing the micrograph m.mrc ...\n", "\nTemplate 001\n", "\nFile m.mrc finished.\n",
                           "#\nAll 1 files finished successfully:\n        m.mrc\n"}) {
    at = r.out.find(step, at);
    EXPECT_NE(at, std::string::npos) << "missing or out of order: " << step;
  }
  EXPECT_EQ(count_of(r.out, "Template "), 1u);

  std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
  expect_finds(picks, dir.file("m_truth.txt"));
  // The box derived from --diameter 120 and --apixM 1.34; one template, one angle.
  for (const BoxPick& p : picks) EXPECT_TRUE(p.w == 118 && p.h == 118 && p.t == 1 && p.psi == 0) << p.w << " " << p.t;
  EXPECT_EQ(read_words(dir.file("m_vexmatch.star"), 5).size(), picks.size());

  // No pick on or at the rim of the generator's contamination blob; with
  // the ice detection off, the blob does draw picks.
  auto on_blob = [&] {
    int n = 0;
    for (const BoxPick& p : read_box(dir.file("m_vexmatch.box")))
      n += std::hypot(p.cx() - 0.28 * 1024, p.cy() - 0.3 * 1024) <= std::max(3 * kRadius, 0.08 * 1024) + kRadius;
    return n;
  };
  EXPECT_EQ(on_blob(), 0);
  expect_end(gvex_in(dir.path(), {"--apixM", "1.34", "--detect_ice", "0", "m.mrc"}), 0, dir.path());
  EXPECT_GE(on_blob(), 2);
}

// The working image is square: the mirrored fill beyond the shorter side
// must give no picks. Integer pixel modes are read as numbers.
TEST(E2e, NonSquareAndIntegerMicrographs) {
  const struct {
    int nx, ny;
    const char* mode;
  } cases[] = {{1024, 768, "2"}, {768, 1024, "2"}, {1024, 1024, "0"}, {1024, 1024, "1"}, {1024, 1024, "6"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.nx) + " x " + std::to_string(c.ny) + ", mode " + c.mode);
    TempDir dir;
    ASSERT_TRUE(make_mic(dir.path(), "m.mrc", c.nx, c.ny, 5, {"--mode", c.mode}));
    ASSERT_EQ(read_mrc(dir.file("m.mrc")).mode, std::stoi(c.mode));
    expect_end(gvex_in(dir.path(), {"m.mrc"}), 0, dir.path());
    std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
    expect_finds(picks, dir.file("m_truth.txt"));
    for (const BoxPick& p : picks)
      EXPECT_TRUE(p.x >= 0 && p.y >= 0 && p.x + p.w <= c.nx && p.y + p.h <= c.ny) << p.x << ", " << p.y;
  }
}

TEST(E2e, UserTemplatesAtAnotherPixelSize) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", 1024, 1024, 3));
  write_particle_templates(dir.file("coarse.mrcs"), 2 * kApix);
  write_particle_templates(dir.file("fine.mrcs"), kApix);
  write_particle_templates(dir.file("dark.mrcs"), 2 * kApix, -1);
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.end(), {"--ang_step", "30", "m.mrc"});
    RunResult r = gvex_in(dir.path(), args);
    expect_end(r, 0, dir.path());
    return r;
  };
  // White discs at twice the micrograph's pixel size, inverted by the run.
  RunResult r = run({"--T", "coarse.mrcs", "--apixT", "2.68"});
  EXPECT_EQ(count_of(r.out, "Template "), 2u);
  EXPECT_TRUE(contains(r.out, "\nTemplate 002\n"));
  const std::string coarse = read_text_file(dir.file("m_vexmatch.box"));
  std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
  expect_finds(picks, dir.file("m_truth.txt"));
  for (const BoxPick& p : picks)
    EXPECT_TRUE((p.t == 1 || p.t == 2) && p.psi >= 0 && p.psi < 360) << p.t << " " << p.psi;

  // The same discs drawn at the micrograph's pixel size pick the same places.
  run({"--T", "fine.mrcs", "--apixT", "1.34"});
  std::vector<BoxPick> fine = read_box(dir.file("m_vexmatch.box"));
  ASSERT_EQ(fine.size(), picks.size());
  for (size_t i = 0; i < picks.size(); i++)
    EXPECT_TRUE(fine[i].x == picks[i].x && fine[i].y == picks[i].y && std::fabs(fine[i].cc - picks[i].cc) < 0.02) << i;
  // Dark discs kept as they are pick exactly as the white ones inverted.
  run({"--T", "dark.mrcs", "--apixT", "2.68", "--dont_invertT"});
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch.box")), coarse);
}

TEST(E2e, DoUnfinishedSkipsFinishedMicrographs) {
  TempDir dir;
  for (const char* name : {"a.mrc", "b.mrc", "c.mrc"}) ASSERT_TRUE(make_mic(dir.path(), name, 512, 512, 4));
  expect_end(gvex_in(dir.path(), {"a.mrc", "b.mrc"}), 0, dir.path());
  const std::string a_box = read_text_file(dir.file("a_vexmatch.box"));
  // b keeps only its ".star"; c was never picked; a skipped file is not touched.
  ASSERT_EQ(remove(dir.file("b_vexmatch.box").c_str()), 0);
  ASSERT_TRUE(write_text_file(dir.file("a_vexmatch.box"), a_box + "mark\n"));

  RunResult r = gvex_in(dir.path(), {"--do_unfinished", "a.mrc", "b.mrc", "c.mrc"});
  expect_end(r, 0, dir.path());
  EXPECT_TRUE(contains(r.out, "Micrograph a.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_TRUE(contains(r.out, "Micrograph b.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_EQ(count_of(r.out, "Automatically skipped."), 2u);
  EXPECT_EQ(count_of(r.out, "finished.\n"), 1u) << "c.mrc only";
  EXPECT_TRUE(contains(r.out, "All 3 files finished successfully:\n        a.mrc\n        b.mrc\n        c.mrc\n"));
  EXPECT_EQ(stages(r.out), kOneMicrograph);
  EXPECT_EQ(read_text_file(dir.file("a_vexmatch.box")), a_box + "mark\n");
  EXPECT_FALSE(file_exists(dir.file("b_vexmatch.box")));
  EXPECT_TRUE(file_exists(dir.file("c_vexmatch.box")));

  // Everything finished: every name skipped, the summary still counts them.
  r = gvex_in(dir.path(), {"--do_unfinished", "a.mrc", "b.mrc", "c.mrc"});
  expect_end(r, 0, dir.path());
  EXPECT_EQ(count_of(r.out, "has already been processed. Automatically skipped.\n"), 3u);
  EXPECT_TRUE(contains(r.out, "All 3 files finished successfully:\n"));
  EXPECT_EQ(stages(r.out), "PREPARATION TOTAL ");

  // Without the option a finished micrograph is picked again; --write_star 0
  // leaves out the ".star" file only.
  ASSERT_EQ(remove(dir.file("a_vexmatch.star").c_str()), 0);
  expect_end(gvex_in(dir.path(), {"--write_star", "0", "a.mrc"}), 0, dir.path());
  EXPECT_EQ(read_text_file(dir.file("a_vexmatch.box")), a_box);
  EXPECT_FALSE(file_exists(dir.file("a_vexmatch.star")));
}

// One run with every output: diagnostic images at the working size, the
// particle stack cut at the picks, and the same bytes from a second run.
TEST(E2e, EveryOutputIsValidAndRepeatable) {
  const std::vector<std::string> base = {"--speed", "1",          "--T", "t.mrcs",          "--apixT",
                                         "2.68",    "--ang_step", "45",  "--do_pre_filter", "m.mrc"};
  std::vector<std::string> all = base;
  all.insert(all.begin(), {"--write_pref_mic", "--write_bg_mic", "--write_lsigma_mic", "--write_mic_mask",
                           "--write_bgfree_mic", "--write_ccmax_mic", "--extract_raw"});
  TempDir dir[2];
  for (TempDir& d : dir) {
    ASSERT_TRUE(make_mic(d.path(), "m.mrc", 1024, 768, 8));
    write_particle_templates(d.file("t.mrcs"), 2 * kApix);
    expect_end(gvex_in(d.path(), all), 0, d.path());
  }
  const char* images[] = {"m_pref.mrc", "m_bg.mrc", "m_lsigma.mrc", "m_mask.mrc", "m_bgfree.mrc", "m_ccmax.mrc"};
  for (std::string name : {"m_vexmatch.box", "m_vexmatch.star", "m_nonunique.box", "m_rejected.box", "m_rejected.star",
                           "m_particles.mrcs"})
    EXPECT_TRUE(read_text_file(dir[0].file(name)) == read_text_file(dir[1].file(name))) << name;
  const int ext = 512;  // the longer side, 1024, shrunk by 2 at --speed 1
  for (std::string name : images) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(read_text_file(dir[0].file(name)) == read_text_file(dir[1].file(name))) << "differs between runs";
    const int nz = name == "m_ccmax.mrc" ? 2 : 1;  // one slice per template
    Mrc m = read_mrc(dir[0].file(name));
    EXPECT_EQ(m.map.substr(0, 3), "MAP");
    EXPECT_TRUE(m.mode == 2 && m.nx == ext && m.ny == ext && m.nz == nz) << m.mode << " " << m.nx << " " << m.ny;
    EXPECT_EQ(m.file_size, 1024 + 4u * ext * ext * nz);
    for (float v : m.data) ASSERT_TRUE(std::isfinite(v));
  }
  // The mask is 0 on rejected cells (the blob) and 1 elsewhere; the
  // background-free image has zero mean and unit deviation where it is 1.
  Mrc mask = read_mrc(dir[0].file("m_mask.mrc")), bgfree = read_mrc(dir[0].file("m_bgfree.mrc"));
  ASSERT_EQ(mask.data.size(), bgfree.data.size());
  double n1 = 0, sum = 0, sum2 = 0;
  for (size_t i = 0; i < mask.data.size(); i++) {
    const double m = mask.data[i], v = bgfree.data[i];
    ASSERT_TRUE(m == 0 || m == 1) << m;
    n1 += m, sum += m * v, sum2 += m * v * v;
  }
  EXPECT_TRUE(n1 > 0.5 * mask.data.size() && n1 < mask.data.size()) << n1;
  EXPECT_NEAR(sum / n1, 0.0, 1e-3);
  EXPECT_NEAR(sum2 / n1, 1.0, 2e-3);
  // One score map per template: none blank, not the same map twice.
  Mrc cc = read_mrc(dir[0].file("m_ccmax.mrc"));
  const auto mid = cc.data.begin() + ext * ext;
  EXPECT_FALSE(std::equal(cc.data.begin(), mid, mid));
  for (auto s : {cc.data.begin(), mid})
    EXPECT_LT(*std::min_element(s, s + ext * ext), *std::max_element(s, s + ext * ext));

  // Section i of the particle stack is the box of pick i cut from the
  // micrograph, zero beyond its edges.
  std::vector<BoxPick> picks = read_box(dir[0].file("m_vexmatch.box"));
  ASSERT_GE(picks.size(), 5u);
  Mrc mic = read_mrc(dir[0].file("m.mrc")), stack = read_mrc(dir[0].file("m_particles.mrcs"));
  const int b = picks[0].w;
  ASSERT_TRUE(stack.mode == 2 && stack.nx == b && stack.ny == b && stack.nz == (int)picks.size());
  ASSERT_EQ(stack.data.size(), (size_t)b * b * picks.size());
  for (size_t k = 0; k < stack.data.size(); k++) {
    const BoxPick& p = picks[k / (b * b)];
    const int mx = p.x + k % b, my = p.y + k / b % b;
    const float want = mx >= 0 && my >= 0 && mx < mic.nx && my < mic.ny ? mic.data[(size_t)my * mic.nx + mx] : 0;
    ASSERT_EQ(stack.data[k], want) << "particle " << k / (b * b) << " pixel " << k % b << ", " << k / b % b;
  }

  // Neither the images written nor --pre_lp (accepted, without effect) change the picks.
  const std::string box = read_text_file(dir[0].file("m_vexmatch.box")),
                    star = read_text_file(dir[0].file("m_vexmatch.star"));
  std::vector<std::string> plain = base;
  plain.insert(plain.begin(), {"--pre_lp", "20"});
  expect_end(gvex_in(dir[0].path(), plain), 0, dir[0].path());
  EXPECT_EQ(read_text_file(dir[0].file("m_vexmatch.box")), box);
  EXPECT_EQ(read_text_file(dir[0].file("m_vexmatch.star")), star);
}

// A batch ends with status 1 at a name that cannot be worked, after the
// micrographs before it are finished.
TEST(E2e, BatchesThatEndEarly) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "a.mrc", 512, 512, 1));
  ASSERT_TRUE(make_mic(dir.path(), "b.mrc", 512, 384, 1));
  ASSERT_TRUE(make_mic(dir.path(), "c.mrc", 512, 512, 1, {"--mode", "1"}));
  // Another size or pixel mode than the first micrograph: the table of both.
  for (std::string other : {"b.mrc", "c.mrc"}) {
    SCOPED_TRACE(other);
    RunResult r = gvex_in(dir.path(), {"a.mrc", other, "a.mrc"});
    expect_end(r, 1, dir.path());
    const std::string head = "Micrograph \033[1m" + other + "\033[m has a different size or format from  \033[1ma.mrc";
    EXPECT_TRUE(contains(r.out, head + "\033[m.\n"));
    EXPECT_EQ(last_line(r.out), "      512     512     1       Float               a.mrc");
    EXPECT_EQ(count_of(r.out, "finished."), 1u) << "the first a.mrc only";
    EXPECT_TRUE(file_exists(dir.file(other[0] + std::string("_nonunique.box"))));
    EXPECT_FALSE(file_exists(dir.file(other[0] + std::string("_vexmatch.box"))));
  }
  // A missing name after the reference: its "_nonunique.box" is made first.
  const std::string open_failed =
      "Error in function main(), file gvexmatch56 on line 187: open file failed.! Exit now!";
  RunResult r = gvex_in(dir.path(), {"a.mrc", "gone.mrc"});
  expect_end(r, 1, dir.path());
  EXPECT_FALSE(contains(r.out, "exsit"));
  EXPECT_TRUE(contains(r.out, "File a.mrc finished.\n"));
  EXPECT_TRUE(contains(r.out, "\nCannot open file gone.mrc. Permission denied or wrong file name.\n" + open_failed));
  EXPECT_EQ(last_line(r.out), open_failed);
  EXPECT_TRUE(file_exists(dir.file("gone_nonunique.box")));

  // A missing first name: a warning, the second name becomes the reference,
  // and the loop meets the missing name first.
  ASSERT_EQ(remove(dir.file("a_nonunique.box").c_str()), 0);
  ASSERT_EQ(remove(dir.file("gone_nonunique.box").c_str()), 0);
  r = gvex_in(dir.path(), {"gone.mrc", "a.mrc"});
  expect_end(r, 1, dir.path());
  const size_t warn =
      r.out.find("\033[41m\033[1m\033[5mWarning in function check_access_openf_1st(), file gvexmatch56");
  EXPECT_TRUE(contains(r.out, ": the micrograph gone.mrc does NOT exsit! Automatically ignored!\033[m\n\n"));
  EXPECT_LT(warn, r.out.find("Opening a.mrc for initial test and preperation .......\n"));
  EXPECT_EQ(stages(r.out), "PREPARATION ");
  EXPECT_EQ(last_line(r.out), open_failed);
  EXPECT_TRUE(file_exists(dir.file("gone_nonunique.box")));
  EXPECT_FALSE(file_exists(dir.file("a_nonunique.box")));

  // No readable name at all: the short help, the fatal line, nothing written.
  TempDir empty;
  r = gvex_in(empty.path(), {"gone.mrc", "also_gone.mrc"});
  expect_end(r, 1, empty.path());
  EXPECT_EQ(count_of(r.out, "does NOT exsit! Automatically ignored!"), 2u);
  EXPECT_TRUE(contains(r.out, "Usage:"));
  EXPECT_EQ(last_line(r.out),
            "Error in function gvexmatch_help_exit(), file vexmatch56 on line 1322: No valid files "
            "to be processed.! Exit now!");
  EXPECT_FALSE(file_exists(empty.file("gone_nonunique.box")));
}

}  // namespace
