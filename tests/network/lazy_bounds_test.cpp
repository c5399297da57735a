// Bounds on demand against the full backward induction: every node of
// random Fisher networks, asked for from the first stage down (so that the
// pruned programme meets nodes it has not done), against the exact bounds
// that the backward pass writes to the spill file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/fisher.h"
#include "network/passes.h"

namespace anvl::net {
namespace {

TEST(LazyBounds, EveryNodeAgreesWithTheBackwardPass) {
  std::mt19937 rng(20261123);
  LogFactorialTable lf;
  int64_t nodes = 0;
  for (int trial = 0; trial < 160; ++trial) {
    ResetStore();
    SetSetting(setting::kMemoryLimit, int64_t{-1});
    Host() = HostContact{};
    StartTicks();
    BuildLogFactorials(lf);
    // Margins of a random table: 2 to 6 columns, 2 to 7 lines, uneven.
    const int K = std::uniform_int_distribution<int>(2, 6)(rng);
    const int S = std::uniform_int_distribution<int>(K, 7)(rng);
    const int n = std::uniform_int_distribution<int>(S + K, 70)(rng);
    std::vector<double> weight(static_cast<size_t>(K * S));
    for (double& w : weight) w = std::uniform_real_distribution<double>(0.2, 2.0)(rng);
    std::discrete_distribution<int> cell(weight.begin(), weight.end());
    std::vector<int64_t> A(K, 0), B(S, 0);
    for (int i = 0; i < n; ++i) {
      const int c = cell(rng);
      ++A[c % K];
      ++B[c / K];
    }
    if (std::count(A.begin(), A.end(), 0) + std::count(B.begin(), B.end(), 0) > 0) continue;
    std::sort(A.begin(), A.end());
    std::sort(B.begin(), B.end());
    SCOPED_TRACE("trial " + std::to_string(trial));

    Network net;
    net.SetMargins(A, B, lf.data(), true);
    int64_t limit = 0;
    ASSERT_EQ(EstimateCanonicalStageNodes(net.A, net.B, &limit), 0);
    net.SetCapacity(limit);
    NodeFileGuard guard;
    ASSERT_EQ(OpenNodeFile(8 * net.codec.n_words + 16), 0);
    const FisherMember member;
    ASSERT_EQ(BackwardInduction(net, member), 0);
    LazyBounds<FisherMember> lazy(net, member);
    ASSERT_EQ(lazy.Create(), 0);
    std::vector<int64_t> key(net.codec.n_words);
    for (int t = 1; t <= S; ++t) {
      // Stage t's records follow those of the stages above it.
      const int64_t from = t == S ? 1 : net.stage_end[t] + 1, to = net.stage_end[t - 1];
      for (int64_t rec = from; rec <= to; ++rec) {
        double shortest = 0.0, longest = 0.0;
        ASSERT_EQ(ReadWordsPair(key.data(), net.codec.n_words, &shortest, &longest, rec), 0);
        const double lazy_longest = lazy.Longest(t, key.data());
        const double lazy_shortest = lazy.Shortest(t, key.data());
        ASSERT_NEAR(lazy_longest, longest, 1e-12 * (1.0 + std::fabs(longest)))
            << "most probable completion, stage " << t << " record " << rec;
        ASSERT_NEAR(lazy_shortest, shortest, 1e-12 * (1.0 + std::fabs(shortest)))
            << "least probable completion, stage " << t << " record " << rec;
        ++nodes;
      }
    }
    EXPECT_FALSE(lazy.failed());
  }
  EXPECT_GT(nodes, 20000);
}

}  // namespace
}  // namespace anvl::net
