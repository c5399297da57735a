// Procedures 7, 31, 42 and 507: Pearson's X^2 on an r x c table, as it
// stands (7, 507), collapsed at a cut (the median test, 31), or turned
// into measures of association (42); asymptotic, Monte Carlo or exact.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"

namespace anvl::net {

// Driver of procedures 7, 31, 42 and 507.
void ContingencyDriver(const CallArgs& args);

// The run on a work copy of the table (column-major, row index fastest).
// Returns 0 or the failure code; publishes on success.
int ContingencyRun(std::vector<int64_t>& table, int64_t rows, int64_t cols, int selector,
                   int64_t method, const double* scores);

}  // namespace anvl::net
