// Procedure 6: the one-sample Kolmogorov-Smirnov test of a weighted sample
// against a fully specified continuous uniform, Poisson, normal or
// exponential distribution.  The statistics D+ (largest excess of the
// empirical distribution function over the model's), D- (the other way)
// and D = max(D+, D-), each with an asymptotic, a Monte Carlo and an exact
// p-value: the exact route takes Durbin's matrix for continuous models and
// Conover's recursion for the Poisson.
#pragma once

#include "frame/driver.h"

namespace anvl::eng {

// Driver of procedure 6.  The case data are one row of values with one
// weight (count) each; a null weight array weighs every value 1.
// Failure codes: 116 more than one case row; -3 a parameter refused (a
// uniform with a >= b, a Poisson mean, normal sd or exponential scale
// <= 0, any parameter that isn't finite), a value that isn't finite, a
// value outside [a, b] of the uniform; -14 a negative value under the
// Poisson or the exponential; -15 a value that isn't whole under the
// Poisson; -1 an empty sample, a negative weight, a Poisson mean above
// 50000, or an exact continuous run whose Durbin matrix is too large.
void KsOneSampleDriver(const CallArgs& args);

}  // namespace anvl::eng
