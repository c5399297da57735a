#include "association/family.h"

#include <cmath>

#include "kernel/distributions.h"

namespace anvl::assoc {

double TableLogProbability(const std::vector<int64_t>& x, const std::vector<int64_t>& R,
                           const std::vector<int64_t>& C, int64_t N, const double* lf) {
  double lp = -LogFactorial(N, lf);
  for (int64_t r : R) lp += LogFactorial(r, lf);
  for (int64_t c : C) lp += LogFactorial(c, lf);
  for (int64_t v : x) lp -= LogFactorial(v, lf);
  return lp;
}

void PublishRunWords(int64_t procedure) {
  const RunStore& st = Store();
  SetWord(word::kRowsPublished, st.row_count);
  SetWord(word::kColumnsPublished, st.column_count);
  SetWord(word::kPublishedCode, procedure);
  SetWord(word::kPublishedMethod, 3);
}

void PublishInterval(double m, double e, double lo, double hi) {
  const double c = Setting(setting::kIntervalConfidence);
  const double z = NormalQuantile((1.0 + c) / 2.0);
  Publish(slot::kIntervalPercent, 100.0 * c);
  Publish(slot::kIntervalLow, std::clamp(m - z * e, lo, hi));
  Publish(slot::kIntervalHigh, std::clamp(m + z * e, lo, hi));
}

void PublishTwoCutAsymptotic(double p) {
  PublishClamped(slot::kAsymOneSided, p);
  PublishClamped(slot::kAsymTwoSided, 2.0 * p);
}

void PublishSide(bool high_side) { SetWord(word::kTailSide, high_side ? 2 : 1); }

void PublishTwoCutExact(const net::PassResult& pass, bool high_side) {
  if (high_side) {
    PublishClamped(slot::kExactOneSided, pass.tail_high + pass.high_point);
    PublishClamped(slot::kPointProbability, pass.high_point);
  } else {
    PublishClamped(slot::kExactOneSided, pass.tail_low + pass.low_point);
    PublishClamped(slot::kPointProbability, pass.low_point);
  }
  PublishClamped(slot::kExactTwoSided,
                 pass.tail_high + pass.high_point + pass.tail_low + pass.low_point);
  PublishSide(high_side);
  SetWord(word::kPublishedMethod, 1);
}

void PublishTwoCutMonteCarlo(const net::McResult& one_sided, const net::McResult& two_sided,
                             double statistic, bool high_side) {
  net::PublishMonteCarlo(two_sided, statistic);
  net::PublishMonteCarloOneSided(one_sided);
  PublishSide(high_side);
  SetWord(word::kPublishedMethod, 2);
}

void PublishOneCutExact(const net::PassResult& pass) {
  PublishClamped(slot::kExactTwoSided, pass.tail_high + pass.point);
  PublishClamped(slot::kPointProbability, pass.point);
  SetWord(word::kPublishedMethod, 1);
}

double TableProbabilityOf(const std::vector<int64_t>& table, const std::vector<int64_t>& R,
                          const std::vector<int64_t>& C, int64_t N, const double* lf) {
  return std::exp(TableLogProbability(table, R, C, N, lf));
}

void PublishDegenerate() {
  Publish(slot::kAsymOneSided, 1.0);
  Publish(slot::kAsymTwoSided, 1.0);
  Publish(slot::kExactOneSided, 1.0);
  Publish(slot::kExactTwoSided, 1.0);
  Publish(slot::kPointProbability, 1.0);
  Publish(slot::kStandardized, 0.0, kStatusNoValue);  // no variance: no standardised value
  SetWord(word::kPublishedMethod, 1);
}

}  // namespace anvl::assoc
