#include "engines/related_samples.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numeric>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "kernel/log_sum.h"
#include "kernel/random.h"
#include "network/monte_carlo.h"

namespace anvl::eng {
namespace {

constexpr DriverTraits kRelatedTraits{false, false, true, 0};

// Selectors of the three tests and the codes they publish under.
constexpr int64_t kFriedman = 1, kCochran = 2, kKendallW = 3;
constexpr int64_t kPublishedCodes[] = {0, 24, 26, 51};

// log 1e300: beyond it the count of paths to a node overflows a double.
constexpr double kLogPathLimit = 690.7755278982138;
// Node table: bytes of one node (K sums and a log count, current and
// next), the slots kept back, and the fewest nodes worth a run.
constexpr int64_t kNodeBytesPerRow = 16, kNodeBytesFixed = 16;
constexpr int64_t kNodeReserve = 1000, kFewestNodes = 5000;
// Slots of the node index at the start of a block; it doubles as needed.
constexpr size_t kFirstIndexSlots = 1024;
// Two vectors are the same node when every entry agrees to this.
constexpr double kSameNodeWidth = 1e-5;
// A partial vector whose sum of squares already passes the observed sum
// by this factor is in the tail whatever follows; one whose largest
// completion stays below the observed S by this factor never reaches it.
constexpr double kTailFactor = 1.00005;
constexpr double kResolvedFactor = 0.99995;
// At the end, a sum of squares this close (relative) to the observed one
// is the observed value.  A final sum between 5e-6 and 5e-5 above the
// observed one falls in neither part: with the sums on a grid of 0.5 that
// can only happen when the observed sum passes 10^4 (K = 3 with N = 60,
// for one).
constexpr double kPointWidth = 5e-06;
// The search for a stop compares the undecided mass with this margin.
constexpr double kStopMargin = 0.0;
// A Monte Carlo sample counts when its S reaches this fraction of the
// observed S.
constexpr double kMcHitFactor = 0.9995;

// Nothing within the range of a 64-bit truncation is refused; NaN and the
// infinities are.
bool AllFinite(const double* data, int64_t count) {
  for (int64_t i = 0; i < count; ++i)
    if (!std::isfinite(data[i])) return false;
  return true;
}

void PublishAsymptotic(const BlockRanking& r, int64_t selector) {
  const double p = ChiSquareTail(r.chi2, r.K - 1);
  Publish(slot::kStatistic, selector == kKendallW ? r.W : r.chi2);
  SetWord(word::kDegreesOfFreedom, r.K - 1);
  PublishClamped(slot::kAsymTwoSided, p);
  if (selector == kKendallW) {
    const double rows = static_cast<double>(Store().row_count);
    Publish(slot::kAverageRankCorrelation, (r.W * rows - 1.0) / (rows - 1.0));
    Publish(slot::kConcordanceSumOfSquares, r.S);
  }
  SetWord(word::kPublishedCode, kPublishedCodes[selector]);
  SetWord(word::kRowsPublished, r.K);
  SetWord(word::kColumnsPublished, r.N);
  SetWord(word::kPublishedMethod, 3);
}

// Random within-block permutations: one index vector, shuffled afresh for
// each block (and not reset between blocks); row i takes the mid-rank at
// position index[i] of the block.  A hit is an S at or above 0.9995 of
// the observed S.
int MonteCarloRoute(const BlockRanking& r, net::McResult& out) {
  const net::detail::McSetup setup = net::detail::ReadMcSetup();
  if (setup.samples < 1 || !(setup.confidence > 0.0 && setup.confidence < 1.0))
    return net::kMcNoSamples;
  const int64_t K = r.K, N = r.N;
  std::vector<int64_t> index;
  std::vector<double> sums;
  try {
    index.resize(static_cast<size_t>(K));
    sums.resize(static_cast<size_t>(K));
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  std::iota(index.begin(), index.end(), int64_t{0});
  RandomStream stream = setup.stream;
  const double mean = static_cast<double>(N) * static_cast<double>(K + 1) / 2.0;
  const double threshold = kMcHitFactor * r.S;
  int64_t hits = 0, last_report = 0;
  for (int64_t m = 1; m <= setup.samples; ++m) {
    std::fill(sums.begin(), sums.end(), 0.0);
    for (int64_t b = 0; b < N; ++b) {
      for (int64_t i = 0; i + 1 < K; ++i) {
        const double u = NextUniform(stream);
        int64_t j = i + static_cast<int64_t>(static_cast<double>(K - i) * u);
        j = std::clamp<int64_t>(j, 0, K - 1);  // a negative seed can put u outside 0..1
        std::swap(index[i], index[j]);
      }
      const double* block = r.ranks.data() + b * K;
      for (int64_t i = 0; i < K; ++i) sums[i] += block[index[i]];
    }
    double s = 0.0;
    for (int64_t i = 0; i < K; ++i) s += (sums[i] - mean) * (sums[i] - mean);
    if (s >= threshold) ++hits;
    if (m - last_report >= setup.report_every) {
      net::detail::McReport(hits, m, setup);
      last_report = m;
    }
  }
  UpdateElapsed();
  net::McEstimate(hits, setup.samples, setup.z, setup.confidence, out);
  out.percent = 100.0 * setup.confidence;
  out.seed = setup.seed;
  return 0;
}

// The tables of one exact run: the nodes of the current block and those of
// the next, each stored densely in the order in which it was made, and an
// open-addressing index of the next block's nodes.  The index and the
// stores grow with the nodes actually made, up to `capacity` nodes, so a
// large memory budget costs nothing until a design needs it.  Which slot a
// node takes never changes a result: nodes merge only when their sums are
// equal, and the current block is read in the order the nodes were made.
struct NodeTables {
  int64_t K = 0, capacity = 0;
  std::vector<double> cur, next;          // K sums per node
  std::vector<double> cur_log, next_log;  // log of the paths to the node
  std::vector<int64_t> index;             // node of each slot, -1 free; size a power of 2
  int64_t count = 0;                      // nodes in `cur`

  void ClearNext() {
    next.clear();
    next_log.clear();
    std::fill(index.begin(), index.end(), int64_t{-1});
  }
  static uint64_t Hash(const double* v, int64_t k) {
    uint64_t h = 1469598103934665603ull;
    for (int64_t i = 0; i < k; ++i) h = (h ^ static_cast<uint64_t>(2.0 * v[i])) * 1099511628211ull;
    return h ^ (h >> 29);
  }
  // Doubles the index and places every node of the next block again.
  void Grow() {
    index.assign(index.size() * 2, -1);
    const uint64_t mask = index.size() - 1;
    const int64_t nodes = static_cast<int64_t>(next_log.size());
    for (int64_t n = 0; n < nodes; ++n) {
      uint64_t s = Hash(next.data() + n * K, K) & mask;
      while (index[s] >= 0) s = (s + 1) & mask;
      index[s] = n;
    }
  }
  // Adds the sorted vector v with log count lc to the next block: a new
  // node, or the LogSum with the node whose sums agree with v to 1e-5.
  // 0, or -1 when the capacity is reached or memory is refused.
  int Insert(const double* v, double lc) {
    const uint64_t mask = index.size() - 1;
    uint64_t s = Hash(v, K) & mask;
    for (; index[s] >= 0; s = (s + 1) & mask) {
      const int64_t n = index[s];
      const double* e = next.data() + n * K;
      bool same = true;
      for (int64_t i = 0; i < K && same; ++i) same = std::fabs(e[i] - v[i]) <= kSameNodeWidth;
      if (same) {
        next_log[n] = LogSum(next_log[n], lc);
        return 0;
      }
    }
    const int64_t n = static_cast<int64_t>(next_log.size());
    if (n >= capacity) return fail::kNoMemory;
    try {
      next.insert(next.end(), v, v + K);
      next_log.push_back(lc);
      index[s] = n;
      if (2 * (n + 1) > static_cast<int64_t>(index.size())) Grow();
    } catch (const std::bad_alloc&) {
      return fail::kNoMemory;
    }
    return 0;
  }
  // The next block's nodes become the current ones.
  void Advance() {
    cur.swap(next);
    cur_log.swap(next_log);
    count = static_cast<int64_t>(cur_log.size());
  }
};

// Ascending insertion sort of a short vector.
inline void SortShort(double* v, int64_t k) {
  for (int64_t i = 1; i < k; ++i) {
    const double x = v[i];
    int64_t j = i;
    for (; j > 0 && v[j - 1] > x; --j) v[j] = v[j - 1];
    v[j] = x;
  }
}

int RelatedRun(const double* data, int64_t K, int64_t N, int64_t selector, int64_t method) {
  ZeroElapsed();
  StartClock();
  StartTicks();
  BlockRanking r;
  int code = RankBlocks(data, K, N, selector == kCochran, r);
  if (code != 0) return code;
  if (method == 2) {
    net::McResult mc;
    code = MonteCarloRoute(r, mc);
    if (code != 0) return code;
    PublishAsymptotic(r, selector);
    net::PublishMonteCarlo(mc, selector == kKendallW ? r.W : r.chi2);
    return 0;
  }
  if (method == 1) {
    RelatedExact ex;
    code = RelatedExactRoute(r, ex);
    if (code != 0) return code;
    UpdateElapsed();
    PublishAsymptotic(r, selector);
    PublishClamped(slot::kExactTwoSided, ex.tail + ex.point);
    PublishClamped(slot::kPointProbability, ex.point);
    SetWord(word::kPublishedMethod, 1);
    return 0;
  }
  UpdateElapsed();
  PublishAsymptotic(r, selector);
  return 0;
}

}  // namespace

int64_t CompactBlocks(double* data, int64_t k, int64_t n) {
  int64_t kept = 0;
  for (int64_t b = 0; b < n; ++b) {
    const double* col = data + b * k;
    bool constant = true;
    for (int64_t i = 1; i < k && constant; ++i) constant = col[i] == col[0];
    if (constant) continue;
    if (kept != b) std::copy(col, col + k, data + kept * k);
    ++kept;
  }
  return kept;
}

int RankBlocks(const double* data, int64_t K, int64_t N, bool binary, BlockRanking& out) {
  out.K = K;
  out.N = N;
  std::vector<double> values;
  try {
    out.ranks.assign(static_cast<size_t>(K * N), 0.0);
    out.rows.assign(static_cast<size_t>(K * N), 0);
    out.rank_sums.assign(static_cast<size_t>(K), 0.0);
    values.resize(static_cast<size_t>(K));
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  const double dk = static_cast<double>(K);
  out.T = out.C = 0.0;
  for (int64_t b = 0; b < N; ++b) {
    const double* col = data + b * K;
    double* ranks = out.ranks.data() + b * K;
    int64_t* rows = out.rows.data() + b * K;
    for (int64_t i = 0; i < K; ++i) {
      if (binary && col[i] != 0.0 && col[i] != 1.0) return fail::kTooManyValues;
      values[i] = col[i];
      rows[i] = i;
    }
    SortRealsWithTags(K, values.data(), rows);
    double cubes = 0.0;
    for (int64_t lo = 0; lo < K;) {
      int64_t hi = lo + 1;
      while (hi < K && values[hi] == values[lo]) ++hi;
      const double mid = static_cast<double>(lo + 1 + hi) / 2.0;  // mean of positions lo+1 .. hi
      for (int64_t p = lo; p < hi; ++p) ranks[p] = mid;
      const double t = static_cast<double>(hi - lo);
      cubes += t * t * t;
      out.C += t * t * t - t;
      lo = hi;
    }
    out.T += cubes - dk;
    for (int64_t p = 0; p < K; ++p) out.rank_sums[rows[p]] += ranks[p];
  }
  const double dn = static_cast<double>(N);
  const double mean = dn * (dk + 1.0) / 2.0;
  out.S = out.raw = 0.0;
  for (double R : out.rank_sums) {
    out.S += (R - mean) * (R - mean);
    out.raw += R * R;
  }
  out.chi2 = 12.0 * out.S / (dk * dn * (dk + 1.0) - out.T / (dk - 1.0));
  out.W = 3.0 * (4.0 * out.raw / dn - dn * dk * (dk + 1.0) * (dk + 1.0)) /
          ((dk - 1.0) * dk * dn * (dk + 1.0) - out.C);
  return 0;
}

int RelatedExactRoute(const BlockRanking& r, RelatedExact& out) {
  const int64_t K = r.K, N = r.N;
  out = RelatedExact{};
  // L = log K!: every block but the first has K! equally likely orders.
  double L = 0.0;
  for (int64_t j = 2; j <= K; ++j) L += std::log(static_cast<double>(j));
  if (kLogPathLimit / static_cast<double>(N - 1) < L) return fail::kNoMemory;

  const int64_t capacity = MemoryBudget() / (kNodeBytesPerRow * K + kNodeBytesFixed) - kNodeReserve;
  if (capacity <= kFewestNodes) return fail::kTooFewNodes;
  NodeTables t;
  t.K = K;
  t.capacity = capacity;

  std::vector<double> left, arrangement, v;
  try {
    left.assign(static_cast<size_t>(K), 0.0);
    arrangement.resize(static_cast<size_t>(K));
    v.resize(static_cast<size_t>(K));
    t.index.assign(kFirstIndexSlots, -1);
    t.cur.resize(static_cast<size_t>(K));
    t.cur_log.assign(1, 0.0);
  } catch (const std::bad_alloc&) {
    return fail::kNoMemory;
  }
  // The first block stands as it is: one node, its mid-ranks by row.
  for (int64_t p = 0; p < K; ++p) t.cur[r.rows[p]] = r.ranks[p];
  SortShort(t.cur.data(), K);
  t.count = 1;
  const double mean = static_cast<double>(N) * static_cast<double>(K + 1) / 2.0;
  for (int64_t p = 0; p < K; ++p) {
    for (int64_t b = 1; b < N; ++b) left[p] += r.ranks[b * K + p];
    left[p] -= mean;
  }

  const double tail_bound = r.raw * kTailFactor;
  const double resolved_bound = r.S * kResolvedFactor;
  double tail = 0.0, resolved = 0.0;
  for (int64_t b = 1; b < N; ++b) {
    const double* block = r.ranks.data() + b * K;
    for (int64_t p = 0; p < K; ++p) left[p] -= block[p];
    t.ClearNext();
    // Each distinct order of the block's mid-ranks stands for the orders
    // that differ only within its tie groups: log of their number.
    double log_ties = 0.0;
    for (int64_t lo = 0; lo < K;) {
      int64_t hi = lo + 1;
      while (hi < K && block[hi] == block[lo]) ++hi;
      for (int64_t j = 2; j <= hi - lo; ++j) log_ties += std::log(static_cast<double>(j));
      lo = hi;
    }
    const double log_paths = static_cast<double>(b) * L;  // orders of blocks 2 .. b+1
    for (int64_t n = 0; n < t.count; ++n) {
      const double* node = t.cur.data() + n * K;
      const double lc = t.cur_log[n] + log_ties;
      std::copy(block, block + K, arrangement.begin());
      do {
        if (Tick()) SendExactEstimateLine(tail, 1.0 - resolved);
        // A stop from the host or the clock stands in the store: the
        // record shows it whatever follows, so the run ends here.
        if (FailureCode() != 0) return static_cast<int>(FailureCode());
        if (std::fabs((1.0 - resolved) - tail) <= kStopMargin) {
          out.tail = tail;
          out.point = 0.0;
          return 0;
        }
        for (int64_t i = 0; i < K; ++i) v[i] = node[i] + arrangement[i];
        SortShort(v.data(), K);
        double q = 0.0, u = 0.0;
        for (int64_t i = 0; i < K; ++i) {
          q += v[i] * v[i];
          const double c = v[i] + left[i];
          u += c * c;
        }
        if (q >= tail_bound) {
          tail += std::exp(lc - log_paths);
        } else if (u < resolved_bound) {
          resolved += std::exp(lc - log_paths);
        } else if (t.Insert(v.data(), lc) != 0) {
          return fail::kNoMemory;
        }
      } while (std::next_permutation(arrangement.begin(), arrangement.end()));
    }
    t.Advance();
  }
  // Every node now holds complete rank sums.
  const double log_paths = static_cast<double>(N - 1) * L;
  double beyond = 0.0, point = 0.0;
  for (int64_t n = 0; n < t.count; ++n) {
    const double* node = t.cur.data() + n * K;
    double q = 0.0;
    for (int64_t i = 0; i < K; ++i) q += node[i] * node[i];
    const double prob = std::exp(t.cur_log[n] - log_paths);
    if (q >= tail_bound) beyond += prob;
    if (std::fabs(q - r.raw) <= r.raw * kPointWidth) point += prob;
  }
  out.tail = tail + beyond;
  out.point = point;
  return 0;
}

void RelatedSamplesDriver(const CallArgs& args) {
  std::vector<int64_t> unused;
  int64_t code = BeginDriver(args, kRelatedTraits, unused);
  RunStore& st = Store();
  const int64_t K = args.case_rows;
  int64_t N = 0;
  if (code == 0 && K > 0 && args.case_cols > 0 && args.case_data != nullptr) {
    if (!AllFinite(args.case_data, K * args.case_cols))
      code = fail::kOutsideModel;
    else
      N = CompactBlocks(args.case_data, K, args.case_cols);
  }
  st.row_count = st.engine_rows = K;
  st.column_count = st.engine_columns = N;
  if (code == 0 && (K < 2 || N < 2)) code = fail::kEmptyTable;
  if (code == 0) code = RelatedRun(args.case_data, K, N, st.run_selector, st.run_method);
  EndDriver(code);
}

}  // namespace anvl::eng
