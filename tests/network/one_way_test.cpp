// Procedures 7 and 507 on case data, the one-way goodness-of-fit test:
// exact p-values against enumeration of every table of counts with the
// total, statistic and asymptotic p-value against R, and the host's stop.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::support::HostCall;

HostCall OneWay(int64_t procedure, int64_t method, std::vector<int64_t> counts,
                std::vector<double> expected) {
  HostCall c(procedure, method);
  c.weights = std::move(counts);
  c.values = std::move(expected);
  c.case_rows = 1;
  return c;
}

double X2(const std::vector<int64_t>& n, const std::vector<double>& e) {
  double x = 0.0;
  for (size_t i = 0; i < n.size(); ++i) x += (n[i] - e[i]) * (n[i] - e[i]) / e[i];
  return x;
}

// Every table of K counts with total N, with its multinomial probability
// under p_i = E_i / sum E.  p: the mass of X^2 >= 0.999995 obs; point: of
// 0.999995 obs <= X^2 <= 1.000005 obs, the engine's margins.  `unclear` is
// set when a table lies so near a margin that rounding could move it.
struct Enumerated {
  long double p = 0, point = 0;
  bool unclear = false;
};
Enumerated Enumerate(const std::vector<int64_t>& counts, const std::vector<double>& e) {
  const int K = static_cast<int>(e.size());
  int64_t N = 0;
  for (int64_t c : counts) N += c;
  long double sum_e = 0;
  for (double x : e) sum_e += x;
  const double obs = X2(counts, e);
  const double lo = 0.999995 * obs, hi = 1.000005 * obs;
  Enumerated out;
  std::vector<int64_t> n(K, 0);
  auto visit = [&](auto&& self, int i, int64_t left) -> void {
    if (i == K - 1) {
      n[i] = left;
      const double x = X2(n, e);
      long double lp = lgammal(N + 1.0L);
      for (int j = 0; j < K; ++j) lp += n[j] * logl(e[j] / sum_e) - lgammal(n[j] + 1.0L);
      const long double prob = expl(lp);
      if (x >= lo) out.p += prob;
      if (x >= lo && x <= hi) out.point += prob;
      for (double edge : {lo, hi})
        if (std::fabs(x - edge) <= 2e-6 * obs && obs > 0) out.unclear = true;
      return;
    }
    for (int64_t c = 0; c <= left; ++c) {
      n[i] = c;
      self(self, i + 1, left - c);
    }
  };
  visit(visit, 0, N);
  return out;
}

TEST(OneWay, ExactMatchesEnumerationOfAllTablesWithTheTotal) {
  std::mt19937_64 rng(507);
  // (K, largest N): at most some 10^5 tables.
  const int shapes[][2] = {{2, 60}, {3, 40}, {4, 25}, {5, 16}, {6, 12}, {8, 8}};
  int cases = 0, unclear = 0;
  for (int round = 0; round < 40; ++round) {
    for (const auto& shape : shapes) {
      const int K = shape[0];
      const int64_t N = std::uniform_int_distribution<int64_t>(1, shape[1])(rng);
      std::vector<double> w(K);
      double sum = 0;
      for (double& x : w) {
        // Equal expected counts every third round: many ties in X^2.
        x = round % 3 == 0 ? 1.0 : std::uniform_real_distribution<double>(0.1, 3.0)(rng);
        sum += x;
      }
      std::vector<double> e(K);
      for (int i = 0; i < K; ++i) e[i] = N * (w[i] / sum);
      std::vector<int64_t> n(K, 0);
      std::discrete_distribution<int> cat(w.begin(), w.end());
      for (int64_t u = 0; u < N; ++u) ++n[(round % 2 ? cat(rng) : rng() % K)];
      const Enumerated ref = Enumerate(n, e);
      if (ref.unclear) {
        ++unclear;
        continue;
      }
      SCOPED_TRACE(testing::PrintToString(n) + " against " + testing::PrintToString(e));
      const int64_t proc = round % 2 ? TQ_PROC_CHISQ : TQ_PROC_CHISQ_SHORT;
      HostCall c = OneWay(proc, TQ_METHOD_EXACT, n, e);
      const double* r = c.RunCases();
      ASSERT_EQ(r[48], 0.0);
      EXPECT_EQ(c.Published(), (std::vector<int>{0, 16, 17}));
      EXPECT_NEAR(r[0], X2(n, e), 1e-12 * r[0]);
      EXPECT_NEAR(r[16], static_cast<double>(ref.p), 1e-9 * static_cast<double>(ref.p));
      EXPECT_NEAR(r[17], static_cast<double>(ref.point), 1e-9 * static_cast<double>(ref.point));
      ++cases;
    }
  }
  EXPECT_GE(cases, 200);
  EXPECT_LE(unclear, 5);
}

TEST(OneWay, AsymptoticMatchesR) {
  const auto refs = anvl::support::LoadCsv("oneway_refs.csv");  // see gen_related_refs.R
  ASSERT_EQ(refs.size(), 24u);
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.Text("id"));
    HostCall c = OneWay(TQ_PROC_CHISQ, TQ_METHOD_ASYMPTOTIC, ref.Ints("counts"), ref.Reals("expected"));
    const double* r = c.RunCases();
    ASSERT_EQ(r[48], 0.0);
    EXPECT_EQ(c.Published(), std::vector<int>{0});
    EXPECT_NEAR(r[0], ref.Real("x2"), 1e-12 * ref.Real("x2"));
    EXPECT_NEAR(anvl::Slot(anvl::slot::kAsymTwoSided).value, ref.Real("p"), 1e-10 * ref.Real("p"));
    EXPECT_EQ(anvl::Word(anvl::word::kDegreesOfFreedom), ref.Int("df"));
  }
}

// A stop asked by the host ends the exact run with its code; expected
// counts within 1e-6 of the total pass (the failures: engines/failures_test.cpp,
// Monte Carlo: engines/sampling_routes_test.cpp).
TEST(OneWay, HostStopAndExpectedCountsNearTheTotal) {
  HostCall stopped = OneWay(TQ_PROC_CHISQ, TQ_METHOD_EXACT, {7, 6, 9}, {7, 6, 9});
  stopped.poll = [](int64_t* flag) { *flag = *flag == -1 ? -1 : 1; };
  EXPECT_EQ(stopped.RunCases()[48], -1006.0);
  HostCall close = OneWay(TQ_PROC_CHISQ, TQ_METHOD_EXACT, {7, 6, 9}, {7, 6, 9 + 2e-5});
  EXPECT_EQ(close.RunCases()[48], 0.0);
}

}  // namespace
