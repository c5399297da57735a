// Brute-force reference for two-way tables with fixed margins: every R x C
// table of non-negative integers with the row and column totals, each with
// its hypergeometric probability P = prod r_i! prod c_j! / (N! prod x_ij!)
// formed in long double from lgammal; tails of any statistic, Pearson's X2
// and Fisher's p-value by plain summation.  Only the standard library is
// used, so that tests can hold the engine against it.
//
// Cost: some 20-80 ns per table (the generic EnumerateTails several times
// more).  5 x 6 tables with N = 20 number about 10^6; 5 x 5 with N = 30
// 10^7-10^8; 5 x 6 with N = 30 up to 2 x 10^9: check CountTables with a
// limit first.  N up to about 1500 (the long double range of 1/N!).
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace anvl::support {

// A two-way table in row-major order: cells[i * cols + j] is row i, column j.
struct Table {
  int rows = 0;
  int cols = 0;
  std::vector<int64_t> cells;

  int64_t at(int i, int j) const { return cells[static_cast<size_t>(i) * cols + j]; }
};

// Row-major table from a list of rows of equal length.
Table MakeTable(const std::vector<std::vector<int64_t>>& rowsOfCells);
// The cells in the engine's order: column-major, the row index running
// fastest; and back.
std::vector<int64_t> ColumnMajor(const Table& table);
Table FromColumnMajor(int rows, int cols, const std::vector<int64_t>& columnMajor);

std::vector<int64_t> RowTotals(const Table& table);
std::vector<int64_t> ColTotals(const Table& table);
int64_t GrandTotal(const Table& table);
// "r x c: a b c / d e f" for failure messages.
std::string Describe(const Table& table);
// Natural log of the hypergeometric probability of the table given its margins.
long double LogTableProbability(const Table& table);

// Called once per table with its probability; the Table is reused and valid
// only during the call.
using TableVisitor = std::function<void(const Table& table, long double prob)>;

// Visits every table with these margins (non-negative, with equal sums);
// returns the number visited.
uint64_t EnumerateTables(const std::vector<int64_t>& rowTotals,
                         const std::vector<int64_t>& colTotals, const TableVisitor& visit);
// The number of tables with these margins; counting stops past `limit`
// (limit + 1 is returned then).
uint64_t CountTables(const std::vector<int64_t>& rowTotals,
                     const std::vector<int64_t>& colTotals, uint64_t limit);

// Pearson's X2: the sum over cells of (x - e)^2 / e, e = r_i c_j / N;
// rows or columns with total 0 contribute nothing.
double PearsonX2(const Table& table);

// Probability mass of the tables whose statistic lies above obs + tol, within
// tol of obs, and below obs - tol, where tol = relTol * |obs| + absTol.
struct TailResult {
  long double above = 0;
  long double equal = 0;
  long double below = 0;
  uint64_t tables = 0;  // tables visited
};
using StatisticFn = std::function<double(const Table&)>;
TailResult EnumerateTails(const std::vector<int64_t>& rowTotals,
                          const std::vector<int64_t>& colTotals, const Table& observed,
                          const StatisticFn& statistic, double relTol, double absTol);
// Same, with the margins of the observed table.
TailResult EnumerateTails(const Table& observed, const StatisticFn& statistic, double relTol,
                          double absTol);
// EnumerateTails(observed, PearsonX2, ...) with X2 summed as the walk fills
// the cells: several times faster, for property tests over many tables.
TailResult PearsonTails(const Table& observed, double relTol, double absTol);

// Fisher's exact p-value: the sum of P over the tables with
// P <= P_obs * (1 + 1e-7), the relative tie rule of common statistics packages.
struct FisherResult {
  long double pValue = 0;
  long double pointProb = 0;  // P of the observed table
  uint64_t tables = 0;
};
FisherResult FisherExact(const Table& observed);
long double FisherPValue(const Table& observed);

// A random rows x cols table with total n and no empty row or column (needs
// n >= max(rows, cols)): n balls dropped into uniformly chosen cells, draws
// with an empty line rejected.
Table RandomTable(std::mt19937_64& rng, int rows, int cols, int64_t n);
// Same, with cell weights skewed by random row and column factors, which gives
// small expected counts and uneven margins more often.
Table RandomSkewedTable(std::mt19937_64& rng, int rows, int cols, int64_t n);

}  // namespace anvl::support
