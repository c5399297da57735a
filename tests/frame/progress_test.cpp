// Tick, time limit, stop and progress lines, with time driven by hand.
#include "frame/progress.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "frame/clock.h"
#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"

namespace anvl {
namespace {

// Test-side stand-ins for the host and the clock of this thread.
thread_local int64_t t_now_ms = 0;
thread_local int64_t t_poll_answer = 0;
thread_local std::vector<int64_t> t_poll_seen;

struct Received {
  std::string text;  // built from the length argument, so it pins that too
  int32_t length_ref;
  int64_t counter;
};
thread_local std::vector<Received> t_lines;

int64_t FakeCounter() { return t_now_ms; }
WallTime FakeWall() { return {10, 20, 30, 0}; }
void FakePoll(int64_t* flag) {
  t_poll_seen.push_back(*flag);
  if (*flag == 0) *flag = t_poll_answer;
}
void FakeText(const char* text, int32_t* length, int64_t* counter, int64_t text_length) {
  t_lines.push_back({std::string(text, static_cast<size_t>(text_length)), *length, *counter});
}

// Runs `calls` ticks, advancing the clock by `step` ms before each.
void Ticks(int calls, int64_t step) {
  for (int i = 0; i < calls; ++i) {
    t_now_ms += step;
    Tick();
  }
}

class ProgressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetClockSourcesForTesting(FakeWall, FakeCounter);
    ResetStore();
    ZeroElapsed();
    StartClock();
    SetSetting(setting::kTimeLimit, int64_t{0});
    Host() = HostContact{};
    Host().poll = FakePoll;
    Host().text = FakeText;
    t_now_ms = 1000000;
    t_poll_answer = 0;
    t_poll_seen.clear();
    t_lines.clear();
    StartTimeLimit();
    StartTicks();
  }
  void TearDown() override {
    CloseNodeFile();
    Host() = HostContact{};
    SetClockSourcesForTesting(nullptr, nullptr);
  }
  void StartLimit(double minutes) {
    SetSetting(setting::kTimeLimit, minutes);
    StartTimeLimit();
  }

  // Advances the clock by `step` ms before each call; returns the quantum
  // after each report, and checks that reports fall every `quantum` calls.
  std::vector<int64_t> RunReports(int64_t step, int reports) {
    std::vector<int64_t> quanta;
    int64_t calls_since = 0;
    int64_t expected_gap = TickStateForTesting().tick_quantum;
    while (static_cast<int>(quanta.size()) < reports) {
      t_now_ms += step;
      ++calls_since;
      if (Tick()) {
        EXPECT_EQ(calls_since, expected_gap) << "step " << step;
        calls_since = 0;
        expected_gap = TickStateForTesting().tick_quantum;
        quanta.push_back(expected_gap);
      }
    }
    return quanta;
  }
};

// Tick and PollNow alike: only the lowest bit of the host's answer stops;
// a stop overwrites an earlier failure, closes and deletes the spill file,
// polls once more at -1 and prints nothing on standard error.  Without a
// poll routine nothing stops.
TEST_F(ProgressTest, HostFlagStopsOnlyOnLowestBit) {
  struct Case {
    int64_t answer, prior_code, expected_code;
    const char* source;
  };
  const Case cases[] = {
      {1, 0, fail::kStoppedByHost, "lowest bit set"},
      {3, fail::kSpillRead, fail::kStoppedByHost, "a stop overwrites an earlier failure"},
      {-1, fail::kNoMemory, fail::kStoppedByHost, "-1 has its lowest bit set"},
      {2, 0, 0, "2 asks for nothing"},
      {2, fail::kSpillRead, fail::kSpillRead, "no stop keeps the code"},
      {0, 0, 0, "0 asks for nothing"},
  };
  const std::string path = ::testing::TempDir() + "progress_stop_spill.bin";
  for (const Case& c : cases) {
    for (bool use_poll_now : {false, true}) {
      SetUp();
      SCOPED_TRACE(std::string(c.source) + ", PollNow " + (use_poll_now ? "1" : "0"));
      Host().spill_path = path;
      ASSERT_EQ(OpenNodeFile(16), 0);
      if (c.prior_code != 0) RecordFailure(c.prior_code);
      t_poll_answer = c.answer;
      ::testing::internal::CaptureStderr();
      // Quantum 1: the first Tick reports.
      EXPECT_TRUE(use_poll_now ? PollNow() : Tick());
      EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
      const bool stopped = c.expected_code == fail::kStoppedByHost;
      EXPECT_EQ(FailureCode(), c.expected_code);
      EXPECT_EQ(t_poll_seen, (stopped ? std::vector<int64_t>{0, -1} : std::vector<int64_t>{0}));
      EXPECT_EQ(NodeFileIsOpen(), !stopped);
      struct stat st;
      EXPECT_EQ(::stat(path.c_str(), &st) == 0, !stopped) << path;
      CloseNodeFile();
    }
  }
  SetUp();
  Host().poll = nullptr;
  Ticks(100, 10);
  EXPECT_TRUE(PollNow());
  EXPECT_EQ(FailureCode(), 0);
}

// The quantum doubles while a report takes under 3 s (2d < 6000 ms) and
// halves when one takes over 6 s, never below 1 (by hand).
TEST_F(ProgressTest, QuantumKeepsReportsNearThreeSeconds) {
  struct Phase {
    int64_t step_ms;
    std::vector<int64_t> quanta;
  };
  struct Case {
    std::vector<Phase> phases;  // run one after the other
    const char* source;
  } cases[] = {
      {{{1, {2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 4096, 4096}},
        {2, {2048, 2048, 2048}},
        {10, {1024, 512, 512, 512}}},
       "1 ms per call doubles to 4096 (4.096 s) and stays; at 2 ms 8192 ms halves to 2048 and "
       "4096 ms stays; at 10 ms 20480, 10240, then 5120 stays"},
      {{{3000, {1, 1, 1}}}, "2d = 6000 isn't below 6000; d = 3000 isn't above: unchanged"},
      {{{2999, {2, 2, 2}}}, "2 x 2999 < 6000 doubles; then d = 5998 keeps"},
      {{{6000, {1, 1}}}, "d = 6000 isn't above 6000: unchanged"},
      {{{6001, {1, 1, 1}}}, "halving 1 gives 0, raised to the floor of 1"},
      {{{3600000, {1, 1}}}, "an hour per call: still 1"},
  };
  for (const Case& c : cases) {
    SetUp();
    for (const Phase& p : c.phases)
      EXPECT_EQ(RunReports(p.step_ms, static_cast<int>(p.quanta.size())), p.quanta)
          << c.source << ", step " << p.step_ms;
  }
}

// The limit is the integer part of the setting in minutes; none (0 or
// below) never stops and counts no time, even after 200 hours of ticks.  A
// one-minute limit stops at the first report whose time since the start
// reaches it, with a message on standard error and a last poll at -1; a stop
// overwrites an earlier failure.
TEST_F(ProgressTest, TimeLimitStopsWithMessage) {
  const std::pair<double, int64_t> limits[] = {
      {1.0, 60000}, {2.9, 120000}, {0.9, 0}, {0.0, 0}, {-5.0, 0}};
  for (const auto& [minutes, limit_ms] : limits) {
    SetUp();
    StartLimit(minutes);
    EXPECT_EQ(TickStateForTesting().time_limit_ms, limit_ms) << minutes << " minutes";
    if (limit_ms != 0) continue;
    Ticks(200, 3600 * 1000);
    EXPECT_EQ(FailureCode(), 0) << minutes << " minutes";
    EXPECT_EQ(TickStateForTesting().time_spent, 0) << minutes << " minutes";
  }
  struct Case {
    int64_t step_ms;
    int stop_call;
    int64_t spent_before, spent_at_stop;
    const char* source;
  } cases[] = {
      {3000, 20, 57000, 60000, "3 s per call keeps the quantum at 1: twenty reports spend exactly "
                               "the minute, which is enough"},
      {1000, 63, 59000, 63000, "reports at calls 1, 3, 7, 11, ... (quantum 1, 2, 4, then 4): the "
                               "first at 60 s or more is call 63 (by hand)"},
  };
  for (const Case& c : cases) {
    SetUp();
    StartLimit(1);
    RecordFailure(fail::kSpillWrite);
    Ticks(c.stop_call - 1, c.step_ms);
    EXPECT_EQ(FailureCode(), fail::kSpillWrite) << c.source << ": stopped early";
    EXPECT_EQ(TickStateForTesting().time_spent, c.spent_before) << c.source;
    ::testing::internal::CaptureStderr();
    t_now_ms += c.step_ms;
    EXPECT_TRUE(Tick()) << c.source;
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(FailureCode(), fail::kTimeLimit) << c.source;
    EXPECT_EQ(TickStateForTesting().time_spent, c.spent_at_stop) << c.source;
    EXPECT_NE(err.find("Exact significances not computed,time limit..."), std::string::npos)
        << c.source << ", stderr: " << err;
    EXPECT_EQ(t_poll_seen.back(), -1) << c.source;
  }

  // The limit stays passed: the next report (4 calls after the last stop)
  // repeats the stop.
  ForceFailure(0);
  t_poll_seen.clear();
  ::testing::internal::CaptureStderr();
  Ticks(4, 1000);
  const std::string again = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(FailureCode(), fail::kTimeLimit);
  EXPECT_NE(again.find("time limit"), std::string::npos) << "stderr: " << again;
  EXPECT_EQ(t_poll_seen, (std::vector<int64_t>{0, 0, 0, 0, -1}));
}

// Number fields (Iw when decimals < 0, Fw.d) and progress lines in full as
// their Format and *Text routines build them; every line as the host
// receives it: trailing blanks trimmed, cut to 80 and then to its last 16
// characters, ended by a NUL, with its length and the message counter, which
// goes up by one a line.
TEST_F(ProgressTest, FieldsLinesAndWhatTheHostReceives) {
  struct Case {
    std::string built, expected;  // what a Format or *Text routine built
    const char* source;
    std::function<void()> send = {};  // empty: nothing is sent
    std::string sent = "";
  };
  auto num = [](double v, int w, int d) {
    return d < 0 ? FormatInt(static_cast<int64_t>(v), w) : FormatFixed(v, w, d);
  };
  auto line = [](std::string s) { return [s] { SendLine(s.data(), static_cast<int>(s.size())); }; };
  const Case cases[] = {
      {num(0, 4, -1), "   0", "I4 of zero"},           {num(-12, 3, -1), "-12", "sign counts in the width"},
      {num(-123, 3, -1), "***", "sign makes it too wide"}, {num(1234567890, 10, -1), "1234567890", "I10 full"},
      {num(0.1234, 6, 4), "0.1234", "F6.4 just fits"},  {num(0.1234, 5, 4), ".1234", "F5.4 drops the 0"},
      {num(-0.1234, 7, 4), "-0.1234", "negative with 0"}, {num(-0.1234, 6, 4), "-.1234", "negative without 0"},
      {num(-0.1234, 5, 4), "*****", "negative too wide"}, {num(0.99996, 7, 4), " 1.0000", "rounds up to 1"},
      {num(0.00004, 7, 4), " 0.0000", "rounds down to 0"}, {num(9.5, 5, 2), " 9.50", "F5.2 padded"},
      {num(100.0, 5, 2), "*****", "F5.2 can't hold 100"}, {num(3.0, 4, 0), "  3.", "F4.0 keeps the point"},
      {num(12.345678, 9, 3), "   12.346", "F9.3 rounds"},
      {"", "", "exactly 16 goes out whole", line("0123456789ABCDEF"), "0123456789ABCDEF"},
      {"", "", "17 loses its first", line("0123456789ABCDEFG"), "123456789ABCDEFG"},
      {"", "", "trailing blanks trimmed", line("short   "), "short"},
      {"", "", "leading blanks stay", line("  lead"), "  lead"},
      {"", "", "trimmed before the cut to 16", line("0123456789ABCDEFG   "), "123456789ABCDEFG"},
      {"", "", "a blank line sends nothing", line("      "), ""},
      {"", "", "90 characters: cut to 80 before the last 16",
       line(std::string(70, 'x') + "0123456789ABCDEFGHIJ"), "xxxxxx0123456789"},
      {"", "", "the NUL ends the line", line(std::string("abc\0def", 7)), "abc"},
      {LongRunNoteText(1), "NOTE: This problem may take a long time to solve.", "note",
       [] { SendLongRunNote(1); }, "g time to solve."},
      {LongRunNoteText(0), std::string(49, ' '), "note withdrawn: 49 blanks", [] { SendLongRunNote(0); }, ""},
      {StageLineText(7), " Generating the distribution to stage   7", "stage I3", [] { SendStageLine(7); },
       "ion to stage   7"},
      {StageLineText(1234), " Generating the distribution to stage ***", "stage too wide"},
      {MonteCarloLineText(99.0, 0.0123, 0.0456), "Current 99.00% Monte Carlo p-value estimate ( 0.0123, 0.0456)",
       "Monte Carlo", [] { SendMonteCarloLine(99.0, 0.0123, 0.0456); }, " 0.0123, 0.0456)"},
      {MonteCarloLineText(95.0, -0.02, 1.3), "Current 95.00% Monte Carlo p-value estimate ( 0.0000, 1.0000)",
       "limits clamped"},
      {ExactEstimateLineText(0.05, 0.0612), "Current estimate of Exact two-sided p-value is ( 0.0500, 0.0612)",
       "exact estimate", [] { SendExactEstimateLine(0.05, 0.0612); }, " 0.0500, 0.0612)"},
      {ExactEstimateLineText(-1e-9, 1.0000001), "Current estimate of Exact two-sided p-value is ( 0.0000, 1.0000)",
       "exact clamped"},
      {BackwardLineText(12), "Backward induction : processing stage   12", "backward I4",
       [] { SendBackwardLine(12); }, "ssing stage   12"},
      {BackwardNodesLineText(3, 12345),
       "Backward induction : processing stage    3  Nodes to be created:      12345", "backward with nodes I10",
       [] { SendBackwardNodesLine(3, 12345); }, "ated:      12345"},
      {"", "", "processing", [] { SendProcessingLine(); }, "Processing..."},
      {"", "", "dot", [] { SendDotLine(); }, "."},
      {"", "", "calculating", [] { SendCalculatingLine(); }, "culating p-value"},
  };
  int64_t count = 0;
  for (const Case& c : cases) {
    EXPECT_EQ(c.built, c.expected) << c.source;
    if (!c.send) continue;
    t_lines.clear();
    c.send();
    ASSERT_EQ(t_lines.size(), 1u) << c.source;
    EXPECT_EQ(t_lines[0].text, c.sent) << c.source;
    EXPECT_EQ(t_lines[0].length_ref, static_cast<int32_t>(c.sent.size())) << c.source;
    EXPECT_EQ(t_lines[0].counter, ++count) << c.source;
  }
  // An old count below zero goes back to 0; without a text routine nothing
  // is called, but the count goes on.
  Host().message_counter = -7;
  SendLine(std::string("c"));
  SendLine(std::string("d"));
  ASSERT_EQ(t_lines.size(), 3u);
  EXPECT_EQ(t_lines[1].counter, 0);
  EXPECT_EQ(t_lines[2].counter, 1);
  Host().text = nullptr;
  SendLine(std::string("e"));
  EXPECT_EQ(Host().message_counter, 2);
  EXPECT_EQ(t_lines.size(), 3u);
}

}  // namespace
}  // namespace anvl
