// The entry point from the host's side: refusal of unknown codes, the
// prefill, the record of a failure, and per-thread state.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"

namespace {

using anvl::support::HostCall;
constexpr double kMissing = anvl::support::kTestFiller;

// A call on case data: the binomial test's form.
struct Call : HostCall {
  explicit Call(int64_t procedure) : HostCall(procedure, TQ_METHOD_EXACT) {}
  void Run() { RunCases(); }
};

TEST(EntryPoint, UnknownAndUnbuiltCodesAreRefusedWithThePrefill) {
  for (int64_t code : {0, 3, 52, 503, 511, -7, 1000000}) {
    Call c(code);
    c.values = {1, 0};
    c.weights = {3, 4};
    c.Run();
    SCOPED_TRACE(code);
    EXPECT_EQ(c.f[48], -1003.0);
    for (int i : {42, 43, 44, 49}) EXPECT_EQ(c.f[i], 0.0) << "field " << i;
    for (int i = 0; i <= 41; ++i) EXPECT_EQ(c.f[i], kMissing) << "field " << i;
    for (int i = 45; i <= 47; ++i) EXPECT_EQ(c.f[i], kMissing) << "field " << i;
  }
}

TEST(EntryPoint, FailedRunShowsOnlyFillerFailureAndElapsed) {
  Call c(TQ_PROC_BINOMIAL);
  c.rp[TQ_REAL_P0] = 1.5;  // outside (0, 1): -308 after the limits were computed
  c.values = {1, 0};
  c.weights = {7, 5};
  c.Run();
  EXPECT_EQ(c.f[48], -1308.0);
  for (int i = 0; i <= 41; ++i) EXPECT_EQ(c.f[i], kMissing) << "field " << i;
  for (int i = 45; i <= 47; ++i) EXPECT_EQ(c.f[i], kMissing) << "field " << i;
  EXPECT_GE(c.f[44], 0.0);
  EXPECT_LT(c.f[44], 60.0);
  EXPECT_EQ(c.f[49], 0.0);
}

TEST(EntryPoint, TwoThreadsAtOnceGetTheRecordsOfSeparateCalls) {
  auto make = [](int64_t w1, int64_t w2, double p0) {
    Call c(TQ_PROC_BINOMIAL);
    c.values = {1, 0};
    c.weights = {w1, w2};
    c.rp[TQ_REAL_P0] = p0;
    return c;
  };
  Call a = make(70, 50, 0.3), b = make(3, 40, 0.2);
  Call a_alone = a, b_alone = b;
  a_alone.Run();
  b_alone.Run();
  for (int round = 0; round < 20; ++round) {
    Call ta = a, tb = b;
    std::thread t1([&] { for (int i = 0; i < 50; ++i) ta.Run(); });
    std::thread t2([&] { for (int i = 0; i < 50; ++i) tb.Run(); });
    t1.join();
    t2.join();
    for (int f = 0; f < 42; ++f) {
      ASSERT_EQ(ta.f[f], a_alone.f[f]) << "field " << f;
      ASSERT_EQ(tb.f[f], b_alone.f[f]) << "field " << f;
    }
  }
}

}  // namespace

namespace {

TEST(EntryPoint, TwoNetworkRunsAtOnceWithTheirOwnSpillFiles) {
  const auto job = anvl::support::MakeTable({{1, 2, 1, 0}, {3, 3, 6, 1}, {10, 10, 14, 9}, {6, 7, 12, 11}});
  const auto small = anvl::support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  HostCall a(TQ_PROC_CHISQ, TQ_METHOD_EXACT), b(TQ_PROC_FISHER, TQ_METHOD_EXACT);
  // Names of this process alone: other test processes may run at once.
  const std::string dir = ::testing::TempDir() + "anvl-entry-" + std::to_string(getpid());
  a.spill = dir + "-a.spill";
  b.spill = dir + "-b.spill";
  HostCall a_alone = a, b_alone = b;
  a_alone.Run(job);
  b_alone.Run(small);
  ASSERT_EQ(a_alone.f[48], 0.0);
  ASSERT_EQ(b_alone.f[48], 0.0);
  for (int round = 0; round < 3; ++round) {
    std::thread t1([&] { for (int i = 0; i < 3; ++i) a.Run(job); });
    std::thread t2([&] { for (int i = 0; i < 200; ++i) b.Run(small); });
    t1.join();
    t2.join();
    for (int i = 0; i < 42; ++i) {
      ASSERT_EQ(a.f[i], a_alone.f[i]) << "field " << i;
      ASSERT_EQ(b.f[i], b_alone.f[i]) << "field " << i;
    }
  }
}

}  // namespace
