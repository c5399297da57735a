// Procedures 7, 507, 31, 42 and 32 from the host's side: the fields of
// their records, their failures, the spill file, stages and memory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace {

using anvl::support::HostCall;
using anvl::support::MakeTable;
using anvl::support::Table;

const Table kWorked = MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});

TEST(ContingencyRecord, CarriesExactlyTheFieldsOfEachProcedure) {
  struct Case {
    int64_t procedure, method;
    std::vector<int> fields;
  };
  const Case cases[] = {
      {TQ_PROC_CHISQ, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_CHISQ, TQ_METHOD_ASYMPTOTIC, {0}},
      {TQ_PROC_CHISQ, 0, {0}},  // no method given: asymptotic only
      {TQ_PROC_CHISQ_SHORT, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_MEDIAN, TQ_METHOD_EXACT, {0, 16, 17}},
      {TQ_PROC_NOMINAL, TQ_METHOD_EXACT, {0, 3, 6, 9, 16, 24, 27}},
      {TQ_PROC_NOMINAL, TQ_METHOD_ASYMPTOTIC, {0, 3, 6, 9, 24, 27}},
      {TQ_PROC_FISHER, TQ_METHOD_EXACT, {0, 16}},
      {TQ_PROC_FISHER, TQ_METHOD_ASYMPTOTIC, {0}},
  };
  for (const Case& c : cases) {
    HostCall call(c.procedure, c.method);
    if (c.procedure == TQ_PROC_MEDIAN) call.MedianCut({10, 20, 30}, 15);
    const double* r = call.Run(kWorked);
    SCOPED_TRACE(testing::Message() << "procedure " << c.procedure << " method " << c.method);
    EXPECT_EQ(r[48], 0.0);
    EXPECT_EQ(call.Published(), c.fields);
    EXPECT_GT(r[0], 0.0);
  }
}

// Failures of the cut and the spill file reach the record with the filler
// everywhere else (bad tables: engines/failures_test.cpp); degenerate tables
// that Fisher's test can still answer.
TEST(ContingencyFailures, ReachTheRecordWithTheFiller) {
  HostCall median(TQ_PROC_MEDIAN, TQ_METHOD_EXACT);
  median.MedianCut({1, 2, 3}, 3.0);
  HostCall median_zero = median;
  median_zero.ip[TQ_INT_CUT_RULE] = 0;
  HostCall unwritable(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  unwritable.spill = "/nonexistent-directory/anvlwtq/spill.bin";
  HostCall unwritable_asymptotic = unwritable;
  unwritable_asymptotic.ip[TQ_INT_METHOD] = TQ_METHOD_ASYMPTOTIC;
  const std::pair<const char*, HostCall> cases[] = {
      {"nothing above the cut: a level at the cut goes below", median},
      {"cut at 0.0: nothing at or below it", median_zero},
      {"unwritable spill file", unwritable},
      {"the asymptotic run never opens the spill file", unwritable_asymptotic},
  };
  const double field48[] = {-1032, -1032, -1009, 0};
  for (int i = 0; i < 4; ++i) {
    HostCall call = cases[i].second;
    EXPECT_EQ(call.Run(kWorked)[48], field48[i]) << cases[i].first;
    EXPECT_EQ(call.Published().empty(), field48[i] != 0) << cases[i].first;
  }
  // Fisher's test on one row: a single arrangement; the most probable table
  // of its margins has p = 1 up to rounding.
  HostCall fisher(TQ_PROC_FISHER, TQ_METHOD_EXACT);
  EXPECT_EQ(fisher.Run(MakeTable({{2, 5, 1, 4}}))[16], 1.0);
  EXPECT_NEAR(fisher.Run(MakeTable({{2, 2, 2}, {2, 2, 2}, {2, 2, 2}}))[16], 1.0, 1e-12);
}

// A network run deletes its named spill file at the end, also when the host
// stops it (-6); unnamed files are unlinked while open (spill_test).
TEST(ContingencyFailures, HostStopAndTheSpillFileLeavesNothingBehind) {
  HostCall named(TQ_PROC_NOMINAL, TQ_METHOD_EXACT);
  named.spill = ::testing::TempDir() + "anvl-contingency-" + std::to_string(getpid()) + ".spill";
  struct stat st;
  for (bool stop : {false, true}) {
    if (stop) {
      named.poll = [](int64_t* flag) {
        if (*flag == 0) *flag = 1;
      };
    }
    EXPECT_EQ(named.Run(kWorked)[48], stop ? -1006.0 : 0.0);
    EXPECT_NE(::stat(named.spill.c_str(), &st), 0) << named.spill << " left behind, stop " << stop;
  }
}

TEST(ContingencyNetwork, Handles127Stages) {  // 128 are refused: engines/failures_test.cpp
  std::vector<std::vector<int64_t>> cells(2, std::vector<int64_t>(127, 0));
  for (int j = 0; j < 127; ++j) cells[j % 2][j] = 1;
  HostCall call(TQ_PROC_CHISQ, TQ_METHOD_EXACT);
  const double* r = call.Run(MakeTable(cells));
  ASSERT_EQ(r[48], 0.0);
  EXPECT_GT(r[16], 0.0);
  EXPECT_LE(r[16], 1.0);
}

// The past-value pool follows the memory budget: 2 MiB (the floor) holds
// 48428 entries, too few for this table's trees; 16 MiB is enough.
TEST(ContingencyNetwork, PoolExhaustionEndsTheRunWithNoMemory) {
  const Table t = MakeTable(
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
