// Exact tests on a 2 x 2 table by a walk of its one free cell: Pearson's
// X^2 (procedures 7 and 507) and Fisher's test (procedure 32).  No network
// is built; the hypergeometric law of the first cell is summed in logs.
#pragma once

#include <cstdint>

namespace anvl::net {

// Pearson's X^2 on the 2 x 2 table (column-major: x11, x21, x12, x22):
// the exact two-sided p-value (X^2 >= obs within 1e-7 relative), the point
// probability, the law of the first cell with its one-sided tail on the
// observed side, and the chi-square p-value on 1 degree of freedom.
// Restarts the elapsed clock and the tick.  0, or -1 for a row or column
// total below 1 or a negative cell; nothing is published then.
int TwoByTwoPearsonRun(const int64_t* table);

// Fisher's test on the 2 x 2 table: the probability of the tables no more
// probable than the observed one (1e-7 relative in logs), split into the
// tails below and above the observed first cell, the point probability,
// and the Freeman-Halton statistic with its chi-square p-value.  Sends
// "Processing..." on a tick.  0, or -1 as above; nothing published then.
int TwoByTwoFisherRun(const int64_t* table);

// The likelihood-ratio test on the 2 x 2 table (procedure 40): the same
// walk on the entropy H(x) = sum n log n of the four cells (a value counts
// when H(x) >= obs - tol, at the point when within tol, tol = 1e-7 of
// |obs|), G^2 with its chi-square p-value on 1 degree of freedom (1 when
// G^2 <= 0), and the law of the first cell.  0, or -1 as above.
int TwoByTwoLikelihoodRun(const int64_t* table);

}  // namespace anvl::net
