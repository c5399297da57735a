// The frame that every driver shares: the copy of the input, the reset of
// the run store, the transfer of the parameters, the checks of the table
// and the tear-down.  A driver is this frame around one call of its run.
#pragma once

#include <cstdint>
#include <vector>

namespace anvl {

// The caller's data, as TQCALLER received it.
struct CallArgs {
  const int64_t* table = nullptr;
  int64_t rows = 0, cols = 0;
  const double* row_scores = nullptr;
  const double* scores = nullptr;
  double* case_data = nullptr;
  int64_t case_cols = 0, case_rows = 0;
  const int64_t* case_weights = nullptr;
};

// The internal parameter blocks that the entry point builds from the
// caller's IntParams and RealParams.
inline constexpr int kRunIntWords = 35;
inline constexpr int kRunRealEntries = 10;
struct RunBlocks {
  int64_t ints[kRunIntWords];
  double reals[kRunRealEntries];
};
RunBlocks& Blocks();

namespace runint {
inline constexpr int kSelector = 0, kMethod = 1, kDataForm = 2, kMemory = 3, kTimeLimit = 4,
                     kSeed1 = 5, kSeed2 = 6, kSeed3 = 7, kSamples = 8, kOption11 = 9,
                     kModel = 10, kCutRule = 11, kAlias507 = 12;
}
namespace runreal {
inline constexpr int kMcLevel = 0, kParam1 = 1, kParam2 = 2, kParam3 = 3, kParam4 = 4,
                     kOption11 = 6, kCut = 7, kBinomialLevel = 8, kNullProportion = 9;
}

// What distinguishes one driver's frame from another's.
struct DriverTraits {
  bool takes_table;        // works on a copy of Table (else on the case arguments)
  bool copies_spill_path;  // the runs of this driver may open the spill file
  bool zero_method_is_3;   // MethodCode outside 1..3 runs as asymptotic
  int64_t published_selector_offset;  // RunSelector = selector - this offset
};

// Steps 1 to 8 of the frame, up to (not including) the table rule and the
// run: copies the table column by column into `work`, resets the store and
// fills its tables.  Returns 0 or the failure code of the copy.
int64_t BeginDriver(const CallArgs& args, const DriverTraits& traits, std::vector<int64_t>& work);
// Step 9: records the driver's local code and copies the result block to
// the entry point's private copy.
void EndDriver(int64_t code);

}  // namespace anvl
