// Reference values of the kernel tests: rows of tests/data/kernel_refs.csv,
// written by tests/data/gen_kernel_refs.R from R's stats package.
#pragma once

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace anvl::testing_refs {

struct RefRow {
  std::string routine;
  double a[4];
  double value;
};

// All rows whose routine is `routine` (empty when the file is missing, so a
// test that reads them must check that some came back).
inline std::vector<RefRow> LoadRefs(const std::string& routine) {
  std::vector<RefRow> rows;
  std::ifstream in(std::string(ANVL_TEST_DATA) + "/kernel_refs.csv");
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::stringstream ss(line);
    RefRow r;
    std::string field;
    std::getline(ss, r.routine, ',');
    if (r.routine != routine) continue;
    for (double& a : r.a) {
      std::getline(ss, field, ',');
      a = std::strtod(field.c_str(), nullptr);
    }
    std::getline(ss, field, ',');
    r.value = std::strtod(field.c_str(), nullptr);
    rows.push_back(r);
  }
  return rows;
}

}  // namespace anvl::testing_refs
