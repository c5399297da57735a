#include "scores/paired.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "kernel/log_factorial.h"
#include "scores/score_monte_carlo.h"
#include "scores/score_rules.h"
#include "scores/two_sample.h"

namespace anvl::scores {
namespace {

constexpr double kLargestTotal = 2147483648.0;
// Differences closer than this share of the group's first one are a tie.
constexpr double kTieShare = 0.0000000001;
constexpr double kLog2 = 0.6931471805599453;
constexpr double kWiden = 0.0000001;

struct PairedAsymptotic {
  TableStats t;
  double sd = 0.0, z = 0.0, upper = 1.0;
  int64_t selector = 0;
};

int64_t PublishedCodeOf(int64_t selector) {
  switch (selector) {
    case kMidranks: return 2;
    case kEquallySpaced: return 1;
    case 3: return 3;
    case kCallerScores: return 4;
    default: return 0;
  }
}

void PublishAsymptotic(const PairedAsymptotic& a) {
  const TableStats& t = a.t;
  const int64_t side = t.tobs > t.mean ? 2 : 1;
  const double one = side == 2 ? a.upper : 1.0 - a.upper;
  Publish(slot::kStatistic, t.tobs);
  Publish(slot::kStatisticMin, std::min(t.tmin, t.tmax));
  Publish(slot::kStatisticMax, std::max(t.tmin, t.tmax));
  Publish(slot::kNullMean, t.mean);
  Publish(slot::kNullSd, a.sd);
  Publish(slot::kStandardized, a.sd > 0.0 ? a.z : t.tobs);
  PublishClamped(slot::kAsymOneSided, one);
  PublishClamped(slot::kAsymTwoSided, 2.0 * one);
  SetWord(word::kTailSide, side);
  SetWord(word::kPublishedMethod, 3);
  SetWord(word::kPublishedCode, PublishedCodeOf(a.selector));
  SetWord(word::kStrataPublished, 1);
  SetWord(word::kRowsPublished, 1);
  SetWord(word::kGroupLabel1, 1);
}

int64_t BinomialHalfDraw(RandomStream& stream, int64_t c, const double* lf) {
  double u = NextUniform(stream);
  const int64_t t = (c + 1) / 2;
  const double pt = std::exp(LogBinomial(c, t, lf) - static_cast<double>(c) * kLog2);
  for (;;) {
    if (pt >= u) return t;
    double sum = pt, p_up = pt, p_down = pt;
    int64_t up = t, down = t;
    bool up_closed = false, down_closed = false;
    while (!(up_closed && down_closed)) {
      if (!up_closed) {
        if (up == c) {
          up_closed = true;
        } else {
          p_up *= static_cast<double>(c - up) / static_cast<double>(up + 1);
          ++up;
          sum += p_up;
          if (sum >= u) return up;
        }
      }
      if (!down_closed) {
        if (down == 0) {
          down_closed = true;
        } else {
          p_down *= static_cast<double>(down) / static_cast<double>(c - down + 1);
          --down;
          sum += p_down;
          if (sum >= u) return down;
        }
      }
    }
    u = sum * NextUniform(stream);
  }
}

}  // namespace

int DifferenceLevels(const int64_t* counts, const double* differences, int64_t K,
                     std::vector<DifferenceLevel>& out) {
  out.clear();
  if (K > 0 && (counts == nullptr || differences == nullptr))
    return static_cast<int>(fail::kOutsideModel);
  double total = 0.0;
  std::vector<DifferenceLevel> raw;
  for (int64_t j = 0; j < K; ++j) {
    if (counts[j] < 0) return static_cast<int>(fail::kNoMemory);
    if (!std::isfinite(differences[j])) return static_cast<int>(fail::kOutsideModel);
    total += static_cast<double>(counts[j]);
    if (total >= kLargestTotal) return static_cast<int>(fail::kNoMemory);
    const double v = differences[j];
    if (v < 0.0) raw.push_back({0, counts[j], -v});
    if (v > 0.0) raw.push_back({counts[j], 0, v});
  }
  for (size_t i = 0; i + 1 < raw.size(); ++i)
    for (size_t j = i + 1; j < raw.size(); ++j)
      if (raw[j].d < raw[i].d) std::swap(raw[i], raw[j]);
  for (const DifferenceLevel& l : raw) {
    if (!out.empty() && std::fabs(l.d - out.back().d) < kTieShare * out.back().d) {
      out.back().positive += l.positive;
      out.back().negative += l.negative;
    } else {
      out.push_back(l);
    }
  }
  if (out.empty()) out.push_back({0, 0, 0.0});
  return 0;
}

int OneSampleScores(std::vector<DifferenceLevel>& levels, int64_t selector, double location,
                    std::vector<double>& s) {
  switch (selector) {
    case kMidranks: {
      std::vector<double> t(levels.size());
      for (size_t i = 0; i < levels.size(); ++i)
        t[i] = static_cast<double>(levels[i].positive + levels[i].negative);
      Midranks(t, s);
      break;
    }
    case kEquallySpaced: {
      int64_t above = 0, below = 0;
      for (const DifferenceLevel& l : levels) {
        if (l.d > location) above += l.positive;
        if (l.d < location) below += l.positive;
        if (-l.d > location) above += l.negative;
        if (-l.d < location) below += l.negative;
      }
      levels.assign(1, DifferenceLevel{above, below, 1.0});
      s.assign(1, 1.0);
      break;
    }
    case kCallerScores:
      s.resize(levels.size());
      for (size_t i = 0; i < levels.size(); ++i) s[i] = levels[i].d;
      break;
    default:
      return static_cast<int>(fail::kOneSampleScore);
  }
  for (double& v : s) v = std::fabs(v);
  return 0;
}

void SignFlipSampler(int64_t K, int64_t m, const int64_t* c, int64_t* x, RandomStream& stream,
                     const double* lf) {
  int64_t left = m;
  for (int64_t j = 0; j + 1 < K; ++j) {
    x[j] = BinomialHalfDraw(stream, std::min(c[j], left), lf);
    left -= x[j];
  }
  if (K > 0) x[K - 1] = left;
}

double SignFlipSd(const std::vector<TwoRowColumn>& work) {
  double ss = 0.0;
  for (size_t i = 0; i + 1 < work.size(); ++i)
    ss += static_cast<double>(work[i].first + work[i].second) * work[i].score * work[i].score;
  return std::sqrt(ss / 4.0);
}

int SignFlipMonteCarlo(const std::vector<TwoRowColumn>& work, double obs, double mean,
                       bool low_side, bool snap, ScoreMcResult& out) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (!(setup.confidence > 0.0 && setup.confidence < 1.0))
    return static_cast<int>(fail::kOutsideModel);
  const int64_t L = static_cast<int64_t>(work.size());
  std::vector<int64_t> c(static_cast<size_t>(L)), x(static_cast<size_t>(L));
  int64_t m = 0;
  for (int64_t j = 0; j < L; ++j) {
    c[j] = work[j].first + work[j].second;
    m += work[j].first;
  }
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  RandomStream stream = setup.stream;
  const double distance = std::fabs(obs - mean) - kWiden * std::fabs(obs - mean);
  int64_t total = 0, one = 0, two = 0, since_report = 0;
  do {
    ++total;
    SignFlipSampler(L, m, c.data(), x.data(), stream, lf.data());
    double t = 0.0;
    for (int64_t j = 0; j < L; ++j) t += static_cast<double>(x[j]) * work[j].score;
    if (low_side ? t <= obs + kWiden * obs : t >= obs - kWiden * obs) ++one;
    if (std::fabs(t - mean) >= distance) ++two;
    if (++since_report >= setup.report_every) {
      net::detail::McReport(one, total, setup);
      since_report = 0;
    }
  } while (total < setup.samples);
  UpdateElapsed();
  // Marginal homogeneity reads an estimate within 1e-7 of 0 or 1 as that end.
  auto snapped = [&](int64_t hits) {
    const double p = static_cast<double>(hits) / static_cast<double>(total);
    if (snap && p < kWiden) return int64_t{0};
    if (snap && p > 1.0 - kWiden) return total;
    return hits;
  };
  net::McEstimate(snapped(one), total, setup.z, setup.confidence, out.one);
  net::McEstimate(snapped(two), total, setup.z, setup.confidence, out.two);
  for (net::McResult* r : {&out.one, &out.two}) {
    r->percent = 100.0 * setup.confidence;
    r->seed = setup.seed;
  }
  return 0;
}

int PairedRun(const int64_t* counts, const double* differences, int64_t K, int64_t selector,
              int64_t method) {
  std::vector<DifferenceLevel> levels;
  int code = DifferenceLevels(counts, differences, K, levels);
  if (code != 0) return code;
  std::vector<double> s;
  code = OneSampleScores(levels, selector, ModelOption(13), s);
  if (code != 0) return code;
  if (method == 0) method = 3;

  // Levels by score, highest first, then the balancing column.
  std::vector<TwoRowColumn> work(levels.size());
  int64_t n = 0, negatives = 0, positives = 0;
  for (size_t i = 0; i < levels.size(); ++i) {
    work[i] = {levels[i].positive, levels[i].negative, s[i]};
    n += levels[i].positive + levels[i].negative;
    negatives += levels[i].negative;
    positives += levels[i].positive;
  }
  if (n == 0) return static_cast<int>(fail::kNothingToTest);
  for (size_t i = 0; i + 1 < work.size(); ++i)
    for (size_t j = i + 1; j < work.size(); ++j)
      if (work[j].score > work[i].score) std::swap(work[i], work[j]);
  work.push_back({negatives, positives, 0.0});

  PairedAsymptotic a;
  a.selector = selector;
  a.t = TableStatistics(work);
  a.sd = SignFlipSd(work);
  if (a.sd > 0.0) {
    a.z = (a.t.tobs - a.t.mean) / a.sd;
    a.upper = SIGNRM(a.z);
  }
  UpdateElapsed();
  PublishAsymptotic(a);
  if (method != 1 && method != 2) return 0;

  const double obs = a.t.tobs, mean = a.t.mean;
  if (method == 2) {
    ScoreMcResult mc;
    code = SignFlipMonteCarlo(work, obs, mean, mean > obs, false, mc);
    if (code != 0) return code;
    PublishAsymptotic(a);
    PublishScoreMonteCarlo(mc);
    return 0;
  }

  double high = 2.0 * mean - obs, low = obs;
  if (obs > mean) std::swap(high, low);
  TwoRowTails r;
  code = TwoRowNetwork<BalancedForm>(work, high, low, MemoryBudget(), r);
  if (code != 0) return code;
  double one_sided, point;
  if (obs > mean) {
    one_sided = r.high_tail + r.high_point;
    point = r.high_point;
  } else {
    one_sided = r.low_tail + r.low_point;
    point = r.low_point;
  }
  UpdateElapsed();
  PublishAsymptotic(a);
  PublishClamped(slot::kExactOneSided, one_sided);
  PublishClamped(slot::kExactDoubled, 2.0 * one_sided);
  PublishClamped(slot::kExactTwoSided, 2.0 * one_sided);
  PublishClamped(slot::kPointProbability, point);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

}  // namespace anvl::scores
