// The two-sample score tests (procedures 1, 2 and 502 on a two-row table):
// T = sum over levels of FirstCount x score, its range, null mean and
// standard deviation, the asymptotic normal test, and the exact (two-row
// network) and Monte Carlo p-values, with the driver of the family.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"
#include "scores/score_rules.h"
#include "scores/two_row_network.h"

namespace anvl::scores {

// What a table of scored levels says about its statistic under fixed
// margins.  With no observation, or none in the first row, all are 0.
struct TableStats {
  double tmin = 0.0, tmax = 0.0, tobs = 0.0, mean = 0.0, var = 0.0;
  int64_t n = 0, N = 0;  // first-row and pooled totals
};
// TMax hands the n first-row observations to the levels in order, each
// taking what it can; TMin in reverse order; so with the levels sorted by
// score, highest first, they are the largest and smallest T.
// Var = n (N - n) sum c (s - Mean/n)^2 / (N - 1) / N.
TableStats TableStatistics(const std::vector<TwoRowColumn>& levels);

// The scores of the network: shifted so that the lowest (the last level)
// is 0, and rounded to the coarsest of 10^0 .. 10^-digit_limit that holds
// them all to 1e-8, so that paths with equal sums meet in one node.
void ScoreLattice(std::vector<TwoRowColumn>& levels, int64_t digit_limit);

// The run on the counts of a two-row table (level i: first and second
// sample).  Publishes the asymptotic results and then, by `method`, the
// Monte Carlo or exact ones.  Returns 0, -4 when the statistic can take
// one value only (every p-value is then 1.0), or a failure code.
int TwoSampleRun(const std::vector<LevelCounts>& levels, const double* caller_scores,
                 int64_t selector, int64_t method);

// Driver of procedures 1, 2 and 502.
void ScoreDriver(const CallArgs& args);

}  // namespace anvl::scores
