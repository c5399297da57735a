#include "network/one_way.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "kernel/log_sum.h"
#include "network/monte_carlo.h"
#include "network/node_store.h"

namespace anvl::net {
namespace {

// Expected counts must add up to the observed total to this relative
// width of their sum.
constexpr double kExpectedSumWidth = 1e-6;
// A path whose least completion passes obs by this factor is in the upper
// tail; one whose greatest completion stays below obs by this factor is
// below it.  What is left at the end lies within these margins of obs.
constexpr double kHighFactor = 1.000005;
constexpr double kLowFactor = 0.999995;
// Two nodes of one running total merge when their past X^2 differ by less
// than this fraction of the new one (the single-precision 1e-6).
constexpr double kMergeWidth = 9.999999974752427e-07;
// Slot grid: bytes charged per slot, slots kept back, the width of a row.
constexpr int64_t kSlotBytes = 20, kSlotReserve = 4000, kGridRows = 15000;
constexpr double kHashShift = 4294967296.0;  // 2^32
constexpr double kHashLimit = 2147483648.0;  // 2^31
// A Monte Carlo sample counts when its X^2 reaches this fraction of obs.
constexpr double kMcHitFactor = 0.99995;
// Beyond these expected counts in both directions a binomial draw takes
// the normal approximation.
constexpr double kNormalDrawLimit = 20.0;
// Progress: a backward line whenever the next node number is a multiple
// of this.
constexpr int64_t kBackwardReportEvery = 100;

double X2(const int64_t* counts, const double* expected, int64_t K) {
  double x2 = 0.0;
  for (int64_t i = 0; i < K; ++i) {
    const double d = static_cast<double>(counts[i]) - expected[i];
    x2 += d * d / expected[i];
  }
  return x2;
}

void PublishAsymptotic(double obs, int64_t K) {
  Publish(slot::kStatistic, obs);
  PublishClamped(slot::kAsymTwoSided, ChiSquareTail(obs, K - 1));
  SetWord(word::kDegreesOfFreedom, K - 1);
  SetWord(word::kRowsPublished, 1);
  SetWord(word::kColumnsPublished, K);
  SetWord(word::kPublishedCode, 7);
  SetWord(word::kPublishedMethod, 3);
}

// The network's bounds by node number: the terminal node is 1, node t of
// stage i (1 <= i <= K-1) is 2 + (K-1-i)(N+1) + t, the start node is the
// last, (N+1)(K-1) + 2.
struct OneWayNetwork {
  int64_t K = 0, N = 0, nodes = 0;
  const double* E = nullptr;
  std::vector<double> log_p, log_fact;
  std::vector<double> shortest, longest, rest;  // by node number, entry 0 unused

  int64_t Number(int64_t stage, int64_t t) const {
    if (stage == K) return 1;
    if (stage == 0) return nodes;
    return 2 + (K - 1 - stage) * (N + 1) + t;
  }
  double Increment(int64_t stage, int64_t d) const {
    const double x = static_cast<double>(d) - E[stage];
    return x * x / E[stage];
  }
  // log C(N - t, d) + d log p of the category after `stage`.
  double LogWeight(int64_t stage, int64_t t, int64_t d) const {
    const int64_t m = N - t;
    const double c = (d == 0 || d == m) ? 0.0 : log_fact[m] - log_fact[d] - log_fact[m - d];
    return c + static_cast<double>(d) * log_p[stage];
  }

  int Build(const std::vector<double>& expected, int64_t total) {
    K = static_cast<int64_t>(expected.size());
    N = total;
    E = expected.data();
    int64_t inner = 0;
    if (__builtin_mul_overflow(N + 1, K - 1, &inner) || inner > (int64_t{1} << 40))
      return fail::kNoMemory;
    nodes = inner + 2;
    LogFactorialTable lf;
    BuildLogFactorials(lf);
    try {
      log_p.resize(static_cast<size_t>(K));
      log_fact.resize(static_cast<size_t>(N + 1));
      shortest.assign(static_cast<size_t>(nodes + 1), 0.0);
      longest.assign(static_cast<size_t>(nodes + 1), 0.0);
      rest.assign(static_cast<size_t>(nodes + 1), 0.0);
    } catch (const std::bad_alloc&) {
      return fail::kNoMemory;
    }
    const double dn = static_cast<double>(N);
    for (int64_t i = 0; i < K; ++i) log_p[i] = std::log(E[i] / dn);
    for (int64_t k = 0; k <= N; ++k) log_fact[k] = LogFactorial(k, lf.data());
    return 0;
  }

  // Stage K-1 down to 0: the least and greatest sum of increments from a
  // node to the terminal node, and the log of the summed path weights.
  // Returns 0, or the code of a stop from the host or the clock.
  int Backward() {
    for (int64_t i = K - 1; i >= 0; --i) {
      SendBackwardLine(i);
      const int64_t last_t = i == 0 ? 0 : N;
      for (int64_t t = 0; t <= last_t; ++t) {
        Tick();
        if (FailureCode() != 0) return static_cast<int>(FailureCode());
        const int64_t n = Number(i, t);
        double lo = 0.0, hi = 0.0, lw = 0.0;
        const int64_t y0 = i == K - 1 ? N : t;
        for (int64_t y = y0; y <= N; ++y) {
          const int64_t s = Number(i + 1, y);
          const double inc = Increment(i, y - t);
          const double w = rest[s] + LogWeight(i, t, y - t);
          if (y == y0) {
            lo = shortest[s] + inc;
            hi = longest[s] + inc;
            lw = w;
          } else {
            lo = std::min(lo, shortest[s] + inc);
            hi = std::max(hi, longest[s] + inc);
            lw = LogSum(lw, w);
          }
        }
        shortest[n] = lo;
        longest[n] = hi;
        rest[n] = lw;
        if ((n + 1) % kBackwardReportEvery == 0) SendBackwardNodesLine(i, nodes - n);
      }
      SendBackwardNodesLine(i, nodes - Number(i, last_t));
    }
    return 0;
  }
};

// The nodes of two adjacent stages in R rows of at most S slots each, a
// key being 2 t + the parity of the stage.  A row holds its nodes packed
// from the left in the order they came, and a node whose row is full goes
// on to the next row (round the grid), as in one flat array of R x S
// slots; but a row takes memory only for the nodes it holds, so a large
// memory budget costs nothing until a table needs it.
struct SlotGrid {
  struct Slot {
    int64_t key;
    double past, log_weight;
  };
  int64_t rows = 0, width = 0, prime = 0;
  std::vector<std::vector<Slot>> row;

  int Allocate() {
    const int64_t q = MemoryBudget() / kSlotBytes - kSlotReserve;
    if (q >= kGridRows) {
      rows = kGridRows;
      width = q / kGridRows;
    } else {
      rows = q;
      width = 1;
    }
    if (rows < 3) return fail::kTooFewNodes;
    prime = LargestPrimeBelow(rows);
    try {
      row.resize(static_cast<size_t>(rows));
    } catch (const std::bad_alloc&) {
      return fail::kNoMemory;
    }
    return 0;
  }

  // First row (0-based) for total y with past value stat, or -1 when the
  // hash leaves its range.
  int64_t Hash(int64_t y, double stat, int64_t parity) const {
    const double p = static_cast<double>(prime);
    const double t = std::fmod(std::fabs(stat), p);
    const double u = std::fmod(std::fmod(kHashShift, p) * t, p);
    const double h = std::fmod(u + 2.0 * static_cast<double>(y % prime), p);
    double w = std::fmod(h + static_cast<double>(parity), p);
    if (w < 1.0) w = p;
    if (w >= kHashLimit) return -1;
    return static_cast<int64_t>(w) - 1;
  }

  // From row r on (round the grid): merges with the node of the same key
  // and nearly the same past value, or takes the first free slot.  1 new,
  // 0 merged, -1 grid full or memory refused.
  int Insert(int64_t r, int64_t k, double stat, double lw) {
    for (int64_t j = 0; j < rows; ++j) {
      std::vector<Slot>& slots = row[static_cast<size_t>(r)];
      for (Slot& s : slots)
        if (s.key == k && std::fabs(s.past - stat) < kMergeWidth * stat) {
          s.log_weight = LogSum(s.log_weight, lw);
          return 0;
        }
      if (static_cast<int64_t>(slots.size()) < width) {
        try {
          slots.push_back({k, stat, lw});
        } catch (const std::bad_alloc&) {
          return -1;
        }
        return 1;
      }
      if (++r == rows) r = 0;
    }
    return -1;
  }

  // Frees the slots of the old parity; the others close up to the left.
  void Purge(int64_t old_parity) {
    for (std::vector<Slot>& slots : row)
      slots.erase(std::remove_if(slots.begin(), slots.end(),
                                 [&](const Slot& s) { return s.key % 2 == old_parity; }),
                  slots.end());
  }
};

int MonteCarloRoute(const std::vector<double>& expected, int64_t N, double obs, McResult& out) {
  const detail::McSetup setup = detail::ReadMcSetup();
  if (setup.samples < 1 || !(setup.confidence > 0.0 && setup.confidence < 1.0)) return kMcNoSamples;
  const int64_t K = static_cast<int64_t>(expected.size());
  std::vector<double> p;
  std::vector<int64_t> counts;
  try {
    p.resize(static_cast<size_t>(K));
    counts.resize(static_cast<size_t>(K));
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  for (int64_t i = 0; i < K; ++i) p[i] = expected[i] / static_cast<double>(N);
  RandomStream stream = setup.stream;
  int64_t hits = 0, last_report = 0;
  for (int64_t m = 1; m <= setup.samples; ++m) {
    DrawOneWay(p, N, stream, counts.data());
    if (X2(counts.data(), expected.data(), K) >= kMcHitFactor * obs) ++hits;
    if (m - last_report >= setup.report_every) {
      detail::McReport(hits, m, setup);
      last_report = m;
    }
  }
  UpdateElapsed();
  McEstimate(hits, setup.samples, setup.z, setup.confidence, out);
  out.percent = 100.0 * setup.confidence;
  out.seed = setup.seed;
  return 0;
}

}  // namespace

void DrawOneWay(const std::vector<double>& p, int64_t N, RandomStream& stream, int64_t* out) {
  const int64_t K = static_cast<int64_t>(p.size());
  int64_t n = N;
  double left = 1.0;
  for (int64_t i = 0; i + 1 < K; ++i) {
    int64_t x = 0;
    if (n > 0) {
      const double q = std::clamp(p[i] / left, 0.0, 1.0);
      const double u = NextUniform(stream);
      const double dn = static_cast<double>(n);
      if (q >= 1.0) {
        x = n;  // nothing is left for the later categories
      } else if (dn * q > kNormalDrawLimit && dn * (1.0 - q) > kNormalDrawLimit) {
        const double z = NormalQuantile(u);
        x = static_cast<int64_t>(dn * q + std::sqrt(q * dn * (1.0 - q)) * z) + 1;
      } else {
        const double log_u = std::log(u);
        const double step = std::log(q) - std::log(1.0 - q);
        double lp = dn * std::log(1.0 - q), cum = lp;
        while (log_u > cum && x < n) {
          ++x;
          lp = lp + std::log(static_cast<double>(n - x + 1)) + step -
               std::log(static_cast<double>(x));
          cum = LogSum(cum, lp);
        }
      }
      n -= x;
    }
    out[i] = x;
    left -= p[i];
  }
  out[K - 1] = n;
}

int OneWayExactRoute(const std::vector<double>& expected, int64_t N, double obs, OneWayExact& out) {
  out = OneWayExact{};
  OneWayNetwork net;
  int code = net.Build(expected, N);
  if (code != 0) return code;
  code = net.Backward();
  if (code != 0) return code;
  SlotGrid grid;
  code = grid.Allocate();
  if (code != 0) return code;

  const int64_t K = net.K;
  grid.row[0].push_back({0, 0.0, -net.rest[net.nodes]});
  int64_t stage_nodes = 1;
  const double high = kHighFactor * obs, low = kLowFactor * obs;
  double tail_high = 0.0, tail_low = 0.0;
  for (int64_t i = 0; i < K && stage_nodes > 0; ++i) {
    if (Tick()) SendStageLine(i);
    const int64_t parity = i % 2, new_parity = 1 - parity;
    int64_t seen = 0, new_nodes = 0;
    for (int64_t r = 0; r < grid.rows && seen < stage_nodes; ++r) {
      // Nodes of the new stage may join this row while it is read; they
      // have the other parity and are passed over.
      for (size_t c = 0; c < grid.row[static_cast<size_t>(r)].size(); ++c) {
        const SlotGrid::Slot node = grid.row[static_cast<size_t>(r)][c];
        if (node.key % 2 != parity) continue;
        ++seen;
        const int64_t t = node.key / 2;
        for (int64_t y = (i == K - 1 ? N : t); y <= N; ++y) {
          if (Tick()) SendExactEstimateLine(tail_high, 1.0 - tail_low);
          // A stop from the host or the clock stands in the store: the
          // record shows it whatever follows, so the run ends here.
          if (FailureCode() != 0) return static_cast<int>(FailureCode());
          const int64_t succ = net.Number(i + 1, y);
          const double stat = node.past + net.Increment(i, y - t);
          const double logw = node.log_weight + net.LogWeight(i, t, y - t);
          if (net.shortest[succ] + stat > high) {
            tail_high += std::exp(logw + net.rest[succ]);
          } else if (low > stat + net.longest[succ]) {
            tail_low += std::exp(logw + net.rest[succ]);
          } else {
            const int64_t q = grid.Hash(y, stat, new_parity);
            if (q < 0) return fail::kIndexOutOfRange;
            const int added = grid.Insert(q, 2 * y + new_parity, stat, logw);
            if (added < 0) return fail::kNoMemory;
            new_nodes += added;
          }
        }
      }
    }
    grid.Purge(parity);
    stage_nodes = new_nodes;
  }
  double point = 0.0;
  for (const auto& slots : grid.row)
    for (const SlotGrid::Slot& s : slots) point += std::exp(s.log_weight);
  out.tail = tail_high;
  out.low = tail_low;
  out.point = point;
  return 0;
}

int GoodnessOfFitRun(int64_t method, const double* expected, const int64_t* counts, int64_t K) {
  ZeroElapsed();
  StartClock();
  StartTicks();
  if (K < 2 || counts == nullptr) return fail::kOneRowOrColumn;
  int64_t N = 0;
  for (int64_t i = 0; i < K; ++i)
    if (counts[i] < 0 || __builtin_add_overflow(N, counts[i], &N)) return fail::kNoMemory;
  if (N < 1) return fail::kOneRowOrColumn;
  if (expected == nullptr) return fail::kExpectedCount;
  double sum = 0.0;
  for (int64_t i = 0; i < K; ++i) {
    if (!(expected[i] > 0.0) || !std::isfinite(expected[i])) return fail::kExpectedCount;
    sum += expected[i];
  }
  if (!(std::fabs(sum - static_cast<double>(N)) <= std::fabs(sum) * kExpectedSumWidth))
    return fail::kExpectedCount;

  std::vector<double> e;
  try {
    e.assign(expected, expected + K);
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  const double obs = X2(counts, expected, K);
  if (method == 2) {
    McResult mc;
    const int code = MonteCarloRoute(e, N, obs, mc);
    if (code != 0) return code;
    PublishAsymptotic(obs, K);
    PublishMonteCarlo(mc, obs);
    return 0;
  }
  if (method == 1) {
    OneWayExact ex;
    const int code = OneWayExactRoute(e, N, obs, ex);
    if (code != 0) return code;
    UpdateElapsed();
    PublishAsymptotic(obs, K);
    Publish(slot::kExactTwoSided, std::min(1.0, ex.tail + ex.point));
    Publish(slot::kPointProbability, std::min(1.0, ex.point));
    SetWord(word::kPublishedMethod, 1);
    return 0;
  }
  UpdateElapsed();
  PublishAsymptotic(obs, K);
  return 0;
}

}  // namespace anvl::net
