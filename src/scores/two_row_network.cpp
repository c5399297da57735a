#include "scores/two_row_network.h"

#include <algorithm>
#include <cmath>
#include <climits>
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
// The route that tests ask for: 0 by the scores, else hashed or flagged.
constexpr int kRouteHashed = 1, kRouteFlagged = 2;
thread_local int t_route = 0;

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

// The columns in stage order and what every pass reads of them.
struct Network {
  int64_t K = 0, m = 0, N = 0;
  std::vector<int64_t> c, C;  // column totals; C[s]: the first s of them
  std::vector<double> sc;
  int64_t xspan = 0, take_len = 0;
  int64_t capacity = 0;  // nodes of two adjacent stages that the grid holds
};

// The caches of one pass: the value and log weight of every take of the
// column, and for every new first-row sum x' the least and the largest
// score sum that the later columns can add and the log weight of their
// ways.  Filled once per pass, read once per edge.
struct PassCaches {
  std::vector<double> take_value, take_log, rest_min, rest_max, rest_log;
  int64_t x_lo = 0, x_hi = 0;  // the first-row sums that the new stage admits
  std::vector<int64_t> rest_c, hc;
  std::vector<double> rest_s, hs;
  std::vector<size_t> idx;
  GreedyFill from_high, from_low;

  void Allocate(const Network& net) {
    take_value.assign(static_cast<size_t>(net.take_len), 0.0);
    take_log.assign(static_cast<size_t>(net.take_len), 0.0);
    rest_min.assign(static_cast<size_t>(net.xspan), 0.0);
    rest_max.assign(static_cast<size_t>(net.xspan), 0.0);
    rest_log.assign(static_cast<size_t>(net.xspan), 0.0);
  }

  template <bool kBalanced>
  void Fill(const Network& net, int64_t s, const double* lf) {
    constexpr FactorialRoute kRoute = FactorialRoute::kTableBelow500LogGamma;
    const int64_t K = net.K, m = net.m, N = net.N, cs = net.c[s], Cn = net.C[s + 1];
    const double ss = net.sc[s];
    const bool weightless = kBalanced && s == K - 1;  // the balancing column
    const int64_t max_take = std::min(cs, m);
    for (int64_t t = 0; t <= max_take; ++t) {
      take_value[t] = ss * static_cast<double>(t);
      take_log[t] = weightless ? 0.0 : LogBinomial(cs, t, lf, kRoute);
    }
    rest_c.clear();
    rest_s.clear();
    for (int64_t j = s + 1; j < K; ++j) {
      rest_c.push_back(net.c[j]);
      rest_s.push_back(net.sc[j]);
    }
    // the later columns by score, highest first
    idx.resize(rest_c.size());
    for (size_t i = 0; i < idx.size(); ++i) idx[i] = i;
    std::stable_sort(idx.begin(), idx.end(),
                     [&](size_t a, size_t b) { return rest_s[a] > rest_s[b]; });
    hc.resize(idx.size());
    hs.resize(idx.size());
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
    x_lo = std::max<int64_t>(Cn - N + m, 0);
    x_hi = std::min(m, Cn);
    for (int64_t xp = x_lo; xp <= x_hi; ++xp) {
      const int64_t v = m - xp;
      double a = from_low.Fill(v), b = from_high.Fill(v);
      if (kBalanced && a > b) std::swap(a, b);
      rest_min[xp - x_lo] = a;
      rest_max[xp - x_lo] = b;
      rest_log[xp - x_lo] = kBalanced ? static_cast<double>(m - Cn) * kLog2
                                      : LogBinomial(N - Cn, m - xp, lf, kRoute);
    }
  }
};

// The cuts around the two bounds and the accumulators of settled mass.
struct Cuts {
  double high_bound, low_bound, e, high_up, high_down, low_up, low_down;
  Cuts(double high, double low)
      : high_bound(high), low_bound(low), e(std::fabs(high) * kBoundTolerance),
        high_up(high + e), high_down(high - e), low_up(low + e), low_down(low - e) {}
};

// Sends the note of a crowded grid when the nodes of the two stages reach
// its share of the grid.
struct CrowdNote {
  double crowded;
  bool on = false;
  void Update(int64_t held_nodes) {
    const double held = static_cast<double>(static_cast<float>(held_nodes));
    if (!on && held >= crowded) {
      SendLongRunNote(1);
      on = true;
    } else if (on && held < crowded) {
      SendLongRunNote(0);
      on = false;
    }
  }
};

// The passes over nodes in hashed tables: any scores.  A node's past value
// is the first one that reached it; later paths within the merge tolerance
// add their weight to it in log space.
template <class Form>
int HashedPasses(const Network& net, const Cuts& cut, const double* lf, PassCaches& pc,
                 TwoRowTails& out) {
  constexpr bool kBalanced = Form::kBalanced;
  const int64_t K = net.K, m = net.m;
  std::vector<KeyTable> tables(static_cast<size_t>(net.xspan));

  // Bands of the balanced form's tables over the range of the score sum.
  const int64_t bands = static_cast<int64_t>(tables.size());
  double band_scale = 0.0;
  if (kBalanced) {
    double top = 0.0;
    for (int64_t j = 0; j < K; ++j) top += static_cast<double>(net.c[j]) * std::fabs(net.sc[j]);
    band_scale = top > 0.0 ? static_cast<double>(bands) / top : 0.0;
  }

  StageNodes old;
  old.x.push_back(0);
  old.past.push_back(0.0);
  old.logw.push_back(kBalanced ? -static_cast<double>(m) * kLog2
                               : -LogBinomial(net.N, m, lf, FactorialRoute::kTableBelow500LogGamma));
  int64_t count = 1;
  double hi_tail = 0.0, lo_tail = 0.0, middle = 0.0;

  for (int64_t s = 0; s < K; ++s) {
    const int64_t cs = net.c[s];
    const bool weightless = kBalanced && s == K - 1;
    pc.Fill<kBalanced>(net, s, lf);
    const int64_t x_lo = pc.x_lo, x_hi = pc.x_hi;

    SendLongRunNote(0);
    CrowdNote note{kCrowdedShare * static_cast<double>(net.capacity)};
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
        const double np = node_past + pc.take_value[take];
        const double nl = node_log + pc.take_log[take];
        const int64_t ix = kBalanced ? 0 : xp - x_lo;
        // The balanced form's table: by the node's score sum, in bands, so
        // that neighbouring nodes and their successors share small tables.
        const int64_t tx = kBalanced ? std::clamp<int64_t>(static_cast<int64_t>(np * band_scale), 0,
                                                           bands - 1)
                                     : ix;
        const double reach_min = np + pc.rest_min[ix], reach_max = np + pc.rest_max[ix];
        bool settled = true;
        if (reach_min > cut.high_up)
          hi_tail += std::exp(pc.rest_log[ix] + nl);
        else if (reach_max < cut.low_down)
          lo_tail += std::exp(pc.rest_log[ix] + nl);
        else if (reach_max < cut.high_down && reach_min > cut.low_up)
          middle += std::exp(pc.rest_log[ix] + nl);
        else
          settled = false;
        if (Tick()) SendExactEstimateLine(hi_tail + lo_tail, 1.0 - middle);
        if (settled) continue;

        bool added = false;
        if (!tables[tx].Add(np, nl, std::fabs(np) * Form::kMergeTolerance,
                            fresh + count < net.capacity, added))
          return -1;  // the grid is full
        if (!added) continue;
        ++fresh;
        note.Update(fresh + count);
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
      if (std::fabs(old.past[i] - cut.high_bound) <= cut.e) out.high_point += w;
      if (std::fabs(old.past[i] - cut.low_bound) <= cut.e) out.low_point += w;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Lattice passes.  When every score is a whole multiple of h = 2^-q and the
// score sums stay well inside the doubles' integers, every past value is an
// exact double j*h, two paths meet in one node exactly when their sums are
// equal (the merge tolerance is below h/4 over the whole range), and a
// node's place is its lattice index j.  A stage then keeps, per first-row
// sum, one or two dense runs of lattice indices: the alive part of the
// reachable range.  The nodes are the same as those of the hashed passes
// (the same cuts, evaluated on the same doubles, and the same merges); a
// pass costs one scaled vector add per (node row, take) over the part of a
// run that stays alive, and one prefix sum per part that settles.

// Shifts q of the lattice tried, and the largest score sum in lattice units.
constexpr int kLatticeShiftLimit = 16;
constexpr double kLatticeTop = 1125899906842624.0;  // 2^50
// Weights above exp(-kUnflaggedLogFloor) stay normal doubles (2^-1022 is
// about exp(-708.4)), with room for the rounding of the scales.
constexpr double kUnflaggedLogFloor = 700.0;

// q with every score a multiple of 2^-q and sums exact, or -1.
template <class Form>
int LatticeShift(const Network& net) {
  double top = 0.0;
  for (int64_t j = 0; j < net.K; ++j) top += static_cast<double>(net.c[j]) * std::fabs(net.sc[j]);
  for (int q = 0; q <= kLatticeShiftLimit; ++q) {
    const double unit = std::ldexp(1.0, q);
    bool whole = true;
    for (int64_t j = 0; j < net.K && whole; ++j) {
      const double v = net.sc[j] * unit;
      whole = std::isfinite(v) && v == std::floor(v);
    }
    if (!whole) continue;
    if (!(top * unit < kLatticeTop)) return -1;
    // No two distinct sums may merge: |past| * tolerance stays below h/4.
    if (!(top * Form::kMergeTolerance * unit < 0.25)) return -1;
    return q;
  }
  return -1;
}

// A row of a stage: the nodes of one first-row sum, as up to two runs of
// lattice indices [lo, hi] stored from `off`, with weights
// w * exp(rho).
struct LatticeRow {
  double rho = 0.0;
  int runs = 0;
  int64_t lo[2] = {0, 0}, hi[2] = {0, 0};
  size_t off[2] = {0, 0};
  // While the stage is built: its takes, and its cuts as lattice indices
  // (above jh: high tail; below jl: low tail; mid_lo..mid_hi: between).
  int64_t t_lo = 0, t_hi = -1, jh = 0, jl = 0, mid_lo = 0, mid_hi = -1;
};

// One stage: rows by first-row sum from `row0`, and per entry the scaled
// weight, whether a path reached it, and (once the stage is complete)
// compensated prefix and suffix sums of the weights within its run.  The
// arrays are kept from stage to stage and grow without copying, since a
// stage's entries are laid out before they are written.
struct LatticeStage {
  int64_t row0 = 0;
  std::vector<LatticeRow> rows;
  std::unique_ptr<double[]> w, pre, suf;
  std::unique_ptr<uint8_t[]> on;
  size_t room = 0, used = 0;

  void Begin(int64_t first_row, int64_t row_count) {
    row0 = first_row;
    rows.assign(static_cast<size_t>(row_count), LatticeRow{});
    used = 0;
  }
  // Offset of n more entries.
  size_t Lay(size_t n) {
    const size_t at = used;
    used += n;
    return at;
  }
  // Room for the entries laid out, at most `most` of them; false when it
  // can't be had.
  bool Allocate(bool flags, size_t most) {
    if (used <= room && (!flags || on)) return true;
    const size_t n = std::max(used, std::min(most, room + room / 2));
    w.reset(new (std::nothrow) double[n]);
    pre.reset(new (std::nothrow) double[n]);
    suf.reset(new (std::nothrow) double[n]);
    if (flags) on.reset(new (std::nothrow) uint8_t[n]);
    room = n;
    return w && pre && suf && (!flags || on);
  }
};

// A scaled add of a pass: new entries [to, ..) += f * old entries
// [from, ..), over the tile coordinates u in [ua, ub].
struct AddJob {
  int64_t ua, ub;
  size_t from, to;
  double f;
};
// New rows that are finished together, and the tile width in entries:
// the old rows of a block's takes and its new rows, one tile wide, stay
// within the second-level cache.
constexpr int64_t kBlockRows = 32;
constexpr int64_t kTileEntries = 512;

// Smallest j in [a, b] with pred(j), pred false then true along j; b + 1
// when there is none.
template <class Pred>
int64_t FirstTrue(int64_t a, int64_t b, Pred pred) {
  int64_t lo = a, hi = b + 1;
  while (lo < hi) {
    const int64_t mid = lo + (hi - lo) / 2;
    if (pred(mid))
      hi = mid;
    else
      lo = mid + 1;
  }
  return lo;
}

// dst[i] += f * src[i] over n entries: the inner loop of a pass, in a
// vector build for the processors that have one.
__attribute__((target_clones("avx2", "default"), optimize("tree-vectorize")))
void AddScaled(double* __restrict dst, const double* __restrict src, double f, int64_t n) {
  for (int64_t i = 0; i < n; ++i) dst[i] += f * src[i];
}
__attribute__((target_clones("avx2", "default"), optimize("tree-vectorize")))
void AddReached(uint8_t* __restrict dst, const uint8_t* __restrict src, int64_t n) {
  for (int64_t i = 0; i < n; ++i) dst[i] |= src[i];
}

// Compensated running sums of w[0..n) from the left and from the right.
void RunSums(const double* w, double* pre, double* suf, int64_t n) {
  double sum = 0.0, comp = 0.0;
  for (int64_t i = 0; i < n; ++i) {
    const double t = sum + w[i];
    comp += (sum - t) + w[i];  // the terms are >= 0 and sum >= each of them
    sum = t;
    pre[i] = sum + comp;
  }
  sum = comp = 0.0;
  for (int64_t i = n - 1; i >= 0; --i) {
    const double t = sum + w[i];
    comp += (sum - t) + w[i];
    sum = t;
    suf[i] = sum + comp;
  }
}

// Returned by the lattice passes when the entries of two stages would take
// more memory than they may: the runs are sparse on the lattice there, and
// the hashed passes, which hold nodes only, take over from the start.
constexpr int kLatticeOutgrown = 1;
constexpr int64_t kLatticeExtraBytes = int64_t{1} << 30;

template <class Form>
int LatticePasses(const Network& net, const Cuts& cut, const double* lf, PassCaches& pc,
                  int shift, int64_t budget_bytes, TwoRowTails& out) {
  constexpr bool kBalanced = Form::kBalanced;
  const int64_t K = net.K, m = net.m;
  const double h = std::ldexp(1.0, -shift);
  std::vector<int64_t> step(static_cast<size_t>(K));
  for (int64_t j = 0; j < K; ++j) step[j] = static_cast<int64_t>(std::ldexp(net.sc[j], shift));

  // Every node's weight is at least 1 / C(N, m) (plain) or 2^-m (balanced),
  // and a row's scale is at most 1: where that floor is a normal double, a
  // node is reached exactly when its scaled weight is positive.  Else a
  // flag per entry says so.
  const double floor_log = kBalanced ? static_cast<double>(m) * kLog2
                                     : LogBinomial(net.N, m, lf, FactorialRoute::kTableBelow500LogGamma);
  const bool track = !(floor_log < kUnflaggedLogFloor) || t_route == kRouteFlagged;
  const size_t entry_bytes = 3 * sizeof(double) + (track ? 1 : 0);
  // The runs also hold lattice points that no path reaches: they may take
  // up to four times the budget, but never more than 1 GiB beyond it.
  const size_t byte_limit = static_cast<size_t>(budget_bytes) +
                            static_cast<size_t>(std::min(3 * budget_bytes, kLatticeExtraBytes));
  LatticeStage a, b;
  LatticeStage* src = &a;
  LatticeStage* dst = &b;
  src->Begin(0, 1);
  {
    LatticeRow& r = src->rows[0];
    r.rho = kBalanced ? -static_cast<double>(m) * kLog2
                      : -LogBinomial(net.N, m, lf, FactorialRoute::kTableBelow500LogGamma);
    r.runs = 1;
    r.off[0] = src->Lay(1);
    if (!src->Allocate(track, 1)) return -1;
    src->w[r.off[0]] = 1.0;
    if (track) src->on[r.off[0]] = 1;
    RunSums(&src->w[r.off[0]], &src->pre[r.off[0]], &src->suf[r.off[0]], 1);
  }
  int64_t count = 1;
  double hi_tail = 0.0, lo_tail = 0.0, middle = 0.0;
  std::vector<AddJob> jobs;

  for (int64_t s = 0; s < K; ++s) {
    const int64_t cs = net.c[s], k = step[s];
    const bool weightless = kBalanced && s == K - 1;
    pc.Fill<kBalanced>(net, s, lf);
    const int64_t x_lo = kBalanced ? 0 : pc.x_lo, x_hi = kBalanced ? 0 : pc.x_hi;
    const int64_t src_lo = src->row0, src_hi = src->row0 + static_cast<int64_t>(src->rows.size()) - 1;
    dst->Begin(x_lo, x_hi - x_lo + 1);

    SendLongRunNote(0);
    CrowdNote note{kCrowdedShare * static_cast<double>(net.capacity)};
    int64_t fresh = 0;
    // Layout: for each new row its takes, scale, cuts and runs.
    for (int64_t xp = x_lo; xp <= x_hi; ++xp) {
      LatticeRow& row = dst->rows[static_cast<size_t>(xp - x_lo)];
      row.t_lo = kBalanced ? 0 : std::max<int64_t>(0, xp - src_hi);
      row.t_hi = kBalanced ? (weightless ? 0 : cs) : std::min(cs, xp - src_lo);
      double rho = -HUGE_VAL;
      int64_t reach_lo = INT64_MAX, reach_hi = INT64_MIN;
      for (int64_t t = row.t_lo; t <= row.t_hi; ++t) {
        const LatticeRow& r = src->rows[static_cast<size_t>((kBalanced ? 0 : xp - t) - src_lo)];
        if (r.runs == 0) continue;
        rho = std::max(rho, r.rho + pc.take_log[t]);
        reach_lo = std::min(reach_lo, r.lo[0] + t * k);
        reach_hi = std::max(reach_hi, r.hi[r.runs - 1] + t * k);
      }
      if (reach_lo > reach_hi) {
        row.t_hi = row.t_lo - 1;
        continue;
      }
      // The cuts of this row as lattice indices, on the doubles j*h.
      const int64_t ix = kBalanced ? 0 : xp - pc.x_lo;
      const double rmin = pc.rest_min[ix], rmax = pc.rest_max[ix];
      const int64_t a0 = reach_lo - 1, b0 = reach_hi + 1;
      const auto past = [h](int64_t j) { return static_cast<double>(j) * h; };
      const int64_t jH = FirstTrue(a0, b0, [&](int64_t j) { return past(j) + rmin > cut.high_up; }) - 1;
      const int64_t jL = FirstTrue(a0, b0, [&](int64_t j) { return !(past(j) + rmax < cut.low_down); });
      const int64_t jMh = FirstTrue(a0, b0, [&](int64_t j) { return !(past(j) + rmax < cut.high_down); });
      const int64_t jMl = FirstTrue(a0, b0, [&](int64_t j) { return past(j) + rmin > cut.low_up; }) - 1;
      // Alive: [jL, jH] less the middle (jMl, jMh).
      row.jh = jH;
      row.jl = jL;
      row.mid_lo = std::max(jL, jMl + 1);
      row.mid_hi = std::min(jH, jMh - 1);
      row.rho = rho;
      const auto add_run = [&](int64_t lo, int64_t hi) {
        lo = std::max(lo, reach_lo);
        hi = std::min(hi, reach_hi);
        if (lo > hi) return;
        if (row.runs > 0 && lo <= row.hi[row.runs - 1] + 1) {  // joins the previous run
          row.hi[row.runs - 1] = std::max(row.hi[row.runs - 1], hi);
          return;
        }
        row.lo[row.runs] = lo;
        row.hi[row.runs] = hi;
        ++row.runs;
      };
      if (row.mid_lo > row.mid_hi) {
        add_run(jL, jH);
      } else {
        add_run(jL, row.mid_lo - 1);
        add_run(row.mid_hi + 1, jH);
      }
      for (int r = 0; r < row.runs; ++r) row.off[r] = dst->Lay(static_cast<size_t>(row.hi[r] - row.lo[r] + 1));
    }
    if ((src->used + dst->used) * entry_bytes > byte_limit) return kLatticeOutgrown;
    if (!dst->Allocate(track, byte_limit / entry_bytes - src->used)) return -1;
    double* const dw = dst->w.get();
    uint8_t* const don = track ? dst->on.get() : nullptr;
    const double* const sw = src->w.get();
    const uint8_t* const son = track ? src->on.get() : nullptr;

    for (int64_t xa = x_lo; xa <= x_hi; xa += kBlockRows) {
      const int64_t xb = std::min(x_hi, xa + kBlockRows - 1);
      jobs.clear();
      int64_t u_lo = INT64_MAX, u_hi = INT64_MIN;
      for (int64_t xp = xa; xp <= xb; ++xp) {
        const LatticeRow& row = dst->rows[static_cast<size_t>(xp - x_lo)];
        for (int r = 0; r < row.runs; ++r) {
          std::fill(dw + row.off[r], dw + row.off[r] + (row.hi[r] - row.lo[r] + 1), 0.0);
          if (track) std::fill(don + row.off[r], don + row.off[r] + (row.hi[r] - row.lo[r] + 1), uint8_t{0});
        }
        const int64_t ix = kBalanced ? 0 : xp - pc.x_lo;
        const double rlog = pc.rest_log[ix];
        // The tiles below work in u = (new lattice index) - x' * k, where a
        // plain pass keeps u from the old node to the new one.
        const int64_t skew = kBalanced ? 0 : xp * k;
        for (int64_t t = row.t_lo; t <= row.t_hi; ++t) {
          const LatticeRow& r = src->rows[static_cast<size_t>((kBalanced ? 0 : xp - t) - src_lo)];
          if (r.runs == 0) continue;
          const double base = r.rho + pc.take_log[t];
          const double f = std::exp(base - row.rho);
          double settle = -1.0;  // exp(base + rlog), on first use
          const int64_t d = t * k;
          for (int q = 0; q < r.runs; ++q) {
            const int64_t lo = r.lo[q], hi = r.hi[q];
            const double* pre = src->pre.get() + r.off[q];  // entry i - lo
            const double* suf = src->suf.get() + r.off[q];
            const int64_t above = std::max(lo, row.jh + 1 - d);
            const int64_t below = std::min(hi, std::min(row.jl - 1, row.jh) - d);
            const int64_t m_lo = std::max(lo, row.mid_lo - d), m_hi = std::min(hi, row.mid_hi - d);
            if (above <= hi || below >= lo || m_lo <= m_hi) {
              if (settle < 0.0) settle = std::exp(base + rlog);
              if (above <= hi) hi_tail += settle * suf[above - lo];
              if (below >= lo) lo_tail += settle * pre[below - lo];
              if (m_lo <= m_hi)
                middle += settle * (pre[m_hi - lo] - (m_lo > lo ? pre[m_lo - 1 - lo] : 0.0));
            }
            for (int u = 0; u < row.runs; ++u) {
              const int64_t i0 = std::max(lo, row.lo[u] - d), i1 = std::min(hi, row.hi[u] - d);
              if (i0 > i1) continue;
              AddJob job;
              job.ua = i0 + d - skew;
              job.ub = i1 + d - skew;
              job.from = r.off[q] + static_cast<size_t>(i0 - lo);
              job.to = row.off[u] + static_cast<size_t>(i0 + d - row.lo[u]);
              job.f = f;
              jobs.push_back(job);
              u_lo = std::min(u_lo, job.ua);
              u_hi = std::max(u_hi, job.ub);
            }
          }
          if (Tick()) SendExactEstimateLine(hi_tail + lo_tail, 1.0 - middle);
        }
      }

      // The scaled adds of the block, tile by tile, so that the old rows
      // that feed the block and its new rows stay in cache.
      for (int64_t ut = u_lo; ut <= u_hi; ut += kTileEntries) {
        const int64_t ue = std::min(u_hi, ut + kTileEntries - 1);
        for (const AddJob& job : jobs) {
          const int64_t ja = std::max(job.ua, ut), jb = std::min(job.ub, ue);
          if (ja > jb) continue;
          const size_t from = job.from + static_cast<size_t>(ja - job.ua);
          const size_t to = job.to + static_cast<size_t>(ja - job.ua);
          AddScaled(dw + to, sw + from, job.f, jb - ja + 1);
          if (track) AddReached(don + to, son + from, jb - ja + 1);
        }
      }

      // Count the nodes, scale the weights to at most 1 by a power of 2,
      // and sum them for the next pass.
      for (int64_t xp = xa; xp <= xb; ++xp) {
        LatticeRow& row = dst->rows[static_cast<size_t>(xp - x_lo)];
        double top = 0.0;
        int64_t nodes = 0;
        for (int r = 0; r < row.runs; ++r) {
          const size_t n = static_cast<size_t>(row.hi[r] - row.lo[r] + 1);
          for (size_t i = 0; i < n; ++i) {
            nodes += track ? don[row.off[r] + i] : dw[row.off[r] + i] > 0.0;
            top = std::max(top, dw[row.off[r] + i]);
          }
        }
        if (top > 0.0) {
          int e = 0;
          std::frexp(top, &e);
          const double scale = std::ldexp(1.0, -e);
          for (int r = 0; r < row.runs; ++r) {
            const size_t n = static_cast<size_t>(row.hi[r] - row.lo[r] + 1);
            for (size_t i = 0; i < n; ++i) dw[row.off[r] + i] *= scale;
          }
          row.rho += static_cast<double>(e) * kLog2;
        }
        for (int r = 0; r < row.runs; ++r)
          RunSums(dw + row.off[r], dst->pre.get() + row.off[r], dst->suf.get() + row.off[r],
                  row.hi[r] - row.lo[r] + 1);
        if (nodes == 0) row.runs = 0;
        fresh += nodes;
      }
      note.Update(std::min(fresh + count, net.capacity));
      if (fresh + count > net.capacity) return -1;  // the grid is full
      if (StoppedByHostOrClock()) return static_cast<int>(FailureCode());
    }
    t_peak_nodes = std::max(t_peak_nodes, fresh + count);
    std::swap(src, dst);
    count = fresh;
    if (count == 0) break;
  }

  out.high_tail = hi_tail;
  out.low_tail = lo_tail;
  out.middle = middle;
  if (count > 0) {
    for (const LatticeRow& r : src->rows) {
      const double scale = std::exp(r.rho);
      for (int q = 0; q < r.runs; ++q)
        for (int64_t j = r.lo[q]; j <= r.hi[q]; ++j) {
          const size_t at = r.off[q] + static_cast<size_t>(j - r.lo[q]);
          if (track ? !src->on[at] : !(src->w[at] > 0.0)) continue;
          const double p = static_cast<double>(j) * h, w = src->w[at] * scale;
          if (std::fabs(p - cut.high_bound) <= cut.e) out.high_point += w;
          if (std::fabs(p - cut.low_bound) <= cut.e) out.low_point += w;
        }
    }
  }
  return 0;
}

}  // namespace

template <class Form>
int TwoRowNetwork(const std::vector<TwoRowColumn>& columns, double high_bound, double low_bound,
                  int64_t budget_bytes, TwoRowTails& out) {
  out = TwoRowTails{};
  t_peak_nodes = 0;
  constexpr bool kBalanced = Form::kBalanced;

  int nonempty = 0;
  for (const TwoRowColumn& col : columns)
    if (col.first + col.second != 0) ++nonempty;
  if (nonempty < 2) return -4;
  const std::vector<TwoRowColumn> order = StageOrder(columns, kBalanced);
  Network net;
  net.K = static_cast<int64_t>(order.size());
  net.c.assign(static_cast<size_t>(net.K), 0);
  net.C.assign(static_cast<size_t>(net.K) + 1, 0);
  net.sc.assign(static_cast<size_t>(net.K), 0.0);
  int64_t cmax = 0;
  for (int64_t j = 0; j < net.K; ++j) {
    net.c[j] = order[j].first + order[j].second;
    net.sc[j] = order[j].score;
    net.C[j + 1] = net.C[j] + net.c[j];
    net.m += order[j].first;
    cmax = std::max(cmax, net.c[j]);
  }
  net.N = net.C[net.K];

  // Per-stage caches, by take and by the new first-row sum, must fit the
  // budget beside the nodes.
  for (int64_t k = 0; k <= net.K; ++k)
    net.xspan = std::max(net.xspan, std::min(net.m, net.C[k]) -
                                        std::max<int64_t>(net.m - net.N + net.C[k], 0) + 1);
  net.take_len = std::min(net.m, cmax) + 1;
  if ((3 * net.xspan + 2 * net.take_len) * static_cast<int64_t>(sizeof(double)) > budget_bytes)
    return -1;
  // The grid: the nodes of two adjacent stages, R x S of them at most.
  const GridShape g = GridFor(budget_bytes);
  if (g.prime == 0) return -1;
  net.capacity = g.rows * g.slots_per_row;

  PassCaches pc;
  pc.Allocate(net);
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  const Cuts cut(high_bound, low_bound);
  const int shift = LatticeShift<Form>(net);
  if (shift >= 0 && t_route != kRouteHashed) {
    const int code = LatticePasses<Form>(net, cut, lf.data(), pc, shift, budget_bytes, out);
    if (code != kLatticeOutgrown) return code;
    out = TwoRowTails{};
    t_peak_nodes = 0;
  }
  return HashedPasses<Form>(net, cut, lf.data(), pc, out);
}

void SetNetworkRouteForTesting(int route) { t_route = route; }

template int TwoRowNetwork<PlainForm>(const std::vector<TwoRowColumn>&, double, double, int64_t,
                                      TwoRowTails&);
template int TwoRowNetwork<BalancedForm>(const std::vector<TwoRowColumn>&, double, double,
                                         int64_t, TwoRowTails&);
template int TwoRowNetwork<BalancedCoarseForm>(const std::vector<TwoRowColumn>&, double, double,
                                               int64_t, TwoRowTails&);

}  // namespace anvl::scores
