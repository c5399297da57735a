#include "scores/two_row_network.h"

#include <algorithm>
#include <cmath>
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
// 2^32 in the hash.
constexpr double kTwoTo32 = 4294967296.0;
constexpr double kLargestHash = 2147483648.0;

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

int64_t Hash(int64_t x, double past, int64_t parity, int64_t prime, double two32_mod) {
  const double P = static_cast<double>(prime);
  const double h = static_cast<double>(x % prime);
  const double t = std::fmod(std::fabs(past), P);
  const double u = std::fmod(std::fmod(two32_mod * t, P) + h, P);
  double w = std::fmod(std::fmod(u + u, P) + static_cast<double>(parity), P);
  if (w < 1.0) w = P;
  if (w >= kLargestHash) return -1;
  return static_cast<int64_t>(w);
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

  // Per-stage caches: by take and by the new first-row sum.  They must fit
  // the budget beside the grid.
  int64_t xspan = 0;
  for (int64_t k = 0; k <= K; ++k)
    xspan = std::max(xspan, std::min(m, C[k]) - std::max<int64_t>(m - N + C[k], 0) + 1);
  const int64_t take_len = std::min(m, cmax) + 1;
  if ((3 * xspan + 2 * take_len) * static_cast<int64_t>(sizeof(double)) > budget_bytes)
    return -1;

  const GridShape g = GridFor(budget_bytes);
  if (g.prime == 0) return -1;
  const int64_t R = g.rows, S = g.slots_per_row, slots = R * S;

  // The grid: rows are packed from the left, so fill[r], the slots in use
  // in row r, tells the free slots, and the slot arrays need no clearing.
  std::vector<double> take_value, take_log, rest_min, rest_max, rest_log;
  std::vector<int64_t> fill;
  std::unique_ptr<int64_t[]> key;
  std::unique_ptr<double[]> past, logw;
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  try {
    take_value.resize(static_cast<size_t>(take_len));
    take_log.resize(static_cast<size_t>(take_len));
    rest_min.resize(static_cast<size_t>(xspan));
    rest_max.resize(static_cast<size_t>(xspan));
    rest_log.resize(static_cast<size_t>(xspan));
    fill.assign(static_cast<size_t>(R), 0);
    key = std::make_unique_for_overwrite<int64_t[]>(static_cast<size_t>(slots));
    past = std::make_unique_for_overwrite<double[]>(static_cast<size_t>(slots));
    logw = std::make_unique_for_overwrite<double[]>(static_cast<size_t>(slots));
  } catch (const std::bad_alloc&) {
    return -1;
  }

  key[0] = 0;
  past[0] = 0.0;
  logw[0] = kBalanced ? -static_cast<double>(m) * kLog2 : -LogBinomial(N, m, lf.data(), kRoute);
  fill[0] = 1;
  int64_t count = 1;

  const double e = std::fabs(high_bound) * kBoundTolerance;
  const double high_up = high_bound + e, high_down = high_bound - e;
  const double low_up = low_bound + e, low_down = low_bound - e;
  const double two32_mod = std::fmod(kTwoTo32, static_cast<double>(g.prime));
  const double crowded = kCrowdedShare * static_cast<double>(slots);

  std::vector<int64_t> rest_c;
  std::vector<double> rest_s;
  GreedyFill from_high, from_low;
  double hi_tail = 0.0, lo_tail = 0.0, middle = 0.0;

  for (int64_t s = 0; s < K; ++s) {
    const int64_t cs = c[s], Cn = C[s + 1];
    const double ss = sc[s];
    const bool weightless = kBalanced && s == K - 1;  // the balancing column
    const int64_t parity = s & 1, new_parity = (s + 1) & 1;

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
    const int64_t x_lo = std::max<int64_t>(Cn - N + m, 0), x_hi = std::min(m, Cn);
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
    int64_t done = 0, fresh = 0;
    for (int64_t r = 0; r < R && done < count; ++r) {
      for (int64_t p = r * S; p < r * S + fill[r]; ++p) {
        const int64_t k = key[p];
        if ((k & 1) != parity) continue;
        ++done;
        const int64_t x = k >> 1;
        const double node_past = past[p], node_log = logw[p];
        const int64_t lo = std::max(x, x_lo), hi = std::min(x_hi, x + cs);
        for (int64_t xp = lo; xp <= hi; ++xp) {
          const int64_t take = xp - x;
          const double np = node_past + take_value[take];
          const double nl = node_log + take_log[take];
          const int64_t ix = xp - x_lo;
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

          const int64_t w = Hash(xp, np, new_parity, g.prime, two32_mod);
          if (w < 0) return -8;
          const int64_t new_key = 2 * xp + new_parity;
          const double f = std::fabs(np) * Form::kMergeTolerance;
          // From the first slot of row w, upwards through the grid and round.
          bool placed = false;
          for (int64_t n = 0, r = w - 1; n < R && !placed; ++n, r = (r + 1 == R) ? 0 : r + 1) {
            const int64_t base = r * S, used = fill[r];
            for (int64_t q = base; q < base + used; ++q)
              if (key[q] == new_key && std::fabs(past[q] - np) <= f) {
                logw[q] = LogSum(logw[q], nl);
                placed = true;
                break;
              }
            if (!placed && used < S) {
              const int64_t q = base + used;
              key[q] = new_key;
              past[q] = np;
              logw[q] = nl;
              fill[r] = used + 1;
              ++fresh;
              placed = true;
            }
          }
          if (!placed) return -1;
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
    }
    t_peak_nodes = std::max(t_peak_nodes, fresh + count);

    // Purge the finished stage, packing each row from the left.
    for (int64_t r = 0; r < R; ++r) {
      int64_t to = r * S;
      for (int64_t p = r * S, end = p + fill[r]; p < end; ++p) {
        const int64_t k = key[p];
        if ((k & 1) == parity) continue;
        if (to != p) {
          key[to] = k;
          past[to] = past[p];
          logw[to] = logw[p];
        }
        ++to;
      }
      fill[r] = to - r * S;
    }
    count = fresh;
    if (count == 0) break;
  }

  out.high_tail = hi_tail;
  out.low_tail = lo_tail;
  out.middle = middle;
  if (count > 0) {
    for (int64_t p = 0; p < slots; ++p) {
      if (p % S >= fill[p / S]) continue;
      const double w = std::exp(logw[p]);
      if (std::fabs(past[p] - high_bound) <= e) out.high_point += w;
      if (std::fabs(past[p] - low_bound) <= e) out.low_point += w;
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
