#include "scores/runs.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "kernel/log_factorial.h"
#include "kernel/log_sum.h"
#include "network/monte_carlo.h"
#include "scores/two_row_network.h"
#include "scores/whole_nodes.h"

namespace anvl::scores {
namespace {

constexpr int64_t kTotalLimit = 2147483648LL;
// Below this pooled size the normal approximation takes a continuity
// correction of one half.
constexpr int64_t kCorrectionBelow = 50;
// The standardised value of a statistic without variance.
constexpr double kNoVarianceZ = 99.9990005493164;
// Values of one mode group: within this share of the group's first value.
constexpr double kModeTolerance = 0.000009999999747378752;
// A Monte Carlo table counts two-sided when its distance from the mean is
// at least this share of the observed distance.
constexpr double kTwoSidedShare = 0.99995;
// The exact route's memory: Q = budget / 4 - kReservedEntries entries must
// hold the stage offsets; the node table has the largest odd prime at or
// below Q / 4 slots.
constexpr int64_t kReservedEntries = 5000;
constexpr int64_t kRunLimit = int64_t{1} << 62;

enum CutKind : int64_t { kMedian = 1, kMode = 2, kMean = 3, kGiven = 13 };

// Statistics of one arrangement.
struct RunsStat {
  int64_t runs = 0;
  double mean = 0.0, sd = 0.0, z = 0.0, p = 0.0;  // p: lower normal tail at z
};

struct RunsProblem {
  int64_t kind = 2;  // 2 two samples, 1 cut point
  int64_t n = 0, m = 0, N = 0;
  bool ties = false;
  RunsStat fewest, most;  // equal without ties
  int64_t smallest = 0, largest = 0;
};

// Writes labels (1 the first sample, 0 the second) and counts runs.
struct RunCounter {
  int last_written = -1;
  int64_t runs = 0;
  void Write(int label, int64_t count) {
    if (count <= 0) return;
    if (label != last_written) ++runs;
    last_written = label;
  }
  // `count` alternating pairs (a, b, a, b, ...).
  void Pairs(int a, int b, int64_t count) {
    if (count <= 0) return;
    runs += 2 * count - (a == last_written ? 1 : 0);
    last_written = b;
  }
};

RunsStat StatOf(int64_t runs, int64_t n, int64_t m) {
  RunsStat s;
  s.runs = runs;
  const double N = static_cast<double>(n + m), nm2 = 2.0 * static_cast<double>(n) * static_cast<double>(m);
  s.mean = nm2 / N + 1.0;
  s.sd = std::sqrt(nm2 * (nm2 - N) / (N * N * (N - 1.0)));
  const double R = static_cast<double>(runs);
  double correction = 0.0;
  if (n + m < kCorrectionBelow) correction = R < s.mean ? 0.5 : R > s.mean ? -0.5 : 0.0;
  s.z = s.sd == 0.0 ? kNoVarianceZ : (R - s.mean + correction) / s.sd;
  s.p = PRBNRM(s.z);
  return s;
}

double TwoSidedAsym(const RunsStat& s) {
  return s.mean > static_cast<double>(s.runs) ? 2.0 * s.p : 2.0 * (1.0 - s.p);
}

void PublishAsymptotic(const RunsProblem& q) {
  SetWord(word::kPublishedCode, q.kind == 2 ? 19 : 11);
  SetWord(word::kPublishedMethod, 3);
  SetWord(word::kTailSide, 1);
  SetWord(word::kGroupSize1, q.n);
  SetWord(word::kGroupSize2, q.m);
  SetWord(word::kSampleTotal, q.N);
  Publish(slot::kStatisticMin, static_cast<double>(q.smallest));
  Publish(slot::kStatisticMax, static_cast<double>(q.largest));
  const RunsStat& r = q.most;
  Publish(slot::kStatistic2, static_cast<double>(r.runs));
  Publish(slot::kNullMean2, r.mean);
  Publish(slot::kNullSd2, r.sd);
  Publish(slot::kStandardized2, r.z);
  PublishClamped(slot::kAsymTwoSided2, TwoSidedAsym(r));
  if (q.ties) {
    SetWord(word::kPublishedVariant, 1);
    SetWord(word::kTailSide2, 1);
    const RunsStat& f = q.fewest;
    Publish(slot::kStatistic, static_cast<double>(f.runs));
    Publish(slot::kNullMean, f.mean);
    Publish(slot::kNullSd, f.sd);
    Publish(slot::kStandardized, f.z);
    PublishClamped(slot::kAsymOneSided, f.p);
    PublishClamped(slot::kAsymTwoSided, TwoSidedAsym(f));
    PublishClamped(slot::kAsymOneSided2, r.p);
    return;
  }
  SetWord(word::kPublishedVariant, 2);
  const bool low = q.kind == 2 || r.mean > static_cast<double>(r.runs);
  SetWord(word::kTailSide2, low ? 1 : 2);
  PublishClamped(slot::kAsymOneSided2, low ? r.p : 1.0 - r.p);
}

// ---------------------------------------------------------------------------
// Exact route: the network on the unit sequence.
// ---------------------------------------------------------------------------

struct Cuts {
  double hi[2], lo[2];  // per statistic: fewest, most
  double upper, inner_up, inner_low, lower;
};

Cuts CutsOf(const RunsProblem& q) {
  Cuts c;
  const RunsStat* s[2] = {&q.fewest, &q.most};
  for (int i = 0; i < 2; ++i) {
    const double R = static_cast<double>(s[i]->runs), mean = s[i]->mean;
    double M = 2.0 * mean - R;
    M = M > mean ? std::ceil(M) : std::trunc(M);
    c.hi[i] = R > mean ? R : M;
    c.lo[i] = R > mean ? M : R;
  }
  c.upper = std::max(c.hi[0], c.hi[1]);
  c.inner_up = std::min(c.hi[0], c.hi[1]);
  c.inner_low = std::max(c.lo[0], c.lo[1]);
  c.lower = std::min(c.lo[0], c.lo[1]);
  return c;
}

int RunsNetwork(const RunsProblem& q, int64_t budget_bytes, RunsTails& t) {
  const int64_t n = q.n, m = q.m, N = q.N;
  if (q.largest < 0 || q.largest >= kRunLimit) return static_cast<int>(fail::kRunsSizes);
  int64_t entries = 0;
  for (int64_t p = 0; p <= N; ++p) entries += std::min(p, n) - std::max<int64_t>(n - N + p, 0) + 1;
  const int64_t Q = budget_bytes / 4 - kReservedEntries;
  if (Q < entries) return static_cast<int>(fail::kRunsBudget);
  const int64_t capacity = LargestOddPrime(Q / 4);
  if (capacity == 0) return static_cast<int>(fail::kRunsNoPrime);

  const Cuts cut = CutsOf(q);
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  const FactorialRoute route = FactorialRoute::kTableTo500Stirling;
  std::vector<WholeNode> cur{{0, 1, -LogBinomial(N, n, lf.data(), route)}}, next;
  NodeIndex index;
  index.Bind(&next);
  Ticker tick;
  for (int64_t s = 0; s < N && !cur.empty(); ++s) {
    const int64_t positions = s + 1;
    next.clear();
    index.Reset();
    for (const WholeNode& v : cur) {
      const int64_t runs = v.past / 2, label = v.past % 2;
      const int64_t first = std::max(v.x, n + positions - N), last = std::min(v.x + 1, n);
      for (int64_t xp = first; xp <= last; ++xp) {
        const int64_t take = xp - v.x;
        const int64_t new_runs = s == 0 ? 1 : runs + (take != label ? 1 : 0);
        const int64_t r1 = n - xp, r2 = m + xp - positions;
        int64_t least = 0, largest = 0;
        if (!((r1 == 0 && take == 0) || (r2 == 0 && take == 1))) {
          least = 1;
          largest = r1 == r2 ? 2 * r1 : r1 < r2 ? 2 * r1 + 1 : 2 * r2 + 1;
        }
        const double lo = static_cast<double>(new_runs + least), hi = static_cast<double>(new_runs + largest);
        const auto weight = [&] { return std::exp(v.log_weight + LogBinomial(N - positions, r1, lf.data(), route)); };
        if (lo > cut.upper) {
          const double w = weight();
          t.high_tail[0] += w;
          t.high_tail[1] += w;
        } else if (hi < cut.lower) {
          const double w = weight();
          t.low_tail[0] += w;
          t.low_tail[1] += w;
        } else if (hi < cut.inner_up && lo > cut.inner_low) {
          t.middle += weight();
        } else {
          int32_t* slot = index.Find(xp, 2 * new_runs + take);
          if (*slot < 0) {
            if (static_cast<int64_t>(cur.size() + next.size()) >= capacity)
              return static_cast<int>(fail::kRunsNoSlot);
            *slot = static_cast<int32_t>(next.size());
            next.push_back({xp, 2 * new_runs + take, v.log_weight});
          } else {
            WholeNode& w = next[static_cast<size_t>(*slot)];
            w.log_weight = LogSum(w.log_weight, v.log_weight);
          }
        }
        if (tick()) SendExactEstimateLine(t.low_tail[0] + t.high_tail[0], 1.0 - t.middle);
      }
    }
    SendExactEstimateLine(t.low_tail[0] + t.high_tail[0], 1.0 - t.middle);
    if (RunStopped()) return static_cast<int>(FailureCode());
    cur.swap(next);
  }
  for (const WholeNode& v : cur) {
    const double R = static_cast<double>(v.past / 2), w = std::exp(v.log_weight);
    for (int i = 0; i < 2; ++i) {
      if (R > cut.hi[i]) t.high_tail[i] += w;
      else if (R == cut.hi[i]) t.high_point[i] += w;
      else if (R < cut.lo[i]) t.low_tail[i] += w;
      else if (R == cut.lo[i]) t.low_point[i] += w;
    }
  }
  return 0;
}

void PublishExact(const RunsProblem& q, const RunsTails& t) {
  UpdateElapsed();
  PublishAsymptotic(q);
  const RunsStat* s[2] = {&q.fewest, &q.most};
  const int value[2] = {slot::kStatistic, slot::kStatistic2};
  const int one_slot[2] = {slot::kExactOneSided, slot::kExactOneSided2};
  const int point_slot[2] = {slot::kPointProbability, slot::kPointProbability2};
  const int two_slot[2] = {slot::kExactTwoSided, slot::kExactTwoSided2};
  for (int i = q.ties ? 0 : 1; i < 2; ++i) {
    const bool below = s[i]->mean > static_cast<double>(s[i]->runs);
    double one, point;
    if (below) {
      one = t.low_tail[i] + t.low_point[i];
      point = t.low_point[i];
    } else if (q.ties || q.kind == 2) {
      one = 1.0 - t.high_tail[i];
      point = t.high_point[i];
    } else {
      one = t.high_tail[i] + t.high_point[i];
      point = t.high_point[i];
    }
    if (i == 1) SetWord(word::kTailSide2, below || q.ties || q.kind == 2 ? 1 : 2);
    Publish(value[i], static_cast<double>(s[i]->runs));
    PublishClamped(one_slot[i], one);
    PublishClamped(point_slot[i], point);
    PublishClamped(two_slot[i], t.high_tail[i] + t.high_point[i] + t.low_tail[i] + t.low_point[i]);
  }
  SetWord(word::kPublishedMethod, 1);
}

// ---------------------------------------------------------------------------
// Monte Carlo route: random orders of the n + m labels.
// ---------------------------------------------------------------------------

int MonteCarlo(const RunsProblem& q) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (!(setup.confidence > 0.0 && setup.confidence < 1.0)) return static_cast<int>(fail::kOutsideModel);
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  net::TableSampler sampler;
  std::vector<int64_t> table;
  try {
    const std::vector<int64_t> rows = {q.n, q.m}, cols(static_cast<size_t>(q.N), 1);
    if (sampler.Init(2, q.N, rows.data(), cols.data(), lf.data()) != 0) return static_cast<int>(fail::kNoMemory);
    table.assign(static_cast<size_t>(2 * q.N), 0);
  } catch (const std::bad_alloc&) {
    return static_cast<int>(fail::kNoMemory);
  }
  const RunsStat* s[2] = {&q.fewest, &q.most};
  int64_t one[2] = {0, 0}, two[2] = {0, 0}, total = 0, since_report = 0;
  RandomStream stream = setup.stream;
  sampler.Draw(stream, table.data());
  do {
    ++total;
    int64_t T = 1;
    for (int64_t j = 1; j < q.N; ++j) T += table[2 * j] != table[2 * j - 2] ? 1 : 0;
    for (int i = 0; i < 2; ++i) {
      const double R = static_cast<double>(s[i]->runs), mean = s[i]->mean, t = static_cast<double>(T);
      one[i] += (q.kind == 1 && mean < R) ? (t >= R ? 1 : 0) : (t <= R ? 1 : 0);
      two[i] += std::fabs(t - mean) >= kTwoSidedShare * std::fabs(R - mean) ? 1 : 0;
    }
    if (++since_report >= setup.report_every) {
      net::detail::McReport(two[0], total, setup);
      since_report = 0;
    }
    sampler.Draw(stream, table.data());
  } while (total < setup.samples);
  UpdateElapsed();
  net::McResult r[2][2];  // [statistic][one, two]
  for (int i = 0; i < 2; ++i) {
    net::McEstimate(one[i], total, setup.z, setup.confidence, r[i][0]);
    net::McEstimate(two[i], total, setup.z, setup.confidence, r[i][1]);
  }
  PublishAsymptotic(q);
  const auto put = [](int first, const net::McResult& e) {
    PublishClamped(first, e.estimate);
    PublishClamped(first + 1, e.low);
    PublishClamped(first + 2, e.high);
  };
  if (q.ties) {
    Publish(slot::kStatistic, static_cast<double>(q.fewest.runs));
    put(slot::kMcOneSided, r[0][0]);
    put(slot::kMcTwoSided, r[0][1]);
  }
  Publish(slot::kStatistic2, static_cast<double>(q.most.runs));
  put(slot::kMcOneSided2, r[1][0]);
  put(slot::kMcTwoSided2, r[1][1]);
  Publish(slot::kMcPercent, 100.0 * setup.confidence);
  Publish(slot::kMcCount, static_cast<double>(total));
  Publish(slot::kMcSeed, setup.seed);
  SetWord(word::kPublishedMethod, 2);
  return 0;
}

// The two-sample run on levels (first, second); kind 2 for a table, 1 for
// the cut of a series.
int TwoSampleRunsRun(const std::vector<LevelCounts>& levels, int64_t kind, int64_t method) {
  RunsProblem q;
  q.kind = kind;
  for (const LevelCounts& l : levels) {
    if (l.first < 0 || l.second < 0) return static_cast<int>(fail::kBadShape);
    q.n += l.first;
    q.m += l.second;
    if (q.n + q.m >= kTotalLimit) return static_cast<int>(fail::kRunsTableOverflow);
  }
  q.N = q.n + q.m;
  if (levels.empty() || q.N < 1) return static_cast<int>(fail::kOneRowOrColumn);
  if (q.n == 0 || q.m == 0 || q.N < 2) return static_cast<int>(fail::kBadShape);
  const RunsArrangements a = CountRuns(levels);
  q.ties = a.ties;
  q.fewest = StatOf(a.fewest, q.n, q.m);
  q.most = StatOf(a.most, q.n, q.m);
  q.smallest = 2;
  q.largest = 2 * std::min(q.n, q.m) + (q.n != q.m ? 1 : 0);
  UpdateElapsed();
  PublishAsymptotic(q);
  if (method == 2) return MonteCarlo(q);
  if (method != 1) return 0;
  RunsTails t;
  int code;
  try {
    code = RunsNetwork(q, MemoryBudget(), t);
  } catch (const std::bad_alloc&) {
    code = static_cast<int>(fail::kNoMemory);
  }
  if (code != 0) return code;
  PublishExact(q, t);
  return 0;
}

// The cut of a series of values with counts; 0 or a failure code.
int CutOf(const std::vector<double>& v, const std::vector<int64_t>& c, int64_t total, int64_t kind,
          double given, double& cut) {
  if (kind == kGiven) {
    if (!std::isfinite(given)) return static_cast<int>(fail::kOutsideModel);
    cut = given;
    return 0;
  }
  if (kind == kMean) {
    double sum = 0.0;
    for (size_t i = 0; i < v.size(); ++i) sum += static_cast<double>(c[i]) * v[i];
    cut = sum / static_cast<double>(total);
    return 0;
  }
  // Median and mode on the values sorted ascending (by exchange), with
  // their counts; the series keeps its order.
  std::vector<std::pair<double, int64_t>> s(v.size());
  for (size_t i = 0; i < v.size(); ++i) s[i] = {v[i], c[i]};
  for (size_t i = 0; i + 1 < s.size(); ++i)
    for (size_t j = i + 1; j < s.size(); ++j)
      if (s[j].first < s[i].first) std::swap(s[i], s[j]);
  if (kind == kMedian) {
    int64_t half = total / 2 + total % 2;
    for (size_t i = 0; i < s.size(); ++i) {
      if (half > s[i].second) {
        half -= s[i].second;
        continue;
      }
      cut = s[i].first;
      if (total % 2 == 0 && half == s[i].second) {
        size_t j = i + 1;
        while (j < s.size() && s[j].second == 0) ++j;
        if (j < s.size()) cut = (s[i].first + s[j].first) / 2.0;
      }
      return 0;
    }
    return static_cast<int>(fail::kOneRowOrColumn);
  }
  // Mode: groups of values within a small share of their first value; the
  // largest group wins, the later one among equals.
  int64_t best = -1, count = 0;
  double group = s[0].first;
  for (size_t i = 0; i < s.size(); ++i) {
    if (i == 0 || std::fabs(s[i].first - group) > kModeTolerance * std::fabs(group)) {
      group = s[i].first;
      count = 0;
    }
    count += s[i].second;
    if (count >= best) {
      best = count;
      cut = group;
    }
  }
  return 0;
}

int CutPointRun(const CallArgs& args, int64_t method) {
  if (args.case_rows != 1) return static_cast<int>(fail::kCaseRows);
  const int64_t K = std::max<int64_t>(args.case_cols, 0);
  std::vector<double> v(static_cast<size_t>(K));
  std::vector<int64_t> c(static_cast<size_t>(K), 1);
  int64_t total = 0;
  for (int64_t i = 0; i < K; ++i) {
    if (args.case_weights != nullptr) c[i] = args.case_weights[i];
    if (c[i] < 0) return static_cast<int>(fail::kRunsNegativeCount);
  }
  if (K < 1 || args.case_data == nullptr) return static_cast<int>(fail::kOneRowOrColumn);
  for (int64_t i = 0; i < K; ++i) {
    total += c[i];
    if (total >= kTotalLimit) return static_cast<int>(fail::kRunsCaseOverflow);
  }
  if (total < 1) return static_cast<int>(fail::kOneRowOrColumn);
  for (int64_t i = 0; i < K; ++i) {
    v[i] = args.case_data[i];
    if (!std::isfinite(v[i])) return static_cast<int>(fail::kOutsideModel);
  }
  int64_t kind = static_cast<int64_t>(ModelOption(8));
  if (kind == 0) kind = kMedian;
  if (kind != kMedian && kind != kMode && kind != kMean && kind != kGiven)
    return static_cast<int>(fail::kOutsideModel);
  double cut = 0.0;
  if (const int code = CutOf(v, c, total, kind, ModelOption(13), cut); code != 0) return code;
  std::vector<LevelCounts> levels(static_cast<size_t>(K));
  int64_t above = 0, below = 0;
  for (int64_t i = 0; i < K; ++i) {
    levels[i] = v[i] - cut >= 0.0 ? LevelCounts{c[i], 0} : LevelCounts{0, c[i]};
    above += levels[i].first;
    below += levels[i].second;
  }
  if (above == 0 || below == 0) return static_cast<int>(fail::kRunsOneSide);
  const int64_t published = kind == kMean ? 3 : kind == kMedian ? 1 : kind == kMode ? 2 : 13;
  const int code = TwoSampleRunsRun(levels, 1, method);
  if (Word(word::kPublishedCode) != 0) {
    Publish(slot::kOption11Value, cut);
    SetWord(word::kPublishedOption, published);
  }
  return code;
}

}  // namespace

RunsArrangements CountRuns(const std::vector<LevelCounts>& levels) {
  RunsArrangements a;
  for (const LevelCounts& l : levels) a.ties = a.ties || (l.first > 0 && l.second > 0);
  if (!a.ties) {
    RunCounter r;
    for (const LevelCounts& l : levels) r.Write(l.first > 0 ? 1 : 0, l.first + l.second);
    a.fewest = a.most = r.runs;
    return a;
  }
  // Most runs: a tied level alternates, beginning with the label opposite
  // the last one, and ends with the rest of its larger count.
  RunCounter most;
  int last = levels[0].first < levels[0].second ? 1 : 0;
  for (const LevelCounts& l : levels) {
    if (l.first > 0 && l.second > 0) {
      const int64_t pairs = std::min(l.first, l.second);
      most.Pairs(1 - last, last, pairs);
      if (l.first != l.second) {
        const int larger = l.first > l.second ? 1 : 0;
        most.Write(larger, std::max(l.first, l.second) - pairs);
      }
      last = most.last_written;
    } else if (l.first + l.second > 0) {
      most.Write(l.first > 0 ? 1 : 0, l.first + l.second);
      last = most.last_written;
    }
  }
  // Fewest runs: a tied level continues the current run first.
  RunCounter fewest;
  last = 1;
  for (const LevelCounts& l : levels) {
    if (l.first > 0 && l.second > 0) {
      fewest.Write(last, last == 1 ? l.first : l.second);
      last = 1 - last;
      fewest.Write(last, last == 1 ? l.first : l.second);
    } else if (l.first + l.second > 0) {
      last = l.first > 0 ? 1 : 0;
      fewest.Write(last, l.first + l.second);
    }
  }
  a.fewest = fewest.runs;
  a.most = most.runs;
  return a;
}

void RunsDriver(const CallArgs& args) {
  const bool table_form = Blocks().ints[runint::kDataForm] == 1;
  const DriverTraits traits{table_form, false, true, 0};
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, traits, work);
  const RunStore& st = Store();
  const int64_t method = st.run_method;
  if (code == 0 && table_form) {
    if (st.row_count > 2) {
      code = fail::kBadShape;
    } else if (st.row_count == 2) {
      std::vector<LevelCounts> levels(static_cast<size_t>(std::max<int64_t>(st.column_count, 0)));
      for (size_t j = 0; j < levels.size(); ++j) levels[j] = {work[2 * j], work[2 * j + 1]};
      code = TwoSampleRunsRun(levels, 2, method);
    }
  } else if (code == 0) {
    code = CutPointRun(args, method);
  }
  EndDriver(code);
}

}  // namespace anvl::scores
