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

// (x - e)^2 / e, the term of Pearson's X2; nothing where e is 0.
double PearsonTerm(double e, int64_t x) {
  const double d = static_cast<double>(x) - e;
  return e <= 0.0 ? 0.0 : d * d / e;
}

void Require(bool ok, const char* what) {
  if (!ok) throw std::invalid_argument(what);
}

void CheckTable(const Table& t) {
  Require(t.rows >= 1 && t.cols >= 1 && t.cells.size() == static_cast<size_t>(t.rows) * t.cols,
          "table shape does not match its cells");
  for (int64_t x : t.cells) Require(x >= 0, "negative cell");
}

// Walks every table with the margins, filling the cells row by row. Cell
// (i, j) ranges over the values that leave the rest of its row able to fit in
// the columns on its right, so no branch is a dead end; the last row takes
// what the columns have left. Each cell multiplies a running long double by
// 1/x! and, for X2, adds its term to a running sum in row-major order, the
// order of PearsonX2. The leaf is called at each table with its probability
// and (when asked for) its X2, and returns false to end the walk.
template <class Leaf>
class Walker {
 public:
  Walker(const std::vector<int64_t>& rowTotals, const std::vector<int64_t>& colTotals,
         bool pearson, Leaf& leaf)
      : rowTotals_(rowTotals), colRem_(colTotals), pearson_(pearson), leaf_(leaf) {
    rows_ = static_cast<int>(rowTotals.size());
    cols_ = static_cast<int>(colTotals.size());
    Require(rows_ >= 1 && cols_ >= 1, "empty table");
    int64_t n = 0, nc = 0;
    for (int64_t r : rowTotals) {
      Require(r >= 0, "negative row total");
      n += r;
    }
    for (int64_t c : colTotals) {
      Require(c >= 0, "negative column total");
      nc += c;
    }
    Require(n == nc, "row and column totals differ in sum");
    std::vector<long double> logFact(static_cast<size_t>(n) + 1);
    invFact_.resize(logFact.size());
    for (int64_t k = 0; k <= n; ++k) {
      logFact[k] = lgammal(static_cast<long double>(k) + 1.0L);
      invFact_[k] = expl(-logFact[k]);
    }
    long double logConst = -logFact[n];
    for (int64_t r : rowTotals) logConst += logFact[r];
    for (int64_t c : colTotals) logConst += logFact[c];
    constant_ = expl(logConst);
    for (int64_t r : rowTotals)
      for (int64_t c : colTotals)
        expected_.push_back(n == 0 ? 0.0 : static_cast<double>(r) * static_cast<double>(c) / n);
    table_ = {rows_, cols_, std::vector<int64_t>(expected_.size(), 0)};
  }

  // The number of tables visited.
  uint64_t Run() {
    Fill(0, 0, rowTotals_[0], 1.0L, 0.0);
    return count_;
  }

 private:
  void Put(int i, int j, int64_t x, long double& w, double& stat) {
    const size_t at = static_cast<size_t>(i) * cols_ + j;
    table_.cells[at] = x;
    w *= invFact_[x];
    if (pearson_) stat += PearsonTerm(expected_[at], x);
  }

  void Fill(int i, int j, int64_t left, long double w, double stat) {
    if (i == rows_ - 1) {
      for (int k = 0; k < cols_; ++k) Put(i, k, colRem_[k], w, stat);
      ++count_;
      stop_ = !leaf_(table_, constant_ * w, stat);
      return;
    }
    int64_t right = 0;
    for (int k = j + 1; k < cols_; ++k) right += colRem_[k];
    const int64_t hi = std::min(left, colRem_[j]);
    for (int64_t x = std::max<int64_t>(0, left - right); x <= hi && !stop_; ++x) {
      long double wx = w;
      double sx = stat;
      Put(i, j, x, wx, sx);
      colRem_[j] -= x;
      if (j == cols_ - 1) {
        Fill(i + 1, 0, rowTotals_[i + 1], wx, sx);
      } else {
        Fill(i, j + 1, left - x, wx, sx);
      }
      colRem_[j] += x;
    }
  }

  const std::vector<int64_t>& rowTotals_;
  std::vector<int64_t> colRem_;  // what the columns have left for the rows below
  bool pearson_;
  Leaf& leaf_;
  int rows_ = 0, cols_ = 0;
  std::vector<long double> invFact_;  // 1 / k!
  std::vector<double> expected_;      // r_i c_j / N, row-major
  long double constant_ = 0;          // prod r_i! prod c_j! / N!
  Table table_;
  uint64_t count_ = 0;
  bool stop_ = false;
};

template <class Leaf>
uint64_t Walk(const std::vector<int64_t>& rowTotals, const std::vector<int64_t>& colTotals,
              bool pearson, Leaf leaf) {
  return Walker<Leaf>(rowTotals, colTotals, pearson, leaf).Run();
}

void AddToTail(TailResult& out, double stat, double obs, double tol, long double prob) {
  if (stat > obs + tol) {
    out.above += prob;
  } else if (stat < obs - tol) {
    out.below += prob;
  } else {
    out.equal += prob;
  }
}

Table DrawTable(std::mt19937_64& rng, int rows, int cols, int64_t n,
                const std::vector<double>& weights) {
  Require(rows >= 1 && cols >= 1 && n >= std::max(rows, cols),
          "RandomTable needs n >= max(rows, cols) >= 1");
  std::discrete_distribution<int> pick(weights.begin(), weights.end());
  Table t{rows, cols, std::vector<int64_t>(static_cast<size_t>(rows) * cols)};
  for (int attempt = 0; attempt < kMaxRandomDraws; ++attempt) {
    std::fill(t.cells.begin(), t.cells.end(), 0);
    for (int64_t b = 0; b < n; ++b) ++t.cells[pick(rng)];
    const std::vector<int64_t> r = RowTotals(t), c = ColTotals(t);
    if (std::count(r.begin(), r.end(), 0) + std::count(c.begin(), c.end(), 0) == 0) return t;
  }
  throw std::runtime_error("RandomTable: no table without empty rows or columns");
}

}  // namespace

Table MakeTable(const std::vector<std::vector<int64_t>>& rowsOfCells) {
  Table t{static_cast<int>(rowsOfCells.size()),
          rowsOfCells.empty() ? 0 : static_cast<int>(rowsOfCells[0].size()), {}};
  for (const auto& row : rowsOfCells) {
    Require(static_cast<int>(row.size()) == t.cols, "ragged rows");
    t.cells.insert(t.cells.end(), row.begin(), row.end());
  }
  return t;
}

std::vector<int64_t> ColumnMajor(const Table& table) {
  std::vector<int64_t> out(table.cells.size());
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j) out[static_cast<size_t>(j) * table.rows + i] = table.at(i, j);
  return out;
}

Table FromColumnMajor(int rows, int cols, const std::vector<int64_t>& columnMajor) {
  Require(columnMajor.size() == static_cast<size_t>(rows) * cols,
          "cell count does not match rows x cols");
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
  return Walk(rowTotals, colTotals, false, [&](const Table& t, long double p, double) {
    visit(t, p);
    return true;
  });
}

uint64_t CountTables(const std::vector<int64_t>& rowTotals,
                     const std::vector<int64_t>& colTotals, uint64_t limit) {
  uint64_t count = 0;
  Walk(rowTotals, colTotals, false,
       [&](const Table&, long double, double) { return ++count <= limit; });
  return count;
}

double PearsonX2(const Table& table) {
  CheckTable(table);
  const std::vector<int64_t> r = RowTotals(table), c = ColTotals(table);
  const double n = static_cast<double>(GrandTotal(table));
  double x2 = 0.0;
  for (int i = 0; i < table.rows; ++i)
    for (int j = 0; j < table.cols; ++j)
      x2 += PearsonTerm(n == 0.0 ? 0.0 : static_cast<double>(r[i]) * static_cast<double>(c[j]) / n,
                        table.at(i, j));
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
  const double obs = PearsonX2(observed);
  const double tol = relTol * std::fabs(obs) + absTol;
  TailResult out;
  out.tables = Walk(RowTotals(observed), ColTotals(observed), true,
                    [&](const Table&, long double prob, double stat) {
                      AddToTail(out, stat, obs, tol, prob);
                      return true;
                    });
  return out;
}

FisherResult FisherExact(const Table& observed) {
  FisherResult out;
  out.pointProb = expl(LogTableProbability(observed));
  const long double cut = out.pointProb * (1.0L + kFisherRelTie);
  out.tables = Walk(RowTotals(observed), ColTotals(observed), false,
                    [&](const Table&, long double prob, double) {
                      if (prob <= cut) out.pValue += prob;
                      return true;
                    });
  return out;
}

long double FisherPValue(const Table& observed) { return FisherExact(observed).pValue; }

Table RandomTable(std::mt19937_64& rng, int rows, int cols, int64_t n) {
  return DrawTable(rng, rows, cols, n,
                   std::vector<double>(static_cast<size_t>(std::max(rows, 0)) * std::max(cols, 0), 1.0));
}

Table RandomSkewedTable(std::mt19937_64& rng, int rows, int cols, int64_t n) {
  // Row and column factors between 1/4 and 4 on a log scale.
  std::uniform_real_distribution<double> logFactor(-std::log(4.0), std::log(4.0));
  std::vector<double> a(std::max(rows, 0)), b(std::max(cols, 0)), weights;
  for (double& v : a) v = std::exp(logFactor(rng));
  for (double& v : b) v = std::exp(logFactor(rng));
  for (double x : a)
    for (double y : b) weights.push_back(x * y);
  return DrawTable(rng, rows, cols, n, weights);
}

}  // namespace anvl::support
