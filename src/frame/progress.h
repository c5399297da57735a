// Contacts with the host while a run lasts: the tick of the long loops,
// the time limit, the stop, and the progress lines sent to the host's text
// routine.  All state is the calling thread's.
#pragma once

#include <cstdint>
#include <string>

#include "anvlwtq.h"

namespace anvl {

// What TQCALLER remembers of the host for the length of the call.
struct HostContact {
  TqPollRoutine poll = nullptr;
  TqTextRoutine text = nullptr;
  int64_t message_counter = 0;
  std::string spill_path;  // as given; empty: a private temporary file
};
HostContact& Host();

// TimeSpent := 0; the limit is the integer part of the TimeLimit setting in
// minutes, 0 or below meaning none.
void StartTimeLimit();
// TickQuantum := 1, TickCount := 0, LastTickTime := now.
void StartTicks();
// For the inner loops: polls the host (a set lowest bit stops the run with
// -6), counts, and every TickQuantum calls reads the clock, adapts the
// quantum so that reports fall every 3 to 6 seconds, advances the time
// limit (stop with -7) and returns true: a progress report is due.
bool Tick();
// Asks the host at once (stop with -6 on a set lowest bit); returns true.
bool PollNow();
// The stop of a run: overwrites the failure code with `code`, closes and
// deletes the spill file, updates the elapsed clock, reports a time limit
// on standard error, and polls the host once more with -1.
void StopRun(int64_t code);

// Hands a line to the host: only its last 16 characters (trailing blanks
// trimmed) go out; the message counter advances, wrapping from a negative
// value to 0.
void SendLine(const char* text, int length);
void SendLine(const std::string& line);

// Fixed-width numbers: Fortran-style Iw and Fw.d, right-justified, filled
// with '*' when the number doesn't fit.
std::string FormatInt(int64_t value, int width);
std::string FormatFixed(double value, int width, int decimals);

// The progress lines of the engine, built and sent.
void SendLongRunNote(int argument);                      // "NOTE: This problem may take a long time to solve." (0: 49 blanks)
void SendStageLine(int64_t stage);                       // " Generating the distribution to stage " I3
void SendMonteCarloLine(double percent, double low, double high);  // "Current " F5.2 "% Monte Carlo p-value estimate (" F7.4 "," F7.4 ")"
void SendExactEstimateLine(double low, double high);     // "Current estimate of Exact two-sided p-value is (" F7.4 "," F7.4 ")"
void SendProcessingLine();                               // "Processing..."
void SendDotLine();                                      // "."
void SendBackwardLine(int64_t stage);                    // "Backward induction : processing stage " I4
void SendBackwardNodesLine(int64_t stage, int64_t nodes);// ... I4 "  Nodes to be created: " I10
void SendCalculatingLine();                              // "Calculating p-value"

// The full text of the numbered progress lines (without the NUL), as the
// Send* routines above build them before SendLine cuts them to 16
// characters.  The limits of the Monte Carlo and exact lines are clamped
// to 0..1.
std::string LongRunNoteText(int argument);
std::string StageLineText(int64_t stage);
std::string MonteCarloLineText(double percent, double low, double high);
std::string ExactEstimateLineText(double low, double high);
std::string BackwardLineText(int64_t stage);
std::string BackwardNodesLineText(int64_t stage, int64_t nodes);

// The tick and time-limit state of the calling thread, for tests.
struct TickState {
  int64_t tick_count = 0;      // calls since the last report
  int64_t tick_quantum = 1;    // calls that make one report
  int64_t last_tick_time = 0;  // millisecond counter at the last report
  int64_t time_spent = 0;      // milliseconds counted against the limit
  int64_t time_limit_ms = 0;   // 0 or below: no limit
};
const TickState& TickStateForTesting();

// The same tick for a pass's inner loop, reached through one handle that
// the pass takes once: the thread's state is found at construction, not on
// every call.  Behaves exactly as Tick().
class Ticker {
 public:
  Ticker();
  __attribute__((always_inline)) bool operator()() {
    if (poll_ != nullptr) Poll();
    if (++state_->tick_count != state_->tick_quantum) return false;
    return Report(*state_);
  }
  // The clock part of a tick whose count reached its quantum.
  static bool Report(TickState& t);

 private:
  void Poll();
  TqPollRoutine poll_;
  TickState* state_;
};

}  // namespace anvl
