#include "kernel/binomial.h"

#include <cmath>
#include <vector>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/log_sum.h"

namespace anvl {
namespace {

// Bisection stops when the cumulative probability is this close to its target.
constexpr double kBisectionTolerance = 1e-7;
// A null proportion this close to one half is treated as symmetric.
constexpr double kSymmetricWidth = 1e-6;

constexpr DriverTraits kBinomialTraits{false, false, false, 0};
// Case values at or beyond this don't truncate to a 64-bit integer.
constexpr double kLargestValue = 9.2e18;

struct Split {
  int64_t successes = 0, failures = 0;
};

// Splits one row of case data into the groups of its (at most) two values.
int64_t SplitCases(const CallArgs& a, Split& out) {
  if (a.case_rows != 1) return fail::kCaseRowsNotOne;
  if (a.case_cols <= 0 || a.case_data == nullptr) return 0;
  auto weight = [&](int64_t j) { return a.case_weights ? a.case_weights[j] : int64_t{1}; };
  // A value must truncate to a 64-bit integer: no NaN, no infinity.
  for (int64_t j = 0; j < a.case_cols; ++j)
    if (!(std::fabs(a.case_data[j]) < kLargestValue)) return fail::kOutsideModel;
  const double first = a.case_data[0];
  double second = 0.0;
  bool has_second = false;
  int64_t first_sum = weight(0), second_sum = 0;
  for (int64_t j = 1; j < a.case_cols; ++j) {
    const double v = a.case_data[j];
    int64_t* sum = &first_sum;
    if (v != first) {
      if (has_second) return fail::kTooManyValues;
      has_second = true;
      second = v;
      sum = &second_sum;
    }
    if (__builtin_add_overflow(*sum, weight(j), sum)) return fail::kNoMemory;
  }
  const int64_t first_int = static_cast<int64_t>(first);
  const bool first_is_success =
      has_second ? first_int >= static_cast<int64_t>(second) : first_int >= 1;
  out.successes = first_is_success ? first_sum : second_sum;
  out.failures = first_is_success ? second_sum : first_sum;
  return 0;
}

int64_t BinomialRun(const Split& split) {
  ZeroElapsed();
  StartClock();
  const int64_t x = split.successes;
  int64_t n = 0;
  if (__builtin_add_overflow(split.successes, split.failures, &n) || n < 0) return fail::kNoMemory;
  if (n == 0) return fail::kNoTrials;

  const double level = Setting(setting::kIntervalConfidence);
  const double a = (1.0 - level) * 0.5;
  const double estimate = static_cast<double>(x) / static_cast<double>(n);
  const double low = x == 0 ? 0.0 : BinomialBisect(n, x - 1, 1.0 - a);
  const double high = x == n ? 1.0 : BinomialBisect(n, x, a);

  const double p0 = ModelOption(14);
  if (!(p0 > 0.0 && p0 < 1.0)) return fail::kNullProportion;  // NaN too

  const BinomialTail t = BinomialExactTail(n, x, p0);
  SetWord(word::kBinomialTrials, n);
  SetWord(word::kBinomialSuccesses, x);
  Publish(slot::kBinomialNull, p0);
  Publish(slot::kBinomialEstimate, estimate);
  Publish(slot::kBinomialPercent, 100.0 * level);
  Publish(slot::kBinomialLow, low);
  Publish(slot::kBinomialHigh, high);
  PublishClamped(slot::kExactOneSided, t.tail_code == 2 ? t.tail * 0.5 : t.tail);
  PublishClamped(slot::kExactTwoSided, t.tail_code == 2 ? t.tail : 2.0 * t.tail);
  Publish(slot::kPointProbability, t.point);
  SetWord(word::kTailSide, t.tail_code == 1 ? 2 : 1);
  SetWord(word::kPublishedCode, 9);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

}  // namespace

double BinomialCumulative(int64_t n, int64_t k, double p) {
  const double lp = std::log(p), lq = std::log(1.0 - p);
  const double dn = static_cast<double>(n);
  if (0.5 * dn >= static_cast<double>(k)) {
    if (k < 1) return std::exp(dn * lq);
    double t = dn * lq, s = t;
    for (int64_t j = 1; j <= k; ++j) {
      t = t + lp - lq + std::log(static_cast<double>(n - j + 1) / static_cast<double>(j));
      s = LogSum(s, t);
    }
    return std::exp(s);
  }
  if (k >= n) return 1.0;
  double t = dn * lp, s = t;
  for (int64_t j = n; j >= k + 2; --j) {
    t = t + std::log(static_cast<double>(j) / static_cast<double>(n - j + 1)) + lq - lp;
    s = LogSum(s, t);
  }
  return 1.0 - std::exp(s);
}

double BinomialBisect(int64_t n, int64_t k, double target) {
  double low = 0.0, high = 1.0, p = 0.5;
  while (p > 0.0 && p < 1.0) {
    const double c = BinomialCumulative(n, k, p);
    if (std::fabs(c - target) < kBisectionTolerance) break;
    if (c > target)
      low = p;
    else
      high = p;
    p = (low + high) / 2.0;
  }
  return p;
}

BinomialTail BinomialExactTail(int64_t n, int64_t x, double p0) {
  const double lp = std::log(p0), lq = std::log(1.0 - p0);
  const double dn = static_cast<double>(n);
  auto lower = [&](double& point) {
    double t = dn * lq, s = t;
    for (int64_t j = 1; j <= x; ++j) {
      t = t + lp - lq + std::log(static_cast<double>(n - j + 1) / static_cast<double>(j));
      s = LogSum(s, t);
    }
    point = std::exp(t);
    return std::exp(s);
  };
  auto upper = [&](double& point) {
    double t = dn * lp, s = t;
    for (int64_t j = n; j >= x + 1; --j) {
      t = t + std::log(static_cast<double>(j) / static_cast<double>(n - j + 1)) + lq - lp;
      s = LogSum(s, t);
    }
    point = std::exp(t);
    return std::exp(s);
  };
  BinomialTail r{};
  if (std::fabs(p0 - 0.5) <= kSymmetricWidth) {
    r.tail = 2.0 * (n >= 2 * x ? lower(r.point) : upper(r.point));
    r.tail_code = 2;
  } else if (p0 >= static_cast<double>(x) / dn) {
    r.tail = lower(r.point);
    r.tail_code = -1;
  } else {
    r.tail = upper(r.point);
    r.tail_code = 1;
  }
  return r;
}

void BinomialDriver(const CallArgs& args) {
  std::vector<int64_t> unused;
  int64_t code = BeginDriver(args, kBinomialTraits, unused);
  SetSetting(setting::kIntervalConfidence, Blocks().reals[runreal::kBinomialLevel]);
  Split split;
  if (code == 0) code = SplitCases(args, split);
  if (code == 0) code = BinomialRun(split);
  EndDriver(code);
}

}  // namespace anvl
