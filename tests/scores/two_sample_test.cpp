// The two-sample score tests against brute force: every first row with the
// table's margins, weighted by its hypergeometric probability.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "association/two_cut.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "scores/two_row_network.h"
#include "support/host_call.h"

namespace anvl::support {
namespace {

long double LogChoose(int64_t n, int64_t k) {
  return std::lgammal(n + 1.0L) - std::lgammal(k + 1.0L) - std::lgammal(n - k + 1.0L);
}

// Every first row x (column totals c, first-row total `left`) with T = sum
// x[j] s[j] and its log weight.
void Walk(const std::vector<int64_t>& c, const std::vector<double>& s, size_t j, int64_t left,
          long double logw, long double t, std::vector<std::pair<long double, long double>>& out) {
  if (j + 1 == c.size()) {
    if (left <= c[j]) out.emplace_back(t + left * (long double)s[j], logw + LogChoose(c[j], left));
    return;
  }
  for (int64_t x = 0; x <= std::min(c[j], left); ++x)
    Walk(c, s, j + 1, left - x, logw + LogChoose(c[j], x), t + x * (long double)s[j], out);
}

// The network's distribution of T by enumeration: plain (hypergeometric
// first rows) or balanced (every column but the last binomial with
// probability one half, the last one of score 0 taking what is left).
std::vector<std::pair<long double, long double>> NetworkRows(
    const std::vector<scores::TwoRowColumn>& cols, bool balanced) {
  std::vector<int64_t> c;
  std::vector<double> s;
  int64_t m = 0, N = 0;
  for (const auto& col : cols) {
    c.push_back(col.first + col.second);
    s.push_back(col.score);
    m += col.first;
    N += c.back();
  }
  std::vector<std::pair<long double, long double>> rows;
  if (!balanced) {
    Walk(c, s, 0, m, -LogChoose(N, m), 0, rows);
    return rows;
  }
  rows.emplace_back(0.0L, -(long double)m * std::log(2.0L));
  for (size_t j = 0; j + 1 < c.size(); ++j) {
    std::vector<std::pair<long double, long double>> next;
    for (auto [v, lw] : rows)
      for (int64_t x = 0; x <= c[j]; ++x) next.emplace_back(v + x * (long double)s[j], lw + LogChoose(c[j], x));
    rows.swap(next);
  }
  return rows;
}

// The rank-sum (midrank scores) and equally spaced score tests on random
// two-row tables, ties within 1e-9 absolute (the scores are halves): the
// side, the one-sided and two-sided tails and the point, by enumeration.
TEST(TwoSampleScores, ExactMatchesEnumerationWithHeavyTies) {
  std::mt19937_64 rng(20261123);
  int checked = 0;
  for (int trial = 0; trial < 400; ++trial) {
    const int K = 2 + static_cast<int>(rng() % 5);
    Table t{2, K, std::vector<int64_t>(2 * K)};
    for (auto& x : t.cells) x = static_cast<int64_t>(rng() % 5);
    if (GrandTotal(t) == RowTotals(t)[0] || RowTotals(t)[0] == 0) continue;
    for (int64_t procedure : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL}) {
      std::vector<scores::TwoRowColumn> cols;
      long double tobs = 0, mean = 0, rank = 0;
      for (int j = 0; j < K; ++j) {
        const int64_t c = t.at(0, j) + t.at(1, j);
        cols.push_back({t.at(0, j), t.at(1, j), procedure == TQ_PROC_WILCOXON ? double(rank + (c + 1) / 2.0L) : j});
        rank += c;
        tobs += t.at(0, j) * (long double)cols.back().score;
        mean += (long double)RowTotals(t)[0] / GrandTotal(t) * c * cols.back().score;
      }
      const long double hi = std::max(tobs, 2 * mean - tobs), lo = std::min(tobs, 2 * mean - tobs), eps = 1e-9L;
      long double above = 0, below = 0, point = 0, two = 0;
      for (auto [v, lw] : NetworkRows(cols, false)) {
        const long double p = std::exp(lw);
        above += v >= tobs - eps ? p : 0, below += v <= tobs + eps ? p : 0;
        point += std::fabs(v - tobs) <= eps ? p : 0;
        two += (v >= hi - eps ? p : 0) + (v <= lo + eps ? p : 0);
      }
      HostCall call(procedure, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      const std::string what = Describe(t) + " procedure " + std::to_string(procedure);
      ASSERT_EQ(f[48], 0.0) << what;
      EXPECT_EQ(f[12], tobs > mean ? 2.0 : 1.0) << what;
      assoc_test::ExpectNear(f[15], tobs > mean ? above : below, 0, what + " one-sided");
      assoc_test::ExpectNear(f[16], std::min<long double>(1, two), 0, what + " two-sided");
      assoc_test::ExpectNear(f[17], point, 0, what + " point");
      ++checked;
    }
  }
  EXPECT_GE(checked, 600);
}

// Both routes of the network (dense lattice runs where the scores are
// multiples of a power of 1/2, hashed tables for any scores) against the
// enumerated distribution, to 1e-12; on lattice scores they must hold the
// same nodes, and a grid one node short of the largest pair of stages must
// fail on both with -1.
TEST(TwoRowNetworkRoutes, MatchEnumerationAndEachOther) {
  ResetStore();
  SetSetting(setting::kMemoryLimit, int64_t{-1});
  SetSetting(setting::kTimeLimit, int64_t{0});
  Host() = HostContact{};
  StartTimeLimit();
  StartTicks();
  std::mt19937_64 rng(4711);
  // The far scores leave the lattice runs sparse, so that at the smallest
  // grids the hashed passes take over.
  const double on_lattice[] = {0, 0.5, 1, 1.5, 2, 3, 4.5, 7, 12.25, -1, -2.5, 1024.5, 3001};
  const double off_lattice[] = {0.1, 0.3, 1.7, 2.2, 0.001, 3.14159, 5.05};
  int lattice_runs = 0, failures_pinned = 0;
  for (int trial = 0; trial < 800; ++trial) {
    const int form = trial % 3;  // plain, balanced, balanced with the coarse merge
    const bool lattice = trial % 4 != 3 || form == 2;
    const int K = 2 + static_cast<int>(rng() % 5);
    std::vector<scores::TwoRowColumn> cols(K);
    for (auto& col : cols) {
      col.first = static_cast<int64_t>(rng() % 6);
      col.second = static_cast<int64_t>(rng() % 6);
      col.score = lattice ? on_lattice[rng() % 13] : off_lattice[rng() % 7];
      if (form != 0) col.score = col.score == 0 ? 1 : std::fabs(col.score);  // differences d > 0
    }
    if (form != 0) {
      int64_t pos = 0, neg = 0;
      for (const auto& col : cols) pos += col.first, neg += col.second;
      cols.push_back({neg, pos, 0.0});
    }
    long double tobs = 0, total = 0;
    int64_t m = 0, N = 0;
    for (const auto& col : cols) {
      tobs += col.first * (long double)col.score;
      total += (col.first + col.second) * (long double)col.score;
      m += col.first;
      N += col.first + col.second;
    }
    if (m == 0 || m == N) continue;
    const double mean = form == 0 ? (double)(total * m / N) : (double)(total / 2);
    const double high = std::max<double>(tobs, 2 * mean - tobs), low = std::min<double>(tobs, 2 * mean - tobs);
    const double e = std::fabs(high) * 0x1p-23;
    long double ref[4] = {};  // high tail, high point, low tail, low point
    for (auto [v, lw] : NetworkRows(cols, form != 0)) {
      const long double p = std::exp(lw);
      if (v > high + e) ref[0] += p;
      if (std::fabs(v - high) <= e) ref[1] += p;
      if (v < low - e) ref[2] += p;
      if (std::fabs(v - low) <= e) ref[3] += p;
    }
    SCOPED_TRACE("trial " + std::to_string(trial));
    const auto run = [&](int64_t budget, int route, scores::TwoRowTails& t, int64_t& peak) {
      scores::SetNetworkRouteForTesting(route);
      const int code = form == 0   ? scores::TwoRowNetwork<scores::PlainForm>(cols, high, low, budget, t)
                       : form == 1 ? scores::TwoRowNetwork<scores::BalancedForm>(cols, high, low, budget, t)
                                   : scores::TwoRowNetwork<scores::BalancedCoarseForm>(cols, high, low, budget, t);
      scores::SetNetworkRouteForTesting(0);
      peak = scores::LastNetworkPeakNodes();
      return code;
    };
    // Routes: lattice (where the scores allow), hashed, lattice with reach flags.
    int64_t peak[3] = {};
    int nonempty = 0;
    for (const auto& col : cols) nonempty += col.first + col.second > 0;
    for (int route : {0, 1, 2}) {
      scores::TwoRowTails t;
      const int code = run(16777216, route, t, peak[route]);
      if (nonempty < 2) {
        EXPECT_EQ(code, -4);
        continue;
      }
      ASSERT_EQ(code, 0) << "route " << route;
      const double got[4] = {t.high_tail, t.high_point, t.low_tail, t.low_point};
      for (int i = 0; i < 4; ++i)
        EXPECT_LE(std::fabs(got[i] - (double)ref[i]), 1e-12 * std::max(1e-300, (double)ref[i]))
            << "route " << route << " probability " << i << ": " << got[i] << " want " << (double)ref[i];
      EXPECT_NEAR(t.high_tail + t.high_point + t.low_tail + t.low_point + t.middle,
                  1.0 + (high == low ? t.high_point : 0.0), 1e-9);
    }
    if (!lattice || peak[0] == 0) continue;
    ++lattice_runs;
    EXPECT_EQ(peak[0], peak[1]);
    EXPECT_EQ(peak[0], peak[2]);
    // Budgets whose grid is one row of peak - 1 and of peak slots.
    if (peak[0] < 4) continue;  // a grid of fewer than 3 rows has no odd prime
    for (int route : {0, 1, 2}) {
      scores::TwoRowTails t;
      int64_t p = 0;
      EXPECT_EQ(run((peak[0] - 1 + 4000) * 20, route, t, p), -1) << "route " << route;
      EXPECT_EQ(run((peak[0] + 4000) * 20, route, t, p), 0) << "route " << route;
    }
    ++failures_pinned;
  }
  EXPECT_GE(lattice_runs, 300);
  EXPECT_GE(failures_pinned, 200);
}

}  // namespace
}  // namespace anvl::support
