// ks1_call.h - one run of the one-sample Kolmogorov-Smirnov test (procedure
// 6) as a host makes it: through TQCALLER and the record alone.
#ifndef ANVL_BENCH_KS1_CALL_H
#define ANVL_BENCH_KS1_CALL_H

#include <cstdint>
#include <vector>

#include "anvlwtq.h"

namespace anvl::bench {

// Runs procedure 6 on `values` (weights 1) against the model `selector`
// (1 uniform [p1, p2], 3 Poisson mean p1, 4 normal (p1, p2), 6 exponential
// scale p1) by `method`; Monte Carlo takes `samples` draws with seed 1.
// No host routines, no time limit.  Fills `record` (50 doubles).
inline void RunKsOne(const std::vector<double>& values, int64_t selector, double p1, double p2,
                     int64_t method, int64_t samples, double* record) {
  int64_t ip[TQ_INT_COUNT] = {TQ_PROC_KS_ONE_SAMPLE, method, 2, 1, samples, 0, selector, 0, 0, -1};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MC_LEVEL] = 0.99;
  if (selector == 1) {
    rp[TQ_REAL_PARAM1] = p1;
    rp[TQ_REAL_PARAM2] = p2;
  } else {
    rp[TQ_REAL_PARAM3] = p1;
    rp[TQ_REAL_PARAM4] = p2;
  }
  rp[TQ_REAL_MISSING] = -4242.0;
  std::vector<double> data = values;  // the engine may not write the caller's data, but could
  TQCALLER(nullptr, nullptr, ip, rp, nullptr, 0, 0, nullptr, nullptr, data.data(),
           static_cast<int64_t>(data.size()), 1, nullptr, record, "");
}

// n uniforms on [0, 1) from a fixed xorshift stream: the same sample on
// every machine and library.
inline std::vector<double> FixedUniforms(int64_t n, uint64_t seed) {
  std::vector<double> u(static_cast<size_t>(n));
  uint64_t s = seed * 0x9E3779B97F4A7C15ull + 1;
  for (double& x : u) {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    x = static_cast<double>(s >> 11) * 0x1.0p-53;
  }
  return u;
}

}  // namespace anvl::bench

#endif
