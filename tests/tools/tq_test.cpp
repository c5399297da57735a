// Tests of the tq host, run as a program: exit status, report, JSON and raw
// record, and the refusal of bad input.  The reading of the data is also
// tested directly through its header.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../../include/anvlwtq.h"
#include "../../tools/tq_input.h"

namespace {

struct Result {
  int status = -1;  // exit status, or -1 when tq didn't exit normally
  std::string out;
  std::string err;
};

// Runs tq with the arguments, its two streams sent to temporary files.
Result RunTq(const std::vector<std::string>& args) {
  std::string names[2] = {::testing::TempDir() + "tq_out_XXXXXX",
                          ::testing::TempDir() + "tq_err_XXXXXX"};
  const int fds[2] = {mkstemp(names[0].data()), mkstemp(names[1].data())};
  Result r;
  if (fds[0] >= 0 && fds[1] >= 0) {
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[0], 1);
      dup2(fds[1], 2);
      std::vector<char*> argv = {const_cast<char*>(TQ_BINARY)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(TQ_BINARY, argv.data());
      _exit(127);
    }
    int wstatus = 0;
    if (pid > 0 && waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus))
      r.status = WEXITSTATUS(wstatus);
  }
  std::string* sinks[2] = {&r.out, &r.err};
  for (int k = 0; k < 2; ++k) {
    std::ifstream in(names[k], std::ios::binary);
    sinks[k]->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (fds[k] >= 0) close(fds[k]);
    unlink(names[k].c_str());
  }
  return r;
}

std::string Joined(const std::vector<std::string>& args) {
  std::string s = "tq";
  for (const std::string& a : args) s += " '" + a + "'";
  return s;
}

// The arguments with one more appended.
std::vector<std::string> With(std::vector<std::string> args, const std::string& more) {
  args.push_back(more);
  return args;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The value after the label of a report line, or nullopt.
std::optional<std::string> ReportValue(const std::string& report, const std::string& label) {
  for (const std::string& line : Lines(report)) {
    if (line.rfind("  " + label + " ", 0) != 0) continue;
    const size_t start = line.find_first_not_of(' ', label.size() + 2);
    if (start != std::string::npos) return line.substr(start);
  }
  return std::nullopt;
}

// A small JSON reader, enough for tq's one object: objects, strings,
// numbers and null (tq writes no arrays and no booleans).
struct Json {
  enum Type { kNull, kNumber, kString, kObject } type = kNull;
  double number = 0.0;
  std::string string;
  std::map<std::string, Json> object;
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : s_(text) {}

  // The whole text as one value; nullopt when it isn't exactly one value,
  // or an object repeats a key.
  std::optional<Json> Document() {
    std::optional<Json> v = Value();
    Space();
    return v && pos_ == s_.size() ? v : std::nullopt;
  }

 private:
  void Space() {
    while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
  }
  bool Eat(char c) {
    Space();
    if (pos_ >= s_.size() || s_[pos_] != c) return false;
    ++pos_;
    return true;
  }
  bool Word(const std::string& w) {
    if (s_.compare(pos_, w.size(), w) != 0) return false;
    pos_ += w.size();
    return true;
  }
  std::optional<std::string> String() {
    if (!Eat('"')) return std::nullopt;
    std::string out;
    while (pos_ < s_.size() && s_[pos_] != '"') {
      char c = s_[pos_++];
      if (c == '\\') {
        if (pos_ >= s_.size()) return std::nullopt;
        c = s_[pos_++];
        if (c == 'u') {
          if (pos_ + 4 > s_.size()) return std::nullopt;
          c = static_cast<char>(std::stoi(s_.substr(pos_, 4), nullptr, 16));
          pos_ += 4;
        }
      }
      out += c;
    }
    if (!Eat('"')) return std::nullopt;
    return out;
  }
  std::optional<Json> Value() {
    Json v;
    if (Eat('{')) {
      v.type = Json::kObject;
      if (Eat('}')) return v;
      do {
        std::optional<std::string> key = String();
        std::optional<Json> item = key && Eat(':') ? Value() : std::nullopt;
        if (!item || !v.object.emplace(*key, *item).second) return std::nullopt;
      } while (Eat(','));
      return Eat('}') ? std::optional<Json>(v) : std::nullopt;
    }
    if (pos_ < s_.size() && s_[pos_] == '"') {
      std::optional<std::string> str = String();
      if (!str) return std::nullopt;
      v.type = Json::kString;
      v.string = *str;
    } else if (!Word("null")) {
      char* end = nullptr;
      v.number = std::strtod(s_.c_str() + pos_, &end);
      if (end == s_.c_str() + pos_) return std::nullopt;
      pos_ = static_cast<size_t>(end - s_.c_str());
      v.type = Json::kNumber;
    }
    return v;
  }

  const std::string& s_;
  size_t pos_ = 0;
};

std::optional<double> NumberAt(const Json& object, const std::string& key) {
  auto it = object.object.find(key);
  if (it == object.object.end() || it->second.type != Json::kNumber) return std::nullopt;
  return it->second.number;
}

// The raw record of --record: 50 lines "index value".
std::vector<double> ParseRecord(const std::string& out) {
  std::vector<double> values;
  const std::vector<std::string> lines = Lines(out);
  for (size_t i = 0; i < lines.size(); ++i) {
    std::istringstream in(lines[i]);
    size_t index = 0;
    std::string value;
    if (!(in >> index >> value) || index != i) return {};
    values.push_back(std::strtod(value.c_str(), nullptr));
  }
  return values;
}

// Exact binomial tail and point probability by summing the probability
// function in long double: the reference for the binomial test.
struct BinomialReference {
  long double one_sided, two_sided, point;
  int side;
};

BinomialReference Binomial(int x, int n, long double p0) {
  auto pmf = [&](int k) {
    return std::exp(std::lgamma(n + 1.0L) - std::lgamma(k + 1.0L) - std::lgamma(n - k + 1.0L) +
                    k * std::log(p0) + (n - k) * std::log1p(-p0));
  };
  const bool symmetric = std::fabs(p0 - 0.5L) <= 1e-6L;
  const bool lower = symmetric ? n >= 2 * x : p0 >= static_cast<long double>(x) / n;
  long double tail = 0.0L;
  for (int k = lower ? 0 : x; k <= (lower ? x : n); ++k) tail += pmf(k);
  // The one-sided value is the tail on the side of the observation; the
  // two-sided value doubles it.  Only the upper tail of an asymmetric null
  // reports the upper side.
  return {tail, std::min(1.0L, 2.0L * tail), pmf(x), (!symmetric && !lower) ? 2 : 1};
}

void ExpectNear(double actual, long double expected, double rel, const std::string& what) {
  EXPECT_NEAR(actual, static_cast<double>(expected),
              rel * std::fabs(static_cast<double>(expected)) + 1e-300)
      << what;
}

TEST(TqBinomial, ReportAndJsonMatchDirectSum) {
  struct Case {
    const char *values, *weights, *p0;
    int successes, trials;
    const char* source;
  };
  const Case cases[] = {
      {"1 0", "7 5", "0.3", 7, 12, "hand: upper tail, asymmetric null"},
      {"1 0", "3 9", "0.5", 3, 12, "hand: symmetric null, lower tail doubled"},
      {"1 0", "9 3", "0.5", 9, 12, "hand: symmetric null, upper tail reported on side 1"},
      {"0 1", "5 7", "0.6", 7, 12, "hand: the larger value counts successes; p0 above x/n, lower tail"},
      {"2 2 5", "3 4 5", "0.25", 5, 12, "hand: two columns of the first value add up"},
  };
  for (const Case& c : cases) {
    const std::vector<std::string> base = {"binomial", "--values", c.values, "--weights", c.weights,
                                           "--p0", c.p0};
    const std::string where = Joined(base) + "  [" + c.source + "]";
    const BinomialReference ref = Binomial(c.successes, c.trials, std::strtold(c.p0, nullptr));
    const Result report = RunTq(base), json = RunTq(With(base, "--json"));
    ASSERT_EQ(report.status, 0) << where << "\n" << report.out << report.err;
    ASSERT_EQ(json.status, 0) << where << " --json\n" << json.err;
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 1) << where;
    const std::optional<Json> doc = JsonReader(json.out).Document();
    ASSERT_TRUE(doc && doc->type == Json::kObject) << where << "\n" << json.out;
    EXPECT_EQ(doc->object.at("status").string, "ok") << where;
    EXPECT_EQ(NumberAt(*doc, "procedure"), 9.0) << where;
    const Json& res = doc->object.at("results");
    EXPECT_EQ(ReportValue(report.out, "successes"), std::to_string(c.successes)) << where;
    EXPECT_EQ(ReportValue(report.out, "trials"), std::to_string(c.trials)) << where;
    EXPECT_EQ(NumberAt(res, "successes"), c.successes) << where;
    EXPECT_EQ(NumberAt(res, "trials"), c.trials) << where;
    EXPECT_EQ(NumberAt(res, "side"), ref.side) << where;
    ExpectNear(NumberAt(res, "proportion").value_or(-1),
               static_cast<long double>(c.successes) / c.trials, 1e-15, where);
    // Each p-value in the report (to 5e-6) and in the JSON (to 1e-12).
    const struct {
      const char *label, *key;
      long double expected;
    } ps[] = {{"exact one-sided p-value", "exact_one_sided", ref.one_sided},
              {"exact two-sided p-value", "exact_two_sided", ref.two_sided},
              {"point probability", "point_probability", ref.point}};
    for (const auto& q : ps) {
      const std::optional<std::string> text = ReportValue(report.out, q.label);
      ExpectNear(text ? std::strtod(text->c_str(), nullptr) : -1.0, q.expected, 5e-6,
                 where + " " + q.label);
      ExpectNear(NumberAt(res, q.key).value_or(-1), q.expected, 1e-12, where + " " + q.key);
    }
    // Only published fields appear: the binomial test has no asymptotic p.
    EXPECT_EQ(res.object.count("asymptotic_two_sided"), 0u) << where;
  }
}

TEST(TqBinomial, RecordHasFiftyFieldsAndTheFiller) {
  const std::vector<std::string> base = {"binomial", "--values", "1 0", "--weights", "7 5"};
  const Result r = RunTq(With(base, "--record"));
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<double> rec = ParseRecord(r.out);
  ASSERT_EQ(rec.size(), 50u) << r.out;
  EXPECT_EQ(rec[TQ_REC_STATISTIC], 7.0);
  EXPECT_EQ(rec[TQ_REC_TOTAL], 12.0);
  EXPECT_EQ(rec[TQ_REC_FAILURE], 0.0);
  EXPECT_TRUE(std::isnan(rec[2])) << "default filler is NaN";

  const std::vector<std::string> filled = With(With(base, "--missing"), "-99");
  const std::vector<double> rec2 = ParseRecord(RunTq(With(filled, "--record")).out);
  ASSERT_EQ(rec2.size(), 50u);
  EXPECT_EQ(rec2[2], -99.0);
  EXPECT_EQ(rec2[TQ_REC_STATISTIC], 7.0);
  // The report leaves out what equals the filler, and nothing else.
  const Result report = RunTq(filled);
  EXPECT_FALSE(ReportValue(report.out, "mean under the null hypothesis"));
  EXPECT_EQ(ReportValue(report.out, "successes"), "7");
}

TEST(TqEngineFailure, ReportedInWordsWithExitOne) {
  struct Case {
    std::vector<std::string> args;
    int code;
    const char* words;
  } cases[] = {
      {{"binomial", "--values", "1 0", "--weights", "7 5", "--p0", "1.5"}, -308, "null proportion"},
      {{"binomial", "--values", "1 0 2"}, -35, "more distinct values"},
      {{"binomial", "--values", "1 0", "--weights", "0 0"}, -309, "no trials"},
      {{"binomial", "--values", "1 0; 1 0"}, -43, "one row"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Joined(c.args));
    const Result r = RunTq(c.args);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("failed: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(c.words), std::string::npos) << r.out;
    const std::optional<Json> doc = JsonReader(RunTq(With(c.args, "--json")).out).Document();
    ASSERT_TRUE(doc) << "--json";
    EXPECT_EQ(doc->object.at("status").string, "failed");
    EXPECT_EQ(NumberAt(*doc, "failure_code"), c.code);
    EXPECT_EQ(NumberAt(*doc, "failure_value"), c.code - 1000.0);
    EXPECT_TRUE(doc->object.at("results").object.empty());
  }
}

TEST(TqUsage, BadInputGivesOneLineAndExitTwo) {
  const std::vector<std::vector<std::string>> cases = {
      {"binomial", "--values", "1 0", "--weights", "7 x"},
      {"binomial", "--values", "1 0", "--weights", "7 5", "--frobnicate"},
      {"chisq", "--table", "1 2; 3"}, {"chisq", "--table", "1 2; 3 a"},
      {"chisq", "--table", "1 -2; 3 4"}, {"chisq", "--table", "1,,2; 3,4,5"},
      {"chisq", "--table", "99999999999999999999 1; 2 3"}, {"binomal", "--values", "1 0"},
      {"binomial", "--values", "1 0", "--p0"},
      {"binomial", "--values", "1 0", "--weights", "1 2 3"},
      {"binomial", "--values", "1 0", "--case-rows", "3"}, {"binomial"},
      {"binomial", "--table", "1 2; 3 4"}, {"fisher", "--values", "1 2"},
      {"chisq", "--table", "1 2; 3 4", "--p0", "0.2"},
      {"binomial", "--procedure", "9", "--values", "1 0"}, {"--procedure", "52", "--values", "1 0"},
      {"binomial", "--values", "1 0", "--samples", "10"},
      {"binomial", "--values", "1 0", "--monte-carlo", "--level", "1.5"},
      {"binomial", "--values", "1 0", "--exact", "--asymptotic"},
      {"binomial", "--values", "1 0", "--spill", std::string(300, 'a')},
      {"fisher", "--table-file", "/nonexistent/table.txt"},
      {"ks1", "--values", "0.1 0.5", "--distribution", "cauchy"},
      {"ks1", "--values", "0.1 0.5", "--distribution", "poisson", "--param2", "2"},
      {"wilcoxon", "--table", "1 2 3; 4 5 6", "--scores", "1 2"},
      {"binomial", "--values", "1 0", "--json", "--record"}, {},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(Joined(args));
    const Result r = RunTq(args);
    EXPECT_EQ(r.status, 2) << r.out << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_EQ(r.err.rfind("tq: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

// Every procedure code of the public header with its name on the command
// line, and data it takes.
struct ProcedureCase {
  int code;
  const char* name;
  std::vector<std::string> data;
};

const std::vector<std::string> kSquare = {"--table", "2 1 1; 0 3 2; 1 0 4"};
const std::vector<std::string> kTwoRows = {"--table", "2 1 1; 0 3 2"};
const std::vector<std::string> kBlocks = {"--values", "1 2 3 4; 2 1 4 3; 3 3 1 2"};

const std::vector<ProcedureCase> kProcedures = {
    {TQ_PROC_SCORES_EQUAL, "scores", kTwoRows}, {TQ_PROC_WILCOXON, "wilcoxon", kTwoRows},
    {TQ_PROC_MANN_WHITNEY, "mann-whitney", kTwoRows},
    {TQ_PROC_KS_ONE_SAMPLE, "ks1", {"--values", "0.1 0.4 0.7 0.9"}},
    {TQ_PROC_CHISQ, "chisq", kSquare}, {TQ_PROC_CHISQ_SHORT, "chisq-short", kSquare},
    {TQ_PROC_MEDIAN, "median", kTwoRows}, {TQ_PROC_NOMINAL, "nominal", kSquare},
    {TQ_PROC_BINOMIAL, "binomial", {"--values", "1 0", "--weights", "7 5"}},
    {TQ_PROC_MARGINAL_HOMOG, "marginal-homogeneity", kSquare},
    {TQ_PROC_MARGINAL_HOMOG_LONG, "marginal-homogeneity-long", kSquare},
    {TQ_PROC_RUNS, "runs", {"--values", "3 1 4 1 5 9 2 6"}},
    {TQ_PROC_WALD_WOLFOWITZ, "wald-wolfowitz", kTwoRows}, {TQ_PROC_KS_TWO_SAMPLE, "ks2", kTwoRows},
    {TQ_PROC_JONCKHEERE, "jonckheere", kSquare},
    {TQ_PROC_KRUSKAL_WALLIS, "kruskal-wallis", kSquare}, {TQ_PROC_FRIEDMAN, "friedman", kBlocks},
    {TQ_PROC_COCHRAN_Q, "cochran", {"--values", "1 0 1 1; 0 0 1 0; 1 1 1 0"}},
    {TQ_PROC_KENDALL_W, "kendall-w", kBlocks}, {TQ_PROC_FISHER, "fisher", kSquare},
    {TQ_PROC_LIKELIHOOD_RATIO, "likelihood-ratio", kSquare},
    {TQ_PROC_UNCERTAINTY, "uncertainty", kSquare},
    {TQ_PROC_LINEAR_BY_LINEAR, "linear-by-linear", kSquare},
    {TQ_PROC_PEARSON_R, "pearson", kSquare}, {TQ_PROC_SPEARMAN, "spearman", kSquare},
    {TQ_PROC_KAPPA, "kappa", kSquare}, {TQ_PROC_GK_TAU, "gk-tau", kSquare},
    {TQ_PROC_KENDALL_TAU, "kendall", kSquare}, {TQ_PROC_GAMMA, "gamma", kSquare},
};

TEST(TqProcedures, HelpListsEveryName) {
  ASSERT_EQ(kProcedures.size(), 29u);
  const Result r = RunTq({"--help"});
  ASSERT_EQ(r.status, 0);
  for (const ProcedureCase& p : kProcedures) {
    bool found = false;
    for (const std::string& line : Lines(r.out)) {
      std::istringstream in(line);
      std::string name;
      int code = 0;
      found = found || (in >> name >> code && name == p.name && code == p.code);
    }
    EXPECT_TRUE(found) << p.name << " " << p.code << " missing from --help";
  }
}

// Each procedure runs from its name and from its code with the same record
// (but for the elapsed time); a failure, such as a test not yet in the
// engine, is reported in words with exit status 1, never a crash.
TEST(TqProcedures, NameAndCodeGiveTheSameRecord) {
  for (const ProcedureCase& p : kProcedures) {
    std::vector<std::string> by_name = {p.name}, by_code = {"--procedure", std::to_string(p.code)};
    by_name.insert(by_name.end(), p.data.begin(), p.data.end());
    by_code.insert(by_code.end(), p.data.begin(), p.data.end());
    SCOPED_TRACE(Joined(by_name) + " / " + Joined(by_code));
    const Result a = RunTq(With(by_name, "--record")), b = RunTq(With(by_code, "--record"));
    ASSERT_TRUE(a.status == 0 || a.status == 1) << a.status << a.err;
    EXPECT_EQ(a.status, b.status);
    const std::vector<double> ra = ParseRecord(a.out), rb = ParseRecord(b.out);
    ASSERT_EQ(ra.size(), 50u) << "by name";
    ASSERT_EQ(rb.size(), 50u) << "by code";
    for (int i = 0; i < 50; ++i) {
      if (i >= TQ_REC_HOURS && i <= TQ_REC_SECONDS) continue;
      if (std::isnan(ra[i])) {
        EXPECT_TRUE(std::isnan(rb[i])) << " field " << i;
      } else {
        EXPECT_EQ(ra[i], rb[i]) << " field " << i;
      }
    }
    EXPECT_EQ(a.status == 0, ra[TQ_REC_FAILURE] == 0.0);

    const Result report = RunTq(With(by_name, "--quiet"));
    EXPECT_EQ(report.status, a.status) << "--quiet";
    if (a.status == 1) {
      EXPECT_NE(report.out.find("failed: "), std::string::npos) << report.out;
      if (ra[TQ_REC_FAILURE] == -1003.0 && p.code != 6 && p.code != 11) {
        EXPECT_NE(report.out.find("not available"), std::string::npos) << report.out;
      }
    }
  }
}

TEST(TqExamples, FilesReadAndMatchPeerValues) {
  // Reference values for the example files, from R 4.2.2.
  struct Case {
    const char *test, *file, *data_line, *key;
    double expected;
    const char* source;
  };
  const Case cases[] = {
      {"fisher", "job_satisfaction.txt", "4 x 4 table, total 96", "exact_two_sided", 0.782684938965639,
       "R: fisher.test(matrix(c(1,2,1,0,3,3,6,1,10,10,14,9,6,7,12,11),4))$p.value"},
      {"fisher", "small_3x3.txt", "3 x 3 table, total 14", "exact_two_sided", 0.154179154179154,
       "R: fisher.test(matrix(c(2,0,1,1,3,0,1,2,4),3))$p.value"},
      {"chisq", "job_satisfaction.txt", "4 x 4 table, total 96", "chi_square", 5.9655145887704,
       "R: chisq.test(matrix(c(1,2,1,0,3,3,6,1,10,10,14,9,6,7,12,11),4))$statistic"},
      {"chisq", "small_3x3.txt", "3 x 3 table, total 14", "chi_square", 7.275,
       "R: chisq.test(matrix(c(2,0,1,1,3,0,1,2,4),3))$statistic"},
  };
  for (const Case& e : cases) {
    const std::vector<std::string> args = {
        e.test, "--table-file", std::string(ANVL_EXAMPLES) + "/" + e.file, "--quiet"};
    SCOPED_TRACE(Joined(args) + " [" + e.source + "]");
    const Result report = RunTq(args), json = RunTq(With(args, "--json"));
    ASSERT_TRUE(report.status == 0 || report.status == 1) << report.err;
    EXPECT_EQ(ReportValue(report.out, "data"), e.data_line);
    const std::optional<Json> doc = JsonReader(json.out).Document();
    ASSERT_TRUE(doc) << "--json\n" << json.out;
    if (json.status == 1 && NumberAt(*doc, "failure_value") == -1003.0) continue;  // not in this engine yet
    ASSERT_EQ(json.status, 0) << "--json\n" << json.out;
    EXPECT_NEAR(NumberAt(doc->object.at("results"), e.key).value_or(-1.0), e.expected,
                1e-9 * e.expected);
  }
}

TEST(TqMedian, DefaultCutIsThePooledMedian) {
  struct Case {
    std::vector<std::string> table_and_more;
    const char* cut;
  } cases[] = {
      {{"1 2 3; 3 2 1"}, "2 (pooled median)"},  // 12 observations: 6th, 7th at 2
      {{"1 0 3; 0 1 0"}, "3 (pooled median)"},  // 5 observations, the 3rd at 3
      {{"1 1; 1 1"}, "1.5 (pooled median)"},    // 4 observations: mean of 1 and 2
      {{"1 1; 1 0", "--scores", "10 20"}, "10 (pooled median)"},
      {{"1 1; 1 0", "--cut", "15"}, "15"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"median", "--table"};
    args.insert(args.end(), c.table_and_more.begin(), c.table_and_more.end());
    const Result r = RunTq(args);
    ASSERT_TRUE(r.status == 0 || r.status == 1) << Joined(args) << r.err;
    EXPECT_EQ(ReportValue(r.out, "cut point"), c.cut) << Joined(args) << "\n" << r.out;
  }
}

TEST(TqInput, RowsCellsAndLayout) {
  using tq::Grid;
  const Grid<int64_t> g = tq::ParseCounts(tq::RowsOfOption("2 1,1; 0 3 2;"), "t");
  EXPECT_EQ(g.rows, 2);
  EXPECT_EQ(g.cols, 3);
  // Column-major: the row index runs fastest.
  EXPECT_EQ(tq::ColumnMajor(g), (std::vector<int64_t>{2, 0, 1, 3, 1, 2}));
  EXPECT_EQ(tq::SplitCells(" 1\t2 ,3 ", "x"), (std::vector<std::string>{"1", "2", "3"}));
  EXPECT_THROW(tq::SplitCells("1,", "x"), tq::UsageError);
  EXPECT_THROW(tq::ParseInteger("12abc", "x"), tq::UsageError);
  EXPECT_THROW(tq::ParseInteger("", "x"), tq::UsageError);
  EXPECT_THROW(tq::ParseReal("1e999", "x"), tq::UsageError);
  EXPECT_THROW(tq::ParseReal("nan", "x"), tq::UsageError);
  EXPECT_EQ(tq::ParseReal("-2.5e-3", "x"), -2.5e-3);
  const std::vector<tq::RowText> file = tq::RowsOfFile(std::string(ANVL_EXAMPLES) + "/job_satisfaction.txt");
  const Grid<int64_t> job = tq::ParseCounts(file, "job");
  EXPECT_EQ(job.rows, 4);
  EXPECT_EQ(job.cols, 4);
  EXPECT_EQ(job.cells[4], 3);  // row 2 starts with 3
}

}  // namespace
