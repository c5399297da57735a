// TQCALLER: the one routine the library exports.  It translates the
// caller's parameter blocks, prefills the record, dispatches to the driver
// of the procedure and fills the record from what the driver left.
#include <algorithm>
#include <cstring>
#include <new>

#include "anvlwtq.h"
#include "frame/dispatch.h"
#include "frame/driver.h"
#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/record.h"
#include "frame/run_store.h"
#include "frame/spill.h"

namespace anvl {
namespace {

// The memory setting taken from the machine is capped at 64 MiB (in KiB);
// the budget of a run clamps it further.
constexpr int64_t kMachineMemoryCapKb = 0x10000;
constexpr int64_t kTakeFreeMemory = -1;
// Level of the binomial test's limits.
constexpr double kBinomialLevel = 0.95;
constexpr size_t kSpillPathMax = 255;

int64_t MemorySetting(int64_t field) {
  if (field != kTakeFreeMemory) return field;
  const int64_t free_bytes = FreePhysicalMemory();
  const int64_t kb = static_cast<int32_t>(static_cast<uint32_t>(free_bytes >> 10));
  return std::min(kb, kMachineMemoryCapKb);
}

// Fills the internal blocks from the caller's and answers whether the
// procedure code is known.
bool TranslateParameters(const int64_t* ip, const double* rp) {
  RunBlocks& blk = Blocks();
  int64_t* ri = blk.ints;
  double* rr = blk.reals;
  const int64_t procedure = ip[TQ_INT_PROCEDURE];
  const int64_t selector = SelectorOf(procedure);
  if (selector == 0) return false;
  ri[runint::kSelector] = selector;
  if (procedure == 11 && (ip[TQ_INT_OPTION11] == 1 || ip[TQ_INT_OPTION11] == 2 ||
                          ip[TQ_INT_OPTION11] == 3 || ip[TQ_INT_OPTION11] == 13)) {
    ri[runint::kOption11] = ip[TQ_INT_OPTION11];
    if (ip[TQ_INT_OPTION11] == 13) rr[runreal::kOption11] = rp[TQ_REAL_OPTION11];
  }
  if (procedure == 6) {
    const int64_t m = ip[TQ_INT_MODEL];
    if (m == 1 || m == 3 || m == 4 || m == 6) {
      ri[runint::kModel] = m;
      if (m == 1) {
        rr[runreal::kParam1] = rp[TQ_REAL_PARAM1];
        rr[runreal::kParam2] = rp[TQ_REAL_PARAM2];
      } else {
        rr[runreal::kParam3] = rp[TQ_REAL_PARAM3];
        if (m == 4) rr[runreal::kParam4] = rp[TQ_REAL_PARAM4];
      }
    }
  }
  if (procedure == 1) {
    ri[runint::kCutRule] = 13;
    rr[runreal::kCut] = 0.0;
  }
  if (procedure == 31 && ip[TQ_INT_CUT_RULE] == 13) {
    ri[runint::kCutRule] = 13;
    rr[runreal::kCut] = rp[TQ_REAL_MEDIAN_CUT];
  }
  if (procedure == 507) ri[runint::kAlias507] = 1;
  if (procedure == 9) {
    rr[runreal::kBinomialLevel] = kBinomialLevel;
    rr[runreal::kNullProportion] = rp[TQ_REAL_P0];
  }
  return true;
}

void TranslateMethod(const int64_t* ip, const double* rp) {
  RunBlocks& blk = Blocks();
  const int64_t method = ip[TQ_INT_METHOD];
  if (method == 1 || method == 3) {
    blk.ints[runint::kMethod] = method;
  } else if (method == 2) {
    blk.ints[runint::kMethod] = 2;
    blk.ints[runint::kSeed1] = ip[TQ_INT_MC_SEED];
    blk.ints[runint::kSamples] = ip[TQ_INT_MC_SAMPLES];
    blk.reals[runreal::kMcLevel] = rp[TQ_REAL_MC_LEVEL];
  }
}

void Call(TqPollRoutine poll, TqTextRoutine text, const int64_t* ip, const double* rp,
          const CallArgs& args, double* record, const char* spill_path) {
  HostContact& host = Host();
  host.message_counter = 0;                                             // 1
  const bool case_form = ip[TQ_INT_DATA_FORM] != 1;
  Store().two_by_two_flag = (!case_form && args.rows == 2 && args.cols == 2) ? 1 : 0;  // 2
  RunBlocks& blk = Blocks();                                            // 3
  std::fill(std::begin(blk.ints), std::end(blk.ints), 0);
  std::fill(std::begin(blk.reals), std::end(blk.reals), 0.0);
  PrivateBlock() = ResultBlock{};
  host.poll = poll;                                                     // 4
  host.text = text;
  host.spill_path.clear();
  if (spill_path != nullptr) host.spill_path.assign(spill_path, strnlen(spill_path, kSpillPathMax));
  while (!host.spill_path.empty() && host.spill_path.back() == ' ') host.spill_path.pop_back();
  blk.ints[runint::kMemory] = MemorySetting(ip[TQ_INT_MEMORY]);         // 5
  blk.ints[runint::kTimeLimit] = ip[TQ_INT_TIME_LIMIT];
  blk.ints[runint::kDataForm] = case_form ? 2 : 1;
  PrefillRecord(record, rp[TQ_REAL_MISSING]);                           // 6
  const int64_t procedure = ip[TQ_INT_PROCEDURE];
  if (!TranslateParameters(ip, rp)) {                                   // 7
    record[kFailureField] = fail::kUnknownProcedure;
    return;
  }
  TranslateMethod(ip, rp);                                              // 8
  try {
    RunDriver(procedure, args);                                         // 9
  } catch (...) {
    // Allocation failures inside a run surface here: the run's own guards
    // have released what it held on the way out.
    CloseNodeFile();
    EndDriver(fail::kNoMemory);
  }
  FillRecord(procedure, Store().two_by_two_flag == 1, record);         // 10
}

}  // namespace
}  // namespace anvl

extern "C" __attribute__((visibility("default"))) void TQCALLER(
    TqPollRoutine poll, TqTextRoutine text, const int64_t* intParams, const double* realParams,
    const int64_t* table, int64_t rows, int64_t cols, const double* rowScores,
    const double* scores, double* caseData, int64_t caseCols, int64_t caseRows,
    const int64_t* caseWeights, double* resultRecord, const char* spillPath) {
  if (intParams == nullptr || realParams == nullptr || resultRecord == nullptr) return;
  anvl::CallArgs args;
  args.table = table;
  args.rows = rows;
  args.cols = cols;
  args.row_scores = rowScores;
  args.scores = scores;
  args.case_data = caseData;
  args.case_cols = caseCols;
  args.case_rows = caseRows;
  args.case_weights = caseWeights;
  try {
    anvl::Call(poll, text, intParams, realParams, args, resultRecord, spillPath);
  } catch (...) {
    // Nothing may escape to the host; the record then shows no memory.
    resultRecord[anvl::kFailureField] =
        static_cast<double>(anvl::fail::kNoMemory - anvl::fail::kRecordOffset);
  }
}
