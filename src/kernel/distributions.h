// Small distribution routines: the normal quantile, the upper normal
// deviate, the chi-square tail, and the log weight, Pearson statistic and
// entropy of a 2 x 2 table.
#pragma once

#include <cstdint>

namespace anvl {

// z with Phi(z) = p, 0 < p < 1, by Newton's iteration from 0 on the
// normal distribution function (series below |z| 2.8, continued fraction
// above).  Exactly 0.0 for p = 0.5.
double NormalQuantile(double p);
// z with P(Z > z) = p by the rational approximation AS 70; -99999.0 for a
// tail below 1e-20, 0.0 at 0.5.
double UpperNormalDeviate(double p);
// Upper tail of chi-square with df degrees of freedom at x; 0.0 for
// x <= 0.  Reports df < 1 through ASSERT and carries on.
double ChiSquareTail(double x, int64_t df);

// The 2 x 2 table with first-row total a, second-row total b, first-column
// total c and first cell x has the cells x, a - x, c - x, b - (c - x).
// log of C(a, x) C(b, c - x), from `table` up to 500 and DNLGAM above.
double TableLogWeight(int64_t a, int64_t b, int64_t c, int64_t x, const double* table);
// Pearson's statistic against the four expected values; the four cells are
// left in `cells` (may be null).
double TablePearson(int64_t a, int64_t b, int64_t c, int64_t x, const double expected[4],
                    double cells[4]);
// Sum of n log n over the four cells, a cell of 0 adding 0.
double TableEntropy(int64_t a, int64_t b, int64_t c, int64_t x);

}  // namespace anvl
