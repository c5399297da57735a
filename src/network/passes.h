// The two passes over the staged network of a two-way table, written once
// and generic over the statistic (a member policy, fixed at compile time).
//
// BackwardInduction walks the network from the root down and writes every
// node with the least and greatest statistic still to come on its way to
// the root (its ShortestPath and LongestPath) to the spill file.  The
// ForwardPass then reads the nodes stage by stage and carries, per node, a
// tree of the distinct past values of the statistic with their summed
// weights; a past value whose every completion is decided against the
// observed value adds the exact mass of all its completions to a tail at
// once and is dropped.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/enumerators.h"
#include "network/node_store.h"

namespace anvl::net {

// The shape of the network of one table, shared by both passes.
struct Network {
  int K = 0, S = 0;               // key and stage dimension
  std::vector<int64_t> A, B;      // KeyMargins and StageMargins, ascending
  std::vector<int64_t> T;         // T[s] = B[0] + ... + B[s-1], s = 0..S
  std::vector<int64_t> rest;      // rest[s] = B[s+1] + ... + B[S-1]
  int64_t N = 0;
  KeyCodec codec;
  int64_t stage_node_limit = 0, Z = 0, prime = 0;
  const double* lf = nullptr;     // log factorial table of the run
  std::vector<int64_t> stage_end; // records written up to stage s + 1
  double L0 = 0.0;                // log N! - sum log A_j!

  // Fills T, rest, N and L0 from A and B, and the key codec from the
  // radices of the plain form (min(A_i, N - B_S) + 1) or the canonical
  // form (A_i + 1).
  void SetMargins(std::vector<int64_t> key_margins, std::vector<int64_t> stage_margins,
                  const double* table, bool canonical);
  // Sizes the node store from a stage node limit: Z = 2 x limit slots and
  // the largest prime below Z as the hash modulus.
  void SetCapacity(int64_t limit);
  // log of the summed weight of all paths from node m of a stage with
  // total Ts up to the root: log (N - Ts)! - sum log (A_j - m_j)!.
  double LogRemainingWeight(int64_t Ts, const int64_t* m) const {
    double r = LogFactorial(N - Ts, lf);
    for (int j = 0; j < K; ++j) r -= LogFactorial(A[j] - m[j], lf);
    return r;
  }
  // log of the multinomial coefficient of line `line` with cells d.
  double EdgeLogWeight(int line, const int64_t* d) const {
    double w = LogFactorial(B[line], lf);
    for (int j = 0; j < K; ++j) w -= LogFactorial(d[j], lf);
    return w;
  }
};

// What a statistic supplies to the passes.
//
// A one-cut member tests one side: its cuts are per node, obs + tol less
// the node's ShortestPath and obs - tol less its LongestPath.  A two-cut
// member (kTwoCut) tests against a high and a low bound: a node keeps its
// ShortestPath and LongestPath, the four cuts are global, and five masses
// come out (TailHigh, TailLow, MiddleMass, HighPoint, LowPoint).  A member
// with kClosedFormBounds forms the bounds of a node when the forward pass
// first meets it (NodeBounds) and needs no backward pass nor spill file.
template <class M>
concept NetworkMember = requires(const M& m, int line, const int64_t* d, double w, double x) {
  { M::kCanonical } -> std::convertible_to<bool>;      // nodes named by sorted complements
  { M::kPValueBelow } -> std::convertible_to<bool>;    // the p-value side is below the lower cut
  { M::kInnerStopTests } -> std::convertible_to<bool>; // stop tests inside the stage and the walk
  { M::kStopOnNoNewEntry } -> std::convertible_to<bool>;
  { M::kStageMessages } -> std::convertible_to<bool>;  // " Generating the distribution ..."
  { M::kTwoCut } -> std::convertible_to<bool>;
  { M::kClosedFormBounds } -> std::convertible_to<bool>;
  { M::kRelativeMerge } -> std::convertible_to<bool>;  // merge tolerance is a factor of |value|
  { M::kMergeTolerance } -> std::convertible_to<double>;
  { M::kStopMargin } -> std::convertible_to<double>;
  { m.EdgeStatistic(line, d, w) } -> std::same_as<double>;
  { m.Tolerance(x) } -> std::same_as<double>;
  { m.StartValue(x) } -> std::same_as<double>;
};

// Tails of the forward pass.
struct PassResult {
  double tail_high = 0.0, tail_low = 0.0, point = 0.0;
  // Two-cut members: mass strictly between the bounds, and at each bound.
  double middle = 0.0, high_point = 0.0, low_point = 0.0;
  bool stopped_early = false;
  // The most past values held at once (the count that the memory budget
  // limits).
  int64_t peak_values = 0;
  // The mass not yet decided.
  double Undecided() const { return 1.0 - tail_high - tail_low - middle; }

  // The rounding errors of the tails' running sums, where the walks add
  // to them through AddTails; Settle folds them in.
  double tail_high_error = 0.0, tail_low_error = 0.0;
  void AddTails(double high, double low) {
    Accumulate(tail_high, tail_high_error, high);
    Accumulate(tail_low, tail_low_error, low);
  }
  // Adds the tails of another share of the same stages.
  void AddTails(const PassResult& o) {
    tail_high_error += o.tail_high_error;
    tail_low_error += o.tail_low_error;
    AddTails(o.tail_high, o.tail_low);
  }
  void Settle() {
    tail_high += tail_high_error;
    tail_low += tail_low_error;
    tail_high_error = tail_low_error = 0.0;
  }

 private:
  // sum += x, the rounding error of the addition added to `error`
  // (Neumaier's form of compensated summation).
  static void Accumulate(double& sum, double& error, double x) {
    const double t = sum + x;
    error += std::fabs(sum) >= std::fabs(x) ? (sum - t) + x : (x - t) + sum;
    sum = t;
  }
};

// The global cuts of a two-cut member: each bound -/+ tol.
struct TwoCuts {
  double high_hi = 0.0, high_lo = 0.0, low_hi = 0.0, low_lo = 0.0;
};

// The last component of a node of a stage with total Ts, from the others.
inline void CompleteLast(int K, int64_t Ts, int64_t* m) {
  int64_t sum = 0;
  for (int j = 0; j < K - 1; ++j) sum += m[j];
  m[K - 1] = Ts - sum;
}

// Key of node m (m[K-1] its true last component) of a stage with total Ts.
// The canonical form sorts the complements A_j - m_j and keeps the K - 1
// smallest.
template <class M>
inline void NodeKey(const Network& net, const int64_t* m, int64_t Ts, int64_t* scratch,
                    int64_t* key) {
  if constexpr (M::kCanonical) {
    const int K = net.K;
    for (int j = 0; j < K; ++j) scratch[j] = net.A[j] - m[j];
    for (int i = 1; i < K; ++i) {  // insertion sort: only the sorted values matter
      const int64_t v = scratch[i];
      int j = i;
      for (; j > 0 && scratch[j - 1] > v; --j) scratch[j] = scratch[j - 1];
      scratch[j] = v;
    }
    net.codec.Pack(scratch, Ts, key);
  } else {
    net.codec.Pack(m, Ts, key);
  }
}

// Key of a successor mn (mn[K-1] its true last component) of a stage with
// total Ts into `key`, where `scratch` and `last` hold what this routine
// left there for the successor before (`fresh` false).  After a step of
// the last free level one count has moved from the last column to the one
// before it: in the plain form the last digit goes up by one; in the
// canonical form one complement x becomes x - 1 and one y becomes y + 1.
// Lowering the first x and raising the last y keeps the complements
// sorted, with no sort, and changes at most two digits of the key.
template <class M>
__attribute__((always_inline)) inline void SuccessorKeyStep(const Network& net,
                                                            const int64_t* mn, int64_t* scratch,
                                                            int64_t* key) {
  const int K = net.K;
  if constexpr (!M::kCanonical) {
    key[net.codec.word_of[K - 2]] += net.codec.weight[K - 2];
  } else {
    const int64_t x = net.A[K - 2] - mn[K - 2] + 1, y = net.A[K - 1] - mn[K - 1] - 1;
    int i = 0;
    while (scratch[i] != x) ++i;
    --scratch[i];
    int j = K - 1;
    while (scratch[j] != y) --j;
    ++scratch[j];
    key[net.codec.word_of[i]] -= net.codec.weight[i];  // weight[K - 1] is 0
    key[net.codec.word_of[j]] += net.codec.weight[j];
  }
}

template <class M>
inline void SuccessorKey(const Network& net, const SuccessorEnumerator& succ, bool fresh,
                         const int64_t* mn, int64_t Ts, int64_t* scratch, int64_t* last,
                         int64_t* key) {
  if (!fresh && succ.InnerStep())
    SuccessorKeyStep<M>(net, mn, scratch, last);
  else
    NodeKey<M>(net, mn, Ts, scratch, last);
  if (key != last)
    for (int w = 0; w < net.codec.n_words; ++w) key[w] = last[w];
}

// The successors of a node with what each edge needs: the successor
// (all K components), its key, the line d, the edge's log weight and the
// successor's LogRemainingWeight.  The two log sums are kept as running
// sums over the components, in the order EdgeLogWeight and
// LogRemainingWeight sum them, so their values are the same doubles; a
// step of the enumerator that leaves the first components as they were
// keeps their terms.  Along a run of the last free level one count moves
// from the last cell of the line to the one before it: the key takes
// SuccessorKey's step and only the last two terms change.
template <class M>
class SuccessorWalk {
 public:
  explicit SuccessorWalk(const Network& net)
      : net_(net), K_(net.K), mn_(net.K), d_(net.K), scratch_(net.K), key_(net.codec.n_words),
        w_sum_(net.K), r_sum_(net.K) {
    succ_.Reserve(K_);
  }
  // The first successor of node m (m[K-1] its true last component) of
  // stage s; with `tie` (and `rising`), of the lines that
  // SuccessorEnumerator lists under that constraint.  False when there is
  // none.
  bool Start(int s, const int64_t* m, const int* tie = nullptr, bool rising = false) {
    s_ = s;
    Tnext_ = net_.T[s + 1];
    if (!succ_.Start(K_, net_.A.data(), m, net_.B[s], net_.rest[s], mn_.data(), tie, rising))
      return false;
    w_sum_[0] = LogFactorial(net_.B[s], net_.lf);
    r_sum_[0] = LogFactorial(net_.N - Tnext_, net_.lf);
    Refresh(0);
    return true;
  }
  // The next successor; false after the last.
  __attribute__((always_inline)) bool Next() {
    if (!succ_.Next(mn_.data())) return false;
    if (succ_.InnerStep()) {
      --mn_[K_ - 1];
      ++d_[K_ - 2];
      --d_[K_ - 1];
      SuccessorKeyStep<M>(net_, mn_.data(), scratch_.data(), key_.data());
    } else {
      Refresh(succ_.FirstChanged());
    }
    return true;
  }
  const int64_t* key() const { return key_.data(); }
  const int64_t* next() const { return mn_.data(); }
  const int64_t* line() const { return d_.data(); }
  // EdgeLogWeight of the line.
  double Weight() const {
    return (w_sum_[K_ - 2] - LogFactorial(d_[K_ - 2], net_.lf)) - LogFactorial(d_[K_ - 1], net_.lf);
  }
  // LogRemainingWeight of the successor.
  double Remaining() const {
    return (r_sum_[K_ - 2] - LogFactorial(net_.A[K_ - 2] - mn_[K_ - 2], net_.lf)) -
           LogFactorial(net_.A[K_ - 1] - mn_[K_ - 1], net_.lf);
  }

 private:
  // Components from..K-1 of the successor are new.
  __attribute__((noinline)) void Refresh(int from) {
    CompleteLast(K_, Tnext_, mn_.data());
    succ_.Line(d_.data(), from);
    for (int j = from; j < K_ - 2; ++j) {
      w_sum_[j + 1] = w_sum_[j] - LogFactorial(d_[j], net_.lf);
      r_sum_[j + 1] = r_sum_[j] - LogFactorial(net_.A[j] - mn_[j], net_.lf);
    }
    NodeKey<M>(net_, mn_.data(), Tnext_, scratch_.data(), key_.data());
  }

  const Network& net_;
  const int K_;
  int s_ = 0;
  int64_t Tnext_ = 0;
  SuccessorEnumerator succ_;
  std::vector<int64_t> mn_, d_, scratch_, key_;
  // w_sum_[j]: log B! less the log factorials of d_0..d_{j-1}; r_sum_[j]:
  // log (N - T)! less those of the complements of mn_0..mn_{j-1}.
  std::vector<double> w_sum_, r_sum_;
};

// The node a key stands for, at a stage with total Ts.
template <class M>
inline void NodeOfKey(const Network& net, const int64_t* key, int64_t Ts, int64_t* m) {
  const int K = net.K;
  net.codec.Unpack(key, m);
  if constexpr (M::kCanonical)
    for (int j = 0; j < K - 1; ++j) m[j] = net.A[j] - m[j];
  CompleteLast(K, Ts, m);
}

inline double ClampUnit(double x) { return x < 0.0 ? 0.0 : (x > 1.0 ? 1.0 : x); }

// Whether a member's edge statistic is a symmetric function of the line's
// cells: lines that differ by an exchange of cells then add the same
// statistic, up to the order of its sum (the last bits of a double).
template <class M>
constexpr bool SymmetricLine() {
  if constexpr (requires { M::kSymmetricLine; }) return M::kSymmetricLine;
  else return false;
}

// Columns of a node that have equal complements: tie[j] is the last
// column before j with the same complement, or -1.  True when there is
// such a pair.
inline bool TiedColumns(const Network& net, const int64_t* m, int* tie) {
  bool any = false;
  for (int j = 0; j < net.K; ++j) {
    tie[j] = -1;
    for (int i = j - 1; i >= 0; --i)
      if (net.A[i] - m[i] == net.A[j] - m[j]) {
        tie[j] = i;
        any = true;
        break;
      }
  }
  return any;
}

// The number of lines that exchanges of cells between tied columns (as
// TiedColumns gives them) make of line d, d among them: per group of g
// columns whose cells take values with counts c_1, c_2, ..., the
// multinomial g! / (c_1! c_2! ...).  The cells of d must not fall within
// a group (equal cells are then neighbours in it).  `pos` and `run` (K
// each) are scratch.  Exact while below 2^53: the product is formed
// column by column, each step an integer.
inline double TiedLineCount(int K, const int64_t* d, const int* tie, int* pos, int* run) {
  double count = 1.0;
  for (int j = 0; j < K; ++j) {
    const int i = tie[j];
    if (i < 0) {
      pos[j] = run[j] = 1;
      continue;
    }
    pos[j] = pos[i] + 1;
    run[j] = d[j] == d[i] ? run[i] + 1 : 1;
    count = count * pos[j] / run[j];
  }
  return count;
}

// Whether a member's bounds may be formed on demand (LazyBounds): the
// forward pass then asks for a node's LongestPath when an edge first
// reaches it, and for its ShortestPath when an entry first needs it.
template <class M>
constexpr bool LazyCuts() {
  if constexpr (requires { M::kLazyCuts; }) return M::kLazyCuts;
  else return false;
}

template <NetworkMember M>
class LazyBounds;

// Writes every node of the network, stages S down to 1, with its exact
// ShortestPath and LongestPath (`list_only`: with NaN for both, to be
// formed on demand), and fills net.stage_end.  Returns 0, -1
// (a stage over its limit, no free slot, a successor not found, more than
// 127 stages, no memory) or the spill file's code.
// Successors looked up together in the backward pass.
inline constexpr int kBackwardBatch = 16;

template <NetworkMember M>
int BackwardInduction(Network& net, const M& member, bool list_only = false) {
  const int K = net.K, S = net.S;
  if (S > kMaxStages) return -1;
  NodeStore store;
  if (store.Create(net.Z, net.codec.n_words, net.prime) != 0) return -1;
  std::vector<int64_t> m(K), scratch(K), key(net.codec.n_words);
  SuccessorWalk<M> walk(net);
  // Sized for the largest stage the estimate allows, of which most runs
  // fill a small part: only the pages of the nodes listed are touched.
  MappedArray<int64_t> matrix;
  const double matrix_bytes = 8.0 * (K - 1) * static_cast<double>(net.stage_node_limit);
  if (!FitsInMemory(matrix_bytes) ||
      matrix.Allocate(static_cast<size_t>((K - 1) * net.stage_node_limit)) != 0)
    return -1;
  net.stage_end.assign(S, 0);
  const int nw = net.codec.n_words;
  std::vector<int64_t> batch_key(static_cast<size_t>(kBackwardBatch) * nw);
  std::vector<uint64_t> batch_hash(kBackwardBatch);
  std::vector<double> batch_inc(kBackwardBatch);
  std::vector<int> tie(K);
  std::vector<int64_t> done;
  const bool first_of_class = M::kCanonical && std::is_sorted(net.A.begin(), net.A.end());

  // The root: the vector A at stage S (every complement 0).
  NodeKey<M>(net, net.A.data(), net.N, scratch.data(), key.data());
  if (store.Insert(S, key.data(), 0.0, 0.0, false) == 0) return -1;
  int64_t created = 1, records = 0;
  Ticker tick;

  for (int t = S - 1; t >= 0; --t) {
    if (tick() || M::kCanonical) SendBackwardLine(t);
    if (t > 0) {
      const int64_t Tt = net.T[t];
      // Canonical nodes: only the first node of each class is listed.
      const int64_t count =
          first_of_class ? CanonicalStageEnumerator(K, net.A.data(), Tt, net.N,
                                                    net.stage_node_limit, matrix.data())
                         : StageEnumerator(K, net.A.data(), Tt, net.N, net.stage_node_limit,
                                           matrix.data());
      if (count < 0) return -1;
      for (int64_t i = 0; i < count; ++i) {
        for (int j = 0; j < K - 1; ++j) m[j] = matrix[static_cast<size_t>(i * (K - 1) + j)];
        CompleteLast(K, Tt, m.data());
        if constexpr (M::kCanonical) {
          NodeKey<M>(net, m.data(), Tt, scratch.data(), key.data());
          if (!first_of_class && store.Find(t, key.data()) != 0) continue;  // its class is done
        }
        double shortest = HUGE_VAL, longest = -HUGE_VAL;
        bool first = true, more = !list_only;
        if (list_only) {
          shortest = longest = std::nan("");
          if (tick()) SendBackwardNodesLine(t + 1, net.Z - created);
        } else {
          // Lines that differ by an exchange of cells between columns of
          // equal complement reach the same canonical node with the same
          // statistic, up to the order of its sum: one of them is listed.
          bool tied = false;
          if constexpr (SymmetricLine<M>()) tied = TiedColumns(net, m.data(), tie.data());
          if (!walk.Start(t, m.data(), tied ? tie.data() : nullptr)) return -1;
        }
        while (more) {
          // A batch of successors: keys, increments and the index loads
          // started, then the lookups, which find their lines in cache.
          int n = 0;
          do {
            int64_t* bk = &batch_key[static_cast<size_t>(n) * nw];
            for (int w = 0; w < nw; ++w) bk[w] = walk.key()[w];
            batch_hash[n] = store.Hash(t + 1, bk);
            store.Prefetch(batch_hash[n]);
            batch_inc[n] = member.EdgeStatistic(t, walk.line(), walk.Weight());
            ++n;
            more = walk.Next();
          } while (more && n < kBackwardBatch);
          for (int b = 0; b < n; ++b) {
            if (!first && tick()) SendBackwardNodesLine(t + 1, net.Z - created);
            first = false;
            double s_next, l_next;
            if (store.FindHashed(batch_hash[b], t + 1, &batch_key[static_cast<size_t>(b) * nw],
                                 s_next, l_next) == 0)
              return -1;
            shortest = std::min(shortest, s_next + batch_inc[b]);
            longest = std::max(longest, l_next + batch_inc[b]);
          }
        }
        NodeKey<M>(net, m.data(), Tt, scratch.data(), key.data());
        if (store.Insert(t, key.data(), shortest, longest, M::kCanonical) == 0) return -1;
        ++created;
      }
    }
    // Stage t + 1 is no longer needed: write it out in slot order and
    // free its slots.
    if (store.StageInSlotOrder(t + 1, done) != 0) return -1;
    for (const int64_t node : done) {
      ++records;
      const int err = M::kCanonical
                          ? WriteWordsPair(store.key(node), net.codec.n_words, store.first(node),
                                           store.second(node), records)
                          : WriteStageWordsPair(static_cast<int8_t>(t + 1), store.key(node),
                                                net.codec.n_words, store.first(node),
                                                store.second(node), records);
      if (err != 0) return err;
      store.Free(node);
    }
    net.stage_end[t] = records;
  }
  return 0;
}

namespace detail {

// All entries of the current node's tree against one edge.  An entry's
// probability q becomes q f through the edge (f = exp(w + R' - R), the
// probability of the edge given the node); a decided entry adds itself and
// the subtree on its side, times f, to a tail at once.  `first` and
// `second` are the successor's cuts (one-cut) or its ShortestPath and
// LongestPath (two-cut, against `cuts`).  The walk uses `stack`; kQuiet:
// no ticks (a thread other than the caller's).
template <NetworkMember M, bool kQuiet = false>
int PastPathUpdate(PastPool& pool, int64_t* stack, Ticker& tick, int64_t root, int64_t& succ_root,
                   double inc, double f, double first, double second, const TwoCuts& cuts,
                   PassResult& r, int64_t& new_entries) {
  if (root == 0) return 0;
  // A member without stop tests in the walk sums each edge's tails apart
  // and adds them to the pass's tails with their rounding kept
  // (PassResult::AddTails), so that the tails don't depend on how the
  // edges are shared out among threads.
  constexpr bool kEdgeSums = !M::kInnerStopTests && !M::kTwoCut;
  double edge_high = 0.0, edge_low = 0.0;
  double& high = kEdgeSums ? edge_high : r.tail_high;
  double& low = kEdgeSums ? edge_low : r.tail_low;
  PastPool::TreeFinger finger;
  int64_t top = 0;
  stack[top++] = root;
  while (top > 0) {
    if constexpr (M::kInnerStopTests)
      if (r.Undecided() < M::kStopMargin) break;
    const int64_t p = stack[--top];
    const PastPool::Entry& x = pool[p];
    const double stat = x.stat + inc;
    if constexpr (M::kTwoCut) {
      const double sh = first, lg = second;
      if (stat + sh > cuts.high_hi) {  // every completion above HighBound + tol
        r.tail_high += f * (x.q + pool.Total(x.right));
        if (x.left != 0) stack[top++] = x.left;
      } else if (stat + lg < cuts.low_lo) {  // every completion below LowBound - tol
        r.tail_low += f * (x.q + pool.Total(x.left));
        if (x.right != 0) stack[top++] = x.right;
      } else {
        const int64_t left = x.left, right = x.right;
        if (stat + sh > cuts.low_hi && stat + lg < cuts.high_lo) {  // strictly between
          r.middle += f * x.q;
        } else {
          const int added = pool.AddWithFinger<M::kRelativeMerge>(finger, succ_root, stat,
                                                                  x.q * f, M::kMergeTolerance);
          if (added < 0) return -1;
          new_entries += added;
        }
        if (right != 0) stack[top++] = right;
        if (left != 0) stack[top++] = left;
      }
      if (!kQuiet && tick())
        SendExactEstimateLine(ClampUnit(r.tail_high + r.tail_low), ClampUnit(1.0 - r.middle));
      continue;
    } else {
      bool decided_high, decided_low;
      if constexpr (M::kPValueBelow) {
        decided_high = stat < second;  // less probable on every way: counts to the p-value
        decided_low = !decided_high && stat > first;
      } else {
        decided_high = stat > first;
        decided_low = !decided_high && stat < second;
      }
      if (decided_high) {
        if constexpr (M::kPValueBelow) {
          high += f * (x.q + pool.Total(x.left));
          if (x.right != 0) stack[top++] = x.right;
        } else {
          high += f * (x.q + pool.Total(x.right));
          if (x.left != 0) stack[top++] = x.left;
        }
      } else if (decided_low) {
        if constexpr (M::kPValueBelow) {
          low += f * pool.Total(x.right);
          if (x.left != 0) stack[top++] = x.left;
        } else {
          low += f * pool.Total(x.left);
          if (x.right != 0) stack[top++] = x.right;
        }
      } else {
        // Read the children first: the insert goes into another tree, but
        // keep the walk independent of the pool's layout.
        const int64_t left = x.left, right = x.right;
        const int added = pool.AddWithFinger<M::kRelativeMerge>(finger, succ_root, stat, x.q * f,
                                                                M::kMergeTolerance);
        if (added < 0) return -1;
        new_entries += added;
        if (right != 0) stack[top++] = right;
        if (left != 0) stack[top++] = left;
      }
      if (!kQuiet && tick())
        SendExactEstimateLine(ClampUnit(r.tail_high), ClampUnit(1.0 - r.tail_low));
    }
  }
  if constexpr (kEdgeSums) r.AddTails(edge_high, edge_low);
  return 0;
}

}  // namespace detail

// Whether the forward pass may share a stage's edges out among threads by
// their successor.  Each successor's tree then gets its values, in their
// order, from the one thread that holds it, and only the order in which
// the tails are summed depends on the sharing.  That takes a member whose
// nodes all come from the listing pass (no node is made during the pass,
// so the store is only read), with one cut and no stop test inside a
// stage.
template <NetworkMember M>
constexpr bool SharedStages() {
  return LazyCuts<M>() && !M::kClosedFormBounds && !M::kInnerStopTests && !M::kTwoCut;
}

// Threads that expand a shared stage, the caller's included (at least 1).
int ForwardThreads();
// Past values of a stage below which its expansion isn't shared.
inline constexpr int64_t kSharedStageEntries = 2048;

// What one thread needs to expand its share of a stage.
template <NetworkMember M>
struct ForwardShare {
  explicit ForwardShare(const Network& net)
      : walk(net), m(net.K), tie(net.K), pos(net.K), run(net.K) {}
  SuccessorWalk<M> walk;
  std::vector<int64_t> m;
  std::vector<int> tie, pos, run;  // the node's tied columns; TiedLineCount's scratch
  LazyBounds<M>* lazy = nullptr;
  int64_t* stack = nullptr;
  PassResult* result = nullptr;  // the tails it adds to
  int64_t new_entries = 0;
  std::vector<int64_t> made;     // per node of a shared stage: the entries it made
  int code = 0;
};

namespace detail {

// Expands the node in `slot` of stage s, whose tree at `root` is
// summarized: every edge, or with `owners` above 1 the edges whose
// successor's key falls to `owner`.
template <NetworkMember M, bool kQuiet>
int ExpandNode(const Network& net, const M& member, NodeStore& store, PastPool& pool,
               Ticker& tick, ForwardShare<M>& w, int s, int64_t slot, int64_t root, double obs,
               double tol, const TwoCuts& cuts, int owner, int owners, int64_t& next_nodes,
               bool& settled) {
  const int64_t Ts = net.T[s];
  NodeOfKey<M>(net, store.key(slot), Ts, w.m.data());
  double greatest = 0.0;  // the greatest past value of the node's tree
  if constexpr (LazyCuts<M>()) greatest = pool.Greatest(root);
  const double R = net.LogRemainingWeight(Ts, w.m.data());
  PassResult& result = *w.result;
  SuccessorWalk<M>& walk = w.walk;
  // Lines that differ by an exchange of cells between columns of equal
  // complement reach the same successor with the same edge, up to the
  // last bits of its sums.  Only the first of them in the walk's order is
  // listed, with their count as a factor of its probability: each of the
  // others would have merged its values into the entries that the first
  // one's values reached or made, and decided as it did.
  bool tied = false;
  if constexpr (SymmetricLine<M>()) tied = TiedColumns(net, w.m.data(), w.tie.data());
  walk.Start(s, w.m.data(), tied ? w.tie.data() : nullptr, true);
  do {
    const int64_t* key_next = walk.key();
    const uint64_t mix = store.Mix(s + 1, key_next);
    if (owners > 1 && static_cast<int>((mix >> 32) % static_cast<uint64_t>(owners)) != owner)
      continue;
    int64_t next = store.FindMixed(mix, s + 1, key_next);
    const double wt = walk.Weight();
    const double inc = member.EdgeStatistic(s, walk.line(), wt);
    double f = std::exp(wt + walk.Remaining() - R);
    if (tied) f *= TiedLineCount(net.K, walk.line(), w.tie.data(), w.pos.data(), w.run.data());
    if constexpr (M::kClosedFormBounds) {
      if (next == 0) {  // first met: its bounds now, and into the store
        double shortest, longest;
        member.NodeBounds(s + 1, walk.next(), shortest, longest);
        next = store.Insert(s + 1, key_next, shortest, longest, false);
        ++next_nodes;
      }
    }
    if (next == 0) return -1;
    if constexpr (M::kClosedFormBounds) {
      // No spill file whose next access would fail: a stop of the
      // host or the clock ends the pass here, its code standing.
      if (RunStopped()) return static_cast<int>(FailureCode());
    }
    if constexpr (LazyCuts<M>()) {
      // The lower cut decides first: the upper one is needed only
      // when the greatest past value passes the lower cut.
      if (w.lazy != nullptr && std::isnan(store.second(next))) {
        const double longest = w.lazy->Longest(s + 1, key_next);
        if (std::isnan(longest)) return -1;  // no memory for the bounds
        store.SetSecond(next, obs - tol - longest);
      }
      if (w.lazy != nullptr && std::isnan(store.first(next)) &&
          !(greatest + inc < store.second(next))) {
        const double shortest = w.lazy->Shortest(s + 1, key_next);
        if (std::isnan(shortest)) return -1;
        store.SetFirst(next, obs + tol - shortest);
      }
    }
    if (PastPathUpdate<M, kQuiet>(pool, w.stack, tick, root, store.tree_root(next), inc, f,
                                  store.first(next), store.second(next), cuts, result,
                                  w.new_entries) != 0)
      return -1;
    if constexpr (M::kInnerStopTests) {
      if (result.Undecided() <= M::kStopMargin) {
        settled = true;
        break;
      }
    }
  } while (walk.Next());
  return 0;
}

// One thread's share of a shared stage: the nodes in `slots` in order,
// each with the edges that fall to `owner`.  A run stopped by the host or
// the clock (seen by the caller's thread, which sets `halt`) ends the
// share early.
template <NetworkMember M, bool kQuiet>
void ExpandShare(const Network& net, const M& member, NodeStore& store, PastPool& pool,
                 Ticker& tick, ForwardShare<M>& w, int s, const std::vector<int64_t>& slots,
                 double obs, double tol, int owner, int owners, std::atomic<bool>& halt) {
  const TwoCuts cuts;
  int64_t next_nodes = 0;
  bool settled = false;
  for (size_t i = 0; i < slots.size(); ++i) {
    if constexpr (!kQuiet) {
      if (RunStopped()) halt.store(true, std::memory_order_relaxed);
    }
    if (halt.load(std::memory_order_relaxed)) return;
    const int64_t root = store.tree_root(slots[i]);
    if (root == 0) continue;
    const int64_t before = w.new_entries;
    w.code = ExpandNode<M, kQuiet>(net, member, store, pool, tick, w, s, slots[i], root, obs, tol,
                                   cuts, owner, owners, next_nodes, settled);
    w.made[i] = w.new_entries - before;
    if (w.code != 0) {
      halt.store(true, std::memory_order_relaxed);
      return;
    }
  }
}

}  // namespace detail

// The shares of a stage of the forward pass that goes to several threads
// (see ForwardPass), made when a stage is first shared.
template <NetworkMember M>
class StageSharing {
 public:
  StageSharing(const Network& net, const M& member, int owners)
      : net_(net), member_(member), owners_(owners) {}

  // Expands stage s (`nodes` nodes), `own` being the calling thread's
  // share, and adds the new entries of all shares to `new_entries`.
  // Returns 0, -1 (a node not found, no memory, the budget passed) or the
  // code of a run stopped by the host or the clock.
  int Expand(NodeStore& store, PastPool& pool, Ticker& tick, ForwardShare<M>& own, int s,
             int64_t nodes, double obs, double tol, int64_t& new_entries) {
    if (Prepare(pool, own) != 0) return -1;
    const int64_t start = pool.Live();
    try {
      if (store.StageInSlotOrder(s, slots_) != 0) return -1;
      if (static_cast<int64_t>(slots_.size()) < nodes) return -1;
      slots_.resize(static_cast<size_t>(nodes));
      sizes_.clear();
      for (const int64_t slot : slots_) sizes_.push_back(pool.Summarize(store.tree_root(slot)));
      own.made.assign(slots_.size(), 0);
      for (auto& w : others_) w->made.assign(slots_.size(), 0);
    } catch (const std::bad_alloc&) {
      return -1;
    }
    for (size_t k = 0; k < others_.size(); ++k) {
      others_[k]->new_entries = 0;
      others_[k]->code = 0;
      results_[k] = PassResult{};
    }
    own.code = 0;
    std::atomic<bool> halt{false};
    pool.BeginShared();
    auto share = [&](int k) {
      detail::ExpandShare<M, true>(net_, member_, store, pool, tick, *others_[k - 1], s, slots_,
                                   obs, tol, k, owners_, halt);
    };
    int started = 1;
    for (; started < owners_; ++started) {
      try {
        threads_.emplace_back(share, started);
      } catch (const std::system_error&) {
        break;  // no thread: this one takes the rest of the shares below
      }
    }
    detail::ExpandShare<M, false>(net_, member_, store, pool, tick, own, s, slots_, obs, tol, 0,
                                  owners_, halt);
    for (std::thread& t : threads_) t.join();
    threads_.clear();
    for (int k = started; k < owners_; ++k) share(k);

    // The most held at once, had the nodes been expanded and freed one by
    // one: each node's new entries, then its tree given back.
    int64_t live = start, peak = start;
    for (size_t i = 0; i < slots_.size(); ++i) {
      live += own.made[i];
      for (auto& w : others_) live += w->made[i];
      peak = std::max(peak, live);
      live -= sizes_[i];
    }
    pool.EndShared(peak);
    if (halt.load() && RunStopped()) return static_cast<int>(FailureCode());
    if (own.code != 0) return own.code;
    for (auto& w : others_)
      if (w->code != 0) return w->code;
    if (peak > pool.Limit()) return -1;
    for (int64_t slot : slots_) {
      int64_t& root = store.tree_root(slot);
      store.Free(slot);
      pool.FreeTree(root);
    }
    new_entries = own.new_entries;
    for (size_t k = 0; k < others_.size(); ++k) {
      new_entries += others_[k]->new_entries;
      own.result->AddTails(results_[k]);
    }
    return 0;
  }

 private:
  // The other threads' shares, each with its own bounds on demand (quiet:
  // only the caller's thread ticks) and its own walk stack.  0 or -1.
  int Prepare(const PastPool& pool, const ForwardShare<M>& own) {
    if (!others_.empty()) return 0;
    const int n = owners_ - 1;
    try {
      threads_.reserve(n);
      results_.assign(n, PassResult{});
      stacks_ = std::make_unique<MappedArray<int64_t>[]>(n);
      for (int k = 0; k < n; ++k) {
        auto w = std::make_unique<ForwardShare<M>>(net_);
        if (stacks_[k].Allocate(static_cast<size_t>(pool.Limit()) + 1) != 0) return Fail();
        w->stack = stacks_[k].data();
        w->result = &results_[k];
        if (own.lazy != nullptr) {
          lazy_.push_back(std::make_unique<LazyBounds<M>>(net_, member_));
          if (lazy_.back()->Create() != 0) return Fail();
          lazy_.back()->Quiet();
          w->lazy = lazy_.back().get();
        }
        others_.push_back(std::move(w));
      }
    } catch (const std::bad_alloc&) {
      return Fail();
    }
    return 0;
  }
  int Fail() {
    others_.clear();
    return -1;
  }

  const Network& net_;
  const M& member_;
  const int owners_;
  std::vector<std::unique_ptr<ForwardShare<M>>> others_;
  std::vector<std::unique_ptr<LazyBounds<M>>> lazy_;
  std::unique_ptr<MappedArray<int64_t>[]> stacks_;
  std::vector<PassResult> results_;
  std::vector<std::thread> threads_;
  std::vector<int64_t> slots_, sizes_;
};

// The forward pass: tails of the statistic against `obs` from stage 0 to
// the root.  A two-cut member passes its HighBound as `obs` and its
// LowBound as `low_bound`.  Returns 0, -1 (a node not found, a full store
// or pool, more than 127 stages, no memory for the bounds) or the spill
// file's code; on a failure the tails are worthless.  With `lazy`, the
// nodes read carry no bounds (a listing pass wrote them) and `lazy` forms
// them when the pass first needs them.
//
// A stage with many past values is shared out among threads where the
// member allows it (SharedStages): each thread walks every node of the
// stage in order and takes the edges whose successors fall to it.  Its
// trees are freed at the stage's end, and the count that the budget
// limits is worked out as if the nodes had been expanded and freed one by
// one, so a run fails at the budget exactly when the unshared pass does.
template <NetworkMember M>
int ForwardPass(const Network& net, const M& member, double obs, PassResult& result,
                double low_bound = 0.0, LazyBounds<M>* lazy = nullptr) {
  const int K = net.K, S = net.S;
  result = PassResult{};
  if (S > kMaxStages) return -1;
  NodeStore store;
  PastPool pool;
  if (store.Create(net.Z, net.codec.n_words, net.prime) != 0) return -1;
  const int64_t limit = PastPool::EntryLimit(MemoryBudget());
  if (limit < 1 || pool.Create(limit, net.Z) != 0) return -1;
  std::vector<int64_t> scratch(K), key(net.codec.n_words);
  const double tol = member.Tolerance(obs);
  TwoCuts cuts;
  if constexpr (M::kTwoCut)
    cuts = TwoCuts{obs + tol, obs - tol, low_bound + tol, low_bound - tol};
  ForwardShare<M> own(net);
  own.lazy = lazy;
  own.stack = pool.stack;
  own.result = &result;

  int owners = 1;
  if constexpr (SharedStages<M>()) owners = pool.Sharable() ? ForwardThreads() : 1;
  StageSharing<M> sharing(net, member, owners);

  // Stage 0 by hand in slot 1: the zero node (every complement A_j).
  std::vector<int64_t> zero(K, 0), stage_list;
  int64_t start = 0;
  NodeKey<M>(net, zero.data(), 0, scratch.data(), key.data());
  if constexpr (M::kTwoCut) {
    double shortest = 0.0, longest = 0.0;
    if constexpr (M::kClosedFormBounds) member.NodeBounds(0, zero.data(), shortest, longest);
    start = store.Place(1, 0, key.data(), shortest, longest);
  } else {
    start = store.Place(1, 0, key.data(), obs + tol, obs - tol);
  }
  // Its one past value carries all the probability: q = exp(-L0 + R(0)) = 1.
  Ticker tick;
  if (pool.AddToTree(store.tree_root(start), member.StartValue(net.L0), 1.0,
                     M::kMergeTolerance) < 0)
    return -1;

  int64_t stage_nodes = 1;  // nodes of the stage about to be expanded
  for (int s = 0;;) {
    int64_t next_nodes = 0;
    if constexpr (!M::kClosedFormBounds) {
      // Load stage s + 1 from the spill file, with its cuts or bounds.
      const int64_t from = (s + 1 == S) ? 1 : net.stage_end[s + 1] + 1, to = net.stage_end[s];
      for (int64_t rec = from; rec <= to; ++rec) {
        double shortest, longest;
        int err;
        if constexpr (M::kCanonical) {
          err = ReadWordsPair(key.data(), net.codec.n_words, &shortest, &longest, rec);
        } else {
          int8_t stage_byte;
          err = ReadStageWordsPair(&stage_byte, key.data(), net.codec.n_words, &shortest,
                                   &longest, rec);
        }
        if (err != 0) return err;
        const double first = M::kTwoCut ? shortest : obs + tol - shortest;
        const double second = M::kTwoCut ? longest : obs - tol - longest;
        if (store.Insert(s + 1, key.data(), first, second, false) == 0) return -1;
      }
      stage_nodes = s == 0 ? 1 : net.stage_end[s - 1] - net.stage_end[s];
    }
    if (tick() && M::kStageMessages) SendStageLine(s);

    // The stage processor: expand every node of stage s.
    own.new_entries = 0;
    int64_t new_entries = 0;
    const int64_t nodes = stage_nodes;
    if (owners > 1 && pool.Live() >= kSharedStageEntries) {
      if constexpr (SharedStages<M>()) {
        const int code = sharing.Expand(store, pool, tick, own, s, nodes, obs, tol, new_entries);
        if (code != 0) return code;
      }
    } else {
      if (store.StageInSlotOrder(s, stage_list) != 0) return -1;
      if (static_cast<int64_t>(stage_list.size()) < nodes) return -1;
      bool settled = false;
      for (int64_t i = 0; i < nodes && !settled; ++i) {
        const int64_t slot = stage_list[static_cast<size_t>(i)];
        int64_t& root = store.tree_root(slot);
        if (root != 0) {
          pool.Summarize(root);
          const int code = detail::ExpandNode<M, false>(net, member, store, pool, tick, own, s,
                                                        slot, root, obs, tol, cuts, 0, 1,
                                                        next_nodes, settled);
          if (code != 0) return code;
        }
        if (settled) break;
        store.Free(slot);
        pool.FreeTree(root);
      }
      new_entries = own.new_entries;
    }
    if ((M::kStopOnNoNewEntry && new_entries == 0) || result.Undecided() <= M::kStopMargin) {
      result.stopped_early = true;
      result.peak_values = pool.Peak();
      result.Settle();
      return 0;
    }
    stage_nodes = next_nodes;
    ++s;
    if (s >= S) break;
  }

  result.peak_values = pool.Peak();
  result.Settle();
  // Collect at the root: the entries left lie within tol of the observed
  // value (one-cut) or of a bound (two-cut; where the bounds coincide an
  // entry counts at both).
  if (store.StageInSlotOrder(S, stage_list) != 0) return -1;
  for (const int64_t slot : stage_list) {
    int64_t top = 0;
    if (store.tree_root(slot) != 0) pool.stack[top++] = store.tree_root(slot);
    while (top > 0) {
      const PastPool::Entry& x = pool[pool.stack[--top]];
      if constexpr (M::kTwoCut) {
        if (std::fabs(x.stat - obs) <= tol) result.high_point += x.q;  // R = 0 at the root
        if (std::fabs(x.stat - low_bound) <= tol) result.low_point += x.q;
      } else {
        result.point += x.q;  // R = 0 at the root
      }
      if (x.left != 0) pool.stack[top++] = x.left;
      if (x.right != 0) pool.stack[top++] = x.right;
    }
  }
  return 0;
}

// Opens the spill file for the network's node records (the stage byte,
// the key words and two doubles; canonical records carry no stage byte)
// and runs both passes against `obs` (a two-cut member: its HighBound, and
// its LowBound as `low_bound`).  Returns 0 or the failure code.
template <NetworkMember M>
int RunPasses(Network& net, const M& member, double obs, PassResult& pass,
              double low_bound = 0.0) {
  const int64_t record_bytes = 8 * net.codec.n_words + 16 + (M::kCanonical ? 0 : 1);
  const int opened = OpenNodeFile(record_bytes);
  if (opened != 0) return opened;
  if constexpr (LazyCuts<M>()) {
    // The nodes are listed ahead as ever; their bounds come on demand.
    int code = BackwardInduction(net, member, true);
    if (code != 0) return code;
    LazyBounds<M> lazy(net, member);
    if (lazy.Create() != 0) return -1;
    lazy.ShowTails(&pass);
    return ForwardPass(net, member, obs, pass, low_bound, &lazy);
  } else {
    int code = BackwardInduction(net, member);
    if (code == 0) code = ForwardPass(net, member, obs, pass, low_bound);
    return code;
  }
}

}  // namespace anvl::net

// The bounds on demand, which build on the walks above.
#include "network/lazy_bounds.h"
