// Exact and limiting distributions of the one-sample Kolmogorov-Smirnov
// statistics: the one-sided tail of a continuous null, the two-sided tail
// by Durbin's matrix, Conover's tails for a discrete null (in quadruple
// precision), and the limiting two-sided tail.
#pragma once

#include <cstdint>
#include <vector>

namespace anvl::eng {

// Exponents of exp() beyond these count as 0 (below) or overflow (above).
inline constexpr double kLogUnderflow = -708.39;
inline constexpr double kLogOverflow = 709.78;

// P(D+ >= d) for a sample of n from a continuous null (equally P(D- >= d)).
// 1.0 for d <= 0.  The alternating sum over j = 0 .. trunc(n d) of
// C(n, j) d |j/n - d|^j |1 + d - j/n|^(n-j-1) decides the outcome: a term
// whose log passes kLogOverflow sets `overflow` and gives 0.0.  Otherwise
// the value is 1 - that sum, formed as the equal sum of positive terms
// d sum_{j <= n(1-d)} C(n, j) (1 - d - j/n)^(n-j) (d + j/n)^(j-1), because
// the alternating terms reach 1e20 and more at n = 1000 and cancel.
double KsOneSidedExact(int64_t n, double d, bool* overflow);

// log P(D < d) for a sample of n from a continuous null, by the power
// H^n of Durbin's (2k+1) x (2k+1) matrix, k = trunc(n d), squared and
// multiplied by binary digits of n with a log scale that keeps its entries
// at most 1.  `*positive` is false when the corner entry of H^n isn't
// above 0 (then the result is meaningless).  Needs n >= 1, 0 < d <= 1 and
// (1 + 2 n d)^2 within 32 bits; costs m^3 per product, about 2 log2 n
// products.  Returns -1 when the three matrices can't be allocated.
int DurbinLogCdf(int64_t n, double d, double* log_cdf, bool* positive);

// The two-sided exact p-value from DurbinLogCdf: 1.0 below kLogUnderflow
// or without a positive corner, 1 - exp(L) up to kLogOverflow, and beyond
// it 0.0, or the no-result mark when both one-sided values lie in 0..1.
double KsTwoSidedExact(int64_t n, double d, double one_plus, double one_minus, int* code);

// Conover's tail of a discrete null.  `cdf` holds F(0), F(1), ... of the
// null, ascending, its last entry within 5e-14 of 1.  The upper side goes
// with D+ and the lower side with D-: each gives P(D >= d) (`tail`) and
// its last term (`last`).  The recursion of the c_k alternates and cancels, so it runs in quadruple
// precision; costs O(n^2).  At d = 0 the sums leave out their term j = n.
struct ConoverTail {
  double tail = 0.0;
  double last = 0.0;
  bool by_paths = false;  // DiscreteTail: the tail came from the path sum
};
ConoverTail ConoverUpper(int64_t n, double d, const std::vector<double>& cdf);
ConoverTail ConoverLower(int64_t n, double d, const std::vector<double>& cdf);

// The tail that procedure 6 publishes: Conover's, when the sum of positive
// path probabilities below (the same probability) confirms it to 1e-12.
// Otherwise the path sum, and the last term the no-result mark: Conover's
// terms cancel beyond quadruple precision from about n = 150 on (n = 200
// gives tails of 1e3 and more), and at d = 0 they leave out their term
// j = n.
ConoverTail DiscreteTail(int64_t n, double d, const std::vector<double>& cdf, bool upper);
// P(D+ >= d) (upper) or P(D- >= d) (lower) as the mass of the paths of
// the cumulative counts that cross the bound that Conover's f_j stand for:
// positive terms only, in double precision; costs M n^2 / 2.
double PathTail(int64_t n, double d, const std::vector<double>& cdf, bool upper);

// Limiting two-sided tail 2 sum_{k >= 1} (-1)^(k-1) exp(-2 k^2 z^2),
// summed until a term is at most 1e-12; 1.0 for z <= 0.
double KsLimitTwoSided(double z);

}  // namespace anvl::eng
