// The two-cut masses of a statistic over every table with the observed
// margins, by brute-force enumeration: the statistic as an exact fraction,
// the observed value and its mirror image about the null mean as the bounds.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/enumerate.h"

namespace anvl::assoc_test {

using Int = __int128;

// A statistic as an exact fraction n / d (d > 0).
struct Frac {
  Int n = 0, d = 1;
};
inline int Compare(Frac a, Frac b) {
  const Int l = a.n * b.d, r = b.n * a.d;
  return l < r ? -1 : (l > r ? 1 : 0);
}

// The masses beyond, at and between the two bounds.
struct Masses {
  long double above = 0, high_point = 0, middle = 0, low_point = 0, below = 0;
  bool high_side = false;  // the observed value is the high bound
  uint64_t tables = 0;
};

template <class Stat>
Masses EnumerateTwoCut(const support::Table& obs, const Stat& stat, Frac mirror) {
  const Frac a = stat(obs);
  Masses m;
  m.high_side = Compare(a, mirror) > 0;
  const Frac hi = m.high_side ? a : mirror, lo = m.high_side ? mirror : a;
  m.tables = support::EnumerateTables(
      support::RowTotals(obs), support::ColTotals(obs), [&](const support::Table& t, long double p) {
        const Frac v = stat(t);
        const int ch = Compare(v, hi), cl = Compare(v, lo);
        if (ch > 0) m.above += p;
        if (ch == 0) m.high_point += p;
        if (cl < 0) m.below += p;
        if (cl == 0) m.low_point += p;
        if (cl > 0 && ch < 0) m.middle += p;
      });
  return m;
}

// Relative agreement at 1e-9, give or take `slack`.
inline void ExpectNear(double engine, long double ref, double slack, const std::string& what) {
  const double r = static_cast<double>(ref);
  EXPECT_LE(std::fabs(engine - r), 1e-9 * std::fabs(r) + slack) << what << ": " << engine << " vs " << r;
}

}  // namespace anvl::assoc_test
