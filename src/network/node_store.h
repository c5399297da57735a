// Storage under the staged network of a two-way table: the packed node
// keys, the hash table that holds the nodes of two adjacent stages, the
// capacity estimate that sizes it, and the pool of past-value trees.
//
// Notation (0-based here): the KeyMargins A[0..K-1] and StageMargins
// B[0..S-1] are the margins of the shorter and longer dimension, ascending.
// A node of stage s (0..S) is a vector m[0..K-1] with 0 <= m_j <= A_j and
// sum T_s = B_0 + ... + B_{s-1}; only m[0..K-2] is stored, the last
// component follows from the sum.  Stage S holds the root.
#pragma once

#include <cmath>
#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

namespace anvl::net {

// The stage of a node is held in a signed byte.
inline constexpr int kMaxStages = 127;
// A free slot of a table whose slots carry a stage byte.
inline constexpr int8_t kFreeSlot = -1;

// The radices of the key digits and how they are packed into 64-bit words.
struct KeyCodec {
  int K = 0;                      // components of a node; K - 1 digits
  std::vector<int64_t> radix;     // radix of digit i, i = 0..K-2
  std::vector<int> word_end;      // last digit of each word
  int n_words = 0;
  bool last_word_empty = false;   // the last word covers no digit: it holds T_s
  // Digit i adds m_i x weight[i] to word word_of[i]: a change of one
  // digit changes one word by a multiple of its weight.  Entry K - 1,
  // past the digits, has weight 0 (the last component is not packed).
  std::vector<int64_t> weight;
  std::vector<int> word_of;

  // Builds the word ends: a running product of radices closes a word at
  // the digit where it would pass 2147483647 (that digit still belongs to
  // the closed word); one more end at the last digit is appended.
  void Build(int k, const std::vector<int64_t>& radices);
  // Packs m[0..K-2] into key; an empty last word takes the stage total T.
  void Pack(const int64_t* m, int64_t T, int64_t* key) const {
    int first = 0;
    for (int w = 0; w < n_words; ++w) {
      const int last = word_end[w];
      if (w == n_words - 1 && last_word_empty) {
        key[w] = T;
        break;
      }
      int64_t v = m[first];
      for (int i = first + 1; i <= last; ++i) v = v * radix[i] + m[i];
      key[w] = v;
      first = last + 1;
    }
  }
  // Unpacks key into m[0..K-2]; m[K-1] is left to the caller.
  void Unpack(const int64_t* key, int64_t* m) const;
};

// Slot of a key of `stage` in 1..prime: word by word in double precision,
// x := (word mod y + (x * w) mod y) mod y with y = prime, w = 2^31 mod y,
// starting from x = stage; x = 0 maps to prime.
int64_t HashKey(int stage, const int64_t* key, int n_words, int64_t prime);

// The largest prime at or below n (n made odd first), trying odd divisors
// up to a bound taken once from the first n, in single precision.
int64_t LargestPrimeBelow(int64_t n);

// Capacity estimate of the plain network: a normal density over the
// Pi(A_j + 1) vectors gives the nodes per stage; the peak, at least 20000,
// is the limit.  Returns 0 or -1 when the estimate overflows.
int EstimateStageNodes(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                       int64_t* stage_node_limit);
// The same estimate for the network of canonical nodes (Fisher's test):
// whole terms, doubled, at least 2000.  Returns 0 or -1.
int EstimateCanonicalStageNodes(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                                int64_t* stage_node_limit);

// Whether a store of this many bytes fits the machine (half its memory).
bool FitsInMemory(double bytes);

// An array of n zero-filled elements in pages that the system maps on first
// touch, with huge pages asked for when it is large.  The node store is
// sized for the largest stage that the capacity estimate allows, and most
// runs fill a small part of it: untouched pages cost neither time nor
// memory, and huge pages keep the scattered accesses of the rest from
// missing the address translation cache.  T must be valid when all zero.
template <class T>
class MappedArray {
 public:
  MappedArray() = default;
  MappedArray(const MappedArray&) = delete;
  MappedArray& operator=(const MappedArray&) = delete;
  ~MappedArray() { Release(); }
  // 0, or -1 when the system refuses the mapping.
  int Allocate(size_t n) {
    Release();
    bytes_ = std::max<size_t>(n * sizeof(T), 1);
    void* p = MapZeroed(bytes_);
    if (p == nullptr) return -1;
    data_ = static_cast<T*>(p);
    return 0;
  }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T* data() { return data_; }
  const T* data() const { return data_; }

 private:
  static void* MapZeroed(size_t bytes);
  static void Unmap(void* p, size_t bytes);
  void Release() {
    if (data_ != nullptr) Unmap(data_, bytes_);
    data_ = nullptr;
    bytes_ = 0;
  }
  T* data_ = nullptr;
  size_t bytes_ = 0;
};

void* MapZeroedPages(size_t bytes);
void UnmapPages(void* p, size_t bytes);
template <class T>
void* MappedArray<T>::MapZeroed(size_t bytes) { return MapZeroedPages(bytes); }
template <class T>
void MappedArray<T>::Unmap(void* p, size_t bytes) { UnmapPages(p, bytes); }

// A well-mixed 64-bit hash of a node's stage and key words, for the
// indexes that sit beside the slots.
inline uint64_t MixKey(int stage, const int64_t* key, int n_words) {
  uint64_t h = static_cast<uint64_t>(stage) * 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < n_words; ++i)
    h ^= static_cast<uint64_t>(key[i]) + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
  h ^= h >> 31;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 29;
  return h;
}

// Hash table of the nodes of two adjacent stages, slots 1..Z.  A node
// goes into the first free slot from its hash position upward (wrapping
// from Z to 1), and the slot order is the order in which a stage is
// written out and expanded.  Finding a node doesn't probe the slots: an
// index from (stage, key) answers at once, with the same slot a probe
// would reach, since a key is held at most once per stage.
//
// A node is named by its record, not its slot.  Records are packed from 1
// up (a freed one is taken again first), so the memory a run touches
// follows the nodes it holds and not the Z slots that the capacity
// estimate allows, of which most runs fill a small part; a slot is one
// bit.
class NodeStore {
 public:
  // Allocates Z slots of n_words key words each, all free.  0 or -1.
  int Create(int64_t z, int n_words, int64_t prime);
  int64_t Z() const { return z_; }
  int64_t prime() const { return prime_; }

  // Node holding the key at `stage`, or 0.
  int64_t Find(int stage, const int64_t* key) const { return FindHashed(Hash(stage, key), stage, key); }
  // The same in two steps, so that a caller with a run of keys to look up
  // can start the memory loads of all of them (Prefetch) before it needs
  // the first answer: the lookups are independent cache misses otherwise.
  uint64_t Hash(int stage, const int64_t* key) const { return IndexHash(stage, key) & index_mask_; }
  void Prefetch(uint64_t hash) const { __builtin_prefetch(&index_[hash]); }
  // The whole hash of a key, of which Hash keeps the low bits: a caller
  // that shares nodes out by key takes other bits of it.
  uint64_t Mix(int stage, const int64_t* key) const { return IndexHash(stage, key); }
  int64_t FindMixed(uint64_t mix, int stage, const int64_t* key) const {
    return FindHashed(mix & index_mask_, stage, key);
  }
  int64_t FindHashed(uint64_t hash, int stage, const int64_t* key) const {
    const IndexEntry* e = Lookup(hash, stage, key);
    return e == nullptr ? 0 : e->node;
  }
  // The same, with the node's two doubles (first, second below) read from
  // the index line that found it.
  int64_t FindHashed(uint64_t hash, int stage, const int64_t* key, double& first,
                     double& second) const {
    const IndexEntry* e = Lookup(hash, stage, key);
    if (e == nullptr) return 0;
    first = e->bounds.first;
    second = e->bounds.second;
    return e->node;
  }
  // Stores the key at the first free slot from its hash position; the
  // node, or 0 when no slot is free.  With `check_duplicate` the node that
  // already holds the key at this stage is returned instead (nothing is
  // stored).
  int64_t Insert(int stage, const int64_t* key, double first, double second,
                 bool check_duplicate);
  // The nodes of `stage` in slot order.  0, or -1 when the list can't grow.
  int StageInSlotOrder(int stage, std::vector<int64_t>& nodes) const;
  void Free(int64_t node);

  int8_t stage(int64_t node) const { return static_cast<int8_t>(stage_[node] - 1); }
  int64_t SlotOf(int64_t node) const { return slot_[node]; }
  const int64_t* key(int64_t node) const { return &keys_[node * n_words_]; }
  int64_t* key(int64_t node) { return &keys_[node * n_words_]; }
  // Two doubles per node: the shortest and longest path in the backward
  // pass, the upper and lower cut in the forward pass.
  double first(int64_t node) const { return bounds_[node].first; }
  double second(int64_t node) const { return bounds_[node].second; }
  int64_t& tree_root(int64_t node) { return root_[node]; }
  // Sets a stored node's two doubles (made when the node was stored
  // without them).
  void SetFirst(int64_t node, double v) {
    bounds_[node].first = v;
    IndexEntryOf(node).bounds.first = v;
  }
  void SetSecond(int64_t node, double v) {
    bounds_[node].second = v;
    IndexEntryOf(node).bounds.second = v;
  }
  // Places a node in a given free slot, bypassing the hash (the stage-0
  // node of a new store); returns the node.
  int64_t Place(int64_t slot, int stage, const int64_t* key, double first, double second) {
    return Take(slot, stage, key, first, second);
  }

 private:
  struct IndexEntry;
  const IndexEntry* Lookup(uint64_t hash, int stage, const int64_t* key) const;
  bool SameKey(int64_t node, const int64_t* key) const {
    const int64_t* k = &keys_[node * n_words_];
    for (int i = 0; i < n_words_; ++i)
      if (k[i] != key[i]) return false;
    return true;
  }
  IndexEntry& IndexEntryOf(int64_t node) {
    const int64_t* k = key(node);
    const int st = stage(node);
    return *const_cast<IndexEntry*>(Lookup(Hash(st, k), st, k));
  }
  int64_t Take(int64_t slot, int stage, const int64_t* key, double first, double second);
  int64_t FirstFree(int64_t from, int64_t to) const;
  uint64_t IndexHash(int stage, const int64_t* key) const { return MixKey(stage, key, n_words_); }
  void IndexAdd(int64_t node);
  void IndexRemove(int64_t node);
  void IndexGrow();

  int64_t z_ = 0, prime_ = 0;
  int n_words_ = 0;
  std::vector<uint64_t> occupied_;  // one bit per slot
  // Per record: the stage plus one (0 marks a free record), its slot, the
  // key words, the two doubles, the tree root.
  struct Bounds {
    double first, second;
  };
  MappedArray<uint8_t> stage_;
  MappedArray<int32_t> slot_;
  MappedArray<int64_t> keys_;
  MappedArray<Bounds> bounds_;
  MappedArray<int64_t> root_;
  MappedArray<int32_t> free_;  // records given back, taken again last first
  int64_t free_count_ = 0, records_ = 0;  // records given back; the highest record used
  // Open addressing over the stored nodes.  An entry carries the first key
  // word, the stage and the node's two doubles beside the node, so that a
  // lookup reads one cache line and not the record's arrays as well.  The
  // part in use grows with the nodes held (at most half full), up to twice
  // Z; a small index stays in cache where one sized for Z would miss on
  // every lookup.
  struct IndexEntry {
    int64_t key0;
    int32_t node;   // 0: empty
    int32_t stage;
    Bounds bounds;  // a copy: a node's doubles are set once, when it is stored
  };
  MappedArray<IndexEntry> index_;
  uint64_t index_capacity_ = 0, index_size_ = 0, index_count_ = 0;
  uint64_t index_mask_ = 0;
};

inline const NodeStore::IndexEntry* NodeStore::Lookup(uint64_t hash, int stage,
                                                     const int64_t* key) const {
  for (uint64_t i = hash; index_[i].node != 0; i = (i + 1) & index_mask_) {
    const IndexEntry& e = index_[i];
    if (e.stage == stage && e.key0 == key[0] && (n_words_ == 1 || SameKey(e.node, key)))
      return &e;
  }
  return nullptr;
}

// Pool of past-value tree entries, numbered from 1, with a free list.
// Each node of the forward pass owns one binary search tree of the
// distinct statistic values of the paths reaching it.
//
// Weights are held linearly, as probabilities: an entry of node m holds
// q = exp(logp + R(m)), the probability of all tables whose path prefix
// has this past value, where logp is the log of the summed path weights
// and R(m) the log of the summed weights of every completion of m to the
// root.  So q <= 1 always, an edge m -> m' of weight w maps q to
// q exp(w + R(m') - R(m)) with one exp per edge, and a merge is one
// addition.  The subtree sums that decide whole subtrees at once are
// formed once per tree (Summarize), when its node is about to be expanded
// and no more values can arrive, instead of along every insert path.
//
// Entries are placed in chunks of kChunk, each chunk owned by one tree and
// filled in the order its entries are made, so that a tree's paths lie in
// few cache lines and pages and not scattered over the whole pool.  While
// a tree is being built its root's `total` holds the tree's newest entry
// (where its next entry goes).  The budget counts entries, not chunks: the
// pool is exhausted when `limit` entries are held, whatever the chunks'
// slack; the chunks live in pages mapped on first touch.
class PastPool {
 public:
  // Entries the memory budget M allows: trunc(M / 40) - 4000, and never
  // more than the 32-bit links can reach.
  static int64_t EntryLimit(int64_t budget_bytes);
  // A pool of `limit` entries for at most `trees` trees at once.  0 or -1.
  int Create(int64_t limit, int64_t trees);
  // Adds (stat, q) to the tree at `root` (creating it when root is 0): a
  // value within `merge_tolerance` of an entry merges into it.  Returns 1
  // when an entry was made, 0 when merged, -1 when the pool is exhausted.
  int AddToTree(int64_t& root, double stat, double q, double merge_tolerance) {
    if (root == 0) {
      root = NewTree(stat, q);
      return root == 0 ? -1 : 1;
    }
    Entry* x = &entries_[root];
    for (;;) {
      if (std::fabs(x->stat - stat) <= merge_tolerance) {
        x->q += q;
        return 0;
      }
      int32_t& child = x->stat > stat ? x->left : x->right;
      if (child == 0) {
        const int64_t n = NewEntry(root, stat, q);
        if (n == 0) return -1;
        child = static_cast<int32_t>(n);
        return 1;
      }
      x = &entries_[child];
    }
  }
  // The same insert, started from the deepest entry of the previous
  // insert's path that the new value would reach too (see TreeFinger).
  // Gives the same tree and the same result as AddToTree.
  // With kRelative the merge tolerance is a factor: a value merges with an
  // entry whose value differs from it by at most tolerance x |entry|.
  class TreeFinger;
  template <bool kRelative = false>
  int AddWithFinger(TreeFinger& finger, int64_t& root, double stat, double q,
                    double merge_tolerance);
  // Sets the subtree total of every entry of the tree at `root`; returns
  // the number of its entries.
  int64_t Summarize(int64_t root);
  // The greatest value of a non-empty tree.
  double Greatest(int64_t root) const {
    while (entries_[root].right != 0) root = entries_[root].right;
    return entries_[root].stat;
  }
  // Returns every entry of the tree to the free list; root becomes 0.
  void FreeTree(int64_t& root);

  // One tree entry: its statistic value, its probability q, the total of
  // q over its subtree (itself included; valid after Summarize), and its
  // children (0 for none; a free entry links the free list through
  // `left`, negated).
  struct Entry {
    double stat, q, total;
    int32_t left, right;
  };
  Entry& operator[](int64_t e) { return entries_[e]; }
  const Entry& operator[](int64_t e) const { return entries_[e]; }
  // Subtree total below an entry's child (0 for none).
  double Total(int64_t child) const { return child == 0 ? 0.0 : entries_[child].total; }

  // Work stack of the tree walks; sized to the pool so that it can't overrun.
  int64_t* stack = nullptr;
  // The most entries held at once so far.
  int64_t Peak() const { return peak_; }
  // Entries held now, and the most that the budget allows.
  int64_t Live() const { return live_.load(std::memory_order_relaxed); }
  int64_t Limit() const { return limit_; }

  // While shared, several threads add entries at once, each to trees of
  // its own, and nobody frees: chunks are taken under a lock, and the pool
  // holds up to twice its limit, since the trees of the stage being
  // expanded are freed only at its end.  The caller works out what the
  // limit would have allowed had the nodes been expanded and freed one by
  // one, and hands EndShared that count of the most held at once.
  // Whether the pool's links reach twice its limit, as sharing needs.
  bool Sharable() const { return sharable_; }
  void BeginShared() {
    shared_ = true;
    cap_ = 2 * limit_;
  }
  void EndShared(int64_t peak) {
    shared_ = false;
    cap_ = limit_;
    peak_ = std::max(peak_, peak);
  }

 private:
  static constexpr int64_t kChunk = 8;  // 256 bytes: four cache lines
  // The newest entry of the tree at `root` (its root's total holds it, bit
  // for bit, while the tree is being built).
  int64_t Newest(int64_t root) const { return std::bit_cast<int64_t>(entries_[root].total); }
  void SetNewest(int64_t root, int64_t e) { entries_[root].total = std::bit_cast<double>(e); }
  // The first entry of a free chunk, or 0 when every chunk is taken.
  int64_t TakeChunk() {
    if (!shared_) return TakeChunkAlone();
    while (chunk_lock_.test_and_set(std::memory_order_acquire)) {
    }
    const int64_t e = TakeChunkAlone();
    chunk_lock_.clear(std::memory_order_release);
    return e;
  }
  int64_t TakeChunkAlone() {
    if (chunk_head_ != 0) {
      const int64_t e = chunk_head_;
      chunk_head_ = -entries_[e].left;
      return e;
    }
    if (fresh_chunk_ >= chunks_) return 0;
    return kChunk * fresh_chunk_++;
  }
  int64_t Place(int64_t e, double s, double q) {
    entries_[e] = Entry{s, q, q, 0, 0};  // 32 bytes: an entry never straddles a cache line
    const int64_t live = live_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!shared_ && live > peak_) peak_ = live;
    return e;
  }
  // The root of a new tree, in a chunk of its own; 0 when the pool is
  // exhausted.
  int64_t NewTree(double s, double q) {
    if (Live() >= cap_) return 0;
    const int64_t e = TakeChunk();
    if (e == 0) return 0;
    Place(e, s, q);
    SetNewest(e, e);
    return e;
  }
  // A new entry of the tree at `root`: next to the tree's newest entry,
  // or at the start of a new chunk.  0 when the pool is exhausted.
  int64_t NewEntry(int64_t root, double s, double q) {
    if (Live() >= cap_) return 0;
    int64_t e = Newest(root) + 1;
    if (e % kChunk == 0 && (e = TakeChunk()) == 0) return 0;
    SetNewest(root, e);
    return Place(e, s, q);
  }
  // Entries, kChunk a chunk; chunk 0 is never used (entry 0 is no entry).
  // A free chunk links the free list through its first entry's `left`,
  // negated.
  MappedArray<Entry> entries_;
  std::unique_ptr<int64_t[]> stack_;
  int64_t chunk_head_ = 0;   // first entry of the last chunk given back, 0 for none
  int64_t fresh_chunk_ = 1;  // first chunk never used
  int64_t chunks_ = 0;
  int64_t limit_ = 0, cap_ = 0;  // the budget's count, and the count held now allowed
  std::atomic<int64_t> live_{0};  // entries held
  int64_t peak_ = 0;              // the most held at once
  bool shared_ = false, sharable_ = false;
  std::atomic_flag chunk_lock_ = ATOMIC_FLAG_INIT;
};

// The path of the last insert into one tree, with, at each depth, the
// bounds that the entries above set on the values routed there: the
// largest value of an entry where the path turned right, the smallest where
// it turned left.  A new value that stays more than the merge tolerance
// inside the bounds of depth d meets no merge above d and takes the same
// turns, so its search may start at the path's entry of depth d.  Inserts
// that come in the order of a walk of a similar tree share long paths.
class PastPool::TreeFinger {
 public:
  static constexpr int kDepth = 64;  // deeper paths start from depth 63 at most
  void Reset() { n_ = 0; }

 private:
  friend class PastPool;
  int n_ = 0;                        // entries of the path recorded
  int64_t entry_[kDepth];
  double low_[kDepth], high_[kDepth];  // bounds at each depth, from the entries above
};

namespace detail {
// Whether a new value merges with an entry's value.
template <bool kRelative>
inline bool Merges(double entry, double stat, double tol) {
  if constexpr (kRelative) return std::fabs(entry - stat) <= tol * std::fabs(entry);
  else return std::fabs(entry - stat) <= tol;
}
// Whether a value lies beyond the merge reach of a finger bound (an
// infinite bound is no bound).  For the relative tolerance, a value clear
// of the nearest entry on one side is clear of all entries beyond it.
template <bool kRelative>
inline bool ClearAbove(double low, double stat, double tol) {
  if constexpr (kRelative) return low == -HUGE_VAL || stat - low > tol * std::fabs(low);
  else return stat - low > tol;
}
template <bool kRelative>
inline bool ClearBelow(double high, double stat, double tol) {
  if constexpr (kRelative) return high == HUGE_VAL || high - stat > tol * std::fabs(high);
  else return high - stat > tol;
}
}  // namespace detail

template <bool kRelative>
inline int PastPool::AddWithFinger(TreeFinger& f, int64_t& root, double stat, double q,
                                   double tol) {
  if (root == 0) {
    root = NewTree(stat, q);
    if (root == 0) return -1;
    f.n_ = 1;
    f.entry_[0] = root;
    f.low_[0] = -HUGE_VAL;
    f.high_[0] = HUGE_VAL;
    return 1;
  }
  if (f.n_ == 0 || f.entry_[0] != root) {
    f.n_ = 1;
    f.entry_[0] = root;
    f.low_[0] = -HUGE_VAL;
    f.high_[0] = HUGE_VAL;
  }
  int d = f.n_ - 1;
  while (d > 0 && !(detail::ClearAbove<kRelative>(f.low_[d], stat, tol) &&
                    detail::ClearBelow<kRelative>(f.high_[d], stat, tol)))
    --d;
  double low = f.low_[d], high = f.high_[d];
  Entry* x = &entries_[f.entry_[d]];
  for (;;) {
    if (detail::Merges<kRelative>(x->stat, stat, tol)) {
      x->q += q;
      f.n_ = std::min(d + 1, TreeFinger::kDepth);
      return 0;
    }
    const bool go_left = x->stat > stat;
    if (go_left) {
      high = x->stat;
    } else {
      low = x->stat;
    }
    int32_t& child = go_left ? x->left : x->right;
    const bool made = child == 0;
    if (made) {
      const int64_t n = NewEntry(root, stat, q);
      if (n == 0) return -1;
      child = static_cast<int32_t>(n);
    }
    ++d;
    if (d < TreeFinger::kDepth) {
      f.entry_[d] = child;
      f.low_[d] = low;
      f.high_[d] = high;
    }
    if (made) {
      f.n_ = std::min(d + 1, TreeFinger::kDepth);
      return 1;
    }
    x = &entries_[child];
  }
}

}  // namespace anvl::net
