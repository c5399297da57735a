// Exact ShortestPath and LongestPath of the nodes of Fisher's network,
// formed when the forward pass first needs them rather than for every node
// ahead of it.  For a table whose observed value lies next to the mode
// almost every path is decided at the first stages, and the pass asks for
// the bounds of a few thousand nodes of a network with hundreds of
// millions of edges.
//
// From a node of stage t a path to the root completes a table whose lines
// are B_t .. B_{S-1} and whose column totals are the node's complements
// u_j; its statistic is the sum over the lines of log B_s! less the sum of
// log x! over the cells.
//
// LongestPath is the statistic of the most probable completion.  Its cells
// minimise a separable convex function over the tables with these totals,
// so a table is optimal when no cycle of unit moves lowers the sum: it is
// found directly, with no walk of the subnetwork.
//
// ShortestPath, the least probable completion, maximises a convex function
// and has no such shortcut.  It is the backward pass's programme run from
// the node towards the root, remembering every node done: the least over
// the node's successors of the successor's bound plus the edge.  Most
// successors can't attain that least, and a bound of their bound says so
// without their subnetwork: with the line totals dropped, each column's
// greatest sum of log x! piles its count into the largest lines first.  A
// successor is skipped only when that bound, plus the edge, lies above the
// least found by more than the rounding of the sums, so the result is the
// same double that the full programme gives from the same node.
//
// That bound plus the edge is a sum over the line's cells of a term of
// each cell alone, so the successors are not listed one by one: a search
// over the line's cells, column by column, with the most that the columns
// still open can add (a knapsack over them, formed once for the node),
// reaches only the lines whose bound lies within the least found.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "network/passes.h"

namespace anvl::net {

template <NetworkMember M>
class LazyBounds {
 public:
  LazyBounds(const Network& net, const M& member)
      : net_(net), K_(net.K), S_(net.S), nw_(net.codec.n_words), member_(member) {}

  // The walks, the table of relaxed bounds and a first table of nodes
  // done (it doubles as it fills).  0 or -1.
  int Create() {
    try {
      Resize(1024);
      level_.resize(S_ + 1);
      for (Level& l : level_) {
        l.m.assign(K_, 0);
        l.tie.assign(K_, -1);
        l.d.assign(K_, 0);
        l.next.assign(K_, 0);
        l.scratch.assign(K_, 0);
        l.key.assign(nw_, 0);
      }
      BuildRelaxations();
      cells_.assign(static_cast<size_t>(S_) * K_, 0);
      u_.assign(K_, 0);
      dist_.assign(S_ + K_, 0.0);
      pred_.assign(S_ + K_, -1);
      seen_.assign(S_ + K_, 0);
      col_left_.assign(K_, 0);
      row_left_.assign(S_, 0);
      log_.assign(static_cast<size_t>(net_.N) + 2, 0.0);
      for (size_t k = 1; k < log_.size(); ++k) log_[k] = std::log(static_cast<double>(k));
    } catch (const std::bad_alloc&) {
      return -1;
    }
    return 0;
  }

  // The progress line of a tick inside a bound shows these tails.
  void ShowTails(const PassResult* r) { tails_ = r; }
  // No ticks: the bounds of a thread other than the caller's.
  void Quiet() { quiet_ = true; }

  // LongestPath and ShortestPath of the node with `key` at stage t.  NaN,
  // and failed() true, when the table of nodes done could not grow.
  double Longest(int t, const int64_t* key);
  double Shortest(int t, const int64_t* key);
  bool failed() const { return failed_; }

 private:
  struct Level {
    std::vector<int64_t> m;
    std::vector<int> tie;
    // The search over a line of the node: its cells so far, the successor
    // and its key; gain[j][x], what cell x of column j adds to the least
    // statistic's relaxed bound (log x! and its column's greatest rest),
    // and most[j][r], the most that columns j.. can add with r left (j
    // from 1; sized when the level is first searched).
    std::vector<int64_t> d, next, scratch, key;
    std::vector<double> gain, most;
    int64_t line = 0;
    double base = 0.0;  // the bound and the edge with no cell: log B! and the rows'
    double best = 0.0, need = 0.0;
  };

  // Slot of (t, key) in the table of nodes done, made if absent; the
  // table doubles when half full.  Throws std::bad_alloc.
  uint64_t Slot(int t, const int64_t* key) {
    if (2 * (count_ + 1) > mask_ + 1) Resize(2 * (mask_ + 1));
    for (uint64_t i = MixKey(t, key, nw_) & mask_;; i = (i + 1) & mask_) {
      if (stage_[i] < 0) {
        stage_[i] = static_cast<int8_t>(t);
        for (int w = 0; w < nw_; ++w) keys_[i * nw_ + w] = key[w];
        ++count_;
        return i;
      }
      if (stage_[i] == t) {
        bool same = true;
        for (int w = 0; w < nw_ && same; ++w) same = keys_[i * nw_ + w] == key[w];
        if (same) return i;
      }
    }
  }

  void Resize(uint64_t cap) {
    std::vector<int8_t> stage(cap, -1);
    std::vector<int64_t> keys(cap * nw_, 0);
    std::vector<double> shortest(cap, std::nan("")), longest(cap, std::nan(""));
    const uint64_t mask = cap - 1;
    for (uint64_t i = 0; i < stage_.size(); ++i) {
      if (stage_[i] < 0) continue;
      uint64_t j = MixKey(stage_[i], &keys_[i * nw_], nw_) & mask;
      while (stage[j] >= 0) j = (j + 1) & mask;
      stage[j] = stage_[i];
      for (int w = 0; w < nw_; ++w) keys[j * nw_ + w] = keys_[i * nw_ + w];
      shortest[j] = shortest_[i];
      longest[j] = longest_[i];
    }
    stage_.swap(stage);
    keys_.swap(keys);
    shortest_.swap(shortest);
    longest_.swap(longest);
    mask_ = mask;
  }

  double ShortestOf(int t, const int64_t* key);
  void SearchLines(int t, Level& l, int j, int64_t left, double gained);
  void TryLine(int t, Level& l);
  // The least found plus the rounding of the sums: a line whose bound lies
  // above it can't attain the least.
  static double Reach(double best) { return best + 1e-9 * (1.0 + std::fabs(best)); }
  double MostProbableCompletion(int t, const int64_t* m);
  bool CancelOneCycle(int rows);

  // The host's poll on every tick, the progress line and the stop test on
  // a report: a stopped run leaves every bound at 0 and remembers none.
  void Tick() {
    if (quiet_ || !tick_()) return;
    if (RunStopped()) stopped_ = true;
    if (tails_ != nullptr)
      SendExactEstimateLine(ClampUnit(tails_->tail_high), ClampUnit(1.0 - tails_->tail_low));
  }

  // col_most_[t][u]: the greatest sum of log x! over a column of count u
  // spread over the lines B_t .. B_{S-1}, at most B_s in line s.  Piling
  // into the largest lines first gives a vector that majorizes every other
  // spread, and a sum of a convex function is greatest there.  A lower
  // bound of the least statistic from a node of stage t to the root is
  // rows_lf_[t] (the lines' log B!) less col_most_[t] of each complement:
  // every column's count piled into the largest lines, whatever the line
  // totals.
  void BuildRelaxations() {
    width_ = static_cast<size_t>(net_.A.back()) + 1;
    col_most_.assign(static_cast<size_t>(S_ + 1) * width_, 0.0);
    rows_lf_.assign(S_ + 1, 0.0);
    std::vector<int64_t> caps;
    for (int t = S_ - 1; t >= 0; --t) {
      rows_lf_[t] = rows_lf_[t + 1] + LogFactorial(net_.B[t], net_.lf);
      caps.assign(net_.B.begin() + t, net_.B.end());
      std::sort(caps.begin(), caps.end());
      int64_t room = 0;
      for (int64_t c : caps) room += c;
      for (int64_t u = 0; u < static_cast<int64_t>(width_); ++u) {
        double most = -HUGE_VAL;
        if (u <= room) {
          most = 0.0;
          int64_t left = u;
          for (size_t k = caps.size(); k-- > 0 && left > 0;) {
            const int64_t x = std::min(caps[k], left);
            most += LogFactorial(x, net_.lf);
            left -= x;
          }
        }
        col_most_[static_cast<size_t>(t) * width_ + u] = most;
      }
    }
  }

  const Network& net_;
  const int K_, S_, nw_;
  const M member_;
  uint64_t mask_ = 0, count_ = 0;
  std::vector<int8_t> stage_;
  std::vector<int64_t> keys_;
  std::vector<double> shortest_, longest_;
  std::vector<Level> level_;
  size_t width_ = 0;
  std::vector<double> col_most_, rows_lf_;
  // The completion table of the most probable completion (line-major),
  // the column totals, and the cycle search's distances and predecessors.
  std::vector<int64_t> cells_, u_;
  std::vector<double> dist_;
  std::vector<int> pred_;
  std::vector<char> seen_;
  std::vector<int64_t> col_left_, row_left_;
  std::vector<double> log_;  // log k
  Ticker tick_;
  bool quiet_ = false;
  const PassResult* tails_ = nullptr;
  bool stopped_ = false, failed_ = false;
};

template <NetworkMember M>
double LazyBounds<M>::Longest(int t, const int64_t* key) {
  if (t >= S_) return 0.0;
  try {
    const uint64_t slot = Slot(t, key);
    if (std::isnan(longest_[slot])) {
      std::vector<int64_t>& m = level_[t].m;
      NodeOfKey<M>(net_, key, net_.T[t], m.data());
      longest_[slot] = MostProbableCompletion(t, m.data());
    }
    return longest_[slot];
  } catch (const std::bad_alloc&) {
    failed_ = true;
    return std::nan("");
  }
}

template <NetworkMember M>
double LazyBounds<M>::Shortest(int t, const int64_t* key) {
  try {
    return ShortestOf(t, key);
  } catch (const std::bad_alloc&) {
    failed_ = true;
    return std::nan("");
  }
}

// The least statistic from node (t, key) to the root: the least over its
// successors of theirs plus the edge, where a successor whose relaxed
// bound plus the edge lies above the least found (by more than the
// rounding of the sums) can't attain it and is passed over.  The edge of
// Fisher's network is the line's log weight, log B! less the log x! of
// its cells, so the bound plus the edge is base less the cells' gains.
template <NetworkMember M>
double LazyBounds<M>::ShortestOf(int t, const int64_t* key) {
  if (t >= S_ || stopped_) return 0.0;
  {
    const double known = shortest_[Slot(t, key)];
    if (!std::isnan(known)) return known;
  }
  Level& l = level_[t];
  NodeOfKey<M>(net_, key, net_.T[t], l.m.data());
  if constexpr (SymmetricLine<M>()) TiedColumns(net_, l.m.data(), l.tie.data());
  const int64_t B = net_.B[t];
  const size_t row = static_cast<size_t>(B) + 1;
  if (l.gain.empty()) {
    l.gain.resize(K_ * row);
    l.most.resize(K_ * row);
  }
  const double* col = t + 1 < S_ ? &col_most_[static_cast<size_t>(t + 1) * width_] : nullptr;
  for (int j = 0; j < K_; ++j) {
    const int64_t u = net_.A[j] - l.m[j];
    double* g = &l.gain[j * row];
    for (int64_t x = 0; x <= B; ++x)
      g[x] = x > u ? -HUGE_VAL : LogFactorial(x, net_.lf) + (col != nullptr ? col[u - x] : 0.0);
  }
  // The last column takes what is left; before it, column j takes x of r
  // within its complement, and the columns after it at most what they hold.
  double* most = l.most.data();
  std::copy(&l.gain[(K_ - 1) * row], &l.gain[K_ * row], most + (K_ - 1) * row);
  int64_t after_holds = net_.A[K_ - 1] - l.m[K_ - 1];
  for (int j = K_ - 2; j >= 1; --j) {  // the search starts at column 0 with B left
    const double* g = &l.gain[j * row];
    const double* after = &most[(j + 1) * row];
    const int64_t u = net_.A[j] - l.m[j];
    for (int64_t r = 0; r <= B; ++r) {
      double m = -HUGE_VAL;
      for (int64_t x = std::max<int64_t>(0, r - after_holds); x <= std::min(r, u); ++x)
        m = std::max(m, g[x] + after[r - x]);
      most[j * row + r] = m;
    }
    after_holds += u;
  }
  l.line = B;
  l.base = LogFactorial(B, net_.lf) + (t + 1 < S_ ? rows_lf_[t + 1] : 0.0);
  // The line of the greatest gain first, so that the others meet a good
  // bound: traced back through the knapsack, its cells then ordered within
  // each group of tied columns as the search lists them.
  int64_t left = B;
  for (int j = 0; j < K_ - 1; ++j) {
    const double* g = &l.gain[j * row];
    const double* after = &most[(j + 1) * row];
    int64_t pick = 0;
    for (int64_t x = 1; x <= left; ++x)
      if (g[x] + after[left - x] > g[pick] + after[left - pick]) pick = x;
    l.d[j] = pick;
    left -= pick;
  }
  l.d[K_ - 1] = left;
  for (int j = 0; j < K_; ++j)  // cells that don't rise within a group
    for (int at = j, i = l.tie[j]; i >= 0 && l.d[at] > l.d[i]; at = i, i = l.tie[i])
      std::swap(l.d[at], l.d[i]);
  l.best = HUGE_VAL;
  l.need = -HUGE_VAL;
  TryLine(t, l);
  SearchLines(t, l, 0, B, 0.0);
  if (stopped_) return 0.0;
  shortest_[Slot(t, key)] = l.best;
  return l.best;
}

// Lists the lines of the node at stage t whose columns j.. hold `left`,
// their first cells being l.d[0..j-1] with gains `gained`, and tries
// those whose bound can still attain the least found.  A column tied to
// an earlier one takes at most what that one takes.
template <NetworkMember M>
void LazyBounds<M>::SearchLines(int t, Level& l, int j, int64_t left, double gained) {
  const size_t row = static_cast<size_t>(l.line) + 1;
  const double* g = &l.gain[j * row];
  int64_t hi = left;
  if (l.tie[j] >= 0) hi = std::min(hi, l.d[l.tie[j]]);
  if (j == K_ - 1) {
    if (hi < left || g[left] == -HUGE_VAL || g[left] + gained < l.need || stopped_) return;
    l.d[j] = left;
    TryLine(t, l);
    return;
  }
  const double* after = &l.most[(j + 1) * row];
  for (int64_t x = 0; x <= hi; ++x) {
    if (g[x] + after[left - x] + gained < l.need) continue;
    l.d[j] = x;
    SearchLines(t, l, j + 1, left - x, gained + g[x]);
    if (stopped_) return;
  }
}

// The successor through line l.d: its least statistic plus the edge, the
// line's log weight summed cell by cell as the successor walk sums it.
template <NetworkMember M>
void LazyBounds<M>::TryLine(int t, Level& l) {
  double w = LogFactorial(l.line, net_.lf);
  for (int j = 0; j < K_; ++j) {
    l.next[j] = l.m[j] + l.d[j];
    w -= LogFactorial(l.d[j], net_.lf);
  }
  NodeKey<M>(net_, l.next.data(), net_.T[t + 1], l.scratch.data(), l.key.data());
  const double v = ShortestOf(t + 1, l.key.data()) + member_.EdgeStatistic(t, l.d.data(), w);
  if (v < l.best) {
    l.best = v;
    l.need = l.base - Reach(v);
  }
  Tick();
}

// The greatest statistic from node m of stage t to the root: the log
// weight of the most probable table whose lines are B_t .. B_{S-1} and
// whose column totals are the node's complements.  Its cells minimise the
// sum of log x!, a separable convex function over the tables with these
// totals, so a table is the most probable one when no cycle of unit moves
// (up in one cell, down in the next of its column, up in the next of its
// line, ...) lowers that sum.  Start from the proportional table rounded
// down, fill what the totals still lack corner-wise, and cancel lowering
// cycles until there is none.  The weight is summed line by line from the
// last line, as the backward pass sums a path.
template <NetworkMember M>
double LazyBounds<M>::MostProbableCompletion(int t, const int64_t* m) {
  const int rows = S_ - t;
  int64_t total = 0;
  for (int j = 0; j < K_; ++j) total += u_[j] = net_.A[j] - m[j];
  // Rounded-down proportional cells, then the deficits corner-wise.
  for (int j = 0; j < K_; ++j) col_left_[j] = u_[j];
  for (int r = 0; r < rows; ++r) {
    const int64_t b = net_.B[t + r];
    int64_t used = 0;
    for (int j = 0; j < K_; ++j) {
      const int64_t x = total > 0 ? b * u_[j] / total : 0;
      cells_[r * K_ + j] = x;
      col_left_[j] -= x;
      used += x;
    }
    row_left_[r] = b - used;
  }
  for (int r = 0, j = 0; r < rows && j < K_;) {
    const int64_t x = std::min(row_left_[r], col_left_[j]);
    cells_[r * K_ + j] += x;
    row_left_[r] -= x;
    col_left_[j] -= x;
    if (row_left_[r] == 0) ++r;
    else ++j;
  }
  while (CancelOneCycle(rows)) {
  }
  double v = 0.0;
  for (int r = rows - 1; r >= 0; --r) {
    double w = LogFactorial(net_.B[t + r], net_.lf);
    for (int j = 0; j < K_; ++j) w -= LogFactorial(cells_[r * K_ + j], net_.lf);
    v += w;
  }
  return v;
}

// Finds a cycle of unit moves that lowers the sum of log x! of the table
// by more than rounding (Bellman-Ford over lines and columns: a move up in
// cell (r, j) is an arc from line r to column j of cost log(x + 1), a move
// down an arc from column j to line r of cost -log x) and makes it.  False
// when there is none.
template <NetworkMember M>
bool LazyBounds<M>::CancelOneCycle(int rows) {
  constexpr double kSlack = 1e-12;
  const int V = rows + K_;
  std::fill(dist_.begin(), dist_.begin() + V, 0.0);
  std::fill(pred_.begin(), pred_.begin() + V, -1);
  for (int pass = 0; pass <= V; ++pass) {
    int changed = -1;
    for (int r = 0; r < rows; ++r) {
      for (int j = 0; j < K_; ++j) {
        const int64_t x = cells_[r * K_ + j];
        const int c = rows + j;
        const double up = dist_[r] + log_[x + 1];
        if (up < dist_[c] - kSlack) {
          dist_[c] = up;
          pred_[c] = r;
          changed = c;
        }
        if (x > 0) {
          const double down = dist_[c] - log_[x];
          if (down < dist_[r] - kSlack) {
            dist_[r] = down;
            pred_[r] = c;
            changed = r;
          }
        }
      }
    }
    if (changed < 0) return false;
    // A cycle among the predecessors lowers the sum (each of its arcs was
    // taken because it lowered a distance); look for one through the
    // vertices changed, all of them after the last pass.
    for (int from = pass < V ? changed : 0; from < (pass < V ? changed + 1 : V); ++from) {
      std::fill(seen_.begin(), seen_.begin() + V, 0);
      int at = from;
      while (at >= 0 && !seen_[at]) {
        seen_[at] = 1;
        at = pred_[at];
      }
      if (at < 0) continue;
      const int start = at;
      do {
        const int p = pred_[at];
        if (p < rows) ++cells_[p * K_ + (at - rows)];  // line -> column: up
        else --cells_[at * K_ + (p - rows)];           // column -> line: down
        at = p;
      } while (at != start);
      return true;
    }
  }
  return false;
}

}  // namespace anvl::net
