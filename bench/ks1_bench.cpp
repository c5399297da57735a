// Google Benchmark timings of the one-sample Kolmogorov-Smirnov test
// (procedure 6) through TQCALLER: the exact continuous route (Durbin's
// matrix) on uniform samples of 100 to 5000, the exact Poisson route
// (quadruple precision) and the Monte Carlo route.  Each reports D and the
// p-value as counters and stops with an error on a failure.
#include <benchmark/benchmark.h>

#include <cmath>

#include "ks1_call.h"

namespace {

void Report(benchmark::State& state, const double* f, int p_field) {
  if (f[48] != 0.0) state.SkipWithError("the engine reported a failure");
  state.counters["D"] = f[0];
  state.counters["p"] = f[p_field];
}

void BM_ExactUniform(benchmark::State& state) {
  const auto x = anvl::bench::FixedUniforms(state.range(0), 20261123);
  double f[TQ_RECORD_LENGTH];
  for (auto _ : state) anvl::bench::RunKsOne(x, 1, 0.0, 1.0, TQ_METHOD_EXACT, 0, f);
  Report(state, f, 16);
}
BENCHMARK(BM_ExactUniform)->Arg(100)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond);

void BM_ExactPoisson(benchmark::State& state) {
  // Whole numbers from the uniforms: a Poisson-like sample of mean about 3.
  auto x = anvl::bench::FixedUniforms(state.range(0), 7);
  for (double& v : x) v = std::floor(-3.0 * std::log1p(-v));
  double f[TQ_RECORD_LENGTH];
  for (auto _ : state) anvl::bench::RunKsOne(x, 3, 3.0, 0.0, TQ_METHOD_EXACT, 0, f);
  Report(state, f, 16);
}
BENCHMARK(BM_ExactPoisson)->Arg(30)->Arg(200)->Unit(benchmark::kMillisecond);

void BM_MonteCarloUniform(benchmark::State& state) {
  const auto x = anvl::bench::FixedUniforms(100, 20261123);
  double f[TQ_RECORD_LENGTH];
  for (auto _ : state)
    anvl::bench::RunKsOne(x, 1, 0.0, 1.0, TQ_METHOD_MONTE_CARLO, state.range(0), f);
  Report(state, f, 21);
}
BENCHMARK(BM_MonteCarloUniform)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
