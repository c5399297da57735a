#include "kernel/random.h"

#include <cmath>

#include "kernel/host_library.h"

namespace anvl {
namespace {

// Moduli and multipliers of the three congruential generators.
constexpr int64_t kModulus1 = 30269, kMultiplier1 = 171;
constexpr int64_t kModulus2 = 30307, kMultiplier2 = 172;
constexpr int64_t kModulus3 = 30323, kMultiplier3 = 170;

// Ranges with r - l below this are sorted by straight insertion.
constexpr int64_t kInsertionLimit = 7;
// Pairs of bounds the sort stack holds; the shorter part goes first, so a
// sort of n elements needs at most log2 n of them.
constexpr int kStackPairs = 50;
// The pivot generator: f := (f * 211 + 1663) mod 7875, scaled to [0, 1) by
// 1 / 7875 rounded to 0.00012698413.
constexpr int64_t kPivotMultiplier = 211;
constexpr int64_t kPivotIncrement = 1663;
constexpr int64_t kPivotModulus = 7875;
constexpr double kPivotScale = 0.00012698413;

thread_local int t_high_water = 0;

// An array seen with the indices 1..n of the algorithm.
template <class T>
struct OneBased {
  T* base;
  T& operator[](int64_t k) const { return base[k - 1]; }
};

// Sorts a[1..n], carrying tags when the sort has them.  With report set a
// stack overflow is reported; the sort stops in either case.
template <bool kTagged>
void QuickSort(int64_t n, double* a0, int64_t* tags0, bool report) {
  const OneBased<double> a{a0};
  const OneBased<int64_t> tags{tags0};
  int64_t stack[2 * kStackPairs];
  int depth = 0;
  int64_t l = 1, r = n, f = 0;
  t_high_water = 0;
  for (;;) {
    if (r - l < kInsertionLimit) {
      for (int64_t j = l + 1; j <= r; ++j) {
        const double v = a[j];
        const int64_t tag = kTagged ? tags[j] : 0;
        int64_t i = j - 1;
        for (; i >= l && a[i] >= v; --i) {
          a[i + 1] = a[i];
          if constexpr (kTagged) tags[i + 1] = tags[i];
        }
        a[i + 1] = v;
        if constexpr (kTagged) tags[i + 1] = tag;
      }
      if (depth == 0) return;
      --depth;
      l = stack[2 * depth];
      r = stack[2 * depth + 1];
      continue;
    }
    f = (f * kPivotMultiplier + kPivotIncrement) % kPivotModulus;
    const int64_t q = static_cast<int64_t>(l + (r - l + 1) * kPivotScale * f);
    const double pivot = a[q];
    const int64_t pivot_tag = kTagged ? tags[q] : 0;
    a[q] = a[l];
    if constexpr (kTagged) tags[q] = tags[l];
    // The hole starts at l; fill it from the right, then the hole left on
    // the right from the left, until the two scans meet.
    int64_t i = l, j = r;
    for (;;) {
      while (j > i && pivot < a[j]) --j;
      if (j <= i) break;
      a[i] = a[j];
      if constexpr (kTagged) tags[i] = tags[j];
      ++i;
      while (i < j && pivot > a[i]) ++i;
      if (j <= i) {
        i = j;
        break;
      }
      a[j] = a[i];
      if constexpr (kTagged) tags[j] = tags[i];
      --j;
    }
    a[i] = pivot;
    if constexpr (kTagged) tags[i] = pivot_tag;
    if (depth == kStackPairs) {
      if (report) BP_ERROR(BP_CSTRING("NSTACK must be made larger.", -1), 1, 3);
      return;
    }
    if (r - i < i - l) {
      stack[2 * depth] = l;
      stack[2 * depth + 1] = i - 1;
      l = i + 1;
    } else {
      stack[2 * depth] = i + 1;
      stack[2 * depth + 1] = r;
      r = i - 1;
    }
    ++depth;
    if (depth > t_high_water) t_high_water = depth;
  }
}

}  // namespace

double NextUniform(RandomStream& s) {
  s.s1 = ((s.s1 % kModulus1) * kMultiplier1) % kModulus1;
  s.s2 = ((s.s2 % kModulus2) * kMultiplier2) % kModulus2;
  s.s3 = ((s.s3 % kModulus3) * kMultiplier3) % kModulus3;
  const double t = static_cast<double>(s.s1) / 30269.0 + static_cast<double>(s.s2) / 30307.0 +
                   static_cast<double>(s.s3) / 30323.0;
  return t - std::trunc(t);
}

void SortReals(int64_t n, double* a) { QuickSort<false>(n, a, nullptr, false); }

void SortRealsWithTags(int64_t n, double* a, int64_t* tags) { QuickSort<true>(n, a, tags, true); }

int SortStackHighWater() { return t_high_water; }

}  // namespace anvl
