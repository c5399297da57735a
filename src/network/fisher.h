// Procedure 32: Fisher's exact test on an r x c table in the
// Freeman-Halton form, on the network of canonical nodes.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/driver.h"

namespace anvl::net {

// The network member of Fisher's test: the statistic is the table's own
// log probability, so the edge adds its log weight, and nodes that differ
// only by the order of their components are one node (named by their
// sorted complements).  The p-value side is the less probable one.
struct FisherMember {
  static constexpr bool kCanonical = true;
  static constexpr bool kPValueBelow = true;
  static constexpr bool kInnerStopTests = false;
  static constexpr bool kStopOnNoNewEntry = true;
  static constexpr bool kStageMessages = false;
  static constexpr bool kTwoCut = false;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = false;
  // The edge adds the line's log weight, a symmetric function of its cells.
  static constexpr bool kSymmetricLine = true;
  // The forward pass forms the bounds of a node when it first needs them.
  static constexpr bool kLazyCuts = true;
  // Past log probabilities closer than this merge (1e-5 in single precision).
  static constexpr double kMergeTolerance = 9.999999747378752e-06;
  static constexpr double kStopMargin = 0.0;
  // Absolute tolerance around the observed log probability.
  static constexpr double kTolerance = 1e-5;

  double EdgeStatistic(int, const int64_t*, double w) const { return w; }
  double Tolerance(double) const { return kTolerance; }
  double StartValue(double L0) const { return -L0; }
};

// Driver of procedure 32.
void FisherDriver(const CallArgs& args);

// The run on a work copy of an r x c table (column-major).  Returns 0 or
// the failure code; the asymptotic results are published before the exact
// or Monte Carlo route starts.
int FisherRun(std::vector<int64_t>& table, int64_t rows, int64_t cols, int64_t method);

}  // namespace anvl::net
