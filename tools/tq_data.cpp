// tq_data.cpp - data options and their readers.
#include "tq_data.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "tq_catalog.h"

namespace tq {

int64_t ParseInteger(std::string_view token, const std::string& where) {
  const std::string text(token);
  if (text.empty()) Fail(where + ": empty value");
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0') Fail(where + ": '" + text + "' is not a whole number");
  if (errno == ERANGE) Fail(where + ": '" + text + "' is out of range");
  return static_cast<int64_t>(value);
}

// NaN and infinities are refused since no test has a use for them.
double ParseReal(std::string_view token, const std::string& where) {
  const std::string text(token);
  if (text.empty()) Fail(where + ": empty value");
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0') Fail(where + ": '" + text + "' is not a number");
  if (!std::isfinite(value) || (errno == ERANGE && std::fabs(value) > 1.0))
    Fail(where + ": '" + text + "' is not a finite number");
  return value;
}

std::string FormatNumber(double value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.6g", value);
  return buf;
}

namespace {

bool IsNumber(const std::string& s) {
  if (s.empty()) return false;
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  return *end == '\0' && std::isfinite(v);
}

bool IsMissingCell(const std::string& s) { return s.empty() || s == "NA" || s == "na" || s == "NaN"; }

std::string Trim(std::string_view s) {
  const size_t a = s.find_first_not_of(" \t\r");
  if (a == std::string_view::npos) return {};
  const size_t b = s.find_last_not_of(" \t\r");
  return std::string(s.substr(a, b - a + 1));
}

// One row of numbers or words with where it stands ("FILE:7", "row 2").
struct Row {
  std::string where;
  std::vector<std::string> cells;
};

// Rows, and the header when the first row names the columns.
struct Sheet {
  std::string name;  // the file or the option
  std::vector<std::string> header;
  std::vector<Row> rows;

  std::string Where(const Row& row, size_t column) const {
    std::string w = row.where + ", column " + std::to_string(column + 1);
    if (column < header.size() && !header[column].empty()) w += " ('" + header[column] + "')";
    return w;
  }
};

// Cells separated by blanks or by commas; a comma with no cell before or
// after it is an empty cell and is refused, so "1,,2" isn't two cells.
std::vector<std::string> SplitLoose(std::string_view row, const std::string& where) {
  std::vector<std::string> cells;
  size_t start = 0;
  while (true) {
    const size_t comma = row.find(',', start);
    const std::string_view piece = row.substr(start, comma == std::string_view::npos ? comma : comma - start);
    const size_t before = cells.size();
    for (size_t i = 0; i < piece.size();) {
      while (i < piece.size() && (piece[i] == ' ' || piece[i] == '\t' || piece[i] == '\r')) ++i;
      size_t j = i;
      while (j < piece.size() && piece[j] != ' ' && piece[j] != '\t' && piece[j] != '\r') ++j;
      if (j > i) cells.emplace_back(piece.substr(i, j - i));
      i = j;
    }
    if ((comma != std::string_view::npos || start > 0) && cells.size() == before)
      Fail(where + ": empty cell between commas");
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return cells;
}

// Cells separated by one delimiter; a cell in double quotes may hold the
// delimiter, and "" inside it stands for one quote.
std::vector<std::string> SplitDelimited(std::string_view line, char delimiter, const std::string& where) {
  std::vector<std::string> cells;
  std::string cell;
  bool quoted = false, was_quoted = false;
  for (size_t i = 0; i <= line.size(); ++i) {
    const char ch = i < line.size() ? line[i] : delimiter;
    if (quoted) {
      if (i == line.size()) Fail(where + ": a quote is not closed");
      if (ch == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        cell += '"';
        ++i;
      } else if (ch == '"') {
        quoted = false;
      } else {
        cell += ch;
      }
    } else if (ch == '"' && Trim(cell).empty()) {
      quoted = was_quoted = true;
      cell.clear();
    } else if (ch == delimiter) {
      cells.push_back(was_quoted ? cell : Trim(cell));
      cell.clear();
      was_quoted = false;
    } else {
      cell += ch;
    }
  }
  return cells;
}

// The delimiter of a file: by its extension, else by its first line (a tab,
// else a comma); 0 for cells separated by blanks or commas.
char DelimiterOf(const std::string& path, const std::string& first_line) {
  auto ends = [&](const char* ext) {
    const std::string e(ext);
    return path.size() > e.size() &&
           std::equal(e.rbegin(), e.rend(), path.rbegin(), [](char a, char b) { return a == std::tolower(b); });
  };
  if (ends(".csv")) return ',';
  if (ends(".tsv") || ends(".tab")) return '\t';
  if (first_line.find('\t') != std::string::npos) return '\t';
  if (first_line.find('"') != std::string::npos) return ',';
  return 0;
}

// Reads a file: blank lines and lines whose first non-blank character is
// '#' are skipped; a first row of words (but for its first cell) is the header.
Sheet ReadSheet(const std::string& path) {
  std::ifstream in(path);
  if (!in) Fail("can't read '" + path + "'");
  Sheet sheet{path, {}, {}};
  std::string line;
  char delimiter = 0;
  bool first = true;
  for (int64_t number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    const std::string where = path + ":" + std::to_string(number);
    if (first) delimiter = DelimiterOf(path, line);
    std::vector<std::string> cells = delimiter ? SplitDelimited(line, delimiter, where) : SplitLoose(line, where);
    // A header names every column but the first, which may name the row
    // labels: a first row with numbers beyond its first cell is data, so
    // that a mistyped count is refused rather than read as a header.
    if (first && !std::all_of(cells.begin(), cells.end(), IsNumber) &&
        std::none_of(cells.begin() + 1, cells.end(), IsNumber))
      sheet.header = std::move(cells);
    else
      sheet.rows.push_back({where, std::move(cells)});
    first = false;
  }
  if (in.bad()) Fail("error reading '" + path + "'");
  return sheet;
}

// The rows of an option's text, separated by ';'; empty rows are dropped.
Sheet SheetOfOption(std::string_view text, const std::string& option) {
  Sheet sheet{option, {}, {}};
  size_t start = 0;
  for (int64_t number = 1; start <= text.size(); ++number) {
    const size_t semi = std::min(text.find(';', start), text.size());
    const std::string where = option + ", row " + std::to_string(number);
    std::vector<std::string> cells = SplitLoose(text.substr(start, semi - start), where);
    if (!cells.empty()) sheet.rows.push_back({where, std::move(cells)});
    start = semi + 1;
  }
  return sheet;
}

// A table of counts from a sheet: whole numbers, none negative, every row
// as long as the first.  With a header, a first column of names (or an
// empty first header cell) labels the rows and isn't counted.
void ReadCounts(const Sheet& sheet, Call& c) {
  if (sheet.rows.empty()) Fail(sheet.name + ": no counts given");
  const bool labels = !sheet.header.empty() &&
                      (sheet.header[0].empty() || std::none_of(sheet.rows.begin(), sheet.rows.end(), [](const Row& r) {
                         return !r.cells.empty() && IsNumber(r.cells[0]);
                       }));
  const size_t first = labels ? 1 : 0;
  const size_t width = sheet.rows[0].cells.size();
  if (!sheet.header.empty() && sheet.header.size() != width)
    Fail(sheet.rows[0].where + ": " + std::to_string(width) + " cells under a header of " +
         std::to_string(sheet.header.size()));
  c.rows = static_cast<int64_t>(sheet.rows.size());
  c.cols = static_cast<int64_t>(width - first);
  if (c.cols < 1) Fail(sheet.name + ": no counts given");
  c.table.assign(static_cast<size_t>(c.rows * c.cols), 0);
  for (int64_t i = 0; i < c.rows; ++i) {
    const Row& row = sheet.rows[static_cast<size_t>(i)];
    if (row.cells.size() != width)
      Fail(row.where + ": " + std::to_string(row.cells.size()) + " cells, the first row has " + std::to_string(width));
    for (int64_t j = 0; j < c.cols; ++j) {
      const size_t column = first + static_cast<size_t>(j);
      const int64_t v = ParseInteger(row.cells[column], sheet.Where(row, column));
      if (v < 0) Fail(sheet.Where(row, column) + ": a count can't be negative");
      c.table[static_cast<size_t>(i + j * c.rows)] = v;
    }
  }
  c.table_form = true;
}

// The column that `name` gives: a header name, else a number from 1.
size_t FindColumn(const Sheet& sheet, const std::string& name, const char* option) {
  for (size_t j = 0; j < sheet.header.size(); ++j)
    if (sheet.header[j] == name) return j;
  char* end = nullptr;
  const long n = std::strtol(name.c_str(), &end, 10);
  const size_t width =
      sheet.header.empty() ? (sheet.rows.empty() ? 0 : sheet.rows[0].cells.size()) : sheet.header.size();
  if (!name.empty() && *end == '\0' && n >= 1 && static_cast<size_t>(n) <= width) return static_cast<size_t>(n - 1);
  std::string names;
  for (const std::string& h : sheet.header) names += (names.empty() ? "" : ", ") + h;
  Fail(std::string(option) + ": no column '" + name + "' in " + sheet.name +
       (names.empty() ? " (it has no header; give a number from 1 to " + std::to_string(width) + ")"
                      : " (columns: " + names + ")"));
}

// Raw observations: the value column and, when given, the group column of
// each row.  Rows with a missing value ("", NA) are skipped and counted.
void ReadObservations(const Test& test, const DataOptions& d, Call& c) {
  const Sheet sheet = ReadSheet(*d.data_file);
  const size_t vc = FindColumn(sheet, *d.value_column, "--value-column");
  const std::optional<size_t> gc =
      d.group_column ? std::optional<size_t>(FindColumn(sheet, *d.group_column, "--group-column")) : std::nullopt;
  std::vector<std::string> values, groups;
  int64_t skipped = 0;
  for (const Row& row : sheet.rows) {
    const size_t need = std::max(vc, gc.value_or(0)) + 1;
    if (row.cells.size() < need)
      Fail(row.where + ": " + std::to_string(row.cells.size()) + " cells, column " + std::to_string(need) +
           " is needed");
    if (IsMissingCell(row.cells[vc]) || (gc && IsMissingCell(row.cells[*gc]))) {
      ++skipped;
      continue;
    }
    if (!gc || !(test.reads & kTable)) ParseReal(row.cells[vc], sheet.Where(row, vc));
    values.push_back(row.cells[vc]);
    if (gc) groups.push_back(row.cells[*gc]);
  }
  if (values.empty()) Fail(sheet.name + ": no observations in column '" + *d.value_column + "'");
  std::string how = "column '" + *d.value_column + "'";
  if (gc) how += " by '" + *d.group_column + "'";
  if (skipped > 0)
    how += ", " + std::to_string(skipped) + (skipped == 1 ? " row" : " rows") + " with a missing value skipped";
  c.settings.push_back({"observations", "observations", how, std::nullopt});
  if (gc && (test.reads & kTable)) {
    const Tabulation t = Tabulate(groups, values);
    c.rows = t.rows;
    c.cols = t.cols;
    c.table = t.counts;
    c.table_form = true;
    auto list = [](const std::vector<std::string>& names) {
      std::string out;
      for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
      return out;
    };
    c.settings.push_back({"groups", "rows (groups)", list(t.groups), std::nullopt});
    c.settings.push_back({"levels", "columns (values)", list(t.levels), std::nullopt});
    c.level_values = t.level_values.value_or(std::vector<double>{});
    return;
  }
  if (gc) Fail(std::string(test.name) + " takes no --group-column: its case values form one row");
  c.case_rows = 1;
  c.case_cols = static_cast<int64_t>(values.size());
  c.case_data.clear();
  for (const std::string& v : values) c.case_data.push_back(std::strtod(v.c_str(), nullptr));
  c.weights.assign(values.size(), 1);
}

// Case values from --values (rows by ';', or one list cut by --case-rows)
// and their weights.
void ReadCaseValues(const DataOptions& d, Call& c) {
  const Sheet sheet = SheetOfOption(*d.values, "--values");
  if (sheet.rows.empty()) Fail("--values: no numbers given");
  std::vector<double> cells;  // row by row
  int64_t rows = static_cast<int64_t>(sheet.rows.size()), cols = 0;
  if (rows > 1) {
    cols = static_cast<int64_t>(sheet.rows[0].cells.size());
    if (d.case_rows && *d.case_rows != rows)
      Fail("--values has " + std::to_string(rows) + " rows, --case-rows says " + std::to_string(*d.case_rows));
  } else {
    rows = d.case_rows.value_or(1);
    const int64_t n = static_cast<int64_t>(sheet.rows[0].cells.size());
    if (rows < 1 || n % rows != 0)
      Fail("--values: " + std::to_string(n) + " values don't fill " + std::to_string(rows) + " rows evenly");
    cols = n / rows;
  }
  for (const Row& row : sheet.rows) {
    if (static_cast<int64_t>(row.cells.size()) != (sheet.rows.size() > 1 ? cols : rows * cols))
      Fail(row.where + ": " + std::to_string(row.cells.size()) + " values, the first row has " + std::to_string(cols));
    for (size_t j = 0; j < row.cells.size(); ++j)
      cells.push_back(ParseReal(row.cells[j], row.where + ", value " + std::to_string(j + 1)));
  }
  c.case_rows = rows;
  c.case_cols = cols;
  c.case_data.assign(cells.size(), 0.0);
  for (int64_t i = 0; i < rows; ++i)
    for (int64_t j = 0; j < cols; ++j)
      c.case_data[static_cast<size_t>(i + j * rows)] = cells[static_cast<size_t>(i * cols + j)];
  c.weights.assign(static_cast<size_t>(cols), 1);
  if (!d.weights) return;
  const Sheet w = SheetOfOption(*d.weights, "--weights");
  std::vector<std::string> all;
  for (const Row& row : w.rows) all.insert(all.end(), row.cells.begin(), row.cells.end());
  if (static_cast<int64_t>(all.size()) != cols)
    Fail("--weights: " + std::to_string(all.size()) + " weights for " + std::to_string(cols) + " value columns");
  for (size_t j = 0; j < all.size(); ++j) {
    const std::string where = "--weights, value " + std::to_string(j + 1);
    c.weights[j] = ParseInteger(all[j], where);
    if (c.weights[j] < 0) Fail(where + ": a weight can't be negative");
  }
}

// True when the rows of a sheet start with a name: a header whose first
// cell is empty, or a first cell that isn't a number in every row.
bool NamedRows(const Sheet& sheet) {
  if (!sheet.header.empty() && sheet.header[0].empty()) return true;
  return std::none_of(sheet.rows.begin(), sheet.rows.end(),
                      [](const Row& r) { return !r.cells.empty() && IsNumber(r.cells[0]); });
}

// Blocks by treatments: a block a row (or one list cut into `blocks`
// rows), every block as long as the first.  The engine reads the values
// block after block, which is the order of the rows.
void ReadBlocks(const Sheet& sheet, std::optional<int64_t> blocks, Call& c) {
  if (sheet.rows.empty()) Fail(sheet.name + ": no values given");
  const size_t first = NamedRows(sheet) ? 1 : 0;
  std::vector<double> values;
  int64_t rows = static_cast<int64_t>(sheet.rows.size());
  const size_t width = sheet.rows[0].cells.size();
  if (width <= first) Fail(sheet.rows[0].where + ": no values");
  if (rows > 1 && blocks && *blocks != rows)
    Fail(sheet.name + " has " + std::to_string(rows) + " blocks, --case-rows says " + std::to_string(*blocks));
  for (const Row& row : sheet.rows) {
    if (row.cells.size() != width)
      Fail(row.where + ": " + std::to_string(row.cells.size()) + " cells, the first block has " +
           std::to_string(width));
    for (size_t j = first; j < row.cells.size(); ++j) values.push_back(ParseReal(row.cells[j], sheet.Where(row, j)));
  }
  if (rows == 1) {
    rows = blocks.value_or(1);
    if (static_cast<int64_t>(values.size()) % rows != 0)
      Fail(sheet.name + ": " + std::to_string(values.size()) + " values don't fill " + std::to_string(rows) +
           " blocks evenly");
  }
  c.case_cols = rows;
  c.case_rows = static_cast<int64_t>(values.size()) / rows;
  c.case_data = values;
  c.weights.assign(static_cast<size_t>(rows), 1);
  c.settings.push_back({"blocks", "blocks x treatments",
                        std::to_string(c.case_cols) + " x " + std::to_string(c.case_rows), std::nullopt});
}

// One-way goodness of fit: a category a line, its observed count (whole,
// not negative) and its expected count.
void ReadFit(const Sheet& sheet, Call& c) {
  if (sheet.rows.empty()) Fail(sheet.name + ": no categories given");
  const size_t first = NamedRows(sheet) ? 1 : 0;
  c.weights.clear();
  c.case_data.clear();
  for (const Row& row : sheet.rows) {
    if (row.cells.size() != first + 2)
      Fail(row.where + ": " + std::to_string(row.cells.size()) + " cells; a category has " +
           (first ? "a name, " : "") + "an observed and an expected count");
    const int64_t n = ParseInteger(row.cells[first], sheet.Where(row, first));
    if (n < 0) Fail(sheet.Where(row, first) + ": a count can't be negative");
    c.weights.push_back(n);
    c.case_data.push_back(ParseReal(row.cells[first + 1], sheet.Where(row, first + 1)));
  }
  c.case_rows = 1;
  c.case_cols = static_cast<int64_t>(c.weights.size());
}

// A list of reals of the given length.
std::vector<double> ReadList(const std::string& text, const char* option, int64_t want, const char* of) {
  const Sheet sheet = SheetOfOption(text, option);
  std::vector<double> out;
  for (const Row& row : sheet.rows)
    for (size_t j = 0; j < row.cells.size(); ++j)
      out.push_back(ParseReal(row.cells[j], std::string(option) + ", value " + std::to_string(out.size() + 1)));
  if (static_cast<int64_t>(out.size()) != want)
    Fail(std::string(option) + ": " + std::to_string(out.size()) + " scores for " + std::to_string(want) + " " + of);
  return out;
}

}  // namespace

Tabulation Tabulate(const std::vector<std::string>& groups, const std::vector<std::string>& values) {
  Tabulation t;
  std::map<std::string, int64_t> group_index, level_index;
  for (const std::string& g : groups)
    if (group_index.emplace(g, static_cast<int64_t>(t.groups.size())).second) t.groups.push_back(g);
  const bool numeric = std::all_of(values.begin(), values.end(), IsNumber);
  if (numeric) {
    std::vector<std::pair<double, std::string>> distinct;
    for (const std::string& v : values) distinct.emplace_back(std::strtod(v.c_str(), nullptr), v);
    std::sort(distinct.begin(), distinct.end());
    t.level_values.emplace();
    for (const auto& [x, text] : distinct) {
      if (!t.level_values->empty() && t.level_values->back() == x) {
        level_index.emplace(text, static_cast<int64_t>(t.levels.size()) - 1);
        continue;
      }
      level_index.emplace(text, static_cast<int64_t>(t.levels.size()));
      t.levels.push_back(text);
      t.level_values->push_back(x);
    }
  } else {
    for (const std::string& v : values)
      if (level_index.emplace(v, static_cast<int64_t>(t.levels.size())).second) t.levels.push_back(v);
  }
  t.rows = static_cast<int64_t>(t.groups.size());
  t.cols = static_cast<int64_t>(t.levels.size());
  t.counts.assign(static_cast<size_t>(t.rows * t.cols), 0);
  for (size_t k = 0; k < values.size(); ++k)
    ++t.counts[static_cast<size_t>(group_index[groups[k]] + level_index[values[k]] * t.rows)];
  return t;
}

void AddDataOptions(CLI::App& app, unsigned reads, DataOptions& d) {
  const char* kGroup = "Data";
  std::vector<CLI::Option*> sources;
  if (reads & kTable) {
    sources.push_back(app.add_option("--table", d.table, "counts: rows separated by ';', cells by blanks or commas")
                          ->type_name("\"2 1; 0 3\"")
                          ->group(kGroup));
    sources.push_back(app.add_option("--table-file", d.table_file,
                                     "counts, one row per line: blanks, CSV (.csv) or TSV (.tsv); an optional "
                                     "header row and column of row names; # starts a comment")
                          ->type_name("FILE")
                          ->group(kGroup));
  }
  if (reads & kCases) {
    sources.push_back(
        app.add_option("--values", d.values, "case values; rows separated by ';', or one list cut by --case-rows")
            ->type_name("\"1 0 1\"")
            ->group(kGroup));
    app.add_option("--weights", d.weights, "whole-number weight of each value column [default: 1 each]")
        ->type_name("\"3 2 1\"")
        ->group(kGroup)
        ->needs(sources.back());
    app.add_option("--case-rows", d.case_rows, "rows of the case values given as one list")
        ->type_name("N")
        ->check(CLI::PositiveNumber.description(""))
        ->group(kGroup)
        ->needs(sources.back());
  }
  if (reads & kBlocks) {
    sources.push_back(app.add_option("--values", d.values,
                                     "blocks by treatments: a block a row, rows separated by ';', or one list "
                                     "cut into --case-rows blocks")
                          ->type_name("\"3 1 2; 2 3 1\"")
                          ->group(kGroup));
    app.add_option("--case-rows", d.case_rows, "blocks of the values given as one list (block after block)")
        ->type_name("N")
        ->check(CLI::PositiveNumber.description(""))
        ->group(kGroup)
        ->needs(sources.back());
    sources.push_back(app.add_option("--values-file", d.values_file,
                                     "blocks by treatments, a block a line: blanks, CSV (.csv) or TSV (.tsv); an "
                                     "optional header row and column of block names; # starts a comment")
                          ->type_name("FILE")
                          ->group(kGroup));
  }
  if (reads & kOneWay)
    sources.push_back(app.add_option("--fit-file", d.fit_file,
                                     "one-way goodness of fit, a category a line: observed count, expected count "
                                     "(blanks, CSV or TSV; an optional header row and column of names)")
                          ->type_name("FILE")
                          ->group(kGroup));
  CLI::Option* data = nullptr;
  if (!(reads & kBlocks)) {
  data =
      app.add_option("--data", d.data_file,
                     std::string("raw observations, one a row of a CSV or TSV file with a header row") +
                         ((reads & kTable) ? "; with --group-column the groups form the rows of the table" : ""))
          ->type_name("FILE")
          ->group(kGroup);
  sources.push_back(data);
  auto* value = app.add_option("--value-column", d.value_column, "column of the values: its name or number from 1")
                    ->type_name("COLUMN")
                    ->group(kGroup)
                    ->needs(data);
  data->needs(value);
  }
  if (data != nullptr && (reads & kTable))
    app.add_option("--group-column", d.group_column, "column of the groups: its name or number from 1")
        ->type_name("COLUMN")
        ->group(kGroup)
        ->needs(data);
  for (CLI::Option* a : sources)
    for (CLI::Option* b : sources)
      if (a != b) a->excludes(b);
  if (reads & (kColumnScores | kRowLengthScores))
    app.add_option("--scores", d.scores,
                   (reads & kRowLengthScores) ? "category scores, one per row [default: 1, 2, 3, ...]"
                                              : "column scores [default: 1, 2, 3, ..., or the values of --data]")
        ->type_name("\"1 2 3\"")
        ->group(kGroup);
  if (reads & kRowScores)
    app.add_option("--row-scores", d.row_scores, "row scores [default: 1, 2, 3, ...]")
        ->type_name("\"1 2 3\"")
        ->group(kGroup);
}

// Both score vectors are kept long enough for any procedure, so that the
// engine never reads past them: the user's scores, the values of tabulated
// observations, or 1, 2, 3, ...
void ReadScores(const Test& test, const DataOptions& d, Call& c) {
  const int64_t longest = std::max<int64_t>({c.rows, c.cols, 1});
  c.scores.assign(static_cast<size_t>(longest), 0.0);
  c.row_scores.assign(static_cast<size_t>(longest), 0.0);
  for (int64_t i = 0; i < longest; ++i) c.scores[i] = c.row_scores[i] = static_cast<double>(i + 1);
  if (static_cast<int64_t>(c.level_values.size()) <= longest)
    std::copy(c.level_values.begin(), c.level_values.end(), c.scores.begin());
  if (d.scores) {
    const bool by_rows = test.reads & kRowLengthScores;
    const std::vector<double> s =
        ReadList(*d.scores, "--scores", by_rows ? c.rows : c.cols, by_rows ? "rows" : "columns");
    std::copy(s.begin(), s.end(), c.scores.begin());
  }
  if (d.row_scores) {
    const std::vector<double> s = ReadList(*d.row_scores, "--row-scores", c.rows, "rows");
    std::copy(s.begin(), s.end(), c.row_scores.begin());
  }
}

void ReadData(const Test& test, const DataOptions& d, Call& c) {
  if (d.table) {
    ReadCounts(SheetOfOption(*d.table, "--table"), c);
  } else if (d.table_file) {
    ReadCounts(ReadSheet(*d.table_file), c);
  } else if (d.values && (test.reads & kBlocks)) {
    ReadBlocks(SheetOfOption(*d.values, "--values"), d.case_rows, c);
  } else if (d.values_file) {
    ReadBlocks(ReadSheet(*d.values_file), std::nullopt, c);
  } else if (d.fit_file) {
    ReadFit(ReadSheet(*d.fit_file), c);
  } else if (d.values) {
    ReadCaseValues(d, c);
  } else if (d.data_file) {
    if (!(test.reads & kCases) && !d.group_column)
      Fail(std::string(test.name) + " reads a table: give --group-column, whose groups become its rows");
    ReadObservations(test, d, c);
  } else if (!(test.reads & kOwnData)) {
    Fail(std::string(test.name) + " needs data: " +
         ((test.reads & kBlocks) ? "--values or --values-file"
          : (test.reads & kTable) ? "--table, --table-file, --data" + std::string((test.reads & kOneWay) ? ", --fit-file" : "")
                                  : "--values or --data") +
         " (see tq " + test.name + " --help)");
  }
}

}  // namespace tq
