// Bad input from a host gets a failure value in the record, never a crash:
// null arrays, sizes that don't match the data, negative counts and
// weights, odd methods and parameters, for every built procedure.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "anvlwtq.h"

namespace {

constexpr double kFiller = -5.5;

// Field 48 on a failure is a code of the engine less 1000.
bool IsFailureValue(double v) { return v == 0.0 || (v == std::floor(v) && v != -1000.0); }

TEST(Robustness, NullArraysAndOddSizesFailCleanly) {
  const int64_t procedures[] = {TQ_PROC_BINOMIAL, TQ_PROC_CHISQ,         TQ_PROC_CHISQ_SHORT,
                                TQ_PROC_MEDIAN,   TQ_PROC_NOMINAL,       TQ_PROC_FISHER,
                                TQ_PROC_WILCOXON, TQ_PROC_MANN_WHITNEY, TQ_PROC_SCORES_EQUAL};
  for (int64_t procedure : procedures)
    for (int64_t form : {1, 2})
      for (int64_t rows : {-3, 0, 1, 2, 3})
        for (int64_t cols : {-1, 0, 1, 2, 4}) {
          int64_t ip[TQ_INT_COUNT] = {procedure, 1, form, 0, 0, 0, 0, 0, 0, -1};
          double rp[TQ_REAL_COUNT] = {};
          rp[TQ_REAL_P0] = 0.5;
          rp[TQ_REAL_MISSING] = kFiller;
          double record[TQ_RECORD_LENGTH];
          TQCALLER(nullptr, nullptr, ip, rp, nullptr, rows, cols, nullptr, nullptr, nullptr,
                   cols, rows, nullptr, record, nullptr);
          SCOPED_TRACE(testing::Message() << "procedure " << procedure << " form " << form
                                          << " " << rows << " x " << cols);
          EXPECT_NE(record[48], 0.0);  // there is no data to test
          EXPECT_TRUE(IsFailureValue(record[48])) << record[48];
          for (int f = 0; f <= 41; ++f) EXPECT_EQ(record[f], kFiller);
        }
}

TEST(Robustness, RandomParametersNeverCrashOrPublishOnFailure) {
  std::mt19937_64 rng(4242);
  const int64_t procedures[] = {TQ_PROC_BINOMIAL, TQ_PROC_CHISQ,         TQ_PROC_CHISQ_SHORT,
                                TQ_PROC_MEDIAN,   TQ_PROC_NOMINAL,       TQ_PROC_FISHER,
                                TQ_PROC_WILCOXON, TQ_PROC_MANN_WHITNEY, TQ_PROC_SCORES_EQUAL};
  for (int trial = 0; trial < 400; ++trial) {
    const int64_t rows = 1 + static_cast<int64_t>(rng() % 4), cols = 1 + static_cast<int64_t>(rng() % 4);
    std::vector<int64_t> cells(static_cast<size_t>(rows * cols));
    for (auto& c : cells) c = static_cast<int64_t>(rng() % 7) - (rng() % 9 == 0 ? 3 : 0);
    std::vector<double> values(static_cast<size_t>(cols)), scores(static_cast<size_t>(cols));
    std::vector<int64_t> weights(static_cast<size_t>(cols));
    for (int64_t j = 0; j < cols; ++j) {
      values[j] = rng() % 5 == 0 ? std::numeric_limits<double>::quiet_NaN()
                                 : static_cast<double>(rng() % 3);
      weights[j] = static_cast<int64_t>(rng() % 9) - 2;
      scores[j] = static_cast<double>(rng() % 5);
    }
    int64_t ip[TQ_INT_COUNT] = {procedures[rng() % 9],
                                static_cast<int64_t>(rng() % 6) - 1,
                                static_cast<int64_t>(1 + rng() % 2),
                                static_cast<int64_t>(rng() % 100000) - 50000,
                                static_cast<int64_t>(rng() % 300) - 50,
                                0,
                                0,
                                static_cast<int64_t>(rng() % 2 ? 13 : 0),
                                0,
                                static_cast<int64_t>(rng() % 3 ? -1 : rng() % 30000)};
    double rp[TQ_REAL_COUNT] = {};
    rp[TQ_REAL_MC_LEVEL] = static_cast<double>(rng() % 120) / 100.0;
    rp[TQ_REAL_MEDIAN_CUT] = static_cast<double>(rng() % 5) - 0.5;
    rp[TQ_REAL_P0] = static_cast<double>(rng() % 12) / 10.0 - 0.05;
    rp[TQ_REAL_MISSING] = kFiller;
    double record[TQ_RECORD_LENGTH];
    TQCALLER(nullptr, nullptr, ip, rp, cells.data(), rows, cols, nullptr, scores.data(),
             values.data(), cols, 1, weights.data(), record, "");
    SCOPED_TRACE(testing::Message() << "trial " << trial << " procedure " << ip[0] << " method "
                                    << ip[1] << " form " << ip[2]);
    ASSERT_TRUE(IsFailureValue(record[48])) << record[48];
    if (record[48] != 0.0) {
      for (int f = 0; f <= 41; ++f) ASSERT_EQ(record[f], kFiller) << "field " << f;
    } else {
      for (int f = 0; f <= 41; ++f) {
        if (record[f] != kFiller) {
          ASSERT_TRUE(std::isfinite(record[f])) << "field " << f;
        }
      }
      for (int f : {13, 14, 15, 16, 17, 21, 22, 23}) {
        if (record[f] != kFiller) {
          EXPECT_GE(record[f], 0.0) << "field " << f;
          EXPECT_LE(record[f], 1.0) << "field " << f;
        }
      }
    }
  }
}

}  // namespace
