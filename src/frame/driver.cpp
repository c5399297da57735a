#include "frame/driver.h"

#include <algorithm>
#include <new>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/record.h"
#include "frame/run_store.h"
#include "frame/spill.h"

namespace anvl {
namespace {
thread_local RunBlocks t_blocks;

// Seeds two and three of the random stream, fixed for every run.
constexpr int64_t kSecondSeed = 29873;
constexpr int64_t kThirdSeed = 25317;
// Samples of a Monte Carlo run between two progress reports, at least.
constexpr double kMinReportEvery = 100.0;
constexpr double kReportFraction = 0.00001;
// The cut rule constant: the median cut always comes from the model table.
constexpr double kCutFromModel = 13.0;
}  // namespace

RunBlocks& Blocks() { return t_blocks; }

int64_t BeginDriver(const CallArgs& args, const DriverTraits& traits, std::vector<int64_t>& work) {
  int64_t code = 0;
  const int64_t* ints = t_blocks.ints;
  const double* reals = t_blocks.reals;

  // 1. Work copy of the table, column by column.
  if (traits.takes_table) {
    const int64_t rows = std::max<int64_t>(args.rows, 0), cols = std::max<int64_t>(args.cols, 0);
    const int64_t cells = (args.table == nullptr) ? 0 : rows * cols;
    try {
      work.assign(static_cast<size_t>(cells), 0);
    } catch (const std::bad_alloc&) {
      code = fail::kNoMemory;
    }
    if (code == 0)
      for (int64_t j = 0; j < cols && cells > 0; ++j)
        for (int64_t i = 0; i < rows; ++i) work[i + j * rows] = args.table[i + j * rows];
  }

  // 3, 4. Spill bookkeeping and run store.
  CloseNodeFile();
  ResetStore();

  // 5. Run identifiers.
  RunStore& st = Store();
  st.strata_count = 1;
  if (traits.takes_table) {
    st.row_count = args.table == nullptr ? 0 : args.rows;
    st.column_count = args.table == nullptr ? 0 : args.cols;
  } else {
    st.row_count = args.case_rows;
    st.column_count = args.case_cols;
  }
  st.run_selector = ints[runint::kSelector] - traits.published_selector_offset;
  st.run_method = ints[runint::kMethod];
  st.data_form = ints[runint::kDataForm];

  // 6. The fixed seeds.
  t_blocks.ints[runint::kSeed2] = kSecondSeed;
  t_blocks.ints[runint::kSeed3] = kThirdSeed;

  // 7. Setting and model tables.
  std::fill(std::begin(st.model), std::end(st.model), 0.0);
  SetSetting(setting::kMemoryLimit, ints[runint::kMemory]);
  SetSetting(setting::kTimeLimit, ints[runint::kTimeLimit]);
  if (st.run_method == 2) {
    SetSetting(setting::kMcConfidence, reals[runreal::kMcLevel]);
    SetSetting(setting::kMcQuantileLevel, (1.0 + reals[runreal::kMcLevel]) / 2.0);
    SetSetting(setting::kMcSamples, ints[runint::kSamples]);
    SetSetting(setting::kMcSeed1, ints[runint::kSeed1]);
    SetSetting(setting::kMcSeed2, ints[runint::kSeed2]);
    SetSetting(setting::kMcSeed3, ints[runint::kSeed3]);
  }
  const int64_t model = ints[runint::kModel];
  SetModelOption(11, static_cast<double>(model));
  if (model == 1 || model == 2) {
    SetModelOption(1, reals[runreal::kParam1]);
    SetModelOption(2, reals[runreal::kParam2]);
  } else if (model == 3 || model == 6) {
    SetModelOption(3, reals[runreal::kParam3]);
  } else if (model == 4) {
    SetModelOption(3, reals[runreal::kParam3]);
    SetModelOption(5, reals[runreal::kParam4]);
  }
  SetModelOption(4, kCutFromModel);
  if (ints[runint::kAlias507] == 1 || ints[runint::kAlias507] == 2)
    SetModelOption(9, static_cast<double>(ints[runint::kAlias507]));
  if (ints[runint::kOption11] == 13) {
    SetModelOption(8, 13.0);
    SetModelOption(13, reals[runreal::kOption11]);
  } else {
    SetModelOption(8, static_cast<double>(ints[runint::kOption11]));
    SetModelOption(13, reals[runreal::kCut]);
  }
  SetModelOption(14, reals[runreal::kNullProportion]);
  SetSetting(3, 50.0);
  SetSetting(5, -1.0);
  SetSetting(setting::kMcReportEvery,
             std::max(kMinReportEvery,
                      static_cast<double>(static_cast<int64_t>(
                          static_cast<double>(ints[runint::kSamples]) * kReportFraction))));
  SetSetting(setting::kScoreDigitLimit, 3.0);
  SetSetting(14, 0.0);
  // The spill path stays in the host contact; drivers that never open the
  // file simply don't use it.

  // 8. Clocks and method.
  StartTimeLimit();
  StartTicks();
  ZeroElapsed();
  StartClock();
  if (traits.zero_method_is_3 && st.run_method == 0) st.run_method = 3;
  st.engine_rows = st.row_count;
  st.engine_columns = st.column_count;
  return code;
}

void EndDriver(int64_t code) {
  RecordFailure(code);
  PrivateBlock() = Store().block;
}

}  // namespace anvl
