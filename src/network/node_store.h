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

#include <cstdint>
#include <memory>
#include <vector>

namespace anvl::net {

// The stage of a node is held in a signed byte.
inline constexpr int kMaxStages = 127;
// A free slot of the node store.
inline constexpr int8_t kFreeSlot = -1;

// The radices of the key digits and how they are packed into 64-bit words.
struct KeyCodec {
  int K = 0;                      // components of a node; K - 1 digits
  std::vector<int64_t> radix;     // radix of digit i, i = 0..K-2
  std::vector<int> word_end;      // last digit of each word
  int n_words = 0;
  bool last_word_empty = false;   // the last word covers no digit: it holds T_s

  // Builds the word ends: a running product of radices closes a word at
  // the digit where it would pass 2147483647 (that digit still belongs to
  // the closed word); one more end at the last digit is appended.
  void Build(int k, const std::vector<int64_t>& radices);
  // Packs m[0..K-2] into key; an empty last word takes the stage total T.
  void Pack(const int64_t* m, int64_t T, int64_t* key) const;
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

// Hash table of the nodes of two adjacent stages, slots 1..Z.  A node
// goes into the first free slot from its hash position upward (wrapping
// from Z to 1), and the slot order is the order in which a stage is
// written out.  Finding a node doesn't probe the slots: an index from
// (stage, key) to slot answers at once, with the same slot a probe would
// reach, since a key is held at most once per stage.
class NodeStore {
 public:
  // Allocates Z slots of n_words key words each, all free.  0 or -1.
  int Create(int64_t z, int n_words, int64_t prime);
  int64_t Z() const { return z_; }
  int64_t prime() const { return prime_; }

  // Slot holding the key at `stage`, or 0.
  int64_t Find(int stage, const int64_t* key) const;
  // Stores the key at the first free slot from its hash position; 0 when
  // no slot is free.  With `check_duplicate` a slot that already holds the
  // key at this stage is returned instead (nothing is stored).
  int64_t Insert(int stage, const int64_t* key, double first, double second,
                 bool check_duplicate);
  // Next slot above `cursor` that holds a node of `stage`, or 0.
  int64_t NextSlotOfStage(int64_t cursor, int stage) const;
  void Free(int64_t slot);

  int8_t stage(int64_t slot) const { return stage_[slot]; }
  const int64_t* key(int64_t slot) const { return &keys_[slot * n_words_]; }
  int64_t* key(int64_t slot) { return &keys_[slot * n_words_]; }
  // Two doubles per node: the shortest and longest path in the backward
  // pass, the upper and lower cut in the forward pass.
  double& first(int64_t slot) { return first_[slot]; }
  double& second(int64_t slot) { return second_[slot]; }
  int64_t& tree_root(int64_t slot) { return root_[slot]; }
  // Places a node in a given slot, bypassing the hash (the stage-0 node).
  void Place(int64_t slot, int stage, const int64_t* key, double first, double second);

 private:
  bool SameKey(int64_t slot, const int64_t* key) const;
  void Take(int64_t slot, int stage, const int64_t* key, double first, double second);
  int64_t FirstFree(int64_t from, int64_t to) const;
  uint64_t IndexHash(int stage, const int64_t* key) const;
  void IndexAdd(int64_t slot);
  void IndexRemove(int64_t slot);

  int64_t z_ = 0, prime_ = 0;
  int n_words_ = 0;
  std::vector<int8_t> stage_;
  std::vector<uint64_t> occupied_;  // one bit per slot
  std::vector<int64_t> keys_;
  std::vector<double> first_, second_;
  std::vector<int64_t> root_;
  std::vector<int64_t> index_;      // open addressing: slot numbers, 0 empty
  uint64_t index_mask_ = 0;
};

// Pool of past-value tree entries, numbered from 1, with a free list.
// Each node of the forward pass owns one binary search tree of the
// distinct statistic values of the paths reaching it, with the log-sum of
// each entry and its left and right subtrees.
class PastPool {
 public:
  // Entries the memory budget M allows: trunc(M / 40) - 4000.
  static int64_t EntryLimit(int64_t budget_bytes);
  int Create(int64_t limit);  // 0 or -1
  // Adds (stat, logp) to the tree at `root` (creating it when root is 0):
  // a value within `merge_tolerance` of an entry merges into it.  Returns
  // 1 when an entry was made, 0 when merged, -1 when the pool is exhausted.
  int AddToTree(int64_t& root, double stat, double logp, double merge_tolerance);
  // Returns every entry of the tree to the free list; root becomes 0.
  void FreeTree(int64_t& root);

  // One tree entry: its statistic value, the log of the summed weight of
  // its paths, the log-sums of itself with its left and right subtrees,
  // and its children (0 for none; a free entry links the free list through
  // `left`, negated).  Kept together so that a visit touches one place.
  struct Entry {
    double stat, logp, sum_left, sum_right;
    int64_t left, right;
  };
  Entry& operator[](int64_t e) { return entries_[e]; }
  const Entry& operator[](int64_t e) const { return entries_[e]; }

  // Work stack of the tree walks; sized to the pool so that it can't overrun.
  int64_t* stack = nullptr;

 private:
  int64_t NewEntry(double s, double lp);
  // Entries 1..limit.  Untouched entries are left uninitialised: they join
  // the free list in ascending order as they are first needed, after any
  // entry given back, which is the order a fully linked list would give.
  std::unique_ptr<Entry[]> entries_;
  std::unique_ptr<int64_t[]> stack_;
  int64_t head_ = 0;       // last entry given back, 0 for none
  int64_t fresh_ = 1;      // first entry never used
  int64_t limit_ = 0;
};

}  // namespace anvl::net
