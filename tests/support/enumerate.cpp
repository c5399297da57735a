#include "support/enumerate.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

namespace anvl::support {
namespace {

// Relative tie margin of Fisher's test: a table counts to the p-value when its
// probability is within this factor of the observed one (absorbs the rounding
// of tables that are exactly as probable).
constexpr long double kFisherRelTie = 1e-7L;

// Rejection draws of RandomTable before giving up: at n = rows = cols = 5 one
// draw in about 10^5 has no empty row or column; larger n is far easier.
constexpr int kMaxRandomDraws = 10'000'000;

// Walks every table with the given margins by filling cells in row-major
// order. Cell (i, j) of the first rows - 1 rows and columns - 1 columns ranges
// over the values that leave the rest of the table feasible (the remaining row
// fits into the columns on its right, the columns on its left and its own fit
// into the rows below), so no branch is a dead end. The last column of each
// row is forced, and each choice in the second-to-last row forces the cell
// below it. Every filled cell multiplies a running long double by 1/x! and
// adds cellTerm(i, j, x) to a running double, so a leaf gets its probability
// and its statistic in O(1).
template <class CellTerm, class Leaf>
class Walker {
 public:
  Walker(const std::vector<int64_t>& rowTotals, const std::vector<int64_t>& colTotals,
         CellTerm& cellTerm, Leaf& leaf)
      : rowTotals_(rowTotals), colTotals_(colTotals), cellTerm_(cellTerm), leaf_(leaf) {
    rows_ = static_cast<int>(rowTotals.size());
    cols_ = static_cast<int>(colTotals.size());
    int64_t n = 0, nc = 0;
    for (int64_t r : rowTotals) {
      if (r < 0) throw std::invalid_argument("negative row total");
      n += r;
    }
    for (int64_t c : colTotals) {
      if (c < 0) throw std::invalid_argument("negative column total");
      nc += c;
    }
    if (n != nc) throw std::invalid_argument("row and column totals differ in sum");
    if (rows_ < 1 || cols_ < 1) throw std::invalid_argument("empty table");
    std::vector<long double> logFact(static_cast<size_t>(n) + 1);
    invFact_.resize(static_cast<size_t>(n) + 1);
    for (int64_t k = 0; k <= n; ++k) {
      logFact[k] = lgammal(static_cast<long double>(k) + 1.0L);
      invFact_[k] = expl(-logFact[k]);
    }
    long double logConst = -logFact[n];
    for (int64_t r : rowTotals) logConst += logFact[r];
    for (int64_t c : colTotals) logConst += logFact[c];
    constant_ = expl(logConst);
    table_.rows = rows_;
    table_.cols = cols_;
    table_.cells.assign(static_cast<size_t>(rows_) * cols_, 0);
    colRem_ = colTotals;
  }

  void Run() {
    rowRem_ = rowTotals_[0];
    if (rows_ == 1) {
      // One row: the only table is the column totals.
      long double w = 1.0L;
      double stat = 0.0;
      for (int j = 0; j < cols_; ++j) {
        table_.cells[j] = colTotals_[j];
        w *= invFact_[colTotals_[j]];
        stat += cellTerm_(0, j, colTotals_[j]);
      }
      leaf_(table_, constant_ * w, stat);
      return;
    }
    Fill(0, 0, 1.0L, 0.0);
  }

  bool stop = false;

 private:
  void Fill(int i, int j, long double w, double stat) {
    if (stop) return;
    const size_t at = static_cast<size_t>(i) * cols_ + j;
    int64_t* cell = &table_.cells[at];
    const bool pairRow = i == rows_ - 2;  // the row above the forced last row
    if (j == cols_ - 1) {
      // Last column: the rest of the row, which the column can take.
      const int64_t x = rowRem_;
      *cell = x;
      w *= invFact_[x];
      stat += cellTerm_(i, j, x);
      if (pairRow) {
        const int64_t y = colRem_[j] - x;
        cell[cols_] = y;
        leaf_(table_, constant_ * (w * invFact_[y]), stat + cellTerm_(i + 1, j, y));
        return;
      }
      colRem_[j] -= x;
      const int64_t savedRow = rowRem_;
      rowRem_ = rowTotals_[i + 1];
      Fill(i + 1, 0, w, stat);
      rowRem_ = savedRow;
      colRem_[j] += x;
      return;
    }
    int64_t rightCapacity = 0;
    for (int k = j + 1; k < cols_; ++k) rightCapacity += colRem_[k];
    const int64_t lo = std::max<int64_t>(0, rowRem_ - rightCapacity);
    const int64_t hi = std::min(rowRem_, colRem_[j]);
    const int64_t col = colRem_[j];
    for (int64_t x = lo; x <= hi; ++x) {
      *cell = x;
      long double wx = w * invFact_[x];
      double sx = stat + cellTerm_(i, j, x);
      if (pairRow) {
        const int64_t y = col - x;
        cell[cols_] = y;
        wx *= invFact_[y];
        sx += cellTerm_(i + 1, j, y);
      }
      rowRem_ -= x;
      colRem_[j] = col - x;
      Fill(i, j + 1, wx, sx);
      rowRem_ += x;
      colRem_[j] = col;
      if (stop) return;
    }
  }

  const std::vector<int64_t>& rowTotals_;
  const std::vector<int64_t>& colTotals_;
  CellTerm& cellTerm_;
  Leaf& leaf_;
  int rows_ = 0, cols_ = 0;
  std::vector<long double> invFact_;  // 1 / k!
  long double constant_ = 0;          // prod r_i! prod c_j! / N!
  std::vector<int64_t> colRem_;
  int64_t rowRem_ = 0;
  Table table_;
};

struct NoTerm {
  double operator()(int, int, int64_t) const { return 0.0; }
};

// (x - e)^2 / e with e = r_i c_j / N, the terms of Pearson's X2. Looked up
// from a table per cell over x = 0 .. min(r_i, c_j), which the walk uses in
// its hot loop; the values are those that PearsonX2 adds up.
struct PearsonTerm {
  PearsonTerm(const std::vector<int64_t>& rowTotals, const std::vector<int64_t>& colTotals)
      : cols(static_cast<int>(colTotals.size())) {
    int64_t n = 0;
    for (int64_t r : rowTotals) n += r;
    offset.resize(rowTotals.size() * colTotals.size() + 1, 0);
    for (size_t i = 0; i < rowTotals.size(); ++i)
      for (size_t j = 0; j < colTotals.size(); ++j) {
        const size_t at = i * cols + j;
        const int64_t top = std::min(rowTotals[i], colTotals[j]);
        offset[at + 1] = offset[at] + top + 1;
        const double e = n == 0 ? 0.0
                                : static_cast<double>(rowTotals[i]) *
                                      static_cast<double>(colTotals[j]) / static_cast<double>(n);
        for (int64_t x = 0; x <= top; ++x) terms.push_back(Term(e, x));
      }
  }
  static double Term(double e, int64_t x) {
    if (e <= 0.0) return 0.0;
    const double d = static_cast<double>(x) - e;
    return d * d / e;
  }
  double operator()(int i, int j, int64_t x) const {
    return terms[offset[static_cast<size_t>(i) * cols + j] + x];
  }
  int cols;
  std::vector<size_t> offset;
  std::vector<double> terms;
};

void CheckTable(const Table& table) {
  if (table.rows < 1 || table.cols < 1 ||
      table.cells.size() != static_cast<size_t>(table.rows) * table.cols)
    throw std::invalid_argument("table shape does not match its cells");
  for (int64_t x : table.cells)
    if (x < 0) throw std::invalid_argument("negative cell");
}

void AddToTail(TailResult& out, double stat, double obs, double tol, long double prob) {
  if (stat > obs + tol)
    out.above += prob;
  else if (stat < obs - tol)
    out.below += prob;
  else
    out.equal += prob;
}

}  // namespace

Table MakeTable(const std::vector<std::vector<int64_t>>& rowsOfCells) {
  Table t;
  t.rows = static_cast<int>(rowsOfCells.size());
  t.cols = t.rows == 0 ? 0 : static_cast<int>(rowsOfCells[0].size());
  for (const auto& row : rowsOfCells) {
    if (static_cast<int>(row.size()) != t.cols) throw std::invalid_argument("ragged rows");
    t.cells.insert(t.cells.end(), row.begin(), row.end());
  }
  return t;
}

std::vector<int64_t> ColumnMajor(const Table& table) {
  std::vector<int64_t> out(table.cells.size());
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j)
      out[static_cast<size_t>(j) * table.rows + i] = table.at(i, j);
  return out;
}

Table FromColumnMajor(int rows, int cols, const std::vector<int64_t>& columnMajor) {
  if (columnMajor.size() != static_cast<size_t>(rows) * cols)
    throw std::invalid_argument("cell count does not match rows x cols");
  Table t{rows, cols, std::vector<int64_t>(columnMajor.size())};
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < cols; ++j)
      t.cells[static_cast<size_t>(i) * cols + j] = columnMajor[static_cast<size_t>(j) * rows + i];
  return t;
}

std::vector<int64_t> RowTotals(const Table& table) {
  std::vector<int64_t> r(table.rows, 0);
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j) r[i] += table.at(i, j);
  return r;
}

std::vector<int64_t> ColTotals(const Table& table) {
  std::vector<int64_t> c(table.cols, 0);
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j) c[j] += table.at(i, j);
  return c;
}

int64_t GrandTotal(const Table& table) {
  int64_t n = 0;
  for (int64_t x : table.cells) n += x;
  return n;
}

std::string Describe(const Table& table) {
  std::ostringstream os;
  os << table.rows << " x " << table.cols << ":";
  for (int i = 0; i < table.rows; ++i) {
    if (i > 0) os << " /";
    for (int j = 0; j < table.cols; ++j) os << ' ' << table.at(i, j);
  }
  return os.str();
}

long double LogTableProbability(const Table& table) {
  CheckTable(table);
  auto lf = [](int64_t k) { return lgammal(static_cast<long double>(k) + 1.0L); };
  long double s = -lf(GrandTotal(table));
  for (int64_t r : RowTotals(table)) s += lf(r);
  for (int64_t c : ColTotals(table)) s += lf(c);
  for (int64_t x : table.cells) s -= lf(x);
  return s;
}

uint64_t EnumerateTables(const std::vector<int64_t>& rowTotals,
                         const std::vector<int64_t>& colTotals, const TableVisitor& visit) {
  uint64_t count = 0;
  NoTerm term;
  auto leaf = [&](const Table& t, long double prob, double) {
    ++count;
    visit(t, prob);
  };
  Walker<NoTerm, decltype(leaf)> walker(rowTotals, colTotals, term, leaf);
  walker.Run();
  return count;
}

uint64_t CountTables(const std::vector<int64_t>& rowTotals,
                     const std::vector<int64_t>& colTotals, uint64_t limit) {
  uint64_t count = 0;
  NoTerm term;
  bool* stop = nullptr;
  auto leaf = [&](const Table&, long double, double) {
    if (++count > limit) *stop = true;
  };
  Walker<NoTerm, decltype(leaf)> walker(rowTotals, colTotals, term, leaf);
  stop = &walker.stop;
  walker.Run();
  return count;
}

double PearsonX2(const Table& table) {
  CheckTable(table);
  const std::vector<int64_t> r = RowTotals(table);
  const std::vector<int64_t> c = ColTotals(table);
  const double n = static_cast<double>(GrandTotal(table));
  double x2 = 0.0;
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j) {
      const double e = n == 0.0 ? 0.0 : static_cast<double>(r[i]) * static_cast<double>(c[j]) / n;
      x2 += PearsonTerm::Term(e, table.at(i, j));
    }
  return x2;
}

TailResult EnumerateTails(const std::vector<int64_t>& rowTotals,
                          const std::vector<int64_t>& colTotals, const Table& observed,
                          const StatisticFn& statistic, double relTol, double absTol) {
  CheckTable(observed);
  const double obs = statistic(observed);
  const double tol = relTol * std::fabs(obs) + absTol;
  TailResult out;
  out.tables = EnumerateTables(rowTotals, colTotals, [&](const Table& t, long double prob) {
    AddToTail(out, statistic(t), obs, tol, prob);
  });
  return out;
}

TailResult EnumerateTails(const Table& observed, const StatisticFn& statistic, double relTol,
                          double absTol) {
  CheckTable(observed);
  return EnumerateTails(RowTotals(observed), ColTotals(observed), observed, statistic, relTol,
                        absTol);
}

TailResult PearsonTails(const Table& observed, double relTol, double absTol) {
  CheckTable(observed);
  const std::vector<int64_t> rowTotals = RowTotals(observed);
  const std::vector<int64_t> colTotals = ColTotals(observed);
  const double obs = PearsonX2(observed);
  const double tol = relTol * std::fabs(obs) + absTol;
  PearsonTerm term(rowTotals, colTotals);
  TailResult out;
  auto leaf = [&](const Table&, long double prob, double stat) {
    ++out.tables;
    AddToTail(out, stat, obs, tol, prob);
  };
  Walker<PearsonTerm, decltype(leaf)> walker(rowTotals, colTotals, term, leaf);
  walker.Run();
  return out;
}

FisherResult FisherExact(const Table& observed) {
  CheckTable(observed);
  const long double logObs = LogTableProbability(observed);
  FisherResult out;
  out.pointProb = expl(logObs);
  const long double cut = out.pointProb * (1.0L + kFisherRelTie);
  NoTerm term;
  auto leaf = [&](const Table&, long double prob, double) {
    ++out.tables;
    if (prob <= cut) out.pValue += prob;
  };
  const std::vector<int64_t> rowTotals = RowTotals(observed);
  const std::vector<int64_t> colTotals = ColTotals(observed);
  Walker<NoTerm, decltype(leaf)> walker(rowTotals, colTotals, term, leaf);
  walker.Run();
  return out;
}

long double FisherPValue(const Table& observed) { return FisherExact(observed).pValue; }

namespace {

Table DrawTable(std::mt19937_64& rng, int rows, int cols, int64_t n,
                const std::vector<double>& weights) {
  if (rows < 1 || cols < 1 || n < std::max(rows, cols))
    throw std::invalid_argument("RandomTable needs n >= max(rows, cols) >= 1");
  std::discrete_distribution<int> pick(weights.begin(), weights.end());
  Table t{rows, cols, std::vector<int64_t>(static_cast<size_t>(rows) * cols)};
  for (int attempt = 0; attempt < kMaxRandomDraws; ++attempt) {
    std::fill(t.cells.begin(), t.cells.end(), 0);
    for (int64_t b = 0; b < n; ++b) ++t.cells[pick(rng)];
    bool full = true;
    for (int64_t r : RowTotals(t)) full = full && r > 0;
    for (int64_t c : ColTotals(t)) full = full && c > 0;
    if (full) return t;
  }
  throw std::runtime_error("RandomTable: no table without empty rows or columns");
}

}  // namespace

Table RandomTable(std::mt19937_64& rng, int rows, int cols, int64_t n) {
  return DrawTable(rng, rows, cols, n,
                   std::vector<double>(static_cast<size_t>(std::max(rows, 0)) * std::max(cols, 0), 1.0));
}

Table RandomSkewedTable(std::mt19937_64& rng, int rows, int cols, int64_t n) {
  // Row and column factors between 1/4 and 4 on a log scale.
  std::uniform_real_distribution<double> logFactor(-std::log(4.0), std::log(4.0));
  std::vector<double> a(std::max(rows, 0)), b(std::max(cols, 0));
  for (double& v : a) v = std::exp(logFactor(rng));
  for (double& v : b) v = std::exp(logFactor(rng));
  std::vector<double> weights(a.size() * b.size());
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t j = 0; j < b.size(); ++j) weights[i * b.size() + j] = a[i] * b[j];
  return DrawTable(rng, rows, cols, n, weights);
}

}  // namespace anvl::support
