// Marginal homogeneity of a square table with scored, ordered categories
// (procedures 10 and 510): the same subjects classified twice.  Given how
// many subjects moved between each pair of categories, each moved up or
// down with probability one half, so the test is a paired-sample test on
// the score differences between categories.  A 2 x 2 table is McNemar's
// test, by a direct binomial sum.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"

namespace anvl::scores {

// The run on an r x r column-major table with category scores.  Returns 0
// or a failure code: -4 when no subject moved between categories of
// different scores, -1 for a negative count or overflowing sums, -3 for
// missing or non-finite scores.
int SquareTableRun(const std::vector<int64_t>& table, const double* scores, int64_t r,
                   int64_t method);
// McNemar's test on a 2 x 2 table: exact whatever the method.
int McNemarRun(const std::vector<int64_t>& table);

// Driver of procedures 10 and 510.
void SquareTableDriver(const CallArgs& args);

}  // namespace anvl::scores
