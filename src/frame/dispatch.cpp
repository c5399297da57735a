#include "frame/dispatch.h"

#include "kernel/binomial.h"
#include "network/contingency.h"
#include "network/fisher.h"

namespace anvl {
namespace {

struct Route {
  int64_t procedure;
  int64_t selector;
  bool built;  // a valid code whose run isn't built answers as an unknown one
};

constexpr Route kRoutes[] = {
    {1, 2, false},  {2, 1, false},   {502, 1, false}, {6, 1, false},  {7, 2, true},
    {507, 2, true}, {31, 3, true}, {42, 4, true},  {9, 1, true},   {10, 9, false},
    {510, 9, false}, {11, 2, false}, {19, 1, false},  {18, 1, false}, {20, 9, false},
    {21, 8, false},  {24, 1, false}, {26, 2, false},  {51, 3, false}, {32, 1, true},
    {40, 2, false},  {45, 1, false}, {41, 3, false},  {47, 1, false}, {48, 2, false},
    {43, 1, false},  {46, 1, false}, {49, 1, false},  {50, 1, false},
};

}  // namespace

int64_t SelectorOf(int64_t procedure) {
  for (const Route& r : kRoutes)
    if (r.procedure == procedure) return r.built ? r.selector : 0;
  return 0;
}

void RunDriver(int64_t procedure, const CallArgs& args) {
  switch (procedure) {
    case 9:
      BinomialDriver(args);
      break;
    case 7:
    case 507:
    case 31:
    case 42:
      net::ContingencyDriver(args);
      break;
    case 32:
      net::FisherDriver(args);
      break;
    default:
      break;
  }
}

}  // namespace anvl
