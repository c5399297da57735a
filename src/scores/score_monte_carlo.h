// Monte Carlo estimates of the score tests: random first rows of a
// two-row table under the null hypothesis, the count of the drawn
// statistics at least as extreme as the observed one on each side, and the
// interval around each estimate.
#pragma once

#include <cstdint>
#include <vector>

#include "kernel/random.h"
#include "network/monte_carlo.h"
#include "scores/two_row_network.h"

namespace anvl::scores {

// The first row of a random table with column totals c[0..K-1] and
// first-row total m out of N, column by column, each count drawn given
// the ones before it (hypergeometric); the last column takes what is
// left.  log k! from `lf` up to 500, log Gamma above.
void ColumnSampler(int64_t K, int64_t m, const int64_t* c, int64_t N, int64_t* x,
                   RandomStream& stream, const double* lf);

// How a drawn statistic T counts against the observed one.
struct ScoreHitRule {
  bool low_side;     // the one-sided hit is T at or below the observed value
  double one_bound;  // the observed value widened by a relative 1e-7
  double mean;       // the two-sided hit is |T - mean| at least two_distance
  double two_distance;
};
// Two samples: the one-sided bound is obs x (1 +/- 1e-7) on the side of
// the hit; the two-sided distance is 0.9999999 |obs - mean|.
ScoreHitRule TwoSampleHitRule(double obs, double mean, bool low_side);

// Estimates of one batch: one-sided and two-sided, each with its interval.
struct ScoreMcResult {
  net::McResult one, two;
};

// Draws McSamples tables (at least one) of the working columns, counts the
// hits of T = sum x[j] s[j], reports every McReportEvery tables, and fills
// `out`.  Returns 0, or -3 for a confidence level outside (0, 1).
int ScoreMonteCarlo(const std::vector<TwoRowColumn>& columns, const ScoreHitRule& rule,
                    ScoreMcResult& out);

// Writes slots 25 to 33 and PublishedMethod 2.
void PublishScoreMonteCarlo(const ScoreMcResult& r);

}  // namespace anvl::scores
