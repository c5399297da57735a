// One call of TQCALLER as a host makes it, for the tests: parameter blocks
// with a recognisable filler, a table or case data, and the record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "support/enumerate.h"

namespace anvl::support {

inline constexpr double kTestFiller = -31337.25;

struct HostCall {
  int64_t ip[TQ_INT_COUNT] = {};
  double rp[TQ_REAL_COUNT] = {};
  std::vector<double> scores;
  std::vector<double> values;      // case data, row index fastest
  std::vector<int64_t> weights;
  int64_t case_rows = 1;
  std::string spill;
  TqPollRoutine poll = nullptr;
  double f[TQ_RECORD_LENGTH];

  HostCall(int64_t procedure, int64_t method) {
    ip[TQ_INT_PROCEDURE] = procedure;
    ip[TQ_INT_METHOD] = method;
    ip[TQ_INT_DATA_FORM] = 1;
    ip[TQ_INT_MEMORY] = -1;
    rp[TQ_REAL_MISSING] = kTestFiller;
  }
  void MonteCarlo(int64_t samples, int64_t seed, double level) {
    ip[TQ_INT_METHOD] = TQ_METHOD_MONTE_CARLO;
    ip[TQ_INT_MC_SAMPLES] = samples;
    ip[TQ_INT_MC_SEED] = seed;
    rp[TQ_REAL_MC_LEVEL] = level;
  }
  void MedianCut(std::vector<double> level_scores, double cut) {
    scores = std::move(level_scores);
    ip[TQ_INT_CUT_RULE] = 13;
    rp[TQ_REAL_MEDIAN_CUT] = cut;
  }
  // The exact binomial test of case data at p0: values (row index fastest,
  // case_rows per case) with their weights.
  static HostCall Binomial(std::vector<double> v, std::vector<int64_t> w, double p0,
                           int64_t case_rows = 1) {
    HostCall c(TQ_PROC_BINOMIAL, TQ_METHOD_EXACT);
    c.values = std::move(v);
    c.weights = std::move(w);
    c.case_rows = case_rows;
    c.rp[TQ_REAL_P0] = p0;
    return c;
  }
  // Runs on a table (data form 1).
  const double* Run(const Table& t) {
    ip[TQ_INT_DATA_FORM] = 1;
    const std::vector<int64_t> cells = ColumnMajor(t);
    TQCALLER(poll, nullptr, ip, rp, cells.data(), t.rows, t.cols, nullptr,
             scores.empty() ? nullptr : scores.data(), nullptr, 0, 0, nullptr, f, spill.c_str());
    return f;
  }
  // Runs on the case data (data form 2).
  const double* RunCases() {
    ip[TQ_INT_DATA_FORM] = 2;
    TQCALLER(poll, nullptr, ip, rp, nullptr, 0, 0, nullptr, nullptr,
             values.empty() ? nullptr : values.data(),
             static_cast<int64_t>(values.size()) / case_rows, case_rows,
             weights.empty() ? nullptr : weights.data(), f, spill.c_str());
    return f;
  }
  std::vector<int> Published() const;
};

// The fields of record f that hold something other than the filler, less the
// elapsed time and the failure fields (42-44, 48, 49): empty after a failure.
inline std::vector<int> PublishedFields(const double* f, double filler = kTestFiller) {
  std::vector<int> out;
  for (int i = 0; i < TQ_RECORD_LENGTH; ++i)
    if (i != 42 && i != 43 && i != 44 && i != 48 && i != 49 && f[i] != filler) out.push_back(i);
  return out;
}
inline std::vector<int> HostCall::Published() const { return PublishedFields(f); }

}  // namespace anvl::support
