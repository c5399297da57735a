// The 2 x 2 runs of Pearson's X^2 and Fisher's test: the published slots on
// hand-computed tables, the failures, and agreement with enumeration and
// with R's fisher.test and chisq.test.
#include "network/two_by_two.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "support/enumerate.h"
#include "support/ref_data.h"

namespace anvl::net {
namespace {

using support::Table;

// Log sums over a few hundred terms keep about 12 digits.
constexpr double kRelTol = 1e-9;

thread_local std::vector<std::string> t_lines;
void KeepText(const char* text, int32_t*, int64_t*, int64_t length) {
  t_lines.emplace_back(text, static_cast<size_t>(length));
}

class TwoByTwoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetStore();
    Host() = HostContact{};
    Host().text = KeepText;
    t_lines.clear();
    StartTimeLimit();
    StartTicks();
  }
  void TearDown() override { Host() = HostContact{}; }
  static double V(int s) { return Slot(s).value; }
};

// Column-major cells of the rows (x11 x12) and (x21 x22).
std::vector<int64_t> Cells(int64_t x11, int64_t x12, int64_t x21, int64_t x22) {
  return {x11, x21, x12, x22};
}

// Rows 3 1 / 1 3: P(x) = 1/70, 16/70, 36/70, 16/70, 1/70 for x = 0..4.  The
// p-values and the cell's tail, which both runs share, are in TailSideAndTies;
// X2, the cell, its range and mean in the host's record, peer_values_test.
TEST_F(TwoByTwoTest, WorkedTableByHand) {
  const std::vector<int64_t> t = Cells(3, 1, 1, 3);
  ASSERT_EQ(TwoByTwoPearsonRun(t.data()), 0);
  EXPECT_NEAR(V(slot::kAsymTwoSided), 0.15729920705028447, 1e-13);  // R: pchisq(2, 1, lower = FALSE)
  EXPECT_NEAR(V(slot::kAsymOneSided), 0.15729920705028447 / 2, 1e-13);
  EXPECT_NEAR(V(slot::kCellSd), 0.7559289460184544, 1e-14);  // sqrt(4 x 4 x (2 / 8) / 7)
  EXPECT_EQ(Word(word::kRowsPublished), 2);
  EXPECT_EQ(Word(word::kColumnsPublished), 2);
  EXPECT_EQ(Word(word::kDegreesOfFreedom), 1);
  EXPECT_EQ(Word(word::kPublishedCode), 7);
  EXPECT_TRUE(t_lines.empty());

  ResetStore();
  ASSERT_EQ(TwoByTwoFisherRun(t.data()), 0);
  // -2 ((4 log 4) / 2 + log sqrt(2 pi) - 1.5 log 8 + log 16 - log 70), in R
  EXPECT_NEAR(V(slot::kStatistic), 1.8070831536391809, 1e-12);
  EXPECT_NEAR(V(slot::kAsymTwoSided), 0.17885852950946121, 1e-12);
  EXPECT_NEAR(V(slot::kAsymOneSided), 0.17885852950946121 / 2, 1e-12);
  EXPECT_NEAR(V(slot::kTableProbability), 16.0 / 70, 1e-13);
  EXPECT_EQ(Word(word::kPublishedCode), 32);
  ASSERT_FALSE(t_lines.empty());  // the first tick of a run always reports
  for (const std::string& line : t_lines) EXPECT_EQ(line, "Processing...");
}

// The side of the cell's tail, the empty tail at lo, and ties in X^2, by
// hand from the hypergeometric probabilities; the same under both runs.
TEST_F(TwoByTwoTest, TailSideAndTies) {
  struct Case {
    std::vector<int64_t> cells;
    int64_t side;
    double one_sided, cell_point, exact, point;
    const char* source;
  };
  const Case cases[] = {
      {Cells(3, 1, 1, 3), 2, 17.0 / 70, 16.0 / 70, 34.0 / 70, 32.0 / 70,
       "x11 above the mean: side 2, P(X >= 3); x = 1, 3 tie at X^2 = 2, x = 0, 4 above"},
      {Cells(2, 2, 2, 2), 1, 53.0 / 70, 36.0 / 70, 1.0, 36.0 / 70,
       "x11 at the mean: side 1, P(X <= 2); X^2 = 0 is the least"},
      {Cells(0, 4, 4, 0), 1, 1.0 / 70, 1.0 / 70, 2.0 / 70, 2.0 / 70,
       "x11 = lo: the left tail is empty; x = 0 and 4 tie at X^2 = 8"},
      {Cells(1, 0, 0, 1), 2, 0.5, 0.5, 1.0, 1.0,
       "N 2: both tables have X^2 = 2, so p = point = 1"},
      {Cells(1, 3, 3, 1), 1, 17.0 / 70, 16.0 / 70, 34.0 / 70, 32.0 / 70,
       "x11 below the mean: side 1, mirror of rows 3 1 / 1 3"},
  };
  for (const Case& c : cases) {
    for (auto run : {TwoByTwoPearsonRun, TwoByTwoFisherRun}) {
      ResetStore();
      SCOPED_TRACE(std::string(c.source) + (run == TwoByTwoFisherRun ? ", Fisher" : ", Pearson"));
      ASSERT_EQ(run(c.cells.data()), 0);
      EXPECT_EQ(Word(word::kTailSide), c.side);
      EXPECT_EQ(Word(word::kPublishedMethod), 1);
      EXPECT_NEAR(V(slot::kCellOneSided), c.one_sided, 1e-13);
      EXPECT_NEAR(V(slot::kCellPoint), c.cell_point, 1e-13);
      EXPECT_NEAR(V(slot::kExactTwoSided), c.exact, 1e-13);
      EXPECT_NEAR(V(slot::kPointProbability), c.point, 1e-13);
    }
  }
}

// A margin below 1, a negative cell or an overflowing total is -1, and
// nothing is published.
TEST_F(TwoByTwoTest, EmptyMarginsFailAndPublishNothing) {
  const int64_t big = INT64_MAX / 2 + 1;
  for (const auto& cells : {Cells(0, 0, 13, 19), Cells(7, 13, 0, 0), Cells(0, 7, 0, 19), Cells(13, 0, 7, 0),
                            Cells(7, -1, 13, 19), Cells(big, 1, big, 1)})
    for (auto run : {TwoByTwoPearsonRun, TwoByTwoFisherRun}) {
      ResetStore();
      SCOPED_TRACE(support::Describe(support::FromColumnMajor(2, 2, cells)));
      EXPECT_EQ(run(cells.data()), -1);
      EXPECT_EQ(Slot(slot::kStatistic).status, kStatusUnpublished);
      EXPECT_EQ(Slot(slot::kExactTwoSided).status, kStatusUnpublished);
      EXPECT_EQ(Word(word::kPublishedMethod), 0);
    }
}

// Random tables against enumeration of the first cell's range: Pearson's
// tails at the relative tolerance 1e-7, Fisher's p-value and the point
// probabilities, and the one-sided tail of the cell on its side.
TEST_F(TwoByTwoTest, AgreesWithEnumeration) {
  std::mt19937_64 rng(20240611);
  for (int k = 0; k < 300; ++k) {
    const int64_t n = k < 250 ? 2 + static_cast<int64_t>(rng() % 199)
                              : 400 + static_cast<int64_t>(rng() % 1100);  // DNLGAM above 500
    const Table t = k % 2 ? support::RandomTable(rng, 2, 2, n)
                          : support::RandomSkewedTable(rng, 2, 2, n);
    const std::vector<int64_t> cells = support::ColumnMajor(t);
    SCOPED_TRACE(support::Describe(t));
    const int64_t x11 = t.at(0, 0), a = t.at(0, 0) + t.at(0, 1), b = t.at(1, 0) + t.at(1, 1),
                  c = t.at(0, 0) + t.at(1, 0);

    const auto pearson = support::PearsonTails(t, 1e-7, 0.0);
    const auto cell = support::EnumerateTails(
        t, [](const Table& u) { return static_cast<double>(u.at(0, 0)); }, 0.0, 0.25);
    // log C(a, x) C(b, c - x), the weight the Fisher run compares.
    auto weight = [&](const Table& u) {
      const int64_t x = u.at(0, 0);
      auto lf = [](int64_t m) { return std::lgamma(static_cast<double>(m) + 1.0); };
      return lf(a) - lf(x) - lf(a - x) + lf(b) - lf(c - x) - lf(b - c + x);
    };
    const auto ties = support::EnumerateTails(t, weight, 1e-7, 0.0);
    const auto fisher = support::FisherExact(t);
    const bool high = static_cast<double>(x11) * static_cast<double>(a + b) >
                      static_cast<double>(a) * static_cast<double>(c);
    const long double one_sided = cell.equal + (high ? cell.above : cell.below);
    // The slot against an enumerated probability, capped at 1, to kRelTol.
    auto expect = [&](int s, long double p, const char* what) {
      const double e = static_cast<double>(p);
      EXPECT_NEAR(V(s), std::min(e, 1.0), kRelTol * e) << what;
    };

    ResetStore();
    ASSERT_EQ(TwoByTwoPearsonRun(cells.data()), 0);
    EXPECT_NEAR(V(slot::kStatistic), support::PearsonX2(t), 1e-12 * support::PearsonX2(t) + 1e-13);
    expect(slot::kExactTwoSided, pearson.above + pearson.equal, "Pearson p");
    expect(slot::kPointProbability, pearson.equal, "Pearson point");
    expect(slot::kCellPoint, cell.equal, "Pearson cell point");
    expect(slot::kCellOneSided, one_sided, "Pearson cell tail");
    EXPECT_EQ(Word(word::kTailSide), high ? 2 : 1);

    ResetStore();
    ASSERT_EQ(TwoByTwoFisherRun(cells.data()), 0);
    expect(slot::kExactTwoSided, fisher.pValue, "Fisher p");
    expect(slot::kTableProbability, fisher.pointProb, "Fisher table");
    expect(slot::kPointProbability, ties.equal, "Fisher point");
    expect(slot::kCellOneSided, one_sided, "Fisher cell tail");
  }
}

// R's chisq.test(correct = FALSE) on the committed 2 x 2 tables
// (tests/data/gen_table_refs.R); fisher.test is held against the host's
// record in peer_values_test.
TEST_F(TwoByTwoTest, PearsonAgreesWithR) {
  int seen = 0;
  for (const support::ChisqRef& r : support::LoadChisqRefs()) {
    if (r.rows != 2 || r.cols != 2) continue;
    ++seen;
    ResetStore();
    ASSERT_EQ(TwoByTwoPearsonRun(r.cells.data()), 0) << r.id;
    EXPECT_NEAR(V(slot::kStatistic), r.x2, 1e-12 * r.x2) << r.id << ": " << support::Describe(r.table());
    EXPECT_NEAR(V(slot::kAsymTwoSided), r.p, kRelTol * r.p) << r.id;
  }
  EXPECT_GE(seen, 1);
}

}  // namespace
}  // namespace anvl::net
