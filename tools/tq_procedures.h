// tq_procedures.h - what tq knows about each procedure of the engine: its
// name on the command line, the data it takes, and which fields of the
// result record it publishes under which names.
#ifndef TQ_PROCEDURES_H
#define TQ_PROCEDURES_H

#include <cstdint>
#include <string>
#include <vector>

namespace tq {

// How a record field is shown.
enum class Kind {
  kValue,  // a real, %.6g
  kCount,  // a whole number
  kP,      // a probability
  kSide,   // 1.0 lower tail, 2.0 upper tail
  kMc      // a Monte Carlo estimate; the next two fields hold its interval
};

struct Field {
  int index;          // field of the record
  const char* key;    // name in --json
  const char* label;  // name in the report
  Kind kind;
};

enum class Data { kTable, kCase, kEither };
enum class ScoreLength { kNone, kCols, kRows };

struct Procedure {
  int64_t code;
  const char* name;      // the TEST argument
  const char* title;     // heading of the report
  const char* summary;   // one line of --help
  Data data;
  ScoreLength scores;    // length of --scores when the procedure reads it
  bool row_scores;       // reads --row-scores
  std::vector<Field> fields;
};

namespace fields {

// The blocks that many procedures share.
inline const Field kZ{1, "standardized", "standardized value (z)", Kind::kValue};
inline const Field kMean{2, "mean", "mean under the null hypothesis", Kind::kValue};
inline const Field kSd{3, "sd", "standard deviation under the null", Kind::kValue};
inline const Field kSide{12, "side", "one-sided p-value taken on", Kind::kSide};
inline const Field kAsymOne{13, "asymptotic_one_sided", "asymptotic one-sided p-value", Kind::kP};
inline const Field kAsymTwo{14, "asymptotic_two_sided", "asymptotic two-sided p-value", Kind::kP};
inline const Field kExactOne{15, "exact_one_sided", "exact one-sided p-value", Kind::kP};
inline const Field kExactTwo{16, "exact_two_sided", "exact two-sided p-value", Kind::kP};
inline const Field kPoint{17, "point_probability", "point probability", Kind::kP};
inline const Field kMcOne{18, "mc_one_sided", "Monte Carlo one-sided p-value", Kind::kMc};
inline const Field kMcTwo{21, "mc_two_sided", "Monte Carlo two-sided p-value", Kind::kMc};
inline const Field kTotal{47, "total", "total count", Kind::kCount};

inline Field Statistic(const char* key, const char* label) { return {0, key, label, Kind::kValue}; }

// Statistic, exact two-sided and point probability, Monte Carlo two-sided.
inline std::vector<Field> Short(const char* key, const char* label) {
  return {Statistic(key, label), kExactTwo, kPoint, kMcTwo};
}

// The full block of the score tests: statistic with mean and sd, side,
// exact and Monte Carlo p-values on both sides.
inline std::vector<Field> Scores(const char* key, const char* label) {
  return {Statistic(key, label), kZ, kMean, kSd, kSide, kExactOne, kExactTwo, kPoint, kMcOne, kMcTwo};
}

// Chi-square and likelihood ratio: statistic, the first cell of a 2 x 2
// table with its range, and the p-values.
inline std::vector<Field> TwoWay(const char* key, const char* label) {
  return {Statistic(key, label),
          {6, "cell_11", "cell (1,1) count", Kind::kCount},
          {8, "cell_11_mean", "cell (1,1) mean", Kind::kValue},
          {9, "cell_11_sd", "cell (1,1) standard deviation", Kind::kValue},
          {11, "cell_11_min", "cell (1,1) smallest possible", Kind::kCount},
          {10, "cell_11_max", "cell (1,1) largest possible", Kind::kCount},
          kSide, kExactOne, kExactTwo, kPoint, kMcTwo};
}

// A measure with its standard error, asymptotic and exact two-sided tests.
inline std::vector<Field> Measure(const char* key, const char* label, const char* z_label) {
  return {Statistic(key, label),
          {1, "standardized", z_label, Kind::kValue},
          {3, "ase", "asymptotic standard error", Kind::kValue},
          kAsymTwo, kExactTwo, kMcTwo};
}

}  // namespace fields

// The 29 procedure codes of the engine, in the order of --help.
inline std::vector<Procedure> ProcedureTable() {
  using namespace fields;
  const Data T = Data::kTable, C = Data::kCase, E = Data::kEither;
  const ScoreLength none = ScoreLength::kNone, cols = ScoreLength::kCols, rows = ScoreLength::kRows;
  std::vector<Procedure> t;
  t.push_back({1, "scores", "Equally spaced scores test / sign test",
               "equally spaced scores (2 rows); sign test (1)",
               T, cols, false, Scores("statistic", "score statistic")});
  t.push_back({2, "wilcoxon", "Wilcoxon test",
               "Wilcoxon rank-sum (2 rows); signed-rank (1)",
               T, cols, false, Scores("statistic", "rank statistic")});
  {
    std::vector<Field> f = Scores("statistic", "rank statistic");
    f.insert(f.begin() + 4, Field{3, "mann_whitney_u", "Mann-Whitney U", Kind::kValue});
    f.erase(f.begin() + 3);  // field 3 holds U in this form
    t.push_back({502, "mann-whitney", "Mann-Whitney test",
                 "as wilcoxon, with the Mann-Whitney U", T, cols, false, f});
  }
  t.push_back({6, "ks1", "One-sample Kolmogorov-Smirnov test",
               "one-sample Kolmogorov-Smirnov (--distribution)", C, none,
               false,
               {Statistic("d", "largest absolute difference D"),
                {6, "z", "Kolmogorov-Smirnov Z", Kind::kValue}, kTotal, kExactTwo, kPoint, kMcTwo}});
  t.push_back({7, "chisq", "Pearson chi-square test",
               "Pearson chi-square; goodness of fit on values",
               E, cols, false, TwoWay("chi_square", "chi-square statistic")});
  t.push_back({507, "chisq-short", "Pearson chi-square test (short record)",
               "as chisq, a shorter report", E, cols, false, Short("chi_square", "chi-square statistic")});
  t.push_back({31, "median", "Median test", "median test (rows samples, columns levels)",
               T, cols, false, Short("chi_square", "chi-square statistic")});
  t.push_back({42, "nominal", "Nominal measures of association",
               "phi, Cramer's V, contingency coefficient", T, none, false,
               {Statistic("contingency_coefficient", "contingency coefficient"),
                {3, "contingency_coefficient_ase", "its asymptotic standard error", Kind::kValue},
                {6, "phi", "phi", Kind::kValue},
                {9, "phi_ase", "its asymptotic standard error", Kind::kValue},
                {24, "cramers_v", "Cramer's V", Kind::kValue},
                {27, "cramers_v_ase", "its asymptotic standard error", Kind::kValue},
                kExactTwo, kMcTwo}});
  t.push_back({9, "binomial", "Binomial test",
               "binomial test of --p0 on two values", C,
               none, false,
               {{0, "successes", "successes", Kind::kCount},
                {47, "trials", "trials", Kind::kCount},
                {1, "proportion", "observed proportion", Kind::kValue},
                kSide, kExactOne, kExactTwo, kPoint}});
  t.push_back({10, "marginal-homogeneity", "Marginal homogeneity test",
               "marginal homogeneity of a square table", T, rows, false,
               {Statistic("statistic", "marginal homogeneity statistic"), kZ, kMean, kSd, kSide, kExactOne,
                kExactTwo, kPoint}});
  t.push_back({510, "marginal-homogeneity-long", "Marginal homogeneity test (long record)",
               "as marginal-homogeneity, a longer report", T, rows, false,
               {Statistic("statistic", "marginal homogeneity statistic"), kZ, kMean, kSd,
                {45, "categories", "categories", Kind::kCount}, kTotal, kSide, kAsymOne, kAsymTwo,
                kExactOne, kExactTwo, kPoint, kMcOne, kMcTwo}});
  t.push_back({11, "runs", "Runs test",
               "one-sample runs test on values in order", E, none, false,
               {Statistic("runs", "number of runs"), kZ, kMean, kSd, kExactTwo, kPoint, kMcTwo}});
  t.push_back({19, "wald-wolfowitz", "Wald-Wolfowitz runs test",
               "two-sample runs test (2 rows)", E, none, false,
               {Statistic("runs", "runs (most-runs order when tied)"), kZ, kMean, kSd, kSide, kExactOne, kPoint,
                kMcOne,
                {6, "fewest_runs", "runs, fewest-runs order", Kind::kValue},
                {7, "fewest_runs_standardized", "its standardized value (z)", Kind::kValue},
                {8, "fewest_runs_mean", "its mean under the null", Kind::kValue},
                {9, "fewest_runs_sd", "its standard deviation under the null", Kind::kValue},
                {36, "fewest_runs_side", "its one-sided p-value taken on", Kind::kSide},
                {37, "fewest_runs_exact_one_sided", "its exact one-sided p-value", Kind::kP},
                {38, "fewest_runs_point_probability", "its point probability", Kind::kP},
                {39, "fewest_runs_mc_one_sided", "its Monte Carlo one-sided p-value", Kind::kMc}}});
  t.push_back({18, "ks2", "Two-sample Kolmogorov-Smirnov test",
               "two-sample Kolmogorov-Smirnov (2 rows)", T, none, false,
               {Statistic("d", "largest absolute difference"), kTotal, kExactTwo, kPoint, kMcTwo}});
  t.push_back({20, "jonckheere", "Jonckheere-Terpstra test",
               "Jonckheere-Terpstra (rows ordered groups)", T, none, false,
               {Statistic("statistic", "Jonckheere-Terpstra statistic"), kZ, kMean, kSd,
                {46, "groups", "groups", Kind::kCount}, kTotal, kSide, kAsymTwo, kExactOne, kExactTwo, kPoint,
                kMcOne, kMcTwo}});
  t.push_back({21, "kruskal-wallis", "Kruskal-Wallis test",
               "Kruskal-Wallis (rows groups, columns levels)", E, none, false,
               Short("statistic", "Kruskal-Wallis statistic")});
  t.push_back({24, "friedman", "Friedman test",
               "Friedman (rows treatments, columns blocks)", C, none, false,
               Short("chi_square", "Friedman chi-square")});
  t.push_back({26, "cochran", "Cochran's Q test",
               "Cochran's Q (as friedman, values 0 and 1)", C, none, false, Short("q", "Cochran's Q")});
  t.push_back({51, "kendall-w", "Kendall's coefficient of concordance",
               "Kendall's W (rows objects, columns judges)", C, none, false,
               Short("w", "Kendall's W")});
  t.push_back({32, "fisher", "Fisher's exact test", "Fisher's exact test on an r x c table", T, none, false,
               {Statistic("statistic", "Fisher-Freeman-Halton statistic"), kExactTwo, kMcTwo}});
  t.push_back({40, "likelihood-ratio", "Likelihood-ratio test", "likelihood-ratio chi-square (G squared)", T,
               none, false, TwoWay("g_squared", "likelihood-ratio statistic")});
  t.push_back({45, "uncertainty", "Uncertainty coefficients",
               "uncertainty coefficients", T, none, false,
               {Statistic("symmetric", "symmetric uncertainty coefficient"),
                {3, "symmetric_ase", "its asymptotic standard error", Kind::kValue},
                {6, "columns_given_rows", "U(columns given rows)", Kind::kValue},
                {9, "columns_given_rows_ase", "its asymptotic standard error", Kind::kValue},
                {24, "rows_given_columns", "U(rows given columns)", Kind::kValue},
                {27, "rows_given_columns_ase", "its asymptotic standard error", Kind::kValue},
                kExactTwo, kMcTwo}});
  t.push_back({41, "linear-by-linear", "Linear-by-linear association test",
               "linear-by-linear association", T, cols, true,
               {Statistic("statistic", "linear-by-linear statistic"), kZ, kMean, kSd, kSide, kAsymOne, kAsymTwo,
                kExactOne, kExactTwo, kPoint, kMcOne, kMcTwo}});
  {
    std::vector<Field> f = Measure("r", "Pearson's r", "t statistic");
    f.erase(f.begin() + 3);  // no asymptotic field in the record
    t.push_back({47, "pearson", "Pearson's correlation", "Pearson's correlation of row and column scores",
                 T, cols, true, f});
  }
  {
    std::vector<Field> f = Measure("rs", "Spearman's correlation", "t statistic");
    f.erase(f.begin() + 3);
    t.push_back({48, "spearman", "Spearman's correlation", "Spearman's rank correlation", T,
                 cols, true, f});
  }
  t.push_back({43, "kappa", "Cohen's kappa", "Cohen's kappa (square table)", T, none, false,
               Measure("kappa", "kappa", "standardized value (z)")});
  t.push_back({46, "gk-tau", "Goodman and Kruskal's tau", "Goodman and Kruskal's tau", T, none, false,
               {Statistic("symmetric_tau", "symmetric tau"),
                {1, "ase", "asymptotic standard error", Kind::kValue}, kExactTwo, kMcTwo}});
  t.push_back({49, "kendall", "Kendall's tau and Somers' d", "Kendall's tau-b, tau-c and Somers' d", T, none,
               false,
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
                kAsymTwo, kExactTwo, kMcTwo}});
  t.push_back({50, "gamma", "Goodman and Kruskal's gamma", "Goodman and Kruskal's gamma", T, none, false,
               Measure("gamma", "gamma", "standardized value (z)")});
  return t;
}

}  // namespace tq

#endif  // TQ_PROCEDURES_H
