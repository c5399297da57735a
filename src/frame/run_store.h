// The run store: the state of one call of TQCALLER, held per thread.
//
// A driver resets it at the start of its run; every route reads the
// settings and the model options from it and publishes into its result
// block.  Only what the record table names ever reaches the caller.
#pragma once

#include <cstdint>

namespace anvl {

// ---------------------------------------------------------------------------
// Result block: 314 slots, 96 scalar words, 10 text slots.
// ---------------------------------------------------------------------------

inline constexpr int kSlotCount = 314;
inline constexpr int kWordCount = 96;
inline constexpr int kTextSlots = 10;
inline constexpr int kTextSlotLength = 80;

// Status of a result slot.
inline constexpr int64_t kStatusUnpublished = -1;
inline constexpr int64_t kStatusPublished = 0;
inline constexpr int64_t kStatusZeroStatistic = 1;  // measure undefined: statistic is 0
inline constexpr int64_t kStatusNoValue = 4;        // no variance / no p-value mark
inline constexpr int64_t kStatusNoInterval = 11;    // standard error is 0

struct ResultSlot {
  double value;
  int64_t status;
};

struct ResultBlock {
  ResultSlot slots[kSlotCount];
  int64_t words[kWordCount];
  char text[kTextSlots][kTextSlotLength];
};

// Slot numbers.
namespace slot {
inline constexpr int kStatistic = 0, kStatisticMin = 1, kStatisticMax = 2, kNullMean = 3,
                     kNullSd = 4, kStandardized = 5, kShiftedStatistic = 6, kStatistic2 = 8,
                     kNullMean2 = 9, kNullSd2 = 10, kStandardized2 = 11, kAsymOneSided = 12,
                     kAsymTwoSided = 13, kAsymOneSided2 = 15, kAsymTwoSided2 = 16,
                     kExactOneSided = 17, kExactDoubled = 18, kPointProbability = 19,
                     kExactTwoSided = 20, kExactOneSided2 = 22, kPointProbability2 = 23,
                     kExactTwoSided2 = 24, kMcOneSided = 25, kMcOneSidedLow = 26,
                     kMcOneSidedHigh = 27, kMcTwoSided = 28, kMcTwoSidedLow = 29,
                     kMcTwoSidedHigh = 30, kMcPercent = 31, kMcCount = 32, kMcSeed = 33,
                     kMcOneSided2 = 34, kMcOneSided2Low = 35, kMcOneSided2High = 36,
                     kMcTwoSided2 = 37, kMcTwoSided2Low = 38, kMcTwoSided2High = 39,
                     kCellObserved = 40, kCellMin = 41, kCellMax = 42, kCellMean = 43,
                     kCellSd = 44, kCellOneSided = 45, kCellPoint = 46, kMedianCut = 47,
                     kContingencyCoefficient = 49, kAdjustedContingency = 51,
                     kTschuprowT = 53, kCramersV = 55, kPhi = 57,
                     kAverageRankCorrelation = 59, kConcordanceSumOfSquares = 60,
                     kTableProbability = 61, kBinomialNull = 77, kBinomialEstimate = 78,
                     kBinomialPercent = 79, kBinomialLow = 80, kBinomialHigh = 81,
                     kModelParam1 = 82, kModelParam2 = 83, kOption11Value = 130,
                     kIntervalPercent = 131, kIntervalLow = 132, kIntervalHigh = 133,
                     kScaledPlus = 161, kScaledMinus = 162, kScaledAbs = 163;
}  // namespace slot

// Scalar word numbers.
namespace word {
inline constexpr int kStrataPublished = 0, kRowsPublished = 1, kColumnsPublished = 2,
                     kBinomialTrials = 3, kBinomialSuccesses = 4, kSampleTotal = 5,
                     kGroupSize1 = 6, kGroupSize2 = 7, kDegreesOfFreedom = 8, kTailSide = 10,
                     kTailSide2 = 11, kPublishedCode = 12, kPublishedVariant = 13,
                     kPublishedMethod = 14, kFailureCode = 15, kPublishedOption = 17,
                     kElapsedHours = 18, kElapsedMinutes = 19, kGroupLabel1 = 22,
                     kGroupLabel2 = 23, kElapsedSeconds = 70;
}  // namespace word

// ---------------------------------------------------------------------------
// Setting table (16 entries, 1-based) and model table (15 entries, 1-based).
// ---------------------------------------------------------------------------

namespace setting {
inline constexpr int kMcConfidence = 1, kMcQuantileLevel = 2, kMcSamples = 4, kMcSeed1 = 6,
                     kMcSeed2 = 7, kMcSeed3 = 8, kIntervalConfidence = 9, kMcReportEvery = 10,
                     kScoreDigitLimit = 11, kMemoryLimit = 13, kTimeLimit = 15;
}

// The elapsed clock: start of the run and time spent.
struct ElapsedClock {
  int16_t start_hour = 0, start_minute = 0, start_second = 0, start_hundredths = 0;
  int16_t hours = 0, minutes = 0;
  double seconds = 0.0;
};

struct RunStore {
  // Run identifiers.
  int64_t run_selector = 0;
  int64_t run_method = 0;
  int64_t data_form = 0;
  int64_t strata_count = 1;
  int64_t row_count = 0, column_count = 0;          // as the driver sees the input
  int64_t engine_rows = 0, engine_columns = 0;      // the copy the engines read
  int64_t two_by_two_flag = 0;                      // set by the entry point

  double settings[17] = {};  // entries 1..16
  double model[16] = {};     // entries 1..15
  ResultBlock block = {};
  ElapsedClock clock;
};

// ---------------------------------------------------------------------------
// Access.  All of these act on the store of the calling thread.
// ---------------------------------------------------------------------------

RunStore& Store();

// Reset by the driver: every slot to (0.0, unpublished), every word to 0,
// every text slot to a NUL followed by blanks.
void ResetStore();

double Setting(int index);
void SetSetting(int index, int64_t value);  // integer: stored as a double
void SetSetting(int index, double value);
inline int64_t SettingInt(int index) { return static_cast<int64_t>(Setting(index)); }
double ModelOption(int index);
void SetModelOption(int index, double value);

// Publishing.
void Publish(int slot, double value, int64_t status = kStatusPublished);
void PublishClamped(int slot, double value);  // value cut to 0..1
void SetWord(int word, int64_t value);
int64_t Word(int word);
const ResultSlot& Slot(int slot);

// Keeps the first failure code; folds the allocator statuses 6316, 6317,
// 6319 and 6700 into -1.  Updates the elapsed clock first.
void RecordFailure(int64_t code);
// The stop of a run (host or time limit): overwrites whatever code stands.
void ForceFailure(int64_t code);
int64_t FailureCode();
// Whether the host or the time limit has stopped the run.
bool RunStopped();

// Elapsed clock.
void StartClock();
void ZeroElapsed();
void UpdateElapsed();

}  // namespace anvl
