// The failure codes of every family on bad input, by each route that reads
// it: the code in field 48, nothing published, no spill file left behind,
// and the caller's case data as the failure leaves it.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace anvl {
namespace {

using support::HostCall;
using support::MakeTable;
using support::Table;

// The data of a call: a table with its scores, or case data.
struct Input {
  std::optional<Table> table;
  std::vector<double> u, v, values;
  std::vector<int64_t> weights;
  int64_t case_rows = 1, model = 0;
  double p1 = 0, p2 = 0;
};
Input T(const Table& t, std::vector<double> v = {}, std::vector<double> u = {}) {
  Input in;
  in.table = t, in.u = std::move(u), in.v = std::move(v);
  return in;
}
Input V(std::vector<double> values, std::vector<int64_t> weights = {}, int64_t rows = 1) {
  Input in;
  in.values = std::move(values), in.weights = std::move(weights), in.case_rows = rows;
  return in;
}
// The one-sample Kolmogorov-Smirnov test's model (1 uniform, 3 Poisson, 4
// normal, 6 exponential) and sample.
Input Ks(int64_t model, double p1, double p2, std::vector<double> x, std::vector<int64_t> w = {}) {
  Input in = V(std::move(x), std::move(w));
  in.model = model, in.p1 = p1, in.p2 = p2;
  return in;
}

enum Routes { kAll, kExactOnly };

struct Case {
  const char* what;
  std::vector<int64_t> procedures;
  Input in;
  double field48;
  Routes routes = kAll;
  int64_t memory_kb = -1;
  std::optional<std::vector<double>> after = std::nullopt;  // the case data after the call
};

TEST(FailureCodes, BadInputGivesTheCodeAndNothingElse) {
  const std::string spill = (std::filesystem::temp_directory_path() / "anvl_failures_test.spill").string();
  std::filesystem::remove(spill);
  const double nan = NAN, inf = INFINITY;
  const std::vector<int64_t> linear = {41, 47, 48}, two_sample = {1, 2, 502}, marginal = {10, 510};
  const std::vector<int64_t> wide(128, 1);  // one stage more than the networks take
  Table big{2, 10, {}};                     // 200 + 200 on ten levels: more nodes than a 2 MiB grid holds
  for (int64_t x : {19, 22, 18, 21, 20, 23, 17, 20, 22, 18, 21, 18, 20, 22, 19, 17, 23, 21, 18, 21})
    big.cells.push_back(x);
  const Table one_row = MakeTable({{1, 2, 3}}), one_col = MakeTable({{1}, {2}}), square = MakeTable({{1, 2}, {3, 4}});
  const std::vector<Case> cases = {
      // The association procedures (linear 41, 47, 48; ordinal 50, 49, 20,
      // 21; nominal 40, 45, 43, 46).
      {"one row", {41, 47, 48, 50, 49, 20, 21, 46}, T(one_row), -1016.0},
      {"one row", {40, 45}, T(one_row), -99.0},
      {"one row", {43}, T(one_row), -912.0},
      {"one column", {41, 47, 48, 50, 49, 20, 46}, T(one_col), -1016.0},
      {"one level: no variance", {21}, T(one_col), -1033.0},
      {"one column", {40, 45}, T(one_col), -99.0},
      {"one column", {43}, T(one_col), -912.0},
      {"one cell", {40}, T(MakeTable({{5}})), -99.0},
      {"one cell", {43}, T(MakeTable({{5}})), -1016.0},
      {"not square", {43}, T(MakeTable({{1, 2, 1}, {3, 0, 2}})), -912.0},
      {"empty row", {41, 47, 48, 50, 49, 20, 21, 40, 45, 46}, T(MakeTable({{1, 2}, {0, 0}})), -1001.0},
      {"empty column", linear, T(MakeTable({{1, 0}, {2, 0}})), -1001.0},
      {"empty column", {40, 45, 46}, T(MakeTable({{1, 0, 2}, {2, 0, 1}})), -1001.0},
      {"no counts", {43}, T(MakeTable({{0, 0}, {0, 0}})), -849.0},
      {"negative count", {41, 47, 48, 50, 49, 20, 21, 40, 45, 43}, T(MakeTable({{1, 2}, {3, -1}})), -1001.0},
      {"negative count, totals >= 0", {43}, T(MakeTable({{3, -1}, {0, 2}})), -1001.0},
      {"negative count", {40, 45, 46}, T(MakeTable({{1, 2, 1}, {3, -1, 2}})), -1001.0},
      {"128 columns", {41, 47, 48, 50, 49, 20, 21, 7}, T(MakeTable({wide, wide})), -1001.0, kExactOnly},
      {"NaN score", {41, 47}, T(square, {}, {1, nan}), -1003.0},
      {"infinite score", {41, 47}, T(square, {0, inf}), -1003.0},
      {"scores overflow", {41, 47}, T(square, {1e300, 2e300}, {1e300, 2e300}), -1003.0},
      {"case data (151)", {41, 50, 49, 20, 21, 43}, V({1, 2, 3}), -849.0},
      {"case data (901)", {40}, V({1, 2, 3}), -99.0},
      // The score tests (1, 2, 502), paired (one row with differences) and
      // marginal homogeneity (10, 510) with scores, two-sample KS (18).
      {"three rows", two_sample, T(MakeTable({{1, 2}, {3, 4}, {5, 6}})), 216 - 1000.0},
      {"negative count", two_sample, T(MakeTable({{1, -2, 3}, {3, 4, 5}})), -1001.0},
      {"empty second sample", two_sample, T(MakeTable({{1, 2, 3}, {0, 0, 0}})), -1001.0},
      {"no levels", two_sample, T(Table{2, 0, {}}), 216 - 1000.0},
      {"one row without differences", two_sample, T(one_row), -1003.0},
      {"grid too small", {2, 502}, T(big), -1001.0, kExactOnly, 2048},
      {"paired: all zero", {2}, T(Table{1, 2, {3, 2}}, {0, 0}), -1004.0},
      {"paired: negative count", {2}, T(Table{1, 2, {3, -2}}, {1, 2}), -1001.0},
      {"paired: non-finite difference", {2}, T(Table{1, 2, {3, 2}}, {1, nan}), -1003.0},
      {"not square", marginal, T(MakeTable({{1, 2, 3}, {3, 4, 5}}), {1, 2, 3}), 88 - 1000.0},
      {"one row", marginal, T(MakeTable({{4}}), {1}), -1016.0},
      {"nobody moved", marginal, T(MakeTable({{4, 0, 0}, {0, 3, 0}, {0, 0, 2}}), {1, 2, 3}), -1004.0},
      {"equal scores", marginal, T(MakeTable({{4, 2, 0}, {1, 3, 0}, {0, 0, 2}}), {1, 1, 3}), -1004.0},
      {"negative count", marginal, T(MakeTable({{4, -2, 0}, {1, 3, 1}, {0, 2, 2}}), {1, 2, 3}), -1001.0},
      {"negative 2 x 2", marginal, T(MakeTable({{4, -2}, {1, 3}}), {1, 2}), -1001.0},
      {"no moves 2 x 2", marginal, T(MakeTable({{4, 0}, {0, 3}}), {1, 2}), -1004.0},
      {"non-finite score", marginal, T(MakeTable({{4, 2, 0}, {1, 3, 1}, {0, 2, 2}}), {1, nan, 3}), -1003.0},
      {"ks2: three rows", {18}, T(MakeTable({{1, 2}, {2, 1}, {1, 1}})), -784},
      {"ks2: one level (216)", {18}, T(MakeTable({{3}, {2}})), -784},
      {"ks2: one non-empty level (4)", {18}, T(MakeTable({{2, 0, 0}, {3, 0, 0}})), -996},
      {"ks2: empty first sample (902)", {18}, T(MakeTable({{0, 0, 0}, {1, 2, 3}})), -98},
      {"ks2: empty second sample (902)", {18}, T(MakeTable({{1, 2, 3}, {0, 0, 0}})), -98},
      {"ks2: negative count", {18}, T(MakeTable({{1, -1, 3}, {2, 2, 2}})), -1001},
      // The runs tests: one sample (11), two (19).
      {"runs: no values (901)", {11}, V({}), -99},
      {"runs: no observations (901)", {11}, V({1, 2, 3}, {0, 0, 0}), -99},
      {"runs: one distinct value, one side of the cut", {11}, V({2, 2, 2}), -1190},
      {"runs: a value that isn't finite (-3)", {11}, V({1, inf, 3}), -1003},
      {"runs: a negative count (-1003)", {11}, V({1, 2, 3}, {1, -1, 2}), -2003},
      {"runs: two case rows (116)", {11}, V({1, 2, 3, 4}, {}, 2), -884},
      {"wald-wolfowitz: three rows", {19}, T(MakeTable({{1, 2}, {2, 1}, {1, 1}})), -784},
      {"wald-wolfowitz: an empty sample", {19}, T(MakeTable({{0, 0, 0}, {1, 2, 3}})), -784},
      {"wald-wolfowitz: a negative count", {19}, T(MakeTable({{1, -1, 2}, {1, 1, 1}})), -784},
      {"wald-wolfowitz: stage offsets beyond 2 MiB (-1002)", {19}, T(MakeTable({{1000}, {1000}})), -2002,
       kExactOnly, 2048},
      // Related samples (Friedman 24, Cochran 26, Kendall's W 51): constant
      // blocks leave the data, the rest move forward.
      {"one block left", {24}, V({4, 4, 4, 1, 2, 3, 7, 7, 7}, {}, 3), -849.0, kAll, -1,
       std::vector<double>{1, 2, 3, 1, 2, 3, 7, 7, 7}},
      {"one row", {51}, V({1, 2, 3}), -849.0, kAll, -1, std::vector<double>{1, 2, 3}},
      {"no blocks", {24}, V({}, {}, 3), -849.0, kAll, -1, std::vector<double>{}},
      {"a 2 under Cochran's Q", {26}, V({1, 1, 1, 0, 1, 2, 1, 0, 0}, {}, 3), -1035.0, kAll, -1,
       std::vector<double>{0, 1, 2, 1, 0, 0, 1, 0, 0}},
      {"NaN", {24}, V({5, 5, 5, 1, nan, 3, 2, 1, 3}, {}, 3), -1003.0, kAll, -1,
       std::vector<double>{5, 5, 5, 1, nan, 3, 2, 1, 3}},
      {"infinity", {26}, V({1, 1, 0, 1, 0, inf}, {}, 3), -1003.0, kAll, -1,
       std::vector<double>{1, 1, 0, 1, 0, inf}},
      // One-sample Kolmogorov-Smirnov (6).
      {"two case rows", {6}, [] { Input i = Ks(4, 0, 1, {0.1, 0.2, 0.3, 0.4}); i.case_rows = 2; return i; }(),
       -884.0},
      {"uniform a > b", {6}, Ks(1, 2.0, 1.0, {1.5}), -1003.0},
      {"uniform a = b", {6}, Ks(1, 2.0, 2.0, {2.0}), -1003.0},
      {"Poisson mean < 0", {6}, Ks(3, -1.5, 0.0, {1.0}), -1003.0},
      {"normal sd < 0", {6}, Ks(4, 0.0, -2.0, {1.0}), -1003.0},
      {"exponential scale < 0", {6}, Ks(6, -1.0, 0.0, {1.0}), -1003.0},
      {"parameter not a number", {6}, Ks(4, nan, 1.0, {1.0}), -1003.0},
      {"value above b", {6}, Ks(1, 0.0, 1.0, {0.2, 1.5}), -1003.0},
      {"value below a", {6}, Ks(1, 0.5, 1.0, {0.2, 0.7}), -1003.0},
      {"value not a number", {6}, Ks(4, 0.0, 1.0, {0.2, nan}), -1003.0},
      {"infinite value", {6}, Ks(4, 0.0, 1.0, {0.2, inf}), -1003.0},
      {"negative under the Poisson", {6}, Ks(3, 2.0, 0.0, {-1.0, 2.0}), -1014.0},
      {"negative under the exponential", {6}, Ks(6, 2.0, 0.0, {-0.5, 2.0}), -1014.0},
      {"not whole under the Poisson", {6}, Ks(3, 2.0, 0.0, {1.0, 2.5}), -1015.0},
      {"Poisson mean beyond the table", {6}, Ks(3, 60000.0, 0.0, {60000.0}), -1001.0},
      {"empty sample", {6}, Ks(4, 0.0, 1.0, {}), -1001.0},
      {"weights all 0", {6}, Ks(4, 0.0, 1.0, {0.1, 0.2}, {0, 0}), -1001.0},
      {"negative weight", {6}, Ks(4, 0.0, 1.0, {0.1, 0.2}, {3, -1}), -1001.0},
      {"Durbin matrix too large", {6}, Ks(1, 0.0, 1.0, {0.5}, {50000}), -1001.0, kExactOnly},
      // Pearson's X2, the nominal measures, median and Fisher's tests on a
      // table (7, 507, 42, 31, 32), and the one-way test on case data:
      // counts as the weights, expected counts as the values.
      {"empty row", {7, 507, 31, 42, 32}, T(MakeTable({{2, 1, 1}, {0, 0, 0}, {1, 0, 4}})), -1001.0},
      {"empty column", {7, 507, 31, 42, 32}, T(MakeTable({{2, 0, 1}, {3, 0, 4}})), -1001.0},
      {"7 on one row", {7}, T(MakeTable({{2, 1, 1}})), -99.0},
      {"42 on one column", {42}, T(MakeTable({{2}, {3}})), -99.0},
      {"one-way: one category", {7}, V({12}, {12}), -99.0},
      {"one-way: no count at all", {7}, V({1, 1, 1}, {0, 0, 0}), -99.0},
      {"one-way: no counts given", {7}, V({5, 7}), -99.0},
      {"one-way: two case rows", {7}, V({1, 2, 3, 4}, {1, 2}, 2), -99.0},
      {"one-way: the median test has none", {31}, V({7, 6, 9}, {7, 6, 9}), -99.0},
      {"one-way: a negative count", {7}, V({4.0, 4.0, 6.0}, {7, -2, 9}), -1001.0},
      {"one-way: an expected count of 0", {7}, V({11, 0, 11}, {7, 6, 9}), -1302.0},
      {"one-way: a negative expected count", {7}, V({12, -1, 11}, {7, 6, 9}), -1302.0},
      {"one-way: expected counts missing the total", {7}, V({7, 6, 9.0001}, {7, 6, 9}), -1302.0},
      {"one-way: a NaN expected count", {7}, V({7, nan, 9}, {7, 6, 9}), -1302.0},
      {"one-way: an infinite expected count", {7}, V({7, inf, 9}, {7, 6, 9}), -1302.0},
  };
  for (const Case& c : cases)
    for (int64_t procedure : c.procedures)
      for (int64_t method : std::initializer_list<int64_t>{
               TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC, 0}) {  // 0: none given
        if (c.routes == kExactOnly && method != TQ_METHOD_EXACT) continue;
        SCOPED_TRACE(std::string(c.what) + ", procedure " + std::to_string(procedure) + ", method " +
                     std::to_string(method));
        HostCall call(procedure, method);
        if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(100, 5, 0.99);
        call.spill = spill;
        call.ip[TQ_INT_MEMORY] = c.memory_kb;
        call.row_scores = c.in.u;
        call.scores = c.in.v;
        call.values = c.in.values;
        call.weights = c.in.weights;
        call.case_rows = c.in.case_rows;
        if (c.in.model > 0) {
          call.ip[TQ_INT_MODEL] = c.in.model;
          call.rp[c.in.model == 1 ? TQ_REAL_PARAM1 : TQ_REAL_PARAM3] = c.in.p1;
          call.rp[c.in.model == 1 ? TQ_REAL_PARAM2 : TQ_REAL_PARAM4] = c.in.p2;
        }
        EXPECT_EQ((c.in.table ? call.Run(*c.in.table) : call.RunCases())[48], c.field48);
        EXPECT_TRUE(call.Published().empty());
        EXPECT_FALSE(std::filesystem::exists(spill));
        if (c.after) {
          ASSERT_EQ(call.values.size(), c.after->size());
          for (size_t i = 0; i < c.after->size(); ++i)
            EXPECT_TRUE(call.values[i] == (*c.after)[i] || (std::isnan(call.values[i]) && std::isnan((*c.after)[i])))
                << "value " << i;
        }
      }
}


// Around the failures: a confidence level outside (0, 1); MethodCode 0 (46
// runs its exact route, 40 its asymptotic one); a finished exact run that
// leaves no spill file either.
TEST(FailureCodes, LevelsDefaultRoutesAndFinishedRuns) {
  HostCall level(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_MONTE_CARLO);
  level.MonteCarlo(100, 5, 1.5);
  EXPECT_EQ(level.Run(MakeTable({{1, 2, 0}, {0, 1, 3}}))[48], -1003.0);
  HostCall tau0(46, 0), g0(40, 0);
  const Table t = MakeTable({{3, 1, 0}, {1, 2, 2}, {0, 1, 4}});
  EXPECT_NE(tau0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.f[48], 0.0);
  const std::string spill = (std::filesystem::temp_directory_path() / "anvl_finished_test.spill").string();
  std::filesystem::remove(spill);
  HostCall ok(45, TQ_METHOD_EXACT);
  ok.spill = spill;
  EXPECT_EQ(ok.Run(MakeTable({{3, 1, 2}, {1, 4, 0}, {2, 0, 5}}))[48], 0.0);
  EXPECT_FALSE(std::filesystem::exists(spill));
}

}  // namespace
}  // namespace anvl
