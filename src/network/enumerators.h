// The two generators that the network passes share: the nodes of a stage,
// and the successors of a node.  Both walk cumulative vectors
// c_j = x_0 + ... + x_j lexicographically, last level fastest, between
// bounds that admit only vectors that can still be completed.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace anvl::net {

// Digits of a node key at most: the shorter dimension of a table.
inline constexpr int kMaxDigits = 128;

// Lists every node of a stage with total T into `matrix` (K - 1 digits a
// node, one node after another; room for `limit` nodes).  The K margins
// are A; the rest R = N - T bounds the lower ends.  Returns the count, or
// -1 when it would pass `limit`.
int64_t StageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                        int64_t* matrix);

// The nodes of a stage with total T, as StageEnumerator lists them, that
// are the first of their class: nodes whose complements A_j - m_j are the
// same values in another order are one class.  Needs A ascending.  The
// first node of a class in the listing's (lexicographic) order is its
// least: no exchange of the complements of columns i < j is allowed
// (u_j <= A_i) and lowers m_i (u_i < u_j).  Returns the count written, or
// -1 when the stage has more than `limit` nodes in all, as
// StageEnumerator would.
int64_t CanonicalStageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                                 int64_t* matrix);

// Successors of a node m of stage s at stage s + 1: the lines d with
// 0 <= d_j <= A_j - m_j summing to the line total, such that the lines
// after it (summing to `rest`) can still be filled.  Writes m'[0..K-2];
// the caller sets m'[K-1].  Start() gives the first successor; Next()
// the following ones, false after the last.
class SuccessorEnumerator {
 public:
  void Reserve(int K) {
    c_.assign(K, 0);
    upper_.assign(K, 0);
    cap_.assign(K, 0);
    capsum_.assign(K, 0);
    tie_.assign(K, -1);
  }

  // m[0..K-1] is the node (m[K-1] its true last component).  With `tie`,
  // column j whose tie[j] = i >= 0 (an earlier column of the same
  // capacity) takes at most what column i takes: of the lines that differ
  // only by an exchange of such columns, only the one whose cells don't
  // rise within each group is listed.  With `rising` too, column j takes
  // at least what column i takes: the one listed is then the one whose
  // cells don't fall, which comes first of them in the order of the
  // walk.  False when there is no line.
  bool Start(int K, const int64_t* A, const int64_t* m, int64_t line_total, int64_t rest,
             int64_t* next, const int* tie = nullptr, bool rising = false) {
    K_ = K;
    line_ = line_total;
    rest_ = rest;
    m_ = m;
    tied_ = tie != nullptr;
    rising_ = rising;
    int64_t s = 0;
    for (int j = 0; j < K; ++j) {
      cap_[j] = A[j] - m[j];
      s += cap_[j];
      capsum_[j] = s;
      tie_[j] = tied_ ? tie[j] : -1;
    }
    last_step_ = 0;
    const int dead = Fill(0);
    if (dead >= 0 && (dead == 0 || !Settle(dead - 1))) return false;
    Emit(next);
    last_step_ = 0;
    return true;
  }

  // `next` holds the successor before (Start or Next wrote it).
  __attribute__((always_inline)) bool Next(int64_t* next) {
    int level = K_ - 2;
    if (level < 0) return false;
    if (c_[level] < upper_[level]) {  // the last free level alone moves
      ++c_[level];
      ++next[level];
      last_step_ = level;
      return true;
    }
    return NextCarry(next);
  }
  // Whether the last Next() moved the last free level alone: the line
  // then differs from the one before by one count moved from its last
  // cell to the cell before it.
  bool InnerStep() const { return last_step_ == K_ - 2; }
  // The first component that the last Next() changed (0 after Start):
  // the successor and the line are as before in the components below it.
  int FirstChanged() const { return last_step_; }

 private:
  __attribute__((noinline)) bool NextCarry(int64_t* next) {
    if (!Settle(K_ - 2)) return false;
    Emit(next, last_step_);
    return true;
  }
  // Raises level `level` and settles the levels below it at their lowest
  // values, carrying upwards past levels that have none; false after the
  // last line.  last_step_ becomes the lowest level raised.
  bool Settle(int level) {
    last_step_ = level;
    ++c_[level];
    for (;;) {
      while (c_[level] > upper_[level]) {
        if (level == 0) return false;
        --level;
        ++c_[level];
      }
      if (level < last_step_) last_step_ = level;
      const int dead = Fill(level + 1);
      if (dead < 0) return true;
      level = dead - 1;  // no value at level `dead`: raise the one above
      ++c_[level];
    }
  }

 public:
  // The line of the current successor: d_j, with d[K-1] by subtraction;
  // components below `from` are left as they are.
  void Line(int64_t* d, int from = 0) const {
    int64_t prev = from == 0 ? 0 : c_[from - 1];
    for (int j = from; j < K_ - 1; ++j) {
      d[j] = c_[j] - prev;
      prev = c_[j];
    }
    d[K_ - 1] = line_ - prev;
  }

 private:
  // Sets levels from..K-2 at their lower bounds.  Returns -1, or the first
  // level whose bounds cross (only under tie constraints).
  int Fill(int from) {
    for (int j = from; j < K_ - 1; ++j) {
      const int64_t prev = j == 0 ? 0 : c_[j - 1];
      int64_t lo = std::max(prev, capsum_[j] - rest_);
      int64_t hi = std::min(prev + cap_[j], line_);
      if (tied_) {
        if (tie_[j] >= 0) {
          if (rising_) lo = std::max(lo, prev + Cell(tie_[j]));
          else hi = std::min(hi, prev + Cell(tie_[j]));
        }
        if (j == K_ - 2 && tie_[K_ - 1] >= 0) {  // the last cell, line - c_j, is bounded too
          const int t = tie_[K_ - 1];
          if (rising_) hi = std::min(hi, t == j ? (line_ + prev) / 2 : line_ - Cell(t));
          else lo = std::max(lo, t == j ? (line_ + prev + 1) / 2 : line_ - Cell(t));
        }
        if (lo > hi) return j;
      }
      c_[j] = lo;
      upper_[j] = hi;
    }
    return -1;
  }
  int64_t Cell(int j) const { return c_[j] - (j == 0 ? 0 : c_[j - 1]); }
  // Components from..K-2 of the successor.
  void Emit(int64_t* next, int from = 0) const {
    int64_t prev = from == 0 ? 0 : c_[from - 1];
    for (int j = from; j < K_ - 1; ++j) {
      next[j] = m_[j] + c_[j] - prev;
      prev = c_[j];
    }
  }

  int K_ = 0, last_step_ = -1;
  bool tied_ = false, rising_ = false;
  int64_t line_ = 0, rest_ = 0;
  const int64_t* m_ = nullptr;
  std::vector<int64_t> c_, upper_, cap_, capsum_;
  std::vector<int> tie_;
};

}  // namespace anvl::net
