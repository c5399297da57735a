// tq_types.h - what the parts of tq hand each other: a usage error, the
// fields a test publishes, the options every test shares, and the
// arguments of one engine call.
#ifndef TQ_TYPES_H
#define TQ_TYPES_H

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "anvlwtq.h"

namespace tq {

// Exit status of tq.
constexpr int kExitSuccess = 0;
constexpr int kExitEngineFailure = 1;
constexpr int kExitUsage = 2;

// A mistake of the caller: bad option, bad number, bad shape of the data.
// tq prints its message on one line and exits with status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] inline void Fail(const std::string& message) { throw UsageError(message); }

// How a record field is shown.
enum class Kind {
  kValue,  // a real, six significant digits
  kCount,  // a whole number
  kP,      // a probability
  kSide,   // 1.0 lower tail, 2.0 upper tail
  kMc      // a Monte Carlo estimate; the next two fields hold its interval
};

// One field of the record as a test publishes it.
struct Field {
  int index;          // field of the record
  const char* key;    // name in --json
  const char* label;  // name in the report
  Kind kind;
};

enum class Method { kExact = 1, kMonteCarlo = 2, kAsymptotic = 3 };
enum class Output { kReport, kJson, kRecord };

// The options that every test takes, defined once (tq_options.cpp).
struct SharedOptions {
  Method method = Method::kExact;
  int64_t samples = 10000;  // Monte Carlo tables
  int64_t seed = 2000000;   // first seed of the random stream
  double level = 0.99;      // level of the Monte Carlo intervals
  std::string time_limit;   // "30s", "5m", "1h"; a bare number is minutes
  std::string memory;       // "2G", "16M"; empty: a quarter of the machine
  std::string spill;        // spill file of the network runs
  std::string missing = "nan";
  Output output = Output::kReport;
  bool quiet = false;
};

// One line of the report above the results that says how tq read or chose
// a setting (a cut point, missing values skipped); also in the JSON.
struct Setting {
  std::string key;               // name in --json "settings"
  std::string label;             // name in the report
  std::string text;              // value in the report
  std::optional<double> number;  // value in --json; the text when absent
};

// The arguments of one call of TQCALLER, in the engine's layout, and what
// the report says about them.
struct Call {
  std::array<int64_t, TQ_INT_COUNT> ints{};
  std::array<double, TQ_REAL_COUNT> reals{};
  std::vector<int64_t> table{0};  // row index fastest
  int64_t rows = 0, cols = 0;
  std::vector<double> row_scores{0.0};
  std::vector<double> scores{0.0};
  std::vector<double> case_data{0.0};  // row index fastest
  int64_t case_rows = 0, case_cols = 0;
  std::vector<int64_t> weights{0};
  bool table_form = false;
  // Values of the columns of a table tabulated from numbers: the default
  // column scores.
  std::vector<double> level_values;
  std::string spill;
  std::vector<Setting> settings;
  // Memory of the network runs: the ceiling in MiB that tq sets in the
  // environment and the kilobytes of IntParams[9].
  int64_t memory_ceiling_mib = 16;
  double time_limit_seconds = 0.0;  // 0: none
};

}  // namespace tq

#endif  // TQ_TYPES_H
