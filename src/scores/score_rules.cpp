#include "scores/score_rules.h"

#include <cmath>

#include "frame/failure_codes.h"

namespace anvl::scores {
namespace {
// Pooled totals must stay below 2^31.
constexpr double kLargestTotal = 2147483648.0;
}  // namespace

bool IsScoreSelector(int64_t selector) {
  switch (selector) {
    case 1: case 2: case 3: case 4: case 5: case 8:
    case 11: case 12: case 13: case 14: case 15: case 16:
      return true;
    default:
      return false;
  }
}

bool HasTwoSampleRule(int64_t selector) {
  return selector == kMidranks || selector == kEquallySpaced || selector == kCallerScores;
}

void Midranks(const std::vector<double>& c, std::vector<double>& s) {
  s.assign(c.size(), 0.0);
  for (size_t i = 0; i < c.size(); ++i)
    s[i] = i == 0 ? (c[0] + 1.0) / 2.0 : s[i - 1] + (c[i - 1] + c[i]) / 2.0;
}

int TwoSampleScores(const std::vector<LevelCounts>& levels, const double* caller_scores,
                    int64_t selector, std::vector<double>& s, std::vector<double>& c) {
  const size_t K = levels.size();
  c.assign(K, 0.0);
  s.assign(K, 0.0);
  double N = 0.0, second = 0.0;
  for (size_t i = 0; i < K; ++i) {
    if (levels[i].first < 0 || levels[i].second < 0) return static_cast<int>(fail::kNoMemory);
    c[i] = static_cast<double>(levels[i].first) + static_cast<double>(levels[i].second);
    N += c[i];
    second += static_cast<double>(levels[i].second);
    if (N >= kLargestTotal) return static_cast<int>(fail::kNoMemory);
  }
  if (second < 1.0) return static_cast<int>(fail::kNoMemory);
  switch (selector) {
    case kMidranks:
      Midranks(c, s);
      break;
    case kEquallySpaced:
      for (size_t i = 0; i < K; ++i) s[i] = static_cast<double>(i);
      break;
    case kCallerScores:
      if (caller_scores == nullptr) return static_cast<int>(fail::kOutsideModel);
      for (size_t i = 0; i < K; ++i) {
        if (!std::isfinite(caller_scores[i])) return static_cast<int>(fail::kOutsideModel);
        s[i] = caller_scores[i];
      }
      break;
    default:
      return static_cast<int>(fail::kBadSelector);
  }
  return 0;
}

}  // namespace anvl::scores
