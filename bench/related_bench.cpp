// related_bench - timings of the exact routes of the rank tests on related
// samples (procedures 24 and 26) and of the one-way goodness-of-fit test
// (procedure 7 on case data).
//
// Each benchmark makes one TQCALLER call per iteration with the exact
// method, null host routines and no time limit, and reports the exact
// two-sided p-value (record field 16) as the counter "p".  A run that fails
// (field 48 not 0.0) stops its benchmark with the failure value.  The
// procedures compact their case data in place, so every iteration hands the
// engine a fresh copy (the copy is a few dozen doubles).
//
// The blocks were drawn once in R (set.seed(18), values 1..3 in blocks of
// 4, the first treatment shifted up) and are written here.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "anvlwtq.h"

namespace {

constexpr double kMissing = -4242.0;

// Runs `procedure` exactly on case data of `rows` rows; returns field 16.
bool RunCases(benchmark::State& state, int64_t procedure, std::vector<double> values,
              int64_t rows, const std::vector<int64_t>& weights, double* record) {
  const int64_t ip[TQ_INT_COUNT] = {procedure, TQ_METHOD_EXACT, 2, 0, 0, 0, 0, 0, 0, -1};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MISSING] = kMissing;
  const int64_t cols = static_cast<int64_t>(values.size()) / rows;
  TQCALLER(nullptr, nullptr, ip, rp, nullptr, 0, 0, nullptr, nullptr, values.data(), cols, rows,
           weights.empty() ? nullptr : weights.data(), record, "");
  if (record[TQ_REC_FAILURE] != 0.0) {
    state.SkipWithError(("field 48 = " + std::to_string(record[TQ_REC_FAILURE])).c_str());
    return false;
  }
  return true;
}

// 15 blocks of 4 treatments, block after block; ties in every block.
const std::vector<double> kFriedman4x15 = {
    3, 1, 2, 2, 2, 3, 1, 2, 2, 2, 1, 2, 1, 1, 1, 3, 1, 1, 1, 2, 2, 3, 1, 3, 2, 2, 1, 1, 3, 2,
    2, 1, 2, 3, 1, 3, 2, 1, 2, 3, 2, 3, 1, 1, 2, 3, 1, 2, 2, 2, 1, 2, 3, 1, 1, 3, 1, 2, 1, 3};

void BM_Friedman4x15Ties(benchmark::State& state) {
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state)
    if (!RunCases(state, TQ_PROC_FRIEDMAN, kFriedman4x15, 4, {}, record)) return;
  state.counters["p"] = record[TQ_REC_EXACT_TWO];
}
BENCHMARK(BM_Friedman4x15Ties)->Unit(benchmark::kMillisecond);

// 8 blocks of 5 treatments, values 0..3 in a fixed pattern with ties.
void BM_Friedman5x8(benchmark::State& state) {
  std::vector<double> v;
  for (int b = 0; b < 8; ++b)
    for (int i = 0; i < 5; ++i) v.push_back((b * 7 + i * 3 + (i == 0 ? 2 : 0)) % 4);
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state)
    if (!RunCases(state, TQ_PROC_FRIEDMAN, v, 5, {}, record)) return;
  state.counters["p"] = record[TQ_REC_EXACT_TWO];
}
BENCHMARK(BM_Friedman5x8)->Unit(benchmark::kMillisecond);

// Cochran's Q: 30 blocks of 4 binary outcomes (the 0/1 split of the
// Friedman blocks above at 2, twice over).
void BM_Cochran4x30(benchmark::State& state) {
  std::vector<double> v;
  for (int twice = 0; twice < 2; ++twice)
    for (double x : kFriedman4x15) v.push_back(x >= 2 ? 1 : 0);
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state)
    if (!RunCases(state, TQ_PROC_COCHRAN_Q, v, 4, {}, record)) return;
  state.counters["p"] = record[TQ_REC_EXACT_TWO];
}
BENCHMARK(BM_Cochran4x30)->Unit(benchmark::kMillisecond);

// One-way goodness of fit: K categories, N counts, equal expected counts.
void BM_OneWay(benchmark::State& state) {
  const int64_t K = state.range(0), N = state.range(1);
  std::vector<int64_t> counts(K, N / K);
  counts[0] += N - (N / K) * K + 2;
  counts[K - 1] -= 2;
  const std::vector<double> expected(K, static_cast<double>(N) / K);
  double record[TQ_RECORD_LENGTH];
  for (auto _ : state)
    if (!RunCases(state, TQ_PROC_CHISQ, expected, 1, counts, record)) return;
  state.counters["p"] = record[TQ_REC_EXACT_TWO];
}
BENCHMARK(BM_OneWay)->Args({6, 60})->Args({10, 100})->Args({4, 1000})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
