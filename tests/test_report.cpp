// gvexreport's pieces: pick files that record their cut-off, each
// micrograph's choice of cut-off and its reasons, the run's cut-off, the
// crop the page shows and the words of the command it prints.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "io/picks.h"
#include "report/edges.h"
#include "report/micrograph.h"
#include "report/page.h"
#include "support/e2e.h"
#include "support/run.h"

namespace {

Pick pick_xy(double x, double y, double score = 0.5) {
  Pick p;
  p.x = x, p.y = y, p.w = p.h = 64, p.score = (float)score;
  return p;
}

std::vector<Pick> picks_at(const std::vector<double>& scores) {
  std::vector<Pick> v;
  for (size_t i = 0; i < scores.size(); i++)
    v.push_back(pick_xy(100 + 50 * (double)(i % 20), 100 + 50 * (double)(i / 20), scores[i]));
  return v;
}

std::vector<double> spread(int n, double lo, double hi) {
  std::vector<double> v;
  for (int i = 0; i < n; i++) v.push_back(lo + (hi - lo) * i / std::max(1, n - 1));
  return v;
}

bool write_picks(const std::string& path, const std::vector<Pick>& picks, bool star, double cut) {
  FILE* fp = fopen(path.c_str(), "w");
  const bool ok = fp && picks_write(fp, picks, star, cut);
  return fp && fclose(fp) == 0 && ok;
}

Micrograph micrograph(const std::vector<double>& scores) {
  Micrograph m;
  m.name = "m.mrc";
  m.nx = m.ny = 2048;
  m.picks_found = true;
  m.picks = picks_at(scores);
  m.usable_pixels = (double)m.nx * m.ny;
  return m;
}

void give_decoys(Micrograph& m, std::vector<Pick> decoys) {
  m.decoys_found = true;
  m.decoys = std::move(decoys);
}

// 200 noise maxima scoring from noise_lo to noise_hi, decoys like them, and
// particles scoring from lo to hi.
Micrograph with_particles(double noise_lo, double noise_hi, int particles, double lo, double hi) {
  Micrograph m = micrograph(spread(200, noise_lo, noise_hi));
  for (const Pick& p : picks_at(spread(particles, lo, hi))) m.picks.push_back(p);
  give_decoys(m, picks_at(spread(200, noise_lo, noise_hi)));
  return m;
}

// Sparse: 30 particles above 200 noise maxima.
Micrograph sparse_micrograph() { return with_particles(0.0, 0.2, 30, 0.4, 0.6); }

}  // namespace

// The cut-off travels with the STAR file (RELION skips '#' lines there) and
// never into the ".box" file (RELION's reader of those takes every line).
TEST(PickFiles, StarFilesRecordTheirCutOffAndBoxFilesFindIt) {
  TempDir dir;
  const std::vector<Pick> picks = picks_at({0.2, 0.3, 0.4});
  ASSERT_TRUE(write_picks(dir.file("a.star"), picks, true, 0.1875));
  ASSERT_TRUE(write_picks(dir.file("a.box"), picks, false, 0.1875));
  EXPECT_EQ(read_text_file(dir.file("a.box")).find('#'), std::string::npos);
  std::vector<Pick> back;
  const PicksRead r = picks_read(dir.file("a.star"), 64, back);
  EXPECT_EQ(r.cut, 0.1875);
  EXPECT_EQ(r.refused, 0);
  EXPECT_EQ(back.size(), 3u);
  // A ".box" file's cut is read from its STAR twin; a file without one records none.
  Micrograph m;
  read_picks(m, dir.file("a.box"), 64);
  EXPECT_TRUE(m.cut_recorded);
  EXPECT_EQ(m.cut_before, 0.1875);
  // Cut again lower, the picks are still cut where they were.
  m.name = dir.file("a.mrc");
  m.cutoff = 0.1;
  ASSERT_EQ(write_kept(m, dir.file("a_vexmatch_auto.box"), dir.file("a_vexmatch_auto.star")), "");
  EXPECT_EQ(picks_read(dir.file("a_vexmatch_auto.star"), 64, back).cut, 0.1875);
  ASSERT_TRUE(write_picks(dir.file("b.star"), picks, true, NAN));
  Micrograph u;
  read_picks(u, dir.file("b.star"), 64);
  EXPECT_FALSE(u.cut_recorded);
  EXPECT_TRUE(std::isnan(u.cut_before));  // three picks show no cut
}

// A cut-off printed as text and read back keeps the same picks: a score
// given as the cut-off keeps its own pick, and the text is short when it can be.
TEST(PickFiles, CutOffTextKeepsWhatTheCutOffKeeps) {
  EXPECT_EQ(cut_text(0.15), "0.1500");
  for (const char* text : {"0.213417", "0.100001", "1.999999", "0.000123"}) {
    Pick p;
    p.score = (float)strtod(text, nullptr);
    EXPECT_EQ(cut_text(p.score), text);
    EXPECT_TRUE(pick_kept(p, strtod(cut_text(p.score).c_str(), nullptr))) << text;
    EXPECT_FALSE(pick_kept(p, std::nextafter(p.score, INFINITY))) << text;
  }
}

// A STAR file's columns are found by their labels, whatever their order or
// company; a line that is not a pick of its file is counted as damaged with
// the reason, never read as one (an angle taken for a score would pass any cut).
TEST(PickFiles, ColumnsAreReadByTheirLabelsAndOddLinesAreDamaged) {
  std::vector<Pick> p;
  PicksRead r = picks_parse("data_\nloop_\n_rlnMicrographName\n_rlnAnglePsi #2\n_rlnAutopickFigureOfMerit #3\n"
                            "_rlnCoordinateY #4\n_rlnCoordinateX #5\nm.mrc 270 0.25 40 30\n",
                            true, 64, p);
  ASSERT_EQ(p.size(), 1u);
  EXPECT_EQ(r.refused, 0);
  EXPECT_EQ(p[0].x, 30);
  EXPECT_EQ(p[0].y, 40);
  EXPECT_EQ(p[0].score, 0.25f);
  EXPECT_EQ(p[0].psi, 270.0f);
  EXPECT_EQ(p[0].cls, 1);  // no class column
  const std::pair<std::string, const char*> damaged[] = {
      {"data_\nloop_\n_rlnCoordinateX\n_rlnCoordinateY\n1 2\n", "no coordinate or score column in its loop"},
      {"1 2 3 4 5 6 7 8 9\n", "not as many fields as its loop has labels"},
      {"<html><body>not picks</body></html>\n", "not as many fields as its loop has labels"},
      {"data_\nloop_\n_rlnCoordinateX\n_rlnCoordinateY\n_rlnAutopickFigureOfMerit\n1 2 x\n",
       "a coordinate, score, angle or class is not a number"},
  };
  for (const auto& [text, why] : damaged) {
    p.clear();
    r = picks_parse(text, true, 64, p);
    EXPECT_TRUE(p.empty()) << text;
    EXPECT_EQ(r.refused, 1) << text;
    EXPECT_STREQ(r.why, why) << text;
  }
  p.clear();
  r = picks_parse("10 10 64 64 0.5 1 0\n10 10 64 64 0.5 1 0 99\n\n", false, 64, p);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_EQ(r.first_refused, 2);
  EXPECT_STREQ(r.why, "not the seven fields of a picks line");
}

TEST(DecideCutoff, WithDecoysTheNullModelAndItsReasons) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph m = sparse_micrograph();
  decide_cutoff(m, s, 0.0);
  EXPECT_EQ(m.choice.rule, "sparse");
  EXPECT_EQ(count_kept(m.picks, m.cutoff), 30);
  EXPECT_EQ(m.choice.decoys_above, 0);
  EXPECT_NEAR(m.choice.particles, 30, 1);
  // Between sparse and crowded the reason says how far the cut has moved
  // toward the half-decoy cut (the 30 particles on less area).
  for (double crowding : {0.08, 0.12}) {
    Micrograph b = sparse_micrograph();
    b.usable_pixels = 30 / crowding * 3.14159265358979 * 20 * 20;
    decide_cutoff(b, s, 0.0);
    EXPECT_EQ(b.choice.rule, crowding < 0.1 ? "sparse" : "crowded");
    const std::string moved = crowding < 0.1 ? "30% of the way" : "70% of the way";
    EXPECT_NE(b.choice.why.find(moved), std::string::npos) << b.choice.why;
    EXPECT_LT(b.cutoff, m.cutoff);
  }
  // With a run's sparse cut of more evidence the cut lies nearer the run's,
  // and the reason gives both.
  Micrograph r = sparse_micrograph();
  const double own_sd = sparse_cut(scores_of(r.picks), scores_of(r.decoys)).sd;
  decide_cutoff(r, s, 0.0, NAN, SparseCut{m.cutoff - 0.05, 3 * own_sd});
  EXPECT_NEAR(r.cutoff, m.cutoff - 0.045, 1e-6);
  EXPECT_NE(r.choice.why.find("the cut-off is the mean of the cut that maximises"), std::string::npos) << r.choice.why;
  EXPECT_NE(r.choice.why.find("weighted by the square of its excess"), std::string::npos) << r.choice.why;
  r.usable_pixels = 30 / 0.08 * 3.14159265358979 * 20 * 20;  // near crowded: the mean is named, then told
  decide_cutoff(r, s, 0.0, NAN, SparseCut{m.cutoff - 0.05, 3 * own_sd});
  EXPECT_NE(r.choice.why.find("of the way from the sparse cut ("), std::string::npos) << r.choice.why;
  EXPECT_NE(r.choice.why.find("above it; the sparse cut is the mean of"), std::string::npos) << r.choice.why;
  // Decoys as high as the picks: nothing beats them, and the cut-off above
  // the highest score keeps none even compared as floats.
  Micrograph n = micrograph(spread(200, 0.0, 0.3));
  give_decoys(n, n.picks);
  decide_cutoff(n, s, 0.0);
  EXPECT_EQ(n.choice.rule, "no-excess");
  EXPECT_EQ(count_kept(n.picks, n.cutoff), 0);
  // A fixed cut-off wins over every rule.
  decide_cutoff(n, s, 0.0, 0.15);
  EXPECT_EQ(n.choice.rule, "fixed");
  EXPECT_EQ(n.cutoff, 0.15);
}

// A micrograph of noise with a step (carbon's edge) down the column
// x = 512: scale and offset say nothing about edges, the step does.
std::vector<float> step_image(int n, float gain, float offset, float step) {
  std::vector<float> v((size_t)n * n);
  unsigned s = 12345;
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) {
      s = s * 1103515245u + 12345u;
      const float noise = (float)((s >> 8) & 0xffff) / 65536.0f - 0.5f;
      v[(size_t)y * n + x] = offset + gain * (noise + (x >= 512 ? step : 0.0f));
    }
  return v;
}

TEST(EdgePicks, PicksBesideAStepAreOnAnEdgeWhateverTheScale) {
  // Particles of radius 16 px: the annulus reaches 24-48 px out. Picks
  // within that of the step see it; the rest see noise.
  std::vector<Pick> picks, decoys;
  for (int y = 64; y < 1000; y += 96) {
    picks.push_back(pick_xy(200, y));  // far left
    picks.push_back(pick_xy(512 - 32, y));  // the step inside the annulus
    picks.push_back(pick_xy(850, y));  // far right
    decoys.push_back(pick_xy(350, y + 48));
    if (y < 500) decoys.push_back(pick_xy(512 + 32, y));  // and some decoys on the step
  }
  for (float gain : {1.0f, 1000.0f}) {
    std::vector<char> d;
    const std::vector<char> e =
        edge_picks(step_image(1024, gain, 7 * gain, 3.0f), 1024, 1024, 16, picks, decoys, &d);
    ASSERT_EQ(e.size(), picks.size());
    for (size_t i = 0; i < picks.size(); i++)
      EXPECT_EQ((bool)e[i], i % 3 == 1) << "gain " << gain << ", pick at " << picks[i].x << ", " << picks[i].y;
    ASSERT_EQ(d.size(), decoys.size());
    for (size_t i = 0; i < decoys.size(); i++) EXPECT_EQ((bool)d[i], decoys[i].x > 512) << "decoy " << i;
  }
  // Without a step nothing stands out; a flat image has no slope at all,
  // and a radius under a pixel or past the micrograph, or no picks, flag nothing.
  for (char f : edge_picks(step_image(1024, 1, 0, 0), 1024, 1024, 16, picks, decoys)) EXPECT_FALSE(f);
  for (char f : edge_picks(std::vector<float>(1024 * 1024, 2.0f), 1024, 1024, 16, picks, decoys)) EXPECT_FALSE(f);
  for (double radius : {0.5, 1e15})
    for (char f : edge_picks(step_image(1024, 1, 0, 3), 1024, 1024, radius, picks, decoys)) EXPECT_FALSE(f);
  EXPECT_TRUE(edge_picks(step_image(64, 1, 0, 3), 64, 64, 16, {}, decoys).empty());
  // Picks at and past the micrograph's corners are measured on what lies inside.
  const std::vector<Pick> corners = {pick_xy(0, 0), pick_xy(1023, 1023), pick_xy(-50, 2000)};
  EXPECT_EQ(edge_picks(step_image(1024, 1, 0, 3), 1024, 1024, 16, corners, decoys).size(), 3u);
}

TEST(DecideCutoff, SparseMicrographsLeaveEdgePicksOutCrowdedAndFixedOnesKeepThem) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph m = sparse_micrograph();
  m.on_edge.assign(m.picks.size(), 0);
  m.on_edge[205] = m.on_edge[206] = 1;  // two of the particles' scores
  m.on_edge[3] = 1;                     // and a noise maximum, below the cut anyway
  // The same edges answer the inverted templates: two decoys score with the particles.
  m.decoy_on_edge.assign(m.decoys.size(), 0);
  for (double score : {0.5, 0.55}) {
    m.decoys.push_back(picks_at({score})[0]);
    m.decoy_on_edge.push_back(1);
  }
  decide_cutoff(m, s, 0.0);
  EXPECT_EQ(m.choice.rule, "sparse");
  EXPECT_EQ(count_kept(m.picks, m.cutoff), 30);
  EXPECT_EQ(count_kept(m), 28);
  EXPECT_FALSE(kept_in(m, 205));
  EXPECT_TRUE(kept_in(m, 207));
  EXPECT_EQ(m.choice.edge_dropped, 2);
  EXPECT_NE(m.choice.why.find("2 picks above it lie on strong edges"), std::string::npos) << m.choice.why;
  // The decoys stand for the false picks among those kept: the ones on the
  // edges left out are not counted.
  EXPECT_EQ(m.choice.decoys_above, 0);
  // A fixed cut-off keeps what scores as high, edges or not, and counts every decoy.
  decide_cutoff(m, s, 0.0, 0.4);
  EXPECT_EQ(count_kept(m), 30);
  EXPECT_EQ(m.choice.edge_dropped, 0);
  EXPECT_EQ(m.choice.decoys_above, 2);
  // Crowded: particles fill the micrograph and the picks beside edges are
  // mostly particles too.
  Micrograph c = micrograph(spread(400, 0.3, 0.6));
  c.nx = c.ny = 400;
  c.usable_pixels = 400.0 * 400;
  give_decoys(c, picks_at(spread(50, 0.0, 0.2)));
  c.on_edge.assign(c.picks.size(), 1);
  decide_cutoff(c, s, 0.0);
  EXPECT_EQ(c.choice.rule, "crowded");
  EXPECT_EQ(count_kept(c), count_kept(c.picks, c.cutoff));
  // Large particles on a wide micrograph: little of its area, but most of
  // its few grid maxima, and the reason says so.
  c.nx = c.ny = 4000;
  c.usable_pixels = 4000.0 * 4000;
  c.picks = picks_at(spread(40, 0.3, 0.6));
  for (const Pick& p : picks_at(spread(10, 0.0, 0.2))) c.picks.push_back(p);
  c.decoys = picks_at(spread(12, 0.0, 0.2));
  c.on_edge.assign(c.picks.size(), 1);
  decide_cutoff(c, s, 0.0);
  EXPECT_EQ(c.choice.rule, "crowded");
  EXPECT_GE(count_kept(c), 40);
  EXPECT_NE(c.choice.why.find("% of its grid maxima are particles"), std::string::npos) << c.choice.why;
  // On a smaller usable area, at 12 % of it, the grid maxima still decide
  // and the reason still names them.
  const double cut = c.cutoff;
  c.usable_pixels *= c.choice.crowding / 0.12;
  decide_cutoff(c, s, 0.0);
  EXPECT_EQ(c.cutoff, cut);
  EXPECT_NE(c.choice.why.find("% of its grid maxima are particles, though they cover only about 12% "),
            std::string::npos)
      << c.choice.why;
  // Flags that do not match the picks (a file read after them) are ignored.
  m.on_edge.pop_back();
  decide_cutoff(m, s, 0.0);
  EXPECT_EQ(count_kept(m), 30);
}

// Without decoys: picks already cut are kept as cut (their noise tail,
// half gone, would read as a group of its own), and the reasons say which.
TEST(DecideCutoff, WithoutDecoysPicksAlreadyCutAreKeptWhole) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph rec = micrograph(spread(300, 0.15, 0.6));
  rec.cut_before = 0.15, rec.cut_recorded = true;
  decide_cutoff(rec, s, 0.4);
  EXPECT_EQ(rec.choice.rule, "already-cut");
  EXPECT_EQ(count_kept(rec.picks, rec.cutoff), 300);
  Micrograph shown = micrograph(spread(300, 0.15, 0.6));
  shown.cut_before = 0.15;
  decide_cutoff(shown, s, 0.4);
  EXPECT_EQ(shown.choice.rule, "kept-whole");
  EXPECT_EQ(count_kept(shown.picks, shown.cutoff), 300);
  // Uncut: two groups are split between them.
  std::vector<double> two = spread(200, 0.0, 0.1);
  for (double v : spread(40, 0.5, 0.6)) two.push_back(v);
  Micrograph split = micrograph(two);
  decide_cutoff(split, s, 0.3);
  EXPECT_EQ(split.choice.rule, "split");
  EXPECT_EQ(count_kept(split.picks, split.cutoff), 40);
  EXPECT_EQ(split.choice.decoys_above, -1);
  // A fixed cut-off below an earlier cut says that nothing below it is left.
  decide_cutoff(rec, s, 0.4, 0.1);
  EXPECT_NE(rec.choice.why.find("already cut at 0.1500"), std::string::npos) << rec.choice.why;
}

TEST(RunCutoff, NeverBelowACutThePicksHad) {
  const Settings s = report_settings(1.0, 40.0, true);
  std::vector<Micrograph> mics = {micrograph(spread(200, 0.0, 0.5)), micrograph(spread(100, 0.3, 0.5))};
  mics[1].cut_before = 0.3;
  EXPECT_GE(run_cutoff(mics, s), 0.3);
  // Picks all cut before: the run's cut is theirs, not a split of what is left.
  std::vector<double> tail = spread(300, 0.15, 0.25);
  for (double v : spread(60, 0.4, 0.5)) tail.push_back(v);
  std::vector<Micrograph> both = {micrograph(tail), micrograph(tail)};
  both[0].cut_before = both[1].cut_before = 0.15;
  EXPECT_EQ(run_cutoff(both, s), 0.15);
  // With decoys on every micrograph the null model speaks for the run: the
  // noise's scores as decoys leave the particles above them.
  std::vector<Micrograph> with = {micrograph(spread(200, 0.0, 0.2))};
  for (const Pick& p : picks_at(spread(30, 0.4, 0.6))) with[0].picks.push_back(p);
  give_decoys(with[0], picks_at(spread(200, 0.0, 0.2)));
  const double cut = run_cutoff(with, s);
  EXPECT_GT(cut, 0.2);
  EXPECT_LE(cut, (double)0.4f);  // the lowest particle's score, a float
}

// The run's sparse cut pools the sparse micrographs' picks and decoys off
// strong edges: six particles each prove nothing alone, four micrographs do.
// A crowded micrograph's many low picks, and contamination rims that score
// high in both runs, stay out of the pool.
TEST(RunSparseCut, SparseMicrographsPoolOffTheirEdges) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph weak = micrograph(spread(40, 0.0, 0.2));
  for (const Pick& p : picks_at(spread(6, 0.25, 0.3))) weak.picks.push_back(p);
  give_decoys(weak, picks_at(spread(40, 0.001, 0.201)));
  weak.on_edge.assign(weak.picks.size(), 0);
  weak.decoy_on_edge.assign(weak.decoys.size(), 0);
  for (const Pick& p : picks_at(spread(6, 0.8, 0.9))) {
    weak.picks.push_back(p), weak.decoys.push_back(p);
    weak.on_edge.push_back(1), weak.decoy_on_edge.push_back(1);
  }
  Micrograph crowded = micrograph(spread(400, 0.05, 0.2));
  crowded.nx = crowded.ny = 400;
  crowded.usable_pixels = 400.0 * 400;
  give_decoys(crowded, picks_at(spread(20, 0.0, 0.1)));
  std::vector<Micrograph> mics(4, weak);
  mics.push_back(crowded);
  const SparseCut run = run_sparse_cut(mics, s);
  EXPECT_FLOAT_EQ(run.value, 0.25);
  decide_cutoff(mics[0], s, 0.0, NAN, run);
  EXPECT_EQ(mics[0].choice.rule, "sparse");
  EXPECT_EQ(count_kept(mics[0]), 6);  // the particles; the rims stay out as edge picks
  EXPECT_NE(mics[0].choice.why.find("the cut-off is the run's sparse cut (0.2500: its own picks do not outnumber"),
            std::string::npos)
      << mics[0].choice.why;
  // Alone it keeps nothing, and says why.
  decide_cutoff(mics[0], s, 0.0);
  EXPECT_EQ(mics[0].choice.rule, "no-excess");
  EXPECT_EQ(count_kept(mics[0]), 0);
  // Decoys above the picks at every score (no particle found alone), yet
  // two picks at the run's cut, one on an edge: kept as sparse, the edge
  // pick left out.
  Micrograph few = micrograph(spread(40, 0.0, 0.2));
  for (const Pick& p : picks_at({0.25, 0.26})) few.picks.push_back(p);
  give_decoys(few, picks_at(spread(40, 0.001, 0.201)));
  for (const Pick& p : picks_at({0.27, 0.28, 0.29})) few.decoys.push_back(p);
  few.on_edge.assign(few.picks.size(), 0);
  few.on_edge.back() = 1;
  decide_cutoff(few, s, 0.0, NAN, run);
  EXPECT_EQ(few.choice.particles, 0);
  EXPECT_EQ(few.choice.rule, "sparse") << few.choice.why;
  EXPECT_EQ(count_kept(few), 1);
  // Without flags (none measured) the rims count, as high in both runs as
  // the particles are not: no evidence left.
  for (Micrograph& m : mics) m.on_edge.clear(), m.decoy_on_edge.clear();
  EXPECT_TRUE(std::isnan(run_sparse_cut(mics, s).value));
}

// Each micrograph's cut is weighed with the whole run's, the run weighing
// as one micrograph of its average evidence: like micrographs keep their
// cuts, one with less evidence moves toward the run's, one without any takes
// it, and a run of noise or of one micrograph moves nothing.
TEST(RunCut, EachCutIsWeighedWithTheWholeRuns) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph alone = sparse_micrograph();
  decide_cutoff(alone, s, 0.0);
  const double alone_sd = null_model_cutoff(scores_of(alone.picks), scores_of(alone.decoys), 1e9).evidence;
  std::vector<Micrograph> like(4, sparse_micrograph());
  const RunCut run = run_cut(like, s);
  EXPECT_EQ(run.micrographs, 4);
  EXPECT_NEAR(run.weight, alone_sd * alone_sd, 1e-9 * alone_sd * alone_sd);
  decide_cutoff(like[0], s, 0.0, NAN, SparseCut(), run);
  EXPECT_EQ(like[0].cutoff, alone.cutoff);
  EXPECT_NE(like[0].choice.why.find("is weighed with the run's (0.4000: the same rule over the picks and decoys of "
                                    "its 4 micrographs together)"),
            std::string::npos)
      << like[0].choice.why;

  // Twelve particles above the noise, fewer than the others' thirty, in a
  // run whose noise reaches higher.
  Micrograph weak = with_particles(0.0, 0.2, 12, 0.25, 0.6);
  Micrograph weak_alone = weak;
  decide_cutoff(weak_alone, s, 0.0);
  std::vector<Micrograph> others(4, with_particles(0.0, 0.35, 30, 0.4, 0.6));
  others.push_back(weak);
  const RunCut with_weak = run_cut(others, s);
  decide_cutoff(weak, s, 0.0, NAN, SparseCut(), with_weak);
  EXPECT_EQ(weak.choice.rule, "sparse");
  EXPECT_GT(weak.cutoff, weak_alone.cutoff);
  EXPECT_LT(weak.cutoff, (float)with_weak.d.value);
  EXPECT_LT(with_weak.d.value - weak.cutoff, weak.cutoff - weak_alone.cutoff);  // nearer the run's

  // A run's cut below a micrograph's own is weighed in only where its picks
  // between the two outnumber its decoys: else the move adds noise alone.
  RunCut low = run;
  low.d.value = 0.1;
  Micrograph clean = sparse_micrograph();  // between 0.1 and its cut, as many noise picks as decoys
  decide_cutoff(clean, s, 0.0, NAN, SparseCut(), low);
  EXPECT_EQ(clean.cutoff, alone.cutoff);
  EXPECT_NE(clean.choice.why.find("; the run's lower cut (0.1000: the same rule over the picks and decoys of its 4 "
                                  "micrographs together) is not weighed in: between the two its picks do not "
                                  "outnumber its decoys (100 against 100)"),
            std::string::npos)
      << clean.choice.why;
  Micrograph faint_too = sparse_micrograph();  // ten particles more, among the noise
  for (const Pick& p : picks_at(spread(10, 0.15, 0.2))) faint_too.picks.push_back(p);
  decide_cutoff(faint_too, s, 0.0, NAN, SparseCut(), low);
  EXPECT_NE(faint_too.choice.why.find("is weighed with the run's (0.1000"), std::string::npos) << faint_too.choice.why;
  EXPECT_LT(faint_too.cutoff, alone.cutoff);
  // Between crowded particles decoys answer in the gaps: no count of them
  // holds a crowded micrograph back.
  Micrograph crowded = micrograph(spread(400, 0.3, 0.6));
  give_decoys(crowded, picks_at(spread(50, 0.0, 0.2)));
  decide_cutoff(crowded, s, 0.0, NAN, SparseCut(), low);
  EXPECT_EQ(crowded.choice.rule, "crowded");
  EXPECT_NE(crowded.choice.why.find("is weighed with the run's (0.1000"), std::string::npos) << crowded.choice.why;

  // Three particles prove nothing alone: the run's cut, edge picks left out.
  Micrograph few = micrograph(spread(200, 0.0, 0.2));
  for (const Pick& p : picks_at({0.45, 0.5, 0.55})) few.picks.push_back(p);
  give_decoys(few, picks_at(spread(200, 0.0, 0.2)));
  few.on_edge.assign(few.picks.size(), 0);
  few.on_edge.back() = 1;
  decide_cutoff(few, s, 0.0);
  EXPECT_EQ(few.choice.rule, "no-excess");
  decide_cutoff(few, s, 0.0, NAN, SparseCut(), run);
  EXPECT_EQ(few.choice.rule, "sparse");
  EXPECT_EQ(count_kept(few), 2);
  EXPECT_NE(few.choice.why.find("never outnumber the decoys beyond chance, so the cut-off is the run's (0.4000"),
            std::string::npos)
      << few.choice.why;

  // A run of one micrograph, or of noise, leaves the cut as it was.
  const RunCut one = run_cut({sparse_micrograph()}, s);
  Micrograph single = sparse_micrograph();
  decide_cutoff(single, s, 0.0, NAN, SparseCut(), one);
  EXPECT_EQ(single.cutoff, alone.cutoff);
  EXPECT_EQ(single.choice.why, alone.choice.why);
  Micrograph noise = micrograph(spread(200, 0.0, 0.2));
  give_decoys(noise, noise.picks);
  const RunCut of_noise = run_cut(std::vector<Micrograph>(3, noise), s);
  EXPECT_TRUE(of_noise.d.none);
  decide_cutoff(few, s, 0.0, NAN, SparseCut(), of_noise);
  EXPECT_EQ(few.choice.rule, "no-excess");
  EXPECT_EQ(count_kept(few), 0);

  // Equal cuts weigh to the same cut, to the bit: one float step above it
  // would lose the pick it stands on.
  const double on_pick = (float)0.754645;
  EXPECT_EQ(weighted_cut(2.0, on_pick, 4.4, on_pick), on_pick);
}

// A run's cut is a score, and scores compare only between micrographs whose
// noise scores alike: one whose decoys score on another scale than the
// rest's keeps its own cut, and says why.
TEST(RunCut, AMicrographUnlikeTheRestKeepsItsOwnCut) {
  const Settings s = report_settings(1.0, 40.0, true);
  // Three strong micrographs: noise 0.1-0.6, particles from 0.8.
  const Micrograph strong = with_particles(0.1, 0.6, 60, 0.8, 1.2);
  // One whose noise reaches 0.06 and its particles 0.1-0.2, all below the others' cut.
  const Micrograph faint = with_particles(0.0, 0.06, 20, 0.1, 0.2);
  Micrograph alone = faint;
  decide_cutoff(alone, s, 0.0);
  ASSERT_EQ(count_kept(alone), 20);
  std::vector<Micrograph> run{strong, strong, strong, faint};
  const RunCut whole = run_cut(run, s);
  ASSERT_GT(whole.d.value, 0.2);
  decide_cutoff(run[3], s, 0.0, NAN, SparseCut(), whole);
  EXPECT_EQ(run[3].cutoff, alone.cutoff);
  EXPECT_EQ(count_kept(run[3]), 20);
  EXPECT_NE(run[3].choice.why.find("is not weighed in: its decoys score unlike the other micrographs' "
                                   "(Kolmogorov-Smirnov distance 1.00)"),
            std::string::npos)
      << run[3].choice.why;
  // The strong ones are like each other: weighed as before.
  decide_cutoff(run[0], s, 0.0, NAN, SparseCut(), whole);
  EXPECT_NE(run[0].choice.why.find("is weighed with the run's"), std::string::npos) << run[0].choice.why;
  // Noise that reaches two thirds as high overlaps enough.
  const std::vector<double> others = scores_of(strong.decoys), lower = spread(200, 0.1, 0.43);
  std::vector<double> pool = others;
  pool.insert(pool.end(), lower.begin(), lower.end());
  std::sort(pool.begin(), pool.end());
  EXPECT_NEAR(unlike_the_rest(lower, pool), 0.34, 0.01);
  EXPECT_LT(unlike_the_rest(lower, pool), kUnlike);
  std::vector<double> with_faint = others;  // its decoys all lie above the faint one's
  for (const Pick& p : faint.decoys) with_faint.push_back(p.score);
  std::sort(with_faint.begin(), with_faint.end());
  EXPECT_EQ(unlike_the_rest(others, with_faint), 1.0);
}

// The crop lies inside the micrograph, where the best picks crowd.
TEST(Page, CropFollowsTheBestPicksAndStaysInside) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph m = micrograph({});
  for (int i = 0; i < 12; i++) m.picks.push_back(pick_xy(1900 + 10 * i, 30 + 5 * i, 0.9));
  for (int i = 0; i < 30; i++) m.picks.push_back(pick_xy(100 + 60 * i, 1000, 0.1));
  const Crop c = crop_region(m, s);
  EXPECT_EQ(c.side, 320);  // eight particles across
  EXPECT_GE(c.x0, 0);
  EXPECT_GE(c.y0, 0);
  EXPECT_LE(c.x0 + c.side, m.nx);
  EXPECT_LE(c.y0 + c.side, m.ny);
  EXPECT_GT(c.x0 + c.side, 1900);
  EXPECT_LT(c.y0, 30);
  EXPECT_EQ(crop_name("1_m.png"), "1_m_crop.png");
}

// The decoys the page counts stand for the picks it keeps: at the automatic
// cut-off of a sparse micrograph those on the edges left out are not
// counted, and the slider shows that count there.
TEST(Page, DecoysOnEdgesLeftOutAreNotCounted) {
  const Settings s = report_settings(1.0, 40.0, true);
  Micrograph m = sparse_micrograph();
  m.on_edge.assign(m.picks.size(), 0);
  m.on_edge[205] = 1;
  m.decoy_on_edge.assign(m.decoys.size(), 0);
  m.decoys.push_back(picks_at({0.55})[0]);
  m.decoy_on_edge.push_back(1);
  decide_cutoff(m, s, 0.0);
  ASSERT_EQ(m.choice.edge_dropped, 1);
  TempDir dir;
  ASSERT_EQ(write_page({m}, {"m.png"}, s, 0.0, dir.file("index.html")), "");
  const std::string page = read_text_file(dir.file("index.html"));
  EXPECT_NE(page.find("Decoys above it: 0 off the edges whose picks are left out, an estimate of the false picks"),
            std::string::npos);
  EXPECT_NE(page.find("data-decoys-auto=\"0\""), std::string::npos);
  EXPECT_NE(page.find("decoys score as high (at the automatic cut-off, less those on the edges left out)"),
            std::string::npos);
}

// A long run's page stays one a browser opens: the table lists every
// micrograph, their sections come a few a file, each row links to the file
// that holds its section, a run that grows leaves the pages it has filled
// as they were, and a shorter run written to the same folder leaves no file
// of the longer one behind. A short run is one file.
TEST(Page, LongRunsSpreadOverPages) {
  using e2e::contains, e2e::count_of;
  const Settings s = report_settings(1.0, 40.0, true);
  std::vector<Micrograph> mics(5, micrograph(spread(20, 0.1, 0.5)));
  for (size_t k = 0; k < mics.size(); k++) mics[k].name = "m" + std::to_string(k + 1) + ".mrc";
  const std::vector<std::string> pictures(7, "m.png");
  TempDir dir;
  auto page = [&](const char* name) { return read_text_file(dir.file(name)); };
  auto written = [&](size_t n, size_t per_page, size_t settled) {
    mics.resize(n, mics[0]);
    return write_page(mics, pictures, s, 0.2, dir.file("index.html"), "", per_page, settled).empty();
  };
  ASSERT_TRUE(written(5, 2, 0));
  const std::string first = page("index.html"), last = page("page-3.html");
  EXPECT_EQ(count_of(first, "<td class=\"name\">"), 5u);
  EXPECT_EQ(count_of(first, "<section class=\"mic\""), 2u);
  EXPECT_EQ(count_of(page("page-2.html"), "<section class=\"mic\""), 2u);
  EXPECT_EQ(count_of(last, "<section class=\"mic\""), 1u);
  EXPECT_FALSE(file_exists(dir.file("page-4.html")));
  EXPECT_TRUE(contains(first, "<a href=\"#m2\">m2.mrc</a>"));
  EXPECT_TRUE(contains(first, "<a href=\"page-3.html#m5\">m5.mrc</a>"));
  EXPECT_TRUE(contains(last, "id=\"m5\" data-k=\"5\""));
  EXPECT_TRUE(contains(last, "<a href=\"index.html\">all micrographs</a> <a href=\"page-2.html\">previous</a></p>"));

  // A run that grows: a settled page is written again only for its link to
  // a new next page, and then stays as written.
  ASSERT_TRUE(written(4, 2, 0));
  ASSERT_TRUE(written(5, 2, 4));
  EXPECT_TRUE(contains(page("page-2.html"), "<a href=\"page-3.html\">next</a>"));
  struct stat before {}, after {};
  ASSERT_EQ(stat(dir.file("page-2.html").c_str(), &before), 0);
  ASSERT_TRUE(written(7, 2, 5));
  ASSERT_EQ(stat(dir.file("page-2.html").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_TRUE(contains(page("page-3.html"), "<a href=\"page-4.html\">next</a>"));

  ASSERT_TRUE(written(3, 2, 0));
  EXPECT_TRUE(file_exists(dir.file("page-2.html")));
  EXPECT_FALSE(file_exists(dir.file("page-3.html")));
  ASSERT_TRUE(written(3, kPageMicrographs, 0));
  EXPECT_EQ(count_of(page("index.html"), "<section class=\"mic\""), 3u);
  EXPECT_FALSE(file_exists(dir.file("page-2.html")));

  // A page that cannot be written is the one named, not the index.
  ASSERT_EQ(mkdir(dir.file("page-2.html").c_str(), 0755), 0);
  EXPECT_EQ(write_page(mics, pictures, s, 0.2, dir.file("index.html"), "", 2), dir.file("page-2.html"));
}

// The page's command must reach the shell as the words it names.
TEST(Page, ShellWordsComeBackUnchanged) {
  for (const std::string w : {"m.mrc", "a b.mrc", "it's.mrc", "$(rm x)", "x\"y;z", "#1%20?"}) {
    const RunResult r = run_shell("printf '%s' " + shell_word(w));
    EXPECT_EQ(r.out, w);
  }
  EXPECT_EQ(shell_word("Micrographs/m-1_2.mrc"), "Micrographs/m-1_2.mrc");
}

// Templates are the run's: their contrast is judged over all micrographs
// with decoys together, where a few particles each add up.
TEST(RunWarnings, WrongContrastIsJudgedOverTheRun) {
  const std::vector<double> noise = spread(150, 0.0, 0.2), few = spread(8, 0.3, 0.35);
  std::vector<double> with = noise;
  with.insert(with.end(), few.begin(), few.end());
  std::vector<Micrograph> mics;
  for (int k = 0; k < 4; k++) {
    mics.push_back(micrograph(noise));
    give_decoys(mics.back(), picks_at(with));  // the particles are among the decoys
  }
  mics.push_back(micrograph(noise));  // picks read from a file: no decoys
  std::vector<Micrograph> one = {mics[0]};
  add_run_warnings(one);
  EXPECT_TRUE(one[0].warnings.empty());  // eight particles prove nothing alone
  add_run_warnings(mics);
  for (int k = 0; k < 4; k++) {
    ASSERT_EQ(mics[k].warnings.size(), 1u);
    EXPECT_NE(mics[k].warnings[0].find("templates of the wrong contrast"), std::string::npos);
  }
  EXPECT_TRUE(mics[4].warnings.empty());
  // The right way round nothing is said.
  for (Micrograph& m : mics) std::swap(m.picks, m.decoys), m.warnings.clear();
  add_run_warnings(mics);
  for (const Micrograph& m : mics) EXPECT_TRUE(m.warnings.empty());
}
