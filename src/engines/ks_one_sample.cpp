#include "engines/ks_one_sample.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>
#include <vector>

#include "engines/ks_exact.h"
#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "kernel/random.h"
#include "network/monte_carlo.h"

namespace anvl::eng {
namespace {

constexpr DriverTraits kKsOneTraits{false, false, false, 0};

// A parameter smaller than this in magnitude takes the default of its model.
constexpr double kDefaultBelow = 1e-5;
// Sorted data values closer than this (relative to the kept one) are one value.
constexpr double kMergeRelative = 1e-5;
// Monte Carlo values of the Poisson closer than this are one value.
constexpr double kMcMergeRelative = 1e-8;
// The Poisson table holds at most this many points, and its mean may be
// at most half of that.
constexpr int64_t kPoissonCapacity = 100000;
constexpr int64_t kPoissonReserve = 3000;
// The Poisson table ends at the first point within this of 1.
constexpr double kPoissonTableEnd = 5e-14;
// An exponent below this makes the exponential distribution function 1.
constexpr double kExpSaturation = -708.39;
// A drawn statistic counts when it reaches the observed one less this
// relative margin, which absorbs rounding.
constexpr double kMcHitFactor = 0.9999995;
// A uniform steps past a Poisson point when it reaches this fraction of
// the point's distribution value.
constexpr double kMcStepFactor = 0.999995;
// The exact continuous route needs (1 + 2 N D)^2 within a signed 32-bit integer.
constexpr double kDurbinLimit = 2147483647.0;
// Marks of a Monte Carlo estimate of 1 and of 0 with no width.
constexpr double kMcAllHits = 9999.0;
constexpr double kMcNoHits = -9999.0;

// DistributionKind: 4 and above continuous.
enum Kind : int64_t { kPoisson = 3, kUniform = 4, kExponential = 5, kNormal = 6 };

struct Model {
  int64_t kind = kUniform;
  double p1 = 0.0, p2 = 1.0;
};

struct KsStats {
  double plus = 0.0, minus = 0.0, abs = 0.0;
  void Offer(double g) {
    plus = std::max(plus, g);
    minus = std::max(minus, -g);
    abs = std::max(abs, std::fabs(g));
  }
};

// The merged sample: distinct values ascending with their counts.
struct Sample {
  std::vector<double> values;
  std::vector<int64_t> counts;
  double total = 0.0;  // N
};

int64_t ReadModel(Model& m) {
  auto param = [](int entry, double fallback) {
    const double v = ModelOption(entry);
    return std::fabs(v) < kDefaultBelow ? fallback : v;
  };
  const bool ok = [&] {
    switch (static_cast<int64_t>(ModelOption(11))) {
      case 3:
        m = {kPoisson, param(3, 1.0), 0.0};
        return m.p1 > 0.0 && std::isfinite(m.p1);
      case 4:
        m = {kNormal, param(3, 0.0), param(5, 1.0)};
        return std::isfinite(m.p1) && m.p2 > 0.0 && std::isfinite(m.p2);
      case 6:
        m = {kExponential, param(3, 1.0), 0.0};
        return m.p1 > 0.0 && std::isfinite(m.p1);
      default:
        // A uniform with a = b has no distribution function to compare with.
        m = {kUniform, param(1, 0.0), param(2, 1.0)};
        return std::isfinite(m.p1) && std::isfinite(m.p2) && m.p1 < m.p2;
    }
  }();
  return ok ? 0 : fail::kOutsideModel;
}

// Checks of the driver, in their order; leaves the values ascending, each
// with its weight.  Poisson values are rounded to the whole numbers that
// they are within rounding of.
int64_t CheckCases(const CallArgs& a, const Model& m, std::vector<std::pair<double, int64_t>>& v) {
  const int64_t n = a.case_data == nullptr ? 0 : std::max<int64_t>(a.case_cols, 0);
  try {
    v.resize(static_cast<size_t>(n));
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  for (int64_t j = 0; j < n; ++j) {
    double x = a.case_data[j];
    if (!std::isfinite(x)) return fail::kOutsideModel;
    if (m.kind == kPoisson) {
      if (!FUZZYINTEGER(x)) return fail::kNotWholeNumber;
      x = std::nearbyint(x);
    }
    v[j] = {x, a.case_weights ? a.case_weights[j] : int64_t{1}};
  }
  std::stable_sort(v.begin(), v.end(),
                   [](const auto& l, const auto& r) { return l.first < r.first; });
  if (v.empty()) return 0;
  const double lo = v.front().first, hi = v.back().first;
  if (m.kind == kUniform && (hi > m.p2 || m.p1 > lo)) return fail::kOutsideModel;
  if ((m.kind == kPoisson || m.kind == kExponential) && lo < 0.0) return fail::kBelowSupport;
  return 0;
}

// Merges values closer than kMergeRelative of the kept one and sums the
// counts into N.  A negative weight, a negative running sum or N <= 0 is -1.
int64_t Merge(const std::vector<std::pair<double, int64_t>>& v, Sample& s) {
  double running = 0.0;
  for (const auto& [x, w] : v) {
    if (w < 0) return fail::kNoMemory;
    if (s.values.empty() ||
        std::fabs(x - s.values.back()) > std::fabs(s.values.back()) * kMergeRelative) {
      s.values.push_back(x);
      s.counts.push_back(w);
    } else if (__builtin_add_overflow(s.counts.back(), w, &s.counts.back())) {
      return fail::kNoMemory;
    }
    running += static_cast<double>(w);
    if (running < 0.0) return fail::kNoMemory;
  }
  s.total = running;
  return running > 0.0 ? 0 : fail::kNoMemory;
}

double ModelCdf(const Model& m, double x) {
  switch (m.kind) {
    case kUniform:
      return (x - m.p1) / (m.p2 - m.p1);
    case kExponential: {
      if (x <= 0.0) return 0.0;
      const double e = -x / m.p1;
      return e < kExpSaturation ? 1.0 : 1.0 - std::exp(e);
    }
    default: {
      int64_t status = 0;
      return CDFNOR(x, m.p1, m.p2, &status);
    }
  }
}

// Continuous models: every observation is its own entry.  A run of c equal
// values shares one model value f, and e - f is monotone along the run,
// so its ends give all that the largest differences need: the same
// numbers as a walk over the c entries one by one.
KsStats ContinuousStats(const Sample& s, const Model& m) {
  KsStats st;
  double before = 0.0;  // running count before the entry
  for (size_t i = 0; i < s.values.size(); ++i) {
    const int64_t c = s.counts[i];
    if (c == 0) continue;
    const double f = ModelCdf(m, s.values[i]);
    const double e_first = (before + 1.0) / s.total;
    const double e_last = (before + static_cast<double>(c)) / s.total;
    const double e_prev_first = before / s.total;
    const double e_prev_last = (before + static_cast<double>(c) - 1.0) / s.total;
    st.plus = std::max(st.plus, e_last - f);
    st.minus = std::max(st.minus, f - e_prev_first);
    st.abs = std::max({st.abs, std::fabs(e_first - f), std::fabs(e_last - f),
                       std::fabs(f - e_prev_first), std::fabs(f - e_prev_last)});
    before += static_cast<double>(c);
  }
  return st;
}

// The Poisson table F(0), F(1), ..., up to the first value within
// kPoissonTableEnd of 1 or the capacity.  -1 for a mean above half of it.
int64_t PoissonTable(double mean, std::vector<double>& cdf) {
  const int64_t capacity = std::min(MemoryBudget() / 8 - kPoissonReserve, kPoissonCapacity);
  if (mean > 0.5 * static_cast<double>(capacity)) return fail::kNoMemory;
  for (int64_t i = 0; i < capacity; ++i) {
    int64_t status = 0;
    const double F = CDFPSN(static_cast<double>(i), mean, &status);
    cdf.push_back(F);
    if (std::fabs(1.0 - F) < kPoissonTableEnd) break;
  }
  return 0;
}

// Walks the support points s = 0, 1, ... of the table and the distinct
// values together.  Values past the table are compared with 1 and offer
// nothing to D-.
KsStats PoissonStats(const double* values, const int64_t* counts, int64_t entries, double total,
                     const std::vector<double>& cdf) {
  KsStats st;
  const int64_t M = static_cast<int64_t>(cdf.size());
  double running = 0.0, e_prev = 0.0;
  int64_t j = 0, s = 0;
  while (j < entries) {
    if (s >= M) {
      for (; j < entries; ++j) {
        running += static_cast<double>(counts[j]);
        const double g = running / total - 1.0;
        st.plus = std::max(st.plus, g);
        st.abs = std::max(st.abs, std::fabs(g));
      }
      break;
    }
    if (values[j] > static_cast<double>(s)) {
      st.Offer(e_prev - cdf[s]);
    } else {
      running += static_cast<double>(counts[j]);
      e_prev = running / total;
      st.Offer(e_prev - cdf[s]);
      ++j;
    }
    ++s;
  }
  return st;
}

// Two-sided, plus and minus asymptotic p-values.
struct Asymptotic {
  double z = 0.0, two = 1.0, plus = 1.0, minus = 1.0;
};

void PublishAsymptotic(const KsStats& st, const Asymptotic& as, const Model& m, double N) {
  const double root = std::sqrt(N);
  Publish(slot::kStatistic, st.abs);
  Publish(98, st.abs);
  Publish(slot::kStandardized, as.z);
  Publish(slot::kScaledAbs, as.z);
  Publish(slot::kAsymTwoSided, std::min(as.two, 1.0));
  PublishClamped(99, as.two);
  Publish(84, st.plus);
  Publish(91, st.minus);
  PublishClamped(85, as.plus);
  PublishClamped(92, as.minus);
  Publish(slot::kScaledPlus, root * st.plus);
  Publish(slot::kScaledMinus, root * st.minus);
  Publish(slot::kModelParam1, m.p1);
  if (m.kind != kExponential) Publish(slot::kModelParam2, m.p2);
  SetWord(word::kSampleTotal, static_cast<int64_t>(N));
  SetWord(word::kPublishedCode, 6);
  SetWord(word::kPublishedVariant, m.kind);
  SetWord(word::kPublishedMethod, 3);
}

// ---------------------------------------------------------------------------
// Monte Carlo.
// ---------------------------------------------------------------------------

struct McCounter {
  int64_t hits = 0;
  double p = 0.0, w = 0.0;
};

void Finish(McCounter& c, int64_t samples, double z, double confidence) {
  const double M = static_cast<double>(samples);
  c.p = static_cast<double>(c.hits) / M;
  c.w = z * std::sqrt(c.p * (1.0 - c.p) / M);
  if (c.w == 0.0) {
    const double v = std::pow(1.0 - confidence, 1.0 / M);
    if (c.hits == samples) {
      c.w = v;
      c.p = kMcAllHits;
    } else {
      c.w = 1.0 - v;
      c.p = kMcNoHits;
    }
  }
}

// (estimate, low, high) of a counter into three slots.
void PublishTriple(const McCounter& c, int s0, int s1, int s2) {
  double p = c.p, low = c.p - c.w, high = c.p + c.w;
  if (c.p < -1.0) {
    p = 0.0;
    low = 0.0;
    high = c.w;
  } else if (c.p > 1.0) {
    p = 1.0;
    low = c.w;
    high = 1.0;
  }
  PublishClamped(s0, p);
  PublishClamped(s1, low);
  PublishClamped(s2, high);
}

// Draws McSamples samples of trunc(N) uniforms and counts the drawn
// statistics that reach the observed ones.
int64_t MonteCarlo(const KsStats& obs, const Model& m, double N, const std::vector<double>& cdf) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (setup.samples < 1 || !(setup.confidence > 0.0 && setup.confidence < 1.0))
    return net::kMcNoSamples;
  const int64_t n = static_cast<int64_t>(N);
  const int64_t free_bytes = FreePhysicalMemory();
  if (free_bytes > 0 && 24.0 * N > 0.5 * static_cast<double>(free_bytes)) return fail::kNoMemory;
  std::vector<double> u, values;
  std::vector<int64_t> counts;
  try {
    u.resize(static_cast<size_t>(n));
    if (m.kind == kPoisson) {
      values.resize(static_cast<size_t>(n));
      counts.resize(static_cast<size_t>(n));
    }
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  RandomStream stream = setup.stream;
  McCounter two, plus, minus;
  const double dn = static_cast<double>(n);
  const int64_t M = static_cast<int64_t>(cdf.size());
  int64_t last_report = 0, drawn = 0;
  for (int64_t sample = 1; sample <= setup.samples; ++sample) {
    for (int64_t i = 0; i < n; ++i) u[i] = NextUniform(stream);
    SortReals(n, u.data());
    KsStats st;
    if (m.kind != kPoisson) {
      for (int64_t i = 1; i <= n; ++i) {
        const double a = u[i - 1] - static_cast<double>(i - 1) / dn;
        const double b = static_cast<double>(i) / dn - u[i - 1];
        st.plus = std::max(st.plus, a);
        st.minus = std::max(st.minus, b);
        st.abs = std::max({st.abs, std::fabs(a), std::fabs(b)});
      }
    } else {
      int64_t entries = 0, s = 0;
      for (int64_t i = 0; i < n; ++i) {
        while (s < M && u[i] >= kMcStepFactor * cdf[s]) ++s;
        const double x = static_cast<double>(s);
        const bool fresh = entries == 0 || std::fabs(x - values[entries - 1]) >
                                               std::fabs(values[entries - 1]) * kMcMergeRelative;
        if (fresh) {
          values[entries] = x;
          counts[entries++] = 1;
        } else {
          ++counts[entries - 1];
        }
      }
      st = PoissonStats(values.data(), counts.data(), entries, dn, cdf);
    }
    if (st.abs >= kMcHitFactor * obs.abs) ++two.hits;
    if (st.plus >= kMcHitFactor * obs.plus) ++plus.hits;
    if (st.minus >= kMcHitFactor * obs.minus) ++minus.hits;
    drawn = sample;
    Tick();  // the host's stop and the time limit
    if (FailureCode() != 0) return 0;  // stopped: the stop's code stands
    if (sample - last_report >= setup.report_every) {
      net::detail::McReport(two.hits, sample, setup);
      last_report = sample;
      if (FailureCode() != 0) return 0;  // stopped: the stop's code stands
    }
  }
  UpdateElapsed();
  Finish(two, drawn, setup.z, setup.confidence);
  Finish(plus, drawn, setup.z, setup.confidence);
  Finish(minus, drawn, setup.z, setup.confidence);
  PublishTriple(two, slot::kMcTwoSided, slot::kMcTwoSidedLow, slot::kMcTwoSidedHigh);
  PublishTriple(two, 102, 103, 104);
  PublishTriple(plus, 88, 89, 90);
  PublishTriple(minus, 95, 96, 97);
  Publish(slot::kMcPercent, 100.0 * setup.confidence);
  Publish(slot::kMcCount, static_cast<double>(drawn));
  Publish(slot::kMcSeed, setup.seed);
  SetWord(word::kPublishedMethod, 2);
  return 0;
}

// ---------------------------------------------------------------------------
// Exact routes.
// ---------------------------------------------------------------------------

int64_t ExactContinuous(const KsStats& st, double N) {
  const int64_t n = static_cast<int64_t>(N);
  const double width = 1.0 + 2.0 * N * st.abs;
  if (width * width > kDurbinLimit) return fail::kNoMemory;
  double plus, minus, two;
  PCINMS(&plus);
  PCINMS(&minus);
  PCINMS(&two);
  bool overflow = false;
  plus = KsOneSidedExact(n, st.plus, &overflow);
  if (!overflow) minus = KsOneSidedExact(n, st.minus, &overflow);
  if (!overflow) {
    int code = 0;
    two = KsTwoSidedExact(n, st.abs, plus, minus, &code);
    if (code != 0) return code;
  }
  PublishClamped(86, plus);
  Publish(87, 0.0);
  PublishClamped(93, minus);
  Publish(94, 0.0);
  Publish(slot::kExactTwoSided, two);
  PublishClamped(100, two);
  Publish(slot::kPointProbability, 0.0);
  Publish(101, 0.0);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

int64_t ExactPoisson(const KsStats& st, double N, const std::vector<double>& cdf) {
  const int64_t n = static_cast<int64_t>(N);
  const ConoverTail up_plus = DiscreteTail(n, st.plus, cdf, true);
  const ConoverTail low_minus = DiscreteTail(n, st.minus, cdf, false);
  const ConoverTail up_abs = DiscreteTail(n, st.abs, cdf, true);
  const ConoverTail low_abs = DiscreteTail(n, st.abs, cdf, false);
  const double two = up_abs.tail + low_abs.tail;
  PublishClamped(86, up_plus.tail);
  PublishClamped(87, up_plus.last);
  PublishClamped(93, low_minus.tail);
  PublishClamped(94, low_minus.last);
  Publish(slot::kExactTwoSided, two);
  PublishClamped(100, two);
  PublishClamped(slot::kPointProbability, up_abs.last);
  PublishClamped(101, up_abs.last);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

int64_t KsOneSampleRun(const std::vector<std::pair<double, int64_t>>& sorted, const Model& m) {
  ZeroElapsed();
  StartClock();
  Sample s;
  try {
    if (int64_t code = Merge(sorted, s); code != 0) return code;
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  std::vector<double> cdf;
  KsStats st;
  if (m.kind == kPoisson) {
    try {
      if (int64_t code = PoissonTable(m.p1, cdf); code != 0) return code;
    } catch (const std::bad_alloc&) {
      return fail::kNoMemory;
    }
    st = PoissonStats(s.values.data(), s.counts.data(), static_cast<int64_t>(s.values.size()),
                      s.total, cdf);
  } else {
    st = ContinuousStats(s, m);
  }

  const double N = s.total;
  Asymptotic as;
  as.z = std::sqrt(N) * st.abs;
  as.two = KsLimitTwoSided(as.z);
  as.plus = std::exp(-2.0 * N * st.plus * st.plus);
  as.minus = std::exp(-2.0 * N * st.minus * st.minus);
  PublishAsymptotic(st, as, m, N);

  switch (Store().run_method) {
    case 3:
      return 0;
    case 2:
      return MonteCarlo(st, m, N, cdf);
    default:
      return m.kind == kPoisson ? ExactPoisson(st, N, cdf) : ExactContinuous(st, N);
  }
}

}  // namespace

void KsOneSampleDriver(const CallArgs& args) {
  std::vector<int64_t> unused;
  int64_t code = BeginDriver(args, kKsOneTraits, unused);
  Model model;
  std::vector<std::pair<double, int64_t>> sorted;
  if (code == 0 && args.case_rows != 1) code = fail::kCaseRows;
  if (code == 0) code = ReadModel(model);
  if (code == 0) code = CheckCases(args, model, sorted);
  if (code == 0) code = KsOneSampleRun(sorted, model);
  EndDriver(code);
}

}  // namespace anvl::eng
