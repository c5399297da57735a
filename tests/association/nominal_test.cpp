// Procedures 40 and 45 (likelihood ratio, uncertainty coefficients), 43
// (Cohen's kappa) and 46 (Goodman and Kruskal's tau): exact p-values against
// enumeration of all tables with the margins, the measures against R
// (tests/data/gen_association_refs.R), Monte Carlo against exact, and the
// failure codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include "frame/run_store.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"

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

// Two-cut enumeration of kappa in whole numbers: N W against N E = sum R_i C_i
// and its mirror 2 N E - N W.  Masses at and beyond the high and the low bound.
struct TwoCut {
  long double high = 0, high_point = 0, low = 0, low_point = 0;
  bool high_side = false;
};
TwoCut EnumerateKappa(const Table& t) {
  const auto R = support::RowTotals(t), C = support::ColTotals(t);
  const int64_t N = support::GrandTotal(t);
  int64_t sg = 0;
  for (int i = 0; i < t.rows; ++i) sg += R[i] * C[i];
  auto nw = [&](const Table& x) {
    int64_t d = 0;
    for (int i = 0; i < x.rows; ++i) d += x.at(i, i);
    return N * d;
  };
  const int64_t a = nw(t), mirror = 2 * sg - a;
  TwoCut m;
  m.high_side = a > sg;
  const int64_t hb = std::max(a, mirror), lb = std::min(a, mirror);
  support::EnumerateTables(R, C, [&](const Table& x, long double p) {
    const int64_t b = nw(x);
    if (b >= hb) m.high += p;
    if (b == hb) m.high_point += p;
    if (b <= lb) m.low += p;
    if (b == lb) m.low_point += p;
  });
  return m;
}

void ExpectNear(double engine, long double ref, double slack, const std::string& what) {
  const double r = static_cast<double>(ref);
  EXPECT_LE(std::fabs(engine - r), 1e-9 * std::fabs(r) + slack)
      << what << ": " << engine << " vs " << r;
}

TEST(NominalFamily, ExactPValuesMatchEnumeration) {
  struct Member {
    int proc;
    bool square;
  };
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
  for (const Member& mb : {Member{40, false}, Member{45, false}, Member{43, true},
                           Member{46, false}}) {
    std::mt19937_64 rng(20261123 + mb.proc);
    int cases = 0, two_by_two = 0, ties = 0;
    for (int k = 0; cases < 220; ++k) {
      const bool fixed_case = k < static_cast<int>(fixed.size());
      // Random tables up to 4 x 4, N <= 20; for kappa square, a third of
      // them with the diagonal emptied (kappa below 0).
      std::uniform_int_distribution<int> dim(2, 4), nn(4, 20);
      const int r = dim(rng), c = mb.square ? r : dim(rng);
      Table t = fixed_case ? fixed[k]
                : k % 2  ? support::RandomSkewedTable(rng, r, c, nn(rng))
                         : support::RandomTable(rng, r, c, nn(rng));
      if (mb.square && !fixed_case && k % 3 == 0)
        for (int i = 0; i < r; ++i) t.cells[static_cast<size_t>(i) * c + i] = 0;
      if (support::GrandTotal(t) == 0) continue;
      const auto R = support::RowTotals(t), C = support::ColTotals(t);
      const bool empty_line = std::count(R.begin(), R.end(), 0) + std::count(C.begin(), C.end(), 0);
      if ((mb.square && t.rows != t.cols) || (empty_line && !mb.square) ||
          support::CountTables(R, C, 200000) > 200000)
        continue;
      ++cases;
      two_by_two += t.rows == 2 && t.cols == 2;
      const std::string what = support::Describe(t) + " procedure " + std::to_string(mb.proc);
      HostCall call(mb.proc, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      ASSERT_EQ(f[48], 0.0) << what;
      if (mb.proc == 43) {
        const TwoCut m = EnumerateKappa(t);
        ExpectNear(f[16], std::min<long double>(1, m.high + m.low), 0, what);
        ExpectNear(Slot(slot::kExactOneSided).value, m.high_side ? m.high : m.low, 0, what);
        ExpectNear(Slot(slot::kPointProbability).value,
                   m.high_side ? m.high_point : m.low_point, 0, what);
        ties += m.high_point > 0 && m.low_point > 0;
        continue;
      }
      // 40 and 45 test H (2^-23 relative; the 2 x 2 walk of 40 1e-7), 46 tests Q.
      const bool walk = mb.proc == 40 && t.rows == 2 && t.cols == 2;
      const support::TailResult m =
          mb.proc == 46 ? support::EnumerateTails(t, RowConcentration, 4.999999873689376e-05, 0)
                        : support::EnumerateTails(t, Entropy, walk ? 1e-7 : 0x1p-23, 0);
      // The likelihood pass ends when 1e-12 of the mass is undecided.
      const double slack = mb.proc == 46 ? 0.0 : 1.1e-12;
      ExpectNear(f[16], m.above + m.equal, slack, what + " two-sided");
      ExpectNear(Slot(slot::kPointProbability).value, m.equal, slack, what + " point");
      ties += m.equal > 1.0001L * std::exp(support::LogTableProbability(t));
    }
    EXPECT_GE(ties, 10) << mb.proc;
    if (mb.proc == 40) {
      EXPECT_GE(two_by_two, 20);
    }
  }
}

// ---------------------------------------------------------------------------
// Measures against R.
// ---------------------------------------------------------------------------

struct AssocRef {
  std::string id;
  int rows = 0, cols = 0;
  std::vector<int64_t> cells;
  // g2 p_g2 uc ase_uc ur ase_ur us ase_us kappa ase1_v kappa_p var1_p ase1_d
  // ase0 tau tau_s ase_tau p_tau; NA where the table isn't square.
  double v[18];
  enum { kG2, kPG2, kUC, kAseUC, kUR, kAseUR, kUS, kAseUS, kKappa, kAse1V, kKappaP, kVar1P,
         kAse1D, kAse0, kTau, kTauS, kAseTau, kPTau };
};

std::vector<AssocRef> LoadAssocRefs() {
  std::ifstream in(support::TestDataDir() + "/association_refs.csv");
  std::string line;
  std::vector<AssocRef> refs;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string item;
    while (std::getline(ss, item, ',')) f.push_back(item);
    if (f.size() != 22) continue;
    AssocRef r;
    r.id = f[0];
    r.rows = std::stoi(f[1]);
    r.cols = std::stoi(f[2]);
    std::istringstream cells(f[3]);
    for (int64_t x; cells >> x;) r.cells.push_back(x);
    for (int i = 0; i < 18; ++i) r.v[i] = f[4 + i] == "NA" ? NAN : std::stod(f[4 + i]);
    refs.push_back(r);
  }
  return refs;
}

void ExpectClose(double engine, double ref, double rel, const std::string& what) {
  EXPECT_LE(std::fabs(engine - ref), rel * std::fabs(ref) + 1e-15)
      << what << ": " << engine << " vs " << ref;
}

TEST(NominalFamily, MeasuresMatchR) {
  const auto refs = LoadAssocRefs();
  ASSERT_GE(refs.size(), 12u);
  for (const AssocRef& ref : refs) {
    const Table t = support::FromColumnMajor(ref.rows, ref.cols, ref.cells);
    const double* v = ref.v;
    if (ref.rows == ref.cols) {
      HostCall call(43, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.id + " procedure 43";
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(f[0], v[AssocRef::kKappa], 1e-12, what + " kappa");
      ExpectClose(f[0], v[AssocRef::kKappaP], 1e-12, what + " kappa, psych");
      ExpectClose(f[3], v[AssocRef::kAse1V], 1e-9, what + " ASE1");
      ExpectClose(f[3], std::sqrt(v[AssocRef::kVar1P]), 1e-9, what + " ASE1, psych");
      ExpectClose(f[3], v[AssocRef::kAse1D], 1e-6, what + " ASE1, delta method");
      const double z = v[AssocRef::kKappa] / v[AssocRef::kAse0];
      ExpectClose(f[1], z, 1e-9, what + " z");
      ExpectClose(f[14], std::erfc(std::fabs(z) / std::sqrt(2.0)), 1e-6, what + " p");
    }
    {
      HostCall call(46, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.id + " procedure 46";
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(Slot(slot::kStatistic).value, v[AssocRef::kTau], 1e-12, what + " tau");
      ExpectClose(f[0], v[AssocRef::kTauS], 1e-12, what + " symmetric tau");
      ExpectClose(f[1], v[AssocRef::kAseTau], 1e-6, what + " ASE");
      ExpectClose(Slot(slot::kAsymTwoSided).value, v[AssocRef::kPTau], 1e-9, what + " p");
    }
    for (int proc : {40, 45}) {
      HostCall call(proc, TQ_METHOD_ASYMPTOTIC);
      const double* f = call.Run(t);
      const std::string what = ref.id + " procedure " + std::to_string(proc);
      ASSERT_EQ(f[48], 0.0) << what;
      ExpectClose(Slot(slot::kAsymTwoSided).value, v[AssocRef::kPG2], 1e-9, what + " p");
      EXPECT_EQ(Word(word::kDegreesOfFreedom), (ref.rows - 1) * (ref.cols - 1)) << what;
      if (proc == 40) {
        ExpectClose(f[0], v[AssocRef::kG2], 1e-12, what + " G2");
        continue;
      }
      // Values to rounding; standard errors to the accuracy of R's
      // numerical gradient.
      ExpectClose(f[0], v[AssocRef::kUS], 1e-12, what + " U");
      ExpectClose(f[6], v[AssocRef::kUC], 1e-12, what + " U(C|R)");
      ExpectClose(f[24], v[AssocRef::kUR], 1e-12, what + " U(R|C)");
      ExpectClose(f[3], v[AssocRef::kAseUS], 1e-6, what + " ASE U");
      ExpectClose(f[9], v[AssocRef::kAseUC], 1e-6, what + " ASE U(C|R)");
      ExpectClose(f[27], v[AssocRef::kAseUR], 1e-6, what + " ASE U(R|C)");
    }
  }
}

// ---------------------------------------------------------------------------
// Monte Carlo and failures.
// ---------------------------------------------------------------------------

TEST(NominalFamily, MonteCarloAgreesWithExactAndRepeats) {
  const Table t = support::MakeTable({{4, 2, 1, 0}, {2, 3, 3, 1}, {0, 1, 3, 5}, {1, 0, 2, 2}});
  for (int proc : {40, 45, 43, 46}) {
    HostCall exact(proc, TQ_METHOD_EXACT);
    const double p = exact.Run(t)[16];
    ASSERT_EQ(exact.f[48], 0.0);
    HostCall mc(proc, TQ_METHOD_MONTE_CARLO);
    mc.MonteCarlo(20000, 4711, 0.99);
    const std::vector<double> a(mc.Run(t), mc.Run(t) + TQ_RECORD_LENGTH);
    ASSERT_EQ(a[48], 0.0);
    mc.Run(t);
    for (int i = 0; i < 42; ++i) EXPECT_EQ(mc.f[i], a[i]) << "procedure " << proc << " field " << i;
    EXPECT_LE(std::fabs(a[21] - p), 4 * std::sqrt(p * (1 - p) / 20000.0)) << proc;
    EXPECT_LT(a[22], a[21]);
    EXPECT_GT(a[23], a[21]);
    EXPECT_EQ(a[16], support::kTestFiller);  // no exact route after Monte Carlo
  }
  // 40 on a 2 x 2 table walks its cell whatever the method asks.
  HostCall walk(40, TQ_METHOD_MONTE_CARLO);
  walk.MonteCarlo(100, 1, 0.99);
  const double* f = walk.Run(support::MakeTable({{3, 1}, {1, 3}}));
  EXPECT_NEAR(f[16], 34.0 / 70, 1e-14);  // the law 1 16 36 16 1 over 70: H ties at 0 and 4
  EXPECT_NEAR(f[15], 17.0 / 70, 1e-14);  // the cell's upper tail
  EXPECT_EQ(f[12], 2.0);
  EXPECT_EQ(f[6], 3.0);
  EXPECT_EQ(f[8], 2.0);
  EXPECT_EQ(f[21], support::kTestFiller);
}

TEST(NominalFamily, BadInputGetsItsFailureCode) {
  const std::string spill =
      (std::filesystem::temp_directory_path() / "anvl_nominal_test.spill").string();
  std::filesystem::remove(spill);
  struct Case {
    Table t;
    std::vector<std::pair<int, double>> expect;  // procedure, field 48
  };
  const std::vector<Case> cases = {
      {support::MakeTable({{1, 2, 3}}), {{40, -99.0}, {45, -99.0}, {43, -912.0}, {46, -1016.0}}},
      {support::MakeTable({{1}, {2}}), {{40, -99.0}, {45, -99.0}, {43, -912.0}, {46, -1016.0}}},
      {support::MakeTable({{5}}), {{40, -99.0}, {43, -1016.0}}},
      {support::MakeTable({{1, 2, 1}, {3, 0, 2}}), {{43, -912.0}}},
      {support::MakeTable({{1, 2}, {0, 0}}), {{40, -1001.0}, {45, -1001.0}, {46, -1001.0}}},
      {support::MakeTable({{1, 0, 2}, {2, 0, 1}}), {{40, -1001.0}, {45, -1001.0}, {46, -1001.0}}},
      {support::MakeTable({{0, 0}, {0, 0}}), {{43, -849.0}}},
      {support::MakeTable({{1, 2}, {3, -1}}), {{40, -1001.0}, {45, -1001.0}, {43, -1001.0}}},
      {support::MakeTable({{3, -1}, {0, 2}}), {{43, -1001.0}}},  // every total >= 0
      {support::MakeTable({{1, 2, 1}, {3, -1, 2}}), {{40, -1001.0}, {45, -1001.0}, {46, -1001.0}}},
  };
  for (const Case& c : cases) {
    for (auto [proc, field48] : c.expect) {
      for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
        HostCall call(proc, method);
        call.spill = spill;
        const double* f = call.Run(c.t);
        EXPECT_EQ(f[48], field48) << support::Describe(c.t) << " procedure " << proc;
        EXPECT_TRUE(call.Published().empty()) << support::Describe(c.t);
        EXPECT_FALSE(std::filesystem::exists(spill));
      }
    }
  }
  HostCall cases_form(40, TQ_METHOD_EXACT);
  cases_form.values = {1, 2, 3};
  EXPECT_EQ(cases_form.RunCases()[48], -99.0);
  // MethodCode 0: 46 runs the exact route, 40 the asymptotic one.
  HostCall tau0(46, 0), g0(40, 0);
  const Table t = support::MakeTable({{3, 1, 0}, {1, 2, 2}, {0, 1, 4}});
  EXPECT_NE(tau0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.Run(t)[16], support::kTestFiller);
  EXPECT_EQ(g0.f[48], 0.0);
  HostCall kappa_cases(43, TQ_METHOD_EXACT);
  kappa_cases.values = {1, 2, 3};
  EXPECT_EQ(kappa_cases.RunCases()[48], -849.0);  // 151: the family reads Table only
  // A finished exact run leaves no spill file behind either.
  HostCall ok(45, TQ_METHOD_EXACT);
  ok.spill = spill;
  EXPECT_EQ(ok.Run(support::MakeTable({{3, 1, 2}, {1, 4, 0}, {2, 0, 5}}))[48], 0.0);
  EXPECT_FALSE(std::filesystem::exists(spill));
}

}  // namespace
}  // namespace anvl
