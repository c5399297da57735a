// What the association procedures share from the host's side: the Monte
// Carlo route against the exact one, and the failure codes of bad input
// (nothing published, no spill file left behind).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <vector>

#include "support/enumerate.h"
#include "support/host_call.h"

namespace anvl {
namespace {

using support::HostCall;
using support::MakeTable;
using support::Table;

constexpr int kLinear[] = {41, 47, 48}, kOrdinal[] = {50, 49, 20, 21}, kNominal[] = {40, 45, 43, 46};

// Estimates within 4 standard errors of the exact values (two-sided, and
// one-sided where the record shows it), inside their interval; the same
// seed repeats the record but the elapsed time; no exact value beside them.
TEST(AssociationRoutes, MonteCarloAgreesWithExactAndRepeats) {
  const Table t = MakeTable({{4, 2, 1, 0}, {2, 3, 3, 1}, {0, 1, 3, 5}, {1, 0, 2, 2}});
  std::vector<int> procs(std::begin(kLinear), std::end(kLinear));
  procs.insert(procs.end(), std::begin(kOrdinal), std::end(kOrdinal));
  procs.insert(procs.end(), std::begin(kNominal), std::end(kNominal));
  for (int proc : procs) {
    SCOPED_TRACE("procedure " + std::to_string(proc));
    auto call = [&](int64_t method) {
      HostCall c(proc, method);
      if (proc == 41 || proc == 47) c.row_scores = {-1, 0.5, 4, 6}, c.scores = {0, 1, 3, 7};
      return c;
    };
    HostCall exact = call(TQ_METHOD_EXACT), mc = call(TQ_METHOD_MONTE_CARLO);
    exact.Run(t);
    const std::vector<double> e(exact.f, exact.f + TQ_RECORD_LENGTH);
    ASSERT_EQ(e[48], 0.0);
    mc.MonteCarlo(20000, 4711, 0.99);
    mc.Run(t);
    const std::vector<double> a(mc.f, mc.f + TQ_RECORD_LENGTH);
    ASSERT_EQ(a[48], 0.0);
    mc.Run(t);
    for (int i = 0; i < TQ_RECORD_LENGTH; ++i)
      if (i < 42 || i > 44) {
        EXPECT_EQ(mc.f[i], a[i]) << "field " << i;
      }
    std::vector<std::pair<int, int>> pairs = {{21, 16}};
    if (proc == 41 || proc == 20) pairs.push_back({18, 15});
    for (auto [est, ex] : pairs) {
      const double se = std::sqrt(e[ex] * (1 - e[ex]) / 20000.0);
      EXPECT_LE(std::fabs(a[est] - e[ex]), 4 * se + 1e-12) << "field " << est;
      EXPECT_LT(a[est + 1], a[est]);
      EXPECT_GT(a[est + 2], a[est]);
    }
    EXPECT_EQ(a[0], e[0]);
    EXPECT_EQ(a[16], support::kTestFiller);
  }
  // The observed value at its mean: every drawn table is a two-sided hit.
  HostCall all(41, TQ_METHOD_MONTE_CARLO);
  all.MonteCarlo(500, 7, 0.99);
  const double* f = all.Run(MakeTable({{1, 2, 1}, {2, 4, 2}}));
  ASSERT_EQ(f[48], 0.0);
  EXPECT_EQ(f[21], 1.0);
  EXPECT_DOUBLE_EQ(f[22], std::pow(0.01, 1.0 / 500));
  EXPECT_EQ(f[23], 1.0);
  // The most extreme table of a large sample: no drawn table reaches it.
  HostCall none(41, TQ_METHOD_MONTE_CARLO);
  none.MonteCarlo(500, 7, 0.99);
  f = none.Run(MakeTable({{12, 0, 0}, {0, 12, 0}, {0, 0, 12}}));
  ASSERT_EQ(f[48], 0.0);
  EXPECT_EQ(f[18], 0.0);
  EXPECT_EQ(f[19], 0.0);
  EXPECT_DOUBLE_EQ(f[20], 1.0 - std::pow(0.01, 1.0 / 500));
  EXPECT_EQ(f[21], 0.0);
  // 40 on a 2 x 2 table walks its cell whatever the method asks.
  HostCall walk(40, TQ_METHOD_MONTE_CARLO);
  walk.MonteCarlo(100, 1, 0.99);
  f = walk.Run(MakeTable({{3, 1}, {1, 3}}));
  EXPECT_NEAR(f[16], 34.0 / 70, 1e-14);  // the law 1 16 36 16 1 over 70: H ties at 0 and 4
  EXPECT_NEAR(f[15], 17.0 / 70, 1e-14);  // the cell's upper tail
  EXPECT_EQ(f[12], 2.0);
  EXPECT_EQ(f[6], 3.0);
  EXPECT_EQ(f[8], 2.0);
  EXPECT_EQ(f[21], support::kTestFiller);
}

TEST(AssociationRoutes, BadInputGetsItsFailureCode) {
  const std::string spill =
      (std::filesystem::temp_directory_path() / "anvl_association_test.spill").string();
  std::filesystem::remove(spill);
  const std::vector<int64_t> wide(128, 1);  // one stage more than the networks take
  const double inf = HUGE_VAL;
  struct Case {
    Table t;
    std::vector<int> procs;
    double field48;
    bool exact_only = false;  // the asymptotic route runs
    std::vector<double> u = {}, v = {};
  };
  const Table one_row = MakeTable({{1, 2, 3}}), one_col = MakeTable({{1}, {2}});
  const Table square = MakeTable({{1, 2}, {3, 4}});
  const std::vector<Case> cases = {
      {one_row, {41, 47, 48, 50, 49, 20, 21, 46}, -1016.0},
      {one_row, {40, 45}, -99.0},
      {one_row, {43}, -912.0},
      {one_col, {41, 47, 48, 50, 49, 20, 46}, -1016.0},
      {one_col, {21}, -1033.0},  // one level: no variance
      {one_col, {40, 45}, -99.0},
      {one_col, {43}, -912.0},
      {MakeTable({{5}}), {40}, -99.0},
      {MakeTable({{5}}), {43}, -1016.0},
      {MakeTable({{1, 2, 1}, {3, 0, 2}}), {43}, -912.0},
      {MakeTable({{1, 2}, {0, 0}}), {41, 47, 48, 50, 49, 20, 21, 40, 45, 46}, -1001.0},
      {MakeTable({{1, 0}, {2, 0}}), {41, 47, 48}, -1001.0},
      {MakeTable({{1, 0, 2}, {2, 0, 1}}), {40, 45, 46}, -1001.0},
      {MakeTable({{0, 0}, {0, 0}}), {43}, -849.0},
      {MakeTable({{1, 2}, {3, -1}}), {41, 47, 48, 50, 49, 20, 21, 40, 45, 43}, -1001.0},
      {MakeTable({{3, -1}, {0, 2}}), {43}, -1001.0},  // every total >= 0
      {MakeTable({{1, 2, 1}, {3, -1, 2}}), {40, 45, 46}, -1001.0},
      {MakeTable({wide, wide}), {41, 47, 48, 50, 49, 20, 21}, -1001.0, true},
      {square, {41, 47}, -1003.0, false, {1, NAN}},
      {square, {41, 47}, -1003.0, false, {}, {0, inf}},
      {square, {41, 47}, -1003.0, false, {1e300, 2e300}, {1e300, 2e300}},
  };
  for (const Case& c : cases)
    for (int proc : c.procs)
      for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
        if (c.exact_only && method != TQ_METHOD_EXACT) continue;
        SCOPED_TRACE(support::Describe(c.t) + " procedure " + std::to_string(proc) + " method " +
                     std::to_string(method));
        HostCall call(proc, method);
        call.spill = spill;
        call.row_scores = c.u;
        call.scores = c.v;
        EXPECT_EQ(call.Run(c.t)[48], c.field48);
        EXPECT_TRUE(call.Published().empty());
        EXPECT_FALSE(std::filesystem::exists(spill));
      }
  // The families read a table only (151), 40 and 45 none of their cases (901).
  for (int proc : {41, 50, 49, 20, 21, 43, 40}) {
    HostCall cases_form(proc, TQ_METHOD_EXACT);
    cases_form.values = {1, 2, 3};
    EXPECT_EQ(cases_form.RunCases()[48], proc == 40 ? -99.0 : -849.0) << proc;
  }
  // MethodCode 0: 46 runs the exact route, 40 the asymptotic one.
  HostCall tau0(46, 0), g0(40, 0);
  const Table t = MakeTable({{3, 1, 0}, {1, 2, 2}, {0, 1, 4}});
  EXPECT_NE(tau0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.f[48], 0.0);
  // A finished exact run leaves no spill file behind either.
  HostCall ok(45, TQ_METHOD_EXACT);
  ok.spill = spill;
  EXPECT_EQ(ok.Run(MakeTable({{3, 1, 2}, {1, 4, 0}, {2, 0, 5}}))[48], 0.0);
  EXPECT_FALSE(std::filesystem::exists(spill));
}

}  // namespace
}  // namespace anvl
