#include "network/enumerators.h"

#include <new>
#include <vector>

namespace anvl::net {

namespace {

// asum[j] = A_0 + ... + A_j for the first `levels` margins.
void PrefixSums(const int64_t* A, int levels, int64_t* asum) {
  int64_t s = 0;
  for (int j = 0; j < levels; ++j) asum[j] = s += A[j];
}

}  // namespace

int64_t StageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                        int64_t* matrix) {
  const int levels = K - 1;
  const int64_t R = N - T;
  int64_t c[kMaxDigits], upper[kMaxDigits], asum[kMaxDigits];
  PrefixSums(A, levels, asum);
  auto fill = [&](int from) {
    for (int j = from; j < levels; ++j) {
      const int64_t prev = j == 0 ? 0 : c[j - 1];
      c[j] = std::max(prev, asum[j] - R);
      upper[j] = std::min(prev + A[j], T);
    }
  };
  int64_t count = 0;
  if (levels == 0) {
    if (limit < 1) return -1;
    return 1;
  }
  fill(0);
  for (;;) {
    if (count >= limit) return -1;
    int64_t* node = &matrix[static_cast<size_t>(count * levels)];
    int64_t prev = 0;
    for (int j = 0; j < levels; ++j) {
      node[j] = c[j] - prev;
      prev = c[j];
    }
    ++count;
    int level = levels - 1;
    ++c[level];
    while (c[level] > upper[level]) {
      if (level == 0) return count;
      --level;
      ++c[level];
    }
    fill(level + 1);
  }
}

namespace {

// The number of nodes of a stage with total T (0 <= m_j <= A_j, summing to
// T), or limit + 1 when there are more.  Column by column, the count of
// each partial sum is a window sum of the last column's counts; counts are
// held at limit + 1 at most, which keeps every window sum exact in 128 bits.
int64_t StageNodeCount(int K, const int64_t* A, int64_t T, int64_t limit) {
  const int64_t cap = limit + 1;
  std::vector<int64_t> ways(static_cast<size_t>(T) + 1, 0), next(ways.size());
  ways[0] = 1;
  for (int j = 0; j < K; ++j) {
    __int128 window = 0;
    for (int64_t s = 0; s <= T; ++s) {
      window += ways[s];
      if (s - A[j] - 1 >= 0) window -= ways[s - A[j] - 1];
      next[s] = window > cap ? cap : static_cast<int64_t>(window);
    }
    ways.swap(next);
  }
  return ways[T];
}

// The first node of each class, as CanonicalStageEnumerator lists them:
// digits j.. after a prefix summing to `prev`, each within the bounds of
// StageEnumerator and in its order, and each leaving the node the least of
// its class so far (no earlier column i could take its complement and give
// its own, smaller one).
struct ClassListing {
  int levels;
  const int64_t* A;
  int64_t T, R;
  int64_t* matrix;
  int64_t count = 0;
  int64_t asum[kMaxDigits] = {}, m[kMaxDigits] = {}, u[kMaxDigits] = {};

  bool Least(int j, int64_t v) const {
    for (int i = 0; i < j; ++i)
      if (u[i] < v && v <= A[i]) return false;
    return true;
  }
  void Visit(int j, int64_t prev) {
    if (j == levels) {
      if (!Least(levels, A[levels] - (T - prev))) return;
      for (int i = 0; i < levels; ++i) matrix[static_cast<size_t>(count * levels + i)] = m[i];
      ++count;
      return;
    }
    const int64_t lo = std::max<int64_t>(0, asum[j] - R - prev);
    const int64_t hi = std::min(A[j], T - prev);
    for (int64_t x = lo; x <= hi; ++x) {
      u[j] = A[j] - x;
      if (!Least(j, u[j])) continue;
      m[j] = x;
      Visit(j + 1, prev + x);
    }
  }
};

}  // namespace

int64_t CanonicalStageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                                 int64_t* matrix) {
  if (K == 1) return limit < 1 ? -1 : 1;
  try {
    if (StageNodeCount(K, A, T, limit) > limit) return -1;
    ClassListing listing{K - 1, A, T, N - T, matrix};
    PrefixSums(A, K - 1, listing.asum);
    listing.Visit(0, 0);
    return listing.count;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

}  // namespace anvl::net
