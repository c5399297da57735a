// The paired-sample score tests (procedures 1, 2 and 502 on a one-row
// table): the sign test and Wilcoxon's signed rank test on the paired
// differences that the levels stand for.  Under the null hypothesis each
// non-zero difference is positive or negative with probability one half;
// a balancing column of score 0 turns the problem into a two-row table, so
// that the two-row network serves it in its balanced form.
#pragma once

#include <cstdint>
#include <vector>

#include "kernel/random.h"
#include "scores/score_monte_carlo.h"
#include "scores/two_row_network.h"

namespace anvl::scores {

// A level of distinct absolute difference d > 0 with its positive and
// negative counts.
struct DifferenceLevel {
  int64_t positive = 0;
  int64_t negative = 0;
  double d = 0.0;
};

// The levels of a one-row table: count[j] pairs with difference
// differences[j]; zeros dropped, sorted by |d|, ties within a relative
// 1e-10 merged.  Status 0, -1 (a negative count or a total of 2^31 or
// more), -3 (a difference that isn't finite, or none given).
int DifferenceLevels(const int64_t* counts, const double* differences, int64_t K,
                     std::vector<DifferenceLevel>& out);

// Scores of the one-sample rules: midranks of the level totals (selector
// 1), the sign test about `location` (selector 2: one level of the counts
// above and below it, score 1), the differences themselves (selector 5).
// Status 0 or -26 for a selector without a one-sample rule.
int OneSampleScores(std::vector<DifferenceLevel>& levels, int64_t selector, double location,
                    std::vector<double>& s);

// x[j] ~ Binomial(c[j], 1/2) for the real columns j < K - 1; the last
// (balancing) column takes what remains of m.
void SignFlipSampler(int64_t K, int64_t m, const int64_t* c, int64_t* x, RandomStream& stream,
                     const double* lf);

// Null sd of T = sum x[j] s[j] when each of the c[j] cases of the working
// columns (the last one balancing, left out) takes its sign with
// probability 1/2: sqrt(sum c[j] s[j]^2 / 4).
double SignFlipSd(const std::vector<TwoRowColumn>& work);

// Monte Carlo of the balanced tables: draws McSamples sign assignments
// (at least one) of the working columns (the last one balancing) and
// counts T = sum x[j] s[j] at or beyond `obs` on its side (relative 1e-7)
// and at least as far from `mean`.  `snap` reads an estimate within 1e-7
// of 0 or 1 as that end.  0, or -3 for a level outside (0, 1).
int SignFlipMonteCarlo(const std::vector<TwoRowColumn>& work, double obs, double mean,
                       bool low_side, bool snap, ScoreMcResult& out);

// The run on a one-row table.  Publishes the asymptotic results and then,
// by `method`, the Monte Carlo or exact ones.  Returns 0 or a failure
// code; -4 when no difference is non-zero.
int PairedRun(const int64_t* counts, const double* differences, int64_t K, int64_t selector,
              int64_t method);

}  // namespace anvl::scores
