// The entry point from the host's side: refusal of unknown codes, the
// prefill, the record of a failure, and per-thread state.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

#include "anvlwtq.h"

namespace {

constexpr double kMissing = -777.25;

struct Call {
  int64_t ip[TQ_INT_COUNT] = {};
  double rp[TQ_REAL_COUNT] = {};
  std::vector<double> values;
  std::vector<int64_t> weights;
  std::vector<int64_t> table;
  int64_t rows = 0, cols = 0;
  double record[TQ_RECORD_LENGTH];

  explicit Call(int64_t procedure, int64_t method = TQ_METHOD_EXACT) {
    ip[TQ_INT_PROCEDURE] = procedure;
    ip[TQ_INT_METHOD] = method;
    ip[TQ_INT_DATA_FORM] = 2;
    ip[TQ_INT_MEMORY] = -1;
    rp[TQ_REAL_MISSING] = kMissing;
  }
  void Run(int64_t case_rows = 1) {
    TQCALLER(nullptr, nullptr, ip, rp, table.empty() ? nullptr : table.data(), rows, cols,
             nullptr, nullptr, values.empty() ? nullptr : values.data(),
             static_cast<int64_t>(values.size()) / case_rows, case_rows,
             weights.empty() ? nullptr : weights.data(), record, "");
  }
};

TEST(EntryPoint, UnknownAndUnbuiltCodesAreRefusedWithThePrefill) {
  for (int64_t code : {0, 3, 52, 503, 511, -7, 1000000}) {
    Call c(code);
    c.values = {1, 0};
    c.weights = {3, 4};
    c.Run();
    SCOPED_TRACE(code);
    EXPECT_EQ(c.record[48], -1003.0);
    for (int f : {42, 43, 44, 49}) EXPECT_EQ(c.record[f], 0.0) << "field " << f;
    for (int f = 0; f <= 41; ++f) EXPECT_EQ(c.record[f], kMissing) << "field " << f;
    for (int f = 45; f <= 47; ++f) EXPECT_EQ(c.record[f], kMissing) << "field " << f;
  }
}

TEST(EntryPoint, FailedRunShowsOnlyFillerFailureAndElapsed) {
  Call c(TQ_PROC_BINOMIAL);
  c.rp[TQ_REAL_P0] = 1.5;  // outside (0, 1): -308 after the limits were computed
  c.values = {1, 0};
  c.weights = {7, 5};
  c.Run();
  EXPECT_EQ(c.record[48], -1308.0);
  for (int f = 0; f <= 41; ++f) EXPECT_EQ(c.record[f], kMissing) << "field " << f;
  for (int f = 45; f <= 47; ++f) EXPECT_EQ(c.record[f], kMissing) << "field " << f;
  EXPECT_GE(c.record[44], 0.0);
  EXPECT_LT(c.record[44], 60.0);
  EXPECT_EQ(c.record[49], 0.0);
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
      ASSERT_EQ(ta.record[f], a_alone.record[f]) << "field " << f;
      ASSERT_EQ(tb.record[f], b_alone.record[f]) << "field " << f;
    }
  }
}

}  // namespace
