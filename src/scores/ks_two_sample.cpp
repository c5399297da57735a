#include "scores/ks_two_sample.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "engines/ks_exact.h"
#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "kernel/log_sum.h"
#include "network/monte_carlo.h"
#include "scores/score_monte_carlo.h"
#include "scores/two_row_network.h"
#include "scores/whole_nodes.h"

namespace anvl::scores {
namespace {

constexpr DriverTraits kKsTwoTraits{true, false, false, 0};
constexpr int64_t kPublishedCode = 18;
// Totals at or above this would overflow D = x N - C n.
constexpr int64_t kTotalLimit = 2147483648LL;
// The two-sided series: at most this many terms; a term whose exponent
// passes kLogTermFloor counts as 0; the series stops after the first term
// of magnitude at most kLastTerm.
constexpr int kSeriesTerms = 30;
constexpr double kLogTermFloor = 690.7755278982138;
constexpr double kLastTerm = 0.00004999999873689376;

// Result slots of the three statistics: value, asymptotic p, exact tail
// and point, Monte Carlo estimate and its two ends.
struct KsSlots {
  int value, asym, tail, point, mc, mc_low, mc_high;
};
constexpr KsSlots kSlots[3] = {{84, 85, 86, 87, 88, 89, 90},
                               {91, 92, 93, 94, 95, 96, 97},
                               {98, 99, 100, 101, 102, 103, 104}};

struct Observed {
  KsTwoStats s;
  double asym[3] = {1.0, 1.0, 1.0};
  int64_t levels = 0;
};

int64_t StatOf(const KsTwoStats& s, int kind) {
  return kind == 0 ? s.plus : kind == 1 ? s.minus : s.abs;
}

// d+ and d-: in single precision for the asymptotic and exact routes, in
// double precision for the Monte Carlo route.
void PublishAsymptotic(const Observed& o, bool double_precision) {
  const KsTwoStats& s = o.s;
  double d[2];
  for (int k = 0; k < 2; ++k) {
    const int64_t D = StatOf(s, k);
    d[k] = double_precision ? static_cast<double>(D) / (static_cast<double>(s.n) * static_cast<double>(s.m))
                            : static_cast<double>(static_cast<float>(D) /
                                                  (static_cast<float>(s.n) * static_cast<float>(s.m)));
  }
  const double value[3] = {d[0], d[1], std::max(d[0], d[1])};
  for (int k = 0; k < 3; ++k) {
    Publish(kSlots[k].value, value[k]);
    PublishClamped(kSlots[k].asym, o.asym[k]);
  }
  SetWord(word::kGroupSize1, s.n);
  SetWord(word::kGroupSize2, s.m);
  SetWord(word::kSampleTotal, s.N);
  SetWord(word::kRowsPublished, 2);
  SetWord(word::kColumnsPublished, o.levels);
  SetWord(word::kPublishedCode, kPublishedCode);
  SetWord(word::kPublishedMethod, 3);
}

// ---------------------------------------------------------------------------
// The stage table: for every (stage k, admissible first-row sum x) the least
// and largest D on the paths from there to the end (the node's own D left
// out) and the log of their total weight.
// ---------------------------------------------------------------------------

struct StageTable {
  std::vector<int64_t> lo, hi, offset;  // per stage: x range, first entry
  std::vector<int64_t> row_min, row_max;
  std::vector<double> row_log;
  int64_t At(int64_t k, int64_t x) const { return offset[k] + x - lo[k]; }
};

struct Network {
  int64_t K = 0, n = 0, N = 0;
  std::vector<int64_t> c, C;           // level totals; running sums C[0..K]
  std::vector<std::vector<double>> lb;  // lb[k][t] = log C(c[k], t)
  StageTable st;
};

void FillStageTable(Network& w) {
  StageTable& st = w.st;
  const int64_t K = w.K, n = w.n, N = w.N;
  st.lo.resize(K + 1);
  st.hi.resize(K + 1);
  st.offset.resize(K + 2);
  st.offset[0] = 0;
  // Entries are numbered stage K first: offsets count from the top stage.
  int64_t entries = 0;
  for (int64_t k = K; k >= 0; --k) {
    st.lo[k] = std::max<int64_t>(n - N + w.C[k], 0);
    st.hi[k] = std::min(w.C[k], n);
    st.offset[k] = entries;
    entries += st.hi[k] - st.lo[k] + 1;
  }
  // Three numbers an entry: a table beyond half the free memory is refused
  // rather than allocated on credit.
  const int64_t free_bytes = FreePhysicalMemory();
  if (free_bytes > 0 && entries > free_bytes / 2 / 24) throw std::bad_alloc();
  st.row_min.assign(static_cast<size_t>(entries), 0);
  st.row_max.assign(static_cast<size_t>(entries), 0);
  st.row_log.assign(static_cast<size_t>(entries), 0.0);
  int64_t entry = 1;
  for (int64_t k = K - 1; k >= 0; --k) {
    SendBackwardLine(k);
    const std::vector<double>& lb = w.lb[k];
    const int64_t C1 = w.C[k + 1];
    for (int64_t x = st.lo[k]; x <= st.hi[k]; ++x, ++entry) {
      const int64_t first = std::max(x, st.lo[k + 1]), last = std::min(st.hi[k + 1], x + w.c[k]);
      int64_t rmin = INT64_MAX, rmax = INT64_MIN;
      double rlog = 0.0;
      for (int64_t xp = first; xp <= last; ++xp) {
        const int64_t e = st.At(k + 1, xp);
        const int64_t d = xp * N - C1 * n;
        rmin = std::min({rmin, st.row_min[e], d});
        rmax = std::max({rmax, st.row_max[e], d});
        const double l = st.row_log[e] + lb[xp - x];
        rlog = xp == first ? l : LogSum(rlog, l);
      }
      const int64_t e = st.At(k, x);
      st.row_min[e] = rmin;
      st.row_max[e] = rmax;
      st.row_log[e] = rlog;
      if (Tick()) SendBackwardNodesLine(k + 2, entry);
    }
  }
}

// ---------------------------------------------------------------------------
// Forward passes: nodes (x, Past) of two adjacent stages, merged exactly.
// ---------------------------------------------------------------------------

// Kind 0: D+ (Past the running maximum of D); kind 1: D- (of -D); kind 2:
// D (the signed D of largest magnitude).  An edge that passes the observed
// value adds its whole future weight to the tail and ends; an edge from
// which no path can reach the observed value ends without adding.
template <int kKind>
int ForwardPass(const Network& w, int64_t obs, int64_t capacity, double& tail, double& point) {
  const StageTable& st = w.st;
  const int64_t n = w.n, N = w.N;
  std::vector<WholeNode> cur{{0, 0, -st.row_log[st.At(0, 0)]}}, next;
  NodeIndex index;
  index.Bind(&next);
  Ticker tick;
  tail = point = 0.0;
  for (int64_t s = 0; s < w.K; ++s) {
    SendStageLine(s + 1);
    if (cur.empty()) break;
    const std::vector<double>& lb = w.lb[s];
    const int64_t C1 = w.C[s + 1], cs = w.c[s];
    next.clear();
    index.Reset();
    for (const WholeNode& v : cur) {
      const int64_t first = std::max(v.x, st.lo[s + 1]), last = std::min(st.hi[s + 1], v.x + cs);
      for (int64_t xp = first; xp <= last; ++xp) {
        const int64_t d = xp * N - C1 * n;
        const double l = v.log_weight + lb[xp - v.x];
        const int64_t e = st.At(s + 1, xp);
        bool over, hopeless;
        int64_t past;
        if constexpr (kKind == 0) {
          over = d > obs;
          hopeless = std::max({st.row_max[e], d, v.past}) < obs;
          past = std::max(v.past, d);
        } else if constexpr (kKind == 1) {
          over = -d > obs;
          hopeless = std::max({-st.row_min[e], -d, v.past}) < obs;
          past = std::max(v.past, -d);
        } else {
          over = d > obs || -d > obs;
          hopeless = std::max({st.row_max[e], d, v.past}) < obs &&
                     std::min({st.row_min[e], d, v.past}) > -obs;
          past = (d >= 0 ? d : -d) < (v.past >= 0 ? v.past : -v.past) ? v.past : d;
        }
        if (over) {
          tail += std::exp(l + st.row_log[e]);
        } else if (!hopeless) {
          int32_t* slot = index.Find(xp, past);
          if (*slot < 0) {
            if (static_cast<int64_t>(cur.size() + next.size()) >= capacity)
              return static_cast<int>(fail::kKsGridFull);
            *slot = static_cast<int32_t>(next.size());
            next.push_back({xp, past, l});
          } else {
            WholeNode& q = next[static_cast<size_t>(*slot)];
            q.log_weight = LogSum(q.log_weight, l);
          }
        }
        if (tick()) SendStageLine(s + 1);
      }
    }
    if (RunStopped()) return static_cast<int>(FailureCode());
    cur.swap(next);
  }
  for (const WholeNode& v : cur) {
    const bool hit = kKind == 2 ? (v.past >= obs || -v.past >= obs) : v.past == obs;
    if (hit) {
      const double p = std::exp(v.log_weight);
      tail += p;
      point += p;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Monte Carlo.
// ---------------------------------------------------------------------------

int MonteCarlo(const std::vector<LevelCounts>& levels, const KsTwoStats& s, net::McResult out[3]) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (!(setup.confidence > 0.0 && setup.confidence < 1.0)) return static_cast<int>(fail::kOutsideModel);
  const int64_t K = static_cast<int64_t>(levels.size());
  std::vector<int64_t> c(static_cast<size_t>(K)), x(static_cast<size_t>(K));
  for (int64_t k = 0; k < K; ++k) c[k] = levels[k].first + levels[k].second;
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  RandomStream stream = setup.stream;
  int64_t total = 0, hits[3] = {0, 0, 0}, since_report = 0;
  do {
    ++total;
    ColumnSampler(K, s.n, c.data(), s.N, x.data(), stream, lf.data());
    int64_t A = 0, Cs = 0, top = 0, bottom = 0;
    for (int64_t k = 0; k < K; ++k) {
      A += x[k];
      Cs += c[k];
      const int64_t d = A * s.N - Cs * s.n;
      top = std::max(top, d);
      bottom = std::min(bottom, d);
    }
    hits[0] += top >= s.plus ? 1 : 0;
    hits[1] += -bottom >= s.minus ? 1 : 0;
    hits[2] += std::max(top, -bottom) >= s.abs ? 1 : 0;
    if (++since_report >= setup.report_every) {
      net::detail::McReport(hits[2], total, setup);
      since_report = 0;
    }
  } while (total < setup.samples);
  UpdateElapsed();
  for (int k = 0; k < 3; ++k) {
    net::McEstimate(hits[k], total, setup.z, setup.confidence, out[k]);
    out[k].percent = 100.0 * setup.confidence;
    out[k].seed = setup.seed;
  }
  return 0;
}

int KsTwoSampleRun(const std::vector<LevelCounts>& levels, int64_t method) {
  int64_t nonempty = 0, n = 0, N = 0;
  for (const LevelCounts& l : levels) {
    if (l.first < 0 || l.second < 0) return static_cast<int>(fail::kNoMemory);
    n += l.first;
    N += l.first + l.second;
    if (N >= kTotalLimit) return static_cast<int>(fail::kNoMemory);
    nonempty += l.first + l.second > 0 ? 1 : 0;
  }
  if (nonempty < 2) return static_cast<int>(fail::kKsFewLevels);
  if (n == 0 || n == N) return static_cast<int>(fail::kKsEmptyFirst);

  Observed o;
  o.s = KsTwoSampleStats(levels);
  o.levels = static_cast<int64_t>(levels.size());
  o.asym[0] = KsTwoSampleAsymOneSided(o.s.plus, o.s.n, o.s.m);
  o.asym[1] = KsTwoSampleAsymOneSided(o.s.minus, o.s.n, o.s.m);
  o.asym[2] = KsTwoSampleAsymTwoSided(o.s.abs, o.s.n, o.s.m);
  UpdateElapsed();
  PublishAsymptotic(o, false);
  if (method == 3) return 0;

  if (method == 2) {
    net::McResult mc[3];
    if (const int code = MonteCarlo(levels, o.s, mc); code != 0) return code;
    PublishAsymptotic(o, true);
    for (int k = 0; k < 3; ++k) {
      PublishClamped(kSlots[k].mc, mc[k].estimate);
      PublishClamped(kSlots[k].mc_low, mc[k].low);
      PublishClamped(kSlots[k].mc_high, mc[k].high);
    }
    Publish(slot::kMcPercent, mc[2].percent);
    Publish(slot::kMcCount, static_cast<double>(mc[2].samples));
    Publish(slot::kMcSeed, mc[2].seed);
    SetWord(word::kPublishedMethod, 2);
    return 0;
  }

  KsTwoExact r;
  if (const int code = KsTwoSampleExact(levels, MemoryBudget(), r); code != 0) return code;
  UpdateElapsed();
  PublishAsymptotic(o, false);
  for (int k = 0; k < 3; ++k) {
    PublishClamped(kSlots[k].tail, r.tail[k]);
    PublishClamped(kSlots[k].point, r.point[k]);
  }
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

}  // namespace

KsTwoStats KsTwoSampleStats(const std::vector<LevelCounts>& levels) {
  KsTwoStats s;
  for (const LevelCounts& l : levels) {
    s.n += l.first;
    s.N += l.first + l.second;
  }
  s.m = s.N - s.n;
  int64_t A = 0, C = 0, top = 0, bottom = 0;
  for (const LevelCounts& l : levels) {
    A += l.first;
    C += l.first + l.second;
    const int64_t d = A * s.N - C * s.n;
    top = std::max(top, d);
    bottom = std::min(bottom, d);
  }
  s.plus = top;
  s.minus = -bottom;
  s.abs = std::max(s.plus, s.minus);
  return s;
}

namespace {
double ScaledZ(int64_t D, int64_t n, int64_t m) {
  const double d = static_cast<double>(D);
  return d * d / (static_cast<double>(n + m) * static_cast<double>(n) * static_cast<double>(m));
}
}  // namespace

double KsTwoSampleAsymOneSided(int64_t D, int64_t n, int64_t m) {
  if (D == 0) return 1.0;
  return std::exp(-2.0 * ScaledZ(D, n, m));
}

double KsTwoSampleAsymTwoSided(int64_t D, int64_t n, int64_t m) {
  if (D == 0) return 1.0;
  const double z = ScaledZ(D, n, m);
  double sum = 0.0;
  for (int j = 1; j <= kSeriesTerms; ++j) {
    const double e = 2.0 * j * j * z;
    const double term = e > kLogTermFloor ? 0.0 : std::exp(-e);
    sum += j % 2 == 1 ? term : -term;
    if (term <= kLastTerm) return 2.0 * sum;
  }
  return eng::KsLimitTwoSided(std::sqrt(z));
}

int KsTwoSampleExact(const std::vector<LevelCounts>& levels, int64_t budget_bytes, KsTwoExact& out) {
  const KsTwoStats s = KsTwoSampleStats(levels);
  const GridShape grid = GridFor(budget_bytes);
  if (grid.prime == 0) return static_cast<int>(fail::kTooFewNodes);
  const int64_t capacity = grid.rows * grid.slots_per_row;
  Network w;
  try {
    w.K = static_cast<int64_t>(levels.size());
    w.n = s.n;
    w.N = s.N;
    w.c.resize(w.K);
    w.C.assign(w.K + 1, 0);
    w.lb.resize(w.K);
    LogFactorialTable lf;
    BuildLogFactorials(lf);
    for (int64_t k = 0; k < w.K; ++k) {
      w.c[k] = levels[k].first + levels[k].second;
      w.C[k + 1] = w.C[k] + w.c[k];
      w.lb[k].resize(w.c[k] + 1);
      for (int64_t t = 0; t <= w.c[k]; ++t) w.lb[k][t] = LogBinomial(w.c[k], t, lf.data());
    }
    FillStageTable(w);
    if (RunStopped()) return static_cast<int>(FailureCode());
    int code = ForwardPass<0>(w, s.plus, capacity, out.tail[0], out.point[0]);
    if (code == 0) code = ForwardPass<1>(w, s.minus, capacity, out.tail[1], out.point[1]);
    if (code == 0) code = ForwardPass<2>(w, s.abs, capacity, out.tail[2], out.point[2]);
    return code;
  } catch (const std::bad_alloc&) {
    return static_cast<int>(fail::kNoMemory);
  }
}

void KsTwoSampleDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kKsTwoTraits, work);
  const RunStore& st = Store();
  if (code == 0 && (st.row_count != 2 || st.column_count < 2)) code = fail::kBadShape;
  if (code == 0) {
    std::vector<LevelCounts> levels(static_cast<size_t>(st.column_count));
    for (size_t j = 0; j < levels.size(); ++j) levels[j] = {work[2 * j], work[2 * j + 1]};
    const int64_t method = st.run_method == 2 || st.run_method == 3 ? st.run_method : 1;
    code = KsTwoSampleRun(levels, method);
  }
  EndDriver(code);
}

}  // namespace anvl::scores
