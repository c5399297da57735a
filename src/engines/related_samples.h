// Rank tests on related samples: Friedman's test (procedure 24), Cochran's
// Q (26) and Kendall's coefficient of concordance (51).  N blocks of K
// related observations are ranked inside each block (mid-ranks for ties);
// the p-value comes from the chi-square law with K - 1 degrees of freedom,
// from random within-block permutations, or exactly from the distribution
// of the rank sums over all K!^(N-1) within-block permutations.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"

namespace anvl::eng {

// Driver of procedures 24, 26 and 51.  CaseData holds CaseRows = K rows
// (treatments) by CaseCols columns (blocks), the row index fastest, so
// that a block's K values lie together.  Before the run the driver drops,
// in the caller's array, every block whose values all equal its first
// value, moving the later blocks forward; nothing else of the caller's
// data is written.  A value that isn't a finite number fails with -3 before
// anything is written.  Fewer than two rows or blocks left: 151.
// Cochran's Q with a value other than 0 and 1: -35.
void RelatedSamplesDriver(const CallArgs& args);

// Drops the constant blocks of a K x n column-major array in place and
// returns the number of blocks left.
int64_t CompactBlocks(double* data, int64_t k, int64_t n);

// The ranks of N blocks and the statistics built on them.
struct BlockRanking {
  int64_t K = 0, N = 0;
  std::vector<double> ranks;      // K x N: block b's mid-ranks in ascending order of value
  std::vector<int64_t> rows;      // K x N: the row of each of those ranks
  std::vector<double> rank_sums;  // R_i
  double S = 0.0;                 // sum (R_i - N (K + 1) / 2)^2
  double raw = 0.0;               // sum R_i^2
  double T = 0.0;                 // over the blocks, sum over tie groups of t^3, less K
  double C = 0.0;                 // over the blocks, sum over tie groups of t^3 - t
  double chi2 = 0.0;  // Friedman's statistic, tie-corrected: 12 S / (K N (K+1) - T / (K-1))
  double W = 0.0;     // Kendall's W
};

// Ranks the K x N blocks.  With `binary` set, a value other than 0.0 and
// 1.0 fails with -35.  Returns 0 or the failure code; -1 when memory is
// refused.
int RankBlocks(const double* data, int64_t K, int64_t N, bool binary, BlockRanking& out);

struct RelatedExact {
  double tail = 0.0;   // P(sum R_i^2 beyond the observed, by the relative margin)
  double point = 0.0;  // P(sum R_i^2 equal to the observed)
};
// The exact route: the distribution of the sorted vector of partial rank
// sums, block by block, with the two bounds that settle a vector before
// the last block.  Returns 0, -1 (too many paths, table full, memory) or
// 6 (the memory budget leaves no more than 5000 nodes).
int RelatedExactRoute(const BlockRanking& r, RelatedExact& out);

}  // namespace anvl::eng
