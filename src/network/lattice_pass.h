// The forward pass of a two-cut member with closed-form bounds whose
// statistic lives on a lattice: every edge adds a whole multiple of a step
// 2^-e, and every partial sum stays small enough that double arithmetic on
// it is exact and that no two distinct values are within the merge
// tolerance of each other.  Then the past values of a node are whole
// numbers i (value i / scale), two values merge exactly when they are
// equal, and every comparison with a cut comes out as it does in the tree
// form of network/passes.h, whatever order the values arrive in.
//
// So the past values of a node are held densely, as probabilities over the
// lattice points that can still be undecided there: the points of its past
// range whose completions are neither all above nor all below nor all
// strictly between the bounds.  Those are at most two bands of points
// (below and above the middle region); a node keeps one array per band.
// A node whose arrays are mostly empty is expanded from the sorted list of
// its held values instead.
// Along an edge with increment inc the decided points of the node are a
// top run (above), a bottom run (below) and a run in between (middle),
// summed from running sums formed once per node; the undecided points are
// the node's bands overlapping the successor's bands shifted by inc, and
// move over as one scaled add.  The nodes, their order, the decisions and
// the merges are those of the tree form; the masses differ only by the
// order of their sums.  The number of values held is counted as the tree
// form's pool counts its entries, and the pass fails at the same point.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "network/enumerators.h"
#include "network/node_store.h"
#include "network/passes.h"

namespace anvl::net {

// A member that the lattice pass can run: a two-cut member with
// closed-form bounds that also gives the least and greatest value that the
// lines before stage t can have given to a node of stage t.  Its
// EdgeStatistic is a sum over the cells of the line (the pass doesn't
// always form the edge's log weight, and steps along a run of the last
// free level by one fixed increment).
template <class M>
concept LatticeMember = NetworkMember<M> && M::kTwoCut && M::kClosedFormBounds && !M::kCanonical &&
                        requires(const M& m, int t, const int64_t* n, double& a, double& b) {
                          m.NodeBounds(t, n, a, b);
                          m.PastBounds(t, n, a, b);
                        };

// The lattice pass gave up: its bands would pass their memory cap.  The
// caller runs the tree form instead.
inline constexpr int kLatticeTooLarge = 1;

// Below this an edge probability is formed from the log factorials, not by
// a step from the one before, so that no underflow is carried along.
inline constexpr double kSmallEdge = 1e-250;

namespace detail {

// The lattice points of one node: up to two bands [lo, lo + len) of
// probabilities.  Which points hold a value: up to N = 160 those whose
// probability isn't 0; beyond, a byte per point tells (a value whose
// probability has underflowed to 0 is still held).
struct alignas(64) LatticeNode {
  int64_t lo[2];
  int64_t len[2];
  int64_t off[2];  // first point of the band in its stage's arena; -1: not yet placed
  int64_t held;    // values held
  int64_t sh, lg;  // the node's bounds in steps, beside its bands: an edge reads one line
  int bands;
};

// One edge of a batch: its probability given the node, its increment in
// steps, the hash of its successor's key and the successor's slot.
struct LatticeEdge {
  double f;
  int64_t inc;
  uint64_t hash;
  int64_t slot;
};
inline constexpr int kLatticeBatch = 16;
// Keys that index the slots directly: at most this many.
inline constexpr int64_t kDirectKeys = int64_t{1} << 20;

// Point storage of the nodes of one stage: bands are placed one after
// another and the whole arena is reset when its stage has been expanded.
struct LatticeArena {
  MappedArray<double> q;      // pages mapped on first touch, reused stage after stage
  MappedArray<uint8_t> held;
  int64_t used = 0;
  int64_t touched = 0;  // points written since the mapping: the rest read as 0
};

// Whole number of lattice steps of an exact lattice value (the product is
// whole, so the conversion is exact).
inline int64_t Steps(double value, double scale) { return static_cast<int64_t>(value * scale); }

// dq += f sq over n points, marking the points that sq holds as held in
// dheld; returns how many of them were not held before.  The runs are
// short (a few points to a few dozen), so a plain loop beats a vector one
// with its set-up.
inline int64_t ScaledAdd(double* __restrict dq, uint8_t* __restrict dheld,
                         const double* __restrict sq, const uint8_t* __restrict sheld, double f,
                         int64_t n) {
  int64_t made = 0;
  for (int64_t k = 0; k < n; ++k) {
    dq[k] += f * sq[k];
    made += sheld[k] & ~dheld[k];
    dheld[k] |= sheld[k];
  }
  return made;
}

// The same where a point is held exactly when its probability isn't 0.
inline int64_t ScaledAddByValue(double* __restrict dq, const double* __restrict sq, double f,
                                int64_t n) {
  int64_t made = 0;
  for (int64_t k = 0; k < n; ++k) {
    made += (dq[k] == 0.0) & (sq[k] != 0.0);
    dq[k] += f * sq[k];
  }
  return made;
}

}  // namespace detail

// Forward pass on the lattice of step 1 / scale.  `high_bound` and
// `low_bound` as for ForwardPass.  `cell_cap` limits the points of the
// bands of both resident stages (each stage's arena is mapped for that
// many, and its pages are touched only as bands are placed).  Returns 0, -1 (as ForwardPass: a full
// store, the past values over the pool's count, more than 127 stages), a
// stop's code, or kLatticeTooLarge.
template <LatticeMember M>
int LatticeForwardPass(const Network& net, const M& member, double scale, double high_bound,
                       double low_bound, int64_t cell_cap, PassResult& result) {
  using detail::LatticeNode;
  const int K = net.K, S = net.S;
  result = PassResult{};
  if (S > kMaxStages) return -1;
  NodeStore store;
  if (store.Create(net.Z, net.codec.n_words, net.prime) != 0) return -1;
  const int64_t limit = PastPool::EntryLimit(MemoryBudget());
  if (limit < 1) return -1;
  MappedArray<LatticeNode> nodes;  // by slot of the store
  if (nodes.Allocate(static_cast<size_t>(net.Z + 1)) != 0) return -1;
  detail::LatticeArena arena[2];
  // The node being expanded: its points' probabilities (and values, when
  // compact) and their running sums.
  std::vector<double> below, above, probs;
  std::vector<int64_t> values;
  std::vector<int64_t> m(K), mn(K), d(K), scratch(K), key(net.codec.n_words);
  SuccessorEnumerator succ;
  succ.Reserve(K);
  const int nw = net.codec.n_words;
  // Where every key is one word below a small bound, the key itself
  // indexes the slots of each resident stage, in place of the store's hash
  // index (which still holds the nodes: the store is the same).
  int64_t key_space = 1;
  bool direct = nw == 1 && !net.codec.last_word_empty;
  for (int64_t r : net.codec.radix) {
    key_space *= r;
    if (key_space > detail::kDirectKeys) {
      direct = false;
      break;
    }
  }
  std::vector<int64_t> slot_of[2];
  if (direct) {
    try {
      slot_of[0].assign(static_cast<size_t>(key_space), 0);
      slot_of[1].assign(static_cast<size_t>(key_space), 0);
    } catch (const std::bad_alloc&) {
      direct = false;
    }
  }
  detail::LatticeEdge batch[detail::kLatticeBatch];
  std::vector<int64_t> batch_key(static_cast<size_t>(detail::kLatticeBatch) * nw),
      new_node(static_cast<size_t>(K));
  // The factors of a step of the last free level, by the count before it.
  std::vector<double> step_up(static_cast<size_t>(net.N + 2)), step_down(step_up.size());

  // The cuts in whole steps.  A value v (in steps) with shortest and longest
  // completion sh, lg is decided above when v + sh >= hh, below when
  // v + lg <= ll, and between when v + sh >= mh_lo and v + lg <= mh_hi.
  const double tol = member.Tolerance(high_bound);
  const TwoCuts cuts{high_bound + tol, high_bound - tol, low_bound + tol, low_bound - tol};
  const auto first_above = [scale](double cut) {  // least whole x with x / scale > cut
    int64_t x = static_cast<int64_t>(std::floor(cut * scale)) - 1;
    while (static_cast<double>(x) / scale <= cut) ++x;
    return x;
  };
  const auto last_below = [scale](double cut) {  // greatest whole x with x / scale < cut
    int64_t x = static_cast<int64_t>(std::ceil(cut * scale)) + 1;
    while (static_cast<double>(x) / scale >= cut) --x;
    return x;
  };
  const int64_t hh = first_above(cuts.high_hi), ll = last_below(cuts.low_lo);
  const int64_t mid_lo = first_above(cuts.low_hi), mid_hi = last_below(cuts.high_lo);

  // The bands of a node of stage t with bounds sh, lg (in steps) and past
  // range [pmin, pmax]: the undecided points of that range.
  const auto set_bands = [&](LatticeNode& n, int64_t sh, int64_t lg, int64_t pmin, int64_t pmax) {
    const int64_t lo = std::max(pmin, ll - lg + 1), hi = std::min(pmax, hh - sh - 1);
    const int64_t hole_lo = mid_lo - sh, hole_hi = mid_hi - lg;  // strictly between
    n.bands = 0;
    n.held = 0;
    n.sh = sh;
    n.lg = lg;
    const auto add = [&n](int64_t a, int64_t b) {
      if (a > b) return;
      n.lo[n.bands] = a;
      n.len[n.bands] = b - a + 1;
      n.off[n.bands] = -1;
      ++n.bands;
    };
    if (hole_lo > hole_hi) {
      add(lo, hi);
    } else {
      add(lo, std::min(hi, hole_lo - 1));
      add(std::max(lo, hole_hi + 1), hi);
    }
  };
  // Every table has a probability of at least 1 / N!, and so has every
  // value held: up to N = 160 that is far above the least double, a held
  // value's probability is never 0, and the probabilities alone tell which
  // points are held.  Beyond, a byte per point does.
  const bool by_value = net.N <= 160;
  const auto held_at = [by_value](const detail::LatticeArena& a, size_t at) {
    return by_value ? a.q[at] != 0.0 : a.held[at] != 0;
  };
  for (detail::LatticeArena& a : arena) {  // refused: the tree form runs
    if (a.q.Allocate(static_cast<size_t>(cell_cap)) != 0) return kLatticeTooLarge;
    if (!by_value && a.held.Allocate(static_cast<size_t>(cell_cap)) != 0) return kLatticeTooLarge;
  }
  int64_t cells = 0, live = 1;
  result.peak_values = 1;
  const auto place = [&](LatticeNode& n, int b, detail::LatticeArena& a) -> bool {
    const int64_t len = n.len[b];
    if (cells + len > cell_cap) return false;  // each arena holds cell_cap points
    n.off[b] = a.used;
    const int64_t dirty = std::min(len, std::max<int64_t>(0, a.touched - a.used));
    if (dirty > 0) {  // points of an earlier stage: cleared
      std::memset(&a.q[static_cast<size_t>(a.used)], 0, sizeof(double) * static_cast<size_t>(dirty));
      if (!by_value) std::memset(&a.held[static_cast<size_t>(a.used)], 0, static_cast<size_t>(dirty));
    }
    a.used += len;
    a.touched = std::max(a.touched, a.used);
    cells += len;
    return true;
  };

  // Stage 0 by hand in slot 1: the zero node with its one value 0 (the
  // StartValue), all the probability.
  std::vector<int64_t> zero(K, 0), stage_list;
  {
    double shortest = 0.0, longest = 0.0;
    member.NodeBounds(0, zero.data(), shortest, longest);
    NodeKey<M>(net, zero.data(), 0, scratch.data(), key.data());
    LatticeNode& n = nodes[store.Place(1, 0, key.data(), shortest, longest)];
    n.bands = 1;
    n.lo[0] = 0;
    n.len[0] = 1;
    n.off[0] = -1;
    if (!place(n, 0, arena[0])) return kLatticeTooLarge;
    arena[0].q[0] = 1.0;
    if (!by_value) arena[0].held[0] = 1;
    n.held = 1;
  }
  Ticker tick;

  int64_t stage_nodes = 1;
  for (int s = 0;;) {
    if (tick() && M::kStageMessages) SendStageLine(s);
    detail::LatticeArena& here = arena[s & 1];
    detail::LatticeArena& there = arena[(s + 1) & 1];
    int64_t next_nodes = 0;
    const int64_t Ts = net.T[s], Tnext = net.T[s + 1];
    // The root's digits (the key margins) may pass the radices of the other
    // stages: it goes through the store's index.
    const bool direct_next = direct && s + 1 < S, direct_here = direct && s > 0;
    if (store.StageInSlotOrder(s, stage_list) != 0) return -1;
    if (static_cast<int64_t>(stage_list.size()) < stage_nodes) return -1;
    bool settled = false;
    // The increment of a step of the last free level: the statistic is a
    // sum over the cells of the line.
    std::fill(d.begin(), d.end(), 0);
    d[K - 2] = 1;
    const int64_t up_inc = detail::Steps(member.EdgeStatistic(s, d.data(), 0.0), scale);
    d[K - 2] = 0;
    d[K - 1] = 1;
    const int64_t step_inc = up_inc - detail::Steps(member.EdgeStatistic(s, d.data(), 0.0), scale);
    for (int64_t i = 0; i < stage_nodes && !settled; ++i) {
      const int64_t slot = stage_list[static_cast<size_t>(i)];
      LatticeNode node = nodes[slot];
      if (node.held != 0) {
        // Only the span of each band from its first to its last held value
        // takes part: the points outside it are empty.
        for (int b = 0; b < node.bands; ++b) {
          if (node.off[b] < 0) continue;
          const size_t at = static_cast<size_t>(node.off[b]);
          int64_t first = 0, last = node.len[b] - 1;
          while (first <= last && !held_at(here, at + first)) ++first;
          while (last >= first && !held_at(here, at + last)) --last;
          if (first > last) {
            node.off[b] = -1;  // a band without values
            node.len[b] = 0;
            continue;
          }
          node.lo[b] += first;
          node.off[b] += first;
          node.len[b] = last - first + 1;
        }
        NodeOfKey<M>(net, store.key(slot), Ts, m.data());
        // A node whose bands are mostly empty is walked by its held values
        // alone (compact); a full one point by point (dense).
        const int64_t span = node.len[0] + (node.bands > 1 ? node.len[1] : 0);
        const bool compact = 4 * node.held < span;
        const int64_t npts = compact ? node.held : span;
        if (static_cast<size_t>(npts + 1) > below.size()) {
          try {
            below.resize(static_cast<size_t>(npts + 1));
            above.resize(static_cast<size_t>(npts + 1));
            values.resize(static_cast<size_t>(npts + 1));
            probs.resize(static_cast<size_t>(npts + 1));
          } catch (const std::bad_alloc&) {
            return -1;
          }
        }
        const double* band_q[2] = {nullptr, nullptr};
        const uint8_t* band_held[2] = {nullptr, nullptr};
        for (int b = 0; b < node.bands; ++b) {
          band_q[b] = node.off[b] < 0 ? nullptr : &here.q[static_cast<size_t>(node.off[b])];
          if (!by_value)
            band_held[b] = node.off[b] < 0 ? nullptr : &here.held[static_cast<size_t>(node.off[b])];
        }
        if (compact) {  // the held values in ascending order
          int64_t n = 0;
          for (int b = 0; b < node.bands; ++b) {
            if (band_q[b] == nullptr) continue;
            for (int64_t k = 0; k < node.len[b]; ++k) {
              if (by_value ? band_q[b][k] == 0.0 : !band_held[b][k]) continue;
              values[n] = node.lo[b] + k;
              probs[n++] = band_q[b][k];
            }
          }
        } else {
          for (int64_t k = 0; k < npts; ++k) {
            const int b = k < node.len[0] ? 0 : 1;
            const int64_t at = b == 0 ? k : k - node.len[0];
            probs[k] = band_q[b] ? band_q[b][at] : 0.0;
          }
        }
        // Running sums over the points in ascending order: below[k] the
        // first k points, above[k] the points from k on, each summed from
        // its own end so that a small tail keeps its digits.
        below[0] = 0.0;
        for (int64_t k = 0; k < npts; ++k) below[k + 1] = below[k] + probs[k];
        above[npts] = 0.0;
        for (int64_t k = npts - 1; k >= 0; --k) above[k] = above[k + 1] + probs[k];
        // Position of the first point at or above value v.
        // The bands that hold values, for the dense walk.
        int sources = 0;
        int64_t source_lo[2], source_end[2];
        const double* source_q[2];
        const uint8_t* source_held[2];
        for (int b = 0; b < node.bands; ++b) {
          if (band_q[b] == nullptr) continue;
          source_lo[sources] = node.lo[b];
          source_end[sources] = node.lo[b] + node.len[b];
          source_q[sources] = band_q[b];
          source_held[sources] = band_held[b];
          ++sources;
        }
        const int64_t lo0 = node.lo[0], len0 = node.len[0];
        const int64_t lo1 = node.bands > 1 ? node.lo[1] : lo0 + len0, len1 = npts - len0;
        const int64_t* value_list = values.data();
        const auto position = [&](int64_t v) __attribute__((always_inline)) -> int64_t {
          if (compact) return std::lower_bound(value_list, value_list + npts, v) - value_list;
          if (v <= lo0) return 0;
          if (v < lo0 + len0) return v - lo0;
          if (v <= lo1) return len0;
          if (v < lo1 + len1) return len0 + v - lo1;
          return npts;
        };

        const double R = net.LogRemainingWeight(Ts, m.data());
        // f, the probability of the edge's line given the node, is a
        // product of binomial coefficients C(A_j - m_j, d_j) over
        // C(N - T_s, B_s).  Along a run of the last free level it changes by
        // two factors per step, (a - x) / (x + 1) and y / (b - y + 1); it is
        // formed afresh from the log factorials at every other step, and
        // when it gets small.
        const int64_t cap_a = net.A[K - 2] - m[K - 2], cap_b = net.A[K - 1] - m[K - 1];
        for (int64_t x = 0; x < cap_a; ++x)
          step_up[x] = static_cast<double>(cap_a - x) / static_cast<double>(x + 1);
        for (int64_t y = 1; y <= cap_b; ++y)
          step_down[y] = static_cast<double>(y) / static_cast<double>(cap_b - y + 1);
        double f = 0.0;
        int64_t inc = 0;
        bool fresh = true, more = true, full = false;
        succ.Start(K, net.A.data(), m.data(), net.B[s], net.rest[s], mn.data());
        while (more && !settled) {
          // A batch of successors: their lines, probabilities, increments
          // and keys, with the index loads started; then their slots, with
          // the loads of their nodes started; then the edges themselves.
          int n = 0;
          do {
            int64_t* bk = &batch_key[static_cast<size_t>(n) * nw];
            if (!fresh && succ.InnerStep() && f > kSmallEdge) {
              // One count moved from the last cell of the line to the one
              // before it.
              f *= step_up[d[K - 2]] * step_down[d[K - 1]];
              ++d[K - 2];
              --d[K - 1];
              --mn[K - 1];
              inc += step_inc;
            } else {
              CompleteLast(K, Tnext, mn.data());
              succ.Line(d.data());
              f = std::exp(net.EdgeLogWeight(s, d.data()) +
                           net.LogRemainingWeight(Tnext, mn.data()) - R);
              inc = detail::Steps(member.EdgeStatistic(s, d.data(), 0.0), scale);
            }
            SuccessorKey<M>(net, succ, fresh, mn.data(), Tnext, scratch.data(), key.data(), bk);
            fresh = false;
            detail::LatticeEdge& e = batch[n];
            e.f = f;
            e.inc = inc;
            if (!direct_next) {
              e.hash = store.Hash(s + 1, bk);
              store.Prefetch(e.hash);
            }
            ++n;
            more = succ.Next(mn.data());
          } while (more && n < detail::kLatticeBatch);
          for (int b = 0; b < n; ++b) {
            const int64_t* bk = &batch_key[static_cast<size_t>(b) * nw];
            int64_t next = direct_next ? slot_of[(s + 1) & 1][static_cast<size_t>(bk[0])]
                                  : store.FindHashed(batch[b].hash, s + 1, bk);
            if (next == 0) {  // first met: its bounds and bands now, and into the store
              // The successor from its key; the root's key may not unpack
              // (its digits may pass the radices), but the root is A.
              if (s + 1 < S) NodeOfKey<M>(net, bk, Tnext, new_node.data());
              const int64_t* node_b = s + 1 < S ? new_node.data() : net.A.data();
              double shortest, longest, pmin, pmax;
              member.NodeBounds(s + 1, node_b, shortest, longest);
              next = store.Insert(s + 1, bk, shortest, longest, false);
              if (direct_next && next != 0) slot_of[(s + 1) & 1][static_cast<size_t>(bk[0])] = next;
              if (next == 0) {  // the store is full: the edges before this one still count
                full = true;
                n = b;
                break;
              }
              member.PastBounds(s + 1, node_b, pmin, pmax);
              set_bands(nodes[next], detail::Steps(shortest, scale), detail::Steps(longest, scale),
                        detail::Steps(pmin, scale), detail::Steps(pmax, scale));
              ++next_nodes;
            }
            batch[b].slot = next;
            __builtin_prefetch(&nodes[next]);
          }
          if (RunStopped()) return static_cast<int>(FailureCode());
          for (int b = 0; b < n; ++b) {
            const double fe = batch[b].f;
            const int64_t inc = batch[b].inc;
            LatticeNode& to = nodes[batch[b].slot];
            const int64_t sh = to.sh, lg = to.lg;

            // Decided: above from v >= hh - sh - inc, below up to
            // ll - lg - inc, between in the rest of the middle region.
            const int64_t a_pos = position(hh - sh - inc);
            const int64_t b_pos = std::min(position(ll - lg - inc + 1), a_pos);
            const int64_t m_lo = std::max(position(mid_lo - sh - inc), b_pos);
            const int64_t m_hi = std::min(position(mid_hi - lg - inc + 1), a_pos);
            result.tail_high += fe * above[a_pos];
            result.tail_low += fe * below[b_pos];
            if (m_hi > m_lo) result.middle += fe * (below[m_hi] - below[m_lo]);

            // Undecided: the points that land in the successor's bands.
            for (int tb = 0; tb < to.bands && compact; ++tb) {
              const int64_t from = position(to.lo[tb] - inc);
              const int64_t upto = position(to.lo[tb] + to.len[tb] - inc);
              if (from >= upto) continue;
              if (to.off[tb] < 0 && !place(to, tb, there)) return kLatticeTooLarge;
              // The point of value v sits at base + v in the arena.
              const int64_t base = to.off[tb] + inc - to.lo[tb];
              double* dq = there.q.data();
              int64_t made = 0;
              if (by_value) {
                for (int64_t k = from; k < upto; ++k) {
                  const size_t at = static_cast<size_t>(base + values[k]);
                  made += dq[at] == 0.0;
                  dq[at] += fe * probs[k];
                }
              } else {
                uint8_t* dheld = there.held.data();
                for (int64_t k = from; k < upto; ++k) {
                  const size_t at = static_cast<size_t>(base + values[k]);
                  dq[at] += fe * probs[k];
                  made += dheld[at] ^ 1;
                  dheld[at] = 1;
                }
              }
              to.held += made;
              live += made;
            }
            for (int tb = 0; tb < to.bands && !compact; ++tb) {
              const int64_t to_lo = to.lo[tb] - inc, to_end = to_lo + to.len[tb];
              for (int bb = 0; bb < sources; ++bb) {
                const int64_t from = std::max(source_lo[bb], to_lo);
                const int64_t upto = std::min(source_end[bb], to_end);
                if (from >= upto) continue;
                const double* sq = source_q[bb] + (from - source_lo[bb]);
                if (to.off[tb] < 0 && !place(to, tb, there)) return kLatticeTooLarge;
                const size_t at = static_cast<size_t>(to.off[tb] + from + inc - to.lo[tb]);
                const int64_t made =
                    by_value ? detail::ScaledAddByValue(&there.q[at], sq, fe, upto - from)
                             : detail::ScaledAdd(&there.q[at], &there.held[at], sq,
                                                 source_held[bb] + (from - source_lo[bb]), fe,
                                                 upto - from);
                to.held += made;
                live += made;
              }
            }
            if (live > limit) return -1;  // the tree form's pool would be exhausted here
            result.peak_values = std::max(result.peak_values, live);
            if (result.Undecided() <= M::kStopMargin) {
              settled = true;
              break;
            }
          }
          // One tick a batch: the host's poll runs on every tick.
          if (tick())
            SendExactEstimateLine(ClampUnit(result.tail_high + result.tail_low),
                                  ClampUnit(1.0 - result.middle));
          if (full && !settled) return -1;
        }
      }
      if (settled) break;
      if (direct_here) slot_of[s & 1][static_cast<size_t>(store.key(slot)[0])] = 0;
      store.Free(slot);
      live -= node.held;
      nodes[slot].held = 0;
    }
    if (result.Undecided() <= M::kStopMargin) {
      result.stopped_early = true;
      return 0;
    }
    cells -= here.used;
    here.used = 0;
    stage_nodes = next_nodes;
    ++s;
    if (s >= S) break;
  }

  // Collect at the root: the values left lie within tol of a bound (where
  // the bounds coincide a value counts at both).
  const detail::LatticeArena& last = arena[S & 1];
  if (store.StageInSlotOrder(S, stage_list) != 0) return -1;
  for (const int64_t slot : stage_list) {
    const LatticeNode& n = nodes[slot];
    for (int b = 0; b < n.bands; ++b) {
      if (n.off[b] < 0) continue;
      for (int64_t k = 0; k < n.len[b]; ++k) {
        const size_t at = static_cast<size_t>(n.off[b] + k);
        if (!held_at(last, at)) continue;
        const double v = static_cast<double>(n.lo[b] + k) / scale;
        if (std::fabs(v - high_bound) <= tol) result.high_point += last.q[at];  // R = 0 at the root
        if (std::fabs(v - low_bound) <= tol) result.low_point += last.q[at];
      }
    }
  }
  return 0;
}

}  // namespace anvl::net
