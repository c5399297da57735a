// Procedure 18: the two-sample Kolmogorov-Smirnov test on a two-row table
// of counts over ordered levels.  Three statistics on the scaled gap
// D[k] = A[k] N - C[k] n = n m (F1 - F2) at level k: D+ (largest excess of
// the first sample's distribution function), D- (of the second's) and
// D = max(D+, D-); each with an asymptotic, a Monte Carlo and an exact
// p-value.  The exact route walks the levels as a two-row network whose
// node is (first-row sum, running extreme of D), both whole numbers, with
// the reachable range of D below every node read from a stage table that a
// backward pass builds once for the three statistics.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"
#include "scores/score_rules.h"

namespace anvl::scores {

// The statistics of a table, in the scaled whole-number form, with the
// sample sizes n (first row), m and N = n + m.
struct KsTwoStats {
  int64_t plus = 0, minus = 0, abs = 0;
  int64_t n = 0, m = 0, N = 0;
};
KsTwoStats KsTwoSampleStats(const std::vector<LevelCounts>& levels);

// Asymptotic tails from z = D^2 / (N n m): one-sided exp(-2 z); two-sided
// 2 sum_j (-1)^(j+1) exp(-2 j^2 z), j = 1 .. 30, stopped (after adding it)
// at the first term of magnitude at most 5e-5.  D = 0 gives 1.0.  Where
// the series doesn't reach such a term in 30 steps (very small z, true
// value near 1) the limiting tail of the one-sample test is returned.
double KsTwoSampleAsymOneSided(int64_t D, int64_t n, int64_t m);
double KsTwoSampleAsymTwoSided(int64_t D, int64_t n, int64_t m);

// Exact tails of the three statistics: P(stat >= observed) and
// P(stat = observed), by the network on `levels` with a node capacity from
// `budget_bytes` (the grid of the score network).  Returns 0; -1 when the
// stage table can't be allocated; 6 when the budget leaves no prime for
// the grid; -2 when the grid is full; a stop from the host or the clock.
struct KsTwoExact {
  double tail[3] = {0.0, 0.0, 0.0};   // D+, D-, D
  double point[3] = {0.0, 0.0, 0.0};
};
int KsTwoSampleExact(const std::vector<LevelCounts>& levels, int64_t budget_bytes,
                     KsTwoExact& out);

// Driver of procedure 18.  Failure codes: 216 a table that isn't two rows
// by at least two columns; -1 a negative count or a total of 2^31 or more;
// 4 fewer than two non-empty levels; 902 an empty sample (the first, or
// the second: its statistics would be 0/0); -3 a Monte Carlo confidence
// level outside (0, 1); those of KsTwoSampleExact.
void KsTwoSampleDriver(const CallArgs& args);

}  // namespace anvl::scores
