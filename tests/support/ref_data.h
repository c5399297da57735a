// Reader of the committed peer reference values (tests/data/*_refs.csv, from
// the gen_*.R scripts there).  Cells are kept as in the files: column-major,
// the engine's order; table() gives the row-major Table of enumerate.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/enumerate.h"

namespace anvl::support {

// Pearson's chi-square and the nominal measures of one table.
struct ChisqRef {
  std::string id;
  int rows = 0, cols = 0;
  std::vector<int64_t> cells;  // column-major
  double x2 = 0;               // Pearson's X2 without continuity correction
  int df = 0;
  double p = 0;                // asymptotic upper tail of chi-square(df)
  double phi = 0, contingency = 0, cramerV = 0;
  Table table() const { return FromColumnMajor(rows, cols, cells); }
};

// Fisher's exact test of one table.
struct FisherRef {
  std::string id;
  int rows = 0, cols = 0;
  std::vector<int64_t> cells;  // column-major
  double p = 0;
  Table table() const { return FromColumnMajor(rows, cols, cells); }
};

// Median test: the table (rows = samples, columns = ordered levels with
// scores), the cut, the collapsed rows x 2 table (above the cut, the rest) and
// Pearson's X2 of the collapsed table.
struct MedianRef {
  std::string id;
  int rows = 0, cols = 0;
  std::vector<int64_t> cells;      // column-major, rows x cols
  std::vector<double> scores;      // one per column
  double cut = 0;
  std::vector<int64_t> collapsed;  // column-major, rows x 2
  double x2 = 0;
  int df = 0;
  double p = 0;
  Table table() const { return FromColumnMajor(rows, cols, cells); }
  Table collapsedTable() const { return FromColumnMajor(rows, 2, collapsed); }
};

// One row of kernel_refs.csv: a routine of R's stats package, up to four
// arguments (unused ones 0) and R's value.
struct KernelRef {
  std::string routine;
  double a[4] = {};
  double value = 0;
};

// Directory of the data files: the compile definition ANVL_TEST_DATA.
std::string TestDataDir();

// One data line of a committed CSV file (a header line, no quoted fields),
// read by column name. Each accessor throws std::runtime_error on a missing
// column or a field that doesn't parse in full; "NA" reads as NaN.
struct CsvRow {
  std::string file;
  std::map<std::string, std::string> field;
  const std::string& Text(const std::string& name) const;
  double Real(const std::string& name) const;
  int Int(const std::string& name) const;
  std::vector<double> Reals(const std::string& name) const;  // blank-separated
  std::vector<int64_t> Ints(const std::string& name) const;  // blank-separated
};
// The data lines of TestDataDir()/name; throws when the file is missing or a
// line has the wrong number of fields.
std::vector<CsvRow> LoadCsv(const std::string& name);

// Each reads its file from TestDataDir(); throws std::runtime_error when the
// file is missing or a line doesn't parse.  LoadKernelRefs gives the rows of
// one routine, in file order, and throws when there are none.
std::vector<ChisqRef> LoadChisqRefs();
std::vector<FisherRef> LoadFisherRefs();
std::vector<MedianRef> LoadMedianRefs();
std::vector<KernelRef> LoadKernelRefs(const std::string& routine);

}  // namespace anvl::support
