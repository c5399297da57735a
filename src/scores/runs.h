// Procedures 11 and 19: runs tests.  The one-sample form cuts a series of
// values, in their given order, at a cut point (median, mode, mean or a
// given value) into values at or above it and values below it; the
// two-sample form (Wald-Wolfowitz) writes a two-row table over ordered
// levels out as one pooled sequence of sample labels.  The statistic is
// the number of runs of equal labels.  A level that holds both samples
// leaves the pooled order open: the test then reports on the arrangement
// with the fewest runs and on the one with the most.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"
#include "scores/score_rules.h"

namespace anvl::scores {

// The two arrangements of a table of levels (first, second counts), as
// runs counts: without a level holding both samples they are equal.
struct RunsArrangements {
  int64_t fewest = 0, most = 0;
  bool ties = false;
};
RunsArrangements CountRuns(const std::vector<LevelCounts>& levels);

// The null distribution of the number of runs in a random order of n
// labels of one kind and m of the other, against the cuts of the two
// statistics: for each (fewest, most) the mass above its high cut, on it,
// below its low cut and on it.
struct RunsTails {
  double high_tail[2] = {}, high_point[2] = {}, low_tail[2] = {}, low_point[2] = {};
  double middle = 0.0;
};

// Driver of procedures 11 and 19.  Table form (DataForm 1): two rows, the
// two-sample test; more rows 216; fewer rows end the call with nothing
// published.  Case form: one row of values (CaseRows 1, else 116) with
// their counts (a null weight array counts each value once), cut by
// Option11Field.  Failure codes besides those: -3 a value or a given cut
// that isn't finite, or a Monte Carlo level outside (0, 1); -1003 a
// negative count in the case form; 901 no values or no observations; -190
// all values on one side of the cut; 216 an empty sample or a negative
// count in the table form; -1008 / -10011 totals of 2^31 or more; -1002 a
// memory budget too small for the exact route's stage offsets; -1004 no
// prime for its node table; -1007 its node table full.
void RunsDriver(const CallArgs& args);

}  // namespace anvl::scores
