// The random stream of the Monte Carlo routes (Wichmann and Hill, AS 183)
// and the two in-place sorts.
#pragma once

#include <cstdint>

namespace anvl {

// Three seeds; each route owns its stream for the length of its run.
struct RandomStream {
  int64_t s1, s2, s3;
};

// One draw; the seeds advance.  Remainders truncate toward zero, so a
// negative first seed gives a negative s1 (and u is not forced into 0..1).
double NextUniform(RandomStream& stream);

// Quicksort with a pseudo-random pivot and straight insertion below 8
// elements, ascending, in place; not stable.  The stack holds at most 50
// pairs (the shorter part goes first, so about log2 n are used).
void SortReals(int64_t n, double* a);
// The same, carrying tags[i] with a[i].  Should the stack ever overflow it
// reports "NSTACK must be made larger." through BP_ERROR and stops sorting.
void SortRealsWithTags(int64_t n, double* a, int64_t* tags);

// Pairs on the sort stack at most during the last sort of this thread.
int SortStackHighWater();

}  // namespace anvl
