// Nodes of the exact networks whose past value is a whole number (the
// two-sample Kolmogorov-Smirnov and the runs tests): a node is (first-row
// sum x, past value), and paths that reach the same pair are merged
// exactly.  The nodes of a stage live in a vector in the order they were
// made; an open-addressing index finds a node of the new stage by its pair.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace anvl::scores {

struct WholeNode {
  int64_t x, past;
  double log_weight;
};

// Open-addressing index of the nodes of the new stage.  Reset() empties it
// in time proportional to the nodes it held.
class NodeIndex {
 public:
  void Reset() {
    for (size_t p : used_) slots_[p] = -1;
    used_.clear();
  }
  // The node of (x, past) in `nodes`, or a new one at its end.
  int32_t* Find(int64_t x, int64_t past) {
    if (slots_.empty() || 2 * (used_.size() + 1) > slots_.size()) Grow();
    const size_t mask = slots_.size() - 1;
    size_t p = Hash(x, past) & mask;
    while (slots_[p] >= 0) {
      const WholeNode& q = (*nodes_)[static_cast<size_t>(slots_[p])];
      if (q.x == x && q.past == past) return &slots_[p];
      p = (p + 1) & mask;
    }
    used_.push_back(p);
    return &slots_[p];
  }
  void Bind(std::vector<WholeNode>* nodes) { nodes_ = nodes; }

 private:
  static size_t Hash(int64_t x, int64_t past) {
    uint64_t h = static_cast<uint64_t>(x) * 0x9E3779B97F4A7C15ULL ^
                 static_cast<uint64_t>(past) * 0xC2B2AE3D27D4EB4FULL;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ULL;
    return static_cast<size_t>(h ^ (h >> 32));
  }
  void Grow() {
    const size_t size = std::max<size_t>(1024, slots_.size() * 2);
    slots_.assign(size, -1);
    used_.clear();
    const size_t mask = size - 1;
    for (size_t i = 0; i < nodes_->size(); ++i) {
      const WholeNode& q = (*nodes_)[i];
      size_t p = Hash(q.x, q.past) & mask;
      while (slots_[p] >= 0) p = (p + 1) & mask;
      slots_[p] = static_cast<int32_t>(i);
      used_.push_back(p);
    }
  }
  std::vector<int32_t> slots_;
  std::vector<size_t> used_;
  std::vector<WholeNode>* nodes_ = nullptr;
};

}  // namespace anvl::scores
