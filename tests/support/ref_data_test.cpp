// Cross-checks of the committed peer values (R) against the brute-force
// enumerator and closed forms. The two sources are independent, so agreement
// vouches for both the data files and the enumerator.
#include "support/ref_data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "support/enumerate.h"

namespace anvl::support {
namespace {

// Double sums of at most 30 cell terms in different orders.
constexpr double kStatRelTol = 1e-12;
// Closed-form chi-square tails in long double against R's pchisq.
constexpr double kTailRelTol = 1e-12;
// R's network algorithm sums in double; with the same set of tables counted
// the two agree to about 1e-13 (its tie margin and ours pick the same tables).
constexpr double kFisherRelTol = 1e-12;
// Tables enumerated per Fisher case at most: keeps the test near a second.
constexpr uint64_t kMaxTables = 3'000'000;

// Upper tail of chi-square with df degrees of freedom, by the closed forms
// Q(x; 1) = erfc(sqrt(x/2)), Q(x; 2) = exp(-x/2) and the recurrence
// Q(x; v + 2) = Q(x; v) + (x/2)^(v/2) exp(-x/2) / Gamma(v/2 + 1).
double ChiSquareUpper(long double x, int df) {
  int v = df % 2 == 1 ? 1 : 2;
  long double q = v == 1 ? erfcl(sqrtl(x / 2)) : expl(-x / 2);
  for (; v < df; v += 2) q += expl((v / 2.0L) * logl(x / 2) - x / 2 - lgammal(v / 2.0L + 1));
  return static_cast<double>(q);
}

void ExpectRelNear(double actual, double expected, double rel, const char* what) {
  EXPECT_NEAR(actual, expected, rel * std::max(1e-300, std::fabs(expected))) << what;
}

TEST(ReferenceData, AgreesWithEnumerationAndClosedForms) {
  const std::vector<ChisqRef> chisq = LoadChisqRefs();
  ASSERT_GE(chisq.size(), 25u);
  for (const ChisqRef& r : chisq) {
    const Table t = r.table();
    SCOPED_TRACE(r.id + " " + Describe(t));
    const double x2 = PearsonX2(t), phi2 = x2 / static_cast<double>(GrandTotal(t));
    ExpectRelNear(x2, r.x2, kStatRelTol, "X2");
    if (r.x2 == 0.0) {
      EXPECT_LT(x2, 1e-13) << "table of independence";
    }
    EXPECT_EQ(r.df, (r.rows - 1) * (r.cols - 1));
    ExpectRelNear(ChiSquareUpper(x2, r.df), r.p, kTailRelTol, "p");
    ExpectRelNear(std::sqrt(phi2), r.phi, kStatRelTol, "phi");
    ExpectRelNear(std::sqrt(phi2 / (1 + phi2)), r.contingency, kStatRelTol, "contingency");
    ExpectRelNear(std::sqrt(phi2 / (std::min(r.rows, r.cols) - 1)), r.cramerV, kStatRelTol, "V");
  }

  const std::vector<FisherRef> fisher = LoadFisherRefs();
  ASSERT_GE(fisher.size(), 20u);
  int checked = 0;
  for (const FisherRef& r : fisher) {
    const Table t = r.table();
    SCOPED_TRACE(r.id + " " + Describe(t));
    if (CountTables(RowTotals(t), ColTotals(t), kMaxTables) > kMaxTables) continue;
    ExpectRelNear(static_cast<double>(FisherPValue(t)), r.p, kFisherRelTol, "Fisher p");
    ++checked;
  }
  // Every 2 x 2 case and the small r x c ones (17 in the file) fit the limit.
  EXPECT_GE(checked, 17);

  const std::vector<MedianRef> median = LoadMedianRefs();
  ASSERT_GE(median.size(), 5u);
  for (const MedianRef& r : median) {
    const Table t = r.table();
    SCOPED_TRACE(r.id + " " + Describe(t) + " cut " + std::to_string(r.cut));
    // Collapse: levels strictly above the cut, then the rest of each row.
    Table collapsed{r.rows, 2, {}};
    for (int i = 0; i < r.rows; ++i) {
      int64_t above = 0, rest = 0;
      for (int j = 0; j < r.cols; ++j) (r.scores[j] > r.cut ? above : rest) += t.at(i, j);
      collapsed.cells.insert(collapsed.cells.end(), {above, rest});
    }
    EXPECT_EQ(ColumnMajor(collapsed), r.collapsed);
    const double x2 = PearsonX2(r.collapsedTable());
    ExpectRelNear(x2, r.x2, kStatRelTol, "X2 of the collapsed table");
    EXPECT_EQ(r.df, r.rows - 1);
    ExpectRelNear(ChiSquareUpper(x2, r.df), r.p, kTailRelTol, "p");
  }
}

}  // namespace
}  // namespace anvl::support
