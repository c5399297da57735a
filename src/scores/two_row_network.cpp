#include "scores/two_row_network.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "kernel/log_factorial.h"
#include "kernel/log_sum.h"

namespace anvl::scores {
namespace {

constexpr double kLog2 = 0.6931471805599453;
// Rows of the grid when the budget allows, and the slots it sets aside.
constexpr int64_t kGridRows = 15000;
constexpr int64_t kBytesPerSlotShare = 20;
constexpr int64_t kReservedSlots = 4000;
// Half-width of the band around a bound, relative to the high bound.
constexpr double kBoundTolerance = 0x1p-23;
// The grid is near full when both stages hold this share of it.
constexpr double kCrowdedShare = 0.6;
// The running best of the stage order starts here (1e37 in single precision).
constexpr double kNoSpread = 9.999989792611011e36;
// Past values are bucketed on a grid of 2^-12 for the hash; beyond 2^52
// buckets their bits are hashed instead.
constexpr double kPastGrid = 4096.0;
constexpr double kExactBucketLimit = 4503599627370496.0;

thread_local int64_t t_peak_nodes = 0;

// What v observations add when they are handed to a list of columns in
// the list's order, each taking all it can: pc[k] and pv[k] are the count
// and the score sum of the first k columns, s[k] the score of column k.
struct GreedyFill {
  std::vector<int64_t> pc;
  std::vector<double> pv;
  std::vector<double> s;

  void Build(const int64_t* c, const double* score, int64_t n, int64_t step) {
    pc.assign(static_cast<size_t>(n) + 1, 0);
    pv.assign(static_cast<size_t>(n) + 1, 0.0);
    s.assign(static_cast<size_t>(n), 0.0);
    for (int64_t k = 0; k < n; ++k) {
      const int64_t i = k * step;
      pc[k + 1] = pc[k] + c[i];
      pv[k + 1] = pv[k] + static_cast<double>(c[i]) * score[i];
      s[k] = score[i];
    }
  }
  double Fill(int64_t v) const {
    if (v <= 0) return 0.0;
    const size_t n = s.size();
    // k: the columns taken whole, the largest k with pc[k] <= v.
    const size_t k = static_cast<size_t>(std::upper_bound(pc.begin(), pc.end(), v) - pc.begin()) - 1;
    double sum = pv[k];
    if (k < n && v > pc[k]) sum += static_cast<double>(v - pc[k]) * s[k];
    return sum;
  }
  // The same with column q of the list left out.
  double FillWithout(int64_t v, size_t q, int64_t cq) const {
    if (v <= 0) return 0.0;
    if (pc[q] >= v) return Fill(v);  // the columns before q hold v
    return Fill(v + cq) - static_cast<double>(cq) * s[q];
  }
};

// Exchange sort of whole columns by score, lowest first, over [0, n).
void SortByScoreAscending(std::vector<TwoRowColumn>& c, size_t n) {
  for (size_t i = 0; i + 1 < n; ++i)
    for (size_t j = i + 1; j < n; ++j)
      if (c[j].score < c[i].score) std::swap(c[i], c[j]);
}

bool StoppedByHostOrClock() {
  const int64_t code = FailureCode();
  return code == -6 || code == -7;
}

}  // namespace

int64_t LargestOddPrime(int64_t n) {
  for (int64_t p = (n % 2 == 0) ? n - 1 : n; p >= 3; p -= 2) {
    bool prime = true;
    for (int64_t d = 3; d * d <= p; d += 2)
      if (p % d == 0) {
        prime = false;
        break;
      }
    if (prime) return p;
  }
  return 0;
}

GridShape GridFor(int64_t budget_bytes) {
  GridShape g;
  const int64_t q = budget_bytes / kBytesPerSlotShare - kReservedSlots;
  if (q >= kGridRows) {
    g.rows = kGridRows;
    g.slots_per_row = q / kGridRows;
  } else {
    g.rows = std::max<int64_t>(q, 0);
    g.slots_per_row = 1;
  }
  g.prime = LargestOddPrime(g.rows);
  return g;
}

std::vector<TwoRowColumn> StageOrder(const std::vector<TwoRowColumn>& columns, bool balanced) {
  std::vector<TwoRowColumn> c;
  for (const TwoRowColumn& col : columns)
    if (col.first + col.second != 0) c.push_back(col);
  const size_t K = c.size();
  if (K == 0) return c;
  SortByScoreAscending(c, balanced ? K - 1 : K);

  int64_t rem = 0, tot = 0;
  for (const TwoRowColumn& col : c) {
    rem += col.first;
    tot += col.first + col.second;
  }
  std::vector<int64_t> counts(K);
  std::vector<double> scores(K);
  GreedyFill low, high;
  for (size_t p = 0; p < K && rem >= 0; ++p) {
    const size_t n = K - p;
    for (size_t i = 0; i < n; ++i) {
      counts[i] = c[p + i].first + c[p + i].second;
      scores[i] = c[p + i].score;
    }
    low.Build(counts.data(), scores.data(), static_cast<int64_t>(n), 1);
    high.Build(counts.data() + n - 1, scores.data() + n - 1, static_cast<int64_t>(n), -1);
    double best = kNoSpread;
    size_t chosen = 0;
    int64_t chosen_mid = 0;
    for (size_t i = 0; i < n; ++i) {
      const int64_t cq = counts[i];
      const int64_t mid = (std::min(cq, rem) + std::max<int64_t>(cq + rem - tot, 0)) / 2;
      const int64_t v = rem - mid;
      const double spread = high.FillWithout(v, n - 1 - i, cq) - low.FillWithout(v, i, cq);
      if (spread < best) {
        best = spread;
        chosen = i;
        chosen_mid = mid;
      }
    }
    std::rotate(c.begin() + static_cast<std::ptrdiff_t>(p),
                c.begin() + static_cast<std::ptrdiff_t>(p + chosen),
                c.begin() + static_cast<std::ptrdiff_t>(p + chosen + 1));
    tot -= counts[chosen];
    rem -= chosen_mid;
  }
  return c;
}

int64_t LastNetworkPeakNodes() { return t_peak_nodes; }

namespace {

// The nodes of one first-row sum in the stage being built: an
// open-addressed table over the past value (a NaN past marks a free slot),
// at most half full.  A stage's successors of one first-row sum fall into
// the few tables of the sums just above it, which stay in cache.
class KeyTable {
 public:
  int64_t size() const { return used_; }
  // Merges into a node within `tol` of `p`, or takes a new one; false when
  // a new node is needed and `room` is false.
  bool Add(double p, double l, double tol, bool room, bool& fresh) {
    fresh = false;
    if (2 * (used_ + 1) > static_cast<int64_t>(past_.size())) Grow();
    const uint64_t mask = past_.size() - 1;
    for (uint64_t q = Slot(p) & mask;; q = (q + 1) & mask) {
      const double pq = past_[q];
      if (std::isnan(pq)) {
        if (!room) return false;
        past_[q] = p;
        logw_[q] = l;
        ++used_;
        fresh = true;
        return true;
      }
      if (std::fabs(pq - p) <= tol) {
        logw_[q] = LogSum(logw_[q], l);
        return true;
      }
    }
  }
  template <class Visit>
  void ForEach(Visit&& visit) const {
    for (size_t q = 0; q < past_.size(); ++q)
      if (!std::isnan(past_[q])) visit(past_[q], logw_[q]);
  }
  void Clear() {
    past_.clear();
    logw_.clear();
    used_ = 0;
  }

 private:
  static uint64_t Slot(double p) {
    const double scaled = p * kPastGrid;
    uint64_t b;
    if (std::fabs(scaled) < kExactBucketLimit) {
      b = static_cast<uint64_t>(std::llround(scaled));
    } else {
      std::memcpy(&b, &p, sizeof b);
    }
    b *= 0x9E3779B97F4A7C15ull;
    return b ^ (b >> 31);
  }
  void Grow() {
    const size_t cap = past_.empty() ? 16 : 2 * past_.size();
    std::vector<double> old_past(cap, std::nan("")), old_logw(cap);
    old_past.swap(past_);
    old_logw.swap(logw_);
    const uint64_t mask = cap - 1;
    for (size_t i = 0; i < old_past.size(); ++i) {
      if (std::isnan(old_past[i])) continue;
      uint64_t q = Slot(old_past[i]) & mask;
      while (!std::isnan(past_[q])) q = (q + 1) & mask;
      past_[q] = old_past[i];
      logw_[q] = old_logw[i];
    }
  }

  std::vector<double> past_, logw_;
  int64_t used_ = 0;
};

// The nodes of a finished stage, grouped by first-row sum.
struct StageNodes {
  std::vector<int64_t> x;
  std::vector<double> past, logw;
  void Clear() {
    x.clear();
    past.clear();
    logw.clear();
  }
};

}  // namespace

template <class Form>
int TwoRowNetwork(const std::vector<TwoRowColumn>& columns, double high_bound, double low_bound,
                  int64_t budget_bytes, TwoRowTails& out) {
  out = TwoRowTails{};
  t_peak_nodes = 0;
  constexpr bool kBalanced = Form::kBalanced;
  constexpr FactorialRoute kRoute = FactorialRoute::kTableBelow500LogGamma;

  int nonempty = 0;
  for (const TwoRowColumn& col : columns)
    if (col.first + col.second != 0) ++nonempty;
  if (nonempty < 2) return -4;
  const std::vector<TwoRowColumn> order = StageOrder(columns, kBalanced);
  const int64_t K = static_cast<int64_t>(order.size());
  std::vector<int64_t> c(static_cast<size_t>(K)), C(static_cast<size_t>(K) + 1, 0);
  std::vector<double> sc(static_cast<size_t>(K));
  int64_t m = 0, cmax = 0;
  for (int64_t j = 0; j < K; ++j) {
    c[j] = order[j].first + order[j].second;
    sc[j] = order[j].score;
    C[j + 1] = C[j] + c[j];
    m += order[j].first;
    cmax = std::max(cmax, c[j]);
  }
  const int64_t N = C[K];

  // Per-stage caches, by take and by the new first-row sum, must fit the
  // budget beside the nodes.
  int64_t xspan = 0;
  for (int64_t k = 0; k <= K; ++k)
    xspan = std::max(xspan, std::min(m, C[k]) - std::max<int64_t>(m - N + C[k], 0) + 1);
  const int64_t take_len = std::min(m, cmax) + 1;
  if ((3 * xspan + 2 * take_len) * static_cast<int64_t>(sizeof(double)) > budget_bytes)
    return -1;
  // The grid: the nodes of two adjacent stages, R x S of them at most.
  const GridShape g = GridFor(budget_bytes);
  if (g.prime == 0) return -1;
  const int64_t capacity = g.rows * g.slots_per_row;

  std::vector<double> take_value(static_cast<size_t>(take_len)),
      take_log(static_cast<size_t>(take_len)), rest_min(static_cast<size_t>(xspan)),
      rest_max(static_cast<size_t>(xspan)), rest_log(static_cast<size_t>(xspan));
  std::vector<KeyTable> tables(static_cast<size_t>(xspan));
  LogFactorialTable lf;
  BuildLogFactorials(lf);

  // Bands of the balanced form's tables over the range of the score sum.
  const int64_t bands = static_cast<int64_t>(tables.size());
  double band_scale = 0.0;
  if (kBalanced) {
    double top = 0.0;
    for (int64_t j = 0; j < K; ++j) top += static_cast<double>(c[j]) * std::fabs(sc[j]);
    band_scale = top > 0.0 ? static_cast<double>(bands) / top : 0.0;
  }

  StageNodes old;
  old.x.push_back(0);
  old.past.push_back(0.0);
  old.logw.push_back(kBalanced ? -static_cast<double>(m) * kLog2
                               : -LogBinomial(N, m, lf.data(), kRoute));
  int64_t count = 1;

  const double e = std::fabs(high_bound) * kBoundTolerance;
  const double high_up = high_bound + e, high_down = high_bound - e;
  const double low_up = low_bound + e, low_down = low_bound - e;
  const double crowded = kCrowdedShare * static_cast<double>(capacity);

  std::vector<int64_t> rest_c;
  std::vector<double> rest_s;
  GreedyFill from_high, from_low;
  double hi_tail = 0.0, lo_tail = 0.0, middle = 0.0;
  int64_t x_lo = 0, x_hi = 0;

  for (int64_t s = 0; s < K; ++s) {
    const int64_t cs = c[s], Cn = C[s + 1];
    const double ss = sc[s];
    const bool weightless = kBalanced && s == K - 1;  // the balancing column

    // Caches of the stage.
    const int64_t max_take = std::min(cs, m);
    for (int64_t t = 0; t <= max_take; ++t) {
      take_value[t] = ss * static_cast<double>(t);
      take_log[t] = weightless ? 0.0 : LogBinomial(cs, t, lf.data(), kRoute);
    }
    rest_c.clear();
    rest_s.clear();
    for (int64_t j = s + 1; j < K; ++j) {
      rest_c.push_back(c[j]);
      rest_s.push_back(sc[j]);
    }
    {  // the later columns by score, highest first
      std::vector<size_t> idx(rest_c.size());
      for (size_t i = 0; i < idx.size(); ++i) idx[i] = i;
      std::stable_sort(idx.begin(), idx.end(),
                       [&](size_t a, size_t b) { return rest_s[a] > rest_s[b]; });
      std::vector<int64_t> hc(idx.size());
      std::vector<double> hs(idx.size());
      for (size_t i = 0; i < idx.size(); ++i) {
        hc[i] = rest_c[idx[i]];
        hs[i] = rest_s[idx[i]];
      }
      const int64_t n = static_cast<int64_t>(idx.size());
      from_high.Build(hc.data(), hs.data(), n, 1);
      if (n > 0)
        from_low.Build(hc.data() + n - 1, hs.data() + n - 1, n, -1);
      else
        from_low.Build(hc.data(), hs.data(), 0, 1);
    }
    x_lo = std::max<int64_t>(Cn - N + m, 0);
    x_hi = std::min(m, Cn);
    for (int64_t xp = x_lo; xp <= x_hi; ++xp) {
      const int64_t v = m - xp;
      double a = from_low.Fill(v), b = from_high.Fill(v);
      if (kBalanced && a > b) std::swap(a, b);
      rest_min[xp - x_lo] = a;
      rest_max[xp - x_lo] = b;
      rest_log[xp - x_lo] = kBalanced ? static_cast<double>(m - Cn) * kLog2
                                      : LogBinomial(N - Cn, m - xp, lf.data(), kRoute);
    }

    SendLongRunNote(0);
    bool crowded_note = false;
    int64_t fresh = 0;
    for (size_t i = 0; i < old.x.size(); ++i) {
      const int64_t x = old.x[i];
      const double node_past = old.past[i], node_log = old.logw[i];
      // In the balanced form every real column is free (0 .. c), the bounds
      // of the rest and its weight don't depend on the first-row count, and
      // the balancing column adds nothing: nodes are keyed by their past
      // value alone (first-row count 0), which merges paths that only the
      // balancing column would have told apart.
      const int64_t lo = kBalanced ? 0 : std::max(x, x_lo);
      const int64_t hi = kBalanced ? (weightless ? 0 : cs) : std::min(x_hi, x + cs);
      for (int64_t xp = lo; xp <= hi; ++xp) {
        const int64_t take = xp - x;
        const double np = node_past + take_value[take];
        const double nl = node_log + take_log[take];
        const int64_t ix = kBalanced ? 0 : xp - x_lo;
        // The balanced form's table: by the node's score sum, in bands, so
        // that neighbouring nodes and their successors share small tables.
        const int64_t tx = kBalanced ? std::clamp<int64_t>(static_cast<int64_t>(np * band_scale), 0,
                                                           bands - 1)
                                     : ix;
        const double reach_min = np + rest_min[ix], reach_max = np + rest_max[ix];
        bool settled = true;
        if (reach_min > high_up)
          hi_tail += std::exp(rest_log[ix] + nl);
        else if (reach_max < low_down)
          lo_tail += std::exp(rest_log[ix] + nl);
        else if (reach_max < high_down && reach_min > low_up)
          middle += std::exp(rest_log[ix] + nl);
        else
          settled = false;
        if (Tick()) SendExactEstimateLine(hi_tail + lo_tail, 1.0 - middle);
        if (settled) continue;

        bool added = false;
        if (!tables[tx].Add(np, nl, std::fabs(np) * Form::kMergeTolerance,
                            fresh + count < capacity, added))
          return -1;  // the grid is full
        if (!added) continue;
        ++fresh;
        const double held = static_cast<double>(static_cast<float>(fresh + count));
        if (!crowded_note && held >= crowded) {
          SendLongRunNote(1);
          crowded_note = true;
        } else if (crowded_note && held < crowded) {
          SendLongRunNote(0);
          crowded_note = false;
        }
      }
      if (StoppedByHostOrClock()) return static_cast<int>(FailureCode());
    }
    t_peak_nodes = std::max(t_peak_nodes, fresh + count);

    // The new stage becomes the old one, grouped by first-row sum.
    old.Clear();
    for (int64_t xp = x_lo; xp <= (kBalanced ? x_lo + bands - 1 : x_hi); ++xp) {
      KeyTable& t = tables[xp - x_lo];
      t.ForEach([&](double p, double l) {
        old.x.push_back(kBalanced ? 0 : xp);
        old.past.push_back(p);
        old.logw.push_back(l);
      });
      t.Clear();
    }
    count = fresh;
    if (count == 0) break;
  }

  out.high_tail = hi_tail;
  out.low_tail = lo_tail;
  out.middle = middle;
  if (count > 0) {
    for (size_t i = 0; i < old.x.size(); ++i) {
      const double w = std::exp(old.logw[i]);
      if (std::fabs(old.past[i] - high_bound) <= e) out.high_point += w;
      if (std::fabs(old.past[i] - low_bound) <= e) out.low_point += w;
    }
  }
  return 0;
}

template int TwoRowNetwork<PlainForm>(const std::vector<TwoRowColumn>&, double, double, int64_t,
                                      TwoRowTails&);
template int TwoRowNetwork<BalancedForm>(const std::vector<TwoRowColumn>&, double, double,
                                         int64_t, TwoRowTails&);
template int TwoRowNetwork<BalancedCoarseForm>(const std::vector<TwoRowColumn>&, double, double,
                                               int64_t, TwoRowTails&);

}  // namespace anvl::scores
