// Procedures 40 and 45 (likelihood ratio, uncertainty coefficients), 43
// (Cohen's kappa) and 46 (Goodman and Kruskal's tau): exact p-values against
// enumeration of all tables with the margins and the measures against R
// (tests/data/gen_association_refs.R); failures in engines/failures_test.cpp,
// Monte Carlo in engines/sampling_routes_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "frame/run_store.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"
#include "association/two_cut.h"

namespace anvl {
namespace {

using support::HostCall;
using support::Table;

// The statistics that the networks add up: H = sum x log x (40, 45) and
// Q = sum over the rows of (sum of x_ij^2) / R_i (46).
double Entropy(const Table& t) {
  double h = 0;
  for (int64_t x : t.cells) h += x > 0 ? static_cast<double>(x) * std::log(static_cast<double>(x)) : 0;
  return h;
}
double RowConcentration(const Table& t) {
  double q = 0;
  for (int i = 0; i < t.rows; ++i) {
    double r = 0, s = 0;
    for (int j = 0; j < t.cols; ++j) r += t.at(i, j), s += static_cast<double>(t.at(i, j) * t.at(i, j));
    q += s / r;
  }
  return q;
}

using assoc_test::ExpectNear;
using assoc_test::Frac;

// Two-cut enumeration of kappa in whole numbers: N W against N E = sum R_i C_i
// and its mirror 2 N E - N W.
assoc_test::Masses EnumerateKappa(const Table& t) {
  const auto R = support::RowTotals(t), C = support::ColTotals(t);
  const int64_t N = support::GrandTotal(t);
  int64_t sg = 0;
  for (int i = 0; i < t.rows; ++i) sg += R[i] * C[i];
  auto nw = [&](const Table& x) {
    int64_t d = 0;
    for (int i = 0; i < x.rows; ++i) d += x.at(i, i);
    return Frac{N * d, 1};
  };
  return assoc_test::EnumerateTwoCut(t, nw, Frac{2 * sg - nw(t).n, 1});
}

TEST(NominalFamily, ExactPValuesMatchEnumeration) {
  const std::vector<Table> fixed = {
      support::MakeTable({{2, 4}, {3, 6}}),             // independent: the least H
      support::MakeTable({{1, 2, 1}, {2, 4, 2}}),       // G2 = 0, tau = 0
      support::MakeTable({{3, 0}, {0, 3}}),             // perfect agreement, tau = 1
      support::MakeTable({{2, 1, 0}, {1, 2, 1}, {0, 1, 2}}),
      support::MakeTable({{1, 1}, {1, 1}}),             // kappa = 0 at its mean
      support::MakeTable({{0, 2, 1}, {2, 0, 1}, {1, 1, 0}}),
      support::MakeTable({{2, 0, 1}, {0, 0, 0}, {1, 0, 3}}),  // kappa: an empty row and column
      support::MakeTable({{0, 0}, {0, 5}}),                   // kappa: one category, t2 = 1
  };
  for (const int proc : {40, 45, 43, 46}) {
    const bool square = proc == 43;
    std::mt19937_64 rng(20261123 + proc);
    int cases = 0, two_by_two = 0, ties = 0;
    for (int k = 0; cases < 220; ++k) {
      const bool fixed_case = k < static_cast<int>(fixed.size());
      // Random tables up to 4 x 4, N <= 20; for kappa square, a third of
      // them with the diagonal emptied (kappa below 0).
      std::uniform_int_distribution<int> dim(2, 4), nn(4, 20);
      const int r = dim(rng), c = square ? r : dim(rng);
      Table t = fixed_case ? fixed[k]
                : k % 2  ? support::RandomSkewedTable(rng, r, c, nn(rng))
                         : support::RandomTable(rng, r, c, nn(rng));
      if (square && !fixed_case && k % 3 == 0)
        for (int i = 0; i < r; ++i) t.cells[static_cast<size_t>(i) * c + i] = 0;
      if (support::GrandTotal(t) == 0) continue;
      const auto R = support::RowTotals(t), C = support::ColTotals(t);
      const bool empty_line = std::count(R.begin(), R.end(), 0) + std::count(C.begin(), C.end(), 0);
      if ((square && t.rows != t.cols) || (empty_line && !square) ||
          support::CountTables(R, C, 200000) > 200000)
        continue;
      ++cases;
      two_by_two += t.rows == 2 && t.cols == 2;
      const std::string what = support::Describe(t) + " procedure " + std::to_string(proc);
      HostCall call(proc, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      ASSERT_EQ(f[48], 0.0) << what;
      if (proc == 43) {
        const assoc_test::Masses m = EnumerateKappa(t);
        const long double high = m.above + m.high_point, low = m.below + m.low_point;
        ExpectNear(f[16], std::min<long double>(1, high + low), 0, what);
        ExpectNear(Slot(slot::kExactOneSided).value, m.high_side ? high : low, 0, what);
        ExpectNear(Slot(slot::kPointProbability).value,
                   m.high_side ? m.high_point : m.low_point, 0, what);
        ties += m.high_point > 0 && m.low_point > 0;
        continue;
      }
      // 40 and 45 test H (2^-23 relative; the 2 x 2 walk of 40 1e-7), 46 tests Q.
      const bool walk = proc == 40 && t.rows == 2 && t.cols == 2;
      const support::TailResult m =
          proc == 46 ? support::EnumerateTails(t, RowConcentration, 4.999999873689376e-05, 0)
                        : support::EnumerateTails(t, Entropy, walk ? 1e-7 : 0x1p-23, 0);
      // The likelihood pass ends when 1e-12 of the mass is undecided.
      const double slack = proc == 46 ? 0.0 : 1.1e-12;
      ExpectNear(f[16], m.above + m.equal, slack, what + " two-sided");
      ExpectNear(Slot(slot::kPointProbability).value, m.equal, slack, what + " point");
      ties += m.equal > 1.0001L * std::exp(support::LogTableProbability(t));
    }
    EXPECT_GE(ties, 10) << proc;
    if (proc == 40) {
      EXPECT_GE(two_by_two, 20);
    }
  }
}

void ExpectClose(double engine, double ref, double rel, const std::string& what) {
  EXPECT_LE(std::fabs(engine - ref), rel * std::fabs(ref) + 1e-15)
      << what << ": " << engine << " vs " << ref;
}

// The measures against R; the kappa columns are NA where the table isn't square.
TEST(NominalFamily, MeasuresMatchR) {
  const auto refs = support::LoadCsv("association_refs.csv");
  ASSERT_GE(refs.size(), 12u);
  for (const support::CsvRow& ref : refs) {
    const int rows = ref.Int("rows"), cols = ref.Int("cols");
    const Table t = support::FromColumnMajor(rows, cols, ref.Ints("cells"));
    auto v = [&](const char* name) { return ref.Real(name); };
    if (rows == cols) {
      HostCall call(43, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.Text("id") + " procedure 43";
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(f[0], v("kappa"), 1e-12, what + " kappa");
      ExpectClose(f[0], v("kappa_p"), 1e-12, what + " kappa, psych");
      ExpectClose(f[3], v("ase1_v"), 1e-9, what + " ASE1");
      ExpectClose(f[3], std::sqrt(v("var1_p")), 1e-9, what + " ASE1, psych");
      ExpectClose(f[3], v("ase1_d"), 1e-6, what + " ASE1, delta method");
      const double z = v("kappa") / v("ase0");
      ExpectClose(f[1], z, 1e-9, what + " z");
      ExpectClose(f[14], std::erfc(std::fabs(z) / std::sqrt(2.0)), 1e-6, what + " p");
    }
    {
      HostCall call(46, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.Text("id") + " procedure 46";
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(Slot(slot::kStatistic).value, v("tau"), 1e-12, what + " tau");
      ExpectClose(f[0], v("tau_s"), 1e-12, what + " symmetric tau");
      ExpectClose(f[1], v("ase_tau"), 1e-6, what + " ASE");
      ExpectClose(Slot(slot::kAsymTwoSided).value, v("p_tau"), 1e-9, what + " p");
    }
    for (int proc : {40, 45}) {
      HostCall call(proc, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.Text("id") + " procedure " + std::to_string(proc);
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(Slot(slot::kAsymTwoSided).value, v("p_g2"), 1e-9, what + " p");
      EXPECT_EQ(Word(word::kDegreesOfFreedom), (rows - 1) * (cols - 1)) << what;
      if (proc == 40) {
        ExpectClose(f[0], v("g2"), 1e-12, what + " G2");
        continue;
      }
      // Values to rounding; standard errors to the accuracy of R's
      // numerical gradient.
      ExpectClose(f[0], v("us"), 1e-12, what + " U");
      ExpectClose(f[6], v("uc"), 1e-12, what + " U(C|R)");
      ExpectClose(f[24], v("ur"), 1e-12, what + " U(R|C)");
      ExpectClose(f[3], v("ase_us"), 1e-6, what + " ASE U");
      ExpectClose(f[9], v("ase_uc"), 1e-6, what + " ASE U(C|R)");
      ExpectClose(f[27], v("ase_ur"), 1e-6, what + " ASE U(R|C)");
    }
  }
}

}  // namespace
}  // namespace anvl
