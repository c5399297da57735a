// tq_engine.h - one call of the engine for a test, and what its record
// says about success or failure, in words.
#ifndef TQ_ENGINE_H
#define TQ_ENGINE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "tq_progress.h"
#include "tq_types.h"

namespace tq {

struct Test;

using Record = std::array<double, TQ_RECORD_LENGTH>;

struct Outcome {
  bool ok = false;
  StopReason stop = StopReason::kNone;  // a stop that the user asked for
  double value = 0.0;                   // field 48
  int64_t code = 0;                     // the engine's failure code, field 48 + 1000
  std::string message;                  // the failure in words
};

struct RunResult {
  Record record{};
  Outcome outcome;
  // After a stop: the asymptotic results of the same data, which stand
  // whatever the exact or Monte Carlo run would have given.
  std::optional<Record> standing;
};

// Sets the memory ceiling, calls the engine with progress on standard
// error (unless quiet) and reads the outcome.  A stop (Ctrl-C, the time
// limit) ends the run at once: the engine has deleted its spill file and
// tells tq by its last poll, and `on_stop` is called there with what stands;
// it doesn't return.
RunResult RunTest(const Test& test, Call& call, bool quiet, void (*on_stop)(const RunResult&));

}  // namespace tq

#endif  // TQ_ENGINE_H
