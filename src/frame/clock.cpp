#include "frame/clock.h"

#include <chrono>
#include <ctime>

namespace anvl {
namespace {
thread_local WallClockSource t_wall = nullptr;
thread_local CounterSource t_counter = nullptr;
}  // namespace

WallTime ReadWallClock() {
  if (t_wall) return t_wall();
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t secs = system_clock::to_time_t(now);
  std::tm local{};
  localtime_r(&secs, &local);
  const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  return {local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(ms)};
}

int64_t ReadMillisecondCounter() {
  if (t_counter) return t_counter();
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SetClockSourcesForTesting(WallClockSource wall, CounterSource counter) {
  t_wall = wall;
  t_counter = counter;
}

}  // namespace anvl
