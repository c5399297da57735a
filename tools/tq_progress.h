// tq_progress.h - progress of a run on standard error, and the stops that a
// user asks for (Ctrl-C, --time-limit).
//
// The engine hands its host only the last 16 characters of each progress
// line, where the numbers stand; Describe() turns such a tail into words.
// On a terminal one status line is rewritten in place and erased before the
// report; elsewhere plain timestamped lines go out, at most one a second.
#ifndef TQ_PROGRESS_H
#define TQ_PROGRESS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "tq_types.h"

namespace tq {

enum class StopReason { kNone, kInterrupt, kTimeLimit };

// What the engine's latest lines say, kept across lines: a line of node
// counts doesn't repeat the stage.
struct ProgressState {
  Method method = Method::kExact;
  int64_t stages = 0;   // stages of the network, 0 when unknown
  double level = 0.99;  // Monte Carlo: level of the intervals
  int64_t samples = 0;  // Monte Carlo: tables to draw
  std::string phase;    // "bounds", "distribution", ...
  int64_t stage = -1;
  int64_t nodes = -1;
  std::string text;  // the words of the latest line
};

// Reads one tail of a progress line into the state; returns false for a
// tail with nothing to say (blank).
bool Describe(std::string_view tail, ProgressState& state);

struct ProgressOptions {
  std::string test;
  Method method = Method::kExact;
  int64_t stages = 0;
  double level = 0.99;
  int64_t samples = 0;
  double time_limit_seconds = 0.0;  // 0: none
  bool quiet = false;
};

// Shows progress while the engine runs and tells the engine's poll routine
// when to stop.  One run at a time: Begin() before TQCALLER, End() after;
// End() leaves standard error clean for the report.
void BeginProgress(const ProgressOptions& options);
void EndProgress();
StopReason RequestedStop();

// The host routines handed to TQCALLER.
extern "C" void PollForStop(int64_t* flag);
extern "C" void ReceiveText(const char* text, int32_t* length, int64_t* counter, int64_t text_length);

}  // namespace tq

#endif  // TQ_PROGRESS_H
