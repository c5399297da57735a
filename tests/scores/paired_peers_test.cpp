// Paired-sample tests and marginal homogeneity against R: the committed
// values of tests/data/gen_paired_refs.R.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace anvl::support {
namespace {

std::vector<std::vector<std::string>> ReadCsv(const std::string& name) {
  std::ifstream in(TestDataDir() + "/" + name);
  std::vector<std::vector<std::string>> rows;
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string item; std::getline(ss, item, ',');) f.push_back(item);
    rows.push_back(f);
  }
  return rows;
}

template <class T>
std::vector<T> Numbers(const std::string& s) {
  std::vector<T> out;
  std::stringstream ss(s);
  for (T v; ss >> v;) out.push_back(v);
  return out;
}

void ExpectRel(double got, double want, double rel, const char* what) {
  EXPECT_LE(std::fabs(got - want), rel * std::fabs(want)) << what << ": " << got << " vs " << want;
}

TEST(PairedPeers, SignedRankAndSignTestMatchR) {
  const auto rows = ReadCsv("paired_refs.csv");
  ASSERT_EQ(rows.size(), 18u);
  for (const auto& r : rows) {
    ASSERT_EQ(r.size(), 10u);
    SCOPED_TRACE(r[0] + " rule " + r[1]);
    const std::vector<int64_t> counts = Numbers<int64_t>(r[3]);
    HostCall call(r[1] == "1" ? TQ_PROC_WILCOXON : TQ_PROC_SCORES_EQUAL, TQ_METHOD_EXACT);
    call.scores = Numbers<double>(r[4]);
    const double* f = call.Run(Table{1, static_cast<int>(counts.size()), counts});
    ASSERT_EQ(f[48], 0.0);
    ExpectRel(f[15], std::stod(f[12] == 2.0 ? r[5] : r[6]), 1e-9, "one-sided");
    ExpectRel(f[16], std::min(1.0, std::stod(r[7])), 1e-9, "two-sided");
    ExpectRel(f[1], std::stod(r[8]), 1e-12, "z");
  }
}

TEST(MarginalPeers, StandardisedStatisticMatchesCoinAndMcNemar) {
  const auto rows = ReadCsv("marginal_refs.csv");
  ASSERT_EQ(rows.size(), 5u);
  for (const auto& r : rows) {
    ASSERT_EQ(r.size(), 6u);
    SCOPED_TRACE(r[0]);
    const int n = std::stoi(r[1]);
    HostCall call(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_ASYMPTOTIC);
    call.scores = Numbers<double>(r[3]);
    const double* f = call.Run(FromColumnMajor(n, n, Numbers<int64_t>(r[2])));
    ASSERT_EQ(f[48], 0.0);
    ExpectRel(std::fabs(f[1]), std::fabs(std::stod(r[4])), 1e-12, "|z|");
    ExpectRel(f[14], std::stod(r[5]), 1e-12, "asymptotic two-sided");
  }
}

}  // namespace
}  // namespace anvl::support
