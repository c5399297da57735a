// Procedures 7, 507, 31 and 42 from the host's side: the fields of their
// records, exact p-values against enumeration, and their failures.
#include <gtest/gtest.h>
#include <algorithm>
#include "frame/run_store.h"
#include "frame/spill.h"

#include <dirent.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace {

using anvl::support::HostCall;
using anvl::support::Table;
constexpr double kMissing = anvl::support::kTestFiller;

const Table kWorked = anvl::support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});

TEST(ContingencyRecord, CarriesExactlyTheFieldsOfEachProcedure) {
  struct Case {
    int64_t procedure, method;
    std::vector<int> fields;
  };
  const Case cases[] = {
      {TQ_PROC_CHISQ, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_CHISQ, TQ_METHOD_ASYMPTOTIC, {0}},
      {TQ_PROC_CHISQ_SHORT, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_MEDIAN, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_NOMINAL, TQ_METHOD_EXACT, {0, 3, 6, 9, 16, 24, 27}},
      {TQ_PROC_NOMINAL, TQ_METHOD_ASYMPTOTIC, {0, 3, 6, 9, 24, 27}},
  };
  for (const Case& c : cases) {
    HostCall call(c.procedure, c.method);
    if (c.procedure == TQ_PROC_MEDIAN) call.MedianCut({10, 20, 30}, 15);
    const double* r = call.Run(kWorked);
    EXPECT_EQ(r[48], 0.0) << c.procedure;
    EXPECT_EQ(call.Published(), c.fields) << "procedure " << c.procedure << " method " << c.method;
  }
}

TEST(ContingencyRecord, WorkedTableExactValues) {
  HostCall call(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  const double* r = call.Run(kWorked);
  EXPECT_NEAR(r[0], 7.275, 1e-12);
  EXPECT_NEAR(r[16], 0.157509158, 1e-9);
  EXPECT_NEAR(r[17], 0.023310023, 1e-9);
  HostCall method0(TQ_PROC_CHISQ, 0);  // no method given: asymptotic only
  method0.Run(kWorked);
  EXPECT_EQ(method0.Published(), std::vector<int>{0});
}

// The exact p-value and point probability of 7, 31 and 42 against
// enumeration of every table with the margins (31 on its collapsed table).
TEST(ContingencyExact, AgreesWithEnumerationOnRandomTables) {
  std::mt19937_64 rng(42);
  int checked = 0;
  for (int i = 0; checked < 60 && i < 1000; ++i) {
    const int rows = 2 + static_cast<int>(rng() % 4), cols = 2 + static_cast<int>(rng() % 5);
    if (rows == 2 && cols == 2) continue;
    const int64_t n = std::max(rows, cols) + static_cast<int64_t>(rng() % 20);
    const Table t = anvl::support::RandomTable(rng, rows, cols, n);
    if (anvl::support::CountTables(anvl::support::RowTotals(t), anvl::support::ColTotals(t),
                                   100000) > 100000)
      continue;
    const double rel = std::min(rows, cols) == 2 ? 9.5367431640625e-07 : 4.999999873689376e-05;
    const auto ref = anvl::support::PearsonTails(t, rel, 0.0);
    for (int64_t procedure : {TQ_PROC_CHISQ, TQ_PROC_NOMINAL}) {
      HostCall call(procedure, TQ_METHOD_EXACT);
      const double* r = call.Run(t);
      ASSERT_EQ(r[48], 0.0) << anvl::support::Describe(t);
      const double p = (double)(ref.above + ref.equal);
      EXPECT_NEAR(r[16], p, 1e-9 * p) << anvl::support::Describe(t);
      if (procedure == TQ_PROC_CHISQ) {
        EXPECT_NEAR(r[17], (double)ref.equal, 1e-9 * (double)ref.equal);
      }
    }
    // The median test at a cut between the levels: X^2 of the collapsed table.
    HostCall median(TQ_PROC_MEDIAN, TQ_METHOD_EXACT);
    std::vector<double> levels;
    for (int j = 0; j < cols; ++j) levels.push_back(j + 1);
    median.MedianCut(levels, 1.0 + static_cast<double>(rng() % (cols - 1)));
    std::vector<std::vector<int64_t>> collapsed(rows, std::vector<int64_t>(2, 0));
    for (int a = 0; a < rows; ++a)
      for (int b = 0; b < cols; ++b)
        collapsed[a][(b + 1) > median.rp[TQ_REAL_MEDIAN_CUT] ? 0 : 1] += t.at(a, b);
    const Table c = anvl::support::MakeTable(collapsed);
    const auto cref = anvl::support::PearsonTails(c, 9.5367431640625e-07, 0.0);
    const double* r = median.Run(t);
    if (r[48] == -1032.0) continue;  // one side of the cut is empty
    ASSERT_EQ(r[48], 0.0);
    EXPECT_NEAR(r[0], anvl::support::PearsonX2(c), 1e-9 * r[0] + 1e-12);
    const double cp = (double)(cref.above + cref.equal);
    EXPECT_NEAR(r[16], cp, 1e-9 * cp) << anvl::support::Describe(t);
    EXPECT_NEAR(r[17], (double)cref.equal, 1e-9 * (double)cref.equal);
    ++checked;
  }
  EXPECT_GE(checked, 60);
}

TEST(ContingencyFailures, ReachTheRecordWithTheFiller) {
  const Table zero_row = anvl::support::MakeTable({{2, 1, 1}, {0, 0, 0}, {1, 0, 4}});
  for (int64_t procedure : {TQ_PROC_CHISQ, TQ_PROC_CHISQ_SHORT, TQ_PROC_MEDIAN, TQ_PROC_NOMINAL})
    for (int64_t method : {1, 2, 3, 0}) {
      HostCall call(procedure, method);
      const double* r = call.Run(zero_row);
      EXPECT_EQ(r[48], -1001.0) << procedure << " " << method;
      EXPECT_TRUE(call.Published().empty());
    }
  HostCall one_row(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  EXPECT_EQ(one_row.Run(anvl::support::MakeTable({{2, 1, 1}}))[48], -99.0);
  HostCall one_col(TQ_PROC_NOMINAL, TQ_METHOD_ASYMPTOTIC);
  EXPECT_EQ(one_col.Run(anvl::support::MakeTable({{2}, {3}}))[48], -99.0);

  HostCall median(TQ_PROC_MEDIAN, TQ_METHOD_EXACT);
  median.MedianCut({1, 2, 3}, 3.0);  // nothing above the cut: a level at the cut goes below
  EXPECT_EQ(median.Run(kWorked)[48], -1032.0);
  median.ip[TQ_INT_CUT_RULE] = 0;  // cut at 0.0: nothing at or below it
  EXPECT_EQ(median.Run(kWorked)[48], -1032.0);

  HostCall unwritable(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  unwritable.spill = "/nonexistent-directory/anvlwtq/spill.bin";
  EXPECT_EQ(unwritable.Run(kWorked)[48], -1009.0);
  unwritable.ip[TQ_INT_METHOD] = TQ_METHOD_ASYMPTOTIC;  // never opens the file
  EXPECT_EQ(unwritable.Run(kWorked)[48], 0.0);
}

TEST(ContingencyFailures, HostStopAndTheSpillFileLeavesNothingBehind) {
  char dir_template[] = "/tmp/anvl-contingency-XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template;
  const char* old_tmp = std::getenv("TMPDIR");
  const std::string saved = old_tmp ? old_tmp : "";
  setenv("TMPDIR", dir.c_str(), 1);

  HostCall stop(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  stop.poll = [](int64_t* flag) {
    if (*flag == 0) *flag = 1;
  };
  EXPECT_EQ(stop.Run(kWorked)[48], -1006.0);
  HostCall named(TQ_PROC_NOMINAL, TQ_METHOD_EXACT);
  named.spill = dir + "/named.spill";
  EXPECT_EQ(named.Run(kWorked)[48], 0.0);
  HostCall unnamed(TQ_PROC_MEDIAN, TQ_METHOD_EXACT);
  unnamed.MedianCut({1, 2, 3}, 1.5);
  EXPECT_EQ(unnamed.Run(kWorked)[48], 0.0);
  named.poll = stop.poll;
  EXPECT_EQ(named.Run(kWorked)[48], -1006.0);

  int entries = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") ++entries;
    closedir(d);
  }
  EXPECT_EQ(entries, 0) << "a spill file was left in " << dir;
  rmdir(dir.c_str());
  if (old_tmp)
    setenv("TMPDIR", saved.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

TEST(ContingencyNetwork, HandlesUpTo127StagesAndRefuses128) {
  for (int cols : {127, 128}) {
    std::vector<std::vector<int64_t>> cells(2, std::vector<int64_t>(cols, 0));
    for (int j = 0; j < cols; ++j) cells[j % 2][j] = 1;
    HostCall call(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
    const double* r = call.Run(anvl::support::MakeTable(cells));
    if (cols == 127) {
      EXPECT_EQ(r[48], 0.0);
      EXPECT_GT(r[16], 0.0);
      EXPECT_LE(r[16], 1.0);
    } else {
      EXPECT_EQ(r[48], -1001.0);
    }
  }
}

}  // namespace

namespace {

// The past-value pool follows the memory budget: 2 MiB (the floor) holds
// 48428 entries, too few for this table's trees; 16 MiB is enough.
TEST(ContingencyNetwork, PoolExhaustionEndsTheRunWithNoMemory) {
  const Table t = anvl::support::MakeTable(
      {{3, 2, 4, 1, 2}, {2, 4, 1, 3, 2}, {1, 3, 4, 2, 3}, {4, 1, 2, 3, 2}, {2, 3, 1, 2, 4}});
  HostCall small(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  small.ip[TQ_INT_MEMORY] = 100;
  EXPECT_EQ(small.Run(t)[48], -1001.0);
  EXPECT_TRUE(small.Published().empty());
  HostCall large(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  large.ip[TQ_INT_MEMORY] = 20000;
  EXPECT_EQ(large.Run(t)[48], 0.0);
  // The host's ceiling is read at every call: at 1 MiB (raised to the
  // 2 MiB floor) the same request runs out again; cleared, it finishes.
  ASSERT_EQ(setenv(anvl::kCeilingVariable, "1", 1), 0);
  EXPECT_EQ(large.Run(t)[48], -1001.0);
  ASSERT_EQ(unsetenv(anvl::kCeilingVariable), 0);
  EXPECT_EQ(large.Run(t)[48], 0.0);
}

// ANVLWTQ_MEMORY_CEILING: whole mebibytes lift the 16 MiB ceiling of the
// budget, never above half the machine's memory; anything else leaves it.
TEST(MemoryCeiling, FollowsTheHostsVariable) {
  struct Case {
    const char* value;
    int64_t ceiling;  // bytes; 0: half the machine's memory
  };
  const Case cases[] = {
      {nullptr, 16777216}, {"", 16777216},   {"abc", 16777216},    {"0", 16777216},
      {"-64", 16777216},   {"12x", 16777216}, {" 64", 16777216},    {"64", 67108864},
      {"1", 2097152},      {"1024", 1073741824}, {"999999999999999999999", 0},
  };
  const double half = static_cast<double>(sysconf(_SC_PHYS_PAGES)) *
                      static_cast<double>(sysconf(_SC_PAGESIZE)) / 2.0;
  for (const Case& c : cases) {
    if (c.value == nullptr) {
      ASSERT_EQ(unsetenv(anvl::kCeilingVariable), 0);
    } else {
      ASSERT_EQ(setenv(anvl::kCeilingVariable, c.value, 1), 0);
    }
    const double expected = c.ceiling == 0 ? half : std::min<double>(c.ceiling, half);
    EXPECT_NEAR(static_cast<double>(anvl::MemoryCeiling()), expected, 1.0)
        << (c.value ? c.value : "unset");
    // The budget of a caller that asks for 1 TiB stops at the ceiling.
    anvl::ResetStore();
    anvl::SetSetting(anvl::setting::kMemoryLimit, int64_t{1} << 30);
    EXPECT_EQ(anvl::MemoryBudget(), anvl::MemoryCeiling()) << (c.value ? c.value : "unset");
  }
  ASSERT_EQ(unsetenv(anvl::kCeilingVariable), 0);
}

}  // namespace
