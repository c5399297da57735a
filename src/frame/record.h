// The result record: 50 doubles, filled from the private copy of the
// result block by a table of entries per procedure code.
#pragma once

#include <cstdint>

#include "frame/run_store.h"

namespace anvl {

inline constexpr int kRecordLength = 50;
inline constexpr int kFailureField = 48;

// The entry point's private copy of the result block, taken by the driver
// at its tear-down.
ResultBlock& PrivateBlock();

// Prefill: fields 0..41 and 45..47 with `missing`; 42, 43, 44, 48, 49 with
// 0.0.
void PrefillRecord(double* record, double missing);

// Moves what the procedure publishes from the private block into the
// record, or the failure value when a failure stands; then the elapsed
// time.  `two_by_two` selects the cell entry of procedures 7 and 40.
void FillRecord(int64_t procedure, bool two_by_two, double* record);

}  // namespace anvl
