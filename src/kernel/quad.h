// Quadruple precision: the few operations the engine needs, over GCC's
// __float128 and libquadmath.
#pragma once

#include <cstdint>

namespace anvl {

struct Quad {
  __float128 v;
};

Quad QuadFromDouble(double x);
double QuadToDouble(Quad x);
Quad QuadAdd(Quad a, Quad b);
Quad QuadSub(Quad a, Quad b);
Quad QuadMul(Quad a, Quad b);
Quad QuadDiv(Quad a, Quad b);
Quad QuadPowInt(Quad a, int64_t n);
Quad QuadExp(Quad a);

}  // namespace anvl
