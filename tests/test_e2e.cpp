// Whole-program runs of gvexmatch on synthetic micrographs with known
// particle centres: where the picks land, which files appear and what they
// hold, resumption, and how a batch ends when one of its names is bad.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "io/mrcfile.h"
#include "support/e2e.h"
#include "support/run.h"

using namespace e2e;

namespace {

const double kApix = 1.34, kDiameter = 120.0;
const int kBox = 118;  // 2 * ((int)(120 * 1.33 / 1.34) / 2), the derived box size
const double kRadius = kDiameter / (2 * kApix);  // particle radius, micrograph pixels

std::vector<std::string> mic_args(const std::string& nx, const std::string& ny, const std::string& seed) {
  return {"--nx", nx, "--ny", ny, "--apix", "1.34", "--diameter", "120", "--seed", seed};
}

// The stage names of the ">>>>>>TIME<<<<<<" lines in order; each name must
// be right-aligned in 32 columns and followed by a time in seconds.
std::vector<std::string> stage_names(const std::string& out) {
  static const std::regex line_re(R"(>>>>>>TIME<<<<<<( *)([A-Z]+): [0-9]+\.[0-9]{6}s)");
  std::vector<std::string> names;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(">>>>>>TIME<<<<<<", 0) != 0) continue;
    std::smatch m;
    if (!std::regex_match(line, m, line_re) || m[1].length() + m[2].length() != 32) {
      names.push_back("malformed: " + line);
      continue;
    }
    names.push_back(m[2]);
  }
  return names;
}

std::vector<std::string> one_micrograph_stages() {
  return {"PREPARATION", "READING", "NORMALIZATION", "PICKING", "TOTAL"};
}

std::string fmt_box_line(const BoxPick& p) {
  char buf[200];
  snprintf(buf, sizeof buf, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f", p.x, p.y, p.w, p.h, p.cc, p.t, p.psi);
  return buf;
}

std::vector<std::string> text_lines(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(read_text_file(path));
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  return lines;
}

const char kStarHead[] =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
    "_rlnAutopickFigureOfMerit #5\n";

// The ".box" and ".star" files of one micrograph describe the same picks in
// their exact layouts: corner and box in one, centre in the other.
void expect_pick_files_agree(const std::string& box_path, const std::string& star_path) {
  std::vector<BoxPick> picks = read_box(box_path);
  std::vector<std::string> lines = text_lines(box_path);
  ASSERT_EQ(lines.size(), picks.size()) << "every line of " << box_path << " has seven words";
  for (size_t i = 0; i < picks.size(); i++) EXPECT_EQ(lines[i], fmt_box_line(picks[i])) << box_path;

  const std::string star = read_text_file(star_path);
  ASSERT_EQ(star.rfind(kStarHead, 0), 0u) << star_path;
  std::vector<std::string> rows = text_lines(star_path);
  rows.erase(rows.begin(), rows.begin() + 9);
  ASSERT_EQ(rows.size(), picks.size());
  for (size_t i = 0; i < picks.size(); i++) {
    const BoxPick& p = picks[i];
    char buf[200];
    snprintf(buf, sizeof buf, "%-8d%-8d%-8.6f\t%-8d%-8.6f", p.x + p.w / 2, p.y + p.h / 2, p.psi, p.t, p.cc);
    EXPECT_EQ(rows[i], buf) << star_path << " row " << i;
  }
}

// A stack of soft-edged discs (radius r, edge e, height amp) written by the
// library's own writer, as a user would give with --T.
void write_disc_stack(const std::string& path, int n, const std::vector<double>& radii, double edge, float amp) {
  std::vector<float> data;
  const double c = (n - 1) / 2.0;
  for (double r : radii)
    for (int y = 0; y < n; y++)
      for (int x = 0; x < n; x++) {
        const double d = std::hypot(x - c, y - c);
        const double w = d <= r ? 1.0 : d < r + edge ? 0.5 + 0.5 * std::cos(M_PI * (d - r) / edge) : 0.0;
        data.push_back((float)(amp * w));
      }
  mrcf_write_xyz_data(path.c_str(), data.data(), n, n, (int)radii.size());
}

// Two white templates of the planted particles drawn at pixel size apix.
void write_particle_templates(const std::string& path, double apix, float amp = 1.0f) {
  const double r = kDiameter / (2 * apix);
  const int n = 2 * (int)std::lround(1.07 * r);
  write_disc_stack(path, n, {0.8 * r, 0.7 * r}, 0.2 * r, amp);
}

void expect_ok(const RunResult& r) {
  ASSERT_TRUE(r.exited()) << "signal " << r.signal << (r.timed_out ? " (timed out)" : "") << "\n" << r.out;
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(E2e, PicksThePlantedParticlesAndNotTheContamination) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("1024", "1024", "3")));
  RunResult r = gvex_in(dir.path(), {"--apixM", "1.34", "--diameter", "120", "m.mrc"});
  expect_ok(r);

  EXPECT_EQ(stage_names(r.out), one_micrograph_stages());
  EXPECT_EQ(count_of(r.out, "Template "), 1u);
  EXPECT_EQ(count_of(r.out, "\nTemplate 001\n"), 1u);
  EXPECT_TRUE(contains(r.out, "Opening m.mrc for initial test and preperation .......\n"));
  EXPECT_TRUE(contains(r.out, "\nReading File m.mrc ...\n"));
  EXPECT_TRUE(contains(r.out, "\nNormalizing the micrograph m.mrc ...\n"));
  EXPECT_TRUE(contains(r.out, "\nFile m.mrc finished.\n"));
  EXPECT_TRUE(contains(r.out, std::string(129, '#') + "\nAll 1 files finished successfully:\n        m.mrc\n"));

  std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
  std::vector<Centre> truth = read_truth(dir.file("m_truth.txt"));
  ASSERT_GE(truth.size(), 20u);
  Score s = score(picks, truth, 0.5 * kRadius);
  EXPECT_GE(s.found, (int)std::ceil(0.8 * s.truth)) << s.found << " of " << s.truth;
  EXPECT_LE(s.stray, std::max(2, s.picks / 10)) << s.stray << " of " << s.picks;
  for (const BoxPick& p : picks) {
    EXPECT_EQ(p.w, kBox);
    EXPECT_EQ(p.h, kBox);
    EXPECT_EQ(p.t, 1);
    EXPECT_EQ(p.psi, 0.0);
  }

  // The contamination blob of the generator: no pick on it or at its rim,
  // and the ice detection names cells on it as rejected.
  const double bx = 0.28 * 1024, by = 0.3 * 1024, br = std::max(3 * kRadius, 0.08 * 1024);
  for (const BoxPick& p : picks)
    EXPECT_GT(std::hypot(p.cx() - bx, p.cy() - by), br + kRadius) << "pick at " << p.cx() << ", " << p.cy();
  std::vector<BoxPick> rejected;
  for (auto& w : read_words(dir.file("m_rejected.box")))
    if (w.size() == 6) rejected.push_back({std::stoi(w[0]), std::stoi(w[1]), std::stoi(w[2]), std::stoi(w[3]), 0, 0, 0});
  int on_blob = 0;
  for (const BoxPick& p : rejected) on_blob += std::hypot(p.cx() - bx, p.cy() - by) < 1.3 * br;
  EXPECT_GE(on_blob, 3);

  expect_pick_files_agree(dir.file("m_vexmatch.box"), dir.file("m_vexmatch.star"));
  EXPECT_TRUE(file_exists(dir.file("m_nonunique.box")));
  EXPECT_TRUE(file_exists(dir.file("m_rejected.star")));
  EXPECT_EQ(part_files(dir.path()), std::vector<std::string>{});
}

TEST(E2e, NonSquareMicrographsGetPicksInsideThemOnly) {
  // The working image is square; the part beyond the shorter side is a
  // mirror image whose particles must not come back as picks.
  for (auto size : {std::make_pair(1024, 768), std::make_pair(768, 1024)}) {
    SCOPED_TRACE(std::to_string(size.first) + " x " + std::to_string(size.second));
    TempDir dir;
    ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args(std::to_string(size.first), std::to_string(size.second), "1")));
    expect_ok(gvex_in(dir.path(), {"--diameter", "120", "m.mrc"}));
    std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
    Score s = score(picks, read_truth(dir.file("m_truth.txt")), 0.5 * kRadius);
    EXPECT_GE(s.found, (int)std::ceil(0.8 * s.truth)) << s.found << " of " << s.truth;
    EXPECT_LE(s.stray, std::max(2, s.picks / 10)) << s.stray << " of " << s.picks;
    for (const BoxPick& p : picks) {
      EXPECT_GE(p.x, 0);
      EXPECT_GE(p.y, 0);
      EXPECT_LE(p.x + p.w, size.first);
      EXPECT_LE(p.y + p.h, size.second);
    }
    expect_pick_files_agree(dir.file("m_vexmatch.box"), dir.file("m_vexmatch.star"));
  }
}

TEST(E2e, IntegerPixelModes) {
  for (const char* mode : {"0", "1", "6"}) {
    SCOPED_TRACE(std::string("mode ") + mode);
    TempDir dir;
    std::vector<std::string> a = mic_args("1024", "1024", "5");
    a.insert(a.end(), {"--mode", mode});
    ASSERT_TRUE(make_mic(dir.path(), "m.mrc", a));
    ASSERT_EQ(read_mrc(dir.file("m.mrc")).mode, std::stoi(mode));
    expect_ok(gvex_in(dir.path(), {"--diameter", "120", "m.mrc"}));
    std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
    Score s = score(picks, read_truth(dir.file("m_truth.txt")), 0.5 * kRadius);
    EXPECT_GE(s.found, (int)std::ceil(0.8 * s.truth)) << s.found << " of " << s.truth;
    EXPECT_LE(s.stray, std::max(2, s.picks / 10)) << s.stray << " of " << s.picks;
  }
}

TEST(E2e, UserTemplateStack) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("1024", "1024", "3")));
  std::vector<Centre> truth = read_truth(dir.file("m_truth.txt"));

  // White particles at twice the micrograph's pixel size, inverted by the run.
  write_particle_templates(dir.file("white.mrcs"), 2 * kApix);
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "--T", "white.mrcs", "--apixT", "2.68", "--ang_step", "30",
                                     "m.mrc"});
  expect_ok(r);
  EXPECT_EQ(count_of(r.out, "Template "), 2u);
  EXPECT_TRUE(contains(r.out, "\nTemplate 001\n"));
  EXPECT_TRUE(contains(r.out, "\nTemplate 002\n"));
  EXPECT_EQ(stage_names(r.out), one_micrograph_stages());
  const std::string white = read_text_file(dir.file("m_vexmatch.box"));
  std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
  Score s = score(picks, truth, 0.5 * kRadius);
  EXPECT_GE(s.found, (int)std::ceil(0.8 * s.truth)) << s.found << " of " << s.truth;
  EXPECT_LE(s.stray, std::max(2, s.picks / 10));
  for (const BoxPick& p : picks) {
    EXPECT_TRUE(p.t == 1 || p.t == 2) << p.t;
    EXPECT_GE(p.psi, 0.0);
    EXPECT_LT(p.psi, 360.0);
  }
  expect_pick_files_agree(dir.file("m_vexmatch.box"), dir.file("m_vexmatch.star"));

  // The same templates drawn at the micrograph's pixel size pick the same places.
  write_particle_templates(dir.file("fine.mrcs"), kApix);
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--T", "fine.mrcs", "--apixT", "1.34", "--ang_step", "30",
                                 "m.mrc"}));
  std::vector<BoxPick> fine = read_box(dir.file("m_vexmatch.box"));
  ASSERT_EQ(fine.size(), picks.size());
  for (size_t i = 0; i < picks.size(); i++) {
    EXPECT_EQ(fine[i].x, picks[i].x);
    EXPECT_EQ(fine[i].y, picks[i].y);
    EXPECT_NEAR(fine[i].cc, picks[i].cc, 0.02);
  }

  // Dark templates kept as they are give exactly the picks of white inverted ones ...
  write_particle_templates(dir.file("dark.mrcs"), 2 * kApix, -1.0f);
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--T", "dark.mrcs", "--apixT", "2.68", "--ang_step", "30",
                                 "--dont_invertT", "m.mrc"}));
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch.box")), white);
  // ... and white templates kept white find none of the dark particles.
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--T", "white.mrcs", "--apixT", "2.68", "--ang_step", "30",
                                 "--dont_invertT", "m.mrc"}));
  EXPECT_LE(score(read_box(dir.file("m_vexmatch.box")), truth, 0.5 * kRadius).found, s.truth / 5);
  EXPECT_EQ(part_files(dir.path()), std::vector<std::string>{});
}

TEST(E2e, TemplateNormalisationTypes) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("512", "512", "2")));
  write_particle_templates(dir.file("t.mrcs"), 2 * kApix);
  for (const char* type : {"1", "2", "3", "4"}) {
    SCOPED_TRACE(std::string("--T_norm_type ") + type);
    expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--T", "t.mrcs", "--apixT", "2.68", "--ang_step", "90",
                                   "--T_norm_type", type, "m.mrc"}));
    EXPECT_TRUE(file_exists(dir.file("m_vexmatch.box")));
    remove(dir.file("m_vexmatch.box").c_str());
  }
  // The synthetic template unnormalised.
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "--T_norm_type", "4", "m.mrc"});
  expect_ok(r);
  EXPECT_EQ(count_of(r.out, "Template "), 1u);
  EXPECT_TRUE(file_exists(dir.file("m_vexmatch.box")));
}

TEST(E2e, DoUnfinishedSkipsFinishedMicrographs) {
  TempDir dir;
  for (const char* name : {"a.mrc", "b.mrc", "c.mrc"})
    ASSERT_TRUE(make_mic(dir.path(), name, mic_args("512", "512", "4")));
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "a.mrc", "b.mrc"}));
  const std::string a_box = read_text_file(dir.file("a_vexmatch.box"));
  // b keeps only its ".star"; c was never picked.
  ASSERT_EQ(remove(dir.file("b_vexmatch.box").c_str()), 0);
  ASSERT_TRUE(write_text_file(dir.file("a_vexmatch.box"), a_box + "sentinel\n"));

  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "--do_unfinished", "a.mrc", "b.mrc", "c.mrc"});
  expect_ok(r);
  EXPECT_TRUE(contains(r.out, "Micrograph a.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_TRUE(contains(r.out, "Micrograph b.mrc has already been processed. Automatically skipped.\n"));
  EXPECT_FALSE(contains(r.out, "Micrograph c.mrc has already"));
  EXPECT_FALSE(contains(r.out, "File a.mrc finished."));
  EXPECT_FALSE(contains(r.out, "File b.mrc finished."));
  EXPECT_TRUE(contains(r.out, "File c.mrc finished.\n"));
  EXPECT_TRUE(contains(r.out, "All 3 files finished successfully:\n        a.mrc\n        b.mrc\n        c.mrc\n"));
  EXPECT_EQ(stage_names(r.out), one_micrograph_stages());
  EXPECT_EQ(read_text_file(dir.file("a_vexmatch.box")), a_box + "sentinel\n") << "a skipped file is not touched";
  EXPECT_FALSE(file_exists(dir.file("b_vexmatch.box")));
  EXPECT_TRUE(file_exists(dir.file("c_vexmatch.box")));

  // Everything finished: every name skipped, the summary still counts them.
  r = gvex_in(dir.path(), {"--diameter", "120", "--do_unfinished", "a.mrc", "b.mrc", "c.mrc"});
  expect_ok(r);
  EXPECT_EQ(count_of(r.out, "has already been processed. Automatically skipped.\n"), 3u);
  EXPECT_TRUE(contains(r.out, "All 3 files finished successfully:\n"));
  EXPECT_EQ(stage_names(r.out), (std::vector<std::string>{"PREPARATION", "TOTAL"}));

  // Without the option a finished micrograph is picked again.
  r = gvex_in(dir.path(), {"--diameter", "120", "a.mrc"});
  expect_ok(r);
  EXPECT_EQ(read_text_file(dir.file("a_vexmatch.box")), a_box);
}

TEST(E2e, WriteStarOffKeepsTheBoxFile) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("512", "512", "2")));
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "m.mrc"}));
  const std::string box = read_text_file(dir.file("m_vexmatch.box"));
  ASSERT_EQ(remove(dir.file("m_vexmatch.star").c_str()), 0);
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--write_star", "0", "m.mrc"}));
  EXPECT_FALSE(file_exists(dir.file("m_vexmatch.star")));
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch.box")), box);
}

// Minimum, maximum and mean of a float array, as the header should carry them.
void expect_header_stats(const Mrc& m, const std::string& what) {
  ASSERT_FALSE(m.data.empty()) << what;
  double lo = m.data[0], hi = m.data[0], sum = 0;
  for (float v : m.data) {
    lo = std::min(lo, (double)v);
    hi = std::max(hi, (double)v);
    sum += v;
  }
  EXPECT_FLOAT_EQ(m.amin, (float)lo) << what;
  EXPECT_FLOAT_EQ(m.amax, (float)hi) << what;
  EXPECT_NEAR(m.amean, sum / m.data.size(), 1e-4 * std::max(1.0, std::fabs(hi))) << what;
}

TEST(E2e, DiagnosticImagesAtTheWorkingSize) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("512", "512", "6")));
  write_particle_templates(dir.file("t.mrcs"), 2 * kApix);
  const std::vector<std::string> base = {"--diameter", "120", "--speed", "1", "--T", "t.mrcs", "--apixT", "2.68",
                                         "--ang_step", "45"};
  std::vector<std::string> args = base;
  args.insert(args.end(), {"--write_pref_mic", "--write_bg_mic", "--write_lsigma_mic", "--write_mic_mask",
                           "--write_bgfree_mic", "--write_ccmax_mic", "m.mrc"});
  expect_ok(gvex_in(dir.path(), args));
  const int ext = 256;  // 512 shrunk by 2 at --speed 1
  for (const char* suffix : {"_pref.mrc", "_bg.mrc", "_lsigma.mrc", "_mask.mrc", "_bgfree.mrc", "_ccmax.mrc"}) {
    SCOPED_TRACE(suffix);
    const int nz = std::string(suffix) == "_ccmax.mrc" ? 2 : 1;
    Mrc m = read_mrc(dir.file(std::string("m") + suffix));
    ASSERT_TRUE(m.ok);
    EXPECT_EQ(std::string(m.map, 3), "MAP");
    EXPECT_EQ(m.mode, 2);
    EXPECT_EQ(m.nx, ext);
    EXPECT_EQ(m.ny, ext);
    EXPECT_EQ(m.nz, nz);
    EXPECT_EQ(m.file_size, 1024L + 4L * ext * ext * nz);
    expect_header_stats(m, suffix);
    for (float v : m.data) ASSERT_TRUE(std::isfinite(v));
  }
  // The mask is 0 on rejected cells (the blob) and 1 elsewhere; the
  // background-free image has zero mean and unit deviation where it is 1.
  Mrc mask = read_mrc(dir.file("m_mask.mrc")), bgfree = read_mrc(dir.file("m_bgfree.mrc"));
  ASSERT_EQ(mask.data.size(), bgfree.data.size());
  double n1 = 0, sum = 0, sum2 = 0;
  for (size_t i = 0; i < mask.data.size(); i++) {
    ASSERT_TRUE(mask.data[i] == 0.0f || mask.data[i] == 1.0f) << mask.data[i];
    if (mask.data[i] == 1.0f) {
      n1++;
      sum += bgfree.data[i];
      sum2 += (double)bgfree.data[i] * bgfree.data[i];
    }
  }
  EXPECT_GT(n1, 0.5 * mask.data.size());
  EXPECT_LT(n1, mask.data.size());
  EXPECT_NEAR(sum / n1, 0.0, 1e-3);
  EXPECT_NEAR(std::sqrt(sum2 / n1 - (sum / n1) * (sum / n1)), 1.0, 1e-3);
  // Two slices of scores, one per template, not the same map twice.
  Mrc cc = read_mrc(dir.file("m_ccmax.mrc"));
  const size_t n2 = (size_t)ext * ext;
  EXPECT_FALSE(std::equal(cc.data.begin(), cc.data.begin() + n2, cc.data.begin() + n2));

  // Writing the images does not change the picks.
  const std::string box = read_text_file(dir.file("m_vexmatch.box"));
  args = base;
  args.push_back("m.mrc");
  expect_ok(gvex_in(dir.path(), args));
  EXPECT_EQ(read_text_file(dir.file("m_vexmatch.box")), box);
  EXPECT_EQ(part_files(dir.path()), std::vector<std::string>{});
}

TEST(E2e, ExtractRawCutsEveryPickOutOfTheMicrograph) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("1024", "768", "8")));
  expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--extract_raw", "m.mrc"}));
  std::vector<BoxPick> picks = read_box(dir.file("m_vexmatch.box"));
  ASSERT_GE(picks.size(), 5u);
  Mrc mic = read_mrc(dir.file("m.mrc")), stack = read_mrc(dir.file("m_particles.mrcs"));
  ASSERT_TRUE(stack.ok);
  EXPECT_EQ(stack.mode, 2);
  EXPECT_EQ(stack.nx, kBox);
  EXPECT_EQ(stack.ny, kBox);
  ASSERT_EQ(stack.nz, (int)picks.size());
  ASSERT_EQ(stack.data.size(), (size_t)kBox * kBox * picks.size());
  for (size_t i = 0; i < picks.size(); i++) {
    for (int y = 0; y < kBox; y++)
      for (int x = 0; x < kBox; x++) {
        const int mx = picks[i].x + x, my = picks[i].y + y;
        const float want = (mx >= 0 && my >= 0 && mx < mic.nx && my < mic.ny) ? mic.data[(size_t)my * mic.nx + mx] : 0.0f;
        ASSERT_EQ(stack.data[(i * kBox + y) * kBox + x], want) << "particle " << i << " pixel " << x << ", " << y;
      }
  }
  EXPECT_EQ(part_files(dir.path()), std::vector<std::string>{});
}

TEST(E2e, TwoRunsWriteIdenticalFiles) {
  const std::vector<std::string> outputs = {
      "m_vexmatch.box", "m_vexmatch.star", "m_nonunique.box", "m_rejected.box", "m_rejected.star", "m_pref.mrc",
      "m_bg.mrc",       "m_lsigma.mrc",    "m_mask.mrc",      "m_bgfree.mrc",   "m_ccmax.mrc",     "m_particles.mrcs"};
  std::string first[12];
  for (int run = 0; run < 2; run++) {
    TempDir dir;
    ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("1024", "1024", "9")));
    write_particle_templates(dir.file("t.mrcs"), 2 * kApix);
    expect_ok(gvex_in(dir.path(), {"--diameter", "120", "--T", "t.mrcs", "--apixT", "2.68", "--ang_step", "20",
                                   "--do_pre_filter", "--write_pref_mic", "--write_bg_mic", "--write_lsigma_mic",
                                   "--write_mic_mask", "--write_bgfree_mic", "--write_ccmax_mic", "--extract_raw",
                                   "m.mrc"}));
    for (size_t k = 0; k < outputs.size(); k++) {
      SCOPED_TRACE(outputs[k]);
      std::string bytes = read_text_file(dir.file(outputs[k]));
      ASSERT_FALSE(bytes.empty());
      if (run == 0)
        first[k] = bytes;
      else
        EXPECT_TRUE(bytes == first[k]) << "differs between two runs";
    }
  }
}

TEST(E2e, PreLowPassValueHasNoEffect) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "m.mrc", mic_args("1024", "1024", "11")));
  std::string box[2], star[2], pref[2];
  const std::vector<std::vector<std::string>> runs = {
      {"--diameter", "120", "--do_pre_filter", "--write_pref_mic", "m.mrc"},
      {"--diameter", "120", "--do_pre_filter", "--pre_lp", "20", "--write_pref_mic", "m.mrc"}};
  for (int k = 0; k < 2; k++) {
    expect_ok(gvex_in(dir.path(), runs[k]));
    box[k] = read_text_file(dir.file("m_vexmatch.box"));
    star[k] = read_text_file(dir.file("m_vexmatch.star"));
    pref[k] = read_text_file(dir.file("m_pref.mrc"));
  }
  ASSERT_FALSE(box[0].empty());
  EXPECT_EQ(box[0], box[1]);
  EXPECT_EQ(star[0], star[1]);
  EXPECT_TRUE(pref[0] == pref[1]);
  // The pre-filter itself does act on the image.
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "--write_pref_mic", "m.mrc"});
  expect_ok(r);
  EXPECT_FALSE(read_text_file(dir.file("m_pref.mrc")) == pref[0]);
}

// ---- batches that end early ----

void expect_exit_1(const RunResult& r) {
  ASSERT_TRUE(r.exited()) << "signal " << r.signal << (r.timed_out ? " (timed out)" : "") << "\n" << r.out;
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(E2e, MicrographOfAnotherSizeEndsTheRun) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "a.mrc", mic_args("512", "512", "1")));
  ASSERT_TRUE(make_mic(dir.path(), "b.mrc", mic_args("512", "384", "1")));
  ASSERT_TRUE(make_mic(dir.path(), "c.mrc", {"--nx", "512", "--ny", "512", "--diameter", "120", "--mode", "1"}));
  for (const char* other : {"b.mrc", "c.mrc"}) {
    SCOPED_TRACE(other);
    RunResult r = gvex_in(dir.path(), {"--diameter", "120", "a.mrc", other, "a.mrc"});
    expect_exit_1(r);
    const std::string row_b = std::string(other) == "b.mrc" ? "      512     384     1       Float               b.mrc\n"
                                                            : "      512     512     1       Short               c.mrc\n";
    const std::string table = std::string("Micrograph \033[1m") + other +
                              "\033[m has a different size or format from  \033[1ma.mrc\033[m.\n"
                              "Check if all the micrographs are the same sizes and format? \n "
                              "      Nx      Ny      Nz      Mode             File:\n" +
                              row_b + "      512     512     1       Float               a.mrc\n";
    ASSERT_GE(r.out.size(), table.size());
    EXPECT_EQ(r.out.substr(r.out.size() - table.size()), table);
    EXPECT_EQ(count_of(r.out, "finished."), 1u) << "the first a.mrc only";
    EXPECT_TRUE(file_exists(dir.file("a_vexmatch.box")));
    EXPECT_TRUE(file_exists(dir.file(stem(other) + "_nonunique.box")));
    EXPECT_FALSE(file_exists(dir.file(stem(other) + "_vexmatch.box")));
  }
}

TEST(E2e, MissingMicrographAfterTheReference) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "a.mrc", mic_args("512", "512", "1")));
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "a.mrc", "gone.mrc"});
  expect_exit_1(r);
  // The search for the reference stops at a.mrc, so only the loop meets gone.mrc.
  EXPECT_FALSE(contains(r.out, "exsit"));
  EXPECT_TRUE(contains(r.out, "File a.mrc finished.\n"));
  EXPECT_EQ(last_line(r.out), "Error in function main(), file gvexmatch56 on line 187: open file failed.! Exit now!");
  EXPECT_TRUE(contains(r.out, "\nCannot open file gone.mrc. Permission denied or wrong file name.\nError in function main()"));
  EXPECT_TRUE(file_exists(dir.file("gone_nonunique.box")));
  EXPECT_TRUE(file_exists(dir.file("a_vexmatch.box")));
  EXPECT_EQ(part_files(dir.path()), std::vector<std::string>{});
}

TEST(E2e, FirstNameMissingTheSecondIsTheReference) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "a.mrc", mic_args("512", "512", "1")));
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "gone.mrc", "a.mrc"});
  expect_exit_1(r);
  const size_t warn = r.out.find(
      "\033[41m\033[1m\033[5mWarning in function check_access_openf_1st(), file gvexmatch56 on line ");
  EXPECT_TRUE(contains(r.out, ": the micrograph gone.mrc does NOT exsit! Automatically ignored!\033[m\n\n"));
  const size_t opening = r.out.find("Opening a.mrc for initial test and preperation .......\n");
  ASSERT_NE(warn, std::string::npos);
  ASSERT_NE(opening, std::string::npos);
  EXPECT_LT(warn, opening);
  EXPECT_EQ(stage_names(r.out), std::vector<std::string>{"PREPARATION"});
  EXPECT_EQ(last_line(r.out), "Error in function main(), file gvexmatch56 on line 187: open file failed.! Exit now!");
  EXPECT_TRUE(file_exists(dir.file("gone_nonunique.box")));
  EXPECT_FALSE(file_exists(dir.file("a_nonunique.box")));
}

TEST(E2e, NoReadableMicrograph) {
  TempDir dir;
  RunResult r = gvex_in(dir.path(), {"--diameter", "120", "gone.mrc", "also_gone.mrc"});
  expect_exit_1(r);
  EXPECT_EQ(count_of(r.out, "does NOT exsit! Automatically ignored!"), 2u);
  EXPECT_TRUE(contains(r.out, "Usage:"));
  EXPECT_EQ(last_line(r.out),
            "Error in function gvexmatch_help_exit(), file vexmatch56 on line 1322: No valid files to be processed.! Exit "
            "now!");
  EXPECT_EQ(list_dir(dir.path()), std::vector<std::string>{}) << "nothing written";
}

}  // namespace
