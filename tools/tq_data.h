// tq_data.h - the data options that tests share, and the readers behind
// them: counts and values in an option, whitespace files, CSV and TSV files
// with a header row, raw observations with a group column.
//
// Every reader checks that the whole token is consumed and names the line
// and the column of what it refuses; the message becomes a usage error.
#ifndef TQ_DATA_H
#define TQ_DATA_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tq_types.h"

namespace tq {

struct Test;

// What the data options said, before it is read.
struct DataOptions {
  std::optional<std::string> table, table_file, values, weights, data_file, value_column, group_column;
  std::optional<std::string> scores, row_scores;
  std::optional<int64_t> case_rows;
};

// Declares the data options of a test that reads `reads` (tq_catalog.h).
void AddDataOptions(CLI::App& app, unsigned reads, DataOptions& data);

// Reads the data into the call, the table or the case values, with
// settings that say how they were read.  A test with kOwnData may take none
// of the shared sources: its own options then fill the call.
void ReadData(const Test& test, const DataOptions& data, Call& call);

// Fills both score vectors, once the table is known: the user's scores, or
// the values of tabulated observations (Call::level_values), or 1, 2, 3, ...
void ReadScores(const Test& test, const DataOptions& data, Call& call);

int64_t ParseInteger(std::string_view token, const std::string& where);
double ParseReal(std::string_view token, const std::string& where);
// A number as the report shows it: six significant digits.
std::string FormatNumber(double value);

// Observations cross-tabulated: one row per group (in the order of first
// appearance), one column per distinct value (numbers ascending, other
// labels in the order of first appearance).
struct Tabulation {
  int64_t rows = 0, cols = 0;
  std::vector<int64_t> counts;                      // row index fastest
  std::vector<std::string> groups;                  // row names
  std::vector<std::string> levels;                  // column names
  std::optional<std::vector<double>> level_values;  // when every value is a number
};
Tabulation Tabulate(const std::vector<std::string>& groups, const std::vector<std::string>& values);

}  // namespace tq

#endif  // TQ_DATA_H
