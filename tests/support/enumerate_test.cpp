// Self-checks of the brute-force table enumerator against hand computations
// and published values, so that other tests can trust it as a reference.
#include "support/enumerate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace anvl::support {
namespace {

double D(long double x) { return static_cast<double>(x); }

TEST(EnumerateTables, HandAndPublishedTables) {
  // Margins 4, 4 / 4, 4: x11 = k has P = C(4,k) C(4,4-k) / C(8,4) (by hand).
  const Table observed = MakeTable({{3, 1}, {1, 3}});
  std::vector<long double> byX11(5, -1.0L);
  EXPECT_EQ(EnumerateTables({4, 4}, {4, 4}, [&](const Table& t, long double p) { byX11[t.at(0, 0)] = p; }), 5u);
  const double hand[5] = {1.0 / 70, 16.0 / 70, 36.0 / 70, 16.0 / 70, 1.0 / 70};
  for (int k = 0; k < 5; ++k) EXPECT_NEAR(D(byX11[k]), hand[k], 1e-17) << "x11 = " << k;
  // Fisher: the tables no more probable than 16/70: 1 + 16 + 16 + 1.
  const FisherResult f = FisherExact(observed);
  EXPECT_NEAR(D(f.pValue), 34.0 / 70, 1e-16);
  EXPECT_NEAR(D(f.pointProb), 16.0 / 70, 1e-17);
  // X2 of these tables: 8 (x11 = 0, 4), 2 (1, 3), 0 (2); obs = 2 (by hand).
  struct Band {
    double rel, abs, above, equal, below;
    const char* source;
  } bands[] = {{0.0, 1e-9, 2.0 / 70, 32.0 / 70, 36.0 / 70, "a tight band"},
               {0.0, 2.5, 2.0 / 70, 68.0 / 70, 0.0, "an absolute band of 2.5 takes in X2 = 0"},
               {1.5, 0.0, 2.0 / 70, 68.0 / 70, 0.0, "a relative band of 1.5 x 2 reaches X2 = 0"}};
  for (const Band& b : bands) {
    const TailResult tails = EnumerateTails(observed, PearsonX2, b.rel, b.abs);
    EXPECT_NEAR(D(tails.above), b.above, 1e-17) << b.source;
    EXPECT_NEAR(D(tails.equal), b.equal, 1e-17) << b.source;
    EXPECT_NEAR(D(tails.below), b.below, 1e-17) << b.source;
  }

  // Published worked example of the exact Pearson and Fisher tests, 3 x 3,
  // N = 14, to 9 decimals; the tie band is 5e-5 in single precision.
  const Table t = MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  EXPECT_NEAR(PearsonX2(t), 7.275, 1e-12);
  const TailResult tails = EnumerateTails(t, PearsonX2, 4.999999873689376e-05, 0.0);
  EXPECT_NEAR(D(tails.above), 0.134199134, 5e-10);
  EXPECT_NEAR(D(tails.equal), 0.023310023, 5e-10);
  EXPECT_NEAR(D(tails.above + tails.equal + tails.below), 1.0, 1e-15);
  EXPECT_NEAR(D(FisherPValue(t)), 0.154179154, 5e-10);

  // The engine's cell order runs the row index fastest.
  const Table two = MakeTable({{1, 2, 3}, {4, 5, 6}});
  EXPECT_EQ(ColumnMajor(two), (std::vector<int64_t>{1, 4, 2, 5, 3, 6}));
  EXPECT_EQ(FromColumnMajor(2, 3, ColumnMajor(two)).cells, two.cells);
}

TEST(EnumerateTables, CountsMatchClosedForms) {
  struct Case {
    std::vector<int64_t> rowTotals, colTotals;
    uint64_t count;
    const char* source;
  } cases[] = {
      {{5, 5, 5}, {5, 5, 5}, 231, "3 x 3, all margins n: (n+1)(n+2)(n^2+3n+4)/8 at n = 5"},
      {{4, 6}, {2, 3, 5}, 11, "first rows (x1 <= 2, x2 <= 3, x3 <= 5) summing to 4, by hand"},
      {{1, 1, 1, 1, 1}, {1, 1, 1, 1, 1}, 120, "permutation matrices, 5!"},
      {{7}, {2, 5}, 1, "one row: the column totals"},
      {{0, 3}, {3, 0}, 1, "zero margins leave one table"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    long double total = 0;
    std::set<std::vector<int64_t>> seen;
    EXPECT_EQ(EnumerateTables(c.rowTotals, c.colTotals,
                              [&](const Table& t, long double p) {
                                total += p;
                                seen.insert(t.cells);
                                EXPECT_EQ(RowTotals(t), c.rowTotals) << Describe(t);
                                EXPECT_EQ(ColTotals(t), c.colTotals) << Describe(t);
                              }),
              c.count);
    EXPECT_EQ(seen.size(), c.count) << "a table was visited twice";
    EXPECT_EQ(CountTables(c.rowTotals, c.colTotals, 1000000), c.count);
    EXPECT_NEAR(D(total), 1.0, 1e-15);
  }
  // Counting stops just past the limit (2 x 10^9 tables with these margins).
  EXPECT_EQ(CountTables({6, 6, 6, 6, 6}, {5, 5, 5, 5, 5, 5}, 1000), 1001u);
}

// Random tables: the observed table is visited with its own probability, the
// masses sum to one, the fast Pearson walk splits the mass as the generic one.
TEST(EnumerateTables, RandomMarginsSumToOneAndFastPathAgrees) {
  std::mt19937_64 rng(20240611);
  const int shapes[][3] = {{2, 2, 15}, {2, 5, 12}, {3, 4, 14}, {4, 3, 10}, {4, 5, 11}, {5, 6, 10}};
  for (const auto& s : shapes) {
    for (int rep = 0; rep < 6; ++rep) {
      const Table t = rep % 2 ? RandomSkewedTable(rng, s[0], s[1], s[2]) : RandomTable(rng, s[0], s[1], s[2]);
      SCOPED_TRACE(Describe(t));
      ASSERT_EQ(GrandTotal(t), s[2]);
      for (int64_t r : RowTotals(t)) ASSERT_GE(r, 1);
      for (int64_t c : ColTotals(t)) ASSERT_GE(c, 1);
      long double total = 0;
      const long double pObs = expl(LogTableProbability(t));
      int found = 0;
      EnumerateTables(RowTotals(t), ColTotals(t), [&](const Table& x, long double p) {
        total += p;
        if (x.cells == t.cells) found += std::fabs(D(p / pObs) - 1.0) <= 1e-15 ? 1 : 100;
      });
      EXPECT_EQ(found, 1) << "observed table not visited once with its probability";
      EXPECT_NEAR(D(total), 1.0, 1e-15);
      const TailResult generic = EnumerateTails(t, PearsonX2, 4.999999873689376e-05, 0.0);
      const TailResult fast = PearsonTails(t, 4.999999873689376e-05, 0.0);
      EXPECT_EQ(generic.tables, fast.tables);
      EXPECT_NEAR(D(generic.above), D(fast.above), 1e-15);
      EXPECT_NEAR(D(generic.equal), D(fast.equal), 1e-15);
      EXPECT_NEAR(D(generic.below), D(fast.below), 1e-15);
      EXPECT_GE(generic.equal, pObs * (1 - 1e-15L)) << "observed table outside its own tie band";
      const FisherResult f = FisherExact(t);
      EXPECT_GE(f.pValue, f.pointProb * (1 - 1e-15L));
      EXPECT_LE(f.pValue, 1.0L + 1e-15L);
    }
  }
}

}  // namespace
}  // namespace anvl::support
