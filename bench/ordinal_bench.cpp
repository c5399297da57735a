// ordinal_bench - the exact routes of procedures 50 (gamma), 49 (Kendall's
// family), 20 (Jonckheere-Terpstra) and 21 (Kruskal-Wallis) beside their
// Monte Carlo route with 1,000,000 tables, on the same tables.
//
// Each benchmark makes one TQCALLER call per iteration and reports the
// two-sided p-value (record field 16 exact, 21 Monte Carlo) as the counter
// "p".  A run that fails (field 48 not 0.0) stops its benchmark with the
// failure value.
//
// The r x c tables are those of linear_bench (a mild linear association,
// seed 20261123).  Kruskal-Wallis keys its network by the ordered levels,
// the columns, so it runs each of them transposed (the longer dimension as
// groups); the "groups_of_10" tables are four groups of ten values with
// ties in 5 or 6 levels, or without ties in 40.
#include <benchmark/benchmark.h>

#include <string>

#include "exact_call.h"

namespace anvl::bench {
namespace {

constexpr int64_t kMonteCarloTables = 1000000;
constexpr int64_t kSeed = 20261123;
constexpr int64_t kMemoryKb = 1048576;  // clamped by the engine to its ceiling
constexpr int64_t kTimeLimitMinutes = 3;

const Table kTables[] = {
    {"3x5_n30", {{5, 3, 1, 1, 1}, {1, 2, 1, 0, 3}, {0, 0, 3, 5, 4}}},
    {"3x5_n60", {{3, 9, 6, 3, 2}, {5, 6, 3, 3, 6}, {1, 3, 2, 5, 3}}},
    {"4x6_n60", {{1, 7, 0, 0, 0, 0}, {4, 7, 4, 2, 2, 0}, {2, 3, 5, 2, 3, 1}, {1, 2, 2, 2, 3, 7}}},
    {"5x5_n60", {{4, 3, 3, 3, 0}, {2, 2, 2, 1, 5}, {1, 1, 2, 3, 1}, {2, 2, 4, 5, 4}, {1, 0, 3, 3, 3}}},
    {"5x10_n60", {{4, 3, 2, 1, 0, 1, 1, 1, 0, 0}, {2, 1, 1, 3, 1, 0, 1, 0, 3, 0},
                  {0, 1, 1, 2, 0, 1, 0, 1, 1, 0}, {2, 1, 2, 1, 1, 0, 2, 1, 0, 3},
                  {1, 0, 0, 4, 2, 1, 2, 2, 2, 1}}},
    {"4x8_n80", {{6, 6, 2, 4, 5, 2, 2, 3}, {3, 2, 3, 4, 3, 1, 0, 2}, {0, 3, 1, 3, 2, 2, 0, 2},
                 {0, 3, 0, 1, 3, 1, 8, 3}}},
    {"4x5_groups_of_10", {{3, 2, 1, 3, 1}, {2, 3, 1, 0, 4}, {1, 1, 4, 2, 2}, {1, 1, 2, 2, 4}}},
    {"4x6_groups_of_10", {{1, 0, 2, 1, 1, 5}, {1, 1, 3, 4, 1, 0}, {0, 1, 3, 2, 2, 2}, {1, 2, 2, 0, 2, 3}}},
    {"4x40_groups_of_10",
     {{0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 1},
      {1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 1, 1, 0, 0, 1, 1, 0, 0, 0},
      {0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0},
      {0, 1, 0, 0, 1, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}},
};

Table Transposed(const Table& t) {
  Table out{t.name, {}};
  out.rows.assign(t.rows.front().size(), std::vector<int64_t>(t.rows.size()));
  for (size_t i = 0; i < t.rows.size(); ++i)
    for (size_t j = 0; j < t.rows[i].size(); ++j) out.rows[j][i] = t.rows[i][j];
  return out;
}

void RunCase(benchmark::State& state, int64_t procedure, int64_t method, Table t) {
  const std::vector<int64_t> cells = ColumnMajor(t);
  const auto rows = static_cast<int64_t>(t.rows.size());
  const auto cols = static_cast<int64_t>(t.rows.front().size());
  const int64_t ip[TQ_INT_COUNT] = {procedure, method, 1, kSeed, kMonteCarloTables, 0, 0, 0,
                                    kTimeLimitMinutes, kMemoryKb};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MC_LEVEL] = 0.99;
  rp[TQ_REAL_MISSING] = kMissing;
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state) {
    TQCALLER(nullptr, nullptr, ip, rp, cells.data(), rows, cols, nullptr, nullptr, nullptr, 0, 0,
             nullptr, record, "");
    benchmark::DoNotOptimize(record);
    if (record[TQ_REC_FAILURE] != 0.0) {
      const std::string why = "engine failure " + std::to_string(record[TQ_REC_FAILURE]);
      state.SkipWithError(why.c_str());
      return;
    }
  }
  state.counters["p"] = record[method == TQ_METHOD_EXACT ? 16 : 21];
  state.counters["N"] = static_cast<double>(Total(t));
}

void Register() {
  const std::pair<int64_t, const char*> procedures[] = {
      {50, "gamma_"}, {49, "kendall_"}, {20, "jt_"}, {21, "kw_"}};
  for (const Table& t : kTables)
    for (auto [procedure, prefix] : procedures) {
      const bool groups = std::string(t.name).find("groups") != std::string::npos;
      if (groups && procedure != 20 && procedure != 21) continue;
      // Kruskal-Wallis keys its network by the levels: the longer side groups.
      const bool transpose = procedure == 21 && !groups && t.rows.front().size() > t.rows.size();
      if (procedure == 21 && t.rows.front().size() > 6 && groups) continue;  // 40 levels: no network
      const Table run = transpose ? Transposed(t) : t;
      for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO}) {
        const std::string name = std::string(prefix) + t.name + (transpose ? "_t" : "") +
                                 (method == TQ_METHOD_EXACT ? "/exact" : "/mc1e6");
        benchmark::RegisterBenchmark(name.c_str(), RunCase, procedure, method, run)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(1);
      }
    }
}

}  // namespace
}  // namespace anvl::bench

int main(int argc, char** argv) {
  anvl::bench::Register();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
