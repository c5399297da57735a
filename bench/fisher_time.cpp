// fisher_time - one timed exact run of a two-way test on a table from the
// command line (Fisher's, or with --pearson Pearson's chi-square).
//
//   fisher_time [--pearson] 1 2 1 0 / 3 3 6 1 / 10 10 14 9 / 6 7 12 11
//
// Rows are separated by "/".  Makes one TQCALLER call (procedure 32 or 7,
// exact method, free memory up to the library's ceiling, which the
// environment variable ANVLWTQ_MEMORY_CEILING lifts, no time limit) and
// prints one line:
//
//   p <two-sided p> seconds <wall time of the call> failure <field 48>
//
// Exit status: 0 success, 1 the engine reported a failure, 2 usage error.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exact_call.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitEngineFailure = 1;
constexpr int kExitUsage = 2;

// Reads the rows of counts from argv; false on a ragged, empty or
// non-numeric table.
bool ParseTable(int argc, char** argv, int first, anvl::bench::Table& t) {
  t.name = "argv";
  t.rows.assign(1, {});
  for (int a = first; a < argc; ++a) {
    if (std::strcmp(argv[a], "/") == 0) {
      t.rows.emplace_back();
      continue;
    }
    char* end = nullptr;
    const long long x = std::strtoll(argv[a], &end, 10);
    if (end == argv[a] || *end != '\0' || x < 0) return false;
    t.rows.back().push_back(x);
  }
  if (t.rows.front().empty()) return false;
  for (const auto& row : t.rows)
    if (row.size() != t.rows.front().size()) return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  anvl::bench::Table t;
  const bool pearson = argc > 1 && std::strcmp(argv[1], "--pearson") == 0;
  if (!ParseTable(argc, argv, pearson ? 2 : 1, t)) {
    std::fprintf(stderr, "usage: fisher_time [--pearson] n11 n12 ... / n21 n22 ... / ...\n");
    return kExitUsage;
  }
  const std::vector<int64_t> cells = anvl::bench::ColumnMajor(t);
  double record[TQ_RECORD_LENGTH];
  const auto start = std::chrono::steady_clock::now();
  anvl::bench::RunExact(pearson ? TQ_PROC_CHISQ : TQ_PROC_FISHER, cells, static_cast<int64_t>(t.rows.size()),
                        static_cast<int64_t>(t.rows.front().size()), record);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  std::printf("p %.12f seconds %.6f failure %.1f\n", record[TQ_REC_EXACT_TWO], wall.count(),
              record[TQ_REC_FAILURE]);
  return record[TQ_REC_FAILURE] == 0.0 ? kExitSuccess : kExitEngineFailure;
}
