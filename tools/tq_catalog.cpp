// tq_catalog.cpp - the table of tests: names, codes, data, published fields
// and the options that belong to one test alone.
#include "tq_catalog.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "tq_data.h"

namespace tq {
namespace {

// The blocks that many tests share.
const Field kZ{1, "standardized", "standardized value (z)", Kind::kValue};
const Field kMean{2, "mean", "mean under the null hypothesis", Kind::kValue};
const Field kSd{3, "sd", "standard deviation under the null", Kind::kValue};
const Field kSide{12, "side", "one-sided p-value taken on", Kind::kSide};
const Field kAsymOne{13, "asymptotic_one_sided", "asymptotic one-sided p-value", Kind::kP};
const Field kAsymTwo{14, "asymptotic_two_sided", "asymptotic two-sided p-value", Kind::kP};
const Field kExactOne{15, "exact_one_sided", "exact one-sided p-value", Kind::kP};
const Field kExactTwo{16, "exact_two_sided", "exact two-sided p-value", Kind::kP};
const Field kPoint{17, "point_probability", "point probability", Kind::kP};
const Field kMcOne{18, "mc_one_sided", "Monte Carlo one-sided p-value", Kind::kMc};
const Field kMcTwo{21, "mc_two_sided", "Monte Carlo two-sided p-value", Kind::kMc};
const Field kTotal{47, "total", "total count", Kind::kCount};

Field Statistic(const char* key, const char* label) { return {0, key, label, Kind::kValue}; }

// Statistic, exact two-sided and point probability, Monte Carlo two-sided.
std::vector<Field> Short(const char* key, const char* label) {
  return {Statistic(key, label), kExactTwo, kPoint, kMcTwo};
}

// The full block of the score tests.
std::vector<Field> Scores(const char* key, const char* label) {
  return {Statistic(key, label), kZ, kMean, kSd, kSide, kExactOne, kExactTwo, kPoint, kMcOne, kMcTwo};
}

// Chi-square and likelihood ratio: statistic, the first cell of a 2 x 2
// table with its range, and the p-values.
std::vector<Field> TwoWay(const char* key, const char* label) {
  return {Statistic(key, label),
          {6, "cell_11", "cell (1,1) count", Kind::kCount},
          {8, "cell_11_mean", "cell (1,1) mean", Kind::kValue},
          {9, "cell_11_sd", "cell (1,1) standard deviation", Kind::kValue},
          {11, "cell_11_min", "cell (1,1) smallest possible", Kind::kCount},
          {10, "cell_11_max", "cell (1,1) largest possible", Kind::kCount},
          kSide,
          kExactOne,
          kExactTwo,
          kPoint,
          kMcTwo};
}

// A measure with its standard error, asymptotic and exact two-sided tests.
std::vector<Field> Measure(const char* key, const char* label, const char* z_label, bool asymptotic = true) {
  std::vector<Field> f = {Statistic(key, label),
                          {1, "standardized", z_label, Kind::kValue},
                          {3, "ase", "asymptotic standard error", Kind::kValue}};
  if (asymptotic) f.push_back(kAsymTwo);
  f.insert(f.end(), {kExactTwo, kMcTwo});
  return f;
}

std::vector<Field> MannWhitney() {
  std::vector<Field> f = Scores("statistic", "rank statistic");
  f[3] = {3, "mann_whitney_u", "Mann-Whitney U", Kind::kValue};  // field 3 holds U in this form
  return f;
}

// --- Options of one test -------------------------------------------------

Prepare BinomialOptions(CLI::App& app) {
  auto p0 = std::make_shared<double>(0.5);
  app.add_option("--p0", *p0, "null proportion of the larger value, in (0, 1)")
      ->type_name("P")
      ->capture_default_str()
      ->group("Test");
  return [p0](Call& c) { c.reals[TQ_REAL_P0] = *p0; };
}

// The pooled median of the column scores, each weighted by its column
// total, so that about half the observations lie above it.
double PooledMedian(const Call& c) {
  std::vector<std::pair<double, int64_t>> levels;
  int64_t total = 0;
  for (int64_t j = 0; j < c.cols; ++j) {
    int64_t column = 0;
    for (int64_t i = 0; i < c.rows; ++i) column += c.table[i + j * c.rows];
    levels.emplace_back(c.scores[j], column);
    total += column;
  }
  std::sort(levels.begin(), levels.end());
  if (total <= 0) return 0.0;
  auto at = [&](int64_t rank) {  // the observation of this rank, from 1
    int64_t seen = 0;
    for (const auto& [score, count] : levels)
      if ((seen += count) >= rank) return score;
    return levels.back().first;
  };
  return 0.5 * (at((total + 1) / 2) + at((total + 2) / 2));
}

Prepare MedianOptions(CLI::App& app) {
  auto cut = std::make_shared<std::optional<double>>();
  app.add_option("--cut", *cut, "levels whose score is above X count as above [default: the pooled median]")
      ->type_name("X")
      ->group("Test");
  return [cut](Call& c) {
    const double x = cut->has_value() ? **cut : PooledMedian(c);
    c.ints[TQ_INT_CUT_RULE] = 13;
    c.reals[TQ_REAL_MEDIAN_CUT] = x;
    c.settings.push_back({"cut", "cut point", FormatNumber(x) + (cut->has_value() ? "" : " (pooled median)"), x});
  };
}

Prepare KolmogorovOptions(CLI::App& app) {
  struct State {
    std::string distribution = "uniform";
    std::optional<double> param1, param2;
  };
  auto s = std::make_shared<State>();
  app.add_option("--distribution", s->distribution, "hypothesised distribution")
      ->check(CLI::IsMember({"uniform", "poisson", "normal", "exponential"}))
      ->capture_default_str()
      ->group("Test");
  app.add_option("--param1", s->param1,
                 "uniform: lower end [0]; poisson: mean [1]; normal: mean [0]; exponential: scale [1]")
      ->type_name("X")
      ->group("Test");
  app.add_option("--param2", s->param2, "uniform: upper end [1]; normal: standard deviation [1]")
      ->type_name("X")
      ->group("Test");
  return [s](Call& c) {
    const std::string& d = s->distribution;
    if (d == "uniform") {
      c.ints[TQ_INT_MODEL] = 1;
      c.reals[TQ_REAL_PARAM1] = s->param1.value_or(0.0);
      c.reals[TQ_REAL_PARAM2] = s->param2.value_or(0.0);
      return;
    }
    c.ints[TQ_INT_MODEL] = d == "poisson" ? 3 : d == "normal" ? 4 : 6;
    c.reals[TQ_REAL_PARAM3] = s->param1.value_or(0.0);
    if (d == "normal")
      c.reals[TQ_REAL_PARAM4] = s->param2.value_or(0.0);
    else if (s->param2)
      Fail("--param2: the " + d + " distribution has one parameter");
  };
}

Prepare RunsOptions(CLI::App& app) {
  auto cut = std::make_shared<std::string>("median");
  app.add_option("--runs-cut", *cut, "values at or above the cut and those below form the runs: median, mode, mean or X")
      ->type_name("CUT")
      ->capture_default_str()
      ->group("Test");
  return [cut](Call& c) {
    const std::string& r = *cut;
    c.ints[TQ_INT_OPTION11] = r == "median" ? 1 : r == "mode" ? 2 : r == "mean" ? 3 : 13;
    if (c.ints[TQ_INT_OPTION11] == 13) {
      c.reals[TQ_REAL_OPTION11] = ParseReal(r, "--runs-cut (median, mode, mean or a number)");
      c.settings.push_back({"cut", "cut point", r, c.reals[TQ_REAL_OPTION11]});
    } else if (!c.table_form) {
      c.settings.push_back({"cut", "cut point", "the " + r + " of the values", std::nullopt});
    }
  };
}

// Two samples of raw values (--x, --y), or paired values (--paired: the
// differences x - y, or the differences themselves when --y is absent),
// turned into the table of counts by level that the score tests read: two
// rows (x, y) over the distinct values, or one row over the distinct
// differences, the values becoming the column scores.
std::vector<double> ReadSample(const std::string& text, const char* option) {
  std::vector<double> out;
  std::string token;
  std::istringstream in(text);
  while (in >> token) {
    std::string piece;
    std::istringstream parts(token);
    while (std::getline(parts, piece, ','))
      if (!piece.empty()) out.push_back(ParseReal(piece, option));
  }
  return out;
}

Prepare RawSampleOptions(CLI::App& app, bool pairs) {
  struct State {
    std::optional<std::string> x, y;
    bool paired = false;
  };
  auto s = std::make_shared<State>();
  app.add_option("--x", s->x, "first sample: raw values, blank- or comma-separated")
      ->type_name("\"...\"")
      ->group("Data");
  app.add_option("--y", s->y, "second sample: raw values")->type_name("\"...\"")->group("Data");
  if (pairs)
    app.add_flag("--paired", s->paired,
                 "--x and --y are paired: test the differences x - y (with --x alone: the differences)")
        ->group("Data");
  return [s, pairs](Call& c) {
    if (!s->x) {
      if (s->y || s->paired) Fail("--y and --paired need --x");
      return;
    }
    if (c.table_form || c.case_cols > 0) Fail("give the data once: --x/--y or a table, not both");
    const std::vector<double> x = ReadSample(*s->x, "--x");
    std::vector<double> y;
    if (s->y) y = ReadSample(*s->y, "--y");
    if (!s->paired && !s->y) Fail(pairs ? "--x needs --y (two samples) or --paired (differences)" : "--x needs --y");
    if (s->paired && s->y && x.size() != y.size())
      Fail("--paired: --x has " + std::to_string(x.size()) + " values, --y " + std::to_string(y.size()));
    std::vector<std::vector<double>> samples;
    if (s->paired) {
      std::vector<double> d = x;
      for (size_t i = 0; i < y.size(); ++i) d[i] = x[i] - y[i];
      samples = {d};
    } else {
      samples = {x, y};
    }
    std::vector<double> levels;
    for (const auto& v : samples) levels.insert(levels.end(), v.begin(), v.end());
    std::sort(levels.begin(), levels.end());
    levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
    if (levels.empty()) Fail("--x and --y hold no values");
    c.rows = static_cast<int64_t>(samples.size());
    c.cols = static_cast<int64_t>(levels.size());
    c.table.assign(static_cast<size_t>(c.rows * c.cols), 0);
    for (int64_t i = 0; i < c.rows; ++i)
      for (double v : samples[static_cast<size_t>(i)]) {
        const auto j = std::lower_bound(levels.begin(), levels.end(), v) - levels.begin();
        ++c.table[static_cast<size_t>(i + j * c.rows)];
      }
    c.table_form = true;
    c.level_values = levels;
    const std::string how = s->paired ? std::to_string(samples[0].size()) + " paired differences" +
                                            (s->y ? " x - y" : "")
                                      : "x: " + std::to_string(x.size()) + " values, y: " +
                                            std::to_string(y.size()) + " values";
    c.settings.push_back({"samples", "samples", how, std::nullopt});
  };
}

Prepare SampleOptions(CLI::App& app) { return RawSampleOptions(app, true); }
// Two independent samples only (ks2, wald-wolfowitz).
Prepare TwoSampleOptions(CLI::App& app) { return RawSampleOptions(app, false); }
// Groups of raw values in their order (--groups "1.5 2 3; 2 4; ..."), turned
// into the table of counts that Jonckheere-Terpstra and Kruskal-Wallis read:
// a row per group over the distinct values, ascending.
Prepare GroupOptions(CLI::App& app) {
  auto groups = std::make_shared<std::optional<std::string>>();
  app.add_option("--groups", *groups,
                 "groups of raw values in their order, separated by ';' (each group a row)")
      ->type_name("\"1 2; 3 4 5\"")
      ->group("Data");
  return [groups](Call& c) {
    if (!*groups && !c.table_form)
      Fail("needs data: --table, --table-file, --data with --group-column, or --groups");
    if (!*groups) return;
    if (c.table_form) Fail("give the data once: --groups or a table, not both");
    std::vector<std::vector<double>> samples;
    std::istringstream in(**groups);
    for (std::string part; std::getline(in, part, ';');) {
      samples.push_back(ReadSample(part, "--groups"));
      if (samples.back().empty())
        Fail("--groups: group " + std::to_string(samples.size()) + " holds no values");
    }
    std::vector<double> levels;
    for (const auto& v : samples) levels.insert(levels.end(), v.begin(), v.end());
    std::sort(levels.begin(), levels.end());
    levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
    if (levels.empty()) Fail("--groups holds no values");
    c.rows = static_cast<int64_t>(samples.size());
    c.cols = static_cast<int64_t>(levels.size());
    c.table.assign(static_cast<size_t>(c.rows * c.cols), 0);
    std::string how;
    for (int64_t i = 0; i < c.rows; ++i) {
      for (double v : samples[static_cast<size_t>(i)]) {
        const auto j = std::lower_bound(levels.begin(), levels.end(), v) - levels.begin();
        ++c.table[static_cast<size_t>(i + j * c.rows)];
      }
      how += (how.empty() ? "" : ", ") + std::to_string(samples[static_cast<size_t>(i)].size());
    }
    c.table_form = true;
    c.level_values = levels;
    c.settings.push_back({"groups", "groups", std::to_string(c.rows) + " groups of " + how + " values",
                          std::nullopt});
  };
}

// One entry a test, laid out as a table.
// clang-format off
std::vector<Test> BuildCatalog() {
  const unsigned T = kTable, C = kCases, E = kTable | kCases, N = kNetwork;
  const unsigned cs = kColumnScores, rs = kRowScores, B = kBlocks, F = kOneWay;
  std::vector<Test> t = {
      {"scores", 1, "Equally spaced scores test / sign test", "equally spaced scores (2 rows); sign test (1 row)",
       T | cs | kOwnData, Scores("statistic", "score statistic"), SampleOptions},
      {"wilcoxon", 2, "Wilcoxon test", "Wilcoxon rank-sum (2 rows); signed-rank (1 row)", T | cs | kOwnData,
       Scores("statistic", "rank statistic"), SampleOptions},
      {"mann-whitney", 502, "Mann-Whitney test", "as wilcoxon, with the Mann-Whitney U", T | cs | kOwnData,
       MannWhitney(), SampleOptions},
      {"ks1", 6, "One-sample Kolmogorov-Smirnov test", "one-sample Kolmogorov-Smirnov against a distribution", C,
       {Statistic("d", "largest absolute difference D"), {6, "z", "Kolmogorov-Smirnov Z", Kind::kValue}, kTotal,
        kExactTwo, kPoint, kMcTwo},
       KolmogorovOptions},
      {"chisq", 7, "Pearson chi-square test", "Pearson chi-square; one-way goodness of fit on counts", E | F | cs | N,
       TwoWay("chi_square", "chi-square statistic")},
      {"chisq-short", 507, "Pearson chi-square test (short record)", "as chisq, a shorter report", E | F | cs | N,
       Short("chi_square", "chi-square statistic")},
      {"median", 31, "Median test", "median test (rows samples, columns ordered levels)", T | cs | N,
       Short("chi_square", "chi-square statistic"), MedianOptions},
      {"nominal", 42, "Nominal measures of association", "phi, Cramer's V, contingency coefficient", T | N,
       {Statistic("contingency_coefficient", "contingency coefficient"),
        {3, "contingency_coefficient_ase", "its asymptotic standard error", Kind::kValue},
        {6, "phi", "phi", Kind::kValue},
        {9, "phi_ase", "its asymptotic standard error", Kind::kValue},
        {24, "cramers_v", "Cramer's V", Kind::kValue},
        {27, "cramers_v_ase", "its asymptotic standard error", Kind::kValue},
        kExactTwo, kMcTwo}},
      {"binomial", 9, "Binomial test", "binomial test on case values of two kinds", C | kExactOnly,
       {{0, "successes", "successes", Kind::kCount},
        {47, "trials", "trials", Kind::kCount},
        {1, "proportion", "observed proportion", Kind::kValue},
        kSide, kExactOne, kExactTwo, kPoint},
       BinomialOptions},
      {"marginal-homogeneity", 10, "Marginal homogeneity test", "marginal homogeneity of a square table",
       T | kRowLengthScores,
       {Statistic("statistic", "marginal homogeneity statistic"), kZ, kMean, kSd, kSide, kExactOne, kExactTwo,
        kPoint}},
      {"marginal-homogeneity-long", 510, "Marginal homogeneity test (long record)",
       "as marginal-homogeneity, a longer report", T | kRowLengthScores,
       {Statistic("statistic", "marginal homogeneity statistic"), kZ, kMean, kSd,
        {45, "categories", "categories", Kind::kCount}, kTotal, kSide, kAsymOne, kAsymTwo, kExactOne, kExactTwo,
        kPoint, kMcOne, kMcTwo}},
      {"runs", 11, "Runs test", "one-sample runs test on values in order", E,
       {Statistic("runs", "number of runs"), kZ, kMean, kSd, kExactTwo, kPoint, kMcTwo}, RunsOptions},
      {"wald-wolfowitz", 19, "Wald-Wolfowitz runs test", "two-sample runs test (2 rows)", T | kOwnData,
       {Statistic("runs", "runs (most-runs order when tied)"), kZ, kMean, kSd, kSide, kExactOne, kPoint, kMcOne,
        {6, "fewest_runs", "runs, fewest-runs order", Kind::kValue},
        {7, "fewest_runs_standardized", "its standardized value (z)", Kind::kValue},
        {8, "fewest_runs_mean", "its mean under the null", Kind::kValue},
        {9, "fewest_runs_sd", "its standard deviation under the null", Kind::kValue},
        {36, "fewest_runs_side", "its one-sided p-value taken on", Kind::kSide},
        {37, "fewest_runs_exact_one_sided", "its exact one-sided p-value", Kind::kP},
        {38, "fewest_runs_point_probability", "its point probability", Kind::kP},
        {39, "fewest_runs_mc_one_sided", "its Monte Carlo one-sided p-value", Kind::kMc}},
       TwoSampleOptions},
      {"ks2", 18, "Two-sample Kolmogorov-Smirnov test", "two-sample Kolmogorov-Smirnov (2 rows)", T | kOwnData,
       {Statistic("d", "largest absolute difference"), kTotal, kExactTwo, kPoint, kMcTwo}, TwoSampleOptions},
      {"jonckheere", 20, "Jonckheere-Terpstra test", "Jonckheere-Terpstra (rows ordered groups)", T | kOwnData,
       {Statistic("statistic", "Jonckheere-Terpstra statistic"), kZ, kMean, kSd,
        {46, "groups", "groups", Kind::kCount}, kTotal, kSide, kAsymTwo, kExactOne, kExactTwo, kPoint, kMcOne,
        kMcTwo},
       GroupOptions},
      {"kruskal-wallis", 21, "Kruskal-Wallis test", "Kruskal-Wallis (rows groups, columns ordered levels)",
       T | N | kOwnData, Short("statistic", "Kruskal-Wallis statistic"), GroupOptions},
      {"friedman", 24, "Friedman test", "Friedman (a block a row, a treatment a column)", B,
       Short("chi_square", "Friedman chi-square")},
      {"cochran", 26, "Cochran's Q test", "Cochran's Q (as friedman, values 0 and 1)", B, Short("q", "Cochran's Q")},
      {"kendall-w", 51, "Kendall's coefficient of concordance", "Kendall's W (a judge a row, an object a column)", B,
       Short("w", "Kendall's W")},
      {"fisher", 32, "Fisher's exact test", "Fisher's exact test on an r x c table", T | N,
       {Statistic("statistic", "Fisher-Freeman-Halton statistic"), kExactTwo, kMcTwo}},
      {"likelihood-ratio", 40, "Likelihood-ratio test", "likelihood-ratio chi-square (G squared)", T | N,
       TwoWay("g_squared", "likelihood-ratio statistic")},
      {"uncertainty", 45, "Uncertainty coefficients", "uncertainty coefficients", T | N,
       {Statistic("symmetric", "symmetric uncertainty coefficient"),
        {3, "symmetric_ase", "its asymptotic standard error", Kind::kValue},
        {6, "columns_given_rows", "U(columns given rows)", Kind::kValue},
        {9, "columns_given_rows_ase", "its asymptotic standard error", Kind::kValue},
        {24, "rows_given_columns", "U(rows given columns)", Kind::kValue},
        {27, "rows_given_columns_ase", "its asymptotic standard error", Kind::kValue},
        kExactTwo, kMcTwo}},
      {"linear-by-linear", 41, "Linear-by-linear association test", "linear-by-linear association",
       T | cs | rs | N,
       {Statistic("statistic", "linear-by-linear statistic"), kZ, kMean, kSd, kSide, kAsymOne, kAsymTwo,
        kExactOne, kExactTwo, kPoint, kMcOne, kMcTwo}},
      {"pearson", 47, "Pearson's correlation", "Pearson's correlation of row and column scores", T | cs | rs | N,
       Measure("r", "Pearson's r", "t statistic", false)},
      {"spearman", 48, "Spearman's correlation", "Spearman's rank correlation", T | cs | rs | N,
       Measure("rs", "Spearman's correlation", "t statistic", false)},
      {"kappa", 43, "Cohen's kappa", "Cohen's kappa (square table)", T | N,
       Measure("kappa", "kappa", "standardized value (z)")},
      {"gk-tau", 46, "Goodman and Kruskal's tau", "Goodman and Kruskal's tau", T | N,
       {Statistic("symmetric_tau", "symmetric tau"), {1, "ase", "asymptotic standard error", Kind::kValue},
        kExactTwo, kMcTwo}},
      {"kendall", 49, "Kendall's tau and Somers' d", "Kendall's tau-b, tau-c and Somers' d", T,
       {Statistic("tau_b", "Kendall's tau-b"),
        {1, "standardized", "standardized value (z)", Kind::kValue},
        {3, "tau_b_ase", "its asymptotic standard error", Kind::kValue},
        {6, "tau_c", "Kendall's tau-c", Kind::kValue},
        {9, "tau_c_ase", "its asymptotic standard error", Kind::kValue},
        {24, "somers_d", "Somers' d, symmetric", Kind::kValue},
        {27, "somers_d_ase", "its asymptotic standard error", Kind::kValue},
        {28, "somers_d_rows_given_columns", "Somers' d, rows given columns", Kind::kValue},
        {31, "somers_d_rows_given_columns_ase", "its asymptotic standard error", Kind::kValue},
        {32, "somers_d_columns_given_rows", "Somers' d, columns given rows", Kind::kValue},
        {35, "somers_d_columns_given_rows_ase", "its asymptotic standard error", Kind::kValue},
        kAsymTwo, kExactTwo, kMcTwo}},
      {"gamma", 50, "Goodman and Kruskal's gamma", "Goodman and Kruskal's gamma", T,
       Measure("gamma", "gamma", "standardized value (z)")},
  };
  return t;
}
// clang-format on

}  // namespace

const std::vector<Test>& Catalog() {
  static const std::vector<Test> catalog = BuildCatalog();
  return catalog;
}

std::vector<Field> FieldsFor(const Test& test, const Call& call) {
  std::vector<Field> out = test.fields;
  if (test.code == 502 && call.rows != 2)  // one sample: field 3 is the sd, no U
    for (Field& f : out)
      if (f.index == 3) f = kSd;
  return out;
}

int64_t NetworkStages(const Test& test, const Call& call) {
  // The key is the shorter dimension of the table, the stages its longer one.
  return (test.reads & kNetwork) && call.table_form ? std::max(call.rows, call.cols) : 0;
}

}  // namespace tq
