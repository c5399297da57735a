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
// node, one node after another).  The K margins are A; the rest R = N - T
// bounds the lower ends.  Returns the count, or -1 when it would pass
// `limit`.
int64_t StageEnumerator(int K, const int64_t* A, int64_t T, int64_t N, int64_t limit,
                        std::vector<int64_t>& matrix);

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
  }

  // m[0..K-1] is the node (m[K-1] its true last component).
  bool Start(int K, const int64_t* A, const int64_t* m, int64_t line_total, int64_t rest,
             int64_t* next) {
    K_ = K;
    line_ = line_total;
    rest_ = rest;
    m_ = m;
    int64_t s = 0;
    for (int j = 0; j < K; ++j) {
      cap_[j] = A[j] - m[j];
      s += cap_[j];
      capsum_[j] = s;
    }
    Fill(0);
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
    int level = K_ - 2;
    ++c_[level];
    while (c_[level] > upper_[level]) {
      if (level == 0) return false;
      --level;
      ++c_[level];
    }
    last_step_ = level;
    Fill(level + 1);
    Emit(next, level);
    return true;
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
  // Sets levels from..K-2 at their lower bounds.
  void Fill(int from) {
    for (int j = from; j < K_ - 1; ++j) {
      const int64_t prev = j == 0 ? 0 : c_[j - 1];
      c_[j] = std::max(prev, capsum_[j] - rest_);
      upper_[j] = std::min(prev + cap_[j], line_);
    }
  }
  // Components from..K-2 of the successor.
  void Emit(int64_t* next, int from = 0) const {
    int64_t prev = from == 0 ? 0 : c_[from - 1];
    for (int j = from; j < K_ - 1; ++j) {
      next[j] = m_[j] + c_[j] - prev;
      prev = c_[j];
    }
  }

  int K_ = 0, last_step_ = -1;
  int64_t line_ = 0, rest_ = 0;
  const int64_t* m_ = nullptr;
  std::vector<int64_t> c_, upper_, cap_, capsum_;
};

}  // namespace anvl::net
