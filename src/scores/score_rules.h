// Score rules of the two-sample tests: one score per level of a table of
// counts.  Ties are levels, and a rule defined on ranks gives a level the
// mean of the scores of the ranks its observations occupy.
//
// Built: midranks (Wilcoxon, selector 1), equally spaced scores 0, 1, ...,
// K - 1 (selector 2) and the caller's own scores (selector 5).  The other
// rules of the family (normal, Savage, Siegel-Tukey, Ansari-Bradley, Mood,
// Klotz scores, squared ranks, the squared statistic) are reached by no
// procedure code and are not built.
#pragma once

#include <cstdint>
#include <vector>

namespace anvl::scores {

// Selectors of the score family.
inline constexpr int64_t kMidranks = 1;
inline constexpr int64_t kEquallySpaced = 2;
inline constexpr int64_t kCallerScores = 5;

// True for a selector of the family's table, built or not.
bool IsScoreSelector(int64_t selector);
// True for a selector whose two-sample rule is built.
bool HasTwoSampleRule(int64_t selector);

// The counts of one level.
struct LevelCounts {
  int64_t first = 0;
  int64_t second = 0;
};

// Scores s[0..K-1] and level totals c[0..K-1] of a two-row table.
// Status 0; -1 for a negative count, a pooled total at or above 2^31 or an
// empty second sample; -3 for a caller's score that isn't finite.  An
// empty first sample passes: the run treats it as nothing to test.
int TwoSampleScores(const std::vector<LevelCounts>& levels, const double* caller_scores,
                    int64_t selector, std::vector<double>& s, std::vector<double>& c);

// Midranks of level totals c: s[0] = (c[0] + 1) / 2,
// s[i] = s[i - 1] + (c[i - 1] + c[i]) / 2.  An empty level lies midway
// between its neighbours' ranks.
void Midranks(const std::vector<double>& c, std::vector<double>& s);

}  // namespace anvl::scores
