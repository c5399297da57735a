// tq - command-line host of the ANVLWTQ engine.
//
// Reads one test and its data from the command line, makes one call of
// TQCALLER and prints the fields that the procedure publishes: as a report,
// as one JSON object (--json) or as the raw record (--record).  Progress
// lines of the engine go to standard error; Ctrl-C asks the engine to stop.
//
// Exit status: 0 success, 1 the engine reported a failure, 2 usage error.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "tq_input.h"
#include "tq_procedures.h"

namespace tq {
namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitEngineFailure = 1;
constexpr int kExitUsage = 2;

// Defaults of the Monte Carlo method.
constexpr int64_t kDefaultSamples = 10000;
constexpr int64_t kDefaultSeed = 2000000;
constexpr double kDefaultLevel = 0.99;
// Memory field that asks the engine to size its store by the free memory.
constexpr int64_t kFreeMemory = -1;
// Longest spill path the engine reads.
constexpr size_t kSpillPathMax = 255;
// The engine reports a failure as its code less this offset.
constexpr double kFailureOffset = 1000.0;
// Null proportion of the binomial test when --p0 isn't given.
constexpr double kDefaultP0 = 0.5;
// Longest progress text the engine hands over.
constexpr int64_t kProgressWidth = 16;
// Width of the label column of the report.
constexpr int kLabelWidth = 36;

// Set by the SIGINT handler, read by the poll routine.
volatile sig_atomic_t g_interrupted = 0;

// The first Ctrl-C asks the engine to stop at its next poll (it finishes
// the step it is in first); the handler is reset, so a second one ends tq.
extern "C" void OnInterrupt(int) {
  g_interrupted = 1;
  static const char kNote[] = "\ntq: stopping the engine; press Ctrl-C again to quit at once\n";
  ssize_t ignored = write(STDERR_FILENO, kNote, sizeof kNote - 1);
  (void)ignored;
}

// Poll routine: asks the engine to stop once Ctrl-C was pressed.  The call
// that follows a stop (flag -1) is left alone.
extern "C" void Poll(int64_t* flag) {
  if (flag != nullptr && *flag != -1 && g_interrupted) *flag = 1;
}

// Progress lines come in bursts while the engine tunes its report rate;
// at most one a second reaches the terminal.
constexpr auto kProgressInterval = std::chrono::seconds(1);
std::chrono::steady_clock::time_point g_last_progress{};

// Text routine: one progress line of the engine to standard error.
extern "C" void Progress(const char* text, int32_t* length, int64_t*, int64_t text_length) {
  int64_t n = text_length;
  if (length != nullptr && *length < n) n = *length;
  if (text == nullptr || n <= 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (g_last_progress != std::chrono::steady_clock::time_point{} &&
      now - g_last_progress < kProgressInterval)
    return;
  g_last_progress = now;
  // The engine sends at most the last 16 characters of a line; a line of
  // that length was probably cut at its front.
  std::fprintf(stderr, "tq: progress: %s%.*s\n", n >= kProgressWidth ? "..." : "", static_cast<int>(n), text);
  std::fflush(stderr);
}

extern "C" void Silent(const char*, int32_t*, int64_t*, int64_t) {}

enum class Method { kExact = 1, kMonteCarlo = 2, kAsymptotic = 3 };
enum class Output { kReport, kJson, kRecord };

// Everything the command line said, before it is checked against the
// procedure.
struct Options {
  std::optional<std::string> test;
  std::optional<int64_t> procedure;
  std::optional<std::string> table, table_file, values, weights, scores, row_scores;
  std::optional<int64_t> case_rows;
  std::optional<double> p0, cut, param1, param2;
  std::optional<std::string> distribution, runs_cut;
  std::optional<Method> method;
  std::optional<int64_t> samples, seed;
  std::optional<double> level;
  int64_t time_limit = 0;
  int64_t memory = kFreeMemory;
  std::string spill;
  std::optional<double> missing;
  Output output = Output::kReport;
  bool quiet = false;
  bool help = false;
};

// The arguments of the call, in the engine's layout.
struct Call {
  std::array<int64_t, TQ_INT_COUNT> ints{};
  std::array<double, TQ_REAL_COUNT> reals{};
  std::vector<int64_t> table{0};
  int64_t rows = 0, cols = 0;
  std::vector<double> row_scores{0.0};
  std::vector<double> scores{0.0};
  std::vector<double> case_data{0.0};
  int64_t case_rows = 0, case_cols = 0;
  std::vector<int64_t> weights{0};
  bool table_form = false;
  std::optional<double> median_cut;  // cut passed to the median test
  bool median_cut_given = false;
};

std::string ProcedureList(const std::vector<Procedure>& table) {
  std::string out;
  for (const Procedure& p : table) {
    char line[256];
    std::snprintf(line, sizeof line, "  %-25s %3" PRId64 "  %s\n", p.name, p.code, p.summary);
    out += line;
  }
  return out;
}

// The text of --help.
std::string HelpText(const std::vector<Procedure>& table) {
  std::string h =
      "usage: tq TEST [options]\n"
      "       tq --procedure CODE [options]\n"
      "\n"
      "Runs one test of the ANVLWTQ engine and reports what it publishes.\n"
      "\n"
      "Tests (name, procedure code):\n";
  h += ProcedureList(table);
  h += R"(
Data (a table, or case data):
  --table "2 1 1; 0 3 2"  counts; rows separated by ';', cells by blanks
                          or commas
  --table-file FILE       counts, one row per line; blank lines and lines
                          starting with # are skipped
  --values "..."          case values; for several rows give --case-rows N
                          (values row by row) or separate rows by ';'
  --weights "..."         whole-number weight of each value column
                          (default 1 each)
  --case-rows N           number of rows of the case data
  --scores "..."          column scores (marginal homogeneity: category
                          scores); default 1, 2, 3, ...
  --row-scores "..."      row scores (linear-by-linear, pearson, spearman);
                          default 1, 2, 3, ...
  Goodness of fit (chisq on case data): --values are the expected counts,
  --weights the observed counts.  friedman, cochran, kendall-w: one row of
  values per treatment or object, one column per block or judge.

Options of one test:
  --p0 P                  binomial: null proportion (default 0.5)
  --cut X                 median: levels whose score is above X count as
                          above (default: the pooled median of the scores)
  --distribution D        ks1: uniform (default), poisson, normal or
                          exponential
  --param1 X --param2 X   ks1: uniform a, b (0, 1); poisson mean (1);
                          normal mean, sd (0, 1); exponential scale (1);
                          0 takes the default
  --runs-cut C            runs: median (default), mode, mean or a number

Method:
  --exact                 exact p-values (default)
  --monte-carlo           Monte Carlo estimates, with
    --samples N           number of tables (default 10000)
    --seed S              first seed (default 2000000)
    --level L             level of the intervals (default 0.99)
  --asymptotic            asymptotic p-values only

Limits:
  --time-limit MINUTES    stop after this time (default 0: no limit)
  --memory KB             memory of the network runs (default -1: take
                          the free memory)
  --spill PATH            spill file of the network runs (default: a
                          private temporary file, deleted at the end)

Output:
  --json                  one JSON object
  --record                the raw record: 50 lines 'index value'
  --missing X             filler of unpublished record fields (default
                          nan); fields equal to it are not reported
  --quiet                 no progress lines on standard error (otherwise
                          at most one a second)

Ctrl-C asks the engine to stop the run.  Exit status: 0 success, 1 the
engine reported a failure, 2 a usage error.
)";
  return h;
}

const Procedure* FindByName(const std::vector<Procedure>& table, const std::string& name) {
  for (const Procedure& p : table)
    if (name == p.name) return &p;
  return nullptr;
}

const Procedure* FindByCode(const std::vector<Procedure>& table, int64_t code) {
  for (const Procedure& p : table)
    if (code == p.code) return &p;
  return nullptr;
}

// Reads the command line.  Options take their value as the next argument
// or after '='; the one argument that isn't an option names the test.
Options ParseArguments(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() < 2 || arg[0] != '-' || arg[1] != '-') {
      if (arg == "-h") {
        o.help = true;
        continue;
      }
      if (!arg.empty() && arg[0] == '-') Fail("unknown option '" + arg + "' (see tq --help)");
      if (o.test) Fail("more than one test named: '" + *o.test + "' and '" + arg + "'");
      o.test = arg;
      continue;
    }
    std::optional<std::string> inline_value;
    const size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      inline_value = arg.substr(eq + 1);
      arg.resize(eq);
    }
    auto flag = [&]() {
      if (inline_value) Fail(arg + " takes no value");
    };
    auto value = [&]() -> std::string {
      if (inline_value) return *inline_value;
      if (i + 1 >= argc) Fail(arg + " needs a value");
      return argv[++i];
    };
    auto integer = [&]() { return ParseInteger(value(), arg); };
    auto real = [&]() { return ParseReal(value(), arg); };
    auto method = [&](Method m) {
      flag();
      if (o.method && *o.method != m) Fail("choose one of --exact, --monte-carlo and --asymptotic");
      o.method = m;
    };
    if (arg == "--help") {
      flag();
      o.help = true;
    } else if (arg == "--procedure") {
      o.procedure = integer();
    } else if (arg == "--table") {
      o.table = value();
    } else if (arg == "--table-file") {
      o.table_file = value();
    } else if (arg == "--values") {
      o.values = value();
    } else if (arg == "--weights") {
      o.weights = value();
    } else if (arg == "--case-rows") {
      o.case_rows = integer();
      if (*o.case_rows < 1) Fail("--case-rows must be at least 1");
    } else if (arg == "--scores") {
      o.scores = value();
    } else if (arg == "--row-scores") {
      o.row_scores = value();
    } else if (arg == "--p0") {
      o.p0 = real();
    } else if (arg == "--cut") {
      o.cut = real();
    } else if (arg == "--distribution") {
      o.distribution = value();
    } else if (arg == "--param1") {
      o.param1 = real();
    } else if (arg == "--param2") {
      o.param2 = real();
    } else if (arg == "--runs-cut") {
      o.runs_cut = value();
    } else if (arg == "--exact") {
      method(Method::kExact);
    } else if (arg == "--monte-carlo") {
      method(Method::kMonteCarlo);
    } else if (arg == "--asymptotic") {
      method(Method::kAsymptotic);
    } else if (arg == "--samples") {
      o.samples = integer();
      if (*o.samples < 1) Fail("--samples must be at least 1");
    } else if (arg == "--seed") {
      o.seed = integer();
    } else if (arg == "--level") {
      o.level = real();
      if (!(*o.level > 0.0 && *o.level < 1.0)) Fail("--level must lie between 0 and 1");
    } else if (arg == "--time-limit") {
      o.time_limit = integer();
      if (o.time_limit < 0) Fail("--time-limit can't be negative");
    } else if (arg == "--memory") {
      o.memory = integer();
      if (o.memory < kFreeMemory) Fail("--memory must be -1 (free memory) or a number of kilobytes");
    } else if (arg == "--spill") {
      o.spill = value();
      if (o.spill.size() > kSpillPathMax) Fail("--spill: the path is longer than 255 characters");
    } else if (arg == "--missing") {
      const std::string text = value();
      o.missing = (text == "nan" || text == "NaN") ? std::numeric_limits<double>::quiet_NaN()
                                                   : ParseReal(text, arg);
    } else if (arg == "--json") {
      flag();
      if (o.output == Output::kRecord) Fail("choose one of --json and --record");
      o.output = Output::kJson;
    } else if (arg == "--record") {
      flag();
      if (o.output == Output::kJson) Fail("choose one of --json and --record");
      o.output = Output::kRecord;
    } else if (arg == "--quiet") {
      flag();
      o.quiet = true;
    } else {
      Fail("unknown option '" + arg + "' (see tq --help)");
    }
  }
  return o;
}

// Finds the procedure named by TEST or --procedure.
const Procedure& ResolveProcedure(const std::vector<Procedure>& table, const Options& o) {
  if (o.test && o.procedure) Fail("give either a TEST name or --procedure, not both");
  if (o.test) {
    const Procedure* p = FindByName(table, *o.test);
    if (p == nullptr) Fail("unknown test '" + *o.test + "' (see tq --help)");
    return *p;
  }
  if (o.procedure) {
    const Procedure* p = FindByCode(table, *o.procedure);
    if (p == nullptr) Fail("unknown procedure code " + std::to_string(*o.procedure) + " (see tq --help)");
    return *p;
  }
  Fail("no test named (see tq --help)");
}

// Refuses an option that the procedure has no use for, so that nothing the
// user asked for is silently dropped.
void RefuseForeignOptions(const Procedure& p, const Options& o) {
  auto only = [&](bool given, const char* option, int64_t code, const char* name) {
    if (given && p.code != code) Fail(std::string(option) + " is an option of " + name + ", not of " + p.name);
  };
  only(o.p0.has_value(), "--p0", 9, "binomial");
  only(o.cut.has_value(), "--cut", 31, "median");
  only(o.distribution.has_value(), "--distribution", 6, "ks1");
  only(o.param1.has_value(), "--param1", 6, "ks1");
  only(o.param2.has_value(), "--param2", 6, "ks1");
  only(o.runs_cut.has_value(), "--runs-cut", 11, "runs");
  if (o.scores && p.scores == ScoreLength::kNone) Fail(std::string(p.name) + " takes no --scores");
  if (o.row_scores && !p.row_scores) Fail(std::string(p.name) + " takes no --row-scores");
  if (p.code == 9 && o.method && *o.method != Method::kExact) Fail("binomial has the exact method only");
  const bool mc = o.method && *o.method == Method::kMonteCarlo;
  if (!mc && (o.samples || o.seed || o.level)) Fail("--samples, --seed and --level go with --monte-carlo");
}

// Fills the data arguments of the call: a table, or case data with weights.
void ReadData(const Procedure& p, const Options& o, Call& c) {
  const bool table = o.table || o.table_file;
  const bool cases = o.values.has_value();
  if (o.table && o.table_file) Fail("give either --table or --table-file, not both");
  if (table && cases) Fail("give either a table or --values, not both");
  if (!table && !cases) Fail(std::string(p.name) + " needs data: --table, --table-file or --values");
  if (!cases && (o.weights || o.case_rows)) Fail("--weights and --case-rows go with --values");
  if (table && p.data == Data::kCase) Fail(std::string(p.name) + " takes case data (--values), not a table");
  if (cases && p.data == Data::kTable) Fail(std::string(p.name) + " takes a table (--table or --table-file)");

  if (table) {
    const Grid<int64_t> grid = o.table ? ParseCounts(RowsOfOption(*o.table), "--table")
                                       : ParseCounts(RowsOfFile(*o.table_file), *o.table_file);
    c.table = ColumnMajor(grid);
    c.rows = grid.rows;
    c.cols = grid.cols;
    c.table_form = true;
    return;
  }
  const std::vector<RowText> rows = RowsOfOption(*o.values);
  Grid<double> grid;
  if (rows.size() > 1) {
    grid = ParseReals(rows, "--values");
    if (o.case_rows && *o.case_rows != grid.rows)
      Fail("--values has " + std::to_string(grid.rows) + " rows, --case-rows says " + std::to_string(*o.case_rows));
  } else {
    const std::vector<double> list = ParseRealList(rows.empty() ? std::string() : rows[0].text, "--values");
    const int64_t r = o.case_rows.value_or(1);
    const int64_t n = static_cast<int64_t>(list.size());
    if (n % r != 0)
      Fail("--values: " + std::to_string(n) + " values don't fill " + std::to_string(r) + " rows evenly");
    grid.rows = r;
    grid.cols = n / r;
    grid.cells = list;
  }
  c.case_data = ColumnMajor(grid);
  c.case_rows = grid.rows;
  c.case_cols = grid.cols;
  if (o.weights) {
    c.weights = ParseWeightList(*o.weights, "--weights");
    if (static_cast<int64_t>(c.weights.size()) != c.case_cols)
      Fail("--weights: " + std::to_string(c.weights.size()) + " weights for " + std::to_string(c.case_cols) +
           " value columns");
  } else {
    c.weights.assign(static_cast<size_t>(c.case_cols), 1);
  }
}

// Fills both score vectors: the user's where given (of the length that the
// procedure reads), else 1, 2, 3, ...  Both are kept long enough for any
// procedure so that the engine never reads past them.
void ReadScores(const Procedure& p, const Options& o, Call& c) {
  const int64_t longest = std::max<int64_t>({c.rows, c.cols, 1});
  c.scores.resize(static_cast<size_t>(longest));
  c.row_scores.resize(static_cast<size_t>(longest));
  for (int64_t i = 0; i < longest; ++i) c.scores[i] = c.row_scores[i] = static_cast<double>(i + 1);
  if (o.scores) {
    const std::vector<double> s = ParseRealList(*o.scores, "--scores");
    const bool by_rows = p.scores == ScoreLength::kRows;
    const int64_t want = by_rows ? c.rows : c.cols;
    if (static_cast<int64_t>(s.size()) != want)
      Fail("--scores: " + std::to_string(s.size()) + " scores for " + std::to_string(want) +
           (by_rows ? " rows" : " columns"));
    std::copy(s.begin(), s.end(), c.scores.begin());
  }
  if (o.row_scores) {
    const std::vector<double> s = ParseRealList(*o.row_scores, "--row-scores");
    if (static_cast<int64_t>(s.size()) != c.rows)
      Fail("--row-scores: " + std::to_string(s.size()) + " scores for " + std::to_string(c.rows) + " rows");
    std::copy(s.begin(), s.end(), c.row_scores.begin());
  }
}

// The pooled median of the column scores, each weighted by its column total:
// the default cut of the median test, so that about half the observations
// lie above it.
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
  // The observations of rank (total + 1) / 2 and (total + 2) / 2, from 1.
  auto at = [&](int64_t rank) {
    int64_t seen = 0;
    for (const auto& [score, count] : levels) {
      seen += count;
      if (seen >= rank) return score;
    }
    return levels.back().first;
  };
  return 0.5 * (at((total + 1) / 2) + at((total + 2) / 2));
}

// Fills the parameter blocks from the options.
void FillParameters(const Procedure& p, const Options& o, Call& c) {
  const Method method = o.method.value_or(Method::kExact);
  c.ints[TQ_INT_PROCEDURE] = p.code;
  c.ints[TQ_INT_METHOD] = static_cast<int64_t>(method);
  c.ints[TQ_INT_DATA_FORM] = c.table_form ? 1 : 2;
  c.ints[TQ_INT_MC_SEED] = o.seed.value_or(kDefaultSeed);
  c.ints[TQ_INT_MC_SAMPLES] = o.samples.value_or(kDefaultSamples);
  c.ints[TQ_INT_TIME_LIMIT] = o.time_limit;
  c.ints[TQ_INT_MEMORY] = o.memory;
  c.reals[TQ_REAL_MC_LEVEL] = o.level.value_or(kDefaultLevel);
  c.reals[TQ_REAL_MISSING] = o.missing.value_or(std::numeric_limits<double>::quiet_NaN());

  if (p.code == 9) c.reals[TQ_REAL_P0] = o.p0.value_or(kDefaultP0);

  if (p.code == 31) {
    c.median_cut_given = o.cut.has_value();
    c.median_cut = o.cut ? *o.cut : PooledMedian(c);
    c.ints[TQ_INT_CUT_RULE] = 13;
    c.reals[TQ_REAL_MEDIAN_CUT] = *c.median_cut;
  }

  if (p.code == 6) {
    const std::string d = o.distribution.value_or("uniform");
    if (d == "uniform") {
      c.ints[TQ_INT_MODEL] = 1;
      c.reals[TQ_REAL_PARAM1] = o.param1.value_or(0.0);
      c.reals[TQ_REAL_PARAM2] = o.param2.value_or(0.0);
    } else if (d == "poisson" || d == "exponential" || d == "normal") {
      c.ints[TQ_INT_MODEL] = d == "poisson" ? 3 : d == "normal" ? 4 : 6;
      c.reals[TQ_REAL_PARAM3] = o.param1.value_or(0.0);
      if (d == "normal") {
        c.reals[TQ_REAL_PARAM4] = o.param2.value_or(0.0);
      } else if (o.param2) {
        Fail("--param2: the " + d + " distribution has one parameter");
      }
    } else {
      Fail("--distribution: '" + d + "' is none of uniform, poisson, normal, exponential");
    }
  }

  if (p.code == 11) {
    const std::string r = o.runs_cut.value_or("median");
    if (r == "median") {
      c.ints[TQ_INT_OPTION11] = 1;
    } else if (r == "mode") {
      c.ints[TQ_INT_OPTION11] = 2;
    } else if (r == "mean") {
      c.ints[TQ_INT_OPTION11] = 3;
    } else {
      c.ints[TQ_INT_OPTION11] = 13;
      c.reals[TQ_REAL_OPTION11] = ParseReal(r, "--runs-cut (median, mode, mean or a number)");
    }
  }
}

// What a failure code means, for the report.
std::string FailureText(int64_t code) {
  static constexpr struct {
    int64_t code;
    const char* text;
  } kTexts[] = {
      {-1, "no memory or no room: an allocation was refused, a store is full, a total is negative, "
           "or a row or column is empty"},
      {-2, "the grid of the two-sample Kolmogorov-Smirnov test is full"},
      {-3, "a parameter or a data value outside the hypothesised distribution"},
      {-4, "nothing to test: fewer than two non-empty columns, no non-zero difference, or no usable "
           "pair of categories"},
      {-6, "the run was stopped"},
      {-7, "the time limit was reached"},
      {-8, "a hash position or a stage index out of range"},
      {-9, "the spill file can't be created"},
      {-10, "writing or positioning the spill file failed"},
      {-11, "reading or positioning the spill file failed"},
      {-14, "a data value below the support of the hypothesised distribution"},
      {-15, "a data value isn't a whole number, as the discrete distribution needs"},
      {-16, "the table is smaller than 2 x 2"},
      {-26, "the score rule isn't defined for one sample"},
      {-32, "median test: nothing above the cut, or nothing at or below it"},
      {-33, "Kruskal-Wallis test: fewer than two observations, or no variance"},
      {-35, "more distinct values than the test allows (binomial: two; Cochran's Q: 0 and 1)"},
      {-43, "binomial test: the case data must have one row"},
      {-190, "runs test: all values on one side of the cut"},
      {-302, "goodness of fit: an expected count at or below 0, or expected counts that don't add up to "
             "the total"},
      {-308, "binomial test: the null proportion is outside (0, 1)"},
      {-309, "binomial test: no trials"},
      {-1001, "runs test: sizes negative or too large"},
      {-1002, "runs test: the memory budget is below what the run needs"},
      {-1003, "runs test: a negative count"},
      {-1004, "runs test: no prime in range for the slots"},
      {-1005, "runs test: a past value overflows"},
      {-1006, "runs test: the scan passes the end of the table"},
      {-1007, "runs test: no free slot"},
      {-1008, "runs test: the totals overflow (case form)"},
      {-10010, "runs test: the totals overflow (unit sequence)"},
      {-10011, "runs test: the totals overflow (table form)"},
      {4, "two-sample Kolmogorov-Smirnov test: fewer than two non-empty levels"},
      {5, "two-sample Kolmogorov-Smirnov test: an entry number out of range"},
      {6, "the memory budget leaves too few nodes"},
      {88, "the table isn't square"},
      {108, "a score rule outside the table of the score tests"},
      {116, "the case data must have one row"},
      {151, "an empty table, fewer than two rows or columns left, or data in the wrong form"},
      {216, "the procedure doesn't take a table of this shape"},
      {901, "a table with one row or column, fewer than two categories, or no count at all"},
      {902, "two-sample Kolmogorov-Smirnov test: the first sample is empty"},
  };
  for (const auto& t : kTexts)
    if (t.code == code) return t.text;
  if (code > 0) return "the allocator reported status " + std::to_string(code);
  return "failure code " + std::to_string(code);
}

struct Outcome {
  bool ok = false;
  bool stopped = false;  // stopped by Ctrl-C
  double value = 0.0;    // field 48
  int64_t code = 0;      // engine failure code, value + 1000
  std::string message;
};

// Reads field 48.  -1003.0 is both an unknown or unbuilt procedure and
// failure code -3; only procedures 6 and 11 know -3, and a refused code
// leaves the elapsed time at zero.
Outcome ReadOutcome(const Procedure& p, const std::array<double, TQ_RECORD_LENGTH>& record) {
  Outcome out;
  out.value = record[TQ_REC_FAILURE];
  if (out.value == 0.0) {
    out.ok = true;
    return out;
  }
  if (!std::isfinite(out.value)) {
    out.message = "the engine left no result";
    return out;
  }
  out.code = std::llround(out.value + kFailureOffset);
  const bool no_time = record[TQ_REC_HOURS] == 0.0 && record[TQ_REC_MINUTES] == 0.0 &&
                       record[TQ_REC_SECONDS] == 0.0;
  const char* kUnavailable = "unknown procedure, or one not available in this build of the engine";
  const std::string own_minus_3 = p.code == 6 ? FailureText(-3) : "a cut kind the runs test doesn't know";
  if (out.code == -3 && p.code != 6 && p.code != 11) {
    out.message = kUnavailable;
  } else if (out.code == -3) {
    out.message = no_time ? std::string(kUnavailable) + "; or " + own_minus_3 : own_minus_3;
  } else if (out.code == -6 && g_interrupted) {
    out.stopped = true;
    out.message = "the run was stopped by Ctrl-C";
  } else {
    out.message = FailureText(out.code);
  }
  return out;
}

bool IsMissing(double value, double missing) {
  return std::isnan(missing) ? std::isnan(value) : value == missing;
}

// Formats a number for the report: whole numbers of Kind::kCount as such,
// everything else with six significant digits.
std::string Number(double v, Kind kind) {
  char buf[64];
  if (kind == Kind::kCount && std::fabs(v) < 1e15 && v == std::floor(v))
    std::snprintf(buf, sizeof buf, "%.0f", v);
  else
    std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

// Formats a number for JSON: the shortest of 15 to 17 digits that reads
// back as the same double, and null where JSON has no number.
std::string JsonNumber(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[64];
  for (int digits = 15; digits <= 17; ++digits) {
    std::snprintf(buf, sizeof buf, "%.*g", digits, v);
    if (std::strtod(buf, nullptr) == v) break;
  }
  return buf;
}

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (char ch : s) {
    if (ch == '"' || ch == '\\') {
      out += '\\';
      out += ch;
    } else if (static_cast<unsigned char>(ch) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", ch);
      out += buf;
    } else {
      out += ch;
    }
  }
  return out + "\"";
}

std::string SideText(double side) {
  if (side == 1.0) return "lower tail (statistic not above its mean)";
  if (side == 2.0) return "upper tail (statistic above its mean)";
  return Number(side, Kind::kValue);
}

const char* MethodName(Method m) {
  switch (m) {
    case Method::kExact: return "exact";
    case Method::kMonteCarlo: return "monte-carlo";
    case Method::kAsymptotic: return "asymptotic";
  }
  return "";
}

double ElapsedSeconds(const std::array<double, TQ_RECORD_LENGTH>& r) {
  return r[TQ_REC_HOURS] * 3600.0 + r[TQ_REC_MINUTES] * 60.0 + r[TQ_REC_SECONDS];
}

std::string ElapsedText(const std::array<double, TQ_RECORD_LENGTH>& r) {
  char buf[96];
  if (r[TQ_REC_HOURS] > 0.0)
    std::snprintf(buf, sizeof buf, "%.0f h %.0f min %.2f s", r[TQ_REC_HOURS], r[TQ_REC_MINUTES], r[TQ_REC_SECONDS]);
  else if (r[TQ_REC_MINUTES] > 0.0)
    std::snprintf(buf, sizeof buf, "%.0f min %.2f s", r[TQ_REC_MINUTES], r[TQ_REC_SECONDS]);
  else
    std::snprintf(buf, sizeof buf, "%.2f s", r[TQ_REC_SECONDS]);
  return buf;
}

// The fields to report: the procedure's table, with field 3 of the
// Mann-Whitney form read as a standard deviation when the data hold one
// sample (no U is formed then).
std::vector<Field> ReportedFields(const Procedure& p, const Call& c) {
  std::vector<Field> out = p.fields;
  if (p.code == 502 && c.rows != 2)
    for (Field& f : out)
      if (f.index == 3) f = fields::kSd;
  return out;
}

std::string DataText(const Call& c) {
  char buf[160];
  if (c.table_form) {
    int64_t total = 0;
    for (int64_t v : c.table) total += v;
    std::snprintf(buf, sizeof buf, "%" PRId64 " x %" PRId64 " table, total %" PRId64, c.rows, c.cols, total);
  } else {
    int64_t total = 0;
    for (int64_t w : c.weights) total += w;
    std::snprintf(buf, sizeof buf, "%" PRId64 " x %" PRId64 " case values, total weight %" PRId64, c.case_rows,
                  c.case_cols, total);
  }
  return buf;
}

void PrintLine(const std::string& label, const std::string& value) {
  std::printf("  %-*s %s\n", kLabelWidth, label.c_str(), value.c_str());
}

// The readable report.
void PrintReport(const Procedure& p, Method method, const Call& c, double level,
                 const std::array<double, TQ_RECORD_LENGTH>& r, const Outcome& outcome) {
  std::printf("%s (%s, procedure %" PRId64 "), %s\n", p.title, p.name, p.code, MethodName(method));
  PrintLine("data", DataText(c));
  if (c.median_cut)
    PrintLine("cut point", Number(*c.median_cut, Kind::kValue) + (c.median_cut_given ? "" : " (pooled median)"));
  if (!outcome.ok) {
    char buf[64];
    std::snprintf(buf, sizeof buf, " (code %" PRId64 ", field 48 = %.1f)", outcome.code, outcome.value);
    std::printf("%s: %s%s\n", outcome.stopped ? "stopped" : "failed", outcome.message.c_str(), buf);
    PrintLine("elapsed time", ElapsedText(r));
    return;
  }
  const double missing = c.reals[TQ_REAL_MISSING];
  int shown = 0;
  for (const Field& f : ReportedFields(p, c)) {
    const double v = r[f.index];
    if (IsMissing(v, missing)) continue;
    ++shown;
    std::string text;
    if (f.kind == Kind::kSide) {
      text = SideText(v);
    } else if (f.kind == Kind::kMc) {
      text = Number(v, Kind::kP);
      const double lo = r[f.index + 1], hi = r[f.index + 2];
      if (!IsMissing(lo, missing) && !IsMissing(hi, missing)) {
        char buf[128];
        std::snprintf(buf, sizeof buf, "  (%g%% interval %s .. %s)", level * 100.0, Number(lo, Kind::kP).c_str(),
                      Number(hi, Kind::kP).c_str());
        text += buf;
      }
    } else {
      text = Number(v, f.kind);
    }
    PrintLine(f.label, text);
  }
  if (shown == 0) std::printf("  (the run published no results for these data)\n");
  PrintLine("elapsed time", ElapsedText(r));
}

// The same as one JSON object.
void PrintJson(const Procedure& p, Method method, const Call& c, double level,
               const std::array<double, TQ_RECORD_LENGTH>& r, const Outcome& outcome) {
  std::string j = "{";
  j += "\"test\": " + JsonString(p.name);
  j += ", \"procedure\": " + std::to_string(p.code);
  j += ", \"method\": " + JsonString(MethodName(method));
  j += ", \"status\": " + JsonString(outcome.ok ? "ok" : outcome.stopped ? "stopped" : "failed");
  if (c.table_form) {
    j += ", \"rows\": " + std::to_string(c.rows) + ", \"cols\": " + std::to_string(c.cols);
  } else {
    j += ", \"case_rows\": " + std::to_string(c.case_rows) + ", \"case_cols\": " + std::to_string(c.case_cols);
  }
  if (c.median_cut) j += ", \"cut\": " + JsonNumber(*c.median_cut);
  if (method == Method::kMonteCarlo) j += ", \"level\": " + JsonNumber(level);
  if (!outcome.ok) {
    j += ", \"failure_value\": " + JsonNumber(outcome.value);
    j += ", \"failure_code\": " + std::to_string(outcome.code);
    j += ", \"failure\": " + JsonString(outcome.message);
  }
  j += ", \"results\": {";
  if (outcome.ok) {
    const double missing = c.reals[TQ_REAL_MISSING];
    bool first = true;
    auto add = [&](const std::string& key, double v) {
      j += (first ? "" : ", ") + JsonString(key) + ": " + JsonNumber(v);
      first = false;
    };
    for (const Field& f : ReportedFields(p, c)) {
      const double v = r[f.index];
      if (IsMissing(v, missing)) continue;
      add(f.key, v);
      if (f.kind == Kind::kMc) {
        if (!IsMissing(r[f.index + 1], missing)) add(std::string(f.key) + "_lower", r[f.index + 1]);
        if (!IsMissing(r[f.index + 2], missing)) add(std::string(f.key) + "_upper", r[f.index + 2]);
      }
    }
  }
  j += "}";
  j += ", \"elapsed_seconds\": " + JsonNumber(ElapsedSeconds(r));
  j += "}\n";
  std::fputs(j.c_str(), stdout);
}

void PrintRecord(const std::array<double, TQ_RECORD_LENGTH>& r) {
  for (int i = 0; i < TQ_RECORD_LENGTH; ++i) std::printf("%d %.17g\n", i, r[i]);
}

// Ctrl-C sets the flag that the poll routine hands to the engine; a second
// Ctrl-C ends tq at once.
void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
}

int Run(int argc, char** argv) {
  const std::vector<Procedure> table = ProcedureTable();
  const Options o = ParseArguments(argc, argv);
  if (o.help) {
    std::fputs(HelpText(table).c_str(), stdout);
    return kExitSuccess;
  }
  const Procedure& p = ResolveProcedure(table, o);
  RefuseForeignOptions(p, o);
  Call c;
  ReadData(p, o, c);
  ReadScores(p, o, c);
  FillParameters(p, o, c);

  std::array<double, TQ_RECORD_LENGTH> record{};
  InstallInterruptHandler();
  TQCALLER(Poll, o.quiet ? Silent : Progress, c.ints.data(), c.reals.data(), c.table.data(), c.rows, c.cols,
           c.row_scores.data(), c.scores.data(), c.case_data.data(), c.case_cols, c.case_rows, c.weights.data(),
           record.data(), o.spill.c_str());
  signal(SIGINT, SIG_DFL);

  const Outcome outcome = ReadOutcome(p, record);
  const Method method = o.method.value_or(Method::kExact);
  const double level = c.reals[TQ_REAL_MC_LEVEL];
  switch (o.output) {
    case Output::kReport: PrintReport(p, method, c, level, record, outcome); break;
    case Output::kJson: PrintJson(p, method, c, level, record, outcome); break;
    case Output::kRecord: PrintRecord(record); break;
  }
  std::fflush(stdout);
  return outcome.ok ? kExitSuccess : kExitEngineFailure;
}

}  // namespace
}  // namespace tq

int main(int argc, char** argv) {
  try {
    return tq::Run(argc, argv);
  } catch (const tq::UsageError& e) {
    std::fprintf(stderr, "tq: %s\n", e.message.c_str());
    return tq::kExitUsage;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "tq: out of memory\n");
    return tq::kExitUsage;
  }
}
