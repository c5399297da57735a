// network_bench - timings of the exact network runs on fixed tables.
//
// Each benchmark makes one TQCALLER call per iteration with the exact method
// and reports the two-sided exact p-value (record field 16) as the counter
// "p".  A run that fails (field 48 not 0.0) stops its benchmark with the
// failure value; a Fisher run whose p-value strays from R's fisher.test
// value by more than kAgreement stops it too, so a fast wrong answer never
// passes for a timing.
//
// The random 5 x 5 tables were drawn once by make_tables.R (seed 20240613)
// and are written here, so the timings never depend on a random stream.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "exact_call.h"

namespace anvl::bench {
namespace {

// Largest distance to R's fisher.test p-value that still counts as the same
// answer (R prints its p-values from a sum of doubles over all tables).
constexpr double kAgreement = 1e-6;
// A reference p-value that is not known: the table is only timed.
constexpr double kNoReference = -1.0;

struct Case {
  Table table;
  double reference_p;  // R's p-value, or kNoReference
  const char* source;
};

// Pearson chi-square, 5 x 5, N = 60: uneven margins (rows 12 10 24 6 8,
// columns 7 7 19 15 12), two empty cells and many small counts, so most
// tables of the network are near the observed statistic.
const Case kPearson5x5 = {
    {"pearson_5x5_n60", {{1, 3, 2, 4, 2}, {2, 0, 3, 3, 2}, {2, 3, 9, 6, 4}, {1, 0, 2, 1, 2},
                         {1, 1, 3, 1, 2}}},
    kNoReference,
    "make_tables.R, seed 20240613, first draw"};

// Pearson chi-square, 3 x 10, N = 100: a sparse first row (17 cases over
// ten columns) beside two rows of 40 and 43; column totals 5 .. 20.
const Case kPearson3x10 = {
    {"pearson_3x10_n100", {{0, 0, 1, 1, 4, 2, 4, 2, 2, 1},
                           {6, 3, 1, 8, 8, 1, 4, 2, 1, 6},
                           {6, 2, 4, 4, 8, 3, 6, 3, 3, 4}}},
    kNoReference,
    "make_tables.R, seed 20240613, second draw"};

// Fisher's exact test.  The first table is the job satisfaction by income
// table of R's fisher.test help page; the others are random 5 x 5 tables.
const Case kFisher[] = {
    {{"fisher_job_4x4_n96", {{1, 2, 1, 0}, {3, 3, 6, 1}, {10, 10, 14, 9}, {6, 7, 12, 11}}},
     0.7826849,
     "R fisher.test help page (Job satisfaction), p = 0.7826849"},
    {{"fisher_5x5_n73", {{6, 1, 3, 6, 2}, {1, 0, 2, 0, 2}, {6, 1, 2, 3, 2}, {4, 2, 4, 4, 3},
                         {6, 4, 1, 4, 4}}},
     0.8303329894,
     "make_tables.R small1; p from R 4.2.2 fisher.test"},
    {{"fisher_5x5_n69", {{4, 2, 2, 1, 5}, {2, 4, 2, 4, 3}, {3, 4, 3, 3, 1}, {1, 7, 1, 0, 1},
                         {2, 8, 2, 2, 2}}},
     0.4706262427,
     "make_tables.R small2; p from R 4.2.2 fisher.test"},
    {{"fisher_5x5_n76", {{0, 2, 1, 1, 2}, {3, 10, 2, 3, 6}, {5, 2, 0, 5, 3}, {5, 3, 1, 6, 0},
                         {1, 4, 3, 5, 3}}},
     0.1219222509,
     "make_tables.R small3; p from R 4.2.2 fisher.test"},
    {{"fisher_5x5_n74a", {{3, 0, 5, 5, 2}, {3, 1, 1, 2, 2}, {2, 5, 3, 0, 4}, {2, 1, 6, 5, 1},
                          {6, 0, 7, 5, 3}}},
     0.0993982386,
     "make_tables.R small4; p from R 4.2.2 fisher.test"},
    {{"fisher_5x5_n74b", {{4, 2, 2, 1, 3}, {1, 5, 6, 0, 2}, {5, 1, 0, 0, 1}, {6, 4, 12, 1, 6},
                          {4, 3, 0, 2, 3}}},
     0.0501671839,
     "make_tables.R small5; p from R 4.2.2 fisher.test"},
};

// Times exact runs of `procedure` on one table; reports p (field 16), the
// point probability where the procedure publishes one (field 17), and N.
void RunCase(benchmark::State& state, int64_t procedure, const Case& c) {
  const std::vector<int64_t> cells = ColumnMajor(c.table);
  const auto rows = static_cast<int64_t>(c.table.rows.size());
  const auto cols = static_cast<int64_t>(c.table.rows.front().size());
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state) {
    RunExact(procedure, cells, rows, cols, record);
    benchmark::DoNotOptimize(record);
    if (record[TQ_REC_FAILURE] != 0.0) {
      const std::string why = "engine failure " + std::to_string(record[TQ_REC_FAILURE]);
      state.SkipWithError(why.c_str());
      return;
    }
  }
  const double p = record[TQ_REC_EXACT_TWO];
  if (c.reference_p != kNoReference && std::fabs(p - c.reference_p) > kAgreement) {
    char why[160];
    std::snprintf(why, sizeof why, "p = %.10f, R gives %.10f (%s)", p, c.reference_p, c.source);
    state.SkipWithError(why);
    return;
  }
  state.counters["p"] = p;
  if (record[TQ_REC_POINT] != kMissing) state.counters["point"] = record[TQ_REC_POINT];
  state.counters["N"] = static_cast<double>(Total(c.table));
}

void Register() {
  auto add = [](const Case& c, int64_t procedure) {
    benchmark::RegisterBenchmark(c.table.name, RunCase, procedure, c)
        ->Unit(benchmark::kMillisecond);
  };
  add(kPearson5x5, TQ_PROC_CHISQ);
  add(kPearson3x10, TQ_PROC_CHISQ);
  for (const Case& c : kFisher) add(c, TQ_PROC_FISHER);
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
