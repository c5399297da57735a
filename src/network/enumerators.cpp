#include "network/enumerators.h"

namespace anvl::net {

int64_t StageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                        int64_t* matrix) {
  const int levels = K - 1;
  const int64_t R = N - T;
  int64_t c[kMaxDigits], upper[kMaxDigits], asum[kMaxDigits];
  int64_t s = 0;
  for (int j = 0; j < levels; ++j) {
    s += A[j];
    asum[j] = s;
  }
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

}  // namespace anvl::net
