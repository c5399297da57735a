// nominal_bench - the exact route of the nominal-association members beside
// Fisher's test on the same 4 x 4 and 5 x 5 tables (N 30 to 76): procedures
// 40 (likelihood ratio) and 45 (uncertainty coefficients), which run on
// Fisher's network of canonical nodes, 43 (Cohen's kappa, two-cut, rows and
// columns as given) and 46 (Goodman and Kruskal's tau, one-cut, rows as
// given), each against 32 (Fisher).
//
// One TQCALLER call per iteration, with null host routines and a private
// spill file; the exact two-sided p-value (record field 16) is the counter
// "p".  A run that fails stops its benchmark.  The tables are written here
// so that the timings never depend on a random stream.
#include <benchmark/benchmark.h>

#include <string>

#include "exact_call.h"

namespace anvl::bench {
namespace {

// 1 GiB asked: the engine clamps it to its ceiling (16 MiB unless the
// environment variable ANVLWTQ_MEMORY_CEILING lifts it; tau's past values
// on the 5 x 5 tables need some 64 MiB).
constexpr int64_t kMemoryKb = 1048576;

const Table kTables[] = {
    {"4x4_n30", {{3, 2, 1, 0}, {2, 3, 2, 1}, {1, 2, 4, 2}, {0, 1, 2, 4}}},
    {"4x4_n55", {{6, 4, 2, 1}, {3, 6, 3, 2}, {2, 3, 6, 3}, {1, 2, 4, 7}}},
    {"4x4_n76", {{8, 5, 3, 1}, {4, 8, 4, 3}, {3, 4, 9, 4}, {1, 3, 5, 11}}},
    {"5x5_n51", {{5, 2, 1, 1, 0}, {2, 5, 2, 1, 1}, {1, 2, 5, 2, 1}, {1, 1, 2, 5, 2}, {0, 1, 1, 2, 5}}},
    {"5x5_n60", {{4, 3, 3, 3, 0}, {2, 2, 2, 1, 5}, {1, 1, 2, 3, 1}, {2, 2, 4, 5, 4}, {1, 0, 3, 3, 3}}},
};

void RunCase(benchmark::State& state, int64_t procedure, const Table* t) {
  const std::vector<int64_t> cells = ColumnMajor(*t);
  const auto rows = static_cast<int64_t>(t->rows.size());
  const auto cols = static_cast<int64_t>(t->rows.front().size());
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state) {
    RunExact(procedure, cells, rows, cols, record, kMemoryKb);
    benchmark::DoNotOptimize(record);
    if (record[TQ_REC_FAILURE] != 0.0) {
      state.SkipWithError(("engine failure " + std::to_string(record[TQ_REC_FAILURE])).c_str());
      break;
    }
  }
  state.counters["p"] = record[16];
  state.counters["N"] = static_cast<double>(Total(*t));
}

const struct {
  int64_t procedure;
  const char* name;
} kProcedures[] = {{32, "fisher"}, {40, "likelihood_ratio"}, {45, "uncertainty"},
                   {43, "kappa"},  {46, "gk_tau"}};

int Register() {
  for (const Table& t : kTables)
    for (const auto& p : kProcedures)
      benchmark::RegisterBenchmark((std::string(t.name) + "/" + p.name).c_str(), RunCase,
                                   p.procedure, &t)
          ->Unit(benchmark::kMillisecond)
          ->MinTime(0.3);
  return 0;
}
const int kRegistered = Register();

}  // namespace
}  // namespace anvl::bench

BENCHMARK_MAIN();
