#include "frame/record.h"

#include <cstring>
#include <span>

#include "frame/failure_codes.h"

namespace anvl {
namespace {

thread_local ResultBlock t_private;

// One entry of the record table: a field takes a slot (only when the slot
// is published), a scalar word (always), a side word (only 1 or 2), or the
// one-sided p-value of procedures 7 and 40 (the cell's on a 2 x 2 table).
enum class From { kSlot, kWord, kSide, kSide2, kCellOrExact };
struct Entry {
  int field;
  From from;
  int index;
};

constexpr Entry S(int field, int s) { return {field, From::kSlot, s}; }
constexpr Entry W(int field, int w) { return {field, From::kWord, w}; }

using namespace slot;
constexpr Entry kSide12{12, From::kSide, 0};
#define MC_ONE S(18, kMcOneSided), S(19, kMcOneSidedLow), S(20, kMcOneSidedHigh)
#define MC_TWO S(21, kMcTwoSided), S(22, kMcTwoSidedLow), S(23, kMcTwoSidedHigh)

constexpr Entry kScores[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                             S(3, kNullSd), kSide12, S(15, kExactOneSided),
                             S(16, kExactTwoSided), S(17, kPointProbability), MC_ONE, MC_TWO};
constexpr Entry kMannWhitney[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                                  S(3, kNullSd), S(3, kShiftedStatistic), kSide12,
                                  S(15, kExactOneSided), S(16, kExactTwoSided),
                                  S(17, kPointProbability), MC_ONE, MC_TWO};
constexpr Entry kKsOne[] = {S(0, kStatistic), S(6, kStandardized), W(47, word::kSampleTotal),
                            S(16, kExactTwoSided), S(17, kPointProbability), MC_TWO};
constexpr Entry kChisq[] = {S(0, kStatistic), S(6, kCellObserved), S(8, kCellMean),
                            S(9, kCellSd), S(10, kCellMax), S(11, kCellMin), kSide12,
                            {15, From::kCellOrExact, 0}, S(16, kExactTwoSided),
                            S(17, kPointProbability), MC_TWO};
constexpr Entry kBinomial[] = {W(0, word::kBinomialSuccesses), W(47, word::kBinomialTrials),
                               S(1, kBinomialEstimate), kSide12, S(15, kExactOneSided),
                               S(16, kExactTwoSided), S(17, kPointProbability)};
constexpr Entry kMarginal[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                               S(3, kNullSd), kSide12, S(15, kExactOneSided),
                               S(16, kExactTwoSided), S(17, kPointProbability)};
constexpr Entry kMarginalLong[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                                   S(3, kNullSd), W(47, word::kSampleTotal),
                                   W(45, word::kColumnsPublished), kSide12, S(13, kAsymOneSided),
                                   S(14, kAsymTwoSided), S(15, kExactOneSided),
                                   S(16, kExactTwoSided), S(17, kPointProbability), MC_ONE, MC_TWO};
constexpr Entry kRuns[] = {S(0, kStatistic2), S(1, kStandardized2), S(2, kNullMean2),
                           S(3, kNullSd2), S(16, kExactTwoSided2), S(17, kPointProbability2),
                           S(21, kMcTwoSided2), S(22, kMcTwoSided2Low), S(23, kMcTwoSided2High)};
constexpr Entry kKsTwo[] = {S(0, 98), W(47, word::kSampleTotal), S(16, 100), S(17, 101),
                            S(21, 102), S(22, 103), S(23, 104)};
constexpr Entry kWaldWolfowitz[] = {
    S(0, kStatistic2), S(1, kStandardized2), S(2, kNullMean2), S(3, kNullSd2),
    {12, From::kSide2, 0}, S(15, kExactOneSided2), S(17, kPointProbability2),
    S(18, kMcOneSided2), S(19, kMcOneSided2Low), S(20, kMcOneSided2High), S(6, kStatistic),
    S(7, kStandardized), S(8, kNullMean), S(9, kNullSd), {36, From::kSide, 0},
    S(37, kExactOneSided), S(38, kPointProbability), S(39, kMcOneSided), S(40, kMcOneSidedLow),
    S(41, kMcOneSidedHigh)};
constexpr Entry kJonckheere[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                                 S(3, kNullSd), W(46, word::kRowsPublished),
                                 W(47, word::kSampleTotal), kSide12, S(14, kAsymTwoSided),
                                 S(15, kExactOneSided), S(16, kExactTwoSided),
                                 S(17, kPointProbability), MC_ONE, MC_TWO};
constexpr Entry kPlain[] = {S(0, kStatistic), S(16, kExactTwoSided), S(17, kPointProbability),
                            MC_TWO};
constexpr Entry kFisher[] = {S(0, kStatistic), S(16, kExactTwoSided), MC_TWO};
constexpr Entry kLinear[] = {S(0, kStatistic), S(1, kStandardized), S(2, kNullMean),
                             S(3, kNullSd), kSide12, S(13, kAsymOneSided), S(14, kAsymTwoSided),
                             S(15, kExactOneSided), S(16, kExactTwoSided),
                             S(17, kPointProbability), MC_ONE, MC_TWO};
constexpr Entry kNominal[] = {S(0, 49), S(3, 50), S(6, 57), S(9, 58), S(24, 55), S(27, 56),
                              S(16, kExactTwoSided), MC_TWO};
constexpr Entry kKappaGamma[] = {S(0, kStatistic), S(1, kStandardized), S(3, kNullSd),
                                 S(14, kAsymTwoSided), S(16, kExactTwoSided), MC_TWO};
constexpr Entry kUncertainty[] = {S(0, 73), S(3, 74), S(6, 69), S(9, 70), S(24, 71), S(27, 72),
                                  S(16, kExactTwoSided), MC_TWO};
constexpr Entry kGkTau[] = {S(0, 75), S(1, 76), S(16, kExactTwoSided), MC_TWO};
constexpr Entry kCorrelation[] = {S(0, kStatistic), S(1, kStandardized), S(3, kNullSd),
                                  S(16, kExactTwoSided), MC_TWO};
constexpr Entry kKendall[] = {S(0, 65), S(1, 64), S(3, 66), S(6, 67), S(7, 64), S(9, 68),
                              S(24, 73), S(25, 64), S(27, 74), S(28, 69), S(29, 64),
                              S(31, 70), S(32, 71), S(33, 64), S(35, 72),
                              S(14, kAsymTwoSided), S(16, kExactTwoSided), MC_TWO};
#undef MC_ONE
#undef MC_TWO

std::span<const Entry> EntriesOf(int64_t procedure) {
  switch (procedure) {
    case 1: case 2: return kScores;
    case 502: return kMannWhitney;
    case 6: return kKsOne;
    case 7: case 40: return kChisq;
    case 9: return kBinomial;
    case 10: return kMarginal;
    case 510: return kMarginalLong;
    case 11: return kRuns;
    case 18: return kKsTwo;
    case 19: return kWaldWolfowitz;
    case 20: return kJonckheere;
    case 21: case 24: case 26: case 31: case 51: case 507: return kPlain;
    case 32: return kFisher;
    case 41: return kLinear;
    case 42: return kNominal;
    case 43: case 50: return kKappaGamma;
    case 45: return kUncertainty;
    case 46: return kGkTau;
    case 47: case 48: return kCorrelation;
    case 49: return kKendall;
    default: return {};
  }
}

double ElapsedSecondsOf(const ResultBlock& b) {
  double s;
  std::memcpy(&s, &b.words[word::kElapsedSeconds], sizeof s);
  return s;
}

}  // namespace

ResultBlock& PrivateBlock() { return t_private; }

void PrefillRecord(double* record, double missing) {
  for (int f = 0; f < kRecordLength; ++f) record[f] = missing;
  record[42] = record[43] = record[44] = 0.0;
  record[48] = record[49] = 0.0;
}

void FillRecord(int64_t procedure, bool two_by_two, double* record) {
  const ResultBlock& b = t_private;
  const int64_t code = b.words[word::kFailureCode];
  if (code != 0) {
    record[kFailureField] = static_cast<double>(code - fail::kRecordOffset);
  } else {
    for (const Entry& e : EntriesOf(procedure)) {
      switch (e.from) {
        case From::kSlot:
          if (b.slots[e.index].status == kStatusPublished) record[e.field] = b.slots[e.index].value;
          break;
        case From::kWord:
          record[e.field] = static_cast<double>(b.words[e.index]);
          break;
        case From::kSide:
        case From::kSide2: {
          const int64_t side = b.words[e.from == From::kSide ? word::kTailSide : word::kTailSide2];
          if (side == 1 || side == 2) record[e.field] = static_cast<double>(side);
          break;
        }
        case From::kCellOrExact: {
          const ResultSlot& s = b.slots[two_by_two ? slot::kCellOneSided : slot::kExactOneSided];
          if (s.status == kStatusPublished) record[e.field] = s.value;
          break;
        }
      }
    }
    record[kFailureField] = 0.0;
    record[49] = 0.0;
  }
  record[42] = static_cast<double>(b.words[word::kElapsedHours]);
  record[43] = static_cast<double>(b.words[word::kElapsedMinutes]);
  record[44] = ElapsedSecondsOf(b);
}

}  // namespace anvl
