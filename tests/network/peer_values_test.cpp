// The contingency procedures against R (chisq.test, vcd::assocstats,
// fisher.test; values committed by tests/data/gen_table_refs.R), and the
// Monte Carlo and 2 x 2 routes from the host's side.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "anvlwtq.h"
#include "kernel/log_factorial.h"
#include "network/pearson.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::support::HostCall;
using anvl::support::Table;
constexpr double kMissing = anvl::support::kTestFiller;

double Rel(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

TEST(PeerValues, ChiSquareAndNominalMeasuresAgreeWithR) {
  const auto refs = anvl::support::LoadChisqRefs();
  ASSERT_GE(refs.size(), 20u);
  anvl::LogFactorialTable lf;
  anvl::BuildLogFactorials(lf);
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.id);
    // X^2 and its asymptotic p-value, from the asymptotic route itself.
    std::vector<int64_t> cells = ref.cells;
    int64_t cols = ref.cols;
    anvl::net::AsymptoticResult a;
    ASSERT_EQ(anvl::net::AsymptoticRoute(cells, ref.rows, cols, anvl::net::kPearsonChiSquare,
                                         nullptr, lf.data(), a),
              0);
    EXPECT_LE(Rel(a.x2, ref.x2), 1e-12) << a.x2 << " vs " << ref.x2;
    EXPECT_EQ(a.df, ref.df);
    if (ref.x2 > 0) {
      EXPECT_LE(Rel(a.p, ref.p), 1e-10) << a.p << " vs " << ref.p;
    }
    // Phi, the contingency coefficient and Cramer's V, from the host.
    HostCall h(TQ_PROC_NOMINAL, TQ_METHOD_ASYMPTOTIC);
    const double* r = h.Run(ref.table());
    ASSERT_EQ(r[48], 0.0);
    EXPECT_NEAR(r[6], ref.phi, 1e-12 * ref.phi + 1e-15);
    EXPECT_NEAR(r[0], ref.contingency, 1e-12 * ref.contingency + 1e-15);
    EXPECT_NEAR(r[24], ref.cramerV, 1e-12 * ref.cramerV + 1e-15);
  }
}

TEST(PeerValues, MedianTestAgreesWithR) {
  const auto refs = anvl::support::LoadMedianRefs();
  ASSERT_GE(refs.size(), 5u);
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.id);
    HostCall h(TQ_PROC_MEDIAN, TQ_METHOD_ASYMPTOTIC);
    h.MedianCut(ref.scores, ref.cut);
    const double* r = h.Run(ref.table());
    ASSERT_EQ(r[48], 0.0);
    EXPECT_LE(Rel(r[0], ref.x2), 1e-12);
  }
}

TEST(PeerValues, FisherAgreesWithR) {
  const auto refs = anvl::support::LoadFisherRefs();
  ASSERT_GE(refs.size(), 20u);
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.id);
    HostCall h(TQ_PROC_FISHER, TQ_METHOD_EXACT);
    const double* r = h.Run(ref.table());
    ASSERT_EQ(r[48], 0.0);
    // R sums the tables within a relative 1e-7 of the observed probability;
    // the network within 1e-5 in logs: they agree far below 1e-6.  A 2 x 2
    // table takes the direct walk, whose log sums keep about 12 digits.
    EXPECT_NEAR(r[16], ref.p, ref.rows * ref.cols == 4 ? 1e-9 * ref.p : 1e-8)
        << anvl::support::Describe(ref.table());
  }
}

// Rows 3 1 / 1 3 (by hand in two_by_two_test): the record of 7 carries the
// cell, its range, mean and side, and its one-sided value; Fisher's test
// takes the direct path whatever the method; 507 shows the short record.
TEST(TwoByTwoFromTheHost, WorkedTableUnderBothRuns) {
  const Table t = anvl::support::MakeTable({{3, 1}, {1, 3}});
  HostCall chisq(TQ_PROC_CHISQ, TQ_METHOD_EXACT), fisher(TQ_PROC_FISHER, TQ_METHOD_MONTE_CARLO),
      short_form(TQ_PROC_CHISQ_SHORT, TQ_METHOD_EXACT);
  const double* r = chisq.Run(t);
  const std::pair<int, double> fields[] = {{48, 0.0}, {0, 2.0},  {6, 3.0},          {8, 2.0},
                                           {10, 4.0}, {11, 0.0}, {12, 2.0},         {15, 17.0 / 70},
                                           {16, 34.0 / 70},      {17, 32.0 / 70}};
  for (const auto& [i, v] : fields) EXPECT_NEAR(r[i], v, 1e-14) << "field " << i;
  r = fisher.Run(t);
  EXPECT_EQ(r[48], 0.0);
  EXPECT_NEAR(r[16], 34.0 / 70, 1e-14);
  EXPECT_EQ(r[21], kMissing);
  r = short_form.Run(t);
  EXPECT_NEAR(r[16], 34.0 / 70, 1e-14);
  EXPECT_EQ(r[6], kMissing);
  EXPECT_EQ(r[15], kMissing);
}

// Monte Carlo estimates from the host lie within 4 standard errors of the
// exact p-value (a false alarm has probability about 6e-5 per check), and a
// seed repeats its run; the median test draws on its collapsed table.
TEST(MonteCarloFromTheHost, EstimatesBracketTheExactValue) {
  const Table tables[] = {
      anvl::support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}}),
      anvl::support::MakeTable({{4, 0, 2, 1}, {1, 3, 0, 2}, {0, 2, 3, 1}}),
      anvl::support::MakeTable({{1, 2, 1, 0}, {3, 3, 6, 1}, {10, 10, 14, 9}, {6, 7, 12, 11}}),
      anvl::support::MakeTable({{3, 5, 2, 1}, {4, 1, 6, 2}, {1, 2, 2, 5}}),
  };
  constexpr int64_t kSamples = 20000;
  for (const Table& t : tables) {
    SCOPED_TRACE(anvl::support::Describe(t));
    for (int64_t procedure : {TQ_PROC_CHISQ, TQ_PROC_NOMINAL, TQ_PROC_FISHER, TQ_PROC_MEDIAN}) {
      if ((procedure == TQ_PROC_MEDIAN) != (&t == &tables[3])) continue;  // the last table is the median test's
      HostCall exact(procedure, TQ_METHOD_EXACT);
      if (procedure == TQ_PROC_MEDIAN) exact.MedianCut({1, 2, 3, 4}, 2.5);
      const double p = exact.Run(t)[16];
      HostCall mc = exact;
      mc.MonteCarlo(kSamples, 12345, 0.99);
      const double* r = mc.Run(t);
      ASSERT_EQ(r[48], 0.0);
      const double se = std::sqrt(p * (1 - p) / kSamples);
      EXPECT_NEAR(r[21], p, 4 * se) << "procedure " << procedure;
      EXPECT_LE(r[22], r[21]);
      EXPECT_GE(r[23], r[21]);
      EXPECT_EQ(r[16], kMissing);
      const double first = r[21];
      EXPECT_EQ(mc.Run(t)[21], first);
    }
  }
}

}  // namespace
