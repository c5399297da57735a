// tq_engine.cpp - calling the engine and reading its failure codes.
#include "tq_engine.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tq_catalog.h"
#include "tq_options.h"

namespace tq {
namespace {

// The engine reports a failure as its code less this offset.
constexpr double kFailureOffset = 1000.0;

// What a failure code means.
std::string FailureText(int64_t code) {
  static constexpr struct {
    int64_t code;
    const char* text;
  } kTexts[] = {
      {-1,
       "no memory or no room: an allocation was refused, a store is full, a total is negative, "
       "or a row or column is empty"},
      {-2, "the grid of the two-sample Kolmogorov-Smirnov test is full"},
      {-3, "a parameter or a data value outside the hypothesised distribution"},
      {-4,
       "nothing to test: fewer than two non-empty columns, no non-zero difference, or no usable "
       "pair of categories"},
      {-6, "the run was stopped"},
      {-7, "the time limit was reached"},
      {-8, "a hash position or a stage index out of range"},
      {-9, "the spill file can't be created"},
      {-10, "writing or positioning the spill file failed"},
      {-11, "reading or positioning the spill file failed"},
      {-14, "a data value below the support of the hypothesised distribution"},
      {-15, "a data value isn't a whole number, as the discrete distribution needs"},
      {-16, "the table is smaller than 2 x 2"},
      {-26, "the score rule isn't defined for one sample"},
      {-32, "median test: nothing above the cut, or nothing at or below it"},
      {-33, "Kruskal-Wallis test: fewer than two observations, or no variance"},
      {-35, "more distinct values than the test allows (binomial: two; Cochran's Q: 0 and 1)"},
      {-43, "binomial test: the case data must have one row"},
      {-190, "runs test: all values on one side of the cut"},
      {-302,
       "goodness of fit: an expected count at or below 0, or expected counts that don't add up to "
       "the total"},
      {-308, "binomial test: the null proportion is outside (0, 1)"},
      {-309, "binomial test: no trials"},
      {-1001, "runs test: sizes negative or too large"},
      {-1002, "runs test: the memory budget is below what the run needs"},
      {-1003, "runs test: a negative count"},
      {-1004, "runs test: no prime in range for the slots"},
      {-1005, "runs test: a past value overflows"},
      {-1006, "runs test: the scan passes the end of the table"},
      {-1007, "runs test: no free slot"},
      {-1008, "runs test: the totals overflow (case form)"},
      {-10010, "runs test: the totals overflow (unit sequence)"},
      {-10011, "runs test: the totals overflow (table form)"},
      {4, "two-sample Kolmogorov-Smirnov test: fewer than two non-empty levels"},
      {5, "two-sample Kolmogorov-Smirnov test: an entry number out of range"},
      {6, "the memory budget leaves too few nodes"},
      {88, "the table isn't square"},
      {108, "a score rule outside the table of the score tests"},
      {116, "the case data must have one row"},
      {151, "an empty table, fewer than two rows or columns left, or data in the wrong form"},
      {216, "the procedure doesn't take a table of this shape"},
      {901, "a table with one row or column, fewer than two categories, or no count at all"},
      {902, "two-sample Kolmogorov-Smirnov test: the first sample is empty"},
  };
  for (const auto& t : kTexts)
    if (t.code == code) return t.text;
  if (code > 0) return "the allocator reported status " + std::to_string(code);
  return "failure code " + std::to_string(code);
}

// True when every row and column of the table has a count: a network run
// that then ends with -1 ran out of memory.
bool NoEmptyLine(const Call& c) {
  if (!c.table_form) return false;
  for (int64_t i = 0; i < c.rows; ++i) {
    int64_t sum = 0;
    for (int64_t j = 0; j < c.cols; ++j) sum += c.table[i + j * c.rows];
    if (sum <= 0) return false;
  }
  for (int64_t j = 0; j < c.cols; ++j) {
    int64_t sum = 0;
    for (int64_t i = 0; i < c.rows; ++i) sum += c.table[i + j * c.rows];
    if (sum <= 0) return false;
  }
  return true;
}

std::string MemoryText(const Call& c) {
  const int64_t kib = c.ints[TQ_INT_MEMORY];
  const int64_t half_mib = MachineMemoryKiB() / 2 / 1024;
  const int64_t mib = kib < 0 ? c.memory_ceiling_mib : (kib + 1023) / 1024;
  std::string text = "the memory budget of the run (" + std::to_string(mib) + " MiB) ran out";
  if (mib >= half_mib) return text + "; it is already half of this machine's memory";
  const int64_t more = std::min(half_mib, std::max<int64_t>(mib * 4, 1024));
  const std::string size = more % 1024 == 0 ? std::to_string(more / 1024) + "G" : std::to_string(more) + "M";
  return text + "; give it more with --memory, for example --memory " + size;
}

Outcome ReadOutcome(const Test& test, const Call& c, const Record& r) {
  Outcome out;
  out.value = r[TQ_REC_FAILURE];
  if (out.value == 0.0) {
    out.ok = true;
    return out;
  }
  if (!std::isfinite(out.value)) {
    out.message = "the engine left no result";
    return out;
  }
  out.code = std::llround(out.value + kFailureOffset);
  // -1003.0 is both an unknown or unbuilt procedure and failure code -3;
  // only procedures 6 and 11 know -3, and a refused code leaves no time.
  const bool no_time = r[TQ_REC_HOURS] == 0.0 && r[TQ_REC_MINUTES] == 0.0 && r[TQ_REC_SECONDS] == 0.0;
  const std::string unavailable = "unknown procedure, or one not available in this build of the engine";
  const std::string own_minus_3 = test.code == 6 ? FailureText(-3) : "a cut kind the runs test doesn't know";
  const StopReason stop = RequestedStop();
  if (out.code == -3 && test.code != 6 && test.code != 11) {
    out.message = unavailable;
  } else if (out.code == -3) {
    out.message = no_time ? unavailable + "; or " + own_minus_3 : own_minus_3;
  } else if ((out.code == -6 || out.code == -7) && stop == StopReason::kInterrupt) {
    out.stop = stop;
    out.message = "the run was stopped by Ctrl-C";
  } else if ((out.code == -6 || out.code == -7) && (stop == StopReason::kTimeLimit || out.code == -7)) {
    out.stop = StopReason::kTimeLimit;
    char buf[96];
    std::snprintf(buf, sizeof buf, "the time limit of %g s was reached", c.time_limit_seconds);
    out.message = buf;
  } else if (out.code == -1 && (test.reads & kNetwork) && NoEmptyLine(c)) {
    out.message = MemoryText(c);
  } else {
    out.message = FailureText(out.code);
  }
  return out;
}

void Invoke(TqPollRoutine poll, TqTextRoutine text, Call& c, Record& record) {
  TQCALLER(poll, text, c.ints.data(), c.reals.data(), c.table.data(), c.rows, c.cols, c.row_scores.data(),
           c.scores.data(), c.case_data.data(), c.case_cols, c.case_rows, c.weights.data(), record.data(),
           c.spill.c_str());
}

// The run in progress, for the last poll after a stop.
struct Pending {
  const Test* test;
  const Call* call;
  std::optional<Record> standing;
  void (*on_stop)(const RunResult&);
  std::chrono::steady_clock::time_point start;
};
Pending* g_pending = nullptr;

// The engine's last poll after a stop: -6 when tq asked for it, -7 when the
// engine's own time limit ran out.  The record isn't written yet, so tq
// writes the one the engine would: filler, the elapsed time, the failure.
extern "C" void PollUntilStop(int64_t* flag) {
  if (flag == nullptr || *flag != -1 || g_pending == nullptr) return PollForStop(flag);
  const Pending& p = *g_pending;
  EndProgress();
  RunResult result;
  result.record.fill(p.call->reals[TQ_REAL_MISSING]);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - p.start).count();
  result.record[TQ_REC_HOURS] = std::floor(seconds / 3600.0);
  result.record[TQ_REC_MINUTES] = std::floor(std::fmod(seconds, 3600.0) / 60.0);
  result.record[TQ_REC_SECONDS] = std::fmod(seconds, 60.0);
  result.record[TQ_REC_FAILURE] = (RequestedStop() != StopReason::kNone ? -6 : -7) - kFailureOffset;
  result.record[49] = 0.0;
  result.outcome = ReadOutcome(*p.test, *p.call, result.record);
  result.standing = p.standing;
  p.on_stop(result);
}

}  // namespace

RunResult RunTest(const Test& test, Call& c, bool quiet, void (*on_stop)(const RunResult&)) {
  // The library reads its memory ceiling from the environment at each call.
  setenv("ANVLWTQ_MEMORY_CEILING", std::to_string(c.memory_ceiling_mib).c_str(), 1);
  const Method method = static_cast<Method>(c.ints[TQ_INT_METHOD]);
  Pending pending{&test, &c, std::nullopt, on_stop, std::chrono::steady_clock::now()};
  if (method != Method::kAsymptotic) {
    // What stands if the run is stopped: the asymptotic route, which is
    // quick.  A copy, since procedures 24, 26 and 51 compact case values.
    Call asymptotic = c;
    asymptotic.ints[TQ_INT_METHOD] = static_cast<int64_t>(Method::kAsymptotic);
    Record standing{};
    Invoke(nullptr, nullptr, asymptotic, standing);
    if (standing[TQ_REC_FAILURE] == 0.0) pending.standing = standing;
  }
  RunResult result;
  pending.start = std::chrono::steady_clock::now();
  g_pending = &pending;
  BeginProgress({test.name, method, NetworkStages(test, c), c.reals[TQ_REAL_MC_LEVEL], c.ints[TQ_INT_MC_SAMPLES],
                 c.time_limit_seconds, quiet});
  Invoke(PollUntilStop, ReceiveText, c, result.record);
  EndProgress();
  g_pending = nullptr;
  result.outcome = ReadOutcome(test, c, result.record);
  if (result.outcome.stop != StopReason::kNone) result.standing = pending.standing;
  return result;
}

}  // namespace tq
