#include "frame/run_store.h"

#include <cstring>

#include "frame/clock.h"
#include "frame/failure_codes.h"

namespace anvl {
namespace {
thread_local RunStore t_store;

// Allocator statuses that mean "no memory" on the systems that report them;
// the host sees them all as -1.
constexpr int64_t kAllocatorNoMemory[] = {6316, 6317, 6319, 6700};
}  // namespace

RunStore& Store() { return t_store; }

void ResetStore() {
  ResultBlock& b = t_store.block;
  for (ResultSlot& s : b.slots) s = {0.0, kStatusUnpublished};
  std::memset(b.words, 0, sizeof b.words);
  for (auto& t : b.text) {
    t[0] = '\0';
    std::memset(t + 1, ' ', kTextSlotLength - 1);
  }
}

double Setting(int index) { return t_store.settings[index]; }
void SetSetting(int index, int64_t value) { t_store.settings[index] = static_cast<double>(value); }
void SetSetting(int index, double value) { t_store.settings[index] = value; }
double ModelOption(int index) { return t_store.model[index]; }
void SetModelOption(int index, double value) { t_store.model[index] = value; }

void Publish(int slot, double value, int64_t status) { t_store.block.slots[slot] = {value, status}; }
void PublishClamped(int slot, double value) {
  Publish(slot, value < 0.0 ? 0.0 : (value > 1.0 ? 1.0 : value));
}
void SetWord(int w, int64_t value) { t_store.block.words[w] = value; }
int64_t Word(int w) { return t_store.block.words[w]; }
const ResultSlot& Slot(int slot) { return t_store.block.slots[slot]; }

int64_t FailureCode() { return t_store.block.words[word::kFailureCode]; }

bool RunStopped() {
  const int64_t code = t_store.block.words[word::kFailureCode];
  return code == fail::kStoppedByHost || code == fail::kTimeLimit;
}

void RecordFailure(int64_t code) {
  UpdateElapsed();
  int64_t& stored = t_store.block.words[word::kFailureCode];
  if (stored == 0) stored = code;
  for (int64_t status : kAllocatorNoMemory)
    if (stored == status) stored = -1;
}

void ForceFailure(int64_t code) { t_store.block.words[word::kFailureCode] = code; }

void StartClock() {
  const WallTime now = ReadWallClock();
  ElapsedClock& c = t_store.clock;
  c.start_hour = static_cast<int16_t>(now.hour);
  c.start_minute = static_cast<int16_t>(now.minute);
  c.start_second = static_cast<int16_t>(now.second);
  c.start_hundredths = static_cast<int16_t>((now.millisecond + 5) / 10);
}

void ZeroElapsed() {
  ElapsedClock& c = t_store.clock;
  c.hours = 0;
  c.minutes = 0;
  c.seconds = 0.0;
}

// Time since StartClock in hours, minutes and seconds, from the wall clock
// with hundredths.  A run that crosses midnight gets 24 hours added once.
void UpdateElapsed() {
  const WallTime now = ReadWallClock();
  ElapsedClock& c = t_store.clock;
  int hour = now.hour, minute = now.minute;
  const int hundredths = (now.millisecond + 5) / 10;
  float cs = static_cast<float>((now.second - c.start_second) * 100 + hundredths - c.start_hundredths);
  if (cs < 0.0f) {
    minute -= 1;
    cs += 6000.0f;
  }
  int m = minute - c.start_minute;
  if (m < 0) {
    hour -= 1;
    m += 60;
  }
  double s = static_cast<double>(cs) / 100.0;
  const int k = static_cast<int>(s / 60.0);
  m += k;
  s -= 60.0 * k;
  const int j = m / 60;
  m -= 60 * j;
  int h = hour - c.start_hour;
  if (h < 0) h += 24;
  h += j;
  c.hours = static_cast<int16_t>(h);
  c.minutes = static_cast<int16_t>(m);
  c.seconds = s;
  SetWord(word::kElapsedHours, h);
  SetWord(word::kElapsedMinutes, m);
  // The seconds word holds a double: its bits are stored in the word.
  std::memcpy(&t_store.block.words[word::kElapsedSeconds], &s, sizeof s);
}

}  // namespace anvl
