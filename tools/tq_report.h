// tq_report.h - what tq prints on standard output: the report, one JSON
// object (--json) or the raw record (--record).
#ifndef TQ_REPORT_H
#define TQ_REPORT_H

#include "tq_engine.h"
#include "tq_types.h"

namespace tq {

struct Test;

void PrintResult(const Test& test, const Call& call, const SharedOptions& shared, const RunResult& run);

}  // namespace tq

#endif  // TQ_REPORT_H
