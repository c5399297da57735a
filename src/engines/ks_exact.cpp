#include "engines/ks_exact.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "frame/failure_codes.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "kernel/quad.h"

namespace anvl::eng {
namespace {

// The alternating one-sided sum stops once a term moves it by no more
// than this many units in the last place.
constexpr int64_t kOneSidedStopUlps = 4096;
// Conover's tables: a distribution value within this relative margin of a
// threshold counts as reaching it.
constexpr double kConoverMargin = 1e-10;
// A quantity within this relative margin of a whole number counts as whole.
constexpr double kWholeMargin = 1e-10;
// Conover's tail stands when the path sum confirms it to this fraction.
constexpr double kConoverTrust = 1e-12;
// The limiting series stops at the first term at most this large.
constexpr double kLimitTermFloor = 1e-12;
// Below this z the limiting two-sided tail is 1 to within 1e-22, and the
// series would need thousands of terms to say so.
constexpr double kLimitSmallZ = 0.15;

double ExpOrZero(double e) { return e < kLogUnderflow ? 0.0 : std::exp(e); }

// A square matrix, row-major, with the log of the factor that has been
// divided out of it.
struct ScaledMatrix {
  std::vector<double> a;
  double log_scale = 0.0;
};

// Divides the matrix by its largest absolute entry when that exceeds 1.
void Normalise(ScaledMatrix& s) {
  double g = 0.0;
  for (double x : s.a) g = std::fmax(g, std::fabs(x));
  if (g > 1.0) {
    ANVL_DSCAL(static_cast<int64_t>(s.a.size()), 1.0 / g, s.a.data(), 1);
    s.log_scale += std::log(g);
  }
}

// c := a b for m x m row-major matrices.  Each entry is the dot product of
// a row of a with a column of b, summed in the order of the inner index
// as a dot product would; the loops run row by row so that the compiler
// can vectorise across the columns.  Zero entries of a (most of H) add
// nothing and are skipped.
void Multiply(const double* __restrict a, const double* __restrict b, double* __restrict c,
              int64_t m) {
  for (int64_t i = 0; i < m; ++i) {
    double* __restrict row = c + i * m;
    for (int64_t j = 0; j < m; ++j) row[j] = 0.0;
    for (int64_t l = 0; l < m; ++l) {
      const double x = a[i * m + l];
      if (x == 0.0) continue;
      const double* __restrict bl = b + l * m;
      for (int64_t j = 0; j < m; ++j) row[j] += x * bl[j];
    }
  }
}

// Durbin's matrix for k, m = 2k + 1 and h = 1 + k - n d.
void BuildDurbin(int64_t m, double h, std::vector<double>& H) {
  // inv_fact[i] = 1 / i!, underflowing to 0 beyond 170.
  std::vector<double> inv_fact(static_cast<size_t>(m) + 1);
  inv_fact[0] = 1.0;
  for (int64_t i = 1; i <= m; ++i) inv_fact[i] = inv_fact[i - 1] / static_cast<double>(i);
  auto at = [&](int64_t i, int64_t j) -> double& { return H[(i - 1) * m + (j - 1)]; };
  std::fill(H.begin(), H.end(), 0.0);
  for (int64_t i = 1; i <= m - 1; ++i)
    for (int64_t j = 2; j <= std::min(i + 1, m); ++j) at(i, j) = inv_fact[i - j + 1];
  for (int64_t i = 1; i <= m - 1; ++i)
    at(i, 1) = (1.0 - std::pow(h, static_cast<double>(i))) * inv_fact[i];
  for (int64_t j = 2; j <= m; ++j)
    at(m, j) = (1.0 - std::pow(h, static_cast<double>(m - j + 1))) * inv_fact[m - j + 1];
  const double q = 2.0 * h - 1.0 > 0.0 ? std::pow(2.0 * h - 1.0, static_cast<double>(m)) : 0.0;
  at(m, 1) = (1.0 - 2.0 * std::pow(h, static_cast<double>(m)) + q) * inv_fact[m];
}

// f_j of Conover's sums in a walk down (upper side) or up (lower side)
// the table; entries of 0.0 where the walk has run out.
std::vector<double> UpperThresholds(int64_t n, double d, const std::vector<double>& cdf,
                                    int64_t* J) {
  const double dn = static_cast<double>(n);
  int64_t last = static_cast<int64_t>(dn * (1.0 - d));
  if (static_cast<double>(last) * (1.0 - d) >= dn) --last;
  *J = last;
  std::vector<double> f(last < 0 ? 0 : static_cast<size_t>(last) + 1, 0.0);
  int64_t idx = static_cast<int64_t>(cdf.size()) - 1;
  for (int64_t j = 0; j <= last; ++j) {
    const double t = (1.0 - d) - static_cast<double>(j) / dn;
    while (idx >= 0 && !(cdf[idx] - t <= kConoverMargin * cdf[idx])) --idx;
    f[j] = idx >= 0 ? cdf[idx] : 0.0;
  }
  return f;
}

std::vector<double> LowerThresholds(int64_t n, double d, const std::vector<double>& cdf,
                                    int64_t* J) {
  const double dn = static_cast<double>(n);
  const double x = dn * (1.0 - d);
  int64_t last = static_cast<int64_t>(x);
  if (std::fabs(x - std::trunc(x)) < kWholeMargin * std::fabs(x))
    last = static_cast<int64_t>(std::llround(x)) - 1;
  *J = last;
  std::vector<double> f(last < 0 ? 0 : static_cast<size_t>(last) + 1, 0.0);
  const int64_t end = static_cast<int64_t>(cdf.size()) - 1;  // the last entry is left out
  int64_t idx = 0;
  for (int64_t j = 0; j <= last; ++j) {
    const double t = d + static_cast<double>(j) / dn;
    while (idx < end && !(t - cdf[idx] <= kConoverMargin * cdf[idx])) ++idx;
    f[j] = idx < end ? 1.0 - cdf[idx] : 0.0;
  }
  return f;
}

// T = sum_{j <= J} C(n, j) c_j f_j^(n-j) with c_0 = 1 and
// c_k = 1 - sum_{j < k} C(k, j) c_j f_j^(k-j), in quadruple precision.
ConoverTail ConoverSum(int64_t n, int64_t J, const std::vector<double>& f) {
  ConoverTail out;
  if (J < 0) return out;
  int64_t jp = -1;  // largest j with f_j > 0; f is non-increasing
  for (int64_t j = 0; j <= J; ++j)
    if (f[j] > 0.0) jp = j;
  std::vector<Quad> c(static_cast<size_t>(J) + 1, QuadFromDouble(0.0));
  std::vector<Quad> fq(static_cast<size_t>(J) + 1), pw(static_cast<size_t>(J) + 1);
  for (int64_t j = 0; j <= J; ++j) fq[j] = QuadFromDouble(f[j]);
  const Quad one = QuadFromDouble(1.0);
  c[0] = one;
  // pw[j] = f_j^(k-j) for the current k, advanced by one factor per k.
  for (int64_t k = 1; k <= jp; ++k) {
    pw[k - 1] = one;
    Quad sum = QuadFromDouble(0.0), binom = one;  // C(k, 0)
    for (int64_t j = 0; j < k; ++j) {
      if (j > 0)
        binom = QuadDiv(QuadMul(binom, QuadFromDouble(static_cast<double>(k + 1 - j))),
                        QuadFromDouble(static_cast<double>(j)));
      pw[j] = QuadMul(pw[j], fq[j]);
      sum = QuadAdd(sum, QuadMul(QuadMul(binom, c[j]), pw[j]));
    }
    c[k] = QuadSub(one, sum);
  }
  Quad total = QuadFromDouble(0.0), binom = one, term = QuadFromDouble(0.0);
  for (int64_t j = 0; j <= J; ++j) {
    if (j > 0)
      binom = QuadDiv(QuadMul(binom, QuadFromDouble(static_cast<double>(n - j + 1))),
                      QuadFromDouble(static_cast<double>(j)));
    // The power as exp((n - j) log f_j), the log taken in double and
    // widened; f_j = 0 gives a term of 0.  j < n always (J < n).
    term = f[j] > 0.0 ? QuadMul(QuadMul(binom, c[j]),
                                QuadExp(QuadMul(QuadFromDouble(static_cast<double>(n - j)),
                                                QuadFromDouble(std::log(f[j])))))
                      : QuadFromDouble(0.0);
    total = QuadAdd(total, term);
  }
  out.tail = QuadToDouble(total);
  out.last = QuadToDouble(term);
  return out;
}

}  // namespace

// P(D+ >= d) (upper) or P(D- >= d) (lower) by the paths of the cumulative
// counts N(s) over the points of the table: the count on each point is
// binomial given the count below it, and the mass of the paths that cross
// is summed where they first cross.  The crossing rule is the one that
// chooses Conover's f_j: F(s) within the margin of (1 - d) - (n - N(s))/n
// from below (upper), or of d + N(s)/n from above before the last point
// (lower).  All terms are positive: no cancellation.  Costs M n^2 / 2.
double PathTail(int64_t n, double d, const std::vector<double>& cdf, bool upper) {
  const int64_t M = static_cast<int64_t>(cdf.size());
  const double dn = static_cast<double>(n);
  std::vector<double> lf(static_cast<size_t>(n) + 1, 0.0), alive(static_cast<size_t>(n) + 1, 0.0),
      next(static_cast<size_t>(n) + 1, 0.0);
  for (int64_t k = 1; k <= n; ++k) lf[k] = lf[k - 1] + std::log(static_cast<double>(k));
  alive[0] = 1.0;
  long double crossed = 0.0L;
  double below = 0.0;
  for (int64_t s = 0; s < M; ++s) {
    const double F = cdf[s];
    const bool last = s == M - 1;
    auto crosses = [&](int64_t k) {
      if (upper) {
        const double t = (1.0 - d) - static_cast<double>(n - k) / dn;
        return F - t <= kConoverMargin * F;
      }
      const double t = d + static_cast<double>(k) / dn;
      return !last && t - F <= kConoverMargin * F;
    };
    const double q = last ? 1.0 : std::clamp((F - below) / (1.0 - below), 0.0, 1.0);
    const double lq = std::log(q), lr = std::log1p(-q);
    std::fill(next.begin(), next.end(), 0.0);
    for (int64_t k = 0; k <= n; ++k) {
      if (alive[k] == 0.0) continue;
      const int64_t m = n - k;
      for (int64_t x = 0; x <= m; ++x) {
        double pmf;
        if (q >= 1.0)
          pmf = x == m ? 1.0 : 0.0;
        else if (q <= 0.0)
          pmf = x == 0 ? 1.0 : 0.0;
        else
          pmf = std::exp(lf[m] - lf[x] - lf[m - x] + static_cast<double>(x) * lq +
                         static_cast<double>(m - x) * lr);
        if (pmf == 0.0) continue;
        const double w = alive[k] * pmf;
        if (crosses(k + x))
          crossed += w;
        else
          next[k + x] += w;
      }
    }
    std::swap(alive, next);
    below = F;
  }
  return static_cast<double>(crossed);
}

double KsOneSidedExact(int64_t n, double d, bool* overflow) {
  *overflow = false;
  if (d <= 0.0) return 1.0;
  const double dn = static_cast<double>(n);
  const double log_d = std::log(d);

  // The alternating sum, for its verdict on overflow.
  double e = (dn - 1.0) * std::log(1.0 + d) + log_d;
  if (e > kLogOverflow) {
    *overflow = true;
    return 0.0;
  }
  double S = ExpOrZero(e);
  const int64_t top = static_cast<int64_t>(dn * d);
  double r = -d, binom = 1.0;
  const double step = 1.0 / dn;
  for (int64_t j = 1; j <= top; ++j) {
    r += step;
    binom *= static_cast<double>(n - j + 1) / static_cast<double>(j);
    if (r == 0.0 || r == 1.0) continue;
    e = std::log(binom) + log_d + static_cast<double>(j) * std::log(std::fabs(r)) +
        static_cast<double>(n - j - 1) * std::log(std::fabs(1.0 - r));
    if (e > kLogOverflow) {
      *overflow = true;
      return 0.0;
    }
    double sign = 1.0;
    if (r < 0.0)
      sign = (j % 2 == 0) ? 1.0 : -1.0;
    else if (r > 1.0)
      sign = ((n - j - 1) % 2 == 0) ? 1.0 : -1.0;
    const double next = S + sign * ExpOrZero(e);
    const bool settled = QLRALMOSTEQUAL(next, S, kOneSidedStopUlps);
    S = next;
    if (settled) break;
  }

  // The value, as the sum of positive terms that 1 - S equals.
  const int64_t last = static_cast<int64_t>(dn * (1.0 - d));
  long double log_binom = 0.0L, p = 0.0L;
  for (int64_t j = 0; j <= last && j < n; ++j) {
    if (j > 0) log_binom += std::log(static_cast<long double>(n - j + 1) / j);
    const long double jn = static_cast<long double>(j) / dn;
    const long double low = 1.0L - d - jn;
    if (low <= 0.0L) break;
    const long double lt = log_binom + (dn - j) * std::log(low) +
                           (static_cast<long double>(j) - 1.0L) * std::log(d + jn) + log_d;
    p += std::exp(lt);
  }
  return static_cast<double>(p);
}

int DurbinLogCdf(int64_t n, double d, double* log_cdf, bool* positive) {
  const int64_t k = static_cast<int64_t>(static_cast<double>(n) * d);
  const int64_t m = 2 * k + 1;
  const double h = static_cast<double>(1 + k) - static_cast<double>(n) * d;
  const size_t cells = static_cast<size_t>(m) * static_cast<size_t>(m);
  // Three matrices of m^2 doubles; beyond half the free memory they would
  // only be granted on credit.
  const double bytes = 3.0 * 8.0 * static_cast<double>(cells);
  const int64_t free_bytes = FreePhysicalMemory();
  if (free_bytes > 0 && bytes > 0.5 * static_cast<double>(free_bytes)) return -1;
  ScaledMatrix H, R, T;
  try {
    H.a.resize(cells);
    R.a.resize(cells);
    T.a.resize(cells);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  BuildDurbin(m, h, H.a);
  Normalise(H);
  R.a = H.a;
  R.log_scale = H.log_scale;
  int top = 63;
  while (top > 0 && !((static_cast<uint64_t>(n) >> top) & 1u)) --top;
  for (int bit = top - 1; bit >= 0; --bit) {
    Multiply(R.a.data(), R.a.data(), T.a.data(), m);
    T.log_scale = 2.0 * R.log_scale;
    std::swap(R, T);
    Normalise(R);
    if ((static_cast<uint64_t>(n) >> bit) & 1u) {
      Multiply(R.a.data(), H.a.data(), T.a.data(), m);
      T.log_scale = R.log_scale + H.log_scale;
      std::swap(R, T);
      Normalise(R);
    }
  }
  const double x = R.a[static_cast<size_t>(k) * static_cast<size_t>(m) + static_cast<size_t>(k)];
  *positive = x > 0.0;
  if (!*positive) return 0;
  long double s = 0.0L;
  for (int64_t i = 1; i <= n; ++i) s += std::log(static_cast<long double>(i) / n);
  *log_cdf = R.log_scale + std::log(x) + static_cast<double>(s);
  return 0;
}

double KsTwoSidedExact(int64_t n, double d, double one_plus, double one_minus, int* code) {
  *code = 0;
  double L = 0.0;
  bool positive = false;
  if (DurbinLogCdf(n, d, &L, &positive) != 0) {
    *code = static_cast<int>(fail::kNoMemory);
    double mark;
    PCINMS(&mark);
    return mark;
  }
  if (!positive || L < kLogUnderflow) return 1.0;
  if (L <= kLogOverflow) return 1.0 - std::exp(L);
  if (one_plus >= 0.0 && one_plus <= 1.0 && one_minus >= 0.0 && one_minus <= 1.0) {
    double mark;
    PCINMS(&mark);
    return mark;
  }
  return 0.0;
}

ConoverTail ConoverUpper(int64_t n, double d, const std::vector<double>& cdf) {
  int64_t J = -1;
  const std::vector<double> f = UpperThresholds(n, d, cdf, &J);
  return ConoverSum(n, J, f);
}

ConoverTail ConoverLower(int64_t n, double d, const std::vector<double>& cdf) {
  int64_t J = -1;
  const std::vector<double> f = LowerThresholds(n, d, cdf, &J);
  return ConoverSum(n, J, f);
}

ConoverTail DiscreteTail(int64_t n, double d, const std::vector<double>& cdf, bool upper) {
  ConoverTail t = upper ? ConoverUpper(n, d, cdf) : ConoverLower(n, d, cdf);
  const double paths = PathTail(n, d, cdf, upper);
  if (!(std::fabs(t.tail - paths) <= kConoverTrust * paths)) {
    t.tail = paths;
    t.by_paths = true;
    if (t.last != 0.0) PCINMS(&t.last);
  }
  return t;
}

double KsLimitTwoSided(double z) {
  if (z <= 0.0 || z < kLimitSmallZ) return 1.0;
  const double z2 = z * z;
  double sum = 0.0;
  for (int64_t k = 1;; ++k) {
    const double e = -2.0 * static_cast<double>(k) * static_cast<double>(k) * z2;
    const double t = ExpOrZero(e);
    if (t <= kLimitTermFloor) break;
    sum += (k % 2 == 1) ? t : -t;
  }
  return 2.0 * sum;
}

}  // namespace anvl::eng
