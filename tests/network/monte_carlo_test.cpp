// The table sampler (margins, the switch between its two branches, the
// order of its uniform draws, its law) and the Monte Carlo loop (the edge
// intervals, reports, repeatability); the estimates of each procedure are
// held against its exact value in peer_values_test.
#include "network/monte_carlo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "kernel/random.h"
#include "support/enumerate.h"

namespace anvl::net {
namespace {

using support::Table;

// A goodness-of-fit check fails a correct sampler with this probability.
constexpr double kFalseAlarm = 1e-4;
// Cells of a goodness-of-fit check hold at least this many expected draws;
// the rarer outcomes are pooled into one cell.
constexpr double kMinExpected = 5.0;

constexpr int64_t kSeed2 = 29873, kSeed3 = 25317;

std::string Margins(const std::vector<int64_t>& r, const std::vector<int64_t>& c) {
  std::string s = "rows";
  for (int64_t x : r) s += " " + std::to_string(x);
  s += " / cols";
  for (int64_t x : c) s += " " + std::to_string(x);
  return s;
}

// Every row and column total of a column-major table, with no negative cell.
bool HasMargins(const std::vector<int64_t>& t, const std::vector<int64_t>& r,
                const std::vector<int64_t>& c) {
  const size_t rows = r.size(), cols = c.size();
  std::vector<int64_t> rs(rows, 0), cs(cols, 0);
  for (size_t i = 0; i < rows; ++i) {
    for (size_t j = 0; j < cols; ++j) {
      if (t[i + j * rows] < 0) return false;
      rs[i] += t[i + j * rows];
      cs[j] += t[i + j * rows];
    }
  }
  return rs == r && cs == c;
}

// The cell draws against the search written out as a visiting order: t,
// t + 1, t - 1, t + 2, t - 2, ... within the support, with probabilities
// from lgammal, the first value whose running sum reaches u; a rounding
// shortfall starts the search again.  Any other order would give the same
// law but other tables for the same seed.

long double LogHypergeometric(int64_t row, int64_t col, int64_t total, int64_t x) {
  auto lf = [](int64_t n) { return lgammal(static_cast<long double>(n) + 1.0L); };
  return lf(col) - lf(x) - lf(col - x) + lf(total - col) - lf(row - x) -
         lf(total - col - row + x) - lf(total) + lf(row) + lf(total - row);
}

int64_t ReferenceCell(RandomStream& s, int64_t row, int64_t col, int64_t total) {
  const int64_t lo = std::max<int64_t>(0, row + col - total), hi = std::min(row, col);
  const int64_t t = static_cast<int64_t>(
      static_cast<double>(row) * static_cast<double>(col) / static_cast<double>(total) + 0.5);
  std::vector<int64_t> order{t};
  for (int64_t k = 1; t + k <= hi || t - k >= lo; ++k) {
    if (t + k <= hi) order.push_back(t + k);
    if (t - k >= lo) order.push_back(t - k);
  }
  double u = NextUniform(s);
  for (;;) {
    long double sum = 0.0L;
    for (int64_t x : order) {
      sum += expl(LogHypergeometric(row, col, total, x));
      if (sum >= u) return x;
    }
    u = static_cast<double>(sum) * NextUniform(s);
  }
}

// Cells of the first rows - 1 rows and cols - 1 columns in turn, the rest
// forced by the margins.
std::vector<int64_t> ReferenceTable(RandomStream& s, const std::vector<int64_t>& r,
                                    const std::vector<int64_t>& c) {
  const int64_t rows = static_cast<int64_t>(r.size()), cols = static_cast<int64_t>(c.size());
  std::vector<int64_t> t(rows * cols, 0), left = c;
  int64_t rest = std::accumulate(r.begin(), r.end(), int64_t{0});
  for (int64_t i = 0; i + 1 < rows; ++i) {
    int64_t row = r[i], total = rest;
    rest -= row;
    for (int64_t j = 0; j + 1 < cols && total > 0; ++j) {
      const int64_t x = ReferenceCell(s, row, left[j], total);
      t[i + j * rows] = x;
      total -= left[j];
      left[j] -= x;
      row -= x;
    }
    t[i + (cols - 1) * rows] = row;
  }
  for (int64_t j = 0; j < cols; ++j) {
    int64_t above = 0;
    for (int64_t i = 0; i + 1 < rows; ++i) above += t[i + j * rows];
    t[rows - 1 + j * rows] = c[j] - above;
  }
  return t;
}

// The law of the drawn tables: a chi-square goodness-of-fit test of the
// frequencies of all tables against their enumerated probabilities.
double GoodnessOfFitP(TableSampler& s, const std::vector<int64_t>& r,
                      const std::vector<int64_t>& c, int64_t seed, int draws) {
  std::map<std::vector<int64_t>, long double> law;
  support::EnumerateTables(r, c, [&](const Table& t, long double p) {
    law[support::ColumnMajor(t)] = p;
  });
  std::map<std::vector<int64_t>, int64_t> seen;
  RandomStream stream{seed, kSeed2, kSeed3};
  std::vector<int64_t> t(r.size() * c.size());
  for (int d = 0; d < draws; ++d) {
    s.Draw(stream, t.data());
    ++seen[t];
  }
  double x2 = 0.0, pooled_expected = 0.0, pooled_seen = 0.0;
  int64_t cells = 0;
  for (const auto& [table, p] : law) {
    const double e = static_cast<double>(p) * draws;
    const auto it = seen.find(table);
    const double o = it == seen.end() ? 0.0 : static_cast<double>(it->second);
    if (e < kMinExpected) {
      pooled_expected += e;
      pooled_seen += o;
    } else {
      x2 += (o - e) * (o - e) / e;
      ++cells;
    }
  }
  if (pooled_expected > 0.0) {
    x2 += (pooled_seen - pooled_expected) * (pooled_seen - pooled_expected) / pooled_expected;
    ++cells;
  }
  return ChiSquareTail(x2, cells - 1);
}

// 100 totals of 10, one of them raised to 11 (none when `at` < 0).
std::vector<int64_t> Tens(int at) {
  std::vector<int64_t> v(100, 10);
  if (at >= 0) v[at] = 11;
  return v;
}

// Shuffling serves N <= min(10 x the shorter side, 1000) and takes one
// uniform per exchange, N - 1 per table, keeping the margins; the cell
// draws give the tables of the outward search and take its uniforms.  On
// the margins marked `law` (few enough tables to enumerate) the tables
// also follow the hypergeometric law.
TEST(Sampler, DrawsKeepTheMarginsFollowTheSearchAndTheLaw) {
  struct Case {
    std::vector<int64_t> rows, cols;
    bool shuffles, law;
    const char* source;
  };
  const Case cases[] = {
      {{3, 5, 7}, {4, 4, 7}, true, false, "N 15 <= 10 x 3"},
      {{7, 13}, {9, 11}, true, true, "N 20 = 10 x 2: still shuffled"},
      {{4, 5, 6}, {5, 5, 5}, true, true, "3 x 3 shuffled"},
      {Tens(-1), Tens(-1), true, false, "100 x 100, N 1000 = min(10 x 100, 1000): shuffled"},
      {{7, 14}, {9, 12}, false, false, "N 21 > 10 x 2"},
      {{1, 1, 1, 1, 27}, {2, 3, 26}, false, false, "N 31 > 10 x 3: rows exhausted early"},
      {{40, 2, 300, 7}, {100, 200, 1, 48}, false, false, "4 x 4, N 349, uneven margins"},
      {{600, 900}, {700, 800}, false, false, "N 1500: log factorials above the table"},
      {Tens(37), Tens(62), false, false, "100 x 100, N 1001: never shuffled"},
      {{5000, 4000, 3000}, {1, 11999}, false, false, "a column total of 1"},
      {{30, 50}, {35, 45}, false, true, "2 x 2 by cell draws, mode inside"},
      {{3, 97}, {95, 5}, false, false, "2 x 2, support of 4 values at one end"},
      {{11, 12, 13}, {9, 11, 16}, false, false, "3 x 3 by cell draws"},
      {{10, 11, 12}, {9, 11, 13}, false, true, "3 x 3 by cell draws, N 33"},
      {{3, 6, 9, 4}, {8, 14}, false, true, "4 x 2 by cell draws"},
  };
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  int64_t seed = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.source) + ": " + Margins(c.rows, c.cols));
    TableSampler s;
    ASSERT_EQ(s.Init(static_cast<int64_t>(c.rows.size()), static_cast<int64_t>(c.cols.size()),
                     c.rows.data(), c.cols.data(), lf.data()),
              0);
    EXPECT_EQ(s.Shuffles(), c.shuffles);
    RandomStream stream{++seed, kSeed2, kSeed3}, shadow = stream;
    std::vector<int64_t> t(c.rows.size() * c.cols.size(), -5);
    for (int d = 0; d < (c.rows.size() >= 100 ? 20 : 3000); ++d) {
      s.Draw(stream, t.data());
      ASSERT_TRUE(HasMargins(t, c.rows, c.cols)) << "draw " << d;
      if (c.shuffles) {
        for (int64_t k = 1; k < s.Total(); ++k) NextUniform(shadow);
      } else {
        ASSERT_EQ(t, ReferenceTable(shadow, c.rows, c.cols)) << "draw " << d;
      }
      ASSERT_EQ(std::tie(stream.s1, stream.s2, stream.s3), std::tie(shadow.s1, shadow.s2, shadow.s3))
          << "uniforms taken by draw " << d;
    }
    if (c.law) {
      EXPECT_GT(GoodnessOfFitP(s, c.rows, c.cols, 2024, 60000), kFalseAlarm);
    }
  }
}

// The Monte Carlo loop.

thread_local std::vector<std::string> t_lines;
thread_local int t_polls = 0;
thread_local int64_t t_poll_answer = 0;

void CountPoll(int64_t* flag) {
  ++t_polls;
  if (*flag == 0) *flag = t_poll_answer;
}
void KeepText(const char* text, int32_t*, int64_t*, int64_t length) {
  t_lines.emplace_back(text, static_cast<size_t>(length));
}

class McRouteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Host() = HostContact{};
    Host().poll = CountPoll;
    Host().text = KeepText;
    BuildLogFactorials(lf_);
    Restart(12345, 10000, 0.99, 100);
    StartTimeLimit();
    StartTicks();
  }
  void TearDown() override { Host() = HostContact{}; }

  // A fresh store with these settings, no lines or polls yet, and a host
  // that answers `answer` to a poll.
  static void Restart(int64_t seed, int64_t samples, double confidence, int64_t every, int64_t answer = 0) {
    ResetStore();
    t_lines.clear();
    t_polls = 0;
    t_poll_answer = answer;
    SetSetting(setting::kMcSeed1, seed);
    SetSetting(setting::kMcSeed2, kSeed2);
    SetSetting(setting::kMcSeed3, kSeed3);
    SetSetting(setting::kMcSamples, samples);
    SetSetting(setting::kMcConfidence, confidence);
    SetSetting(setting::kMcQuantileLevel, (1.0 + confidence) / 2.0);
    SetSetting(setting::kMcReportEvery, every);
  }

  LogFactorialTable lf_;
};

// The interval for no hit, all hits, and a hit rate inside (0, 1), with
// the level 0.99 over 50 tables and 0.95 over 100; hand values.
TEST_F(McRouteTest, IntervalsAtAndBetweenTheEdges) {
  struct Case {
    int64_t samples, hits_every;  // a hit on every k-th table (0: never)
    double confidence, estimate, low, high;
    const char* source;
  };
  const Case cases[] = {
      {50, 0, 0.99, 0.0, 0.0, 0.087989160644090236, "no hit: 1 - 0.01^(1/50)"},
      {50, 1, 0.99, 1.0, 0.91201083935590976, 1.0, "all hits: 0.01^(1/50)"},
      {100, 10, 0.95, 0.1, 0.1 - 0.058799, 0.1 + 0.058799,
       "10 of 100: 1.959964 sqrt(0.09 / 100)"},
  };
  const Table t = support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  const std::vector<int64_t> r = support::RowTotals(t), col = support::ColTotals(t);
  for (const Case& c : cases) {
    Restart(777, c.samples, c.confidence, 1000);
    std::vector<int64_t> work = support::ColumnMajor(t);
    int64_t calls = 0;
    auto rule = [&](const int64_t*) {
      ++calls;
      return c.hits_every != 0 && calls % c.hits_every == 0;
    };
    McResult out;
    ASSERT_EQ(McRoute(work, 3, 3, r, col, lf_.data(), rule, out), 0);
    EXPECT_EQ(calls, c.samples) << c.source;
    EXPECT_EQ(out.estimate, c.estimate) << c.source;
    EXPECT_NEAR(out.low, c.low, 1e-6) << c.source;
    EXPECT_NEAR(out.high, c.high, 1e-6) << c.source;

    PublishMonteCarlo(out, 7.25);
    EXPECT_EQ(Slot(slot::kStatistic).value, 7.25);
    EXPECT_EQ(Slot(slot::kMcTwoSided).value, c.estimate) << c.source;
    EXPECT_NEAR(Slot(slot::kMcTwoSidedLow).value, std::max(0.0, c.low), 1e-6) << c.source;
    EXPECT_NEAR(Slot(slot::kMcTwoSidedHigh).value, std::min(1.0, c.high), 1e-6) << c.source;
    EXPECT_NEAR(Slot(slot::kMcPercent).value, 100.0 * c.confidence, 1e-12);
    EXPECT_EQ(Slot(slot::kMcCount).value, static_cast<double>(c.samples));
    EXPECT_EQ(Slot(slot::kMcSeed).value, 777.0);
    EXPECT_EQ(Slot(slot::kMcTwoSidedHigh).status, kStatusPublished);
    EXPECT_EQ(Word(word::kPublishedMethod), 2);
  }
}

// The same seed repeats the run (tables, hits and interval) whatever the
// reports: they fall every McReportEvery tables, each after a poll of the
// host, and an interval above M sends none; a stop from the host at a
// report sets -6 and the loop still makes all M tables.  Another seed draws
// other tables.  The route leaves the M-th table in place: no draw after
// it.  No table at all is the failure kMcNoSamples.  Both branches of the
// sampler.
TEST_F(McRouteTest, SeedRepeatsTheRunWhateverTheReportsAndStops) {
  struct Run {
    uint64_t hash = 1469598103934665603ull;  // of every table the rule sees
    int64_t calls = 0;
    McResult out;
    std::vector<int64_t> last;
  };
  const std::vector<int64_t> r{3, 5, 4, 2, 6}, c{7, 2, 2, 9};      // N 20 <= 10 x 4: shuffled
  const std::vector<int64_t> r2{30, 5, 4, 2, 6}, c2{34, 2, 2, 9};  // N 47: cell draws
  for (const auto& [rows_t, cols_t] : {std::pair{r, c}, std::pair{r2, c2}}) {
    SCOPED_TRACE(Margins(rows_t, cols_t));
    auto run = [&](int64_t seed, int64_t samples, int64_t every, int64_t answer) {
      Restart(seed, samples, 0.95, every, answer);
      Run got;
      got.last.assign(20, 0);
      auto rule = [&](const int64_t* t) {
        ++got.calls;
        for (int k = 0; k < 20; ++k) got.hash = (got.hash ^ static_cast<uint64_t>(t[k])) * 1099511628211ull;
        return t[0] >= 3;
      };
      EXPECT_EQ(McRoute(got.last, 5, 4, rows_t, cols_t, lf_.data(), rule, got.out),
                samples > 0 ? 0 : kMcNoSamples);
      return got;
    };
    const Run reported = run(31, 350, 70, 0);
    EXPECT_EQ(t_polls, 5);
    ASSERT_EQ(t_lines.size(), 5u);
    for (const std::string& line : t_lines) EXPECT_EQ(line.back(), ')') << line;
    EXPECT_EQ(FailureCode(), 0);
    const Run silent = run(31, 350, 351, 0);
    EXPECT_EQ(t_polls, 0);
    EXPECT_TRUE(t_lines.empty());
    const Run stopped = run(31, 350, 70, 1);
    EXPECT_EQ(FailureCode(), fail::kStoppedByHost);
    for (const Run& again : {silent, stopped}) {
      EXPECT_EQ(again.calls, 350);
      EXPECT_EQ(again.hash, reported.hash);
      EXPECT_EQ(again.out.hits, reported.out.hits);
      EXPECT_EQ(again.out.low, reported.out.low);
      EXPECT_EQ(again.out.high, reported.out.high);
    }
    EXPECT_NE(run(32, 350, 100, 0).hash, reported.hash);
    for (int64_t samples : {0, -3}) EXPECT_EQ(run(31, samples, 100, 0).calls, 0) << samples;

    TableSampler s;
    ASSERT_EQ(s.Init(5, 4, rows_t.data(), cols_t.data(), lf_.data()), 0);
    RandomStream stream{31, kSeed2, kSeed3};
    std::vector<int64_t> t(20);
    for (int m = 0; m < 350; ++m) s.Draw(stream, t.data());
    EXPECT_EQ(reported.last, t);
  }
}

}  // namespace
}  // namespace anvl::net
