// Procedures 41, 47 and 48: the exact two-cut masses against enumeration of
// all tables with the margins, the measures against R, the degenerate run and
// the host's stop (failures and Monte Carlo: engines/failures_test.cpp,
// engines/sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "association/linear.h"
#include "frame/run_store.h"
#include "network/node_store.h"
#include "support/enumerate.h"
#include "support/host_call.h"
#include "support/ref_data.h"
#include "association/two_cut.h"

namespace anvl {
namespace {

using support::HostCall;
using support::Table;

using assoc_test::ExpectNear;
using assoc_test::Frac;
using assoc_test::Int;
using assoc_test::Masses;

// The two-cut masses of the enumeration, on whole-number scores, in exact
// integer arithmetic: a table's statistic T is compared through N T with
// U V = N x its mean (U, V the score sums over the margins), and the mirror
// of the observed value about the mean is 2 U V - N T_obs.
Masses Enumerate(const Table& obs, const std::vector<int64_t>& iu, const std::vector<int64_t>& iv) {
  const auto R = support::RowTotals(obs), C = support::ColTotals(obs);
  const Int N = support::GrandTotal(obs);
  Int U = 0, V = 0;
  for (size_t i = 0; i < R.size(); ++i) U += R[i] * iu[i];
  for (size_t j = 0; j < C.size(); ++j) V += C[j] * iv[j];
  auto stat = [&](const Table& t) {
    Int s = 0;
    for (int i = 0; i < t.rows; ++i)
      for (int j = 0; j < t.cols; ++j) s += t.at(i, j) * iu[i] * iv[j];
    return Frac{N * s, 1};
  };
  return assoc_test::EnumerateTwoCut(obs, stat, Frac{2 * U * V - stat(obs).n, 1});
}

// Scores of one side for a case: the engine's (empty: the default 1, 2, ...)
// and whole numbers on the same lattice for the enumeration.
struct SideScores {
  std::vector<double> engine;
  std::vector<int64_t> whole;
};

SideScores MakeScores(int kind, int n, std::mt19937_64& rng) {
  SideScores s;
  std::uniform_int_distribution<int> small(-3, 3), quarter(-16, 16);
  for (int i = 0; i < n; ++i) {
    switch (kind) {
      case 0: s.whole.push_back(i + 1); break;                                    // default
      case 1: { const int v = small(rng); s.engine.push_back(v); s.whole.push_back(v); break; }  // ties
      case 2: { const int q = quarter(rng); s.engine.push_back(q / 4.0); s.whole.push_back(q); break; }
      case 3: s.engine.push_back(n - i); s.whole.push_back(n - i); break;         // descending
      default: {  // four decimals: the lattice of 1/1000 rounds them to quarters
        const int q = quarter(rng);
        s.engine.push_back(q / 4.0 + (q % 2 ? 0.0001 : -0.0001));
        s.whole.push_back(q);
      }
    }
  }
  return s;
}

std::vector<int64_t> DoubledMidRanks(const std::vector<int64_t>& totals) {
  std::vector<int64_t> r(totals.size());
  r[0] = totals[0] + 1;
  for (size_t i = 1; i < totals.size(); ++i) r[i] = r[i - 1] + totals[i - 1] + totals[i];
  return r;
}

// Both forms of the pass on the table `run` observed: they hold the same
// values (unless one stopped early) and give the same masses but for the
// order of the sums (1e-12); the lattice form's masses against the
// enumeration to `rel`.  Give or take 1e-12 after an early stop, which the
// result tells.
bool ExpectFormsAgree(const assoc::LinearRun& run, const double* lf, const Masses& ref, double rel,
                      const std::string& what, bool* lattice) {
  net::PassResult pass, tree;
  EXPECT_EQ(run.Exact(lf, pass, assoc::ExactForm::kAny, lattice), 0) << what;
  EXPECT_EQ(run.Exact(lf, tree, assoc::ExactForm::kTree), 0) << what;
  const double slack = pass.stopped_early ? 1e-12 : 0.0;
  if (!pass.stopped_early && !tree.stopped_early) {
    EXPECT_EQ(pass.peak_values, tree.peak_values) << what;
  }
  const double masses[][3] = {{pass.tail_high, tree.tail_high, static_cast<double>(ref.above)},
                              {pass.tail_low, tree.tail_low, static_cast<double>(ref.below)},
                              {pass.high_point, tree.high_point, static_cast<double>(ref.high_point)},
                              {pass.low_point, tree.low_point, static_cast<double>(ref.low_point)}};
  for (const auto& m : masses) {
    EXPECT_LE(std::fabs(m[0] - m[2]), rel * m[2] + slack) << what << ": " << m[0] << " vs " << m[2];
    EXPECT_LE(std::fabs(m[0] - m[1]), 1e-12 * m[1] + slack) << what << ": " << m[0] << " vs " << m[1];
  }
  return pass.stopped_early;
}

TEST(LinearFamily, ExactMassesMatchEnumeration) {
  std::mt19937_64 rng(20261123);
  std::vector<Table> fixed = {
      // The observed value at its mean: the two point masses coincide.
      support::MakeTable({{1, 2}, {2, 4}}), support::MakeTable({{2, 2}, {3, 3}}),
      support::MakeTable({{1, 2, 1}, {2, 4, 2}}), support::MakeTable({{1, 0, 1}, {0, 2, 0}, {1, 0, 1}}),
      support::MakeTable({{2, 1}, {2, 1}, {4, 2}}),
  };
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  int cases = 0, at_mean = 0, early = 0, lattices = 0;
  for (int k = 0; cases < 500; ++k) {
    Table t;
    int proc = 41, kind = 0;
    if (k < static_cast<int>(fixed.size())) {
      t = fixed[k];
    } else {
      std::uniform_int_distribution<int> rr(2, 4), cc(2, 5);
      const int r = rr(rng), c = cc(rng);
      std::uniform_int_distribution<int> nn(std::max(r, c), 25);
      t = k % 2 ? support::RandomSkewedTable(rng, r, c, nn(rng))
                : support::RandomTable(rng, r, c, nn(rng));
      if (support::CountTables(support::RowTotals(t), support::ColTotals(t), 300000) > 300000)
        continue;
      proc = k % 5 == 0 ? 48 : (k % 5 == 1 ? 47 : 41);
      kind = (k / 5) % 5;
    }
    SideScores su = MakeScores(kind, t.rows, rng), sv = MakeScores((kind + k) % 5, t.cols, rng);
    const auto all_equal = [](const std::vector<int64_t>& s) {
      return std::equal(s.begin() + 1, s.end(), s.begin());
    };
    if (all_equal(su.whole) || all_equal(sv.whole)) continue;  // no variance: see below
    ++cases;
    if (proc == 48) {
      su.whole = DoubledMidRanks(support::RowTotals(t));
      sv.whole = DoubledMidRanks(support::ColTotals(t));
    }
    const Masses ref = Enumerate(t, su.whole, sv.whole);
    const long double two = ref.above + ref.high_point + ref.below + ref.low_point;
    at_mean += ref.high_side ? 0 : (ref.low_point == ref.high_point && ref.middle == 0);
    const std::string what = support::Describe(t) + " procedure " + std::to_string(proc);

    HostCall call(proc, TQ_METHOD_EXACT);
    call.row_scores = su.engine;
    call.scores = sv.engine;
    const double* f = call.Run(t);
    ASSERT_EQ(f[48], 0.0) << what;

    // The pass itself: all four masses, under both forms.
    assoc::LinearRun run(proc == 41 ? 3 : (proc == 47 ? 1 : 2), su.engine.empty() ? nullptr : su.engine.data(),
                         sv.engine.empty() ? nullptr : sv.engine.data());
    const auto cells = support::ColumnMajor(t);
    ASSERT_EQ(run.Observed(cells, t.rows, t.cols, lf.data()), 0);
    ASSERT_FALSE(run.Degenerate()) << what;
    bool lattice = false;
    const bool stopped = ExpectFormsAgree(run, lf.data(), ref, 1e-9, what, &lattice);
    const double slack = stopped ? 1e-12 : 0.0;
    early += stopped;
    lattices += lattice;

    // The record: two-sided; for 41 also the side, one-sided and point.
    ExpectNear(f[16], std::min<long double>(two, 1), slack, what + " two-sided");
    if (proc == 41) {
      EXPECT_EQ(f[12], ref.high_side ? 2.0 : 1.0) << what;
      ExpectNear(f[15], ref.high_side ? ref.above + ref.high_point : ref.below + ref.low_point,
                 slack, what + " one-sided");
      ExpectNear(f[17], ref.high_side ? ref.high_point : ref.low_point, slack, what + " point");
    }
  }
  EXPECT_GE(at_mean, 5);
  EXPECT_LT(early, cases / 10);
  EXPECT_GE(lattices, cases * 3 / 4);  // four decimals and quarters keep some on the tree
}

// The memory budget limits the past values held at once; the lattice form
// holds the same values as the tree form, so the two run out at the same
// budget: one kilobyte below what the peak needs, both end with -1.  And on
// large samples, where the lattice form keeps count differently, both
// forms agree.
TEST(LinearFamily, LatticeFormHoldsWhatTheTreeFormHolds) {
  const Table t = support::MakeTable({{3, 2, 2, 1, 0}, {2, 2, 3, 1, 2}, {1, 2, 2, 3, 2},
                                      {0, 1, 2, 3, 4}});
  assoc::LinearRun run(2, nullptr, nullptr);  // Spearman: mid-ranks on the lattice of halves
  LogFactorialTable table;
  BuildLogFactorials(table);
  const double* lf = table.data();
  const auto cells = support::ColumnMajor(t);
  ASSERT_EQ(run.Observed(cells, t.rows, t.cols, lf), 0);
  SetSetting(setting::kMemoryLimit, int64_t{16384});
  net::PassResult tree, pass;
  bool lattice = false;
  ASSERT_EQ(run.Exact(lf, tree, assoc::ExactForm::kTree), 0);
  ASSERT_GT(net::PastPool::EntryLimit(16384 * 1024), tree.peak_values);
  ASSERT_LT(net::PastPool::EntryLimit(2048 * 1024), tree.peak_values);
  int64_t kb = 2048;
  while (net::PastPool::EntryLimit(kb * 1024) < tree.peak_values) ++kb;
  for (int64_t k : {kb, kb - 1}) {
    SetSetting(setting::kMemoryLimit, k);
    const int want = k == kb ? 0 : -1;
    EXPECT_EQ(run.Exact(lf, tree, assoc::ExactForm::kTree), want) << k << " KB";
    EXPECT_EQ(run.Exact(lf, pass, assoc::ExactForm::kAny, &lattice), want) << k << " KB";
    EXPECT_TRUE(lattice);
    if (want == 0) {
      EXPECT_EQ(pass.peak_values, tree.peak_values);
    }
  }
  // Beyond N = 160 the lattice form marks its held values by a byte each:
  // the same values as the tree form, and the masses of the enumeration.
  // The edge weights come from log factorials of up to N (about 1e3 at
  // N = 300), whose rounding reaches the masses at some 1e-12 in both forms
  // alike.
  std::mt19937_64 rng(161);
  for (int k = 0; k < 12; ++k) {
    const int cols = 3 + k % 2;
    const Table big = support::RandomSkewedTable(rng, 2, cols, 161 + 15 * k);
    const auto big_cells = support::ColumnMajor(big);
    assoc::LinearRun big_run(3, nullptr, nullptr);
    ASSERT_EQ(big_run.Observed(big_cells, big.rows, big.cols, lf), 0);
    std::vector<int64_t> iv(cols);
    for (int j = 0; j < cols; ++j) iv[j] = j + 1;
    ExpectFormsAgree(big_run, lf, Enumerate(big, {1, 2}, iv), 1e-11, support::Describe(big), &lattice);
    EXPECT_TRUE(lattice) << support::Describe(big);
  }
  SetSetting(setting::kMemoryLimit, int64_t{-1});
}

void ExpectClose(double engine, double ref, double rel, double abs, const std::string& what) {
  EXPECT_LE(std::fabs(engine - ref), rel * std::fabs(ref) + abs) << what << ": " << engine << " vs " << ref;
}

// The measures from the host, and the t test's p-value: the series against
// R's pt.  The series is defined with 1/pi in single precision, whose error
// (about 1e-8 of 1/pi) reaches the result as an absolute error of up to
// 1/pi x 1e-8 x pi/2.
TEST(LinearFamily, MeasuresMatchR) {
  const auto refs = support::LoadCsv("linear_refs.csv");
  ASSERT_GE(refs.size(), 12u);
  for (const support::CsvRow& ref : refs) {
    const std::vector<int64_t> cells = ref.Ints("cells");
    const Table t = support::FromColumnMajor(ref.Int("rows"), ref.Int("cols"), cells);
    for (int proc : {41, 47, 48}) {
      HostCall call(proc, TQ_METHOD_ASYMPTOTIC);
      call.row_scores = ref.Reals("row_scores");
      call.scores = ref.Reals("col_scores");
      const double* f = call.Run(t);
      const std::string what = ref.Text("id") + " procedure " + std::to_string(proc);
      ASSERT_EQ(f[48], 0.0) << what;
      if (proc == 41) {
        ExpectClose(f[0], ref.Real("T"), 1e-12, 0, what + " T");
        ExpectClose(f[2], ref.Real("mean"), 1e-12, 0, what + " mean");
        ExpectClose(f[3], std::sqrt(ref.Real("var")), 1e-12, 0, what + " sd");
        ExpectClose(f[1], ref.Real("z"), 1e-10, 1e-12, what + " z");
        const double p = 0.5 * std::erfc(std::fabs(ref.Real("z")) / std::sqrt(2.0));
        ExpectClose(f[13], p, 1e-7, 1e-15, what + " one-sided");
        ExpectClose(f[14], std::min(1.0, 2 * p), 1e-7, 1e-15, what + " two-sided");
      } else {
        const std::string k = proc == 47 ? "r" : "s";  // the columns r, ase_r, t_r or rs, ase_s, t_s
        ExpectClose(f[0], ref.Real(proc == 47 ? "r" : "rs"), 1e-12, 1e-15, what + " r");
        ExpectClose(f[3], ref.Real("ase_" + k), 1e-6, 0, what + " ASE");
        ExpectClose(f[1], ref.Real("t_" + k), 1e-10, 1e-12, what + " t");
      }
    }
    int64_t n = 0;
    for (int64_t c : cells) n += c;
    for (const char* k : {"r", "s"})
      ExpectClose(assoc::StudentLowerTail(ref.Real(std::string("t_") + k), n - 2), ref.Real(std::string("p_") + k), 1e-9,
                  2.5e-8, ref.Text("id"));
  }
  EXPECT_EQ(assoc::StudentLowerTail(1.0, 0), 0.0);
  ExpectClose(assoc::StudentLowerTail(1.0, 1), 0.75, 1e-7, 0, "t = 1, f = 1");
}

TEST(LinearFamily, NoVarianceGivesPValuesOfOne) {
  const Table t = support::MakeTable({{3, 1, 2}, {1, 4, 2}});
  struct Case {
    int proc;
    std::vector<double> u, v;
  };
  for (const Case& c : {Case{41, {2, 2}, {1, 2, 3}}, Case{47, {1, 2}, {5, 5, 5}},
                        Case{41, {1.0001, 1.0002}, {1, 2, 3}}}) {
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(c.proc, method);
      call.row_scores = c.u;
      call.scores = c.v;
      if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(100, 1, 0.99);
      const double* f = call.Run(t);
      ASSERT_EQ(f[48], 0.0);
      EXPECT_EQ(f[16], 1.0);
      if (c.proc == 41) {
        for (int i : {13, 14, 15, 17}) EXPECT_EQ(f[i], 1.0) << i;
        EXPECT_EQ(f[1], support::kTestFiller);
        EXPECT_EQ(f[18], support::kTestFiller);
      }
    }
  }
}

// A stop from the host ends the exact route at once: no spill file is
// there whose next access would fail, so the pass itself looks.
int g_polls_after_stop = 0;
bool g_stop = false;
void StopAtOnce(int64_t* flag) {
  if (g_stop) ++g_polls_after_stop;
  if (*flag == 0) {
    *flag = 1;
    g_stop = true;
  }
}

TEST(LinearFamily, HostStopEndsTheExactRoute) {
  HostCall call(41, TQ_METHOD_EXACT);
  call.poll = StopAtOnce;
  const double* f = call.Run(support::MakeTable(
      {{4, 3, 2, 1, 0, 1, 1, 1, 0, 0}, {2, 1, 1, 3, 1, 0, 1, 0, 3, 0}, {0, 1, 1, 2, 0, 1, 0, 1, 1, 0},
       {2, 1, 2, 1, 1, 0, 2, 1, 0, 3}, {1, 0, 0, 4, 2, 1, 2, 2, 2, 1}}));
  EXPECT_EQ(f[48], -1006.0);
  EXPECT_TRUE(call.Published().empty());
  // The stop's own last poll, and the polls of the walk under way.
  EXPECT_LT(g_polls_after_stop, 1000);
}

}  // namespace
}  // namespace anvl
