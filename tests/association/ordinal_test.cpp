// Procedures 50 (gamma), 49 (Kendall's family), 20 (Jonckheere-Terpstra)
// and 21 (Kruskal-Wallis): the exact masses against enumeration of all
// tables with the margins, the measures against R, the Monte Carlo route
// and the failure codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include "association/concordance.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace anvl {
namespace {

using support::HostCall;
using support::Table;
using Int = __int128;

// A statistic as an exact fraction n / d (d > 0).
struct Frac {
  Int n = 0, d = 1;
};
int Compare(Frac a, Frac b) {
  const Int l = a.n * b.d, r = b.n * a.d;
  return l < r ? -1 : (l > r ? 1 : 0);
}

// Concordant and discordant pairs by their definition, cell pair by cell pair.
void Pairs(const Table& t, Int& C, Int& D) {
  C = D = 0;
  for (int i = 0; i < t.rows; ++i)
    for (int j = 0; j < t.cols; ++j)
      for (int k = i + 1; k < t.rows; ++k)
        for (int l = 0; l < t.cols; ++l) {
          if (l > j) C += Int(t.at(i, j)) * t.at(k, l);
          if (l < j) D += Int(t.at(i, j)) * t.at(k, l);
        }
}

// Twice the Jonckheere-Terpstra count: over pairs of rows i < k, each case
// of row k against each of row i, 2 when above, 1 when tied.
Int TwiceJt(const Table& t) {
  Int s = 0;
  for (int i = 0; i < t.rows; ++i)
    for (int k = i + 1; k < t.rows; ++k)
      for (int j = 0; j < t.cols; ++j)
        for (int l = 0; l < t.cols; ++l)
          s += Int(t.at(i, j)) * t.at(k, l) * (l > j ? 2 : (l == j ? 1 : 0));
  return s;
}

struct Member {
  int proc;
  std::function<Frac(const Table&)> stat;   // the statistic of a table
  std::function<Frac(const Table&)> mirror; // its mirror image about the mean
};

const Member kGamma{50,
                    [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{C, C + D}; },
                    [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{D, C + D}; }};
const Member kKendall{49, [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{C - D, 1}; },
                      [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{D - C, 1}; }};
const Member kJonckheere{
    20, [](const Table& t) { return Frac{TwiceJt(t), 2}; },
    [](const Table& t) {  // 2E - JT, E = (N^2 - sum R_i^2) / 4
      Int n = support::GrandTotal(t), r2 = 0;
      for (int64_t r : support::RowTotals(t)) r2 += Int(r) * r;
      return Frac{(n * n - r2) - TwiceJt(t), 2};
    }};

// The five masses of a two-cut member by enumeration.
struct Masses {
  long double above = 0, high_point = 0, middle = 0, low_point = 0, below = 0;
  bool high_side = false;
  uint64_t tables = 0;
};

Masses Enumerate(const Member& m, const Table& obs) {
  const Frac a = m.stat(obs), b = m.mirror(obs);
  Masses out;
  out.high_side = Compare(a, b) > 0;
  const Frac hi = out.high_side ? a : b, lo = out.high_side ? b : a;
  out.tables = support::EnumerateTables(
      support::RowTotals(obs), support::ColTotals(obs), [&](const Table& t, long double p) {
        const Frac v = m.stat(t);
        const int ch = Compare(v, hi), cl = Compare(v, lo);
        if (ch > 0) out.above += p;
        if (ch == 0) out.high_point += p;
        if (cl < 0) out.below += p;
        if (cl == 0) out.low_point += p;
        if (cl > 0 && ch < 0) out.middle += p;
      });
  return out;
}

void ExpectNear(double engine, long double ref, const std::string& what) {
  const double r = static_cast<double>(ref);
  EXPECT_LE(std::fabs(engine - r), 1e-9 * std::fabs(r) + 1e-15) << what << ": " << engine
                                                                 << " vs " << r;
}

template <class Run>
void ExpectPassMasses(const Table& t, const Masses& ref, const std::string& what) {
  Run run;
  const auto cells = support::ColumnMajor(t);
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  ASSERT_EQ(run.Observed(cells, t.rows, t.cols, lf.data()), 0) << what;
  net::PassResult pass;
  ASSERT_EQ(run.Exact(lf.data(), pass), 0) << what;
  ExpectNear(pass.tail_high, ref.above, what + " high tail");
  ExpectNear(pass.tail_low, ref.below, what + " low tail");
  if (!pass.stopped_early) {
    ExpectNear(pass.high_point, ref.high_point, what + " high point");
    ExpectNear(pass.low_point, ref.low_point, what + " low point");
  }
}

std::vector<Table> CaseTables(std::mt19937_64& rng, int count) {
  std::vector<Table> out = {
      // At the mean of every member: symmetric tables.
      support::MakeTable({{1, 1}, {1, 1}}), support::MakeTable({{1, 2, 1}, {2, 4, 2}}),
      support::MakeTable({{1, 0, 1}, {0, 2, 0}, {1, 0, 1}}),
      support::MakeTable({{2, 1, 2}, {1, 3, 1}}),
      // Extremes: all mass on the diagonals.
      support::MakeTable({{3, 0}, {0, 3}}), support::MakeTable({{0, 0, 2}, {0, 2, 0}, {2, 0, 0}}),
  };
  while (static_cast<int>(out.size()) < count) {
    std::uniform_int_distribution<int> rr(2, 4), cc(2, 5);
    const int r = rr(rng), c = cc(rng);
    std::uniform_int_distribution<int> nn(std::max(r, c), 20);
    const Table t = out.size() % 2 ? support::RandomSkewedTable(rng, r, c, nn(rng))
                                   : support::RandomTable(rng, r, c, nn(rng));
    if (support::CountTables(support::RowTotals(t), support::ColTotals(t), 200000) > 200000)
      continue;
    out.push_back(t);
  }
  return out;
}

TEST(OrdinalFamily, ExactMassesMatchEnumeration) {
  std::mt19937_64 rng(20261123);
  const std::vector<Table> tables = CaseTables(rng, 210);
  uint64_t enumerated = 0;
  for (const Member* m : {&kGamma, &kKendall}) {
    int at_mean = 0;
    for (const Table& t : tables) {
      const Masses ref = Enumerate(*m, t);
      enumerated += ref.tables;
      const std::string what = support::Describe(t) + " procedure " + std::to_string(m->proc);
      at_mean += ref.low_point == ref.high_point && ref.middle == 0;
      if (m->proc == 50) ExpectPassMasses<assoc::GammaRun>(t, ref, what);
      if (m->proc == 49) ExpectPassMasses<assoc::KendallRun>(t, ref, what);
      HostCall call(m->proc, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      ASSERT_EQ(f[48], 0.0) << what;
      const long double two = ref.above + ref.high_point + ref.below + ref.low_point;
      ExpectNear(f[16], std::min<long double>(two, 1), what + " two-sided");
    }
    EXPECT_GE(at_mean, 4) << m->proc;
  }
  EXPECT_GT(enumerated, 100000u);
}

}  // namespace
}  // namespace anvl
