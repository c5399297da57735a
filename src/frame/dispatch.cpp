#include "frame/dispatch.h"

#include "kernel/binomial.h"
#include "network/contingency.h"
#include "network/fisher.h"
#include "scores/marginal.h"
#include "scores/two_sample.h"

namespace anvl {
namespace {

using Driver = void (*)(const CallArgs&);

// One row per procedure code: its selector and its driver.  A valid code
// whose driver is null isn't built in this release and answers as an
// unknown one.  A new procedure is one row here.
struct Route {
  int64_t procedure;
  int64_t selector;
  Driver driver;
};

constexpr Route kRoutes[] = {
    {1, 2, scores::ScoreDriver},          {2, 1, scores::ScoreDriver},
    {502, 1, scores::ScoreDriver},
    {6, 1, nullptr},    {7, 2, net::ContingencyDriver},
    {507, 2, net::ContingencyDriver},       {31, 3, net::ContingencyDriver},
    {42, 4, net::ContingencyDriver},        {9, 1, BinomialDriver},
    {10, 9, scores::SquareTableDriver},   {510, 9, scores::SquareTableDriver},  {11, 2, nullptr},
    {19, 1, nullptr},   {18, 1, nullptr},   {20, 9, nullptr},
    {21, 8, nullptr},   {24, 1, nullptr},   {26, 2, nullptr},
    {51, 3, nullptr},   {32, 1, net::FisherDriver},
    {40, 2, nullptr},   {45, 1, nullptr},   {41, 3, nullptr},
    {47, 1, nullptr},   {48, 2, nullptr},   {43, 1, nullptr},
    {46, 1, nullptr},   {49, 1, nullptr},   {50, 1, nullptr},
};

const Route* Find(int64_t procedure) {
  for (const Route& r : kRoutes)
    if (r.procedure == procedure) return r.driver ? &r : nullptr;
  return nullptr;
}

}  // namespace

int64_t SelectorOf(int64_t procedure) {
  const Route* r = Find(procedure);
  return r ? r->selector : 0;
}

void RunDriver(int64_t procedure, const CallArgs& args) {
  if (const Route* r = Find(procedure)) r->driver(args);
}

}  // namespace anvl
