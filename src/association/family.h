// The family of ordered and association statistics: the table of its
// members, the order in which a member's run goes, and the publishers that
// all members share.  A member is a run object with an observed route,
// three publishers and an exact route over the network engine (a member
// policy of network/passes.h); FamilyRun is the one frame around it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "frame/driver.h"
#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/log_factorial.h"
#include "network/monte_carlo.h"
#include "network/passes.h"

namespace anvl::assoc {

// The two forms of the exact decision and of the past values.
enum class Form { kOneCut, kTwoCut };
enum class Past { kTree, kFlat };
// Which margins make the key (A) and the stages (B) of the network, and in
// what order.
enum class Margins {
  kRowsAsGiven,
  kColsAsGiven,
  kColsAscending,
  kRowsAscending,
  kShorterAsGiven,   // the rows when r <= c, else the columns
  kLongerAsGiven,
  kShorterByScore,   // ascending by the side's working score
  kLongerByScore,
  kSortedCanonical,  // sorted, nodes named by sorted complements
  kSortedAscending,
};

// One row of the table of members.
struct MemberRow {
  int64_t procedure;
  int64_t selector;
  const char* test;
  Form form;
  Past past;
  Margins key, stage;
  double tolerance;    // factor of |HighBound| (two-cut) or of |obs| (one-cut)
  double stop_margin;  // the pass ends when the undecided mass is at or below it
};

inline constexpr MemberRow kMembers[] = {
    {43, 1, "Cohen's kappa", Form::kTwoCut, Past::kTree, Margins::kRowsAsGiven,
     Margins::kColsAsGiven, 1e-7, 0.0},
    {41, 3, "linear-by-linear association", Form::kTwoCut, Past::kTree, Margins::kShorterByScore,
     Margins::kLongerByScore, 1e-23, 1e-12},
    {47, 1, "Pearson's correlation", Form::kTwoCut, Past::kTree, Margins::kShorterByScore,
     Margins::kLongerByScore, 1e-23, 1e-12},
    {48, 2, "Spearman's correlation", Form::kTwoCut, Past::kTree, Margins::kShorterByScore,
     Margins::kLongerByScore, 1e-23, 1e-12},
    {40, 2, "likelihood-ratio test", Form::kOneCut, Past::kTree, Margins::kSortedCanonical,
     Margins::kSortedAscending, 0x1p-23, 1e-12},
    {45, 1, "uncertainty coefficients", Form::kOneCut, Past::kTree, Margins::kSortedCanonical,
     Margins::kSortedAscending, 0x1p-23, 1e-12},
    {46, 1, "Goodman and Kruskal's tau", Form::kOneCut, Past::kTree, Margins::kRowsAsGiven,
     Margins::kColsAscending, 4.999999873689376e-05, 0.0},
    {50, 1, "Goodman and Kruskal's gamma", Form::kTwoCut, Past::kFlat, Margins::kShorterAsGiven,
     Margins::kLongerAsGiven, 1e-7, 0.0},
    {49, 1, "Kendall's tau-a, tau-b, tau-c and Somers' d", Form::kTwoCut, Past::kFlat,
     Margins::kShorterAsGiven, Margins::kLongerAsGiven, 1e-7, 0.0},
    {20, 9, "Jonckheere-Terpstra test", Form::kTwoCut, Past::kFlat, Margins::kRowsAsGiven,
     Margins::kColsAsGiven, 1e-7, 0.0},
    {21, 8, "Kruskal-Wallis test", Form::kOneCut, Past::kTree, Margins::kColsAsGiven,
     Margins::kRowsAscending, 5e-5, 0.0},
};

constexpr const MemberRow& MemberOf(int64_t procedure) {
  for (const MemberRow& r : kMembers)
    if (r.procedure == procedure) return r;
  return kMembers[0];  // not reached for a procedure of the table
}

// ---------------------------------------------------------------------------
// Publishers shared by the members.
// ---------------------------------------------------------------------------

// log of the probability of a table under its fixed margins:
// sum log R_i! + sum log C_j! - log N! - sum log x_ij!.
double TableLogProbability(const std::vector<int64_t>& x, const std::vector<int64_t>& R,
                           const std::vector<int64_t>& C, int64_t N, const double* lf);

// RowsPublished, ColumnsPublished and PublishedCode; PublishedMethod 3.
void PublishRunWords(int64_t procedure);
// The interval of a measure m with standard error e at IntervalConfidence:
// IntervalPercent and m -/+ z e, each clamped to lo .. hi.
void PublishInterval(double m, double e, double lo, double hi);
// AsymOneSided = p and AsymTwoSided = 2p, clamped to 0..1.
void PublishTwoCutAsymptotic(double p);
// TailSide: 2 on the high side, else 1.
void PublishSide(bool high_side);
// The exact p-values of a two-cut member (PublishedMethod 1).
void PublishTwoCutExact(const net::PassResult& pass, bool high_side);
// The two Monte Carlo estimates of a two-cut member (PublishedMethod 2).
void PublishTwoCutMonteCarlo(const net::McResult& one_sided, const net::McResult& two_sided,
                             double statistic, bool high_side);
// Probability of a column-major table under its fixed margins.
double TableProbabilityOf(const std::vector<int64_t>& table, const std::vector<int64_t>& R,
                          const std::vector<int64_t>& C, int64_t N, const double* lf);
// A run without variance (status -4): every p-value and the point
// probability 1.0 (PublishedMethod 1).
void PublishDegenerate();
// The exact p-value of a one-cut member, TailHigh + PointProb, and the
// point probability, both clamped (PublishedMethod 1).
void PublishOneCutExact(const net::PassResult& pass);

// A one-cut member's run declares `static constexpr Form kForm =
// Form::kOneCut`; a run that declares nothing is two-cut.
template <class Run>
constexpr bool IsOneCut() {
  if constexpr (requires { Run::kForm; })
    return Run::kForm == Form::kOneCut;
  else
    return false;
}

// ---------------------------------------------------------------------------
// The run of a member, in its order.  A member type provides:
//   int Observed(table, rows, cols, lf)       totals, checks, value, bounds, measures
//   bool Degenerate() const                   status -4: no route runs
//   void PublishAsymptotic() const
//   bool HighSide() const                     the published value on the high side
//                                             (two-cut only)
//   double Statistic() const                  what the Monte Carlo publisher repeats
//   auto HitRule() const                      a TwoCounts rule of a drawn table
//                                             (one-cut: a bool rule, one count)
//   int Exact(lf, PassResult&) const          the exact route (the network passes)
//   double TableProbability() const
//   const std::vector<int64_t>& RowTotals(), ColTotals()
// ---------------------------------------------------------------------------
template <class Run>
int FamilyRun(Run& run, std::vector<int64_t>& table, int64_t rows, int64_t cols,
              int64_t method) {
  ZeroElapsed();
  StartClock();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  int code = run.Observed(table, rows, cols, lf.data());
  if (code != 0) return code;
  if (run.Degenerate()) {
    UpdateElapsed();
    run.PublishAsymptotic();
    PublishDegenerate();
    return 0;
  }
  if (method != 1 && method != 2) {
    UpdateElapsed();
    run.PublishAsymptotic();
    return 0;
  }
  run.PublishAsymptotic();  // stands whatever follows
  if (method == 2) {
    net::McResult two, one;
    if constexpr (IsOneCut<Run>()) {
      code = net::McRoute(table, rows, cols, run.RowTotals(), run.ColTotals(), lf.data(),
                          run.HitRule(), two);
      if (code != 0) return code;
      run.PublishAsymptotic();
      net::PublishMonteCarlo(two, run.Statistic());
    } else {
      code = net::McRoute(table, rows, cols, run.RowTotals(), run.ColTotals(), lf.data(),
                          run.HitRule(), two, &one);
      if (code != 0) return code;
      run.PublishAsymptotic();
      PublishTwoCutMonteCarlo(one, two, run.Statistic(), run.HighSide());
    }
    return 0;
  }
  net::PassResult pass;
  code = run.Exact(lf.data(), pass);
  if (code != 0) return code;
  UpdateElapsed();
  // The observed table's own mass: the pass may have ended early.
  if constexpr (IsOneCut<Run>()) {
    pass.point = std::max(pass.point, run.TableProbability());
    run.PublishAsymptotic();
    PublishOneCutExact(pass);
  } else {
    double& point = run.HighSide() ? pass.high_point : pass.low_point;
    point = std::max(point, run.TableProbability());
    run.PublishAsymptotic();
    PublishTwoCutExact(pass, run.HighSide());
  }
  return 0;
}

// What a table driver asks of its table beyond the family's checks.
struct TableRule {
  bool zero_runs_exact = false;  // a RunMethod of 0 runs as exact
  bool square = false;           // as many rows as columns (kNotSquare)
};

// The driver of a member that reads a table of at least 2 x 2: the driver
// frame, the table checks, and a run made by `make(store)` under FamilyRun.
template <class MakeRun>
void TableDriver(const CallArgs& args, const DriverTraits& traits, TableRule rule, MakeRun make) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, traits, work);
  const RunStore& st = Store();
  if (code == 0) {
    if (st.data_form != 1) {
      code = fail::kEmptyTable;  // the family reads Table only
    } else if (rule.square && st.row_count != st.column_count) {
      code = fail::kNotSquare;
    } else if (st.row_count < 2 || st.column_count < 2) {
      code = fail::kTableTooSmall;
    } else {
      auto run = make(st);
      const int64_t method = rule.zero_runs_exact && st.run_method == 0 ? 1 : st.run_method;
      code = FamilyRun(run, work, st.row_count, st.column_count, method);
    }
  }
  EndDriver(code);
}

}  // namespace anvl::assoc
