// exact_call.h - one exact run of the engine on a two-way table, as a host
// makes it: through TQCALLER and the record alone.
#ifndef ANVL_BENCH_EXACT_CALL_H
#define ANVL_BENCH_EXACT_CALL_H

#include <cstdint>
#include <vector>

#include "anvlwtq.h"

namespace anvl::bench {

// Filler of the unpublished record fields; no p-value can take it.
constexpr double kMissing = -4242.0;
// Memory field that lets the engine size its stores by the free memory (the
// engine still clamps the network store to its own upper limit).
constexpr int64_t kFreeMemory = -1;

// A table as people write it: rows of counts.
struct Table {
  const char* name;
  std::vector<std::vector<int64_t>> rows;
};

// The cells in the engine's order: column-major, row index fastest.
inline std::vector<int64_t> ColumnMajor(const Table& t) {
  const size_t r = t.rows.size(), c = t.rows.front().size();
  std::vector<int64_t> cells(r * c);
  for (size_t i = 0; i < r; ++i)
    for (size_t j = 0; j < c; ++j) cells[i + j * r] = t.rows[i][j];
  return cells;
}

inline int64_t Total(const Table& t) {
  int64_t n = 0;
  for (const auto& row : t.rows)
    for (int64_t x : row) n += x;
  return n;
}

// Runs `procedure` with the exact method (MemoryField `memory_kb`) on the column-major `cells` and
// fills `record` (50 doubles).  No time limit, no host routines, a private
// spill file.  Field 48 of the record tells success (0.0) or the failure.
inline void RunExact(int64_t procedure, const std::vector<int64_t>& cells, int64_t rows,
                     int64_t cols, double* record, int64_t memory_kb = kFreeMemory) {
  const int64_t ip[TQ_INT_COUNT] = {procedure, TQ_METHOD_EXACT, 1, 0, 0, 0, 0, 0, 0, memory_kb};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MISSING] = kMissing;
  TQCALLER(nullptr, nullptr, ip, rp, cells.data(), rows, cols, nullptr, nullptr, nullptr, 0, 0,
           nullptr, record, "");
}

}  // namespace anvl::bench

#endif  // ANVL_BENCH_EXACT_CALL_H
