// tq_catalog.h - the tests that tq offers, one entry each.
//
// Adding a test: one entry in Catalog() (tq_catalog.cpp) with its name,
// procedure code, the data it reads (the Reads flags below, which bring the
// shared data options), the record fields it publishes, and, where it has
// options of its own, one function that declares them on its subcommand and
// returns what they write into the call (see BinomialOptions).  The data
// options of the flags (--table, --table-file, --data with --value-column and
// --group-column, --values, --weights, --case-rows, --scores, --row-scores)
// and the shared options (method, Monte Carlo, --time-limit, --memory,
// --spill, output) exist already; a test's own options read its other
// inputs, and Tabulate() (tq_data.h) turns grouped raw values into a table
// whose column scores are the values.
#ifndef TQ_CATALOG_H
#define TQ_CATALOG_H

#include <CLI/CLI.hpp>
#include <functional>
#include <vector>

#include "tq_types.h"

namespace tq {

// What a test reads.  The data options of each flag are defined once in
// tq_data.cpp; the method options follow from the methods.
enum Reads : unsigned {
  kTable = 1u << 0,            // a table of counts: --table, --table-file, --data with --group-column
  kCases = 1u << 1,            // case values: --values, --weights, --case-rows, --data
  kColumnScores = 1u << 2,     // --scores, one per column
  kRowScores = 1u << 3,        // --row-scores, one per row
  kRowLengthScores = 1u << 4,  // --scores, one per row (square tables)
  kNetwork = 1u << 5,          // a network run: --spill, and the memory budget can run out
  kExactOnly = 1u << 6,        // no Monte Carlo or asymptotic method
  kOwnData = 1u << 7,          // the test's own options may give the data instead
};

// Fills the test's own parameters into the call once the data are read.
using Prepare = std::function<void(Call&)>;
// Declares the test's own options on its subcommand.
using OwnOptions = Prepare (*)(CLI::App&);

struct Test {
  const char* name;     // the subcommand
  int64_t code;         // ProcedureCode; also accepted as the subcommand
  const char* title;    // heading of the report
  const char* summary;  // one line of tq --help
  unsigned reads;
  std::vector<Field> fields;
  OwnOptions options = nullptr;
};

const std::vector<Test>& Catalog();

// The fields of a call's report: a test's fields as the data shape them
// (the Mann-Whitney form has no U on one sample).
std::vector<Field> FieldsFor(const Test& test, const Call& call);

// Number of stages of the two-way network on this table, or 0 when the
// test has no such network: the progress lines count stages of it.
int64_t NetworkStages(const Test& test, const Call& call);

}  // namespace tq

#endif  // TQ_CATALOG_H
