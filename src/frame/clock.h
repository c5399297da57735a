// The engine's one seam to the operating system's clocks.
//
// The elapsed clock reads the wall clock (hour, minute, second,
// millisecond); the tick reads a millisecond counter.  Tests replace both
// for the calling thread to drive time by hand.
#pragma once

#include <cstdint>

namespace anvl {

struct WallTime {
  int hour, minute, second, millisecond;
};

WallTime ReadWallClock();
int64_t ReadMillisecondCounter();

// Test seam: while set, the two readers return what these give, for the
// calling thread only.  Pass nullptr to restore the system clocks.
using WallClockSource = WallTime (*)();
using CounterSource = int64_t (*)();
void SetClockSourcesForTesting(WallClockSource wall, CounterSource counter);

}  // namespace anvl
