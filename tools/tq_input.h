// tq_input.h - reading the numbers of tq's command line and data files.
//
// Every reader checks that the whole token is consumed and throws UsageError
// with a one-line message otherwise; tq turns that into exit status 2.
#ifndef TQ_INPUT_H
#define TQ_INPUT_H

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace tq {

// A mistake of the caller: bad option, bad number, bad shape of the data.
struct UsageError {
  std::string message;
};

[[noreturn]] inline void Fail(std::string message) { throw UsageError{std::move(message)}; }

// One row of numbers as text, with where it came from for messages
// ("row 2" of an option, or "FILE:7").
struct RowText {
  std::string text;
  std::string where;
};

// Numbers in rows, row-major; every row has `cols` entries.
template <typename T>
struct Grid {
  int64_t rows = 0;
  int64_t cols = 0;
  std::vector<T> cells;  // cell (i, j) is cells[i * cols + j]
};

// Reads a signed 64-bit integer from the whole of `token`.  Refuses empty
// tokens, trailing characters and values outside the 64-bit range.  `what`
// names the source in the message.
inline int64_t ParseInteger(std::string_view token, const std::string& what) {
  const std::string text(token);
  if (text.empty()) Fail(what + ": empty value");
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0') Fail(what + ": '" + text + "' is not a whole number");
  if (errno == ERANGE) Fail(what + ": '" + text + "' is out of range");
  return static_cast<int64_t>(value);
}

// Reads a finite double from the whole of `token`; NaN and infinities are
// refused since no test has a use for them.
inline double ParseReal(std::string_view token, const std::string& what) {
  const std::string text(token);
  if (text.empty()) Fail(what + ": empty value");
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0') Fail(what + ": '" + text + "' is not a number");
  if (errno == ERANGE && std::fabs(value) > 1.0) Fail(what + ": '" + text + "' is out of range");
  if (!std::isfinite(value)) Fail(what + ": '" + text + "' is not a finite number");
  return value;
}

// Splits one row into its cells.  Cells are separated by blanks or by
// commas; a comma with no cell before or after it is an empty cell and is
// refused, so that "1,,2" doesn't pass as two cells.
inline std::vector<std::string> SplitCells(std::string_view row, const std::string& where) {
  std::vector<std::string> cells;
  size_t start = 0;
  while (true) {
    const size_t comma = row.find(',', start);
    const std::string_view piece =
        row.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    size_t before = cells.size();
    size_t i = 0;
    while (i < piece.size()) {
      while (i < piece.size() && (piece[i] == ' ' || piece[i] == '\t')) ++i;
      size_t j = i;
      while (j < piece.size() && piece[j] != ' ' && piece[j] != '\t') ++j;
      if (j > i) cells.emplace_back(piece.substr(i, j - i));
      i = j;
    }
    const bool has_comma_around = comma != std::string_view::npos || start > 0;
    if (has_comma_around && cells.size() == before) Fail(where + ": empty cell between commas");
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return cells;
}

// Turns rows of text into a grid of numbers read by `parse`.  Rows without
// cells must have been dropped by the caller; a row whose length differs
// from the first row's is refused (ragged data).
template <typename T, typename Parse>
Grid<T> ParseGrid(const std::vector<RowText>& rows, const std::string& what, Parse parse) {
  Grid<T> grid;
  for (const RowText& row : rows) {
    const std::vector<std::string> cells = SplitCells(row.text, what + ", " + row.where);
    if (grid.rows == 0) {
      grid.cols = static_cast<int64_t>(cells.size());
    } else if (static_cast<int64_t>(cells.size()) != grid.cols) {
      Fail(what + ": " + row.where + " has " + std::to_string(cells.size()) +
           (cells.size() == 1 ? " cell" : " cells") + ", the first row has " + std::to_string(grid.cols));
    }
    for (size_t j = 0; j < cells.size(); ++j)
      grid.cells.push_back(parse(cells[j], what + ", " + row.where + ", cell " + std::to_string(j + 1)));
    ++grid.rows;
  }
  if (grid.rows == 0) Fail(what + ": no numbers given");
  return grid;
}

// True for a line with nothing but blanks.
inline bool IsBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// Splits an option's text at ';' into rows; empty rows (a trailing ';')
// are dropped.
inline std::vector<RowText> RowsOfOption(std::string_view text) {
  std::vector<RowText> rows;
  size_t start = 0;
  int64_t number = 0;
  while (start <= text.size()) {
    const size_t semi = text.find(';', start);
    const size_t end = semi == std::string_view::npos ? text.size() : semi;
    const std::string_view row = text.substr(start, end - start);
    ++number;
    if (!IsBlank(row)) rows.push_back({std::string(row), "row " + std::to_string(number)});
    if (semi == std::string_view::npos) break;
    start = semi + 1;
  }
  return rows;
}

// Reads the rows of a data file: one row per line, blank lines and lines
// whose first non-blank character is '#' skipped, a trailing '\r' dropped.
inline std::vector<RowText> RowsOfFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) Fail("can't read '" + path + "'");
  std::vector<RowText> rows;
  std::string line;
  int64_t number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    rows.push_back({line, path + ":" + std::to_string(number)});
  }
  if (in.bad()) Fail("error reading '" + path + "'");
  return rows;
}

// Reads a table of counts: whole numbers, none negative.
inline Grid<int64_t> ParseCounts(const std::vector<RowText>& rows, const std::string& what) {
  return ParseGrid<int64_t>(rows, what, [](std::string_view cell, const std::string& where) {
    const int64_t value = ParseInteger(cell, where);
    if (value < 0) Fail(where + ": a count can't be negative");
    return value;
  });
}

// Reads a grid of real values.
inline Grid<double> ParseReals(const std::vector<RowText>& rows, const std::string& what) {
  return ParseGrid<double>(rows, what, [](std::string_view cell, const std::string& where) {
    return ParseReal(cell, where);
  });
}

// Reads one list of reals (scores, weights as reals): all cells of all
// rows, in order.
inline std::vector<double> ParseRealList(std::string_view text, const std::string& what) {
  std::vector<double> values;
  const std::vector<std::string> cells = SplitCells(text, what);
  for (size_t j = 0; j < cells.size(); ++j)
    values.push_back(ParseReal(cells[j], what + ", value " + std::to_string(j + 1)));
  if (values.empty()) Fail(what + ": no numbers given");
  return values;
}

// Reads one list of whole, non-negative weights.
inline std::vector<int64_t> ParseWeightList(std::string_view text, const std::string& what) {
  std::vector<int64_t> values;
  const std::vector<std::string> cells = SplitCells(text, what);
  for (size_t j = 0; j < cells.size(); ++j) {
    const std::string where = what + ", value " + std::to_string(j + 1);
    const int64_t value = ParseInteger(cells[j], where);
    if (value < 0) Fail(where + ": a weight can't be negative");
    values.push_back(value);
  }
  if (values.empty()) Fail(what + ": no numbers given");
  return values;
}

// Reorders a row-major grid into the engine's layout, row index fastest:
// cell (i, j) goes to position i + j * rows.
template <typename T>
std::vector<T> ColumnMajor(const Grid<T>& grid) {
  std::vector<T> out(grid.cells.size());
  for (int64_t i = 0; i < grid.rows; ++i)
    for (int64_t j = 0; j < grid.cols; ++j)
      out[static_cast<size_t>(i + j * grid.rows)] = grid.cells[static_cast<size_t>(i * grid.cols + j)];
  return out;
}

}  // namespace tq

#endif  // TQ_INPUT_H
