// Monte Carlo estimation of the p-value of a two-way table: the sampler of
// random tables with the observed margins, the loop that counts the hits of
// a statistic over M drawn tables, the interval around the estimate, the
// publisher, and the hit rules of Pearson's X^2 and Fisher's test.
#pragma once

#include <cstdint>
#include <type_traits>
#include <vector>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/log_factorial.h"
#include "kernel/random.h"

namespace anvl::net {

// One hypergeometric draw: the marked count in a sample of `row` out of
// `total` units with `col` marked, by a search outward from the rounded
// mean; log k! from `lf` up to 500 and by `route` above.
int64_t HypergeometricDraw(RandomStream& stream, int64_t row, int64_t col, int64_t total,
                           const double* lf, FactorialRoute route);

// Random tables with fixed margins under the hypergeometric law.
// Small totals (N <= min(10 min(rows, cols), 1000)) are drawn by shuffling
// a list of column labels and dealing it out row by row; larger ones by
// conditional hypergeometric draws, cell by cell (Patefield, AS 159).  The
// order of the uniform draws is part of the contract: one seed always gives
// one sequence of tables.  Draw allocates nothing.
class TableSampler {
 public:
  // Largest total that is ever shuffled: the label list holds this many.
  static constexpr int64_t kShuffleLimit = 1000;
  // Shuffling serves totals up to this many labels per line of the shorter side.
  static constexpr int64_t kShufflePerLine = 10;

  // Copies the margins (rows, cols >= 1, totals >= 0 with equal sums) and
  // sizes the label list and the work vector.  `lf` is the run's table of
  // log k!, k = 0..500, and must outlive the sampler.  0, or -1 when the
  // memory is refused.
  int Init(int64_t rows, int64_t cols, const int64_t* row_totals, const int64_t* col_totals,
           const double* lf);
  // Overwrites the column-major table (cell (i, j) at i + j rows) with a
  // random table of the margins, advancing the stream.
  void Draw(RandomStream& stream, int64_t* table);
  bool Shuffles() const { return shuffle_; }
  int64_t Total() const { return n_; }

 private:
  void DrawByShuffle(RandomStream& stream, int64_t* table);
  void DrawByColumns(RandomStream& stream, int64_t* table);
  // One cell: the marked count in a sample of `row` out of `total` with
  // `col` marked, by a search outward from the rounded mean.
  int64_t DrawCell(RandomStream& stream, int64_t row, int64_t col, int64_t total) const;

  int64_t rows_ = 0, cols_ = 0, n_ = 0;
  bool shuffle_ = false;
  const double* lf_ = nullptr;
  std::vector<int64_t> row_totals_, col_totals_;
  std::vector<int64_t> labels_;  // shuffling: the column of each of the N units
  std::vector<int64_t> work_;    // column totals not yet dealt
};

// The outcome of a Monte Carlo route.
struct McResult {
  int64_t hits = 0;
  int64_t samples = 0;      // M, the tables drawn
  double estimate = 0.0;    // hits / M
  double low = 0.0, high = 0.0;
  double percent = 0.0;     // 100 x the confidence level
  double seed = 0.0;        // the caller's seed as the settings hold it
};

// A route asked for fewer than one table, or for a confidence level
// outside (0, 1): no table is drawn, nothing is published, and the run
// fails as with any parameter outside its range.
inline constexpr int64_t kMcNoSamples = fail::kOutsideModel;

namespace detail {
// What the loop reads from the settings once, at its start.
struct McSetup {
  RandomStream stream;
  int64_t samples = 0, report_every = 0;
  double z = 0.0, confidence = 0.0, seed = 0.0;
};
McSetup ReadMcSetup();
// After a poll of the host: "Current pp.pp% Monte Carlo p-value estimate
// (low,high)" for hits out of m, p -/+ z sqrt((1 - p) p / m).
void McReport(int64_t hits, int64_t m, const McSetup& setup);
}  // namespace detail

// The estimate hits / M with its interval p -/+ z sqrt(p (1 - p) / M);
// no hit gives 0 .. 1 - (1 - conf)^(1/M), all hits (1 - conf)^(1/M) .. 1.
void McEstimate(int64_t hits, int64_t samples, double z, double confidence, McResult& out);

// What a hit rule of a two-sided test returns for one table: a hit of the
// one-sided count and of the two-sided count.  A rule that returns bool
// has the two-sided count alone.
struct TwoCounts {
  bool one_sided = false, two_sided = false;
};

// The Monte Carlo loop: draws the first table into `table`, then for
// m = 1 .. M counts a hit when hit(table) is true, reports every
// McReportEvery tables after polling the host (below 1: at every table),
// and draws the next table while m < M.  Seeds, M, the interval and the
// quantile come from the settings.  Updates the elapsed clock and fills
// `out`; publishes nothing.  Returns 0, -1 (memory) or kMcNoSamples (no
// samples, or a level outside (0, 1)).  A
// stop at a poll doesn't end the loop: its code stands in the store.
// A rule that returns TwoCounts also fills `one_sided` (when not null);
// the reports show the two-sided estimate.
template <class HitRule>
int McRoute(std::vector<int64_t>& table, int64_t rows, int64_t cols,
            const std::vector<int64_t>& row_totals, const std::vector<int64_t>& col_totals,
            const double* lf, HitRule&& hit, McResult& out, McResult* one_sided = nullptr) {
  constexpr bool kTwoCounts =
      std::is_same_v<std::decay_t<decltype(hit(static_cast<const int64_t*>(nullptr)))>,
                     TwoCounts>;
  const detail::McSetup setup = detail::ReadMcSetup();
  if (setup.samples < 1 || !(setup.confidence > 0.0 && setup.confidence < 1.0))
    return kMcNoSamples;
  TableSampler sampler;
  if (sampler.Init(rows, cols, row_totals.data(), col_totals.data(), lf) != 0)
    return fail::kNoMemory;
  RandomStream stream = setup.stream;
  int64_t hits = 0, hits_one = 0, last_report = 0;
  sampler.Draw(stream, table.data());
  for (int64_t m = 1; m <= setup.samples; ++m) {
    if constexpr (kTwoCounts) {
      const TwoCounts h = hit(static_cast<const int64_t*>(table.data()));
      hits += h.two_sided ? 1 : 0;
      hits_one += h.one_sided ? 1 : 0;
    } else {
      if (hit(static_cast<const int64_t*>(table.data()))) ++hits;
    }
    if (m - last_report >= setup.report_every) {
      detail::McReport(hits, m, setup);
      last_report = m;
    }
    if (m < setup.samples) sampler.Draw(stream, table.data());
  }
  UpdateElapsed();
  McEstimate(hits, setup.samples, setup.z, setup.confidence, out);
  out.percent = 100.0 * setup.confidence;
  out.seed = setup.seed;
  if constexpr (kTwoCounts) {
    if (one_sided != nullptr) {
      McEstimate(hits_one, setup.samples, setup.z, setup.confidence, *one_sided);
      one_sided->percent = out.percent;
      one_sided->seed = out.seed;
    }
  }
  return 0;
}

// Publishes a Monte Carlo result after the test's asymptotic publisher:
// Statistic, McTwoSided with its limits (clamped to 0..1), McPercent,
// McCount, McSeed, and PublishedMethod 2.
void PublishMonteCarlo(const McResult& r, double statistic);
// The one-sided estimate of a two-sided test: McOneSided with its limits,
// clamped to 0..1.
void PublishMonteCarloOneSided(const McResult& r);

// ---------------------------------------------------------------------------
// Hit rules.
// ---------------------------------------------------------------------------

// A drawn X^2 counts when it reaches the observed one less a relative
// margin that absorbs the rounding of the sum (5e-5 of obs).
inline constexpr double kPearsonHitFactor = 0.99995;
// A drawn table counts when its log weight exceeds the observed one by at
// most this much: as probable as the observed table up to rounding.
inline constexpr double kFisherHitMargin = 1e-5;

// X^2 = sum (x_ij - e_ij)^2 / e_ij, e_ij = r_i (c_j / N), columns outer,
// rows inner: the same sum, in the same order, as the asymptotic route.
double TablePearsonX2(const int64_t* table, int64_t rows, int64_t cols, const int64_t* row_totals,
                      const int64_t* col_totals, int64_t N);
// Sum over the lines of the longer dimension (the columns when rows <=
// cols) of log(line total)! - sum log(cell)!, log k! from `lf` up to 500
// and log Gamma above: the path weight of the table in Fisher's network.
double FisherLineLogWeight(const int64_t* table, int64_t rows, int64_t cols,
                           const int64_t* row_totals, const int64_t* col_totals, const double* lf);

inline bool PearsonHit(double x2, double observed) { return x2 >= kPearsonHitFactor * observed; }
inline bool FisherHit(double log_weight, double observed_log) {
  return log_weight - observed_log <= kFisherHitMargin;
}

// The two rules bound to a table's margins, for McRoute.
struct PearsonHitRule {
  int64_t rows, cols;
  const int64_t* row_totals;
  const int64_t* col_totals;
  int64_t N;
  double observed;  // X^2 of the observed table
  bool operator()(const int64_t* table) const {
    return PearsonHit(TablePearsonX2(table, rows, cols, row_totals, col_totals, N), observed);
  }
};
struct FisherHitRule {
  int64_t rows, cols;
  const int64_t* row_totals;
  const int64_t* col_totals;
  const double* lf;
  double observed_log;  // FisherLineLogWeight of the observed table
  bool operator()(const int64_t* table) const {
    return FisherHit(FisherLineLogWeight(table, rows, cols, row_totals, col_totals, lf),
                     observed_log);
  }
};

}  // namespace anvl::net
