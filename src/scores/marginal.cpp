#include "scores/marginal.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "kernel/log_sum.h"
#include "scores/paired.h"
#include "scores/two_row_network.h"
#include "scores/two_sample.h"

namespace anvl::scores {
namespace {

constexpr DriverTraits kSquareTraits{true, false, true, 0};
constexpr int64_t kMarginalCode = 10;
constexpr double kLog2 = 0.6931471805599453;
// Score differences closer than this share of the group's first are one.
constexpr double kTieShare = 0.00001;
// A lattice step multiplies the scale by this.
constexpr double kLatticeStep = 100.0;
constexpr double kLatticeTolerance = 0.00000001;

struct SquareAsymptotic {
  TableStats t;
  double offset = 0.0, sd = 0.0, z = 0.0, upper = 1.0;
  int64_t n = 0, r = 0;
};

void PublishCommon(int64_t n, int64_t r) {
  SetWord(word::kSampleTotal, n);
  SetWord(word::kStrataPublished, 1);
  SetWord(word::kRowsPublished, r);
  SetWord(word::kColumnsPublished, r);
  SetWord(word::kPublishedCode, kMarginalCode);
}

void PublishAsymptotic(const SquareAsymptotic& a) {
  const TableStats& t = a.t;
  const int64_t side = t.tobs > t.mean ? 2 : 1;
  const double one = side == 2 ? a.upper : 1.0 - a.upper;
  Publish(slot::kStatistic, t.tobs + a.offset);
  Publish(slot::kStatisticMin, std::min(t.tmin, t.tmax) + a.offset);
  Publish(slot::kStatisticMax, std::max(t.tmin, t.tmax) + a.offset);
  Publish(slot::kNullMean, t.mean + a.offset);
  Publish(slot::kNullSd, a.sd);
  Publish(slot::kStandardized, a.sd > 0.0 ? a.z : t.tobs);
  PublishClamped(slot::kAsymOneSided, one);
  PublishClamped(slot::kAsymTwoSided, 2.0 * one);
  SetWord(word::kTailSide, side);
  SetWord(word::kPublishedMethod, 3);
  PublishCommon(a.n, a.r);
}

// Balanced-network lattice: steps of 100, no shift (the balancing column
// already scores 0).
void DifferenceLattice(std::vector<TwoRowColumn>& work, int64_t digit_limit) {
  int64_t d = 0;
  double p = 1.0;
  for (size_t i = 0; i < work.size() && d < digit_limit; ++i) {
    for (;;) {
      const double v = work[i].score * p;
      if (!(std::fabs(v - std::trunc(v)) > kLatticeTolerance) || d >= digit_limit) break;
      ++d;
      p *= kLatticeStep;
    }
  }
  for (TwoRowColumn& l : work) l.score = std::round(l.score * p) / p;
}

}  // namespace

int McNemarRun(const std::vector<int64_t>& table) {
  SendProcessingLine();
  StartTicks();
  const int64_t C = table[2], B = table[1];  // cells (1, 2) and (2, 1)
  if (B < 0 || C < 0 || table[0] < 0 || table[3] < 0) return static_cast<int>(fail::kNoMemory);
  int64_t n = 0;
  if (__builtin_add_overflow(B, C, &n)) return static_cast<int>(fail::kNoMemory);
  if (n == 0) return static_cast<int>(fail::kNothingToTest);
  const double nn = static_cast<double>(n);
  const double sd0 = std::sqrt(nn / 4.0), mean0 = nn / 2.0;
  const int64_t x = static_cast<double>(C) > mean0 ? n - C : C;
  const double asym = PRBNRM((static_cast<double>(x) - mean0) / sd0);
  double log_term = -nn * kLog2, log_tail = log_term;
  for (int64_t k = 1; k <= x - 1; ++k) {
    log_term += std::log(static_cast<double>(n - k + 1)) - std::log(static_cast<double>(k));
    log_tail = LogSum(log_tail, log_term);
    if (Tick()) SendLine("", 0);
  }
  double tail = 0.0, point = std::exp(-nn * kLog2);
  if (x > 0) {
    tail = std::exp(log_tail);
    point = std::exp(log_term + std::log(static_cast<double>(n - x + 1)) -
                     std::log(static_cast<double>(x)));
  }
  const double D = static_cast<double>(C - B), sd = 2.0 * sd0;
  UpdateElapsed();
  Publish(slot::kStatistic, D);
  Publish(slot::kStatisticMin, -nn);
  Publish(slot::kStatisticMax, nn);
  Publish(slot::kNullMean, 0.0);
  Publish(slot::kNullSd, sd);
  Publish(slot::kStandardized, sd > 0.0 ? D / sd : D);
  PublishClamped(slot::kAsymOneSided, asym);
  PublishClamped(slot::kAsymTwoSided, 2.0 * asym);
  PublishClamped(slot::kExactOneSided, tail + point);
  PublishClamped(slot::kPointProbability, point);
  PublishClamped(slot::kExactTwoSided, 2.0 * (tail + point));
  SetWord(word::kTailSide, D > 0.0 ? 2 : 1);
  SetWord(word::kPublishedMethod, 1);
  PublishCommon(n, 2);
  return 0;
}

int SquareTableRun(const std::vector<int64_t>& table, const double* scores, int64_t r,
                   int64_t method) {
  for (int64_t v : table)
    if (v < 0) return static_cast<int>(fail::kNoMemory);
  if (r == 2) return McNemarRun(table);
  if (scores == nullptr) return static_cast<int>(fail::kOutsideModel);
  for (int64_t i = 0; i < r; ++i)
    if (!std::isfinite(scores[i])) return static_cast<int>(fail::kOutsideModel);

  // The pair table.
  std::vector<TwoRowColumn> pairs;
  double offset = 0.0;
  for (int64_t i = 0; i + 1 < r; ++i)
    for (int64_t j = i + 1; j < r; ++j) {
      const int64_t a = table[i + j * r], b = table[j + i * r];
      const double e = scores[i] - scores[j];
      if (e == 0.0 || (a == 0 && b == 0)) continue;
      if (e > 0.0) {
        pairs.push_back({a, b, e});
        offset += scores[j] * static_cast<double>(a + b);
      } else {
        pairs.push_back({b, a, -e});
        offset += scores[i] * static_cast<double>(a + b);
      }
    }
  if (pairs.empty()) return static_cast<int>(fail::kNothingToTest);
  for (size_t i = 0; i + 1 < pairs.size(); ++i)
    for (size_t j = i + 1; j < pairs.size(); ++j)
      if (pairs[j].score < pairs[i].score) std::swap(pairs[i], pairs[j]);
  std::vector<TwoRowColumn> work;
  for (const TwoRowColumn& p : pairs) {
    if (!work.empty() && std::fabs(work.back().score - p.score) < kTieShare * work.back().score) {
      work.back().first += p.first;
      work.back().second += p.second;
    } else {
      work.push_back(p);
    }
  }
  for (size_t i = 0; i + 1 < work.size(); ++i)
    for (size_t j = i + 1; j < work.size(); ++j)
      if (work[j].score > work[i].score) std::swap(work[i], work[j]);
  int64_t ups = 0, downs = 0, n = 0;
  for (const TwoRowColumn& l : work)
    if (__builtin_add_overflow(ups, l.first, &ups) || __builtin_add_overflow(downs, l.second, &downs))
      return static_cast<int>(fail::kNoMemory);
  if (__builtin_add_overflow(ups, downs, &n) || n > INT64_MAX / 2)
    return static_cast<int>(fail::kNoMemory);
  work.push_back({downs, ups, 0.0});

  SquareAsymptotic a;
  a.t = TableStatistics(work);
  a.offset = offset;
  a.n = n;
  a.r = r;
  a.sd = SignFlipSd(work);
  if (a.sd > 0.0) {
    a.z = (a.t.tobs - a.t.mean) / a.sd;
    a.upper = SIGNRM(a.z);
  }
  UpdateElapsed();
  PublishAsymptotic(a);
  if (method != 1 && method != 2) return 0;

  if (method == 2) {
    ScoreMcResult mc;
    const int code = SignFlipMonteCarlo(work, a.t.tobs, a.t.mean, a.t.mean > a.t.tobs, true, mc);
    if (code != 0) return code;
    PublishAsymptotic(a);
    PublishScoreMonteCarlo(mc);
    return 0;
  }

  DifferenceLattice(work, SettingInt(setting::kScoreDigitLimit));
  const TableStats w = TableStatistics(work);
  double high = w.tobs, low = 2.0 * w.mean - w.tobs;
  if (!(w.tobs > w.mean)) std::swap(high, low);
  TwoRowTails t;
  const int code = TwoRowNetwork<BalancedCoarseForm>(work, high, low, MemoryBudget(), t);
  if (code != 0) return code;
  const double one = t.high_tail + t.high_point;
  const double point = a.t.tobs > a.t.mean ? t.high_point : t.low_point;
  UpdateElapsed();
  PublishAsymptotic(a);
  PublishClamped(slot::kExactOneSided, one);
  PublishClamped(slot::kExactDoubled, 2.0 * one);
  PublishClamped(slot::kPointProbability, point);
  PublishClamped(slot::kExactTwoSided, t.low_tail + t.high_tail + t.low_point + t.high_point);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

void SquareTableDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kSquareTraits, work);
  const RunStore& st = Store();
  if (code == 0) {
    if (st.row_count != st.column_count)
      code = fail::kNotSquare;
    else if (st.row_count < 2)
      code = fail::kTableTooSmall;
    else
      code = SquareTableRun(work, args.scores, st.row_count, st.run_method);
  }
  EndDriver(code);
}

}  // namespace anvl::scores
