// Measures of concordance on two ordered variables: Goodman and Kruskal's
// gamma (procedure 50) and Kendall's family (procedure 49: tau-a, tau-b,
// Stuart's tau-c, Somers' d in both directions and symmetric).  Both count
// the concordant pairs C and the discordant pairs D of the table.  Gamma
// is the ratio (C - D) / (C + D), whose numerator and denominator both
// change under fixed margins, so its network carries the pair (C, C + D)
// along each path; Kendall's measures share the numerator C - D over
// denominators fixed by the margins, so one sum serves them all.  Both run
// the flat form of past values; rows and columns keep the input's order,
// and the shorter dimension is the key (the rows when r = c).
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "association/flat_past.h"
#include "frame/driver.h"

namespace anvl::assoc {

// C and D of a column-major table: the pairs concordant and discordant in
// the order of rows and columns, in 64-bit integers.
void ConcordantPairs(const int64_t* x, int64_t rows, int64_t cols, int64_t& C, int64_t& D);

// Gamma's past value: concordant pairs c and untied pairs t so far.
// Trivial, so that a table of them is allocated without being written.
struct PairValue {
  int64_t c, t;
};

// The network member of gamma.  The edge from node m with line d adds
// c: sum over key indices i < i' of d_i' m_i, and t: that plus m_i' d_i.
// A node's bounds are the least and greatest c and t still to come, each
// on its own.
struct GammaMember {
  using Value = PairValue;
  struct Bounds {
    int64_t sc = 0, st = 0, lc = 0, lt = 0;
  };
  static constexpr bool kStopInWalk = true;
  int K = 0;

  Value Edge(const int64_t* m, const int64_t* d) const {
    int64_t c = 0, t = 0, m_below = 0, d_below = 0;
    for (int i = 0; i < K; ++i) {
      c += d[i] * m_below;
      t += m[i] * d_below;
      m_below += m[i];
      d_below += d[i];
    }
    return {c, c + t};
  }
  static Bounds RootBounds() { return {}; }
  static void Widen(Bounds& b, const Bounds& n, const Value& inc, bool first) {
    const Bounds x{inc.c + n.sc, inc.t + n.st, inc.c + n.lc, inc.t + n.lt};
    if (first) {
      b = x;
      return;
    }
    b.sc = std::min(b.sc, x.sc);
    b.st = std::min(b.st, x.st);
    b.lc = std::max(b.lc, x.lc);
    b.lt = std::max(b.lt, x.lt);
  }
  // The least and greatest share of concordant pairs that the bounds allow
  // (a denominator of 0 gives no comparison that holds).
  static FlatDecision Decide(const Value& v, const Bounds& b, const FlatCuts& c) {
    const double low_ratio =
        static_cast<double>(v.c + b.sc) / static_cast<double>(v.t + b.lt);
    const double high_ratio =
        static_cast<double>(v.c + b.lc) / static_cast<double>(v.t + b.st);
    if (low_ratio > c.high_hi) return FlatDecision::kHigh;
    if (c.low_lo > high_ratio) return FlatDecision::kLow;
    if (c.high_lo > high_ratio && low_ratio > c.low_hi) return FlatDecision::kMiddle;
    return FlatDecision::kLive;
  }
  static double RootValue(const Value& v) {
    return static_cast<double>(v.c) / static_cast<double>(v.t);
  }
  static uint64_t HashValue(const Value& v) {
    return static_cast<uint64_t>(v.c) * 0xD6E8FEB86659FD93ull ^ static_cast<uint64_t>(v.t);
  }
  static bool Same(const Value& a, const Value& b) { return a.c == b.c && a.t == b.t; }
  static Value Plus(const Value& a, const Value& b) { return {a.c + b.c, a.t + b.t}; }
};

// Members whose past value is a whole or half number held in a double:
// equal within 1e-7 of the new value, hashed by twice the value.
struct LineValueMember {
  using Value = double;
  using Bounds = LineBounds;
  static Bounds RootBounds() { return {}; }
  static void Widen(Bounds& b, const Bounds& n, double inc, bool first) {
    const double s = inc + n.shortest, l = inc + n.longest;
    if (first || s < b.shortest) b.shortest = s;
    if (first || l > b.longest) b.longest = l;
  }
  static FlatDecision Decide(double t, const Bounds& b, const FlatCuts& c) {
    return DecideLine(t, b, c);
  }
  static double RootValue(double v) { return v; }
  static uint64_t HashValue(double v) { return static_cast<uint64_t>(std::llround(2.0 * v)); }
  static bool Same(double stored, double v) { return std::fabs(stored - v) <= 1e-7 * std::fabs(v); }
  static double Plus(double a, double b) { return a + b; }
};

// The network member of Kendall's family: the edge from node m with line
// d adds sum over key indices i < i' of (d_i' m_i - m_i' d_i), C - D of
// the pairs it closes.
struct KendallMember : LineValueMember {
  static constexpr bool kStopInWalk = true;
  int K = 0;
  double Edge(const int64_t* m, const int64_t* d) const {
    int64_t s = 0, m_below = 0, d_below = 0;
    for (int i = 0; i < K; ++i) {
      s += d[i] * m_below - m[i] * d_below;
      m_below += m[i];
      d_below += d[i];
    }
    return static_cast<double>(s);
  }
};

// The run of procedure 50 (see FamilyRun).
class GammaRun {
 public:
  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  bool HighSide() const { return gamma_ > 0.0; }
  double Statistic() const { return gamma_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  struct Hit {
    int64_t rows, cols;
    bool low_side;
    double low_cut, high_cut;
    net::TwoCounts operator()(const int64_t* table) const;
  };
  Hit HitRule() const;

  double HighBound() const { return high_bound_; }
  double LowBound() const { return low_bound_; }
  double Ase0() const { return ase0_; }

 private:
  int64_t rows_ = 0, cols_ = 0, N_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  double rho_ = 0.0, gamma_ = 0.0, ase1_ = 0.0, ase0_ = 0.0, z_ = 0.0, p_ = 0.0;
  double high_bound_ = 0.0, low_bound_ = 0.0, table_probability_ = 0.0;
};

// The six measures of procedure 49 with their standard errors.
struct KendallMeasures {
  double tau_a = 0, tau_a_ase = 0, tau_b = 0, tau_b_ase = 0, tau_c = 0, tau_c_ase = 0;
  double d_rc = 0, d_rc_ase = 0, d_cr = 0, d_cr_ase = 0, d_sym = 0, d_sym_ase = 0;
  double z = 999.0, p = -1.0;  // the test on tau-b; p = -1 marks no test
};

// The run of procedure 49 (see FamilyRun).
class KendallRun {
 public:
  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  bool HighSide() const { return k_.tau_a > 0.0; }
  double Statistic() const { return k_.tau_a; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  struct Hit {
    int64_t rows, cols;
    bool low_side;
    double low_cut, high_cut, abs_cut;
    net::TwoCounts operator()(const int64_t* table) const;
  };
  Hit HitRule() const;

  const KendallMeasures& Measures() const { return k_; }
  double HighBound() const { return high_bound_; }

 private:
  int64_t rows_ = 0, cols_ = 0, N_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  KendallMeasures k_;
  double high_bound_ = 0.0, low_bound_ = 0.0, table_probability_ = 0.0;
};

void GammaDriver(const CallArgs& args);
void KendallDriver(const CallArgs& args);

}  // namespace anvl::assoc
