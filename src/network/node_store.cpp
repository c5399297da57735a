#include "network/node_store.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>


namespace anvl::net {
namespace {

// A key word stays below this times the radix of its last digit.
constexpr double kWordLimit = 2147483647.0;
// exp() of the estimate's exponent underflows below and overflows above.
constexpr double kExpUnderflow = -708.39;
constexpr double kExpOverflow = 709.78;
// The summed estimate of the plain network may not pass 2^30 - 1/2.
constexpr double kTotalLimit = 1073741823.5;
constexpr int64_t kPlainMinimumLimit = 20000;
constexpr int64_t kCanonicalMinimumLimit = 2000;
constexpr double kCanonicalWordLimit = 2147483647.0;
constexpr double kTwoPi = 6.283185307179586;
// The pool holds one entry per 40 bytes of budget, less a reserve.
constexpr int64_t kBytesPerEntry = 40;
constexpr int64_t kEntryReserve = 4000;
// Entries are linked by 32-bit indices.
constexpr int64_t kLargestPool = std::numeric_limits<int32_t>::max() - 1;
// The hash in integers: products of two residues stay below 2^53 for a
// prime below sqrt(2^53), and words below 2^53 convert to double exactly.
constexpr int64_t kExactHashPrime = 94906265;
constexpr int64_t kExactDouble = int64_t{1} << 53;
constexpr int64_t kTwoTo31 = int64_t{1} << 31;
// Share of the machine's physical memory that the node tables may take.
constexpr double kMemoryShare = 0.5;

// Sums of the normal approximation to the number of nodes per stage.
struct EstimateBase {
  double mean, var, c;
};
EstimateBase Base(const std::vector<int64_t>& A) {
  double s1 = 0.0, s2 = 0.0, s3 = 0.0;
  for (int64_t a : A) {
    s1 += static_cast<double>(a);
    s2 += static_cast<double>(a) * static_cast<double>(a + 2);
    s3 += std::log(static_cast<double>(a + 1));
  }
  const double var = s2 / 12.0;
  return {s1 / 2.0, var, s3 - (std::log(var) + std::log(kTwoPi)) / 2.0};
}

}  // namespace

void KeyCodec::Build(int k, const std::vector<int64_t>& radices) {
  K = k;
  radix = radices;
  word_end.clear();
  const int digits = K - 1;
  if (digits >= 1) {
    double p = static_cast<double>(radix[0]);
    for (int i = 1; i < digits; ++i) {
      if (static_cast<double>(radix[i]) * p > kWordLimit) {
        word_end.push_back(i);
        p = static_cast<double>(radix[i]);
      } else {
        p *= static_cast<double>(radix[i]);
      }
    }
  }
  last_word_empty = !word_end.empty() && word_end.back() == digits - 1;
  word_end.push_back(digits - 1);
  n_words = static_cast<int>(word_end.size());
  weight.assign(static_cast<size_t>(std::max(digits, 0)), 1);
  word_of.assign(weight.size(), 0);
  int first = 0;
  for (int w = 0; w < n_words && first < digits; ++w) {
    const int last = word_end[w];
    for (int i = last; i >= first; --i) {
      word_of[i] = w;
      if (i < last) weight[i] = weight[i + 1] * radix[i + 1];
    }
    first = last + 1;
  }
  // Component K - 1 is no digit: a change of it changes no word.
  weight.push_back(0);
  word_of.push_back(0);
}

void KeyCodec::Unpack(const int64_t* key, int64_t* m) const {
  int first = 0;
  for (int w = 0; w < n_words; ++w) {
    const int last = word_end[w];
    if (w == n_words - 1 && last_word_empty) break;
    int64_t v = key[w];
    for (int i = last; i >= first; --i) {
      m[i] = v % radix[i];
      v /= radix[i];
    }
    first = last + 1;
  }
}

int64_t HashKey(int stage, const int64_t* key, int n_words, int64_t prime) {
  // While every operand is below 2^53 the double arithmetic is exact, and
  // integer remainders give the same slot faster.
  bool exact = prime < kExactHashPrime;
  for (int i = 0; exact && i < n_words; ++i) exact = key[i] < kExactDouble;
  if (exact) {
    const int64_t w = kTwoTo31 % prime;
    int64_t x = stage;
    for (int i = 0; i < n_words; ++i) x = (key[i] % prime + (x * w) % prime) % prime;
    return x == 0 ? prime : x;
  }
  const double y = static_cast<double>(prime);
  const double w = std::fmod(2147483648.0, y);
  double x = static_cast<double>(stage);
  for (int i = 0; i < n_words; ++i)
    x = std::fmod(std::fmod(static_cast<double>(key[i]), y) + std::fmod(x * w, y), y);
  return x < 1.0 ? prime : static_cast<int64_t>(x);
}

int64_t LargestPrimeBelow(int64_t n) {
  if (n % 2 == 0) n -= 1;
  const int64_t r = static_cast<int64_t>(std::sqrt(static_cast<float>(n)));
  for (; n >= 3; n -= 2) {
    bool prime = true;
    for (int64_t d = 3; d <= r; d += 2)
      if (n % d == 0) {
        prime = false;
        break;
      }
    if (prime) return n;
  }
  return 3;
}

int EstimateStageNodes(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                       int64_t* stage_node_limit) {
  const EstimateBase e0 = Base(A);
  double T = 0.0, total = 0.0, peak = 0.0;
  for (int64_t b : B) {
    T += static_cast<double>(b);
    const double d = T - e0.mean;
    const double e = e0.c - d * d / e0.var / 2.0;
    double term = 0.0;
    if (e < kExpUnderflow) {
      term = 0.0;
    } else if (e > kExpOverflow) {
      return -1;
    } else {
      term = std::exp(e);
    }
    total += term;
    if (total > kTotalLimit) return -1;
    if (term > peak) peak = term;
  }
  *stage_node_limit = std::max<int64_t>(static_cast<int64_t>(peak), kPlainMinimumLimit);
  return 0;
}

int EstimateCanonicalStageNodes(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                                int64_t* stage_node_limit) {
  const EstimateBase e0 = Base(A);
  double T = 0.0, total = 0.0, peak = 0.0;
  for (int64_t b : B) {
    T += static_cast<double>(b);
    const double d = T - e0.mean;
    const double e = e0.c - d * d / e0.var / 2.0;
    if (e > kExpOverflow) return -1;
    const double term = std::trunc(std::exp(e));
    total += term;
    if (term > peak) peak = term;
  }
  auto doubled = [](double x) { return 2.0 * x > kCanonicalWordLimit ? x : 2.0 * x; };
  const double v = doubled(peak);
  if (v < 1.0 || v >= 2147483648.0) return -1;
  const double t = doubled(total);
  if (t < 1.0 || t > kCanonicalWordLimit) return -1;
  *stage_node_limit = v < 2001.0 ? kCanonicalMinimumLimit : static_cast<int64_t>(v);
  return 0;
}

bool FitsInMemory(double bytes) {
  // Allocations beyond half the machine's memory would only be granted
  // on credit and then fail when touched: refuse them up front.
  const double physical = static_cast<double>(sysconf(_SC_PHYS_PAGES)) *
                          static_cast<double>(sysconf(_SC_PAGESIZE));
  return bytes <= kMemoryShare * physical;
}

void* MapZeroedPages(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                 -1, 0);
  if (p == MAP_FAILED) return nullptr;
  constexpr size_t kHugePage = size_t{2} << 20;
  if (bytes >= 4 * kHugePage) madvise(p, bytes, MADV_HUGEPAGE);
  return p;
}

void UnmapPages(void* p, size_t bytes) { munmap(p, bytes); }

namespace {
constexpr uint64_t kFirstIndexSize = 1024;
}  // namespace

int NodeStore::Create(int64_t z, int n_words, int64_t prime) {
  uint64_t index_capacity = 1;
  while (index_capacity < 2 * static_cast<uint64_t>(z + 1)) index_capacity <<= 1;
  const double slot_bytes = 1.0 / 8.0 + 1.0 + 4.0 + 8.0 * n_words + 3.0 * 8.0 + 4.0 +
                            static_cast<double>(sizeof(IndexEntry)) * index_capacity / (z + 1.0);
  if (z >= std::numeric_limits<int32_t>::max()) return -1;
  if (!FitsInMemory(static_cast<double>(z + 1) * slot_bytes)) return -1;
  z_ = z;
  n_words_ = n_words;
  prime_ = prime;
  const size_t n = static_cast<size_t>(z + 1);
  if (stage_.Allocate(n) != 0 || slot_.Allocate(n) != 0 || keys_.Allocate(n * n_words) != 0 ||
      bounds_.Allocate(n) != 0 || root_.Allocate(n) != 0 || free_.Allocate(n) != 0 ||
      index_.Allocate(index_capacity) != 0)
    return -1;
  try {
    occupied_.assign(static_cast<size_t>(z / 64 + 1), 0);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  free_count_ = records_ = 0;
  index_capacity_ = index_capacity;
  index_size_ = std::min(kFirstIndexSize, index_capacity);
  index_mask_ = index_size_ - 1;
  index_count_ = 0;
  return 0;
}

// Doubles the part of the index in use and enters every stored node again.
void NodeStore::IndexGrow() {
  index_size_ *= 2;
  index_mask_ = index_size_ - 1;
  std::fill(index_.data(), index_.data() + index_size_, IndexEntry{});
  index_count_ = 0;
  for (int64_t node = 1; node <= records_; ++node)
    if (stage_[node] != 0) IndexAdd(node);
}

void NodeStore::IndexAdd(int64_t node) {
  uint64_t i = IndexHash(stage(node), key(node)) & index_mask_;
  while (index_[i].node != 0) i = (i + 1) & index_mask_;
  index_[i] = IndexEntry{key(node)[0], static_cast<int32_t>(node), stage(node), bounds_[node]};
  ++index_count_;
}

// Removes a node from the index, shifting later members of its probe run
// back so that no lookup is cut short.
void NodeStore::IndexRemove(int64_t node) {
  uint64_t i = IndexHash(stage(node), key(node)) & index_mask_;
  --index_count_;
  while (index_[i].node != node) i = (i + 1) & index_mask_;
  for (uint64_t j = i;;) {
    j = (j + 1) & index_mask_;
    if (index_[j].node == 0) break;
    const int64_t other = index_[j].node;
    const uint64_t home = IndexHash(stage(other), key(other)) & index_mask_;
    const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
    if (stays) continue;
    index_[i] = index_[j];
    i = j;
  }
  index_[i] = IndexEntry{};
}

// First free slot in from..to, a word of the occupancy bits at a time.
int64_t NodeStore::FirstFree(int64_t from, int64_t to) const {
  for (int64_t i = from; i <= to;) {
    const uint64_t word = ~occupied_[static_cast<size_t>(i >> 6)] >> (i & 63);
    if (word != 0) {
      const int64_t slot = i + __builtin_ctzll(word);
      return slot <= to ? slot : 0;
    }
    i = (i | 63) + 1;
  }
  return 0;
}

int64_t NodeStore::Take(int64_t slot, int stage, const int64_t* key, double first,
                        double second) {
  const int64_t node = free_count_ > 0 ? free_[--free_count_] : ++records_;
  stage_[node] = static_cast<uint8_t>(stage + 1);
  slot_[node] = static_cast<int32_t>(slot);
  occupied_[static_cast<size_t>(slot >> 6)] |= uint64_t{1} << (slot & 63);
  for (int w = 0; w < n_words_; ++w) keys_[node * n_words_ + w] = key[w];
  bounds_[node] = Bounds{first, second};
  root_[node] = 0;
  if (2 * (index_count_ + 1) > index_size_ && index_size_ < index_capacity_) IndexGrow();
  IndexAdd(node);
  return node;
}

int64_t NodeStore::Insert(int stage, const int64_t* key, double first, double second,
                          bool check_duplicate) {
  if (check_duplicate) {
    const int64_t present = Find(stage, key);
    if (present != 0) return present;
  }
  const int64_t h = HashKey(stage, key, n_words_, prime_);
  int64_t slot = FirstFree(h, z_);
  if (slot == 0) slot = FirstFree(1, h - 1);
  if (slot == 0) return 0;
  return Take(slot, stage, key, first, second);
}

void NodeStore::Free(int64_t node) {
  if (stage_[node] == 0) return;
  IndexRemove(node);
  stage_[node] = 0;
  const int64_t slot = slot_[node];
  occupied_[static_cast<size_t>(slot >> 6)] &= ~(uint64_t{1} << (slot & 63));
  free_[free_count_++] = static_cast<int32_t>(node);
}

int NodeStore::StageInSlotOrder(int stage, std::vector<int64_t>& nodes) const {
  const uint8_t s = static_cast<uint8_t>(stage + 1);
  try {
    nodes.clear();
    for (int64_t node = 1; node <= records_; ++node)
      if (stage_[node] == s) nodes.push_back(static_cast<int64_t>(slot_[node]) << 32 | node);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  std::sort(nodes.begin(), nodes.end());
  for (int64_t& x : nodes) x &= 0xFFFFFFFF;
  return 0;
}

int64_t PastPool::EntryLimit(int64_t budget_bytes) {
  return std::min(budget_bytes / kBytesPerEntry - kEntryReserve, kLargestPool);
}

int PastPool::Create(int64_t limit, int64_t trees) {
  // Every tree holds at most one chunk that is not full; a shared stage
  // holds up to twice the limit (BeginShared).
  const int64_t wanted = (2 * limit + kChunk - 1) / kChunk + trees + 1;
  const int64_t chunks = std::min(wanted, (kLargestPool + 1) / kChunk);
  sharable_ = chunks == wanted;
  try {
    stack_.reset(new int64_t[static_cast<size_t>(limit + 1)]);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  if (entries_.Allocate(static_cast<size_t>(chunks * kChunk)) != 0) return -1;
  stack = stack_.get();
  limit_ = cap_ = limit;
  chunks_ = chunks;
  chunk_head_ = 0;
  fresh_chunk_ = 1;
  live_ = 0;
  peak_ = 0;
  shared_ = false;
  return 0;
}

// Breadth-first listing puts every entry before its children; walked
// backwards it meets the children first, so each total is formed from
// finished totals of its subtrees.
int64_t PastPool::Summarize(int64_t root) {
  if (root == 0) return 0;
  int64_t n = 0;
  stack[n++] = root;
  for (int64_t i = 0; i < n; ++i) {
    const Entry& x = entries_[stack[i]];
    if (x.left != 0) stack[n++] = x.left;
    if (x.right != 0) stack[n++] = x.right;
  }
  const int64_t count = n;
  while (n > 0) {
    Entry& x = entries_[stack[--n]];
    x.total = x.q + Total(x.left) + Total(x.right);
  }
  return count;
}

// Each chunk of a tree is given back once, at its first entry, which the
// tree took first.
void PastPool::FreeTree(int64_t& root) {
  if (root == 0) return;
  int64_t top = 0, freed = 0;
  stack[top++] = root;
  root = 0;
  while (top > 0) {
    const int64_t e = stack[--top];
    Entry& x = entries_[e];
    if (x.left != 0) stack[top++] = x.left;
    if (x.right != 0) stack[top++] = x.right;
    if (e % kChunk == 0) {
      x.left = static_cast<int32_t>(-chunk_head_);
      chunk_head_ = e;
    }
    ++freed;
  }
  live_.fetch_sub(freed, std::memory_order_relaxed);
}

}  // namespace anvl::net
