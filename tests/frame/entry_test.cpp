// The entry point from the host's side: refusal of unknown codes, the record
// of a failure, bad input of every kind (never a crash), and per-thread state.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"

namespace {

using anvl::support::HostCall;
using anvl::support::kTestFiller;
using anvl::support::PublishedFields;

const int64_t kBuilt[] = {TQ_PROC_BINOMIAL,       TQ_PROC_CHISQ,          TQ_PROC_CHISQ_SHORT,
                          TQ_PROC_MEDIAN,         TQ_PROC_NOMINAL,        TQ_PROC_FISHER,
                          TQ_PROC_WILCOXON,       TQ_PROC_MANN_WHITNEY,   TQ_PROC_SCORES_EQUAL,
                          TQ_PROC_MARGINAL_HOMOG, TQ_PROC_MARGINAL_HOMOG_LONG};

// Field 48 on a failure is a code of the engine less 1000.
bool IsFailureValue(double v) { return v == 0.0 || (v == std::floor(v) && v != -1000.0); }

// Codes that aren't built are refused before the clock starts; a p0
// outside (0, 1) fails after the limits are read.  Null arrays and odd
// sizes fail cleanly for every procedure and form.
TEST(EntryPoint, FailedCallsPublishOnlyTheFailureAndTheTime) {
  for (int64_t procedure : {int64_t{0}, int64_t{3}, int64_t{52}, int64_t{503}, int64_t{511},
                            int64_t{-7}, int64_t{1000000}, int64_t{TQ_PROC_BINOMIAL}}) {
    const bool built = procedure == TQ_PROC_BINOMIAL;
    HostCall call = HostCall::Binomial({1, 0}, {7, 5}, built ? 1.5 : 0.5);
    call.ip[TQ_INT_PROCEDURE] = procedure;
    const double* f = call.RunCases();
    SCOPED_TRACE(testing::Message() << "procedure " << procedure);
    EXPECT_EQ(f[48], built ? -1308 : -1003);
    EXPECT_EQ(call.Published(), std::vector<int>{});
    EXPECT_EQ(f[49], 0.0);
    if (!built) {
      for (int i : {42, 43, 44}) EXPECT_EQ(f[i], 0.0) << "field " << i;
    } else {
      EXPECT_GE(f[44], 0.0);
      EXPECT_LT(f[44], 60.0);
    }
  }
  for (int64_t procedure : kBuilt)
    for (int64_t form : {1, 2})
      for (int64_t rows : {-3, 0, 1, 2, 3})
        for (int64_t cols : {-1, 0, 1, 2, 4}) {
          HostCall c(procedure, TQ_METHOD_EXACT);
          c.ip[TQ_INT_DATA_FORM] = form;
          c.rp[TQ_REAL_P0] = 0.5;
          TQCALLER(nullptr, nullptr, c.ip, c.rp, nullptr, rows, cols, nullptr, nullptr, nullptr, cols, rows,
                   nullptr, c.f, nullptr);
          SCOPED_TRACE(testing::Message() << "procedure " << procedure << " form " << form << " " << rows
                                          << " x " << cols);
          EXPECT_NE(c.f[48], 0.0);  // there is no data to test
          EXPECT_TRUE(IsFailureValue(c.f[48])) << c.f[48];
          EXPECT_EQ(c.Published(), std::vector<int>{});
        }
}

TEST(EntryPoint, RandomParametersNeverCrashOrPublishOnFailure) {
  std::mt19937_64 rng(4242);
  auto draw = [&](int64_t n, int64_t shift = 0) { return static_cast<int64_t>(rng() % n) - shift; };
  for (int trial = 0; trial < 400; ++trial) {
    const int64_t rows = 1 + draw(4), cols = 1 + draw(4);
    std::vector<int64_t> cells(static_cast<size_t>(rows * cols)), weights(cols);
    for (auto& c : cells) c = draw(7) - (rng() % 9 == 0 ? 3 : 0);
    std::vector<double> values(cols), scores(cols);
    for (int64_t j = 0; j < cols; ++j) {
      values[j] = rng() % 5 == 0 ? std::numeric_limits<double>::quiet_NaN() : static_cast<double>(rng() % 3);
      weights[j] = draw(9, 2);
      scores[j] = static_cast<double>(rng() % 5);
    }
    int64_t ip[TQ_INT_COUNT] = {kBuilt[rng() % std::size(kBuilt)], draw(6, 1), 1 + draw(2), draw(100000, 50000), draw(300, 50),
                                0, 0, rng() % 2 ? 13 : 0, 0, rng() % 3 ? -1 : draw(30000)};
    double rp[TQ_REAL_COUNT] = {};
    rp[TQ_REAL_MC_LEVEL] = static_cast<double>(rng() % 120) / 100.0;
    rp[TQ_REAL_MEDIAN_CUT] = static_cast<double>(rng() % 5) - 0.5;
    rp[TQ_REAL_P0] = static_cast<double>(rng() % 12) / 10.0 - 0.05;
    rp[TQ_REAL_MISSING] = kTestFiller;
    double f[TQ_RECORD_LENGTH];
    TQCALLER(nullptr, nullptr, ip, rp, cells.data(), rows, cols, nullptr, scores.data(), values.data(), cols, 1,
             weights.data(), f, "");
    SCOPED_TRACE(testing::Message() << "trial " << trial << " procedure " << ip[0] << " method " << ip[1]
                                    << " form " << ip[2]);
    ASSERT_TRUE(IsFailureValue(f[48])) << f[48];
    if (f[48] != 0.0) {
      ASSERT_EQ(PublishedFields(f), std::vector<int>{});
      continue;
    }
    for (int i : PublishedFields(f)) {
      ASSERT_TRUE(std::isfinite(f[i])) << "field " << i;
      if ((i >= 13 && i <= 17) || (i >= 21 && i <= 23)) {
        EXPECT_GE(f[i], 0.0) << "field " << i;
        EXPECT_LE(f[i], 1.0) << "field " << i;
      }
    }
  }
}

// Calls a and b in two threads at once, `rounds` times over: each must give
// the record of the same call made alone.
template <class RunA, class RunB>
void ExpectThreadsKeepApart(HostCall a, HostCall b, RunA run_a, RunB run_b, int runs_a, int runs_b,
                            int rounds) {
  HostCall a_alone = a, b_alone = b;
  run_a(a_alone);
  run_b(b_alone);
  ASSERT_EQ(a_alone.f[48], 0.0);
  ASSERT_EQ(b_alone.f[48], 0.0);
  for (int round = 0; round < rounds; ++round) {
    std::thread t1([&] { for (int i = 0; i < runs_a; ++i) run_a(a); });
    std::thread t2([&] { for (int i = 0; i < runs_b; ++i) run_b(b); });
    t1.join();
    t2.join();
    for (int i = 0; i < 42; ++i) {
      ASSERT_EQ(a.f[i], a_alone.f[i]) << "field " << i << ", round " << round;
      ASSERT_EQ(b.f[i], b_alone.f[i]) << "field " << i << ", round " << round;
    }
  }
}

TEST(EntryPoint, TwoThreadsAtOnceGetTheRecordsOfSeparateCalls) {
  auto cases = [](HostCall& c) { c.RunCases(); };
  ExpectThreadsKeepApart(HostCall::Binomial({1, 0}, {70, 50}, 0.3), HostCall::Binomial({1, 0}, {3, 40}, 0.2),
                         cases, cases, 50, 50, 20);
  // Two network runs with their own spill files.
  const auto job = anvl::support::MakeTable({{1, 2, 1, 0}, {3, 3, 6, 1}, {10, 10, 14, 9}, {6, 7, 12, 11}});
  const auto small = anvl::support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  HostCall a(TQ_PROC_CHISQ, TQ_METHOD_EXACT), b(TQ_PROC_FISHER, TQ_METHOD_EXACT);
  // Names of this process alone: other test processes may run at once.
  const std::string dir = ::testing::TempDir() + "anvl-entry-" + std::to_string(getpid());
  a.spill = dir + "-a.spill";
  b.spill = dir + "-b.spill";
  ExpectThreadsKeepApart(a, b, [&](HostCall& c) { c.Run(job); }, [&](HostCall& c) { c.Run(small); }, 3, 200, 3);
}

}  // namespace
