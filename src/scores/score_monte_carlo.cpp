#include "scores/score_monte_carlo.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/log_factorial.h"

namespace anvl::scores {
namespace {
constexpr double kWiden = 0.0000001;
constexpr double kTwoSidedShare = 0.9999999;
}  // namespace

void ColumnSampler(int64_t K, int64_t m, const int64_t* c, int64_t N, int64_t* x,
                   RandomStream& stream, const double* lf) {
  std::fill(x, x + K, int64_t{0});
  int64_t rem = m, left = N;
  for (int64_t j = 0; j + 1 < K && left > 0; ++j) {
    x[j] = net::HypergeometricDraw(stream, rem, c[j], left, lf,
                                   FactorialRoute::kTableTo500LogGamma);
    rem -= x[j];
    left -= c[j];
  }
  if (K > 0) x[K - 1] = rem;
}

ScoreHitRule TwoSampleHitRule(double obs, double mean, bool low_side) {
  const double up = obs >= 0.0 ? 1.0 + kWiden : 1.0 - kWiden;
  const double down = obs >= 0.0 ? 1.0 - kWiden : 1.0 + kWiden;
  return {low_side, low_side ? up * obs : down * obs, mean,
          kTwoSidedShare * std::fabs(obs - mean)};
}

int ScoreMonteCarlo(const std::vector<TwoRowColumn>& columns, const ScoreHitRule& rule,
                    ScoreMcResult& out) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (!(setup.confidence > 0.0 && setup.confidence < 1.0))
    return static_cast<int>(fail::kOutsideModel);
  const int64_t K = static_cast<int64_t>(columns.size());
  std::vector<int64_t> c(static_cast<size_t>(K)), x(static_cast<size_t>(K));
  std::vector<double> s(static_cast<size_t>(K));
  int64_t m = 0, N = 0;
  for (int64_t j = 0; j < K; ++j) {
    c[j] = columns[j].first + columns[j].second;
    s[j] = columns[j].score;
    m += columns[j].first;
    N += c[j];
  }
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  RandomStream stream = setup.stream;
  int64_t total = 0, one = 0, two = 0, since_report = 0;
  do {
    ++total;
    ColumnSampler(K, m, c.data(), N, x.data(), stream, lf.data());
    double t = 0.0;
    for (int64_t j = 0; j < K; ++j) t += static_cast<double>(x[j]) * s[j];
    if (rule.low_side ? t <= rule.one_bound : t >= rule.one_bound) ++one;
    if (std::fabs(t - rule.mean) >= rule.two_distance) ++two;
    if (++since_report >= setup.report_every) {
      net::detail::McReport(one, total, setup);
      since_report = 0;
    }
  } while (total < setup.samples);
  UpdateElapsed();
  net::McEstimate(one, total, setup.z, setup.confidence, out.one);
  net::McEstimate(two, total, setup.z, setup.confidence, out.two);
  for (net::McResult* r : {&out.one, &out.two}) {
    r->percent = 100.0 * setup.confidence;
    r->seed = setup.seed;
  }
  return 0;
}

void PublishScoreMonteCarlo(const ScoreMcResult& r) {
  PublishClamped(slot::kMcOneSided, r.one.estimate);
  PublishClamped(slot::kMcOneSidedLow, r.one.low);
  PublishClamped(slot::kMcOneSidedHigh, r.one.high);
  PublishClamped(slot::kMcTwoSided, r.two.estimate);
  PublishClamped(slot::kMcTwoSidedLow, r.two.low);
  PublishClamped(slot::kMcTwoSidedHigh, r.two.high);
  Publish(slot::kMcPercent, r.one.percent);
  Publish(slot::kMcCount, static_cast<double>(r.one.samples));
  Publish(slot::kMcSeed, r.one.seed);
  SetWord(word::kPublishedMethod, 2);
}

}  // namespace anvl::scores
