// One-way goodness of fit (procedures 7 and 507 on case data): observed
// counts n_1 .. n_K against expected counts E_1 .. E_K by Pearson's
// X^2 = sum (n_i - E_i)^2 / E_i under the multinomial law with
// probabilities E_i / N.  Asymptotic (chi-square, K - 1 degrees of
// freedom), Monte Carlo (conditional binomial draws) or exact (a network
// whose node is the running total of the counts).
#pragma once

#include <cstdint>
#include <vector>

#include "kernel/random.h"

namespace anvl::net {

// The run.  `counts` (CaseWeights) and `expected` (CaseData) are K long.
// Failure codes: 901 fewer than 2 categories or no count at all; -1 a
// negative count, a total that overflows, a full grid or refused memory;
// -302 an expected count that isn't a positive finite number, or expected
// counts whose sum misses N by more than 1e-6 of the sum; -8 a hash out of
// range; -3 a Monte Carlo request without samples or with a level outside
// (0, 1).  Publishes on success.
int GoodnessOfFitRun(int64_t method, const double* expected, const int64_t* counts, int64_t K);

// The exact route on the one-way network: `tail` is the multinomial mass
// of X^2 above 1.000005 obs, `low` that below 0.999995 obs (as far as the
// bounds settled it), `point` the mass in between.  Returns 0, -1 (memory,
// full grid) or -8 (hash out of range).
struct OneWayExact {
  double tail = 0.0, low = 0.0, point = 0.0;
};
int OneWayExactRoute(const std::vector<double>& expected, int64_t N, double obs, OneWayExact& out);

// One multinomial sample of N units over the K categories with
// probabilities p = E / N, by conditional binomial draws: a normal
// approximation when both n q and n (1 - q) pass 20, else inversion in
// logs.  `out` gets the K counts; the last takes what is left.
void DrawOneWay(const std::vector<double>& p, int64_t N, RandomStream& stream, int64_t* out);

}  // namespace anvl::net
