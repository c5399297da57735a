// The failure codes of the association procedures on bad input: nothing
// published, no spill file left behind.
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
