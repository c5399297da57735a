// Tests of the tq host, run as a program: arguments in, exit status and
// output out.  JSON is parsed, never matched as text; the terminal form of
// the progress line runs on a pseudo-terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;

struct Result {
  int status = -1;  // exit status, or -1 when tq didn't exit normally
  std::string out, err;
  double seconds = 0.0;
};

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Per process: ctest runs the tests of this file as parallel processes.
std::string Temp(const std::string& name, const std::string& content = "") {
  const std::string path = ::testing::TempDir() + std::to_string(getpid()) + "-" + name;
  std::ofstream(path) << content;
  return path;
}

// Runs tq; standard output goes to a file, standard error to a file or, with
// `terminal`, to a pseudo-terminal whose bytes come back in err.  With
// `interrupt_after` > 0 a SIGINT follows after that many seconds.
Result RunTq(const Args& args, bool terminal = false, double interrupt_after = 0.0) {
  const std::string out = Temp("tq_out"), err = Temp("tq_err");
  int master = -1, slave = -1;
  if (terminal && openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return {};
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(out.c_str(), O_WRONLY | O_TRUNC), 1);
    dup2(terminal ? slave : open(err.c_str(), O_WRONLY | O_TRUNC), 2);
    std::vector<char*> argv = {const_cast<char*>(TQ_BINARY)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(TQ_BINARY, argv.data());
    _exit(127);
  }
  Result r;
  if (terminal) close(slave);
  bool interrupted = interrupt_after <= 0.0;
  int wstatus = 0;
  while (waitpid(pid, &wstatus, WNOHANG) == 0) {
    const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!interrupted && t >= interrupt_after) interrupted = kill(pid, SIGINT) == 0;
    if (terminal) {
      pollfd p{master, POLLIN, 0};
      char buf[4096];
      if (poll(&p, 1, 20) > 0) {
        const ssize_t n = read(master, buf, sizeof buf);
        if (n > 0) r.err.append(buf, static_cast<size_t>(n));
      }
    } else {
      usleep(10000);
    }
  }
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (WIFEXITED(wstatus)) r.status = WEXITSTATUS(wstatus);
  if (terminal) {
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) r.err.append(buf, static_cast<size_t>(n));
    close(master);
  } else {
    r.err = Slurp(err);
  }
  r.out = Slurp(out);
  unlink(out.c_str());
  unlink(err.c_str());
  return r;
}

std::string Joined(const Args& args) {
  std::string s = "tq";
  for (const std::string& a : args) s += " '" + a + "'";
  return s;
}

Args With(Args args, const Args& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

// tq ... --json, parsed; fails the test when the output isn't one object.
Json RunJson(const Args& args, int status = 0) {
  const Result r = RunTq(With(args, {"--json", "--quiet"}));
  EXPECT_EQ(r.status, status) << Joined(args) << "\n" << r.out << r.err;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
  const Json j = Json::parse(r.out, nullptr, false);
  EXPECT_TRUE(j.is_object()) << r.out;
  return j.is_object() ? j : Json::object();
}

std::vector<double> ParseRecord(const std::string& out) {
  std::vector<double> values;
  std::istringstream in(out);
  size_t index = 0;
  std::string value;
  while (in >> index >> value && index == values.size()) values.push_back(std::strtod(value.c_str(), nullptr));
  return values;
}

// A 5 x 5 table whose exact Fisher run takes far longer than these tests
// wait, and one that runs out of a 2 MiB memory budget within a second.
const std::string kHardTable = "6 7 2 7 5; 4 12 6 2 9; 8 4 4 4 3; 7 17 2 7 4; 6 5 1 4 10";
const std::string kTightTable = "0 2 1 1 2; 3 10 2 3 6; 5 2 0 5 3; 5 3 1 6 0; 1 4 3 5 3";

// Values of a result: a key (a field of "results", or a JSON pointer), the
// peer's value (NaN: the key is absent) and the tolerance.
using Values = std::vector<std::tuple<const char*, double, double>>;

// The binomial test of x successes in n trials by summing the probability
// function in long double; only published fields appear.
Values Binomial(int x, int n, long double p0) {
  auto pmf = [&](int k) {
    return std::exp(std::lgamma(n + 1.0L) - std::lgamma(k + 1.0L) - std::lgamma(n - k + 1.0L) + k * std::log(p0) +
                    (n - k) * std::log1p(-p0));
  };
  const bool symmetric = std::fabs(p0 - 0.5L) <= 1e-6L;
  const bool lower = symmetric ? n >= 2 * x : p0 >= static_cast<long double>(x) / n;
  long double tail = 0.0L;
  for (int k = lower ? 0 : x; k <= (lower ? x : n); ++k) tail += pmf(k);
  const double one = static_cast<double>(tail), two = static_cast<double>(std::min(1.0L, 2.0L * tail));
  const double point = static_cast<double>(pmf(x));
  return {{"/procedure", 9, 0}, {"successes", x, 0}, {"trials", n, 0}, {"side", (!symmetric && !lower) ? 2 : 1, 0},
          {"exact_one_sided", one, 1e-12 * one}, {"exact_two_sided", two, 1e-12 * two},
          {"point_probability", point, 1e-12 * point}, {"asymptotic_two_sided", NAN, 0}};
}

// Each command against its peers' values, and every other form of its data
// (files, raw values by group, --case-rows, ...) with the result of the
// first.  Peers: direct sums (binomial); R 4.2.2
// (the example files, friedman.test, chisq.test, ks.test); exactRankTests'
// wilcox.exact; tests/data/association_refs.csv (table s3x3) and
// linear_refs.csv (t3x4_uneq: R's cor and coin's z); for H, R's
// kruskal.test and the share of all 11550 assignments of the 11 values to
// groups of 4, 4, 3 with H at least the observed one, and for JT the
// Mann-Whitney counts of later against earlier groups (ties one half), its
// upper and two-sided tails about 20; the rest by hand.
TEST(TqResults, CommandsMatchTheirPeersInEveryFormOfTheirData) {
  const std::string examples = std::string(ANVL_EXAMPLES) + "/", s3x3 = "2 1 1; 0 3 2; 1 0 4";
  const std::string t3x4 = "4 2 1 0; 2 3 3 1; 0 1 3 5", a = "--asymptotic";
  const Args scores = {"--row-scores", "-1 0.5 4", "--scores", "0 1 3 7", a};
  const std::string csv = Temp("t.csv", "arm,low,mid,high\nA,2,1,1\nB,0,3,2\n");
  const std::string tsv = Temp("t.tsv", "# counts\nlow\tmid\thigh\n2\t1\t1\n0\t3\t2\n");
  const std::string txt = Temp("t.txt", "2 1 1\n\n0 3 2\n");
  const std::string raw = Temp("raw.csv", "arm,score\nA,1\nA,1\nB,2\nA,2\nB,2\nB,2\nA,3\nB,3\nB,3\nB,NA\n,3\n");
  const std::string blocks = Temp("blocks.csv", "block,a,b,c,d\nb1,3,1,2,2\nb2,2,3,1,2\nb3,2,2,1,2\n"
                                                "b4,1,1,1,3\nb5,1,1,1,2\n");
  const std::string samples = Temp("samples.txt", "v g\n1.2 a\n3.4 a\n2.2 a\n5 a\n3.4 a\n2.2 b\n6 b\n"
                                                  "7.1 b\n3.4 b\n8 b\n9 b\n");
  const std::string ordinal = Temp("ordinal.csv", "value,group\n2.1,a\n3.4,a\n1.2,a\n5,a\n4.4,b\n6,b\n5,b\n"
                                                  "7.1,b\n8,c\n9.2,c\n7.1,c\n");
  const std::string groups = "2.1 3.4 1.2 5; 4.4 6 5 7.1; 8 9.2 7.1";
  const std::string grouped = "1 1 1 0 1 0 0 0 0; 0 0 0 1 1 1 1 0 0; 0 0 0 0 0 0 1 1 1";
  const std::string x = "0.61 0.29 0.06 0.59 -1.73 -0.74 0.51 -0.56 0.39 1.64 0.05 -0.06 0.64 -0.82 0.37 1.77 "
                        "1.09 -1.28 2.36 1.31 1.05 -0.32 -0.4 1.06 -2.47";
  const std::string y = "2.2 1.66 1.38 0.2 0.36 0 0.96 1.56 0.44 1.5 -0.3 0.66 2.31 3.29 -0.27 -0.37 0.38 0.7 "
                        "0.52 -0.71";
  struct Case {
    std::vector<Args> forms;
    Values values;
    bool same_data = false;  // the forms describe their data alike
    int status = 0;
  };
  const std::vector<Case> cases = {
      // Upper tail, asymmetric null; symmetric null, lower tail doubled; the
      // larger value counts successes; two columns of one value add up.
      {{{"binomial", "--p0", "0.3", "--values", "1 0", "--weights", "7 5"}}, Binomial(7, 12, 0.3L)},
      {{{"binomial", "--p0", "0.5", "--values", "1 0", "--weights", "3 9"}}, Binomial(3, 12, 0.5L)},
      {{{"binomial", "--p0", "0.6", "--values", "0 1", "--weights", "5 7"}}, Binomial(7, 12, 0.6L)},
      {{{"binomial", "--p0", "0.25", "--values", "2 2 5", "--weights", "3 4 5"}}, Binomial(5, 12, 0.25L)},
      // fisher.test(matrix(c(1,2,1,0,3,3,6,1,10,10,14,9,6,7,12,11),4))$p.value
      {{{"fisher", "--table-file", examples + "job_satisfaction.txt"}},
       {{"exact_two_sided", 0.782684938965639, 7.8e-10}}},
      // fisher.test(matrix(c(2,0,1,1,3,0,1,2,4),3))$p.value
      {{{"fisher", "--table-file", examples + "small_3x3.txt"}}, {{"exact_two_sided", 0.154179154179154, 1.5e-10}}},
      // chisq.test(matrix(c(1,2,1,0,3,3,6,1,10,10,14,9,6,7,12,11),4))$statistic
      {{{"chisq", "--table-file", examples + "job_satisfaction.txt"}}, {{"chi_square", 5.9655145887704, 5.9e-9}}},
      {{{"likelihood-ratio", "--table", s3x3, a}}, {{"g_squared", 8.9169274492912862, 1e-11}}},
      {{{"uncertainty", "--table", s3x3, a}},
       {{"symmetric", 0.29930948660174772, 1e-12}, {"columns_given_rows", 0.30781105269105496, 1e-12},
        {"rows_given_columns_ase", 0.11719999619105709, 1e-7}}},
      {{{"kappa", "--table", s3x3, a}},
       {{"kappa", 0.45736434108527141, 1e-12}, {"ase", 0.18987750570958817, 1e-9}}},
      {{{"gk-tau", "--table", s3x3, a}},
       {{"symmetric_tau", 0.25925925925925924, 1e-12}, {"ase", 0.15225070794695891, 1e-7}}},
      {{With({"pearson", "--table", t3x4}, scores)}, {{"r", 0.67308830666087505, 1e-12}}},
      {{With({"linear-by-linear", "--table", t3x4}, scores)}, {{"standardized", 3.2974458063062242, 1e-9}}},
      {{{"spearman", "--table", t3x4, a}}, {{"rs", 0.68591990138143033, 1e-12}}},
      {{{"gamma", "--table", "3 1; 1 3"}}, {{"gamma", 0.8, 1e-15}}},
      {{{"kendall", "--table", "3 1; 1 3", a}}, {{"tau_b", 0.5, 1e-15}}},
      // One table five ways: whitespace, a CSV with a header and row names, a
      // TSV, and raw observations tabulated by group.
      {{{"chisq", "--table", "2 1 1; 0 3 2"},
        {"chisq", "--table-file", csv},
        {"chisq", "--table-file", tsv},
        {"chisq", "--table-file", txt},
        {"chisq", "--data", raw, "--value-column", "score", "--group-column", "1"}},
       {},
       true},
      // Raw values of a case test form one row, as --values does.
      {{{"binomial", "--values", "1 0 1 1"},
        {"binomial", "--data", Temp("v.tsv", "id\tx\n1\t1\n2\t0\n3\t1\n4\t1\n"), "--value-column", "x"}},
       {}},
      // Blocks by treatments: a block a row, one list cut by --case-rows, a
      // CSV file with treatment names and block names.
      // friedman.test(matrix(c(3,1,2,2, 2,3,1,2, 2,2,1,2, 1,1,1,3, 1,1,1,2), 5, byrow = TRUE))
      {{{"friedman", "--values", "3 1 2 2; 2 3 1 2; 2 2 1 2; 1 1 1 3; 1 1 1 2"},
        {"friedman", "--values", "3 1 2 2 2 3 1 2 2 2 1 2 1 1 1 3 1 1 1 2", "--case-rows", "5"},
        {"friedman", "--values-file", blocks}},
       // rows: treatments, columns: blocks
       {{"chi_square", 4.91666666666667, 1e-12}, {"/data/rows", 4, 0}, {"/data/cols", 5, 0}},
       true},
      // Observed and expected counts: --weights and --values, or a file of two
      // columns (and names); chisq.test(c(12, 7, 9, 2), p = c(10, 8, 8, 4) / 30)
      {{{"chisq", "--weights", "12 7 9 2", "--values", "10 8 8 4"},
        {"chisq", "--fit-file",
         Temp("fit.tsv", "category\tobserved\texpected\nA\t12\t10\nB\t7\t8\nC\t9\t8\nD\t2\t4\n")}},
       {{"chi_square", 1.65, 1e-12}}},
      // wilcox.exact(c(1.2,3.4,2.2,5,3.4), c(2.2,6,7.1,3.4,8,9))
      {{{"mann-whitney", "--x", "1.2 3.4 2.2 5 3.4", "--y", "2.2,6,7.1,3.4,8,9"},
        {"mann-whitney", "--data", samples, "--value-column", "v", "--group-column", "g"},
        {"mann-whitney", "--table", "1 1 2 1 0 0 0 0; 0 1 1 0 1 1 1 1"}},
       {{"exact_two_sided", 0.08874459, 1e-8}}},
      // Signed ranks of x - y = -1, -2.6, -4.9, 1.6, -4.6: V = 2, P(V <= 2) = 3/32.
      {{{"wilcoxon", "--x", "1.2 3.4 2.2 5 3.4", "--y", "2.2 6 7.1 3.4 8", "--paired"},
        {"wilcoxon", "--x", "-1 -2.6 -4.9 1.6 -4.6", "--paired"}},
       {{"statistic", 2, 0}, {"exact_one_sided", 3.0 / 32.0, 0}}},
      {{{"kruskal-wallis", "--groups", groups},
        {"kruskal-wallis", "--table", grouped},
        {"kruskal-wallis", "--data", ordinal, "--value-column", "value", "--group-column", "group"}},
       {{"statistic", 7.6509938837920455, 1e-12}, {"exact_two_sided", 44.0 / 11550.0, 1e-12}}},
      {{{"jonckheere", "--groups", groups},
        {"jonckheere", "--table", grouped},
        {"jonckheere", "--data", ordinal, "--value-column", "value", "--group-column", "group"}},
       {{"statistic", 38, 0}, {"mean", 20, 0}, {"exact_one_sided", 0.00069264069264069264, 1e-15},
        {"exact_two_sided", 0.0011255411255411255, 1e-15}}},
      // ks.test(x, y, exact = TRUE)
      {{{"ks2", "--x", x, "--y", y}}, {{"exact_two_sided", 0.528636444814519, 1e-9}, {"total", 45, 0}}},
      {{{"wald-wolfowitz", "--x", "1 2 2 3 5 8", "--y", "2 4 6 7 9"},
        {"wald-wolfowitz", "--data", Temp("ww.csv", "g,v\nx,1\nx,2\nx,2\ny,2\nx,3\ny,4\nx,5\ny,6\ny,7\nx,8\n"
                                          "y,9\n"), "--value-column", "v", "--group-column", "g"},
        {"wald-wolfowitz", "--table", "1 2 1 0 1 0 0 1 0; 0 1 0 1 0 1 1 0 1"}},
       {{"runs", 8, 0}}},
      // 3 1 4 1 5 9 2 6 5 5 at or above 4: 0 0 1 0 1 1 0 1 1 1, six runs.
      {{{"runs", "--values", "3 1 4 1 5 9 2 6 5 5", "--runs-cut", "4"}}, {{"runs", 6, 0}}},
      // The median test's cut: by default the pooled median.
      {{{"median", "--table", "1 2 3; 3 2 1"}}, {{"/settings/cut", 2, 0}}},  // the 6th and 7th of 12 at 2
      {{{"median", "--table", "1 0 3; 0 1 0"}}, {{"/settings/cut", 3, 0}}, false, 1},  // the 3rd of 5: none above
      {{{"median", "--table", "1 1; 1 1"}}, {{"/settings/cut", 1.5, 0}}},    // the mean of 1 and 2
      {{{"median", "--table", "1 1; 1 0", "--scores", "10 20"}}, {{"/settings/cut", 10, 0}}},
      {{{"median", "--table", "1 1; 1 0", "--cut", "15"}}, {{"/settings/cut", 15, 0}}, false, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Joined(c.forms[0]));
    const Json want = RunJson(c.forms[0], c.status);
    EXPECT_EQ(want["test"], c.forms[0][0]);
    EXPECT_EQ(want["status"], c.status == 0 ? "ok" : "failed");
    EXPECT_EQ(want["failure"].is_null(), c.status == 0);
    for (const auto& [key, value, tolerance] : c.values) {
      if (std::isnan(value)) {
        EXPECT_FALSE(want["results"].contains(key)) << key << ": only published fields appear";
        continue;
      }
      const Json& got = key[0] == '/' ? want[Json::json_pointer(key)] : want["results"][key];
      EXPECT_NEAR(got.get<double>(), value, tolerance) << key;
    }
    for (size_t i = 1; i < c.forms.size(); ++i) {
      SCOPED_TRACE(Joined(c.forms[i]));
      const Json j = RunJson(c.forms[i]);
      EXPECT_EQ(j["results"], want["results"]);
      if (c.same_data) {
        EXPECT_EQ(j["data"], want["data"]);
      }
    }
  }
  // What the settings say: skipped observations, the rule of the runs' cut.
  const Json skipped = RunJson({"chisq", "--data", raw, "--value-column", "score", "--group-column", "arm"});
  EXPECT_NE(skipped["settings"]["observations"].get<std::string>().find("2 rows with a missing value skipped"),
            std::string::npos)
      << skipped;
  for (const char* cut : {"mean", "median", "mode"}) {  // 4.1, 4.5 and 5 all give four runs
    const Json j = RunJson({"runs", "--values", "3 1 4 1 5 9 2 6 5 5", "--runs-cut", cut});
    EXPECT_EQ(j["results"]["runs"], 4.0) << cut;
    EXPECT_NE(j["settings"]["cut"].get<std::string>().find(cut), std::string::npos) << j;
  }
}

// ks1 passes its distribution and parameters as the engine expects them:
// its p-values are R's (continuous) and the rational sums' (Poisson) of
// the committed reference files, on samples written as --values.
TEST(TqResults, KolmogorovOneSampleMatchesItsReferences) {
  auto lines = [](const std::string& name) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(Slurp(std::string(ANVL_SOURCE) + "/tests/data/" + name));
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
      std::vector<std::string> fields;
      std::istringstream cells(line);
      for (std::string f; std::getline(cells, f, ',');) fields.push_back(f);
      rows.push_back(fields);
    }
    return rows;
  };
  const char* names[] = {"", "uniform", "", "", "normal", "", "exponential"};
  int checked = 0;
  for (const auto& r : lines("ks1_refs.csv")) {
    if (r[0].find("_10") == std::string::npos) continue;  // samples of 10 and 100
    const int model = std::stoi(r[1]);
    Args args = {"ks1", "--values", r[5], "--distribution", names[model], "--param1", r[2]};
    if (model != 6) args.insert(args.end(), {"--param2", r[3]});
    SCOPED_TRACE(Joined(args));
    const Json res = RunJson(args)["results"];
    EXPECT_NEAR(res["d"].get<double>(), std::stod(r[6]), 1e-13 * std::stod(r[6]));
    EXPECT_NEAR(res["exact_two_sided"].get<double>(), std::stod(r[9]), 1e-9 * std::stod(r[9]));
    ++checked;
  }
  for (const auto& r : lines("ks1_poisson_refs.csv")) {
    if (r[0].find("_30_") == std::string::npos) continue;
    const Args args = {"ks1", "--values", r[3], "--weights", r[4], "--distribution", "poisson",
                       "--param1", r[1]};
    SCOPED_TRACE(Joined(args));
    const Json res = RunJson(args)["results"];
    EXPECT_EQ(res["total"], std::stoi(r[2]));
    EXPECT_NEAR(res["exact_two_sided"].get<double>(), std::stod(r[10]), 1e-12 * std::stod(r[10]));
    ++checked;
  }
  EXPECT_GE(checked, 20);
}

// Refused by the engine: exit 1, the failure in words.  A mistake in the
// arguments (code 0): exit 2, one line on standard error naming the fix.
TEST(TqErrors, FailuresExitOneAndMistakesExitTwoNamingTheFix) {
  const std::string csv = Temp("bad.csv", "low,mid,high\n1,2,3\n4,x,6\n");
  const struct {
    Args args;
    int code;
    const char* words;  // a part of the message, or "" when any will do
  } cases[] = {
      {{"binomial", "--values", "1 0", "--weights", "7 5", "--p0", "1.5"}, -308, "null proportion"},
      {{"binomial", "--values", "1 0 2"}, -35, "more distinct values"},
      {{"binomial", "--values", "1 0; 1 0"}, -43, "one row"},
      {{"fisher", "--table", kTightTable, "--memory", "2M"}, -1, "--memory"},
      {{"ks1", "--values", "0.2 1.4", "--param1", "0", "--param2", "1"}, -3, "outside the hypothesised"},
      {{"ks1", "--values", "-1 2", "--distribution", "exponential"}, -14, "below the support"},
      {{"ks1", "--values", "1 2.5", "--distribution", "poisson"}, -15, "whole number"},
      {{"kappa", "--table", "1 2 3; 4 5 6"}, 88, "isn't square"},
      {{"uncertainty", "--table", "1 2 3"}, 901, "one row or column"},
      {{"likelihood-ratio", "--table", "1 2; 0 0"}, -1, "a row or column is empty"},
      {{"gk-tau", "--table", "1 2 3"}, -16, "smaller than 2 x 2"},
      {{"cochran", "--values", "1 0 2; 0 1 1"}, -35, "Cochran's Q: 0 and 1"},
      {{"chisq", "--weights", "12 7 9 2", "--values", "10 8 8 5"}, -302, "don't add up"},
      {{"kendall-w", "--values", "1 2 3; 4 4 4"}, 151, "fewer than two rows"},
      {{"binomal", "--values", "1 0"}, 0, "nearest is binomial"},
      {{"fisher", "--tabel", "1 2; 3 4"}, 0, "--table"},
      {{"chisq", "--table", "1 2; 3 4", "--p0", "0.2"}, 0, "an option of binomial"},
      {{"fisher", "--table", "1 2; 3 4", "extra"}, 0, "unexpected argument"},
      {{"fisher", "--table-file", csv}, 0, "bad.csv:3, column 2 ('mid')"},
      {{"chisq", "--table", "1 2; 3"}, 0, "row 2"},
      {{"chisq", "--table", "1 -2; 3 4"}, 0, "negative"},
      {{"chisq", "--table", "1,,2; 3,4,5"}, 0, "empty cell"},
      {{"chisq", "--table", "99999999999999999999 1; 2 3"}, 0, "out of range"},
      {{"binomial", "--values", "1 0", "--weights", "7 x"}, 0, "weights"},
      {{"binomial", "--values", "1 0", "--weights", "1 2 3"}, 0, "weights"},
      {{"binomial", "--values", "1 0", "--p0"}, 0, ""},
      {{"binomial", "--values", "1 0", "--monte-carlo"}, 0, "an option of other tests"},
      {{"binomial"}, 0, "needs data"},
      {{"fisher", "--values", "1 2"}, 0, "--table"},
      {{"fisher", "--table", "1 2; 3 4", "--samples", "10"}, 0, "--monte-carlo"},
      {{"fisher", "--table", "1 2; 3 4", "--monte-carlo", "--level", "1.5"}, 0, "--level"},
      {{"fisher", "--table", "1 2; 3 4", "--exact", "--asymptotic"}, 0, "excludes"},
      {{"fisher", "--table", "1 2; 3 4", "--json", "--record"}, 0, "excludes"},
      {{"fisher", "--table", "1 2; 3 4", "--spill", std::string(300, 'a')}, 0, "255"},
      {{"fisher", "--table-file", "/nonexistent/table.txt"}, 0, "can't read"},
      {{"fisher", "--data", csv, "--value-column", "mid"}, 0, "--group-column"},
      {{"fisher", "--data", csv, "--value-column", "top", "--group-column", "low"}, 0, "columns: low, mid, high"},
      {{"ks1", "--values", "0.1 0.5", "--distribution", "cauchy"}, 0, "cauchy"},
      {{"ks1", "--values", "0.1 0.5", "--distribution", "poisson", "--param2", "2"}, 0, "one parameter"},
      {{"wilcoxon", "--table", "1 2 3; 4 5 6", "--scores", "1 2"}, 0, "3 columns"},
      {{"fisher", "--table", "1 2; 3 4", "--memory", "2X"}, 0, "512M or 2G"},
      {{"fisher", "--table", "1 2; 3 4", "--memory", "0"}, 0, "less than one kilobyte"},
      {{"fisher", "--table", "1 2; 3 4", "--memory", "1000000T"}, 0, "half of this machine"},
      {{"fisher", "--table", "1 2; 3 4", "--memory", "99999999999999999999999G"}, 0, "half of this machine"},
      {{"fisher", "--table", "1 2; 3 4", "--time-limit", "soon"}, 0, "30s, 5m or 1h"},
      {{"friedman", "--values", "1 2 3; 4 5"}, 0, "the first block has 3"},
      {{"chisq", "--fit-file", Temp("bad_fit.txt", "3 4 5\n")}, 0, "an observed and an expected count"},
      {{"wilcoxon", "--x", "1 2"}, 0, "--x needs --y"},
      {{"wilcoxon", "--x", "1 2", "--y", "3", "--paired"}, 0, "--x has 2 values, --y 1"},
      {{"wilcoxon", "--x", "1 2", "--y", "3", "--table", "1 2; 3 4"}, 0, "give the data once"},
      {{"wilcoxon", "--x", "1 b", "--y", "3"}, 0, "'b' is not a number"},
      {{"jonckheere"}, 0, "needs data"},
      {{"kruskal-wallis", "--groups", "1 2;;3"}, 0, "group 2 holds no values"},
      {{"kruskal-wallis", "--groups", "1 2; 3", "--table", "1 2; 3 4"}, 0, "give the data once"},
      {{"ks2", "--x", "1 2", "--paired"}, 0, "no option --paired"},
      {{"runs", "--values", "3 1 4", "--runs-cut", "middle"}, 0, "'middle' is not a number"},
      {{}, 0, "name a test"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Joined(c.args));
    if (c.code == 0) {
      const Result r = RunTq(c.args);
      EXPECT_EQ(r.status, 2) << r.out << r.err;
      EXPECT_TRUE(r.out.empty()) << r.out;
      EXPECT_EQ(r.err.rfind("tq: ", 0), 0u) << r.err;
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
      continue;
    }
    const Json j = RunJson(c.args, 1);
    EXPECT_EQ(j["status"], "failed");
    EXPECT_EQ(j["failure"]["code"], c.code);
    EXPECT_EQ(j["failure"]["value"], c.code - 1000.0);
    EXPECT_NE(j["failure"]["message"].get<std::string>().find(c.words), std::string::npos) << j;
    EXPECT_TRUE(j["results"].empty());
    const Result report = RunTq(With(c.args, {"--quiet"}));
    EXPECT_EQ(report.status, 1);
    EXPECT_NE(report.out.find("failed: "), std::string::npos) << report.out;
  }
}

// Every test of the engine by its name, with data it takes.
struct TestCase {
  int code;
  const char* name;
  Args data;
};

const Args kSquare = {"--table", "2 1 1; 0 3 2; 1 0 4"};
const Args kTwoRows = {"--table", "2 1 1; 0 3 2"};
const Args kBlocks = {"--values", "1 2 3 4; 2 1 4 3; 3 3 1 2"};
const std::vector<TestCase> kTests = {
    {1, "scores", kTwoRows},
    {2, "wilcoxon", kTwoRows},
    {502, "mann-whitney", kTwoRows},
    {6, "ks1", {"--values", "0.1 0.4 0.7 0.9"}},
    {7, "chisq", kSquare},
    {507, "chisq-short", kSquare},
    {31, "median", kTwoRows},
    {42, "nominal", kSquare},
    {9, "binomial", {"--values", "1 0", "--weights", "7 5", "--missing", "-99"}},
    {10, "marginal-homogeneity", kSquare},
    {510, "marginal-homogeneity-long", kSquare},
    {11, "runs", {"--values", "3 1 4 1 5 9 2 6"}},
    {19, "wald-wolfowitz", kTwoRows},
    {18, "ks2", kTwoRows},
    {20, "jonckheere", kSquare},
    {21, "kruskal-wallis", kSquare},
    {24, "friedman", kBlocks},
    {26, "cochran", {"--values", "1 0 1 1; 0 0 1 0; 1 1 1 0"}},
    {51, "kendall-w", kBlocks},
    {32, "fisher", kSquare},
    {40, "likelihood-ratio", kSquare},
    {45, "uncertainty", kSquare},
    {41, "linear-by-linear", kSquare},
    {47, "pearson", kSquare},
    {48, "spearman", kSquare},
    {43, "kappa", kSquare},
    {46, "gk-tau", kSquare},
    {49, "kendall", kSquare},
    {50, "gamma", kSquare},
};

// Each test runs by its name and by its code with the same record (but the
// elapsed time), and its --help lists its own options and no others.  The
// binomial record holds the filler where nothing is published, and its
// report leaves out what equals the filler.
TEST(TqTests, NameAndCodeGiveTheSameRecordAndOwnHelp) {
  ASSERT_EQ(kTests.size(), 29u);
  const Result top = RunTq({"--help"});
  for (const TestCase& t : kTests) {
    const Args by_name = With({t.name}, t.data), by_code = With({std::to_string(t.code)}, t.data);
    SCOPED_TRACE(Joined(by_name));
    EXPECT_NE(top.out.find(std::string(t.name) + ", " + std::to_string(t.code)), std::string::npos);
    const Result a = RunTq(With(by_name, {"--record"})), b = RunTq(With(by_code, {"--record", "--quiet"}));
    ASSERT_TRUE(a.status == 0 || a.status == 1) << a.err;
    EXPECT_EQ(a.status, b.status);
    const std::vector<double> ra = ParseRecord(a.out), rb = ParseRecord(b.out);
    ASSERT_EQ(ra.size(), 50u);
    ASSERT_EQ(rb.size(), 50u);
    for (int i = 0; i < 50; ++i)
      EXPECT_TRUE(ra[i] == rb[i] || (std::isnan(ra[i]) && std::isnan(rb[i])) || (i >= 42 && i <= 44)) << i;
    EXPECT_EQ(a.status == 0, ra[48] == 0.0);
    if (t.code == 9) {
      EXPECT_EQ(ra[0], 7.0);
      EXPECT_EQ(ra[2], -99.0);
      EXPECT_EQ(ra[48], 0.0);
      const std::string report = RunTq(by_name).out;
      EXPECT_NE(report.find("successes"), std::string::npos) << report;
      EXPECT_EQ(report.find("mean under the null"), std::string::npos) << report;
    }

    const std::string help = RunTq({t.name, "--help"}).out;
    const bool table = t.data[0] == "--table" || t.code == 11, network = t.code == 32 || t.code == 7 || t.code == 21;
    EXPECT_EQ(help.find("--table ") != std::string::npos, table) << help;
    EXPECT_EQ(help.find("--p0") != std::string::npos, t.code == 9) << help;
    EXPECT_EQ(help.find("--cut") != std::string::npos, t.code == 31) << help;
    EXPECT_EQ(help.find("--monte-carlo") != std::string::npos, t.code != 9) << help;
    EXPECT_TRUE(!network || help.find("--spill") != std::string::npos) << help;
  }
}

// A hard table stopped by the time limit and by Ctrl-C: within a few
// seconds, exit 1, what stands from the asymptotic route, the stop in words.
// Both stops come after 3 s, so that a progress line (the first one after a
// second) has come out even when the machine is busy.
TEST(TqStops, TimeLimitAndCtrlCEndAHardTableWithinSeconds) {
  const Json asymptotic = RunJson({"fisher", "--table", kHardTable, "--asymptotic"});
  const Args run = {"fisher", "--table", kHardTable, "--json"};
  const struct {
    Args extra;
    double interrupt_after;
    const char* by;
  } stops[] = {{{"--time-limit", "3s"}, 0.0, "time limit"}, {{}, 3.0, "Ctrl-C"}};
  for (const auto& s : stops) {
    SCOPED_TRACE(s.by);
    const Result r = RunTq(With(run, s.extra), false, s.interrupt_after);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_LT(r.seconds, 7.0);
    const Json j = Json::parse(r.out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << r.out;
    EXPECT_EQ(j["status"], "stopped");
    EXPECT_EQ(j["failure"]["stopped_by"], s.by);
    EXPECT_EQ(j["failure"]["value"], -1006.0);
    EXPECT_EQ(j["asymptotic_results"]["statistic"], asymptotic["results"]["statistic"]);
    EXPECT_GT(j["elapsed_seconds"].get<double>(), 1.5);
    // Plain progress on a non-terminal: timestamped lines in words (the
    // node listing or the forward pass, by the machine's speed), none on
    // stdout.
    EXPECT_TRUE(std::regex_search(
        r.err, std::regex(R"(^tq: \d\d:\d\d:\d\d fisher 0:0\d  (path bounds, stage \d|exact p-value between 0\.\d{4} and))")))
        << r.err;
  }
  // Both streams into one file: every progress line comes before the report.
  const std::string both = Temp("both.txt");
  const std::string command = "'" TQ_BINARY "' fisher --table '" + kHardTable + "' --time-limit 2s >'" + both + "' 2>&1";
  EXPECT_NE(std::system(command.c_str()), 0);
  const std::string text = Slurp(both);
  const size_t report = text.find("Fisher's exact test");
  ASSERT_NE(report, std::string::npos) << text;
  EXPECT_NE(text.rfind("tq: ", report), std::string::npos) << text;
  EXPECT_EQ(text.find("tq: ", report), std::string::npos) << text;
}

// On a terminal one status line is rewritten in place with carriage returns
// and erased before the report, which goes to standard output alone.
TEST(TqTerminal, StatusLineIsRewrittenInPlaceAndErased) {
  const Result r = RunTq({"fisher", "--table", kHardTable, "--time-limit", "2s"}, true);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("\rtq fisher  0:01  "), std::string::npos) << r.err;
  EXPECT_TRUE(std::regex_search(r.err, std::regex("path bounds, stage |exact p-value between ")))
      << r.err;
  EXPECT_EQ(r.err.find('\n'), std::string::npos) << "the status line never scrolls";
  EXPECT_EQ(r.err.size() >= 4 ? r.err.substr(r.err.size() - 4) : "", "\r\x1b[K") << "erased at the end";
  EXPECT_NE(r.out.find("stopped: the time limit of 2 s was reached"), std::string::npos) << r.out;
  // --quiet: nothing at all on the terminal.
  EXPECT_EQ(RunTq({"fisher", "--table", kHardTable, "--time-limit", "1s", "--quiet"}, true).err, "");
}

// The commands of the README's shell blocks run as written.
TEST(TqReadme, ExamplesRunAsWritten) {
  std::istringstream readme(Slurp(std::string(ANVL_SOURCE) + "/README.md"));
  bool in_block = false;
  int commands = 0;
  for (std::string line; std::getline(readme, line);) {
    if (line.rfind("```", 0) == 0) {
      in_block = line == "```sh";
      continue;
    }
    if (!in_block) continue;
    if (line.rfind("$ ", 0) == 0) line = line.substr(2);
    if (line.rfind("build/tq ", 0) != 0) continue;
    const std::string command =
        "cd '" + std::string(ANVL_SOURCE) + "' && ('" TQ_BINARY "'" + line.substr(8) + "\n) >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << line;
    ++commands;
  }
  EXPECT_GE(commands, 5);
}

}  // namespace
