// Automatic cross-correlation cut-off from the scores of every grid maximum
// of a micrograph (gvexmatch run with --cc_cutoff 0).
//
// Particle peaks and noise peaks form two populations when a micrograph
// holds both. The split that best separates two groups (Otsu's: the largest
// between-group share of the variance, eta) is taken when the groups are
// clearly apart (eta >= kBimodal); otherwise the scores are one population:
// particle peaks when their 90th percentile reaches the run's pooled cut-off
// (a crowded micrograph: keep every pick), noise when not (keep none).
#pragma once
#include <cmath>
#include <cstddef>
#include <vector>

constexpr double kBimodal = 0.62;

struct Cutoff {
  double value = 0;     // keep picks with score >= value
  double eta = 0;       // between-group share of the variance at the split
  bool split = false;   // two populations found
};

// The Otsu split of the scores and its eta (value = lowest score of the
// upper group); fewer than 4 scores give no split.
Cutoff otsu_split(std::vector<double> scores);

// The cut-off of one micrograph, given the pooled one of the run.
Cutoff choose_cutoff(const std::vector<double>& scores, double pooled);

// The pooled cut-off over all micrographs' scores: the same split, or the
// lowest score when they form one population.
Cutoff pooled_cutoff(const std::vector<double>& all_scores);

// Cut-off from a decoy run: the same templates with their contrast the
// other way round (--dont_invertT switched), which pass through the same
// normalisation and match no particle. Their grid maxima answer to noise
// as the real ones do, and also in the bright gaps between dark particles
// and on the bright rims of contamination. Their map is exactly minus the
// lowest correlation over the angles of the real scan, so one scan that
// keeps a running minimum beside its running maximum gives both.
//
// The half-decoy cut is the lowest score s at which the decoys scoring >= s
// number at most half of the picks scoring >= s. Its picks less its decoys
// (the particles there, were decoys false picks), times the area of a
// particle's disc over the usable area, measure crowding. Decoys in the
// gaps between particles overcount the real false picks more and more as
// particles crowd, so:
//  - from kBlendHigh up the half-decoy cut is taken;
//  - up to kBlendLow the sparse cut, where decoys count false picks about
//    one for one: the cut that maximises F1 estimated with them,
//    2 (N(s) - D(s)) / (N(s) + P), P the largest N(s) - D(s) (the particles
//    among the picks), but no lower than where decoys are at most
//    kDecoyFloor of the picks (large dark contamination lifts the real
//    run's noise maxima above the decoys', and an empty micrograph must not
//    read as a sparse one). None are kept unless at some cut the excess of
//    picks over decoys is beyond chance: N - D >= kExcess sqrt(N + D);
//  - in between the cut moves from the one to the other in proportion to
//    crowding (a hard switch cut micrographs near it too high or too low);
//    read as crowded (below), without evidence for a sparse cut, the
//    half-decoy cut is taken.
// Below kBlendHigh, particles among most grid maxima also move the cut to
// the half-decoy cut (an excess kMostSure sd beyond chance, from kMaximaLow
// to kMaximaHigh of all the grid maxima, in proportion; the larger of the
// two moves is taken): large particles leave room for few maxima, nearly all
// of them particles, and too few for the sparse rule's proof; the area they
// cover does not make them any less crowded. Twenty maxima measure that
// share roughly, and a hard switch at half read a run's like micrographs
// either way by chance. Nor does a share near half prove crowding: where
// the real run's noise maxima outnumber the decoys (beside contamination)
// a sparse micrograph's excess alone reaches 0.4 to 0.5 of its maxima.
// Micrographs read as crowded (from kCrowded up, or an excess of at least
// kMostMaxima of the maxima) keep their picks on strong edges; the others
// leave them out (report/edges.h): decoys do not count the false picks
// there.
//
// A sparse micrograph holds too few particles to prove them alone (ten
// among fifty maxima is 2 sd, short of kExcess). Where a run is at hand its
// sparse micrographs pool their picks and decoys (those on strong edges left
// out): the particles of one sample and one set of templates score alike
// across a run, while each micrograph alone is a handful. One without
// evidence of its own takes the sparse cut of the pool; one with evidence
// takes the mean of its own sparse cut and the pool's, each weighted by the
// square of its evidence (its largest excess in sd of chance), as two
// estimates are weighted by their precision: a few dozen counts decide the
// cut of one micrograph, and one rim or one ice patch moves it.
constexpr double kDecoyHalf = 0.5;
constexpr double kDecoyFloor = 0.4;
constexpr double kCrowded = 0.10;
constexpr double kMostMaxima = 0.5;
constexpr double kMaximaLow = 0.4;
constexpr double kMaximaHigh = 0.6;
constexpr double kMostSure = 2.0;
constexpr double kBlendLow = 0.05;
constexpr double kBlendHigh = 0.15;
constexpr double kExcess = 3.0;

// The sparse cut of picks and decoys (the estimated-F1 cut no lower than
// the kDecoyFloor one) and the evidence for it.
struct SparseCut {
  double value = NAN;  // NaN without evidence of particles
  double sd = 0;       // the largest excess of picks over decoys, in sd of chance
};

struct DecoyCutoff {
  double value = 0;      // keep picks with score >= value
  double crowding = 0;   // share of the usable area under particles at the half-decoy cut
  double of_maxima = 0;  // share of the grid maxima that are particles at the half-decoy cut
  bool crowded = false;  // read as crowded: edge picks stay
  bool by_maxima = false;  // crowded as most grid maxima are particles, not by the area they cover
  double toward_half = 0;  // how far the cut lies from the sparse cut to the half-decoy cut
  bool moved_by_maxima = false;  // that move measured by the share of grid maxima, not by area
  double sparse_cut = NAN; // the sparse cut, where there is evidence for it
  double particles = 0;  // P of the sparse branch
  bool from_run = false;  // the sparse cut is the run's: the micrograph alone gave no evidence
  SparseCut own, run;     // the micrograph's own sparse cut and the run's
  double run_share = 0;   // the run's weight in the sparse cut (1 when from_run)
  double evidence = 0;    // the largest excess of all picks over decoys, in sd of chance
  bool none = false;      // nothing kept: no evidence for the sparse reading, not crowded by area
};

// capacity: how many particle discs fit the usable area, i.e. the
// micrograph's area less its rejected cells over pi (diameter / 2 / apix)^2.
// Particle discs of the diameter (A) that fit usable_pixels pixels of apix A.
double disc_capacity(double usable_pixels, double diameter, double apix);

// run: the sparse cut of the run's pool (sparse_cut); none without a run.
DecoyCutoff null_model_cutoff(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores,
                              double capacity, SparseCut run = SparseCut());

// The same rule over a whole run's picks and decoys together (capacity
// summed), with sparse, the sparse cut of the pool off strong edges, as its
// sparse cut. Each micrograph's cut-off is then weighed with it, weighted by
// the square of its evidence against the pool's over the number of
// micrographs: a run reads crowded or sparse as a whole where one
// micrograph's few dozen maxima (large particles) read either way by chance,
// and pooled evidence squared is about the sum of its micrographs', so the
// run weighs as much as one micrograph of average evidence.
DecoyCutoff run_null_model(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores,
                           double capacity, SparseCut sparse);

SparseCut sparse_cut(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores);

// How unlike the rest of its run a micrograph's noise scores: the
// Kolmogorov-Smirnov distance between its decoy scores (own) and the run's
// other decoy scores (pool, sorted, holds own among them); 0 when the pool
// holds no other. From kUnlike up most of the micrograph's noise scores lie
// beyond the others' range, and a cut-off, a score, does not carry over
// between them (micrographs of one collection: at most 0.55).
constexpr double kUnlike = 0.8;
double unlike_the_rest(std::vector<double> own, const std::vector<double>& pool);

// The mean of cuts a and b weighted wa and wb, never outside the two:
// rounding would otherwise lift the mean of equal cuts past the score both
// stand on, and lose its pick.
double weighted_cut(double wa, double a, double wb, double b);

// Picks already cut: a run that keeps every grid maximum (--cc_cutoff 0)
// has noise maxima down to a few thousandths, so a lowest score of at least
// kCutShown among kCutShownPicks picks or more shows a cut at or below it
// (or a micrograph whose every maximum is a particle). Returns that lowest
// score, or NaN when the scores show no cut.
constexpr double kCutShown = 0.05;
constexpr size_t kCutShownPicks = 20;
double cut_shown_by_scores(const std::vector<double>& scores);

// Templates of the wrong contrast: the decoys then play the particles. Their
// excess over the picks (the most decoys less picks at or above any score)
// is beyond chance (kExcess sd), and the picks' excess over them is not, or
// is less than half of theirs. Between crowded particles decoys answer in
// the gaps beyond chance, but far less than the particles do.
bool decoys_outscore(const std::vector<double>& real_scores, const std::vector<double>& decoy_scores);
