// The dispatch table: procedure code -> selector and driver.
#pragma once

#include <cstdint>

#include "frame/driver.h"

namespace anvl {

// Selector of the dispatch table for a procedure code; 0 for a code that
// isn't valid, or whose test isn't built in this release.
int64_t SelectorOf(int64_t procedure);
// Calls the driver of a procedure whose SelectorOf is non-zero.
void RunDriver(int64_t procedure, const CallArgs& args);

}  // namespace anvl
