#include "frame/dispatch.h"

#include "engines/related_samples.h"
#include "engines/ks_one_sample.h"
#include "association/gk_tau.h"
#include "association/kappa.h"
#include "association/likelihood.h"
#include "association/concordance.h"
#include "association/jonckheere.h"
#include "association/kruskal_wallis.h"
#include "association/linear.h"
#include "kernel/binomial.h"
#include "network/contingency.h"
#include "network/fisher.h"
#include "scores/ks_two_sample.h"
#include "scores/marginal.h"
#include "scores/runs.h"
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
    {6, 1, eng::KsOneSampleDriver},        {7, 2, net::ContingencyDriver},
    {507, 2, net::ContingencyDriver},       {31, 3, net::ContingencyDriver},
    {42, 4, net::ContingencyDriver},        {9, 1, BinomialDriver},
    {10, 9, scores::SquareTableDriver},   {510, 9, scores::SquareTableDriver},  {11, 2, scores::RunsDriver},
    {19, 1, scores::RunsDriver},   {18, 1, scores::KsTwoSampleDriver},   {20, 9, assoc::JonckheereDriver},
    {21, 8, assoc::KruskalWallisDriver},   {24, 1, eng::RelatedSamplesDriver},
    {26, 2, eng::RelatedSamplesDriver},     {51, 3, eng::RelatedSamplesDriver},
    {32, 1, net::FisherDriver},
    {40, 2, assoc::LikelihoodDriver},      {45, 1, assoc::LikelihoodDriver},   {41, 3, assoc::LinearDriver},
    {47, 1, assoc::LinearDriver},           {48, 2, assoc::LinearDriver},
    {43, 1, assoc::KappaDriver},
    {46, 1, assoc::GkTauDriver},   {49, 1, assoc::KendallDriver},   {50, 1, assoc::GammaDriver},
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
