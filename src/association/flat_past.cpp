#include "association/flat_past.h"

namespace anvl::assoc {

std::vector<double> StageNodeCounts(const net::Network& net) {
  // ways[t]: vectors over the key columns so far with sum t.
  std::vector<double> ways(static_cast<size_t>(net.N + 1), 0.0), next(ways.size());
  ways[0] = 1.0;
  int64_t reach = 0;
  for (int64_t a : net.A) {
    std::fill(next.begin(), next.end(), 0.0);
    for (int64_t t = 0; t <= reach; ++t) {
      if (ways[t] == 0.0) continue;
      for (int64_t k = 0; k <= a; ++k) next[t + k] += ways[t];
    }
    reach += a;
    ways.swap(next);
  }
  std::vector<double> counts(static_cast<size_t>(net.S + 1));
  for (int s = 0; s <= net.S; ++s) counts[s] = ways[net.T[s]];
  return counts;
}

}  // namespace anvl::assoc
