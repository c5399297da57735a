// Failure codes of the engine.  A run that fails leaves its code in the
// store; the record shows it as code - 1000 in field 48.  The first code
// recorded stays; only a stop (host or time limit) overwrites it.
#pragma once

#include <cstdint>

namespace anvl::fail {

inline constexpr int64_t kNone = 0;
inline constexpr int64_t kNoMemory = -1;             // allocation refused, store exhausted, total negative, margin below 1
inline constexpr int64_t kKsGridFull = -2;           // grid of the two-sample KS test is full
inline constexpr int64_t kOutsideModel = -3;         // parameter or value outside the distribution; runs-test cut kind
inline constexpr int64_t kNothingToTest = -4;        // fewer than two non-empty columns, no non-zero difference
inline constexpr int64_t kStoppedByHost = -6;        // the host asked to stop
inline constexpr int64_t kTimeLimit = -7;            // time limit reached
inline constexpr int64_t kIndexOutOfRange = -8;      // hash position or stage index out of range
inline constexpr int64_t kSpillCreate = -9;          // spill file can't be created
inline constexpr int64_t kSpillWrite = -10;          // spill file write or position failed
inline constexpr int64_t kSpillRead = -11;           // spill file read or position failed
inline constexpr int64_t kBelowSupport = -14;        // data value below the support of the distribution
inline constexpr int64_t kNotWholeNumber = -15;      // data value not whole for a discrete distribution
inline constexpr int64_t kTableTooSmall = -16;       // table smaller than 2 x 2
inline constexpr int64_t kOneSampleScore = -26;      // score rule not defined for the one-sample form
inline constexpr int64_t kMedianCutEmpty = -32;      // median test: one side of the cut empty
inline constexpr int64_t kKruskalWallisDegenerate = -33;
inline constexpr int64_t kTooManyValues = -35;       // more data values than the test allows
inline constexpr int64_t kCaseRowsNotOne = -43;      // binomial test: CaseRows isn't 1
inline constexpr int64_t kRunsOneSide = -190;        // runs test: all values on one side of the cut
inline constexpr int64_t kExpectedCount = -302;      // one-way test: expected count <= 0 or sum misses total
inline constexpr int64_t kNullProportion = -308;     // binomial test: p0 outside (0, 1)
inline constexpr int64_t kNoTrials = -309;           // binomial test: no trials
inline constexpr int64_t kRunsSizes = -1001;
inline constexpr int64_t kRunsBudget = -1002;
inline constexpr int64_t kRunsNegativeCount = -1003;
inline constexpr int64_t kRunsNoPrime = -1004;
inline constexpr int64_t kRunsPastOverflow = -1005;
inline constexpr int64_t kRunsScanEnd = -1006;
inline constexpr int64_t kRunsNoSlot = -1007;
inline constexpr int64_t kRunsCaseOverflow = -1008;
inline constexpr int64_t kRunsUnitOverflow = -10010;
inline constexpr int64_t kRunsTableOverflow = -10011;
inline constexpr int64_t kKsFewLevels = 4;           // two-sample KS: fewer than two non-empty levels
inline constexpr int64_t kKsEntryRange = 5;          // two-sample KS: entry number out of range
inline constexpr int64_t kTooFewNodes = 6;           // budget leaves too few nodes; no prime for the grid
inline constexpr int64_t kNotSquare = 88;            // Rows differs from Cols on a square-table procedure
inline constexpr int64_t kBadSelector = 108;         // selector outside the score family
inline constexpr int64_t kCaseRows = 116;            // CaseRows isn't 1
inline constexpr int64_t kEmptyTable = 151;          // empty table or data not in Table
inline constexpr int64_t kBadShape = 216;            // a table shape the procedure doesn't take
inline constexpr int64_t kOneRowOrColumn = 901;      // one row or column; fewer than two categories
inline constexpr int64_t kKsEmptyFirst = 902;        // two-sample KS: empty first sample

// What the record shows in field 48 for a code; the same offset is used by
// the entry point for a procedure code it refuses (-1003.0).
inline constexpr int64_t kRecordOffset = 1000;
inline constexpr double kUnknownProcedure = -1003.0;

}  // namespace anvl::fail
