// The memory budget of a run's stores and the spill file of the network
// runs: a file of fixed-length records, private to one run, deleted at its
// end.  The open file belongs to the calling thread, so that a stop can
// close and delete it from the tick.
#pragma once

#include <cstdint>
#include <string>

namespace anvl {

// Bytes that a stage's working storage may use: the MemoryLimit setting in
// kilobytes when it is at least 1, else the free physical memory; clamped
// to 2 MiB at the bottom and to MemoryCeiling() at the top.
int64_t MemoryBudget();
inline constexpr int64_t kBudgetFloor = 2097152;
// Free physical memory of the machine in bytes (0 when it can't be read).
int64_t FreePhysicalMemory();
// The default ceiling of the budget.
inline constexpr int64_t kBudgetCeiling = 16777216;
// The environment variable through which a host lifts the ceiling for its
// process: a whole number of mebibytes, read at every call.
inline constexpr const char* kCeilingVariable = "ANVLWTQ_MEMORY_CEILING";
// The ceiling in bytes: kBudgetCeiling when the variable is unset, empty or
// not a whole number of at least 1; else its value, never above half the
// machine's physical memory nor below the floor.
int64_t MemoryCeiling();
// The value of a host's environment variable that must be a whole number
// (digits only), saturated at `largest`; 0 when it is unset, empty or not
// such a number.
int64_t EnvironmentWholeNumber(const char* name, int64_t largest);

// Opens the spill file of this thread's run at Host().spill_path (a private
// temporary file when that is empty), truncating any file of that name.
// Returns 0, -9, or -1 when its buffer can't be allocated.
int OpenNodeFile(int64_t record_length);
// Closes and deletes the file if it is open; harmless when it isn't.
void CloseNodeFile();
bool NodeFileIsOpen();
// The name of this thread's open spill file (empty when none), for tests.
const std::string& NodeFilePathForTesting();

// Record r (from 1) starts at byte (r - 1) x record length; a position
// beyond a 32-bit signed offset fails.  Writers return 0 or -10, readers
// 0 or -11.
int WriteWords(const int64_t* words, int count, int64_t r);
int WriteStageWords(int8_t stage, const int64_t* words, int count, int64_t r);
int WriteWordsPair(const int64_t* words, int count, double a, double b, int64_t r);
int WriteStageWordsPair(int8_t stage, const int64_t* words, int count, double a, double b,
                        int64_t r);
int ReadWords(int64_t* words, int count, int64_t r);
int ReadStageWords(int8_t* stage, int64_t* words, int count, int64_t r);
int ReadWordsPair(int64_t* words, int count, double* a, double* b, int64_t r);
int ReadStageWordsPair(int8_t* stage, int64_t* words, int count, double* a, double* b, int64_t r);

// Closes and deletes the spill file when a run leaves its scope.
struct NodeFileGuard {
  NodeFileGuard() = default;
  NodeFileGuard(const NodeFileGuard&) = delete;
  NodeFileGuard& operator=(const NodeFileGuard&) = delete;
  ~NodeFileGuard() { CloseNodeFile(); }
};

}  // namespace anvl
