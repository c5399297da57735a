#include "kernel/quad.h"

#include <quadmath.h>

namespace anvl {

Quad QuadFromDouble(double x) { return {static_cast<__float128>(x)}; }
double QuadToDouble(Quad x) { return static_cast<double>(x.v); }
Quad QuadAdd(Quad a, Quad b) { return {a.v + b.v}; }
Quad QuadSub(Quad a, Quad b) { return {a.v - b.v}; }
Quad QuadMul(Quad a, Quad b) { return {a.v * b.v}; }
Quad QuadDiv(Quad a, Quad b) { return {a.v / b.v}; }

// a^n by repeated squaring: about log2 |n| roundings, each of 2^-113, so
// far below the double result that the callers take.  n < 0 gives 1 / a^|n|.
Quad QuadPowInt(Quad a, int64_t n) {
  // The magnitude of n as unsigned, so that the smallest int64 is safe.
  uint64_t m = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  __float128 base = a.v, result = 1;
  while (m != 0) {
    if (m & 1u) result *= base;
    m >>= 1;
    if (m != 0) base *= base;
  }
  return {n < 0 ? 1 / result : result};
}

Quad QuadExp(Quad a) { return {expq(a.v)}; }

}  // namespace anvl
