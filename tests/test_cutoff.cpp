// Automatic cut-offs of gvexreport on planted score sets: the Otsu split and
// the cut-off from a decoy run (templates of inverted contrast).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "report/cutoff.h"

namespace {

// xorshift64* with Box-Muller: the same draws with every library.
struct Draws {
  uint64_t s;
  explicit Draws(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ULL + 1) {}
  double uniform() {
    s ^= s >> 12, s ^= s << 25, s ^= s >> 27;
    return ((s * 2685821657736338717ULL) >> 11) * (1.0 / 9007199254740992.0);
  }
  std::vector<double> normal(int n, double mean, double sd) {
    std::vector<double> v;
    while ((int)v.size() < n) {
      const double u1 = std::max(uniform(), 1e-300), u2 = uniform();
      v.push_back(mean + sd * std::sqrt(-2 * std::log(u1)) * std::cos(6.283185307179586 * u2));
    }
    return v;
  }
};

std::vector<double> join(std::vector<double> a, const std::vector<double>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<double> evenly(int n, double lo, double hi) {
  std::vector<double> v;
  for (int i = 0; i < n; i++) v.push_back(lo + (hi - lo) * i / std::max(1, n - 1));
  return v;
}

long at_least(const std::vector<double>& v, double cut) {
  return std::count_if(v.begin(), v.end(), [&](double s) { return s >= cut; });
}

// F1 of keeping particles and noise at or above cut.
double f1(const std::vector<double>& particles, const std::vector<double>& noise, double cut) {
  const double tp = at_least(particles, cut), kept = tp + at_least(noise, cut);
  return 2 * tp / (kept + particles.size());
}

double best_f1(const std::vector<double>& particles, const std::vector<double>& noise) {
  double best = 0;
  for (double c : join(particles, noise)) best = std::max(best, f1(particles, noise, c));
  return best;
}

}  // namespace

TEST(OtsuCutoff, SplitsTwoGroupsAndTellsOnePopulationApart) {
  Draws d(1);
  const std::vector<double> noise = d.normal(300, 0.1, 0.03), particles = d.normal(60, 0.5, 0.04);
  const Cutoff two = choose_cutoff(join(noise, particles), 0.3);
  EXPECT_TRUE(two.split);
  EXPECT_GT(two.value, *std::max_element(noise.begin(), noise.end()));
  EXPECT_LE(two.value, *std::min_element(particles.begin(), particles.end()));
  // One population: kept whole when its upper tenth reaches the pooled
  // cut-off, dropped whole when not.
  const std::vector<double> one = d.normal(200, 0.4, 0.05);
  EXPECT_LE(choose_cutoff(one, 0.3).value, *std::min_element(one.begin(), one.end()));
  EXPECT_GT(choose_cutoff(one, 0.6).value, *std::max_element(one.begin(), one.end()));
  EXPECT_FALSE(otsu_split({0.1, 0.2, 0.3}).split);
}

// Sparse micrographs: decoys stand for the noise picks one for one.
TEST(NullModelCutoff, SparseSeparatedGroupsAreCutBetween) {
  Draws d(2);
  const std::vector<double> particles = d.normal(40, 0.5, 0.05), noise = d.normal(300, 0.1, 0.04);
  const DecoyCutoff c = null_model_cutoff(join(noise, particles), d.normal(300, 0.1, 0.04), 800);
  EXPECT_FALSE(c.crowded);
  EXPECT_GE(at_least(particles, c.value), 39);
  EXPECT_LE(at_least(noise, c.value), 3);
  EXPECT_NEAR(c.particles, 40, 4);
}

TEST(NullModelCutoff, SparseOverlappingGroupsComeNearTheBestF1) {
  for (uint64_t seed = 3; seed < 8; seed++) {
    Draws d(seed);
    const std::vector<double> particles = d.normal(60, 0.25, 0.06), noise = d.normal(250, 0.12, 0.05);
    const DecoyCutoff c = null_model_cutoff(join(noise, particles), d.normal(250, 0.12, 0.05), 1000);
    EXPECT_FALSE(c.crowded);
    EXPECT_GE(f1(particles, noise, c.value), best_f1(particles, noise) - 0.06) << "seed " << seed;
  }
}

// A contamination rim scores high with either contrast: it must not drag
// the cut above the particles.
TEST(NullModelCutoff, ContaminationTailInBothRunsLeavesTheCutBelowTheParticles) {
  Draws d(9);
  const std::vector<double> particles = d.normal(40, 0.45, 0.05), noise = d.normal(300, 0.1, 0.04);
  const std::vector<double> rim = d.normal(15, 0.9, 0.1), decoy_rim = d.normal(15, 0.9, 0.1);
  const DecoyCutoff c = null_model_cutoff(join(join(noise, particles), rim), join(d.normal(300, 0.1, 0.04), decoy_rim), 800);
  EXPECT_GE(at_least(particles, c.value), 38);
  EXPECT_LE(at_least(noise, c.value), 3);
}

// Crowded micrographs: decoys answer in every gap between particles and
// overcount the few false picks; nearly every pick is kept.
TEST(NullModelCutoff, CrowdedMicrographKeepsNearlyAllPicks) {
  Draws d(10);
  const std::vector<double> particles = d.normal(400, 0.3, 0.08), noise = d.normal(10, 0.1, 0.04);
  const std::vector<double> gaps = d.normal(250, 0.15, 0.07);
  const DecoyCutoff c = null_model_cutoff(join(particles, noise), gaps, 900);
  EXPECT_TRUE(c.crowded);
  EXPECT_GE(c.crowding, kCrowded);
  EXPECT_GE(at_least(particles, c.value), 380);
  // Weak noise picks below the particles are still cut: above the cut the
  // decoys are at most half of the picks.
  const std::vector<double> weak = d.normal(100, 0.05, 0.02);
  const DecoyCutoff cut = null_model_cutoff(join(particles, weak), d.normal(300, 0.1, 0.05), 900);
  EXPECT_TRUE(cut.crowded);
  EXPECT_GE(at_least(particles, cut.value), 380);
  EXPECT_LE(at_least(weak, cut.value), 20);
  // The same particles on a micrograph with room for ten times as many,
  // its noise maxima filling the rest, read as sparse, and the gap decoys
  // then cost particles.
  const std::vector<double> wide = d.normal(3000, 0.1, 0.04);
  const DecoyCutoff sparse = null_model_cutoff(join(join(particles, noise), wide), join(gaps, d.normal(3000, 0.1, 0.04)), 9000);
  EXPECT_FALSE(sparse.crowded);
  EXPECT_GT(sparse.value, c.value);
}

// Between sparse and crowded the cut moves with crowding from the sparse
// cut to the half-decoy cut, without a jump anywhere.
TEST(NullModelCutoff, BetweenSparseAndCrowdedTheCutMovesSmoothly) {
  Draws d(31);
  const std::vector<double> real = join(d.normal(80, 0.3, 0.07), d.normal(500, 0.1, 0.04));
  const std::vector<double> decoys = d.normal(520, 0.1, 0.045);
  const DecoyCutoff sparse = null_model_cutoff(real, decoys, 1e6), crowded = null_model_cutoff(real, decoys, 1);
  const double excess = sparse.crowding * 1e6;  // picks less decoys at the half-decoy cut
  ASSERT_GT(sparse.value, crowded.value);
  EXPECT_EQ(sparse.toward_half, 0);
  EXPECT_EQ(crowded.toward_half, 1);
  double last = sparse.value;
  for (double crowding = 0.04; crowding <= 0.16; crowding += 0.005) {
    const DecoyCutoff c = null_model_cutoff(real, decoys, excess / crowding);
    EXPECT_LE(c.value, last + 1e-12) << "crowding " << crowding;
    EXPECT_GE(c.value, crowded.value) << "crowding " << crowding;
    EXPECT_EQ(c.crowded, crowding >= kCrowded) << "crowding " << crowding;
    last = c.value;
  }
  const double below = null_model_cutoff(real, decoys, excess / (kCrowded - 1e-6)).value;
  const double above = null_model_cutoff(real, decoys, excess / (kCrowded + 1e-6)).value;
  EXPECT_NEAR(below, above, 1e-4 * (sparse.value - crowded.value));
}

// Large particles: the micrograph holds few grid maxima, nearly all of them
// particles, though they cover little of its area.
TEST(NullModelCutoff, FewMaximaMostlyParticlesAreCutAsCrowded) {
  Draws d(24);
  const std::vector<double> particles = d.normal(40, 0.2, 0.06), noise = d.normal(10, 0.1, 0.04);
  const std::vector<double> decoys = d.normal(15, 0.1, 0.04);
  const DecoyCutoff c = null_model_cutoff(join(particles, noise), decoys, 800);
  EXPECT_LT(c.crowding, kCrowded);
  EXPECT_TRUE(c.crowded);
  EXPECT_GE(c.of_maxima, kMostMaxima);
  EXPECT_GE(at_least(particles, c.value), 34);
  // The reading does not jump where the area starts to count: on a smaller
  // usable area, between kCrowded and kBlendHigh, the same picks keep the
  // same cut.
  const DecoyCutoff smaller = null_model_cutoff(join(particles, noise), decoys, 300);
  EXPECT_GT(smaller.crowding, kCrowded);
  EXPECT_LT(smaller.crowding, kBlendHigh);
  EXPECT_EQ(smaller.value, c.value);
  // Less than half is no proof: beside contamination the real run's noise
  // maxima outnumber the decoys, and a sparse micrograph's excess alone
  // reaches 0.45 of its maxima. It stays sparse, and its cut moves only
  // part of the way to the half-decoy cut.
  const std::vector<double> few = evenly(12, 0.25, 0.3);
  const std::vector<double> real = join(evenly(38, 0.0, 0.2), few);
  const DecoyCutoff sparse = null_model_cutoff(real, evenly(26, 0.001, 0.201), 800);
  EXPECT_GT(sparse.of_maxima, 0.4);
  EXPECT_FALSE(sparse.crowded);
  EXPECT_EQ(at_least(few, sparse.value), 12);
  EXPECT_LE(at_least(real, sparse.value), 30);  // the half-decoy cut keeps 48
}

// The share of grid maxima that are particles is measured on a few dozen
// of them: the cut moves with it from the sparse cut to the half-decoy cut,
// with no jump where the micrograph starts to read as crowded.
TEST(NullModelCutoff, TheShareOfMaximaMovesTheCutWithoutAJump) {
  // 24 particles above every decoy, 4 noise maxima; maxima far below all
  // of them (among as many decoys) lower the share without moving a cut.
  const std::vector<double> real = join(evenly(24, 0.25, 0.35), evenly(4, 0.0, 0.2));
  const std::vector<double> decoys = join(evenly(10, 0.001, 0.201), evenly(60, -2.0, -1.5));
  const double sparse = 0.25, half = 0.0;
  double last = half;
  for (int low = 0; low <= 24; low++) {
    const DecoyCutoff c = null_model_cutoff(join(real, std::vector<double>(low, -1.8)), decoys, 800);
    const double share = c.of_maxima;
    EXPECT_NEAR(share, 18.0 / (28 + low), 1e-12);
    EXPECT_EQ(c.crowded, share >= kMostMaxima) << "share " << share;
    if (share >= kMaximaHigh) {
      EXPECT_EQ(c.value, half) << "share " << share;
    }
    if (share <= kMaximaLow) {
      EXPECT_EQ(c.value, sparse) << "share " << share;
    }
    EXPECT_GE(c.value, last) << "share " << share;
    EXPECT_LE(c.value - last, 0.1 * (sparse - half)) << "share " << share;
    last = c.value;
  }
}

TEST(NullModelCutoff, NoiseAloneKeepsAlmostNothing) {
  // Many maxima, and a handful a little above the decoys (few maxima, as
  // large particles leave room for: that proves nothing either).
  struct Noise {
    int picks;
    double mean;
    int decoys;
    long most_kept;
  };
  for (const Noise& k : {Noise{300, 0.1, 300, 15}, Noise{8, 0.13, 7, 0}})
    for (uint64_t seed = 11; seed < 16; seed++) {
      Draws d(seed);
      const std::vector<double> real = d.normal(k.picks, k.mean, 0.05);
      const DecoyCutoff c = null_model_cutoff(real, d.normal(k.decoys, 0.1, 0.05), 800);
      EXPECT_FALSE(c.crowded) << k.picks << " picks, seed " << seed;
      EXPECT_LE(at_least(real, c.value), k.most_kept) << k.picks << " picks, seed " << seed;
    }
  // Noise maxima of the real run a little above the decoys' (as beside
  // large contamination) are not taken for a sparse micrograph's particles.
  for (uint64_t seed = 18; seed < 23; seed++) {
    Draws d(seed);
    const std::vector<double> real = d.normal(300, 0.12, 0.05);
    EXPECT_LE(at_least(real, null_model_cutoff(real, d.normal(300, 0.1, 0.05), 800).value), 60) << "seed " << seed;
  }
  // The same scores in both runs: nothing beats the decoys.
  const std::vector<double> same = Draws(17).normal(100, 0.1, 0.05);
  EXPECT_EQ(at_least(same, null_model_cutoff(same, same, 800).value), 0);
}

// Sparse micrographs of a run: six particles above forty noise maxima are
// under 3 sd alone (sqrt 6), four such micrographs pooled are not, and each
// takes the pool's cut; one that proves its own particles takes the mean
// of its cut and the pool's, weighted by their evidence; a crowded one
// keeps its own cut.
TEST(NullModelCutoff, SparseMicrographsTakeTheRunsCutByEvidence) {
  const std::vector<double> noise = evenly(40, 0.0, 0.2), decoys = evenly(40, 0.001, 0.201);
  const std::vector<double> real = join(noise, evenly(6, 0.25, 0.3));
  std::vector<double> run_real, run_decoys;
  for (int i = 0; i < 4; i++) run_real = join(run_real, real), run_decoys = join(run_decoys, decoys);
  const SparseCut run = sparse_cut(run_real, run_decoys);
  EXPECT_EQ(run.value, 0.25);
  EXPECT_NEAR(run.sd, std::sqrt(24.0), 1e-12);  // 24 picks above every decoy
  const DecoyCutoff own = null_model_cutoff(real, decoys, 800), c = null_model_cutoff(real, decoys, 800, run);
  EXPECT_TRUE(std::isnan(sparse_cut(real, decoys).value));
  EXPECT_EQ(at_least(real, own.value), 0);
  EXPECT_TRUE(c.from_run);
  EXPECT_EQ(c.value, run.value);
  // Evidence of its own (sqrt 12 sd) against a run's of twice as many sd:
  // the run's cut weighs four times as much.
  const std::vector<double> strong = join(noise, evenly(12, 0.25, 0.3));
  const DecoyCutoff alone = null_model_cutoff(strong, decoys, 800);
  EXPECT_NEAR(alone.own.sd, std::sqrt(12.0), 1e-12);
  const DecoyCutoff both = null_model_cutoff(strong, decoys, 800, SparseCut{0.1, 2 * alone.own.sd});
  EXPECT_FALSE(both.from_run);
  EXPECT_NEAR(both.run_share, 0.8, 1e-12);
  EXPECT_NEAR(both.value, 0.2 * alone.value + 0.8 * 0.1, 1e-12);
  // Crowded: the run's cut plays no part.
  EXPECT_EQ(null_model_cutoff(real, decoys, 1, SparseCut{0.1, 5}).value, null_model_cutoff(real, decoys, 1).value);
  // Near crowded the cut moves from the run's cut toward the half-decoy cut.
  const DecoyCutoff near = null_model_cutoff(real, decoys, own.crowding * 800 / 0.1, run);
  EXPECT_TRUE(near.from_run);
  EXPECT_NEAR(near.toward_half, 0.5, 1e-9);
  EXPECT_LT(near.value, run.value);
  // A run of noise alone pools to no evidence.
  std::vector<double> noise_run;
  for (int i = 0; i < 4; i++) noise_run = join(noise_run, noise);
  EXPECT_TRUE(std::isnan(sparse_cut(noise_run, run_decoys).value));
}

TEST(NullModelCutoff, EdgeCases) {
  EXPECT_EQ(null_model_cutoff({}, {0.1, 0.2}, 100).value, 0);  // nothing to keep
  std::vector<double> real(12, 0.3);
  real[0] = 0.2;
  // No decoys: no evidence of noise, every pick is kept; too few picks
  // prove nothing and none are kept.
  EXPECT_EQ(null_model_cutoff(real, {}, 1000).value, 0.2);
  EXPECT_GT(null_model_cutoff({0.2, 0.3, 0.4}, {}, 1000).value, 0.4);
  // Tied scores are kept or dropped together.
  const std::vector<double> low(30, 0.05);
  EXPECT_EQ(null_model_cutoff(join(real, low), join({0.2, 0.25}, low), 1000).value, 0.3);
  // No usable area: the picks are taken as crowded.
  EXPECT_TRUE(null_model_cutoff(real, {0.1}, 0).crowded);
}

// A run that keeps every grid maximum has noise maxima down to a few
// thousandths; a set whose lowest score is far above shows a cut.
TEST(CutShown, LowestScoreFarAboveZeroShowsACut) {
  Draws d(30);
  std::vector<double> cut;
  for (double s : d.normal(400, 0.12, 0.06))
    if (s >= 0.15) cut.push_back(s);
  EXPECT_EQ(cut_shown_by_scores(cut), *std::min_element(cut.begin(), cut.end()));
  std::vector<double> uncut;
  for (double s : d.normal(400, 0.12, 0.06))
    if (s >= 0) uncut.push_back(s);
  EXPECT_TRUE(std::isnan(cut_shown_by_scores(uncut)));
  // Too few picks to tell.
  EXPECT_TRUE(std::isnan(cut_shown_by_scores(std::vector<double>(kCutShownPicks - 1, 0.5))));
  EXPECT_EQ(cut_shown_by_scores(std::vector<double>(kCutShownPicks, 0.5)), 0.5);
}

TEST(DecoysOutscore, WrongContrastOnlyWhenDecoysHoldTheParticles) {
  Draws d(31);
  const std::vector<double> noise = d.normal(300, 0.1, 0.04), particles = d.normal(40, 0.45, 0.05);
  // Templates the wrong way round: the decoys find the particles.
  EXPECT_TRUE(decoys_outscore(d.normal(300, 0.1, 0.04), join(noise, particles)));
  EXPECT_FALSE(decoys_outscore(join(noise, particles), d.normal(300, 0.1, 0.04)));
  // A sparse micrograph inverted: the decoys' excess is beyond chance, the
  // picks' (a lucky tail of their noise) is not, however large it looks.
  const std::vector<double> lucky = join(d.normal(300, 0.1, 0.04), d.normal(12, 0.3, 0.03));
  EXPECT_TRUE(decoys_outscore(lucky, join(d.normal(300, 0.1, 0.04), d.normal(20, 0.45, 0.05))));
  // Crowded and right: decoys in the gaps exceed the few noise picks beyond
  // chance, but by far less than the particles exceed them.
  const std::vector<double> crowd = join(d.normal(400, 0.3, 0.08), d.normal(10, 0.1, 0.04));
  EXPECT_FALSE(decoys_outscore(crowd, join(d.normal(250, 0.15, 0.07), d.normal(30, 0.35, 0.05))));
  // Noise alone, either way: no excess beyond chance.
  for (uint64_t seed = 32; seed < 37; seed++) {
    Draws e(seed);
    EXPECT_FALSE(decoys_outscore(e.normal(300, 0.1, 0.05), e.normal(300, 0.1, 0.05))) << "seed " << seed;
  }
}
