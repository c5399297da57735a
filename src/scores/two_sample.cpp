#include "scores/two_sample.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "scores/paired.h"
#include "scores/score_monte_carlo.h"

namespace anvl::scores {
namespace {

constexpr DriverTraits kScoreTraits{true, false, true, 0};
// Below this range the statistic has one value: nothing to test.
constexpr double kDegenerateRange = 0.00001;
// A score holds d decimals when it is within this of a whole number at 10^d.
constexpr double kLatticeTolerance = 0.00000001;

struct Asymptotic {
  TableStats t;
  double sd = 0.0, z = 0.0, upper = 1.0;
  bool degenerate = false;
  int64_t selector = 0, levels = 0;
};

int64_t PublishedCodeOf(int64_t selector) {
  switch (selector) {
    case kMidranks: return 2;
    case kEquallySpaced: return 30;
    case kCallerScores: return 4;
    default: return 0;
  }
}

double MannWhitneyU(const TableStats& t) {
  const double n = static_cast<double>(t.n);
  return t.tobs - n * (n + 1.0) / 2.0;
}

int64_t TailSideOf(const TableStats& t) { return t.tobs > t.mean ? 2 : 1; }

void PublishAsymptotic(const Asymptotic& a) {
  const TableStats& t = a.t;
  const bool rank_sum = a.selector == kMidranks;
  const int64_t side = TailSideOf(t);
  double one = side == 2 ? a.upper : 1.0 - a.upper;
  double two = 2.0 * one;
  if (a.degenerate) one = two = 1.0;
  Publish(slot::kStatistic, rank_sum ? MannWhitneyU(t) : t.tobs);
  Publish(slot::kStatisticMin, t.tmin);
  Publish(slot::kStatisticMax, t.tmax);
  Publish(slot::kNullMean, t.mean);
  Publish(slot::kNullSd, a.sd);
  Publish(slot::kStandardized, a.sd > 0.0 ? a.z : t.tobs);
  if (rank_sum) Publish(slot::kShiftedStatistic, MannWhitneyU(t));
  PublishClamped(slot::kAsymOneSided, one);
  PublishClamped(slot::kAsymTwoSided, two);
  SetWord(word::kTailSide, side);
  SetWord(word::kPublishedMethod, 3);
  SetWord(word::kPublishedCode, PublishedCodeOf(a.selector));
  SetWord(word::kStrataPublished, 1);
  SetWord(word::kRowsPublished, 2);
  SetWord(word::kColumnsPublished, a.levels);
  SetWord(word::kGroupLabel1, 1);
}

void PublishExact(const Asymptotic& a, const TwoRowTails& r) {
  const TableStats& t = a.t;
  double one, point;
  if (t.tobs > t.mean) {
    one = r.high_tail + r.high_point;
    point = r.high_point;
  } else {
    one = r.low_tail + r.low_point;
    point = r.low_point;
  }
  double two = r.low_tail + r.low_point + r.high_tail + r.high_point;
  if (a.degenerate) one = point = two = 1.0;
  UpdateElapsed();
  PublishAsymptotic(a);
  Publish(slot::kStatistic, t.tobs);
  PublishClamped(slot::kExactOneSided, one);
  PublishClamped(slot::kExactDoubled, 2.0 * one);
  PublishClamped(slot::kPointProbability, point);
  PublishClamped(slot::kExactTwoSided, two);
  SetWord(word::kPublishedMethod, 1);
}

// Levels with their scores, sorted by score, highest first, by exchange.
std::vector<TwoRowColumn> WorkingTable(const std::vector<LevelCounts>& levels,
                                       const std::vector<double>& s) {
  std::vector<TwoRowColumn> w(levels.size());
  for (size_t i = 0; i < levels.size(); ++i) w[i] = {levels[i].first, levels[i].second, s[i]};
  for (size_t i = 0; i + 1 < w.size(); ++i)
    for (size_t j = i + 1; j < w.size(); ++j)
      if (w[j].score > w[i].score) std::swap(w[i], w[j]);
  return w;
}

}  // namespace

TableStats TableStatistics(const std::vector<TwoRowColumn>& levels) {
  TableStats t;
  for (const TwoRowColumn& l : levels) {
    t.N += l.first + l.second;
    t.n += l.first;
  }
  if (t.N == 0 || t.n == 0) return TableStats{0.0, 0.0, 0.0, 0.0, 0.0, t.n, t.N};
  const double n = static_cast<double>(t.n), N = static_cast<double>(t.N);
  int64_t left = t.n;
  for (const TwoRowColumn& l : levels) {
    const int64_t take = std::min(l.first + l.second, left);
    t.tmax += static_cast<double>(take) * l.score;
    left -= take;
  }
  left = t.n;
  for (auto l = levels.rbegin(); l != levels.rend(); ++l) {
    const int64_t take = std::min(l->first + l->second, left);
    t.tmin += static_cast<double>(take) * l->score;
    left -= take;
  }
  // The mean as n x (sum c s) / N: whole or half scores give it exactly, so
  // that an observed value at the mean is seen as such.
  double cs = 0.0;
  for (const TwoRowColumn& l : levels) {
    t.tobs += static_cast<double>(l.first) * l.score;
    cs += static_cast<double>(l.first + l.second) * l.score;
  }
  t.mean = n * cs / N;
  if (t.N - t.n != 0) {
    double ss = 0.0;
    for (const TwoRowColumn& l : levels) {
      const double d = l.score - t.mean / n;
      ss += static_cast<double>(l.first + l.second) * d * d;
    }
    t.var = n * (N - n) * ss / (N - 1.0) / N;
  }
  return t;
}

void ScoreLattice(std::vector<TwoRowColumn>& levels, int64_t digit_limit) {
  if (levels.empty()) return;
  const double lowest = levels.back().score;
  for (TwoRowColumn& l : levels) l.score -= lowest;
  int64_t d = 0;
  double p = 1.0;
  for (size_t i = 0; i < levels.size() && d < digit_limit; ++i) {
    for (;;) {
      const double v = levels[i].score * p;
      if (!(std::fabs(v - std::trunc(v)) > kLatticeTolerance) || d >= digit_limit) break;
      ++d;
      p *= 10.0;
    }
  }
  for (TwoRowColumn& l : levels) l.score = std::round(l.score * p) / p;
}

int TwoSampleRun(const std::vector<LevelCounts>& levels, const double* caller_scores,
                 int64_t selector, int64_t method) {
  std::vector<double> s, c;
  const int status = TwoSampleScores(levels, caller_scores, selector, s, c);
  if (status != 0) return status;
  std::vector<TwoRowColumn> work = WorkingTable(levels, s);

  Asymptotic a;
  a.selector = selector;
  a.levels = static_cast<int64_t>(levels.size());
  a.t = TableStatistics(work);
  a.degenerate = std::fabs(a.t.tmax - a.t.tmin) < kDegenerateRange;
  a.sd = a.degenerate ? 0.0 : std::sqrt(a.t.var);
  if (a.sd > 0.0) {
    a.z = (a.t.tobs - a.t.mean) / a.sd;
    a.upper = SIGNRM(a.z);
  }
  UpdateElapsed();
  PublishAsymptotic(a);
  if (a.degenerate) {
    if (method == 1) PublishExact(a, TwoRowTails{});
    return static_cast<int>(fail::kNothingToTest);
  }
  if (method != 1 && method != 2) return 0;

  // The network and the sampler work on shifted scores on a decimal grid.
  ScoreLattice(work, SettingInt(setting::kScoreDigitLimit));
  const TableStats w = TableStatistics(work);

  if (method == 2) {
    ScoreMcResult mc;
    const bool low_side = a.t.mean > a.t.tobs;
    const int code = ScoreMonteCarlo(work, TwoSampleHitRule(w.tobs, w.mean, low_side), mc);
    if (code != 0) return code;
    PublishAsymptotic(a);
    PublishScoreMonteCarlo(mc);
    return 0;
  }

  const double mirror = 2.0 * w.mean - w.tobs;
  double high = w.tobs, low = mirror;
  if (w.mean > w.tobs) std::swap(high, low);
  // The network keys on the first row's running sum: keep it the smaller sample.
  const bool exchanged = 2 * w.n > w.N;
  if (exchanged) {
    double total = 0.0;
    for (TwoRowColumn& l : work) {
      total += static_cast<double>(l.first + l.second) * l.score;
      std::swap(l.first, l.second);
    }
    const double new_high = total - low, new_low = total - high;
    high = new_high;
    low = new_low;
  }
  TwoRowTails r;
  const int code = TwoRowNetwork<PlainForm>(work, high, low, MemoryBudget(), r);
  if (code != 0 && code != fail::kNothingToTest) return code;
  if (exchanged) {
    std::swap(r.high_tail, r.low_tail);
    std::swap(r.high_point, r.low_point);
  }
  PublishExact(a, r);
  return 0;
}

void ScoreDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kScoreTraits, work);
  const RunStore& st = Store();
  if (code == 0) {
    const int64_t selector = st.run_selector;
    if (!IsScoreSelector(selector) || !HasTwoSampleRule(selector)) {
      code = fail::kBadSelector;
    } else if (st.row_count == 1) {
      code = PairedRun(work.data(), args.scores, st.column_count, selector, st.run_method);
    } else if (st.row_count != 2) {
      code = fail::kBadShape;
    } else {
      std::vector<LevelCounts> levels(static_cast<size_t>(std::max<int64_t>(st.column_count, 0)));
      for (size_t j = 0; j < levels.size(); ++j) levels[j] = {work[2 * j], work[2 * j + 1]};
      code = TwoSampleRun(levels, args.scores, selector, st.run_method);
      if (code == fail::kNothingToTest) code = 0;
    }
  }
  EndDriver(code);
}

}  // namespace anvl::scores
