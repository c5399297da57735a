// Procedures 50 (gamma), 49 (Kendall's family), 20 (Jonckheere-Terpstra)
// and 21 (Kruskal-Wallis): the exact masses against enumeration of all
// tables with the margins, the measures against R, the degenerate table and
// the flat past table (failures and Monte Carlo: engines/failures_test.cpp,
// engines/sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "association/concordance.h"
#include "association/jonckheere.h"
#include "association/kruskal_wallis.h"
#include "frame/run_store.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"
#include "association/two_cut.h"

namespace anvl {
namespace {

using support::HostCall;
using support::Table;
using assoc_test::Frac;
using assoc_test::Int;
using assoc_test::Masses;

// Concordant and discordant pairs by their definition, cell pair by cell pair.
void Pairs(const Table& t, Int& C, Int& D) {
  C = D = 0;
  for (int i = 0; i < t.rows; ++i)
    for (int j = 0; j < t.cols; ++j)
      for (int k = i + 1; k < t.rows; ++k)
        for (int l = 0; l < t.cols; ++l) {
          if (l > j) C += Int(t.at(i, j)) * t.at(k, l);
          if (l < j) D += Int(t.at(i, j)) * t.at(k, l);
        }
}

// Twice the Jonckheere-Terpstra count: over pairs of rows i < k, each case
// of row k against each of row i, 2 when above, 1 when tied.
Int TwiceJt(const Table& t) {
  Int s = 0;
  for (int i = 0; i < t.rows; ++i)
    for (int k = i + 1; k < t.rows; ++k)
      for (int j = 0; j < t.cols; ++j)
        for (int l = 0; l < t.cols; ++l)
          s += Int(t.at(i, j)) * t.at(k, l) * (l > j ? 2 : (l == j ? 1 : 0));
  return s;
}

// The Kruskal-Wallis H with its tie correction, from the rank sums of the
// groups: (12 / (N (N + 1)) sum S_i^2 / n_i - 3 (N + 1)) / (1 - sum (t^3 - t) / (N^3 - N)).
double KruskalWallisH(const Table& t) {
  const auto R = support::RowTotals(t), C = support::ColTotals(t);
  const double n = static_cast<double>(support::GrandTotal(t));
  double below = 0, sum = 0, ties = 0;
  std::vector<double> rank_sum(t.rows, 0.0);
  for (int j = 0; j < t.cols; ++j) {
    const double mid = below + (C[j] + 1) / 2.0;
    for (int i = 0; i < t.rows; ++i) rank_sum[i] += t.at(i, j) * mid;
    below += C[j];
    ties += double(C[j]) * C[j] * C[j] - C[j];
  }
  for (int i = 0; i < t.rows; ++i) sum += rank_sum[i] * rank_sum[i] / R[i];
  return (12.0 / (n * (n + 1)) * sum - 3 * (n + 1)) / (1 - ties / (n * n * n - n));
}

struct Member {
  int proc;
  std::function<Frac(const Table&)> stat;   // the statistic of a table
  std::function<Frac(const Table&)> mirror; // its mirror image about the mean
};

const Member kGamma{50,
                    [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{C, C + D}; },
                    [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{D, C + D}; }};
const Member kKendall{49, [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{C - D, 1}; },
                      [](const Table& t) { Int C, D; Pairs(t, C, D); return Frac{D - C, 1}; }};
const Member kJonckheere{
    20, [](const Table& t) { return Frac{TwiceJt(t), 2}; },
    [](const Table& t) {  // 2E - JT, E = (N^2 - sum R_i^2) / 4
      Int n = support::GrandTotal(t), r2 = 0;
      for (int64_t r : support::RowTotals(t)) r2 += Int(r) * r;
      return Frac{(n * n - r2) - TwiceJt(t), 2};
    }};

void ExpectNear(double engine, long double ref, const std::string& what) {
  assoc_test::ExpectNear(engine, ref, 1e-15, what);
}

template <class Run>
void ExpectPassMasses(const Table& t, const Masses& ref, const std::string& what) {
  Run run;
  const auto cells = support::ColumnMajor(t);
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  ASSERT_EQ(run.Observed(cells, t.rows, t.cols, lf.data()), 0) << what;
  net::PassResult pass;
  ASSERT_EQ(run.Exact(lf.data(), pass), 0) << what;
  ExpectNear(pass.tail_high, ref.above, what + " high tail");
  ExpectNear(pass.tail_low, ref.below, what + " low tail");
  if (!pass.stopped_early) {
    ExpectNear(pass.high_point, ref.high_point, what + " high point");
    ExpectNear(pass.low_point, ref.low_point, what + " low point");
  }
}

std::vector<Table> CaseTables(std::mt19937_64& rng, int count) {
  std::vector<Table> out = {
      // At the mean of every member: symmetric tables.
      support::MakeTable({{1, 1}, {1, 1}}), support::MakeTable({{1, 2, 1}, {2, 4, 2}}),
      support::MakeTable({{1, 0, 1}, {0, 2, 0}, {1, 0, 1}}),
      support::MakeTable({{2, 1, 2}, {1, 3, 1}}),
      // Extremes: all mass on the diagonals.
      support::MakeTable({{3, 0}, {0, 3}}), support::MakeTable({{0, 0, 2}, {0, 2, 0}, {2, 0, 0}}),
  };
  while (static_cast<int>(out.size()) < count) {
    std::uniform_int_distribution<int> rr(2, 4), cc(2, 5);
    const int r = rr(rng), c = cc(rng);
    std::uniform_int_distribution<int> nn(std::max(r, c), 20);
    const Table t = out.size() % 2 ? support::RandomSkewedTable(rng, r, c, nn(rng))
                                   : support::RandomTable(rng, r, c, nn(rng));
    if (support::CountTables(support::RowTotals(t), support::ColTotals(t), 200000) > 200000)
      continue;
    out.push_back(t);
  }
  return out;
}

TEST(OrdinalFamily, ExactMassesMatchEnumeration) {
  std::mt19937_64 rng(20261123);
  const std::vector<Table> tables = CaseTables(rng, 210);
  uint64_t enumerated = 0;
  for (const Member* m : {&kGamma, &kKendall, &kJonckheere}) {
    int at_mean = 0;
    for (const Table& t : tables) {
      const Masses ref = assoc_test::EnumerateTwoCut(t, m->stat, m->mirror(t));
      enumerated += ref.tables;
      const std::string what = support::Describe(t) + " procedure " + std::to_string(m->proc);
      at_mean += ref.low_point == ref.high_point && ref.middle == 0;
      if (m->proc == 50) ExpectPassMasses<assoc::GammaRun>(t, ref, what);
      if (m->proc == 49) ExpectPassMasses<assoc::KendallRun>(t, ref, what);
      if (m->proc == 20) ExpectPassMasses<assoc::JonckheereRun>(t, ref, what);
      HostCall call(m->proc, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      ASSERT_EQ(f[48], 0.0) << what;
      const long double two = ref.above + ref.high_point + ref.below + ref.low_point;
      ExpectNear(f[16], std::min<long double>(two, 1), what + " two-sided");
      if (m->proc == 20) {  // the one-sided value and the point on the observed side
        EXPECT_EQ(f[12], ref.high_side ? 2.0 : 1.0) << what;
        ExpectNear(f[15], ref.high_side ? ref.above + ref.high_point : ref.below + ref.low_point,
                   what + " one-sided");
        ExpectNear(f[17], ref.high_side ? ref.high_point : ref.low_point, what + " point");
      }
    }
    EXPECT_GE(at_mean, 4) << m->proc;
  }
  // Kruskal-Wallis, one-cut: the mass at or above the observed H, which
  // orders the tables of given margins as the engine's Z does.
  for (const Table& t : tables) {
    const auto ref = support::EnumerateTails(t, KruskalWallisH, 5e-5, 0.0);
    enumerated += ref.tables;
    const std::string what = support::Describe(t) + " procedure 21";
    HostCall call(21, TQ_METHOD_EXACT);
    const double* f = call.Run(t);
    ASSERT_EQ(f[48], 0.0) << what;
    ExpectNear(f[16], std::min<long double>(ref.above + ref.equal, 1), what + " p");
    ExpectNear(f[17], ref.equal, what + " point");
  }
  EXPECT_GT(enumerated, 100000u);
}

void ExpectClose(double engine, double ref, double rel, const std::string& what) {
  EXPECT_LE(std::fabs(engine - ref), rel * std::fabs(ref) + 1e-12) << what << ": " << engine
                                                                   << " vs " << ref;
}

support::Table RefTable(const support::CsvRow& r) {
  return support::FromColumnMajor(r.Int("rows"), r.Int("cols"), r.Ints("cells"));
}

// The measures against R (tests/data/gen_ordinal_refs.R).
TEST(OrdinalFamily, MeasuresMatchR) {
  const auto refs = support::LoadCsv("concordance_refs.csv");
  ASSERT_GE(refs.size(), 18u);
  for (const support::CsvRow& r : refs) {
    const std::string id = r.Text("id");
    HostCall g(50, TQ_METHOD_ASYMPTOTIC);
    const double* f = g.Run(RefTable(r));
    ASSERT_EQ(f[48], 0.0) << id;
    ExpectClose(f[0], r.Real("gamma"), 1e-12, id + " gamma");
    ExpectClose(f[3], r.Real("gamma_ase"), 1e-5, id + " gamma ASE1");
    ExpectClose(f[1], r.Real("gamma") / r.Real("gamma_ase0"), 1e-10, id + " gamma z");
    const double p = 0.5 * std::erfc(std::fabs(f[1]) / std::sqrt(2.0));
    ExpectClose(f[14], std::min(1.0, 2 * p), 1e-7, id + " gamma p");

    HostCall k(49, TQ_METHOD_ASYMPTOTIC);
    f = k.Run(RefTable(r));
    ASSERT_EQ(f[48], 0.0) << id;
    const std::pair<int, const char*> fields[] = {
        {0, "tau_b"}, {3, "tau_b_ase"}, {6, "tau_c"}, {9, "tau_c_ase"},  {24, "d_sym"},
        {27, "d_sym_ase"}, {28, "d_rc"}, {31, "d_rc_ase"}, {32, "d_cr"}, {35, "d_cr_ase"}};
    for (auto [field, name] : fields) {
      const bool ase = std::string(name).find("ase") != std::string::npos;
      ExpectClose(f[field], r.Real(name), ase ? 1e-5 : 1e-12, id + " " + name);
    }
    ExpectClose(f[1], r.Real("tau_b") / r.Real("tau_b_ase0"), 1e-10, id + " tau-b z");
    for (int field : {7, 25, 29, 33}) EXPECT_EQ(f[field], f[1]) << id;
  }
  const auto ranks = support::LoadCsv("rank_refs.csv");
  ASSERT_GE(ranks.size(), 18u);
  for (const support::CsvRow& r : ranks) {
    const std::string id = r.Text("id");
    const Table t = RefTable(r);
    HostCall jt(20, TQ_METHOD_ASYMPTOTIC);
    const double* f = jt.Run(t);
    ASSERT_EQ(f[48], 0.0) << id;
    ExpectClose(f[0], r.Real("jt"), 1e-12, id + " JT");
    ExpectClose(f[2], r.Real("jt_mean"), 1e-12, id + " JT mean");
    ExpectClose(f[3], r.Real("jt_sd"), 1e-12, id + " JT sd");
    ExpectClose(f[1], (r.Real("jt") - r.Real("jt_mean")) / r.Real("jt_sd"), 1e-10, id + " z");
    EXPECT_EQ(f[46], t.rows);

    HostCall kw(21, TQ_METHOD_ASYMPTOTIC);
    f = kw.Run(t);
    if (t.cols == 1) continue;
    ASSERT_EQ(f[48], 0.0) << id;
    ExpectClose(f[0], r.Real("kw"), 1e-12, id + " Kruskal-Wallis");
    // The asymptotic p-value isn't in this procedure's record: the store holds it.
    ExpectClose(Slot(slot::kAsymTwoSided).value, r.Real("kw_p"), 1e-9, id + " p");
  }
}

// Equal counts on the diagonal of a 2 x 2 table: no variance under the
// null, so no standardised value and an asymptotic p-value of 0 (its exact
// p-value, 2 / 20, is among the enumerated tables above).
TEST(OrdinalFamily, NoNullVarianceMarksTheTest) {
  for (int proc : {50, 49}) {
    HostCall call(proc, TQ_METHOD_EXACT);
    const double* f = call.Run(support::MakeTable({{3, 0}, {0, 3}}));
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[1], support::kTestFiller) << proc;
    EXPECT_EQ(f[14], 0.0) << proc;
    EXPECT_EQ(f[0], 1.0) << proc;
  }
}

// The flat table starts small and doubles: entries survive the rehash,
// equal values merge, and the budget's limit still ends it.
TEST(OrdinalFamily, FlatPastTableGrowsToItsLimit) {
  assoc::FlatPastTable<assoc::KendallMember> t;
  ASSERT_EQ(t.Create(1 << 21, 4), 0);
  for (int pass = 0; pass < 2; ++pass)
    for (int v = 0; v < 600000; ++v) {
      ASSERT_EQ(t.Reserve(1), 0);
      ASSERT_EQ(t.Add(1, v % 3, v - 300000.0, 1.0), pass == 0 ? 1 : 0) << v;
    }
  for (int node = 0; node < 3; ++node) {
    int64_t entries = 0;
    double q = 0;
    for (int32_t e = t.Head(node); e >= 0; e = t.Next(e), ++entries) q += t.q(e);
    EXPECT_EQ(entries, 200000);
    EXPECT_EQ(q, 400000.0);
  }
  t.FreeNode(0);
  EXPECT_LT(t.Head(0), 0);
  EXPECT_EQ(t.Add(2, 0, 5.0, 1.0), 1);  // another stage: a new entry

  assoc::FlatPastTable<assoc::GammaMember> small;
  ASSERT_EQ(small.Create(1000, 1), 0);
  for (int64_t v = 0; v < 1000; ++v) ASSERT_EQ(small.Add(0, 0, {v, v + 1}, 0.5), 1);
  EXPECT_EQ(small.Add(0, 0, {7, 8}, 0.5), 0);
  EXPECT_EQ(small.Add(0, 0, {7, 9}, 0.5), -1);
}

}  // namespace
}  // namespace anvl
