#include "association/linear.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/host_library.h"
#include "frame/spill.h"
#include "network/lattice_pass.h"
#include "network/node_store.h"
#include "network/pearson.h"

namespace anvl::assoc {
namespace {

constexpr DriverTraits kLinearTraits{true, false, true, 0};
constexpr int64_t kPublishedCodes[] = {0, 47, 48, 41};
// The mark of a t statistic that has no value (a correlation of 0 from no
// variance, or of +-1), and how near a value must be to count as the mark.
constexpr double kNoT = -999999.0;
constexpr double kNoTReach = 0.1;
// Reciprocal of pi in single precision, as the series of Student's t uses it.
constexpr double kInversePi = 0.31830987334251404;
// A score within this of a whole number needs no further decimal step.
constexpr double kWholeScore = 1e-8;

// sum over j, and over i, of u_i v_j x_ij, skipping a column whose v_j is 0.
double LinearSum(const int64_t* x, int64_t rows, int64_t cols, const double* u, const double* v) {
  double sum = 0.0;
  for (int64_t j = 0; j < cols; ++j) {
    if (v[j] == 0.0) continue;
    for (int64_t i = 0; i < rows; ++i) sum += u[i] * v[j] * static_cast<double>(x[i + j * rows]);
  }
  return sum;
}

// Mean U V / N and variance sum R_i (u_i - U/N)^2 sum C_j (v_j - V/N)^2 / (N - 1)
// of the linear sum under fixed margins.
void LinearMoments(const std::vector<int64_t>& R, const std::vector<int64_t>& C, int64_t N,
                   const std::vector<double>& u, const std::vector<double>& v, double& mean,
                   double& variance) {
  const double n = static_cast<double>(N);
  double U = 0.0, V = 0.0;
  for (size_t i = 0; i < R.size(); ++i) U += static_cast<double>(R[i]) * u[i];
  for (size_t j = 0; j < C.size(); ++j) V += static_cast<double>(C[j]) * v[j];
  double su = 0.0, sv = 0.0;
  for (size_t i = 0; i < R.size(); ++i) su += static_cast<double>(R[i]) * (u[i] - U / n) * (u[i] - U / n);
  for (size_t j = 0; j < C.size(); ++j) sv += static_cast<double>(C[j]) * (v[j] - V / n) * (v[j] - V / n);
  mean = U * V / n;
  variance = su * sv / (n - 1.0);
}

// Mid-ranks of categories with these totals: (R_1 + 1) / 2, then each the
// previous plus half of both totals.
std::vector<double> MidRanks(const std::vector<int64_t>& totals) {
  std::vector<double> r(totals.size());
  r[0] = (static_cast<double>(totals[0]) + 1.0) / 2.0;
  for (size_t i = 1; i < totals.size(); ++i)
    r[i] = r[i - 1] + static_cast<double>(totals[i - 1] + totals[i]) / 2.0;
  return r;
}

// Decimal steps of a score vector: each score is multiplied by ten until it
// is whole, the steps adding up over the scores, at most `limit` in all.
int ScoreDigits(const std::vector<double>& s, int limit) {
  int k = 0;
  for (double y : s) {
    if (k >= limit) break;
    while (k < limit && std::fabs(y - std::round(y)) > kWholeScore) {
      y *= 10.0;
      ++k;
    }
  }
  return k;
}

// Shifts the scores to a least score of 0 and rounds them to the lattice
// of 10^-k that ScoreDigits gives.  Returns the rounded scores.
std::vector<double> ShiftAndRound(std::vector<double>& s, int limit) {
  const double scale = std::pow(10.0, ScoreDigits(s, limit));
  const double least = *std::min_element(s.begin(), s.end());
  for (double& x : s) x -= least;
  std::vector<double> w(s.size());
  for (size_t i = 0; i < s.size(); ++i) w[i] = std::round(s[i] * scale) / scale;
  return w;
}

// Sorts the margins by ascending score, the totals moving with their
// scores: for each position, every later element with a smaller score is
// swapped in.
void SortByScore(std::vector<double>& score, std::vector<int64_t>& total) {
  for (size_t i = 0; i < score.size(); ++i)
    for (size_t j = i + 1; j < score.size(); ++j)
      if (score[j] < score[i]) {
        std::swap(score[i], score[j]);
        std::swap(total[i], total[j]);
      }
}

struct Correlation {
  double r = 0.0, ase = 0.0, t = kNoT, p = 1.0;
};

// Pearson's r on the scores, its asymptotic standard error and the t test.
Correlation Pearson(const std::vector<int64_t>& x, int64_t rows, int64_t cols,
                    const std::vector<double>& u, const std::vector<double>& v, int64_t N) {
  const double n = static_cast<double>(N);
  double ubar = 0.0, vbar = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double c = static_cast<double>(x[i + j * rows]);
      ubar += c * u[i];
      vbar += c * v[j];
    }
  ubar /= n;
  vbar /= n;
  double su = 0.0, sv = 0.0, sp = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double c = static_cast<double>(x[i + j * rows]), a = u[i] - ubar, b = v[j] - vbar;
      su += c * a * a;
      sv += c * b * b;
      sp += c * a * b;
    }
  Correlation out;
  const double w = su * sv;
  if (w <= 0.0) return out;
  const double q = std::sqrt(w);
  out.r = sp / q;
  double s = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double a = u[i] - ubar, b = v[j] - vbar;
      const double e = q * a * b - (out.r / 2.0) * (su * b * b + sv * a * a);
      s += static_cast<double>(x[i + j * rows]) * e * e;
    }
  out.ase = std::sqrt(s / (w * q * q));
  if (std::fabs(out.r) == 1.0) return out;
  out.t = out.r / std::sqrt(1.0 - out.r * out.r) * std::sqrt(n - 2.0);
  out.p = N < 3 ? 1.0 : StudentLowerTail(out.t, N - 2);
  return out;
}

// Spearman's rs from the mid-ranks u, v of the margins, its asymptotic
// standard error and the t test.
Correlation Spearman(const std::vector<int64_t>& x, int64_t rows, int64_t cols,
                     const std::vector<double>& u, const std::vector<double>& v,
                     const std::vector<int64_t>& R, const std::vector<int64_t>& C, int64_t N) {
  const double n = static_cast<double>(N), mid = (n + 1.0) / 2.0;
  std::vector<double> ri(rows), cj(cols);
  for (int64_t i = 0; i < rows; ++i) ri[i] = u[i] - mid;
  for (int64_t j = 0; j < cols; ++j) cj[j] = v[j] - mid;
  auto cell = [&](int64_t i, int64_t j) { return static_cast<double>(x[i + j * rows]); };
  double v0 = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) v0 += cell(i, j) * ri[i] * cj[j];
  double F = n * n * n, G = n * n * n;
  for (int64_t r : R) F -= static_cast<double>(r) * static_cast<double>(r) * static_cast<double>(r);
  for (int64_t c : C) G -= static_cast<double>(c) * static_cast<double>(c) * static_cast<double>(c);
  Correlation out;
  const double root = std::sqrt(F * G);
  if (!(root > 0.0)) return out;
  const double w = root / 12.0;
  out.r = v0 / w;
  // Row sums of x C(l), column sums of x R(k), and the sums over the rows
  // below and the columns to the right.
  std::vector<double> row_c(rows, 0.0), col_r(cols, 0.0), below(rows + 1, 0.0),
      right(cols + 1, 0.0);
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      row_c[i] += cell(i, j) * cj[j];
      col_r[j] += cell(i, j) * ri[i];
    }
  for (int64_t i = rows - 1; i >= 0; --i) below[i] = below[i + 1] + row_c[i];
  for (int64_t j = cols - 1; j >= 0; --j) right[j] = right[j + 1] + col_r[j];
  double sum_xv = 0.0, sum_xw = 0.0, sum_xz2 = 0.0;
  std::vector<double> z(static_cast<size_t>(rows * cols));
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double Cj = static_cast<double>(C[j]), Ri = static_cast<double>(R[i]);
      const double wij = (-n / (96.0 * w)) * (F * Cj * Cj + G * Ri * Ri);
      const double vij = n * (ri[i] * cj[j] + 0.5 * row_c[i] + 0.5 * col_r[j] + below[i + 1] +
                              right[j + 1]);
      z[i + j * rows] = w * vij - v0 * wij;
      sum_xv += cell(i, j) * vij;
      sum_xw += cell(i, j) * wij;
    }
  const double zbar = w * sum_xv / n - v0 * sum_xw / n;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) sum_xz2 += cell(i, j) * z[i + j * rows] * z[i + j * rows];
  out.ase = std::sqrt((sum_xz2 - n * zbar * zbar) / (n * n * w * w * w * w));
  if (std::fabs(out.r) == 1.0) return out;
  out.t = std::sqrt(n - 2.0) * out.r / std::sqrt(1.0 - out.r * out.r);
  out.p = StudentLowerTail(out.t, N - 2);
  return out;
}

}  // namespace

double StudentLowerTail(double t, int64_t f) {
  if (f <= 0) return 0.0;
  const double df = static_cast<double>(f);
  const double y = t / std::sqrt(df), q = df / (t * t + df);
  double s = 1.0, e = 1.0;
  for (int64_t a = 2 + f % 2; a <= f - 2; a += 2) {
    e = e * q * static_cast<double>(a - 1) / static_cast<double>(a);
    const double before = s;
    s += e;
    if (s == before) break;
  }
  if (f % 2 == 0) return 0.5 + 0.5 * y * std::sqrt(q) * s;
  if (f == 1) return kInversePi * std::atan(y) + 0.5;
  return kInversePi * (std::atan(y) + y * q * s) + 0.5;
}

namespace {
// The least (ascending) or greatest sum of g_s h_j y_sj over tables y of
// the stages [from, to) with the key column totals `col`: stages from the
// last one down, each filled over the key columns in ascending order for
// the least sum (the antitone filling) and descending for the greatest
// (the monotone one).
double GreedySum(const LinearMember& mb, const int64_t* col, int from, int to, bool ascending) {
  int64_t rem[net::kMaxDigits];
  for (int j = 0; j < mb.K; ++j) rem[j] = col[j];
  double sum = 0.0;
  for (int s = to - 1; s >= from; --s) {
    int64_t b = mb.B[s];
    for (int i = 0; i < mb.K && b > 0; ++i) {
      const int j = ascending ? i : mb.K - 1 - i;
      const int64_t y = std::min(rem[j], b);
      sum += mb.g[s] * mb.h[j] * static_cast<double>(y);
      rem[j] -= y;
      b -= y;
    }
  }
  return sum;
}
}  // namespace

void LinearMember::NodeBounds(int t, const int64_t* m, double& shortest, double& longest) const {
  int64_t rem[net::kMaxDigits];
  for (int j = 0; j < K; ++j) rem[j] = A[j] - m[j];
  shortest = GreedySum(*this, rem, t, S, true);
  longest = GreedySum(*this, rem, t, S, false);
}

void LinearMember::PastBounds(int t, const int64_t* m, double& least, double& greatest) const {
  least = GreedySum(*this, m, 0, t, true);
  greatest = GreedySum(*this, m, 0, t, false);
}

int LinearRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                        const double* lf) {
  rows_ = rows;
  cols_ = cols;
  // The scores, copied: the host's arrays stay as they are.
  std::vector<double> u(rows), v(cols);
  for (int64_t i = 0; i < rows; ++i)
    u[i] = row_scores_ ? row_scores_[i] : static_cast<double>(i + 1);
  for (int64_t j = 0; j < cols; ++j)
    v[j] = col_scores_ ? col_scores_[j] : static_cast<double>(j + 1);
  for (double s : u)
    if (!std::isfinite(s)) return static_cast<int>(fail::kOutsideModel);
  for (double s : v)
    if (!std::isfinite(s)) return static_cast<int>(fail::kOutsideModel);

  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  if (selector_ == kSpearmanCorrelation) {
    u = MidRanks(row_totals_);
    v = MidRanks(col_totals_);
  }
  const int64_t* x = table.data();
  t0_ = LinearSum(x, rows, cols, u.data(), v.data());
  LinearMoments(row_totals_, col_totals_, N_, u, v, t0_mean_, t0_var_);
  if (!std::isfinite(t0_) || !std::isfinite(t0_mean_) || !std::isfinite(t0_var_))
    return static_cast<int>(fail::kOutsideModel);  // scores too large for the sums

  double mean = 0.0;  // of the published value
  if (selector_ == kLinearByLinear) {
    statistic_ = t0_;
    mean = t0_mean_;
    if (t0_var_ <= 0.0) degenerate_ = true;
  } else {
    const Correlation c = selector_ == kPearsonCorrelation
                              ? Pearson(table, rows, cols, u, v, N_)
                              : Spearman(table, rows, cols, u, v, row_totals_, col_totals_, N_);
    statistic_ = c.r;
    ase_ = c.ase;
    standardized_ = c.t;
    p_ = c.p;
  }
  high_side_ = statistic_ > mean;
  table_probability_ = std::exp(TableLogProbability(table, row_totals_, col_totals_, N_, lf));
  if (degenerate_) return 0;

  // The working scores: shifted to a least score of 0, rounded to the lattice.
  const int limit = static_cast<int>(Setting(setting::kScoreDigitLimit));
  wu_ = ShiftAndRound(u, limit);
  wv_ = ShiftAndRound(v, limit);
  if (selector_ == kLinearByLinear) {
    double m, var;
    LinearMoments(row_totals_, col_totals_, N_, u, v, m, var);
    standardized_ = (LinearSum(x, rows, cols, u.data(), v.data()) - m) / std::sqrt(var);
    p_ = PRBNRM(standardized_);
  }
  const auto zero = [](double s) { return s == 0.0; };
  if (std::all_of(wu_.begin(), wu_.end(), zero) || std::all_of(wv_.begin(), wv_.end(), zero)) {
    degenerate_ = true;
    return 0;
  }
  t_ = LinearSum(x, rows, cols, wu_.data(), wv_.data());
  double m, var;
  LinearMoments(row_totals_, col_totals_, N_, wu_, wv_, m, var);
  if (t_ > m) {
    high_bound_ = t_;
    low_bound_ = m + (m - t_);
  } else {
    low_bound_ = t_;
    high_bound_ = m + (m - t_);
  }
  return 0;
}

void LinearRun::PublishAsymptotic() const {
  PublishRunWords(kPublishedCodes[selector_]);
  Publish(slot::kStatistic, statistic_);
  if (selector_ == kLinearByLinear) {
    Publish(slot::kNullMean, t0_mean_);
    Publish(slot::kNullSd, std::sqrt(std::max(0.0, t0_var_)));
    Publish(slot::kStandardized, standardized_);
  } else {
    Publish(slot::kNullSd, ase_);
    Publish(slot::kStandardized, standardized_,
            std::fabs(standardized_ - kNoT) <= kNoTReach ? kStatusNoValue : kStatusPublished);
    PublishInterval(statistic_, ase_, -1.0, 1.0);
    SetWord(word::kSampleTotal, N_);
    SetWord(word::kDegreesOfFreedom, N_ - 2);
  }
  PublishSide(high_side_);
  PublishTwoCutAsymptotic(high_side_ ? 1.0 - p_ : p_);
}

namespace {
// The least e (at most 30) such that every score times 2^e is whole, or -1.
int DyadicExponent(const std::vector<double>& scores) {
  for (int e = 0; e <= 30; ++e) {
    const bool whole = std::all_of(scores.begin(), scores.end(), [e](double x) {
      const double y = std::ldexp(x, e);
      return y == std::floor(y);
    });
    if (whole) return e;
  }
  return -1;
}
// Largest value, in lattice steps, for which two distinct lattice values
// are always farther apart than the relative merge tolerance.
constexpr double kLatticeReach = 0.5 / LinearMember::kMergeTolerance;
}  // namespace

int LinearRun::Exact(const double* lf, net::PassResult& pass, ExactForm form,
                     bool* lattice) const {
  if (lattice != nullptr) *lattice = false;
  if (std::max(rows_, cols_) > net::kMaxStages) return -1;
  // The shorter dimension is the key; each side by ascending score.
  const bool rows_key = rows_ <= cols_;
  std::vector<double> h = rows_key ? wu_ : wv_, g = rows_key ? wv_ : wu_;
  std::vector<int64_t> A = rows_key ? row_totals_ : col_totals_;
  std::vector<int64_t> B = rows_key ? col_totals_ : row_totals_;
  SortByScore(h, A);
  SortByScore(g, B);
  net::Network net;
  net.SetMargins(std::move(A), std::move(B), lf, false);
  int64_t limit = 0;
  if (net::EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  const LinearMember member{net.K, net.S, h.data(), g.data(), net.A.data(), net.B.data()};

  // The lattice form: scores that are whole multiples of powers of 1/2,
  // and sums small enough that distinct values never merge.  Its bands may
  // take four times the memory budget, at most 1 GiB beyond it; past that
  // the tree form runs.
  const int eh = DyadicExponent(h), eg = DyadicExponent(g);
  if (form == ExactForm::kAny && eh >= 0 && eg >= 0) {
    const double scale = std::ldexp(1.0, eh + eg);
    const std::vector<int64_t> zero(static_cast<size_t>(net.K), 0);
    double least = 0.0, greatest = 0.0;
    member.NodeBounds(0, zero.data(), least, greatest);
    if (greatest * scale < kLatticeReach) {
      const double budget = static_cast<double>(MemoryBudget());
      const int64_t cap =
          static_cast<int64_t>(std::min(4.0 * budget, budget + 1073741824.0) / 9.0);
      const int code =
          net::LatticeForwardPass(net, member, scale, high_bound_, low_bound_, cap, pass);
      if (code != net::kLatticeTooLarge) {
        if (lattice != nullptr) *lattice = true;
        return code;
      }
    }
  }
  return net::ForwardPass(net, member, high_bound_, pass, low_bound_);
}

net::TwoCounts LinearRun::Hit::operator()(const int64_t* table) const {
  const LinearRun& r = *run;
  const double t = LinearSum(table, r.rows_, r.cols_, r.wu_.data(), r.wv_.data());
  net::TwoCounts hit;
  hit.one_sided = r.standardized_ < 0.0 ? t <= r.low_bound_ : t >= r.high_bound_;
  hit.two_sided = t >= r.high_bound_ || t <= r.low_bound_;
  return hit;
}

void LinearDriver(const CallArgs& args) {
  TableDriver(args, kLinearTraits, {}, [&args](const RunStore& st) {
    return LinearRun(static_cast<int>(st.run_selector), args.row_scores, args.scores);
  });
}

}  // namespace anvl::assoc
