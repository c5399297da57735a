// The flat form of past values: the network passes of the members whose
// past values need no order (gamma's pair of integers, the whole and half
// sums of Kendall's and the Jonckheere-Terpstra statistics).  The values of
// a stage live in one open-addressing table keyed by (stage, node, value);
// every entry is compared with the cuts on its own, so nothing is decided
// a subtree at a time, but equal values merge and repeat strongly.
//
// All nodes of all stages stay in memory with their bounds (no spill file).
// The backward pass writes each node's least and greatest statistic still
// to come on its way to the root; the forward pass carries, for every node
// of a stage, its entries (value, probability), and decides each entry on
// each edge by the two-cut rule: above HighBound + tol, below LowBound -
// tol, strictly between the bounds, or undecided.
//
// A member policy supplies:
//   using Value, Bounds;                     past value; a node's bounds
//   static constexpr bool kStopInWalk;       end the walk once all mass is decided
//   Value Edge(const int64_t* m, const int64_t* d) const;   increment of an edge from
//                                                           node m with line d
//   static Bounds RootBounds();
//   static void Widen(Bounds& b, const Bounds& next, const Value& inc, bool first);
//   static FlatDecision Decide(const Value& t, const Bounds& b, const FlatCuts& c);
//   static double RootValue(const Value& v);  compared with the bounds at the root
//   static uint64_t HashValue(const Value& v);
//   static bool Same(const Value& stored, const Value& v);
//   static Value Plus(const Value& a, const Value& b);
//
// Probabilities are held linearly, as in the tree form: an entry of node m
// holds the probability of all tables whose path prefix ends at m with
// this past value, so that an edge multiplies it by exp(w + R(m') - R(m))
// and a merge is one addition.  Entries of one node are chained, so that a
// node's successors are enumerated once for all its entries.
//
// Capacity: the nodes of all stages are counted exactly (the number of
// vectors 0 <= m_j <= A_j with each stage total) instead of estimated; the
// store takes twice their number of slots, at least 2000, and the count
// reaching trunc(budget / (8 x key words + 25)) is FailureCode -1.  The
// table of past values has trunc(budget / 21) - 4000 slots.
#pragma once

#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "network/enumerators.h"
#include "network/node_store.h"
#include "network/passes.h"

namespace anvl::assoc {

enum class FlatDecision { kLive, kHigh, kLow, kMiddle };

// The global cuts of a two-cut member: each bound -/+ tol.
struct FlatCuts {
  double high = 0.0, low = 0.0, tol = 0.0;
  double high_hi = 0.0, high_lo = 0.0, low_hi = 0.0, low_lo = 0.0;
  FlatCuts() = default;
  FlatCuts(double h, double l, double t)
      : high(h), low(l), tol(t), high_hi(h + t), high_lo(h - t), low_hi(l + t), low_lo(l - t) {}
};

// The bounds of a member whose past value is one double.
struct LineBounds {
  double shortest = 0.0, longest = 0.0;
};

// The two-cut decision on one double: t plus the bounds of the successor
// against the cuts.
inline FlatDecision DecideLine(double t, const LineBounds& b, const FlatCuts& c) {
  if (t + b.shortest > c.high_hi) return FlatDecision::kHigh;
  if (t + b.longest < c.low_lo) return FlatDecision::kLow;
  if (t + b.shortest > c.low_hi && t + b.longest < c.high_lo) return FlatDecision::kMiddle;
  return FlatDecision::kLive;
}

inline uint64_t MixBits(uint64_t h) {
  h ^= h >> 31;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 29;
  h *= 0x94D049BB133111EBull;
  h ^= h >> 32;
  return h;
}

// Nodes of the flat members are named by their plain key.
struct PlainKey {
  static constexpr bool kCanonical = false;
};

// Slots of a flat past table from a memory budget, and of the node store.
inline int64_t FlatTableSlots(int64_t budget) { return budget / 21 - 4000; }
inline int64_t FlatMaxNodes(int64_t budget, int n_words) { return budget / (8 * n_words + 25); }

// Number of nodes of every stage: the vectors 0 <= m_j <= A_j summing to
// T_s, s = 0..S, as doubles (a coefficient of prod_j (1 + x + ... + x^A_j)).
std::vector<double> StageNodeCounts(const net::Network& net);

// All nodes of the network with the member's bounds, by store slot.
template <class M>
struct FlatNodes {
  net::NodeStore store;
  std::vector<typename M::Bounds> bounds;
  int64_t largest_stage = 0;  // nodes of the largest stage
};

// Creates every node of stages S down to 0 with its bounds.  Returns 0 or
// -1 (capacity, memory, a successor not found, more than 127 stages).
template <class M>
int FlatBackwardInduction(const net::Network& net, const M& member, FlatNodes<M>& nodes) {
  const int K = net.K, S = net.S;
  if (S > net::kMaxStages || K > net::kMaxDigits) return -1;
  const std::vector<double> counts = StageNodeCounts(net);
  double total = 0.0, largest = 0.0;
  for (double c : counts) {
    total += c;
    largest = std::max(largest, c);
  }
  const double max_nodes =
      static_cast<double>(FlatMaxNodes(MemoryBudget(), net.codec.n_words));
  if (total >= max_nodes) return -1;
  constexpr double kZLimit = 1073741824.0;
  double z = 2.0 * total > kZLimit ? total : 2.0 * total;
  z = std::max(z, 2000.0);
  if (z >= kZLimit) return -1;
  const int64_t Z = static_cast<int64_t>(z);
  nodes.largest_stage = static_cast<int64_t>(largest);
  if (nodes.store.Create(Z, net.codec.n_words, net::LargestPrimeBelow(Z)) != 0) return -1;
  std::vector<int64_t> matrix, m(K), scratch(K), key(net.codec.n_words);
  try {
    nodes.bounds.assign(static_cast<size_t>(Z + 1), typename M::Bounds{});
    matrix.assign(static_cast<size_t>(std::max(1, K - 1) * (nodes.largest_stage + 1)), 0);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  net::SuccessorWalk<PlainKey> walk(net);
  Ticker tick;

  net::NodeKey<PlainKey>(net, net.A.data(), net.N, scratch.data(), key.data());
  const int64_t root = nodes.store.Insert(S, key.data(), 0.0, 0.0, false);
  if (root == 0) return -1;
  nodes.bounds[root] = M::RootBounds();
  for (int t = S - 1; t >= 0; --t) {
    if (tick()) SendBackwardLine(t);
    if (RunStopped()) return static_cast<int>(FailureCode());
    const int64_t Tt = net.T[t];
    int64_t count = 1;
    if (t > 0) {
      count = net::StageEnumerator(K, net.A.data(), Tt, net.N, nodes.largest_stage + 1, matrix.data());
      if (count < 0) return -1;
    }
    for (int64_t i = 0; i < count; ++i) {
      if (t > 0) {
        for (int j = 0; j < K - 1; ++j) m[j] = matrix[static_cast<size_t>(i * (K - 1) + j)];
        net::CompleteLast(K, Tt, m.data());
      } else {
        std::fill(m.begin(), m.end(), 0);
      }
      typename M::Bounds b{};
      bool first = true;
      walk.Start(t, m.data());
      do {
        const int64_t slot = nodes.store.Find(t + 1, walk.key());
        if (slot == 0) return -1;
        M::Widen(b, nodes.bounds[slot], member.Edge(m.data(), walk.line()), first);
        first = false;
      } while (walk.Next());
      net::NodeKey<PlainKey>(net, m.data(), Tt, scratch.data(), key.data());
      const int64_t slot = nodes.store.Insert(t, key.data(), 0.0, 0.0, false);
      if (slot == 0) return -1;
      nodes.bounds[slot] = b;
    }
  }
  return 0;
}

// The table of past values: P slots in parallel arrays, two stages at a
// time.  Entries of one node are chained through `next`.  P is the limit
// that the memory budget sets; the arrays start smaller and double (the
// entries rehashed) as a stage fills them, so that a large budget costs
// nothing until a network needs it.  Growth happens only between edges,
// when the caller reserves room for the entries one edge may add.
template <class M>
class FlatPastTable {
 public:
  using Value = typename M::Value;
  static constexpr int64_t kFirstSlots = 1 << 18;

  int Create(int64_t limit, int64_t nodes) {
    if (limit < 1 || limit >= INT32_MAX || nodes >= INT32_MAX) return -1;
    limit_ = limit;
    try {
      head_.assign(static_cast<size_t>(nodes + 1), -1);
    } catch (const std::bad_alloc&) {
      return -1;
    }
    return Allocate(std::min(limit, kFirstSlots));
  }
  // The limit P of the budget.
  int64_t P() const { return limit_; }

  // Makes room for `more` new entries where the limit allows: 0, or -1 when
  // the memory is refused.
  int Reserve(int64_t more) {
    if (4 * (used_ + more) <= 3 * size_ || size_ == limit_) return 0;
    return Grow(std::min(limit_, std::max(2 * size_, used_ + 2 * more)));
  }

  // Adds q to the entry (stage, node, value), creating it at the first
  // free slot from its hash position upward (wrapping).  Returns 1 for a
  // new entry, 0 for a merge, -1 when no slot is free.
  int Add(int stage, int32_t node, const Value& v, double q) {
    const int8_t s = static_cast<int8_t>(stage);
    int64_t slot = Home(s, node, v);
    for (int64_t probes = 0; probes < size_; ++probes) {
      if (stage_[slot] == net::kFreeSlot) {
        Put(slot, s, node, v, q);
        return 1;
      }
      if (stage_[slot] == s && node_[slot] == node && M::Same(value_[slot], v)) {
        q_[slot] += q;
        return 0;
      }
      if (++slot == size_) slot = 0;
    }
    return -1;
  }
  // The chain of a node's entries: first entry, or -1.
  int32_t Head(int64_t node) const { return head_[node]; }
  int32_t Next(int32_t e) const { return next_[e]; }
  const Value& value(int32_t e) const { return value_[e]; }
  double q(int32_t e) const { return q_[e]; }
  // Frees every entry of a node and empties its chain.
  void FreeNode(int64_t node) {
    for (int32_t e = head_[node]; e >= 0; e = next_[e]) {
      stage_[e] = net::kFreeSlot;
      --used_;
    }
    head_[node] = -1;
  }

 private:
  int64_t Home(int8_t s, int32_t node, const Value& v) const {
    const uint64_t h =
        MixBits(M::HashValue(v) ^ (static_cast<uint64_t>(node) * 0x9E3779B97F4A7C15ull) ^
                (static_cast<uint64_t>(static_cast<uint8_t>(s)) << 56));
    return static_cast<int64_t>(h % static_cast<uint64_t>(size_));
  }
  void Put(int64_t slot, int8_t s, int32_t node, const Value& v, double q) {
    stage_[slot] = s;
    node_[slot] = node;
    value_[slot] = v;
    q_[slot] = q;
    next_[slot] = head_[node];
    head_[node] = static_cast<int32_t>(slot);
    ++used_;
  }
  int Allocate(int64_t n) {
    const double bytes = static_cast<double>(n) * (1 + 4 + 4 + 8 + sizeof(Value));
    if (!net::FitsInMemory(bytes)) return -1;
    try {
      stage_.reset(new int8_t[n]);
      node_.reset(new int32_t[n]);
      next_.reset(new int32_t[n]);
      value_.reset(new Value[n]);
      q_.reset(new double[n]);
    } catch (const std::bad_alloc&) {
      return -1;
    }
    std::fill(stage_.get(), stage_.get() + n, net::kFreeSlot);
    size_ = n;
    used_ = 0;
    return 0;
  }
  // Rehashes every entry into arrays of n slots; chains are rebuilt.
  int Grow(int64_t n) {
    std::unique_ptr<int8_t[]> stage = std::move(stage_);
    std::unique_ptr<int32_t[]> node = std::move(node_), next = std::move(next_);
    std::unique_ptr<Value[]> value = std::move(value_);
    std::unique_ptr<double[]> q = std::move(q_);
    const int64_t old = size_;
    if (Allocate(n) != 0) return -1;
    for (int64_t e = 0; e < old; ++e)
      if (stage[e] != net::kFreeSlot) head_[node[e]] = -1;
    for (int64_t e = 0; e < old; ++e) {
      if (stage[e] == net::kFreeSlot) continue;
      int64_t slot = Home(stage[e], node[e], value[e]);
      while (stage_[slot] != net::kFreeSlot)
        if (++slot == size_) slot = 0;
      Put(slot, stage[e], node[e], value[e], q[e]);
    }
    return 0;
  }

 private:
  int64_t limit_ = 0, size_ = 0, used_ = 0;
  std::unique_ptr<int8_t[]> stage_;
  std::unique_ptr<int32_t[]> node_, next_;
  std::unique_ptr<Value[]> value_;
  std::unique_ptr<double[]> q_;
  std::vector<int32_t> head_;  // by node slot
};

// The forward pass in flat form against HighBound `high` and LowBound
// `low` with tolerance `tol`.  Returns 0, -1 (a full table, a node not
// found) or the code of a stop; the masses are worthless on a failure.
template <class M>
int FlatForwardPass(const net::Network& net, const M& member, FlatNodes<M>& nodes, double high,
                    double low, double tol, net::PassResult& r) {
  const int K = net.K, S = net.S;
  r = net::PassResult{};
  const FlatCuts cuts(high, low, tol);
  FlatPastTable<M> table;
  if (table.Create(FlatTableSlots(MemoryBudget()), nodes.store.Z()) != 0) return -1;
  const double fill_limit = 0.6f * static_cast<float>(table.P());
  bool warned = false;
  std::vector<int64_t> cur, next, m(K), scratch(K), key(net.codec.n_words);
  try {
    cur.reserve(static_cast<size_t>(nodes.largest_stage + 1));
    next.reserve(static_cast<size_t>(nodes.largest_stage + 1));
  } catch (const std::bad_alloc&) {
    return -1;
  }
  net::SuccessorWalk<PlainKey> walk(net);
  Ticker tick;

  // Stage 0: the zero node holds the one past value 0 with all the mass.
  std::fill(m.begin(), m.end(), 0);
  net::NodeKey<PlainKey>(net, m.data(), 0, scratch.data(), key.data());
  const int64_t zero = nodes.store.Find(0, key.data());
  if (zero == 0) return -1;
  if (table.Add(0, static_cast<int32_t>(zero), typename M::Value{}, 1.0) < 0)
    return -1;
  cur.push_back(zero);
  int64_t stage_entries = 1;

  for (int s = 0; s < S; ++s) {
    if (tick()) SendStageLine(s);
    const int64_t Ts = net.T[s];
    int64_t new_entries = 0;
    bool settled = false;
    next.clear();
    for (size_t i = 0; i < cur.size() && !settled; ++i) {
      const int64_t node = cur[i];
      if (RunStopped()) return static_cast<int>(FailureCode());
      net::NodeOfKey<PlainKey>(net, nodes.store.key(node), Ts, m.data());
      int64_t chain = 0;  // entries of the node: the most one edge can add
      for (int32_t e = table.Head(node); e >= 0; e = table.Next(e)) ++chain;
      const double R = net.LogRemainingWeight(Ts, m.data());
      walk.Start(s, m.data());
      do {
        const double f = std::exp(walk.Weight() + walk.Remaining() - R);
        const int64_t to = nodes.store.Find(s + 1, walk.key());
        if (to == 0) return -1;
        const typename M::Bounds b = nodes.bounds[to];
        const typename M::Value inc = member.Edge(m.data(), walk.line());
        if (table.Reserve(chain) != 0) return -1;
        for (int32_t e = table.Head(node); e >= 0; e = table.Next(e)) {
          const typename M::Value t = M::Plus(table.value(e), inc);
          const double q = table.q(e) * f;
          switch (M::Decide(t, b, cuts)) {
            case FlatDecision::kHigh: r.tail_high += q; break;
            case FlatDecision::kLow: r.tail_low += q; break;
            case FlatDecision::kMiddle: r.middle += q; break;
            case FlatDecision::kLive: {
              const bool first = table.Head(to) < 0;
              const int added = table.Add(s + 1, static_cast<int32_t>(to), t, q);
              if (added < 0) return -1;
              if (added == 1) {
                ++new_entries;
                if (first) next.push_back(to);
                const double used = static_cast<float>(new_entries + stage_entries);
                if (!warned && used > fill_limit) {
                  warned = true;
                  SendLongRunNote(1);
                } else if (warned && fill_limit >= used) {
                  warned = false;
                  SendLongRunNote(0);
                }
              }
            }
          }
          if (tick())
            SendExactEstimateLine(net::ClampUnit(r.tail_high + r.tail_low),
                                  net::ClampUnit(1.0 - r.middle));
          if constexpr (M::kStopInWalk) {
            if (r.Undecided() <= 0.0) {
              settled = true;
              break;
            }
          }
        }
      } while (!settled && walk.Next());
      if (!settled) table.FreeNode(node);
    }
    if (settled || new_entries == 0 || r.Undecided() <= 0.0) {
      r.stopped_early = settled || r.Undecided() <= 0.0;
      return 0;
    }
    cur.swap(next);
    stage_entries = new_entries;
  }
  // The root: what is left lies within tol of a bound (of both where they
  // coincide).
  for (int64_t node : cur)
    for (int32_t e = table.Head(node); e >= 0; e = table.Next(e)) {
      const double v = M::RootValue(table.value(e));
      if (std::fabs(v - high) <= tol) r.high_point += table.q(e);
      if (std::fabs(v - low) <= tol) r.low_point += table.q(e);
    }
  return 0;
}

// Both passes of a flat member on a network whose margins are set.
template <class M>
int RunFlatPasses(const net::Network& net, const M& member, double high, double low, double tol,
                  net::PassResult& pass) {
  FlatNodes<M> nodes;
  int code = FlatBackwardInduction(net, member, nodes);
  if (code == 0) code = FlatForwardPass(net, member, nodes, high, low, tol, pass);
  return code;
}

}  // namespace anvl::assoc
