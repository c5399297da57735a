#include "association/likelihood.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "network/node_store.h"
#include "network/pearson.h"
#include "network/two_by_two.h"

namespace anvl::assoc {
namespace {

constexpr DriverTraits kLikelihoodTraits{true, true, true, 0};
constexpr int64_t kPublishedCodes[] = {0, 45, 40};

// The slots of the three coefficients (value, then its standard error) and
// of their intervals (low, then high).
constexpr int kSymmetricSlot = 73, kColGivenRowSlot = 69, kRowGivenColSlot = 71;
constexpr int kSymmetricInterval = 132, kColGivenRowInterval = 134, kRowGivenColInterval = 136;

double XLogX(int64_t n) {
  return n > 0 ? static_cast<double>(n) * std::log(static_cast<double>(n)) : 0.0;
}

}  // namespace

std::vector<double> XLogXTable(int64_t N) {
  std::vector<double> t(static_cast<size_t>(N) + 1);
  for (int64_t n = 0; n <= N; ++n) t[static_cast<size_t>(n)] = XLogX(n);
  return t;
}

int LikelihoodRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                            const double* lf) {
  rows_ = rows;
  cols_ = cols;
  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  try {
    xlogx_ = XLogXTable(N_);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  const double n = static_cast<double>(N_), L = std::log(n);
  df_ = (rows - 1) * (cols - 1);
  h_ = 0.0;
  g2_ = 0.0;
  double mr = 0.0, mc = 0.0, ai = 0.0;
  for (int64_t r : row_totals_) mr += static_cast<double>(r) * (std::log(static_cast<double>(r)) - L);
  for (int64_t c : col_totals_) mc += static_cast<double>(c) * (std::log(static_cast<double>(c)) - L);
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const int64_t x = table[i + j * rows];
      if (x <= 0) continue;  // an empty cell adds nothing: log 0 is never taken
      const double xd = static_cast<double>(x), lx = std::log(xd);
      const double R = static_cast<double>(row_totals_[i]), C = static_cast<double>(col_totals_[j]);
      h_ += xlogx_[static_cast<size_t>(x)];
      g2_ += xd * (lx - std::log(R * (C / n)));
      ai += xd * ((std::log(C) + (std::log(R) - L)) - lx);
    }
  g2_ *= 2.0;
  p_ = ChiSquareTail(g2_, df_);  // 0 at G² = 0, as for every chi-square test of the engine
  table_probability_ = std::exp(TableLogProbability(table, row_totals_, col_totals_, N_, lf));
  if (selector_ != kUncertainty) return 0;

  uc_.value = ai / mc;
  ur_.value = ai / mr;
  us_.value = 2.0 * ai / (mc + mr);
  double sc = 0.0, sr = 0.0, ss = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const int64_t x = table[i + j * rows];
      if (x <= 0) continue;
      const double xd = static_cast<double>(x), lx = std::log(xd);
      const double R = static_cast<double>(row_totals_[i]), C = static_cast<double>(col_totals_[j]);
      const double ec = std::log((xd / R) / (C / n)) + (std::log(C) - L) * uc_.value;
      const double er = std::log((xd / C) / (R / n)) + (std::log(R) - L) * ur_.value;
      const double es = std::log(C * (R / n)) * (2.0 - us_.value) + L * us_.value - 2.0 * lx;
      sc += xd * ec * ec;
      sr += xd * er * er;
      ss += xd * es * es;
    }
  uc_.ase = std::sqrt(sc / mc / mc);
  ur_.ase = std::sqrt(sr / mr / mr);
  us_.ase = std::sqrt(ss / ((mc + mr) * (mc + mr)));
  return 0;
}

void LikelihoodRun::PublishAsymptotic() const {
  PublishRunWords(kPublishedCodes[selector_]);
  if (selector_ == kUncertainty) {
    const double c = Setting(setting::kIntervalConfidence);
    const double z = NormalQuantile((1.0 + c) / 2.0);
    struct Row {
      int slot, interval;
      Measure m;
    };
    for (const Row& r : {Row{kSymmetricSlot, kSymmetricInterval, us_},
                         Row{kColGivenRowSlot, kColGivenRowInterval, uc_},
                         Row{kRowGivenColSlot, kRowGivenColInterval, ur_}}) {
      Publish(r.slot, r.m.value);
      Publish(r.slot + 1, r.m.ase);
      Publish(r.interval, std::clamp(r.m.value - z * r.m.ase, 0.0, 1.0));
      Publish(r.interval + 1, std::clamp(r.m.value + z * r.m.ase, 0.0, 1.0));
    }
    Publish(slot::kIntervalPercent, 100.0 * c);
    SetWord(word::kSampleTotal, N_);
  } else {
    Publish(slot::kStatistic, g2_);
  }
  PublishClamped(slot::kAsymTwoSided, p_);
  SetWord(word::kDegreesOfFreedom, df_);
}

int LikelihoodRun::Exact(const double* lf, net::PassResult& pass) const {
  // The totals of the shorter dimension are the key (the rows when r = c),
  // both sides ascending.
  const bool rows_key = rows_ <= cols_;
  std::vector<int64_t> A = rows_key ? row_totals_ : col_totals_;
  std::vector<int64_t> B = rows_key ? col_totals_ : row_totals_;
  std::sort(A.begin(), A.end());
  std::sort(B.begin(), B.end());
  if (static_cast<int64_t>(B.size()) > net::kMaxStages ||
      static_cast<int64_t>(A.size()) > net::kMaxDigits)
    return -1;
  net::Network net;
  net.SetMargins(std::move(A), std::move(B), lf, true);
  int64_t limit = 0;
  if (net::EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  NodeFileGuard spill;
  const LikelihoodMember member{net.K, xlogx_.data()};
  return net::RunPasses(net, member, h_, pass);
}

bool LikelihoodRun::Hit::operator()(const int64_t* table) const {
  const LikelihoodRun& r = *run;
  double h = 0.0;
  for (int64_t k = 0; k < r.rows_ * r.cols_; ++k) h += r.xlogx_[static_cast<size_t>(table[k])];
  return h >= r.h_ - LikelihoodMember::kTolerance * std::fabs(r.h_);
}

void LikelihoodDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kLikelihoodTraits, work);
  const RunStore& st = Store();
  if (code == 0) {
    if (st.data_form != 1 || st.run_selector < 1 || st.run_selector > 3 || st.row_count < 2 ||
        st.column_count < 2) {
      code = fail::kOneRowOrColumn;
    } else if (st.row_count == 2 && st.column_count == 2 && st.run_selector != kUncertainty) {
      code = net::TwoByTwoLikelihoodRun(work.data());
    } else {
      LikelihoodRun run(st.run_selector == kUncertainty ? kUncertainty : kLikelihoodRatio);
      code = FamilyRun(run, work, st.row_count, st.column_count, st.run_method);
    }
  }
  EndDriver(code);
}

}  // namespace anvl::assoc
