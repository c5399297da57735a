#include "frame/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "frame/clock.h"
#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"

namespace anvl {
namespace {

// A progress line with its NUL fits in this many characters.
constexpr int kLineBuffer = 133;
// A line is cut to this many characters before anything else.
constexpr int kLineMaxLength = 80;
// The host sees at most this many characters of a line: where its numbers stand.
constexpr int kHostTextLength = 16;
// Reports should fall between half of this and this many milliseconds apart.
constexpr int64_t kReportWindowMs = 6000;
// Milliseconds per minute of the time limit.
constexpr int64_t kMsPerMinute = 60000;
// Largest limit in minutes whose milliseconds still fit in 64 bits.
constexpr int64_t kMaxLimitMinutes = std::numeric_limits<int64_t>::max() / kMsPerMinute;
// Room for one formatted number before it is fitted to its width.
constexpr int kNumberScratch = 160;

constexpr char kTimeLimitMessage[] = "Exact significances not computed,time limit...";
constexpr char kLongRunNote[] = "NOTE: This problem may take a long time to solve.";
constexpr char kStageText[] = " Generating the distribution to stage ";
constexpr char kBackwardText[] = "Backward induction : processing stage ";
constexpr char kNodesText[] = "  Nodes to be created: ";

thread_local HostContact t_host;
thread_local TickState t_tick;

// The fixed-width integer field Iw into out (room for width + 1): right-justified in `width`
// characters, all '*' when the digits and sign don't fit; width <= 0 gives
// the shortest form.  Returns the number of characters written.
int FormatIntInto(char* out, int64_t value, int width) {
  char digits[32];
  const int n = std::snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
  if (width <= 0) width = n;
  if (n > width) {
    std::memset(out, '*', width);
  } else {
    std::memset(out, ' ', width - n);
    std::memcpy(out + width - n, digits, n);
  }
  out[width] = '\0';
  return width;
}

// The fixed-width real field Fw.d into out (room for width + 1): |value| rounded to d
// decimals, a leading "0" before the point only when it fits, a '-' for a
// negative value, right-justified; all '*' when the number doesn't fit.
// NaN and infinities are written as words.
int FormatFixedInto(char* out, double value, int width, int decimals) {
  if (width <= 0) {
    out[0] = '\0';
    return 0;
  }
  decimals = std::max(0, decimals);
  char body[kNumberScratch];
  int n = 0;
  bool negative = false;
  if (std::isnan(value)) {
    n = std::snprintf(body, sizeof body, "NaN");
  } else if (std::isinf(value)) {
    negative = value < 0.0;
    n = std::snprintf(body, sizeof body, "%s", width - (negative ? 1 : 0) >= 8 ? "Infinity" : "Inf");
  } else {
    negative = value < 0.0;
    n = std::snprintf(body, sizeof body, "%.*f", decimals, std::fabs(value));
    if (n < 0 || n >= kNumberScratch - 1) {  // longer than any field we write
      std::memset(out, '*', width);
      out[width] = '\0';
      return width;
    }
    if (decimals == 0) body[n++] = '.';  // Fw.0 keeps its point
  }
  char* start = body;
  const int sign = negative ? 1 : 0;
  // The zero before the point is optional: dropped when it alone overflows.
  if (n + sign > width && n >= 2 && body[0] == '0' && body[1] == '.') {
    ++start;
    --n;
  }
  if (n + sign > width) {
    std::memset(out, '*', width);
  } else {
    const int pad = width - n - sign;
    std::memset(out, ' ', pad);
    if (negative) out[pad] = '-';
    std::memcpy(out + pad + sign, start, n);
  }
  out[width] = '\0';
  return width;
}

// The line buffer: text with its NUL as the last item.
struct Line {
  char text[kLineBuffer];
  int length = 0;

  Line() { text[0] = '\0'; }
  int Room() const { return kLineBuffer - 1 - length; }
  void Append(const char* s) {
    const int n = std::min(static_cast<int>(std::strlen(s)), Room());
    std::memcpy(text + length, s, n);
    length += n;
    text[length] = '\0';
  }
  void AppendInt(int64_t value, int width) {
    char item[kLineBuffer];
    FormatIntInto(item, value, std::min(width, kLineBuffer - 1));
    Append(item);
  }
  void AppendFixed(double value, int width, int decimals) {
    char item[kLineBuffer];
    FormatFixedInto(item, value, std::min(width, kLineBuffer - 1), decimals);
    Append(item);
  }
};

double Clamp01(double x) { return x < 0.0 ? 0.0 : (x > 1.0 ? 1.0 : x); }

void BuildLongRunNote(Line& line, int argument) {
  if (argument == 0) {
    const int n = static_cast<int>(sizeof kLongRunNote) - 1;
    std::memset(line.text, ' ', n);
    line.length = n;
    line.text[n] = '\0';
  } else {
    line.Append(kLongRunNote);
  }
}

void BuildStageLine(Line& line, int64_t stage) {
  line.Append(kStageText);
  line.AppendInt(stage, 3);
}

void BuildMonteCarloLine(Line& line, double percent, double low, double high) {
  line.Append("Current ");
  line.AppendFixed(percent, 5, 2);
  line.Append("% Monte Carlo p-value estimate (");
  line.AppendFixed(Clamp01(low), 7, 4);
  line.Append(",");
  line.AppendFixed(Clamp01(high), 7, 4);
  line.Append(")");
}

void BuildExactEstimateLine(Line& line, double low, double high) {
  line.Append("Current estimate of Exact two-sided p-value is (");
  line.AppendFixed(Clamp01(low), 7, 4);
  line.Append(",");
  line.AppendFixed(Clamp01(high), 7, 4);
  line.Append(")");
}

void BuildBackwardLine(Line& line, int64_t stage) {
  line.Append(kBackwardText);
  line.AppendInt(stage, 4);
}

void BuildBackwardNodesLine(Line& line, int64_t stage, int64_t nodes) {
  BuildBackwardLine(line, stage);
  line.Append(kNodesText);
  line.AppendInt(nodes, 10);
}

void Send(const Line& line) { SendLine(line.text, line.length); }

// Asks the host whether to stop: the flag is 0 before the call and the
// host sets its lowest bit to ask for a stop.
void PollHost() {
  TqPollRoutine poll = t_host.poll;
  if (poll == nullptr) return;
  int64_t flag = 0;
  poll(&flag);
  if ((flag & 1) != 0) StopRun(fail::kStoppedByHost);
}

}  // namespace

HostContact& Host() { return t_host; }

const TickState& TickStateForTesting() { return t_tick; }

// TimeSpent := 0 and the limit from the TimeLimit setting: its integer
// part in minutes, times 60000.  A limit of 0 or below means none.
void StartTimeLimit() {
  t_tick.time_spent = 0;
  const double setting = Setting(setting::kTimeLimit);
  int64_t minutes = 0;
  if (setting >= static_cast<double>(kMaxLimitMinutes)) {
    minutes = kMaxLimitMinutes;
  } else if (setting >= 1.0) {
    minutes = static_cast<int64_t>(setting);
  }
  t_tick.time_limit_ms = minutes * kMsPerMinute;
}

// TickQuantum := 1, TickCount := 0, LastTickTime := now.
void StartTicks() {
  t_tick.tick_quantum = 1;
  t_tick.tick_count = 0;
  t_tick.last_tick_time = ReadMillisecondCounter();
}

// One call per pass of an inner loop.  Polls the host, then counts; every
// TickQuantum calls the clock is read, the quantum doubled when the last
// report came within 3 s and halved (never below 1) when it took over 6 s,
// and the time is charged to the limit.  Returns true when a report is due.
bool Tick() {
  PollHost();
  TickState& t = t_tick;
  t.tick_count += 1;
  if (t.tick_count != t.tick_quantum) return false;
  return Ticker::Report(t);
}

// The clock part of a tick whose count reached the quantum.
bool Ticker::Report(TickState& t) {
  const int64_t now = ReadMillisecondCounter();
  const int64_t d = now - t.last_tick_time;
  t.last_tick_time = now;
  t.tick_count = 0;
  if (2 * d < kReportWindowMs) {
    t.tick_quantum *= 2;
  } else if (d > kReportWindowMs) {
    t.tick_quantum /= 2;
  }
  t.tick_quantum = std::max<int64_t>(1, t.tick_quantum);
  if (t.time_limit_ms > 0) {
    t.time_spent += d;
    if (t.time_spent >= t.time_limit_ms) StopRun(fail::kTimeLimit);
  }
  return true;
}

// The empty asm hides where the address came from, so that the pass keeps
// it as a plain pointer instead of asking for the thread's storage again at
// every tick (an optimiser that sees through the constructor would).
Ticker::Ticker() : poll_(t_host.poll) {
  TickState* state = &t_tick;
  asm("" : "+r"(state));
  state_ = state;
}

void Ticker::Poll() {
  int64_t flag = 0;
  poll_(&flag);
  if ((flag & 1) != 0) StopRun(fail::kStoppedByHost);
}

// The Monte Carlo writers ask the host at once before a line goes out.
bool PollNow() {
  PollHost();
  return true;
}

// The stop of a run: the code overwrites whatever failure stands, the
// spill file goes (so the run's next file access fails), the elapsed clock
// is brought up to date, a time limit is reported on the host's error
// output, and the host is told with a last poll at -1.
void StopRun(int64_t code) {
  ForceFailure(code);
  CloseNodeFile();
  UpdateElapsed();
  if (code == fail::kTimeLimit)
    BP_ERROR(BP_CSTRING(kTimeLimitMessage, static_cast<int64_t>(sizeof kTimeLimitMessage) - 1), 1,
             3);
  if (t_host.poll != nullptr) {
    int64_t flag = -1;
    t_host.poll(&flag);
  }
}

// Cuts the line to 80 characters (or its NUL), trims trailing blanks and
// hands the last 16 characters to the host's text routine, advancing the
// message counter (back to 0 from a negative value).  A null text routine
// drops the line.
void SendLine(const char* text, int length) {
  int n = (text == nullptr || length < 0) ? 0 : std::min(length, kLineMaxLength);
  for (int i = 0; i < n; ++i)
    if (text[i] == '\0') {
      n = i;
      break;
    }
  while (n > 0 && text[n - 1] == ' ') --n;
  const int first = n > kHostTextLength ? n - kHostTextLength : 0;
  n -= first;
  char out[kHostTextLength + 1];
  if (n > 0) std::memcpy(out, text + first, n);
  out[n] = '\0';

  int64_t& counter = t_host.message_counter;
  counter = counter < 0 ? 0 : counter + 1;
  if (t_host.text != nullptr) {
    int32_t length32 = n;
    t_host.text(out, &length32, &counter, n);
  }
}

void SendLine(const std::string& line) {
  SendLine(line.c_str(), static_cast<int>(std::min<size_t>(line.size(), kLineBuffer - 1)));
}

std::string FormatInt(int64_t value, int width) {
  if (width <= 0) width = 0;
  std::string out(static_cast<size_t>(std::max(width, 32)) + 1, '\0');
  out.resize(FormatIntInto(out.data(), value, width));
  return out;
}

std::string FormatFixed(double value, int width, int decimals) {
  if (width <= 0) return std::string();
  std::string out(static_cast<size_t>(width) + 1, '\0');
  out.resize(FormatFixedInto(out.data(), value, width, decimals));
  return out;
}

std::string LongRunNoteText(int argument) {
  Line line;
  BuildLongRunNote(line, argument);
  return std::string(line.text, line.length);
}
std::string StageLineText(int64_t stage) {
  Line line;
  BuildStageLine(line, stage);
  return std::string(line.text, line.length);
}
std::string MonteCarloLineText(double percent, double low, double high) {
  Line line;
  BuildMonteCarloLine(line, percent, low, high);
  return std::string(line.text, line.length);
}
std::string ExactEstimateLineText(double low, double high) {
  Line line;
  BuildExactEstimateLine(line, low, high);
  return std::string(line.text, line.length);
}
std::string BackwardLineText(int64_t stage) {
  Line line;
  BuildBackwardLine(line, stage);
  return std::string(line.text, line.length);
}
std::string BackwardNodesLineText(int64_t stage, int64_t nodes) {
  Line line;
  BuildBackwardNodesLine(line, stage, nodes);
  return std::string(line.text, line.length);
}

// The Send* routines build into a line buffer on the stack and allocate
// nothing, so that the loops that report stay free of allocation.
void SendLongRunNote(int argument) {
  Line line;
  BuildLongRunNote(line, argument);
  Send(line);
}
void SendStageLine(int64_t stage) {
  Line line;
  BuildStageLine(line, stage);
  Send(line);
}
void SendMonteCarloLine(double percent, double low, double high) {
  Line line;
  BuildMonteCarloLine(line, percent, low, high);
  Send(line);
}
void SendExactEstimateLine(double low, double high) {
  Line line;
  BuildExactEstimateLine(line, low, high);
  Send(line);
}
void SendProcessingLine() {
  Line line;
  line.Append("Processing...");
  Send(line);
}
void SendDotLine() {
  Line line;
  line.Append(".");
  Send(line);
}
void SendBackwardLine(int64_t stage) {
  Line line;
  BuildBackwardLine(line, stage);
  Send(line);
}
void SendBackwardNodesLine(int64_t stage, int64_t nodes) {
  Line line;
  BuildBackwardNodesLine(line, stage, nodes);
  Send(line);
}
void SendCalculatingLine() {
  Line line;
  line.Append("Calculating p-value");
  Send(line);
}

}  // namespace anvl
