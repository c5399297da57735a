// The exact engine of the score tests: the distribution of
// T = sum s[j] x[j] over the first rows x of a two-row table with fixed
// column totals, walked column by column.  A node is a pair (first-row sum
// so far, statistic so far); a node whose reachable range lies wholly
// above, below or between the two bounds is settled at once, so the tables
// are never listed.  The nodes of two adjacent stages share one hashed
// grid in memory; there is no spill file.
#pragma once

#include <cstdint>
#include <vector>

namespace anvl::scores {

// One level of a two-row table: its counts in the two rows and its score.
struct TwoRowColumn {
  int64_t first = 0;
  int64_t second = 0;
  double score = 0.0;
};

// The five masses of the distribution: above the high bound, on it, below
// the low bound, on it, and strictly between the two.
struct TwoRowTails {
  double high_tail = 0.0, high_point = 0.0;
  double low_tail = 0.0, low_point = 0.0;
  double middle = 0.0;
};

// Path weights.  Plain: hypergeometric, the product of C(c[j], x[j]) over
// C(N, m) (two independent samples).  Balanced: each real column binomial
// with probability one half, the last column (score 0) taking what the
// others leave of m (paired samples, marginal homogeneity).  Past values
// of one node key within kMergeTolerance relative are one node.
struct PlainForm {
  static constexpr bool kBalanced = false;
  static constexpr double kMergeTolerance = 0x1p-30;
};
struct BalancedForm {
  static constexpr bool kBalanced = true;
  static constexpr double kMergeTolerance = 0x1p-30;
};
struct BalancedCoarseForm {
  static constexpr bool kBalanced = true;
  static constexpr double kMergeTolerance = 0x1p-23;
};

// The slot grid: rows x slots_per_row slots of 24 bytes, and the odd prime
// that hashes a node to its row.
struct GridShape {
  int64_t rows = 0;
  int64_t slots_per_row = 0;
  int64_t prime = 0;  // 0: no odd prime at or below rows
};
// The grid that a memory budget in bytes buys: Q = budget / 20 - 4000
// slots, in 15000 rows when Q allows (the rest of Q ignored), else Q rows
// of one slot.
GridShape GridFor(int64_t budget_bytes);
// Largest odd prime at or below n; 0 when there is none.
int64_t LargestOddPrime(int64_t n);

// The order in which the network takes the columns: empty columns go,
// the rest are sorted by score (lowest first; in the balanced form the
// last column stays last), and then, position by position, the column
// whose middle take leaves the narrowest spread of what the later columns
// can add comes next.  Returns the kept columns in stage order.
std::vector<TwoRowColumn> StageOrder(const std::vector<TwoRowColumn>& columns, bool balanced);

// Runs the network on `columns` (first-row total m = sum of `first`) with
// the grid of `budget_bytes` and fills `out`.  Returns 0; -4 with fewer
// than two non-empty columns; -1 when there is no prime for the grid, the
// grid is full or the per-stage caches exceed the budget; -8 for a hash
// out of range; the failure code of a stop from the host or the clock.
template <class Form>
int TwoRowNetwork(const std::vector<TwoRowColumn>& columns, double high_bound, double low_bound,
                  int64_t budget_bytes, TwoRowTails& out);

// Nodes in the grid at the end of the largest stage of the last run on
// this thread, for tests and benchmarks.
int64_t LastNetworkPeakNodes();

// The route of the runs of this thread, so that tests can hold the routes
// side by side: 0 as the scores decide; 1 the hashed tables for any scores;
// 2 the lattice runs with a reach flag per entry even where the weights
// can't underflow.
void SetNetworkRouteForTesting(int route);

}  // namespace anvl::scores
